#include "tarnfwadmin/ruleEffect.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "check/ruleMatcher.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

const std::string kGlobal = FW::FW_ADAPTER_GLOBAL;

/// Matches all packets that come in.
FW::FWRULE ruleForEverything(FW::FW_POLICY policy) {
    FW::FWRULE everything;
    everything.enable = true;
    everything.policy = policy;
    everything.portGroup = FW::FW_PORT_GROUP_ANY;
    everything.ipGroup = FW::FW_IP_GROUP_ANY;
    everything.ipType = FW::FW_IP_TYPE_BOTH;
    everything.adapterDirect = FW::FW_ADAPTER_DIRECT_IN;
    return everything;
}

std::vector<RuleMatcher> matchersOf(const FW::FWPROFILE& profile, const std::string& adapter,
                                    Machine& machine) {
    std::vector<RuleMatcher> matchers;
    const auto list = profile.rules.find(adapter);
    for (std::size_t i = 0; list != profile.rules.end() && i < list->second.size(); ++i) {
        if (auto matcher = matcherOf(list->second[i], {adapter, i + 1}, machine)) {
            matchers.push_back(std::move(*matcher));
        }
    }
    return matchers;
}

/// The adapters whose packets a rule of `adapter` may match.
std::set<std::string> adaptersMet(const FW::FWPROFILE& profile, const std::string& adapter) {
    if (adapter != kGlobal) {
        return {adapter};
    }
    std::set<std::string> adapters;
    for (const std::string& name : machineAdapters()) {
        adapters.insert(name);
    }
    for (const auto& [name, rules] : profile.rules) {
        adapters.insert(name);
    }
    for (const auto& [name, policy] : profile.adapterPolicyMap) {
        adapters.insert(name);
    }
    for (auto name = adapters.begin(); name != adapters.end();) {
        name = *name == kGlobal || isNeverApplied(*name) ? adapters.erase(name) : std::next(name);
    }
    return adapters;
}

/// What an adapter's default policy matches: as the last rule of its list, for incoming packets.
std::optional<RuleMatcher> policyMatcher(const FW::FWPROFILE& profile, const std::string& adapter,
                                         Machine& machine) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    if (policy == profile.adapterPolicyMap.end()) {
        return std::nullopt;
    }
    return matcherOf(ruleForEverything(policy->second), {adapter, 0}, machine);
}

enum class Side { kBefore, kAfter };

/// The rules and default policies of the other adapters whose lines come before those of `adapter`,
/// or after them. Those of "global" are not among them.
std::vector<RuleMatcher> matchersOfOthers(const FW::FWPROFILE& profile, const std::string& adapter,
                                          Side side, Machine& machine) {
    std::vector<RuleMatcher> matchers;
    for (const std::string& other : adaptersOf(profile)) {
        const bool isMeant = side == Side::kBefore ? other < adapter : adapter < other;
        if (other == kGlobal || isNeverApplied(other) || !isMeant) {
            continue;
        }
        for (RuleMatcher& matcher : matchersOf(profile, other, machine)) {
            matchers.push_back(std::move(matcher));
        }
        if (auto matcher = policyMatcher(profile, other, machine)) {
            matchers.push_back(std::move(*matcher));
        }
    }
    return matchers;
}

/// Whether an interface may be of both: "vpn" and "pppoe" are other names of interfaces.
bool shareInterface(const std::string& one, const std::string& other) {
    const auto isAmong = [](const std::string& name, const std::vector<std::string>& names) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    return one == other || isAmong(one, interfacesOf(other)) || isAmong(other, interfacesOf(one));
}

bool isOutgoing(const FW::FWRULE& rule) {
    return rule.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT;
}

/// Whether a packet may match both. Packets of an adapter's rules come in or go out; one that is
/// forwarded comes in through one adapter and goes out through another.
bool mayMeet(const RuleMatcher& one, const RuleMatcher& other) {
    if (!mayOverlap(one, other)) {
        return false;
    }
    const bool sameWay = isOutgoing(one.rule) == isOutgoing(other.rule);
    return one.global || other.global ||
           (sameWay ? shareInterface(one.place.adapter, other.place.adapter)
                    : one.place.adapter != other.place.adapter);
}

