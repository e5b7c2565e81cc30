/// What a rule does at its place in a profile, and where one takes effect.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// How many rules at the head of an adapter's list are reserved: no other rule may precede them.
std::size_t reservedAtHead(const std::vector<FW::FWRULE>& rules);

/// Whether a rule makes lines for the packet filter: it is on, and matches something.
bool hasLines(const Meaning& meaning, const RulePlace& place);

/// The place before which a rule takes effect that never does at its own, because of `shadowedBy`:
/// in its own list, before the first of these; or, where all of them are rules of "global", there.
/// Nothing where no other rule may precede them.
std::optional<RulePlace> effectivePlace(const FW::FWPROFILE& profile, const RulePlace& place,
                                        const std::vector<RulePlace>& shadowedBy);

/// What the default policy of an adapter leaves open.
enum class OpenByPolicy {
    kNothing,     ///< it denies, or rules decide about everything
    kNotDenied,   ///< what no rule denies
    kEverything,  ///< everything: no rule denies anything
};

/// Of new connections to the machine. The adapter's default policy is "allow" unless the profile
/// has one. Of "global" it is kNothing.
OpenByPolicy openByPolicy(const Meaning& meaning, const std::string& adapter);

}  // namespace tarnfw
