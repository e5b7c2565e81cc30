/// The kernel's packet filter, as iptables and ip6tables list and change it.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/program.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// A table of one family, or some of its chains, as "-S" lists it.
struct RuleListing {
    std::map<std::string, std::string> policies;             ///< by built-in chain: "ACCEPT"
    std::map<std::string, std::vector<std::string>> chains;  ///< "-A INPUT -j X", in order

    /// Reads a listing.
    static RuleListing from(const std::string& text);

    /// Reads what iptables-save writes of one table, with counters or without.
    static RuleListing fromSaved(const std::string& text);

    bool has(const std::string& chain) const { return chains.count(chain) != 0; }

    /// The rules of a chain; none where it is not there.
    const std::vector<std::string>& rulesOf(const std::string& chain) const;

    /// The position, from 1, of the first such rule of a chain; 0 when it has none.
    std::size_t positionOf(const std::string& chain, const std::string& rule) const;

    /// Whether the policy of a built-in chain is this one.
    bool hasPolicy(const std::string& chain, const std::string& policy) const;
};

/// The packet filter of a network. Every run waits up to 30 s for other programs' locks, where
/// nothing else is said.
class PacketFilter {
public:
    /// Whether a run waits for other programs that change the filter, as the legacy variant does.
    enum class Others { kAwaited, kIgnored };

    virtual ~PacketFilter() = default;

    /// Runs the tool of a family ("v4", "v6"). Throws Error, kSystem, when that cannot be done.
    ProgramAnswer run(const std::string& family, const std::vector<std::string>& arguments,
                      Others others = Others::kAwaited) const;

    /// Hands a text to the restoring tool of a family, which adds to what is there.
    ProgramAnswer restore(const std::string& family, const std::string& text,
                          Others others = Others::kAwaited) const;

    /// Lists a table of a family, in one run, or only one chain of it. Throws Error, kSystem, where
    /// there is no such table or chain.
    RuleListing list(const std::string& family, const std::string& table,
                     const std::string& chain = "") const;

    /// Lists a table; nothing when the machine does not have the family, see isAbsent().
    std::optional<RuleListing> listPresent(const std::string& family, const std::string& table,
                                           Others others = Others::kAwaited) const;

    /// The filter tables of the families that the machine has, listed at the same time.
    std::map<std::string, RuleListing> listFilters(Others others = Others::kAwaited) const;

    /// Chains in groups, each of which is listed by a program of its own.
    using ChainGroups = std::vector<std::vector<std::string>>;

    /// Chains of the filter tables, by family; nothing when one of them is missing or cannot be
    /// listed. All programs run at the same time, and wait for nobody.
    std::optional<std::map<std::string, RuleListing>> listChains(
        const std::map<std::string, ChainGroups>& families) const;

    /// Whether the machine lacks the family altogether: there is no such program, or the kernel has
    /// no such table. IPv4 is never absent: without it nothing filters, which is an error.
    bool isAbsent(const std::string& family) const;

    /// The families that the machine has, "v4" first.
    std::vector<std::string> families() const;

protected:
    PacketFilter() = default;

private:
    ProgramAnswer runTool(const std::string& program, const std::vector<std::string>& arguments,
                          int input, Others others) const;

    /// What is called in a new process before its program runs, see runProgram(); none for nothing.
    virtual std::function<bool()> entrance() const { return {}; }
};

/// That of this machine.
class MachineKernel : public PacketFilter {};

/// Waits for what is left of `time` until nobody holds the lock that the legacy variant of iptables
/// takes: a task that runs iptables several times would wait for it each time. Throws Error, kBusy,
/// as throwLocked().
void awaitXtablesLock(LockTime& time);

/// Whether this process can open the file of that lock, which is made if it is missing.
bool canOpenXtablesLock();

/// Whether the family has the programs of nf_tables: they take no lock, and hand their rules to the
/// part of the kernel that nft serves as well. False also without programs.
bool isNftVariant(const std::string& family);

/// Whether the family has a program. That of IPv4 always counts as there: see isAbsent().
bool hasProgram(const std::string& family);

/// "/sbin/iptables" or "/sbin/ip6tables".
std::string programOf(const std::string& family);

/// "IPv4" or "IPv6".
std::string titleOf(const std::string& family);

}  // namespace tarnfw
