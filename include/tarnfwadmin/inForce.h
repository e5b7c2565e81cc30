/// Compares the rules in the kernel with the active profile, family by family.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/savedRules.h"
#include "tarnfwadmin/storeSession.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// What is in force in one family.
enum class InForce {
    kAsStored,   ///< the rules of the active profile; while the firewall is disabled, none
    kDifferent,  ///< other rules, such as those from before a change
    kNothing,    ///< no rules, though the active profile has some
    kNoBase,     ///< chains or jumps are missing: packets bypass the rules
    kClosed,  ///< what a reload in apply mode "lines" leaves while it runs, or when it was killed
    kAbsent,  ///< the machine has no packet filter for this family
    kUnknown  ///< its filter table cannot be listed
};

/// One family of the kernel's packet filter.
struct FamilyInForce {
    std::string key;  ///< "v4"
    InForce state = InForce::kAsStored;
    bool open = false;  ///< the policies of INPUT and FORWARD accept
    bool inOrder = true;
    BaseParts missing;
    std::size_t loadedRules = 0;  ///< in the two firewall chains
    std::string failure;          ///< with kUnknown, why
};

/// The filter table of a family.
struct FilterListing {
    std::optional<RuleListing> rules;  ///< none when the machine does not have the family
    std::string failure;               ///< why it cannot be listed; `rules` is then none
};

/// Those of the machine, by family: "v4", "v6".
using FilterListings = std::map<std::string, FilterListing>;

/// Lists them, each once, at the same time. Throws Error, kSystem, when none can be listed.
FilterListings filterListings();

/// What is in force in each family, "v4" first, by the stored settings and the active profile.
std::vector<FamilyInForce> familiesInForce(const FilterListings& listings,
                                           const StoreSnapshot& store);

/// Whether these rules are those of a translation, see commandsFor(), in every family that they
/// have; compared as by inForceOf().
bool hasTranslation(const SavedRules& rules, const Json::Value& commands);

/// The same for the active profile, translated now. False when it cannot be read or translated.
bool hasActiveProfile(const SavedRules& rules, const StoreSnapshot& store);

/// What is in force in a family. `listing` is its filter table; none where the machine has none.
/// `wanted` are the stored profile's lines for the firewall's chains, in order: empty while the
/// firewall is disabled, none when the profile cannot be translated. Rules are compared by what
/// they match, as far as that can be read from the line without loading it (interfaces, addresses,
/// protocol, ports, target), by number and order: a difference in other conditions, such as a
/// country, is not seen.
FamilyInForce inForceOf(const std::string& key, const std::optional<RuleListing>& listing,
                        const std::optional<std::vector<std::string>>& wanted);

/// "asStored", "different", "nothing", "noBase", "closed", "absent", "unknown".
std::string inForceWord(InForce state);

}  // namespace tarnfw
