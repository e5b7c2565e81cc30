#include "tarnfwadmin/meaning.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <set>
#include <utility>

#include <boost/algorithm/string/join.hpp>

#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

FW::ServPort portsByProtocol(const Service& service) {
    FW::ServPort ports;
    const auto add = [](const ServiceSide& side, auto& byProtocol) {
        if (!side.ports.empty()) {
            byProtocol[static_cast<FW::FW_PORT_PROTOCOL>(side.protocol)] = side.ports;
        }
    };
    add(service.source, ports.srcPorts);
    add(service.destination, ports.dstPorts);
    return ports;
}

/// Whether an address is within {"10.0.0.5", "255.0.0.255"}, or {"10.0.0.5/255.0.0.255"}. Nothing
/// where these are not written in full.
std::optional<bool> isWithinMask(const std::vector<std::string>& list, const Address& address) {
    const std::string text = boost::join(list, "/");
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos) {
        return std::nullopt;
    }
    const std::optional<Address> value = addressFrom(text.substr(0, slash));
    const std::optional<Address> mask = addressFrom(text.substr(slash + 1));
    if (!value || !mask || value->isIpv6() != mask->isIpv6()) {
        return std::nullopt;
    }
    if (value->isIpv6() != address.isIpv6()) {
        return false;
    }
    for (std::size_t i = 0; i < mask->bytes().size(); ++i) {
        if (((value->bytes()[i] ^ address.bytes()[i]) & mask->bytes()[i]) != 0) {
            return false;
        }
    }
    return true;
}

/// Makes a rule one for every address of the family that it is for.
void widen(FW::FWRULE& rule) {
    if (rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES) {
        rule.ipGroup = FW::FW_IP_GROUP_ANY;
        return;
    }
    const bool isIpv6 =
        std::any_of(rule.ipList.begin(), rule.ipList.end(),
                    [](const std::string& text) { return text.find(':') != std::string::npos; });
    // As a range, which only the lines of its own family take.
    rule.ipGroup = FW::FW_IP_GROUP_RANGE;
    rule.ipList = isIpv6 ? std::vector<std::string>{"::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}
                         : std::vector<std::string>{"0.0.0.0", "255.255.255.255"};
}

bool isOfProfile(const FW::FWRESOLVEDRULE& rule) {
    return rule.place.origin == FW::FW_ORIGIN_RULE || rule.place.origin == FW::FW_ORIGIN_DEFAULT;
}

}  // namespace

bool isNotCounted(const FW::FWFINDING& finding) {
    return finding.kind == FW::FW_FINDING_TOO_COMPLEX;
}

FW::FWENVIRONMENT environmentOf(const std::vector<FW::FWPROFILE>& profiles, Machine& machine,
                                FW::FW_ADAPTERS adapters,
                                const std::vector<std::string>& services) {
    FW::FWPROFILE all = together(profiles);
    // The services come from the machine, whose catalogue has been read.
    std::set<std::string> names(services.begin(), services.end());
    for (auto& [adapter, rules] : all.rules) {
        for (FW::FWRULE& rule : rules) {
            if (FW::fwRuleNamesServices(rule)) {
                names.insert(rule.portList.begin(), rule.portList.end());
                rule.portList.clear();
            }
        }
    }
    FW::FWENVIRONMENT environment;
    if (!FW::fwEnvironmentGet(all, adapters, {}, environment)) {
        throw Error(ErrorKind::kSystem, "the interfaces of the machine cannot be listed");
    }
    for (const std::string& name : names) {
        const std::optional<Service> service = machine.requireCatalogue().find(name);
        if (service && service->usable()) {
            environment.services[name] = portsByProtocol(*service);
        }
    }
    return environment;
}

FW::FWENVIRONMENT environmentOf(const std::vector<FW::FWPROFILE>& profiles,
                                FW::FW_ADAPTERS adapters,
                                const std::vector<std::string>& services) {
    Machine machine;
    return environmentOf(profiles, machine, adapters, services);
}

Meaning::Meaning(const FW::FWPROFILE& profile, Machine& machine)
    : Meaning(profile, environmentOf({profile}, machine)) {}

Meaning::Meaning(const FW::FWPROFILE& profile) : Meaning(profile, environmentOf({profile})) {}

Meaning::Meaning(FW::FWPROFILE profile, FW::FWENVIRONMENT environment)
    : state_(std::make_shared<State>()) {
    state_->profile = std::move(profile);
    state_->environment = std::move(environment);
    state_->resolved = FW::fwResolve(state_->profile, state_->environment);
    for (const FW::FWFINDING& finding : state_->resolved.findings) {
        if (isNotCounted(finding)) {
            state_->uncounted[finding.place.adapter].insert(finding.place.position);
        }
    }
}

const std::vector<FW::FWRESOLVEDRULE>& Meaning::rulesWithUncounted() const {
    if (state_->uncounted.empty()) {
        return rules();
    }
    if (!state_->withUncounted) {
        FW::FWPROFILE widened = state_->narrowed.value_or(profile());
        for (const auto& [adapter, positions] : state_->uncounted) {
            for (const std::int32_t position : positions) {
                widen(widened.rules.at(adapter).at(static_cast<std::size_t>(position) - 1));
            }
        }
        state_->withUncounted = FW::fwResolve(widened, environment()).rules;
    }
    return *state_->withUncounted;
}