bool decidesOtherwise(const RuleMatcher& one, const RuleMatcher& other) {
    return one.rule.policy != other.rule.policy && mayMeet(one, other);
}

/// Whether what comes after it decides all that it matches as it does. Says so of no rule for
/// outgoing packets: what they meet depends on where they came in.
bool isDecidedAnyway(const RuleMatcher& rule, const FW::FWPROFILE& profile,
                     const std::vector<RuleMatcher>& later, Machine& machine) {
    const auto otherwise = [&](const RuleMatcher& other) { return decidesOtherwise(other, rule); };
    if ((!rule.global && isOutgoing(rule.rule)) ||
        std::any_of(later.begin(), later.end(), otherwise)) {
        return false;
    }
    const bool denies = rule.rule.policy == FW::FW_POLICY_DENY;
    const std::string& list = rule.place.adapter;
    if (!rule.global && !policyMatcher(profile, list, machine)) {
        // Packets that are forwarded go on to the lines for where they go out.
        const std::vector<RuleMatcher> others =
            matchersOfOthers(profile, list, Side::kAfter, machine);
        if (std::any_of(others.begin(), others.end(), otherwise)) {
            return false;
        }
    }
    const std::set<std::string> adapters = adaptersMet(profile, list);
    return !adapters.empty() &&
           std::all_of(adapters.begin(), adapters.end(), [&](const std::string& adapter) {
               const auto policy = profile.adapterPolicyMap.find(adapter);
               const bool closed =
                   policy != profile.adapterPolicyMap.end() && policy->second == FW::FW_POLICY_DENY;
               if (closed != denies) {
                   return false;
               }
               // Rules of an adapter come after those of "global".
               const std::vector<RuleMatcher> own =
                   rule.global ? matchersOf(profile, adapter, machine) : std::vector<RuleMatcher>();
               return std::none_of(own.begin(), own.end(), otherwise);
           });
}

// ---- In words -----------------------------------------------------------------------------------

std::string whatText(const FW::FWRULE& rule) {
    std::string text = portText(rule);
    const std::string side = " source port ";
    const std::size_t found = text.find(side);
    return found == std::string::npos ? text
                                      : text.replace(found, side.size(), " from source port ");
}

std::string whereText(const FW::FWRULE& rule, const std::string& adapter) {
    if (adapter == kGlobal) {
        return "on every adapter";
    }
    return (rule.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT ? "for packets forwarded out through "
                                                            : "on ") +
           adapter;
}

std::string whomText(const FW::FWRULE& rule) {
    const std::string address = addressText(rule);
    const std::string other = address.substr(address.find(' ') + 1);
    if (rule.ipGroup == FW::FW_IP_GROUP_ANY) {
        return "for everybody";
    }
    return rule.ipDirect == FW::FW_IP_DIRECT_DESTINATION ? "for packets to " + other
                                                         : "for " + other;
}

/// ", except what rule 2 of global allows"; empty without exceptions.
std::string exceptionsText(const std::vector<RulePlace>& places, bool denies) {
    if (places.empty()) {
        return "";
    }
    if (places.size() == 1) {
        return ", except what " + placeText(places.front()) + (denies ? " allows" : " denies");
    }
    const bool policies = std::any_of(places.begin(), places.end(),
                                      [](const RulePlace& place) { return place.position == 0; });
    return std::string(", except what earlier rules ") + (policies ? "and default policies " : "") +
           (denies ? "allow" : "deny");
}

}  // namespace

std::size_t reservedAtHead(const std::vector<FW::FWRULE>& rules) {
    return static_cast<std::size_t>(std::distance(
        rules.begin(), std::find_if_not(rules.begin(), rules.end(), FW::fwRuleIsReserved)));
}

