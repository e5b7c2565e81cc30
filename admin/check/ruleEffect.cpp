#include "tarnfwadmin/ruleEffect.h"

#include <algorithm>
#include <set>
#include <utility>

#include "check/ruleMatcher.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"

namespace tarnfw {
namespace {

const std::string kGlobal = FW::FW_ADAPTER_GLOBAL;

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
    adapters.erase(kGlobal);
    return adapters;
}

/// Whether a packet may match both; packets of an adapter's own rules come in or go out.
bool mayMeet(const RuleMatcher& one, const RuleMatcher& other) {
    const bool sameWay =
        one.global || other.global || one.rule.adapterDirect == other.rule.adapterDirect;
    return sameWay && mayOverlap(one, other);
}

bool decidesOtherwise(const RuleMatcher& one, const RuleMatcher& other) {
    return one.rule.policy != other.rule.policy && mayMeet(one, other);
}

/// Whether what comes after it decides all that it matches as it does.
bool isDecidedAnyway(const RuleMatcher& rule, const FW::FWPROFILE& profile,
                     const std::vector<RuleMatcher>& later, Machine& machine) {
    const auto otherwise = [&](const RuleMatcher& other) { return decidesOtherwise(other, rule); };
    if (std::any_of(later.begin(), later.end(), otherwise)) {
        return false;
    }
    const bool denies = rule.rule.policy == FW::FW_POLICY_DENY;
    const std::set<std::string> adapters = adaptersMet(profile, rule.place.adapter);
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

}  // namespace

std::size_t reservedAtHead(const std::vector<FW::FWRULE>& rules) {
    return static_cast<std::size_t>(std::distance(
        rules.begin(), std::find_if_not(rules.begin(), rules.end(), FW::fwRuleIsReserved)));
}

RuleEffect ruleEffect(const FW::FWPROFILE& profile, const RulePlace& place, Machine& machine) {
    RuleEffect effect;
    const FW::FWRULE& rule = profile.rules.at(place.adapter).at(place.position - 1);
    const auto own = matcherOf(rule, place, machine);
    if (!own) {
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
    FW::FWRULE everything;
    everything.enable = true;
    everything.policy = FW::FW_POLICY_ALLOW;
    everything.portGroup = FW::FW_PORT_GROUP_ANY;
    everything.ipGroup = FW::FW_IP_GROUP_ANY;
    everything.ipType = FW::FW_IP_TYPE_BOTH;
    everything.adapterDirect = FW::FW_ADAPTER_DIRECT_IN;
    list.push_back(everything);
    const RuleEffect effect = ruleEffect(profile, {adapter, list.size()}, machine);
    if (effect.shadowedBy) {
        return OpenByPolicy::kNothing;
    }
    return effect.exceptions.empty() ? OpenByPolicy::kEverything : OpenByPolicy::kNotDenied;
}

std::string effectText(const FW::FWRULE& rule, const std::string& adapter,
                       const RuleEffect& effect) {
    const bool denies = rule.policy == FW::FW_POLICY_DENY;
    const std::string verb = denies ? "closes" : "opens";
    const std::string where = whereText(rule, adapter);
    const bool narrow =
        rule.ipType != FW::FW_IP_TYPE_BOTH &&
        (rule.ipGroup == FW::FW_IP_GROUP_ANY || rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES);
    const std::string family = narrow ? ", " + familyText(rule.ipType) + " only" : "";
    if (effect.changesNothing) {
        return whatText(rule) + (denies ? " is closed already " : " is open already ") + where +
               ", " + whomText(rule) + family;
    }
    std::string text = verb + " " + whatText(rule) + " " + where + ", " + whomText(rule) + family;
    if (!effect.exceptions.empty()) {
        text += ", except what ";
        text += effect.exceptions.size() == 1
                    ? placeText(effect.exceptions.front()) + (denies ? " allows" : " denies")
                    : std::string("earlier rules ") + (denies ? "allow" : "deny");
    }
    return text;
}

}  // namespace tarnfw
