/// The rules of the firewall's chains as text, to put them back: after a failed reload, and at
/// boot.
#pragma once

#include <map>
#include <optional>
#include <string>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/packetFilter.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// What one family has, or had: the policies of INPUT and FORWARD, and the rules of INPUT_FIREWALL,
/// FORWARD_FIREWALL and FIREWALL_RELOADING. Chains that are missing are left out.
using FamilyRules = RuleListing;

/// The rules of the firewall's chains at one moment, by family: "v4", "v6". A family that the
/// machine does not have is left out.
class SavedRules {
public:
    SavedRules() = default;
    explicit SavedRules(std::map<std::string, FamilyRules> families)
        : families_(std::move(families)) {}

    /// Those in the kernel now, IPv4 and IPv6 at the same time. Throws Error, kSystem, when a
    /// family that the machine has cannot be listed.
    static SavedRules inKernel(const PacketFilter& kernel = MachineKernel(),
                               PacketFilter::Others others = PacketFilter::Others::kAwaited);

    /// Those in listings of the filter table, by family.
    static SavedRules of(const std::map<std::string, RuleListing>& listings);

    /// Those of a document, see document(). Throws Error, kInvalid, for one of another shape.
    static SavedRules from(const Json::Value& document);

    const std::map<std::string, FamilyRules>& families() const { return families_; }

    /// Whether one of the firewall's two chains has a rule.
    bool hasRules() const;

    /// The same with no policies: putting them back leaves the kernel's as they are.
    SavedRules withoutPolicies() const;

    /// The same with FIREWALL_RELOADING empty.
    SavedRules withoutReloading() const;

    /// The text for iptables-restore --noflush or ip6tables-restore --noflush. It replaces the
    /// rules of the chains, which it creates when they are missing, and sets the policies.
    std::string restoreText(const std::string& family) const;

    /// The text of each family: {"v4": "*filter\n...", "v6": "..."}.
    Json::Value document() const;

    /// Puts them into the kernel, each family at once. Throws Error, kSystem, for a family that
    /// cannot be put back, after trying the other.
    void putBack(const PacketFilter& kernel = MachineKernel(),
                 PacketFilter::Others others = PacketFilter::Others::kAwaited) const;

    bool operator==(const SavedRules& other) const { return document() == other.document(); }

private:
    std::map<std::string, FamilyRules> families_;
};

/// The file of the rules that were last in force without an error; only root reads it.
inline constexpr char kLastGoodFile[] = "/usr/tarn/etc/firewall.last_good.json";

/// The rules of that file; nothing while there is none. Throws Error: kSystem when it cannot be
/// read, kInvalid when it is damaged.
std::optional<SavedRules> lastGoodRules();

/// Stores the rules, without policies, in that file: atomically and flushed, and only when they are
/// not those that it has. Throws Error, kSystem.
void storeLastGood(const SavedRules& rules);

/// Removes the file. Throws Error, kSystem.
void forgetLastGood();

}  // namespace tarnfw
