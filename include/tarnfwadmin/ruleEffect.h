/// What a rule does at its place in a profile, besides the rules and default policies around it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// How many rules at the head of an adapter's list are reserved: no other rule may precede them.
std::size_t reservedAtHead(const std::vector<FW::FWRULE>& rules);

struct RuleEffect {
    bool hasLines = false;                ///< else it matches nothing on this machine, or is off
    std::optional<RulePlace> shadowedBy;  ///< it never takes effect, because of this rule

    /// Rules and default policies before it that decide otherwise for some of what it matches, or
    /// may: those of other adapters as well, for packets that are forwarded.
    std::vector<RulePlace> exceptions;

    /// Without it everything that it matches, but for the exceptions, would be decided in the same
    /// way: by other rules and default policies, or since nothing decides. Never said of a rule of
    /// an adapter for outgoing packets.
    bool changesNothing = false;
};

/// What the rule at `place` of a profile does. Considers single rules: one that several shadow
/// together counts as taking effect. Throws Error, kSystem, when the interfaces cannot be listed.
RuleEffect ruleEffect(const FW::FWPROFILE& profile, const RulePlace& place, Machine& machine);

/// The place at which `rule`, which never takes effect as the last of an adapter's list, would: in
/// that list, before the rule that shadows it; or, where one of "global" does, in "global". Nothing
/// where the rule that shadows it is a reserved one, which no other may precede.
std::optional<RulePlace> effectivePlace(FW::FWPROFILE profile, const FW::FWRULE& rule,
                                        const std::string& adapter, Machine& machine);

/// What the default policy of an adapter leaves open.
enum class OpenByPolicy {
    kNothing,     ///< it denies, or a rule decides everything
    kNotDenied,   ///< what no rule denies
    kEverything,  ///< everything: no rule denies anything
};

/// The adapter's default policy is "allow" unless the profile has one. Of "global" it is kNothing.
/// Considers single rules. Throws as ruleEffect().
OpenByPolicy openByPolicy(FW::FWPROFILE profile, const std::string& adapter, Machine& machine);

/// In one line, for a rule with lines that is not shadowed: "opens tcp 8080 on every adapter, for
/// everybody", "closes tcp 22 on eth0, for 10.0.0.0/8, except what rule 1 of eth0 allows", "tcp 22
/// is open already on eth0, for everybody". An effect that changes nothing has its exceptions
/// named, too. Not made printable.
std::string effectText(const FW::FWRULE& rule, const std::string& adapter,
                       const RuleEffect& effect);

}  // namespace tarnfw
