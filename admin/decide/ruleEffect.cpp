#include "tarnfwadmin/ruleEffect.h"

#include <algorithm>
#include <iterator>

#include "tarnfwadmin/packetAnswers.h"

namespace tarnfw {

std::size_t reservedAtHead(const std::vector<FW::FWRULE>& rules) {
    return static_cast<std::size_t>(std::distance(
        rules.begin(), std::find_if_not(rules.begin(), rules.end(), FW::fwRuleIsReserved)));
}

bool hasLines(const Meaning& meaning, const RulePlace& place) {
    return std::any_of(
        meaning.rules().begin(), meaning.rules().end(), [&place](const FW::FWRESOLVEDRULE& rule) {
            return rule.place.origin == FW::FW_ORIGIN_RULE && rulePlaceOf(rule.place) == place;
        });
}

std::optional<RulePlace> effectivePlace(const FW::FWPROFILE& profile, const RulePlace& place,
                                        const std::vector<RulePlace>& shadowedBy) {
    for (const std::string& adapter : {place.adapter, std::string(FW::FW_ADAPTER_GLOBAL)}) {
        const auto list = profile.rules.find(adapter);
        std::optional<RulePlace> first;
        for (const RulePlace& by : shadowedBy) {
            const bool mayFollow = by.adapter == adapter && list != profile.rules.end() &&
                                   by.position > reservedAtHead(list->second);
            if (mayFollow && (!first || by < *first)) {
                first = by;
            }
        }
        if (first) {
            return first;
        }
    }
    return std::nullopt;
}

OpenByPolicy openByPolicy(const Meaning& meaning, const std::string& adapter) {
    const auto& policies = meaning.profile().adapterPolicyMap;
    const auto policy = policies.find(adapter);
    const bool closed = policy != policies.end() && policy->second == FW::FW_POLICY_DENY;
    if (adapter == FW::FW_ADAPTER_GLOBAL || closed) {
        return OpenByPolicy::kNothing;
    }
    FW::FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.in = interfaceFor(meaning, adapter);
    packet.state = FW::FW_STATE_NEW;
    bool open = false;
    bool denies = false;
    for (const std::size_t decider : meaning.answers().decide(packet).deciders) {
        const FW::FWRESOLVEDRULE rule = meaning.answers().rule(decider);
        const bool isPolicy =
            rule.place.origin == FW::FW_ORIGIN_END || rule.place.origin == FW::FW_ORIGIN_DEFAULT;
        denies = denies || rule.verdict == FW::FW_PACKET_DROP;
        open = open || (isPolicy && rule.verdict != FW::FW_PACKET_DROP);
    }
    if (!open) {
        return OpenByPolicy::kNothing;
    }
    return denies ? OpenByPolicy::kNotDenied : OpenByPolicy::kEverything;
}

}  // namespace tarnfw
