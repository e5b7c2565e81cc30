#include "report/facts.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "cli/output.h"
#include "cli/packetJson.h"
#include "report/matrix.h"
#include "tarnfwadmin/meaningChange.h"
#include "tarnfwadmin/place.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

/// Of longer lists of addresses, such as those of countries, nobody reads all.
constexpr std::size_t kMostAddresses = 1000;

Json::Value list() {
    return Json::Value(Json::arrayValue);
}

Json::Value placesFacts(const std::vector<FW::FWPLACE>& places) {
    Json::Value all = list();
    for (const FW::FWPLACE& place : places) {
        all.append(placeJson(place));
    }
    return all;
}

// ---- Tables -------------------------------------------------------------------------------------

/// ICMP has the number that it has in the family.
Json::Value kindFacts(PacketKind kind, FW::FW_FAMILY family) {
    for (FW::FWINTERVAL& protocols : kind.protocols) {
        if (protocols.first == kIcmpOfFamily) {
            protocols.first = protocols.last = family == FW::FW_FAMILY_V6 ? 58 : 1;
        }
    }
    Json::Value document;
    document["protocols"] = numbersJson(kind.protocols);
    document["sourcePorts"] = numbersJson(kind.sourcePorts);
    document["destinationPorts"] = numbersJson(kind.destinationPorts);
    document["icmpTypes"] = numbersJson(kind.icmpTypes);
    return document;
}

const char* nameOf(CellVerdict verdict) {
    switch (verdict) {
        case CellVerdict::kAllow:
            return "allow";
        case CellVerdict::kDeny:
            return "deny";
        case CellVerdict::kNone:
            return "none";
        default:
            return "depends";
    }
}

const char* nameOf(CellLog log) {
    return log == CellLog::kAll ? "all" : log == CellLog::kSome ? "some" : "none";
}

/// "eth0", "pppoe and vpn", "eth0 and every other interface".
std::string titleOf(const Matrix& matrix) {
    // A tunnel has rules of an adapter and no name there.
    std::vector<std::string> names =
        matrix.adapters.empty() && !matrix.isOther ? matrix.interfaces : matrix.adapters;
    if (matrix.isOther) {
        names.emplace_back("every other interface");
    }
    return enumerated(names);
}

Json::Value tableFacts(const Matrix& matrix) {
    Json::Value document;
    document["title"] = titleOf(matrix);
    document["adapters"] = textsJson(matrix.adapters);
    document["family"] = matrix.family == FW::FW_FAMILY_V6 ? "v6" : "v4";
    document["chains"] = list();
    for (const FW::FW_CHAIN chain : {FW::FW_CHAIN_INPUT, FW::FW_CHAIN_FORWARD}) {
        if ((matrix.chains & (1U << chain)) != 0) {
            document["chains"].append(chain == FW::FW_CHAIN_INPUT ? "input" : "forward");
        }
    }
    document["tooComplex"] = matrix.tooComplex;
    document["otherSenders"] = static_cast<Json::UInt64>(matrix.otherSenders);
    document["otherRows"] = static_cast<Json::UInt64>(matrix.otherRows);
    document["senders"] = list();
    for (const MatrixSenders& senders : matrix.senders) {
        Json::Value column;
        column["text"] = senders.text;
        column["addresses"] = senders.addresses.size() > kMostAddresses
                                  ? Json::Value()
                                  : addressesJson(senders.addresses, matrix.family);
        document["senders"].append(std::move(column));
    }
    document["rows"] = list();
    for (const MatrixRow& row : matrix.rows) {
        Json::Value entry;
        entry["text"] = row.text;
        entry["ports"] = row.ports;
        entry["kinds"] = list();
        for (const PacketKind& kind : row.kinds) {
            entry["kinds"].append(kindFacts(kind, matrix.family));
        }
        entry["cells"] = list();
        for (const MatrixCell& cell : row.cells) {
            Json::Value one;
            one["verdict"] = nameOf(cell.verdict);
            one["log"] = nameOf(cell.log);
            one["deciders"] = placesFacts(cell.deciders);
            one["moreDeciders"] = cell.moreDeciders;
            entry["cells"].append(std::move(one));
        }
        document["rows"].append(std::move(entry));
    }
    return document;
}

// ---- Rules --------------------------------------------------------------------------------------

/// "global" comes first, as in the packet filter.
std::vector<std::string> adaptersInOrder(const FW::FWPROFILE& profile) {
    std::vector<std::string> names;
    if (profile.rules.count(FW::FW_ADAPTER_GLOBAL) != 0) {
        names.emplace_back(FW::FW_ADAPTER_GLOBAL);
    }
    for (const auto& [adapter, rules] : profile.rules) {
        if (adapter != FW::FW_ADAPTER_GLOBAL) {
            names.push_back(adapter);
        }
    }
    return names;
}

