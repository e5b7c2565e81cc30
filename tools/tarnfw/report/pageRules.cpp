#include "report/pageRules.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "cli/packetJson.h"
#include "report/pageText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// Of a page that a telephone can show: "--json" has the rest.
constexpr std::size_t kMostRuleBytes = 600000;

std::pair<std::string, std::uint64_t> placeOf(const Json::Value& rule) {
    return {rule["adapter"].asString(), rule["position"].asUInt64()};
}

/// About, of its row in the page.
std::size_t bytesOf(const Json::Value& rule) {
    constexpr std::size_t kRow = 250;
    constexpr std::size_t kLink = 50;
    std::size_t bytes = kRow + 2 * rule["text"].asString().size() +
                        kLink * std::min<std::size_t>(rule["because"].size(), kMostNamed);
    for (const Json::Value& finding : rule["findings"]) {
        bytes += finding.asString().size();
    }
    return bytes;
}

std::uint64_t positionOf(const Json::Value& place) {
    return place["position"].isNull() ? 0 : place["position"].asUInt64();
}

}  // namespace

bool isIdle(const Json::Value& rule) {
    return rule["effect"] != "yes" && rule["effect"] != "off";
}

// ---- Links ----

RuleLinks::RuleLinks(const Json::Value& facts) {
    for (const Json::Value& rule : facts["rules"]) {
        const std::string adapter = rule["adapter"].asString();
        (void)numbers_.emplace(adapter, numbers_.size());
        texts_[placeOf(rule)] = rule["text"].asString();
    }
    // Those without effect are what to look at.
    std::size_t left = kMostRuleBytes;
    for (const bool idle : {true, false}) {
        std::size_t bytes = idle ? left / 2 : left;
        left -= bytes;
        for (const Json::Value& rule : facts["rules"]) {
            const std::size_t size = bytesOf(rule);
            if (isIdle(rule) == idle && size <= bytes) {
                bytes -= size;
                listed_.insert(placeOf(rule));
            }
        }
        left += bytes;
    }
    for (const Json::Value& policy : facts["policies"]) {
        (void)numbers_.emplace(policy["adapter"].asString(), numbers_.size());
        const Place place{policy["adapter"].asString(), 0};
        texts_[place] = policy["policy"].asString();
        listed_.insert(place);
    }
}

std::string RuleLinks::idOf(const std::string& adapter, std::uint64_t position) const {
    return "rule-" + std::to_string(numbers_.at(adapter)) + "-" + std::to_string(position);
}

bool RuleLinks::has(const Json::Value& rule) const {
    return listed_.count(placeOf(rule)) != 0;
}

std::string RuleLinks::link(const Json::Value& place) const {
    if (place["adapter"].isNull()) {
        return place["by"] == kByNothing ? "no rule" : "a line of every profile";
    }
    const std::string adapter = place["adapter"].asString();
    const std::uint64_t position = positionOf(place);
    const std::string words =
        (position == 0 ? "the default policy" : "rule " + std::to_string(position)) + " of ";
    if (listed_.count({adapter, position}) == 0) {
        return words + html(adapter);
    }
    return "<a href=\"#" + idOf(adapter, position) + "\">" + words + html(adapter) + "</a>";
}

std::string RuleLinks::text(const Json::Value& place) const {
    const auto text = texts_.find({place["adapter"].asString(), positionOf(place)});
    return text == texts_.end() ? "" : text->second;
}

// ---- The part of the page ----

bool isAbsent(const std::string& adapter, const Json::Value& facts) {
    const Json::Value& absent = facts["absent"];
    return std::find(absent.begin(), absent.end(), adapter) != absent.end();
}