bool Meaning::isUncounted(const FW::FWPLACE& place) const {
    const auto positions = state_->uncounted.find(place.adapter);
    return place.origin == FW::FW_ORIGIN_RULE && positions != state_->uncounted.end() &&
           positions->second.count(place.position) != 0;
}

const FW::FW_MEANING& Meaning::answers() const {
    if (!state_->answers) {
        state_->answers.emplace(state_->resolved.rules);
    }
    return *state_->answers;
}

Meaning Meaning::between(const std::optional<Address>& source,
                         const std::optional<Address>& destination) const {
    FW::FWPROFILE changed = profile();
    bool isChanged = false;
    for (const FW::FWFINDING& finding : findings()) {
        if (!isNotCounted(finding)) {
            continue;
        }
        FW::FWRULE& rule = changed.rules.at(finding.place.adapter)
                               .at(static_cast<std::size_t>(finding.place.position) - 1);
        const auto& address = rule.ipDirect == FW::FW_IP_DIRECT_DESTINATION ? destination : source;
        const std::optional<bool> matches =
            address ? isWithinMask(rule.ipList, *address) : std::nullopt;
        if (!matches) {
            continue;
        }
        isChanged = true;
        if (*matches) {
            rule.ipGroup = FW::FW_IP_GROUP_SINGLE;
            rule.ipList = {spelled(*address)};
        } else {
            rule.enable = false;
        }
    }
    if (!isChanged) {
        return *this;
    }
    Meaning between(std::move(changed), environment());
    // For the texts of its rules.
    between.state_->narrowed = std::exchange(between.state_->profile, profile());
    return between;
}

std::vector<FW::FWRESOLVEDRULE> Meaning::ownRules() const {
    std::vector<FW::FWRESOLVEDRULE> own;
    std::copy_if(rules().begin(), rules().end(), std::back_inserter(own), isOfProfile);
    return own;
}

std::optional<RulePlace> rulePlaceOf(const FW::FWPLACE& place) {
    switch (place.origin) {
        case FW::FW_ORIGIN_RULE:
            return RulePlace{place.adapter, static_cast<std::size_t>(place.position)};
        case FW::FW_ORIGIN_DEFAULT:
            return RulePlace{place.adapter, 0};
        default:
            return std::nullopt;
    }
}

bool isSamePlace(const FW::FWPLACE& one, const FW::FWPLACE& other) {
    return one.origin == other.origin && one.adapter == other.adapter &&
           one.position == other.position;
}

std::string placeText(const FW::FWPLACE& place) {
    switch (place.origin) {
        case FW::FW_ORIGIN_LOOPBACK:
            return "the acceptance of the machine's own packets";
        case FW::FW_ORIGIN_NEIGHBOURS:
            return "the acceptance of neighbour discovery";
        case FW::FW_ORIGIN_ESTABLISHED:
            return "the acceptance of established connections";
        case FW::FW_ORIGIN_RULE:
        case FW::FW_ORIGIN_DEFAULT:
            return placeText(*rulePlaceOf(place));
        default:
            return "no rule";
    }
}

namespace {

/// "1, 3-8 and 10": three positions or more in a row are a range.
std::string positionsText(const std::vector<std::int32_t>& positions) {
    constexpr std::size_t kRange = 3;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < positions.size();) {
        std::size_t end = i + 1;
        while (end < positions.size() && positions[end] == positions[end - 1] + 1) {
            ++end;
        }
        if (end - i >= kRange) {
            texts.push_back(std::to_string(positions[i]) + "-" +
                            std::to_string(positions[end - 1]));
            i = end;
        } else {
            texts.push_back(std::to_string(positions[i]));
            ++i;
        }
    }
    return enumerated(texts);
}

}  // namespace

std::string placesText(const std::vector<FW::FWPLACE>& places, std::size_t most) {
    const std::size_t named = places.size() > most + 1 ? most : places.size();
    std::vector<std::string> texts;
    std::vector<std::int32_t> positions;  // of the rules of one adapter
    std::vector<std::string> adapters;    // of default policies
    for (std::size_t i = 0; i < named; ++i) {
        const FW::FWPLACE& place = places[i];
        if (place.origin == FW::FW_ORIGIN_DEFAULT) {
            adapters.push_back(printable(place.adapter));
            if (i + 1 == named || places[i + 1].origin != FW::FW_ORIGIN_DEFAULT) {
                texts.push_back(
                    (adapters.size() == 1 ? "the default policy of " : "the default policies of ") +
                    enumerated(adapters));
                adapters.clear();
            }
            continue;
        }
        if (place.origin != FW::FW_ORIGIN_RULE) {
            texts.push_back(placeText(place));
            continue;
        }
        positions.push_back(place.position);
        const bool goesOn = i + 1 < named && places[i + 1].origin == FW::FW_ORIGIN_RULE &&
                            places[i + 1].adapter == place.adapter;
        if (!goesOn) {
            texts.push_back((positions.size() == 1 ? "rule " : "rules ") +
                            positionsText(positions) + " of " + printable(place.adapter));
            positions.clear();
        }
    }
    if (named < places.size()) {
        texts.push_back(counted(places.size() - named, "other"));
    }
    return enumerated(texts);
}

}  // namespace tarnfw