/// Of each rule: whether it takes effect, and what is to be said about it.
class RuleEffects {
public:
    RuleEffects(const Meaning& meaning, const FW::FWSHADOWS& shadows,
                const std::vector<Finding>& checked) {
        for (const FW::FWRESOLVEDRULE& rule : meaning.rules()) {
            if (const auto place = rulePlaceOf(rule.place)) {
                withLines_.insert(*place);
            }
        }
        for (const FW::FWSHADOW& shadow : shadows.shadows) {
            if (const auto place = rulePlaceOf(shadow.place)) {
                shadowed_[*place] = &shadow;
            }
        }
        for (const Finding& finding : checked) {
            // Those about other rules have the engine's own words below.
            const bool isCompared = finding.shadowedBy.empty() &&
                                    finding.text.rfind("is not compared with other rules", 0) != 0;
            if (finding.rule && isCompared) {
                const std::string prefix = placeText(*finding.rule) + ": ";
                checked_[*finding.rule].push_back(textOf(finding).substr(prefix.size()));
            }
        }
        for (const FW::FWFINDING& finding : meaning.findings()) {
            const auto place = rulePlaceOf(finding.place);
            if (place && isNotCounted(finding)) {
                complex_[*place].push_back("not counted in this report: " + finding.text);
            } else if (place) {
                refused_[*place].push_back(finding.text);
            }
        }
        for (const FW::FWFINDING& finding : shadows.findings) {
            if (const auto place = rulePlaceOf(finding.place)) {
                complex_[*place].push_back(finding.text);
            }
        }
    }

    /// Adds "effect", "because" and "findings".
    void add(Json::Value& entry, const RulePlace& place, const FW::FWRULE& rule) const {
        const auto shadow = shadowed_.find(place);
        const bool hasLines = withLines_.count(place) != 0;
        std::vector<std::string> texts = textsOf(checked_, place);
        if (texts.empty()) {
            texts = textsOf(refused_, place);
        }
        const std::vector<std::string> complex = textsOf(complex_, place);
        texts.insert(texts.end(), complex.begin(), complex.end());
        std::string effect = "yes";
        entry["because"] = list();
        if (!rule.enable) {
            effect = "off";
        } else if (!hasLines) {
            effect = complex.empty() ? "never" : "unknown";
            if (texts.empty()) {
                texts.emplace_back("no line for the packet filter is made of it");
            }
        } else if (shadow != shadowed_.end()) {
            effect = shadow->second->neverDecides ? "never" : "needless";
            entry["because"] = placesFacts(shadow->second->by);
        } else if (!complex.empty()) {
            effect = "unknown";
        }
        entry["effect"] = effect;
        entry["findings"] = textsJson(texts);
    }

private:
    using TextsByRule = std::map<RulePlace, std::vector<std::string>>;

    static std::vector<std::string> textsOf(const TextsByRule& texts, const RulePlace& place) {
        const auto found = texts.find(place);
        return found == texts.end() ? std::vector<std::string>() : found->second;
    }

    std::set<RulePlace> withLines_;
    std::map<RulePlace, const FW::FWSHADOW*> shadowed_;
    TextsByRule checked_;  // what the check of the profile says
    TextsByRule refused_;  // the engine's words for a part of that
    TextsByRule complex_;
};

Json::Value rulesFacts(const Meaning& meaning, const FW::FWSHADOWS& shadows,
                       const std::vector<Finding>& checked) {
    const RuleEffects effects(meaning, shadows, checked);
    Json::Value all = list();
    for (const std::string& adapter : adaptersInOrder(meaning.profile())) {
        const std::vector<FW::FWRULE>& rules = meaning.profile().rules.at(adapter);
        for (std::size_t i = 0; i < rules.size(); ++i) {
            const RulePlace place{adapter, i + 1};
            Json::Value entry;
            entry["adapter"] = adapter;
            entry["position"] = static_cast<Json::UInt64>(place.position);
            entry["text"] = ruleText(rules[i]);
            entry["enabled"] = rules[i].enable;
            effects.add(entry, place, rules[i]);
            all.append(std::move(entry));
        }
    }
    return all;
}

Json::Value policiesFacts(const FW::FWPROFILE& profile) {
    Json::Value all = list();
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        Json::Value entry;
        entry["adapter"] = adapter;
        entry["policy"] = policyText(policy);
        all.append(std::move(entry));
    }
    return all;
}

}  // namespace

Json::Value reportFacts(const Meaning& meaning, const std::vector<Finding>& checked,
                        const std::vector<std::string>& absent) {
    Json::Value document;
    document["profile"] = meaning.profile().name;
    document["absent"] = textsJson(absent);
    document["tables"] = list();
    for (const Matrix& matrix : matricesOf(meaning)) {
        document["tables"].append(tableFacts(matrix));
    }
    const FW::FWSHADOWS shadows = meaning.answers().shadows();
    document["rules"] = rulesFacts(meaning, shadows, checked);
    document["policies"] = policiesFacts(meaning.profile());
    document["findings"] = list();
    for (const auto* const some : {&meaning.findings(), &shadows.findings}) {
        for (const FW::FWFINDING& finding : *some) {
            const auto place = rulePlaceOf(finding.place);
            if (!place || place->position == 0) {
                document["findings"].append(place ? placeText(*place) + ": " + finding.text
                                                  : finding.text);
            }
        }
    }
    document["changes"] = Json::Value();
    return document;
}

Json::Value changeFacts(const std::string& name, const Meaning& before, const Meaning& after) {
    const MeaningDifference difference(before, after);
    Json::Value document;
    document["since"] = name;
    document["same"] = difference.same();
    document["tooComplex"] = difference.tooComplex();
    document["texts"] = textsJson(difference.texts());
    return document;
}

}  // namespace tarnfw