namespace {

/// Whether and why a rule could be removed.
std::string effectText(const Json::Value& rule, const RuleLinks& links) {
    const std::string effect = rule["effect"].asString();
    if (effect == "yes") {
        return "takes effect";
    }
    if (effect == "off") {
        return "switched off";
    }
    if (effect == "unknown") {
        return "too complex: whether it takes effect is not known";
    }
    const Json::Value& because = rule["because"];
    std::vector<std::string> linked;
    for (const Json::Value& place : because) {
        if (linked.size() < kMostNamed) {
            linked.push_back(links.link(place));
        }
    }
    if (linked.size() < because.size()) {
        linked.push_back(counted(because.size() - linked.size(), "other"));
    }
    const std::string names = enumerated(linked);
    if (effect == "never") {
        return "never takes effect" + (names.empty() ? "" : ": shadowed by " + names);
    }
    if (names.empty()) {
        return "has no effect: without it the same happens";
    }
    return "has no effect: " + names + (because.size() == 1 ? " does the same" : " do the same");
}

std::string rulesOf(const std::string& adapter, const Json::Value& facts, const RuleLinks& links) {
    std::string rows;
    std::size_t others = 0;
    for (const Json::Value& rule : facts["rules"]) {
        if (rule["adapter"] != adapter) {
            continue;
        }
        if (!links.has(rule)) {
            ++others;
            continue;
        }
        const std::uint64_t position = rule["position"].asUInt64();
        const std::string effect = rule["effect"].asString();
        std::string notes = effectText(rule, links);
        for (const Json::Value& finding : rule["findings"]) {
            notes += "<br>" + html(finding);
        }
        const char* const paint = effect == "off" ? "off" : effect == "yes" ? "effective" : "idle";
        rows += "<tr id=\"" + links.idOf(adapter, position) + "\" class=\"" + paint +
                "\" role=\"row\" data-text=\"rule " + std::to_string(position) + " " +
                html(lower(rule["text"].asString())) + " " +
                (effect == "never"      ? "never takes effect"
                 : effect == "needless" ? "has no effect"
                 : effect == "unknown"  ? "too complex"
                                        : effect) +
                "\"><th scope=\"row\" role=\"rowheader\" class=\"position\">" +
                std::to_string(position) + "</th><td role=\"cell\" class=\"rule\">" +
                html(rule["text"]) + "</td><td role=\"cell\"" +
                (std::string_view(paint) == "idle" ? " class=\"depends\"" : "") + ">" + notes +
                "</td></tr>\n";
    }
    for (const Json::Value& policy : facts["policies"]) {
        if (policy["adapter"] == adapter) {
            const std::string word = policy["policy"].asString();
            rows +=
                "<tr id=\"" + links.idOf(adapter, 0) +
                "\" role=\"row\" data-text=\"default policy " + html(lower(word)) +
                "\"><th scope=\"row\" role=\"rowheader\" class=\"position\">Default</th>"
                "<td role=\"cell\" class=\"rule\">" +
                html(word) + "</td><td role=\"cell\">" +
                (word == "none" ? "nothing: what no rule matches goes on" : "for all the rest") +
                "</td></tr>\n";
        }
    }
    return "<section>\n<h3>" + html(adapter) + "</h3>\n" +
           (isAbsent(adapter, facts) ? "<p class=\"note\">" + html(adapter) +
                                           " has no interface now: these rules have no effect "
                                           "until there is one.</p>\n"
                                     : "") +
           "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"Rules of " +
           html(adapter) + "\"><table class=\"rules\" role=\"table\" data-title=\"" +
           html(lower(adapter)) + "\">\n<caption>Rules of " + html(adapter) +
           "</caption>\n<thead role=\"rowgroup\"><tr role=\"row\"><th scope=\"col\" "
           "role=\"columnheader\" class=\"position\">Rule</th><th scope=\"col\" "
           "role=\"columnheader\">What it says</th><th scope=\"col\" role=\"columnheader\">Effect"
           "</th></tr></thead>\n<tbody role=\"rowgroup\">\n" +
           rows + "</tbody></table></div>\n" +
           (others == 0 ? "" : leftOut(counted(others, "rule"))) + "</section>\n";
}

}  // namespace

std::string allRules(const Json::Value& facts, const RuleLinks& links) {
    // As the packet filter tries them: "global" first, then the others in byte order.
    std::set<std::pair<bool, std::string>> adapters;
    for (const char* const part : {"rules", "policies"}) {
        for (const Json::Value& entry : facts[part]) {
            const std::string adapter = entry["adapter"].asString();
            adapters.emplace(adapter != FW::FW_ADAPTER_GLOBAL, adapter);
        }
    }
    std::string all;
    for (const auto& [isOther, adapter] : adapters) {
        all += rulesOf(adapter, facts, links);
    }
    return all.empty() ? "<p>The profile has no rules.</p>\n" : all;
}

}  // namespace tarnfw
