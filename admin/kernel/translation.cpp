#include "tarnfwadmin/translation.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

constexpr const char* kFamilies[] = {"v4", "v6"};

/// Translates piece by piece with one translator, whose answers from the machine then are the same
/// for all pieces. Each piece goes through the translation of a whole profile, so nothing that the
/// library does with a rule is done again here.
class Tracer {
public:
    explicit Tracer(ApplyMode mode) : mode_(mode) { translate({}, {}, {}, fixed_); }

    void addFixedLines() { append(fixed_, {}, /*skipFixed=*/false); }

    void addRule(const RulePlace& place, const FW::FWRULE& rule) {
        Json::Value piece;
        translate({{place.adapter, {rule}}}, {}, place, piece);
        append(piece, place, /*skipFixed=*/true);
    }

    void addPolicy(const std::string& adapter, FW::FW_POLICY policy) {
        Json::Value piece;
        translate({}, {{adapter, policy}}, {adapter, 0}, piece);
        append(piece, {adapter, 0}, /*skipFixed=*/true);
    }

    /// All lines in the order of running: IPv4 first, and in each family "global" first.
    std::vector<TracedLine> lines() const {
        std::vector<TracedLine> all;
        for (const char* const family : kFamilies) {
            const auto& adapters = lines_.at(family);
            const auto global = adapters.find(FW::FW_ADAPTER_GLOBAL);
            if (global != adapters.end()) {
                all.insert(all.end(), global->second.begin(), global->second.end());
            }
            for (const auto& [adapter, lines] : adapters) {
                if (adapter != FW::FW_ADAPTER_GLOBAL) {
                    all.insert(all.end(), lines.begin(), lines.end());
                }
            }
        }
        return all;
    }

private:
    void translate(const std::map<std::string, std::vector<FW::FWRULE>>& rules,
                   const std::map<std::string, FW::FW_POLICY>& policies, const RulePlace& place,
                   Json::Value& out) {
        if (!(mode_ == ApplyMode::kBatch
                  ? translation_.fwRulesToBatchRules(true, rules, policies, out, "")
                  : translation_.fwRulesToIptablesRules(true, rules, policies, out))) {
            const std::string what =
                place.adapter.empty() ? "what every profile begins with" : placeText(place);
            throw Error(
                ErrorKind::kInvalid, what + " cannot be translated, and with it the whole profile",
                {"", "", place.position > 0 ? std::optional<RulePlace>(place) : std::nullopt});
        }
    }

    void append(const Json::Value& piece, const RulePlace& place, bool skipFixed) {
        for (const char* const family : kFamilies) {
            auto& adapters = lines_[family];
            const Json::Value& lines = piece[family];
            for (const std::string& adapter : lines.getMemberNames()) {
                const Json::ArrayIndex first = skipFixed && adapter == FW::FW_ADAPTER_GLOBAL
                                                   ? fixed_[family][adapter].size()
                                                   : 0;
                for (Json::ArrayIndex i = first; i < lines[adapter].size(); ++i) {
                    adapters[adapter].push_back({family, lines[adapter][i].asString(), place});
                }
            }
        }
    }

    ApplyMode mode_;
    FW::TARNFW_IPTABLES_RULES translation_;
    Json::Value fixed_;
    std::map<std::string, std::map<std::string, std::vector<TracedLine>>> lines_;
};

}  // namespace

TableAndChain chainOf(const std::string& line) {
    std::istringstream words(line);
    std::string word;
    std::string table = "filter";
    std::string chain;
    words >> word;
    if (word == "-t") {
        words >> table >> word;
    }
    words >> chain;
    return {table, chain};
}

bool isFirewallChain(const TableAndChain& place) {
    const auto& chains = FW::FW_FIREWALL_CHAINS;
    return place.first == "filter" &&
           std::find(chains.begin(), chains.end(), place.second) != chains.end();
}

bool commandsFor(const FW::FWPROFILE& profile, ApplyMode mode, Json::Value& commands) {
    FW::TARNFW_IPTABLES_RULES translation;
    return mode == ApplyMode::kBatch
               ? translation.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap,
                                                 commands, "")
               : translation.fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap,
                                                    commands);
}

std::vector<TracedLine> tracedLines(const FW::FWPROFILE& profile, ApplyMode mode) {
    Tracer tracer(mode);
    tracer.addFixedLines();
    for (const std::string& adapter : adaptersOf(profile)) {
        const auto rules = profile.rules.find(adapter);
        for (std::size_t i = 0; rules != profile.rules.end() && i < rules->second.size(); ++i) {
            tracer.addRule({adapter, i + 1}, rules->second[i]);
        }
        const auto policy = profile.adapterPolicyMap.find(adapter);
        if (policy != profile.adapterPolicyMap.end()) {
            tracer.addPolicy(adapter, policy->second);
        }
    }
    return tracer.lines();
}

}  // namespace tarnfw
