/// What the kernel has of what is stored, family by family.
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
    kAbsent   ///< the machine has no packet filter for this family
};

/// One family of the kernel's packet filter.
struct FamilyInForce {
    std::string key;  ///< "v4"
    InForce state = InForce::kAsStored;
    bool open = false;  ///< the policies of INPUT and FORWARD accept
    bool inOrder = true;
    BaseParts missing;
    std::size_t loadedRules = 0;  ///< in the two firewall chains
};

/// The filter tables of the machine, by family; none for a family that it does not have.
using FilterListings = std::map<std::string, std::optional<RuleListing>>;

/// Lists them, each once, at the same time. Throws Error, kSystem, when a family that the machine
/// has cannot be listed.
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

/// "asStored", "different", "nothing", "noBase", "closed", "absent".
std::string inForceWord(InForce state);

}  // namespace tarnfw
