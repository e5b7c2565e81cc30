/// What a profile means on this machine: which packets it lets through, see fwMeaning.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwEnvironment.h"
#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Whether it is a rule that is in the kernel but not among the resolved ones, since its addresses
/// are too complex. Of a finding about a profile.
bool isNotCounted(const FW::FWFINDING& finding);

/// What the meaning of each of these profiles depends on besides its text: one environment for all
/// of them, so that they can be compared. It knows the services and countries that they name, and
/// those of `services`, from the machine's catalogue. Throws Error, kSystem, when the interfaces
/// cannot be listed, or the catalogue cannot be read while there is a service to look up.
FW::FWENVIRONMENT environmentOf(const std::vector<FW::FWPROFILE>& profiles, Machine& machine,
                                FW::FW_ADAPTERS adapters = FW::FW_ADAPTERS_ALL,
                                const std::vector<std::string>& services = {});

/// The same, of a machine that is asked for this alone.
FW::FWENVIRONMENT environmentOf(const std::vector<FW::FWPROFILE>& profiles,
                                FW::FW_ADAPTERS adapters = FW::FW_ADAPTERS_ALL,
                                const std::vector<std::string>& services = {});

/// The resolved rules of a profile. Copies share them. For one thread.
class Meaning {
public:
    /// In an environment of its own, with all its adapters. Throws Error as environmentOf().
    Meaning(const FW::FWPROFILE& profile, Machine& machine);
    explicit Meaning(const FW::FWPROFILE& profile);
    Meaning(FW::FWPROFILE profile, FW::FWENVIRONMENT environment);

    const FW::FWPROFILE& profile() const { return state_->profile; }
    const FW::FWENVIRONMENT& environment() const { return state_->environment; }
    const std::vector<FW::FWRESOLVEDRULE>& rules() const { return state_->resolved.rules; }

    /// Rules that are left out of rules(), or that have lines in chains of others.
    const std::vector<FW::FWFINDING>& findings() const { return state_->resolved.findings; }

    /// The same for packets between these addresses alone, of which either may be unknown. Rules
    /// for masks that are too complex are then among rules(): such a mask is compared with the
    /// address itself. Those written with other numbers than decimal ones stay out.
    Meaning between(const std::optional<Address>& source,
                    const std::optional<Address>& destination) const;

    /// rules(), and among them those that are in the kernel but too complex, as if each of these
    /// were for every address of its family. Made at the first call.
    const std::vector<FW::FWRESOLVEDRULE>& rulesWithUncounted() const;

    /// Whether it is a place of the latter.
    bool isUncounted(const FW::FWPLACE& place) const;

    /// rules(), prepared for questions at the first call.
    const FW::FW_MEANING& answers() const;

    /// What rules() would be without the lines that are the same for every profile: packets of the
    /// machine to itself, neighbour discovery and established connections are then subject to the
    /// profile. For words about it, which leave these out.
    std::vector<FW::FWRESOLVEDRULE> ownRules() const;

private:
    struct State {
        FW::FWPROFILE profile;
        FW::FWENVIRONMENT environment;
        FW::FWRESOLVED resolved;
        std::optional<FW::FWPROFILE> narrowed;  // that is resolved, if it is not `profile`
        std::map<std::string, std::set<std::int32_t>> uncounted;  // by adapter: positions
        std::optional<std::vector<FW::FWRESOLVEDRULE>> withUncounted;
        std::optional<FW::FW_MEANING> answers;
    };
    std::shared_ptr<State> state_;
};

/// A rule that is in the kernel but not among Meaning::rules(), since it is too complex.
struct UncountedRule {
    FW::FWPLACE place;
    bool denied = false;
};

/// The place of a resolved rule that comes from a rule or a default policy; nothing for the others.
std::optional<RulePlace> rulePlaceOf(const FW::FWPLACE& place);

bool isSamePlace(const FW::FWPLACE& one, const FW::FWPLACE& other);

/// "rule 3 of eth0", "the default policy of eth0", "the acceptance of established connections", "no
/// rule". Printable.
std::string placeText(const FW::FWPLACE& place);

/// "rules 3-5 and 7 of eth0, rule 1 of eth1 and the default policies of eth1 and eth2"; of more
/// than `most` the first ones, and how many there are besides. Printable.
std::string placesText(const std::vector<FW::FWPLACE>& places, std::size_t most);

}  // namespace tarnfw