RuleEffect ruleEffect(const FW::FWPROFILE& profile, const RulePlace& place, Machine& machine) {
    RuleEffect effect;
    const FW::FWRULE& rule = profile.rules.at(place.adapter).at(place.position - 1);
    const auto own = matcherOf(rule, place, machine);
    if (!own || isNeverApplied(place.adapter)) {
        return effect;
    }
    effect.hasLines = true;
    std::vector<RuleMatcher> before;
    std::vector<RuleMatcher> later;
    if (place.adapter != kGlobal) {
        before = matchersOf(profile, kGlobal, machine);
    }
    for (RuleMatcher& other : matchersOf(profile, place.adapter, machine)) {
        if (other.place.position < place.position) {
            before.push_back(std::move(other));
        } else if (other.place.position > place.position) {
            later.push_back(std::move(other));
        }
    }
    for (const RuleMatcher& other : before) {
        if (shadows(other, *own)) {
            effect.shadowedBy = other.place;
            return effect;
        }
        if (decidesOtherwise(other, *own)) {
            effect.exceptions.push_back(other.place);
        }
    }
    if (!own->global) {
        for (const RuleMatcher& other :
             matchersOfOthers(profile, place.adapter, Side::kBefore, machine)) {
            if (decidesOtherwise(other, *own)) {
                effect.exceptions.push_back(other.place);
            }
        }
    }
    effect.changesNothing = isDecidedAnyway(*own, profile, later, machine);
    return effect;
}

std::optional<RulePlace> effectivePlace(FW::FWPROFILE profile, const FW::FWRULE& rule,
                                        const std::string& adapter, Machine& machine) {
    std::vector<FW::FWRULE>& list = profile.rules[adapter];
    list.push_back(rule);
    const std::optional<RulePlace> shadow =
        ruleEffect(profile, {adapter, list.size()}, machine).shadowedBy;
    if (!shadow || shadow->position <= reservedAtHead(profile.rules[shadow->adapter])) {
        return std::nullopt;
    }
    list.pop_back();
    std::vector<FW::FWRULE>& there = profile.rules[shadow->adapter];
    there.insert(std::next(there.begin(), static_cast<std::ptrdiff_t>(shadow->position - 1)), rule);
    const RuleEffect effect = ruleEffect(profile, *shadow, machine);
    return effect.hasLines && !effect.shadowedBy ? shadow : std::nullopt;
}

OpenByPolicy openByPolicy(FW::FWPROFILE profile, const std::string& adapter, Machine& machine) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    const bool denies =
        policy != profile.adapterPolicyMap.end() && policy->second == FW::FW_POLICY_DENY;
    if (adapter == kGlobal || denies) {
        return OpenByPolicy::kNothing;
    }
    std::vector<FW::FWRULE>& list = profile.rules[adapter];
    list.push_back(ruleForEverything(FW::FW_POLICY_ALLOW));
    const RuleEffect effect = ruleEffect(profile, {adapter, list.size()}, machine);
    if (effect.shadowedBy) {
        return OpenByPolicy::kNothing;
    }
    return effect.exceptions.empty() ? OpenByPolicy::kEverything : OpenByPolicy::kNotDenied;
}

std::string effectText(const FW::FWRULE& rule, const std::string& adapter,
                       const RuleEffect& effect) {
    const bool denies = rule.policy == FW::FW_POLICY_DENY;
    const std::string where = whereText(rule, adapter);
    const bool narrow =
        rule.ipType != FW::FW_IP_TYPE_BOTH &&
        (rule.ipGroup == FW::FW_IP_GROUP_ANY || rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES);
    const std::string family = narrow ? ", " + familyText(rule.ipType) + " only" : "";
    const std::string begin =
        effect.changesNothing
            ? whatText(rule) + (denies ? " is closed already " : " is open already ")
            : (denies ? "closes " : "opens ") + whatText(rule) + " ";
    return begin + where + ", " + whomText(rule) + family +
           exceptionsText(effect.exceptions, denies);
}

}  // namespace tarnfw
