/// The base packet filter: the chains that the library fills, and the jumps to them. A storage OS
/// sets them up by itself; on an ordinary Linux this library does.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/packetFilter.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The chain that accepts established connections during a reload.
inline constexpr char kReloadingChain[] = "FIREWALL_RELOADING";

/// Chains and jumps of one family, present or missing, wanted or added.
struct BaseParts {
    std::vector<std::string> chains;                         ///< "INPUT_FIREWALL"
    std::vector<std::pair<std::string, std::string>> jumps;  ///< {"INPUT", "INPUT_FIREWALL"}

    bool empty() const { return chains.empty() && jumps.empty(); }
};

/// The complete base filter. The order is that of adding; jumps are listed in the order in which
/// packets meet them.
const BaseParts& wholeBase();

/// The base filter of one address family. Lists the kernel's filter table once, with the first
/// question, and again after a change. Failures throw Error, kSystem.
class BaseFilter {
public:
    /// `key` is "v4" or "v6"; `listing` is that of its filter table, where it is known.
    explicit BaseFilter(std::string key, std::optional<RuleListing> listing = std::nullopt)
        : key_(std::move(key)), listing_(std::move(listing)) {}

    const std::string& key() const { return key_; }
    std::string title() const;  ///< "IPv4" or "IPv6"

    /// The missing chains and jumps.
    BaseParts missing() const;

    /// Throws Error, kSystem, with what is missing, unless all is there.
    void requireWhole() const;

    /// Whether packets pass the jump to FIREWALL_RELOADING before that to a firewall chain.
    /// Another program may have set them up in the wrong order; a reload then cuts established
    /// connections.
    bool inOrder() const;

    /// How many rules are in the two firewall chains.
    std::size_t loadedRules() const;

    /// Whether the machine is closed, as a reload in apply mode "lines" leaves it while it runs, or
    /// when it was killed, even at its first commands: see closedPolicies().
    bool isClosed() const;

    /// The policies of INPUT and FORWARD: "ACCEPT" or "DROP", by chain.
    std::map<std::string, std::string> policies() const;

    void setPolicy(const std::string& chain, const std::string& policy);

    /// Adds `parts`: chains, then jumps, at the head of their chain and FIREWALL_RELOADING's first.
    void add(const BaseParts& parts);

    /// Removes those of `parts` that exist: jumps, then chains with their rules.
    void remove(const BaseParts& parts);

private:
    const RuleListing& listing() const;
    void run(const std::vector<std::string>& arguments);

    std::string key_;
    mutable std::optional<RuleListing> listing_;
};

/// What to say of a base filter that is not inOrder().
inline constexpr char kWrongOrder[] =
    "set up, but a firewall chain comes before FIREWALL_RELOADING: reloads cut connections";

/// Those of the families that the machine has, IPv4 first, as listed now. Throws Error, kSystem.
std::vector<BaseFilter> baseFilters(PacketFilter::Others others = PacketFilter::Others::kAwaited);

/// Throws Error, kSystem, with what is missing, while chains or jumps are missing in a family that
/// the machine has. Lists only the two chains that have the jumps: a chain that is jumped to
/// exists. The library does not look at the exit status of its commands: without these chains the
/// machine would seem protected and let everybody in.
void requireBase();

/// The chains, INPUT or FORWARD, whose policy was DROP at "base up" and is ACCEPT in `listing`: a
/// reload by a program that does not put policies back has made it so, or somebody. None without a
/// readable record, see loadBaseRecord(): this only looks.
std::vector<std::string> openedPolicies(const std::string& family, const RuleListing& listing);

/// Makes them DROP again, under the lock of a reload, and returns them: "INPUT of IPv4". Throws
/// Error: kBusy, kSystem.
std::vector<std::string> closeOpenedPolicies();

/// Whether a family is closed but for established connections, as a reload in apply mode "lines"
/// makes it: a policy is DROP, and FIREWALL_RELOADING has the rule for these.
bool dropsAllButEstablished(const RuleListing& listing);

/// The chains, INPUT or FORWARD, whose policy is DROP in `listing` and was another before a reload
/// in apply mode "lines" that has not ended: it is running, or was killed. Such a reload sets these
/// policies before its rule for established connections.
std::vector<std::string> closedPolicies(const std::string& family, const RuleListing& listing);

/// "chains A, B; jumps C -> D", or "nothing".
std::string describe(const BaseParts& parts);

}  // namespace tarnfw
