#include "report/page.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <numeric>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "cli/packetJson.h"
#include "report/pageParts.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// ---- Texts --------------------------------------------------------------------------------------

/// For the content of an element and for a value in double quotes. What a terminal would obey is
/// replaced, and so is text that is no UTF-8.
std::string html(const std::string& text) {
    std::string escaped;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string html(const Json::Value& text) {
    return html(text.asString());
}

/// For a search without regard to case; other letters than those of ASCII stay.
std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

/// The template with the texts in their places, each read once: what is filled in is not searched.
std::string filled(std::string_view page, const std::map<std::string, std::string>& texts) {
    std::string all;
    for (std::size_t at = page.find("{{"); at != std::string_view::npos; at = page.find("{{")) {
        const std::size_t end = page.find("}}", at);
        all += page.substr(0, at);
        all += texts.at(std::string(page.substr(at + 2, end - at - 2)));
        page.remove_prefix(end + 2);
    }
    return all.append(page);
}

/// "'sha256-...'", as a page's policy names a script or style that is in the page.
std::string sourceOf(std::string_view hexadecimal) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto bits = [&](std::size_t i) {
        const char c = hexadecimal[i];
        return static_cast<std::uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    };
    std::string text = "'sha256-";
    for (std::size_t i = 0; i < hexadecimal.size(); i += 6) {  // three bytes, four digits
        std::uint32_t group = 0;
        std::size_t given = 0;
        for (std::size_t j = 0; j < 6; ++j) {
            group <<= 4;
            if (i + j < hexadecimal.size()) {
                group |= bits(i + j);
                ++given;
            }
        }
        const std::size_t digits = (given * 4 + 5) / 6;
        for (std::size_t j = 0; j < 4; ++j) {
            text += j < digits ? kDigits[(group >> (18 - 6 * j)) & 63U] : '=';
        }
    }
    return text + "'";
}

// ---- How much is in a page ----------------------------------------------------------------------

// So that a telephone can show it: below 2 MB of a thousand rules. "--json" has the rest.
constexpr std::size_t kMostTableBytes = 1200000;
constexpr std::size_t kMostRuleBytes = 600000;
constexpr Json::ArrayIndex kMostColumns = 12;
constexpr Json::ArrayIndex kMostAddresses = 300;  ///< of a column, for the search

/// Of a list of rules: of more, nobody reads all.
constexpr std::size_t kMostNamed = 10;

/// "Left out of this page: 20 rules. tarnfw report --json has them."
std::string leftOut(const std::string& what) {
    return "<p class=\"note left-out\">Left out of this page: " + what +
           ". “tarnfw report --json” has them.</p>\n";
}

/// What each of several parts gets of `bytes` when the small ones get what they need and the others
/// the same each.
std::vector<std::size_t> sharesOf(const std::vector<std::size_t>& sizes, std::size_t bytes) {
    std::vector<std::size_t> order(sizes.size());
    std::iota(order.begin(), order.end(), std::size_t(0));
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return sizes[a] < sizes[b]; });
    std::vector<std::size_t> shares(sizes.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        shares[order[i]] = std::min(sizes[order[i]], bytes / (order.size() - i));
        bytes -= shares[order[i]];
    }
    return shares;
}

// ---- Rules --------------------------------------------------------------------------------------

bool isIdle(const Json::Value& rule) {
    return rule["effect"] != "yes" && rule["effect"] != "off";
}

/// A rule as a part of the page: where it is, and what the page says of it.
class RuleLinks {
public:
    explicit RuleLinks(const Json::Value& facts) {
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

    /// Of an adapter's name nothing is left in it: it may have any letters.
    std::string idOf(const std::string& adapter, std::uint64_t position) const {
        return "rule-" + std::to_string(numbers_.at(adapter)) + "-" + std::to_string(position);
    }

    /// Whether the page has the rule.
    bool has(const Json::Value& rule) const { return listed_.count(placeOf(rule)) != 0; }

    /// "rule 3 of eth0".
    std::string link(const Json::Value& place) const {
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

    /// What it says.
    std::string text(const Json::Value& place) const {
        const auto text = texts_.find({place["adapter"].asString(), positionOf(place)});
        return text == texts_.end() ? "" : text->second;
    }

private:
    using Place = std::pair<std::string, std::uint64_t>;  // adapter, position; 0: default policy

    static Place placeOf(const Json::Value& rule) {
        return {rule["adapter"].asString(), rule["position"].asUInt64()};
    }

    /// About, of its row in the page.
    static std::size_t bytesOf(const Json::Value& rule) {
        constexpr std::size_t kRow = 250;
        constexpr std::size_t kLink = 50;
        std::size_t bytes = kRow + 2 * rule["text"].asString().size() +
                            kLink * std::min<std::size_t>(rule["because"].size(), kMostNamed);
        for (const Json::Value& finding : rule["findings"]) {
            bytes += finding.asString().size();
        }
        return bytes;
    }

    static std::uint64_t positionOf(const Json::Value& place) {
        return place["position"].isNull() ? 0 : place["position"].asUInt64();
    }

    std::map<std::string, std::size_t> numbers_;
    std::map<Place, std::string> texts_;
    std::set<Place> listed_;
};

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

bool isAbsent(const std::string& adapter, const Json::Value& facts) {
    const Json::Value& absent = facts["absent"];
    return std::find(absent.begin(), absent.end(), adapter) != absent.end();
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

// ---- Tables -------------------------------------------------------------------------------------

struct VerdictWords {
    const char* verdict;
    const char* sign;
    const char* word;
};

constexpr VerdictWords kVerdicts[] = {
    {"allow", "✓", "allowed"},
    {"deny", "✗", "denied"},
    {"none", "–", "no rule"},
    {"depends", "?", "depends"},
};

const VerdictWords& wordsOf(const std::string& verdict) {
    for (const VerdictWords& words : kVerdicts) {
        if (verdict == words.verdict) {
            return words;
        }
    }
    return kVerdicts[3];
}

std::string cellOf(const Json::Value& cell, const std::string& from, const RuleLinks& links) {
    const VerdictWords& words = wordsOf(cell["verdict"].asString());
    std::string text = std::string("<td role=\"cell\" class=\"") + words.verdict +
                       "\"><details><summary><span class=\"from\" aria-hidden=\"true\">" +
                       html(from) + "</span><span class=\"sign\" aria-hidden=\"true\">" +
                       words.sign + "</span> " + words.word +
                       (cell["log"] == "all"    ? ", logged"
                        : cell["log"] == "some" ? ", some logged"
                                                : "") +
                       "</summary><ol>";
    std::vector<std::pair<std::string, std::string>> deciders;  // what they say, and which they are
    for (const Json::Value& place : cell["deciders"]) {
        const std::string says = links.text(place);
        const auto same = std::find_if(deciders.begin(), deciders.end(), [&](const auto& one) {
            return one.first == says && !says.empty();
        });
        if (same == deciders.end()) {
            deciders.emplace_back(says, links.link(place));
        } else {
            same->second += ", " + links.link(place);
        }
    }
    const bool hasMore = cell["moreDeciders"].asBool() || deciders.size() > kMostNamed;
    for (std::size_t i = 0; i < deciders.size(); ++i) {
        const bool isLast = i + 1 == deciders.size();
        if (i + 1 < kMostNamed || isLast) {
            text += (isLast && hasMore ? "<li>and others</li>" : "") + std::string("<li>") +
                    deciders[i].second +
                    (deciders[i].first.empty()
                         ? ""
                         : "<span class=\"says\">: " + html(deciders[i].first) + "</span>") +
                    "</li>";
        }
    }
    return text + "</ol></details></td>";
}

bool isRest(const Json::Value& row) {
    return row["text"].asString().rfind("everything", 0) == 0;
}

/// "tcp:22,80-90 udp:53", for the search; also "tcp:0-65535".
std::string portsOf(const Json::Value& row) {
    std::string tcp;
    std::string udp;
    const auto add = [](std::string& list, const Json::Value& ports) {
        const auto append = [&list](const std::string& port) {
            list += (list.empty() ? "" : ",") + port;
        };
        if (ports.isNull()) {
            append("0-65535");
        }
        for (const Json::Value& port : ports) {
            append(port.asString());
        }
    };
    for (const Json::Value& kind : row["kinds"]) {
        for (const Json::Value& protocol : kind["protocols"]) {
            if (protocol == "6") {
                add(tcp, kind["destinationPorts"]);
            } else if (protocol == "17") {
                add(udp, kind["destinationPorts"]);
            }
        }
    }
    return (tcp.empty() ? "" : "tcp:" + tcp) + (tcp.empty() || udp.empty() ? "" : " ") +
           (udp.empty() ? "" : "udp:" + udp);
}

std::string captionOf(const Json::Value& table) {
    const bool isBoth = table["chains"].size() > 1;
    return html(table["title"]) + ", " + (table["family"] == "v6" ? "IPv6" : "IPv4") +
           (isBoth                          ? ""
            : table["chains"][0] == "input" ? ", to this machine itself"
                                            : ", passed on to other networks");
}

/// What a table does not show.
std::string gapsOf(const Json::Value& table) {
    if (table["tooComplex"].asBool()) {
        return "<p class=\"note\">Too complex for a table: \"tarnfw explain\" answers for single "
               "packets.</p>\n";
    }
    std::string text;
    if (table["otherSenders"].asUInt64() > 0) {
        text += "<p class=\"note\">Left out: " +
                counted(table["otherSenders"].asUInt64(), "smaller set") +
                " of senders, too many for a table.</p>\n";
    }
    if (table["otherRows"].asUInt64() > 0) {
        text += "<p class=\"note\">Left out: " + counted(table["otherRows"].asUInt64(), "row") +
                " of ports, too many for a table.</p>\n";
    }
    return text;
}

/// A table as texts, so that it can be shortened.
struct TableText {
    std::string head;
    std::vector<std::string> rows;
    std::string foot;
    std::size_t otherColumns = 0;

    std::size_t size() const {
        return std::accumulate(
            rows.begin(), rows.end(), head.size() + foot.size(),
            [](std::size_t bytes, const std::string& row) { return bytes + row.size(); });
    }

    /// At most about `bytes`, or the last row alone, which is the rest.
    std::string shortened(std::size_t bytes) const {
        std::string text = head;
        std::size_t used = head.size() + foot.size() + (rows.empty() ? 0 : rows.back().size());
        std::size_t others = 0;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const bool isLast = i + 1 == rows.size();
            used += isLast ? 0 : rows[i].size();
            if (isLast || used <= bytes) {
                text += rows[i];
            } else {
                ++others;
            }
        }
        std::string what = others == 0 ? "" : counted(others, "row");
        if (otherColumns > 0) {
            what += (what.empty() ? "" : " and ") + counted(otherColumns, "smaller set") +
                    " of senders";
        }
        return text + "</tbody></table>\n" + (what.empty() ? "" : leftOut(what)) + foot;
    }
};

std::string columnOf(const Json::Value& senders) {
    std::string addresses;
    for (const Json::Value& address : senders["addresses"]) {
        addresses += (addresses.empty() ? "" : " ") + address.asString();
    }
    const bool isSearched =
        !senders["addresses"].isNull() && senders["addresses"].size() <= kMostAddresses;
    return std::string("<th scope=\"col\" role=\"columnheader\"") +
           (isSearched ? " data-addresses=\"" + html(addresses) + "\"" : "") + ">from " +
           html(senders["text"]) + "</th>";
}

std::string rowOf(const Json::Value& row, const Json::Value& table, Json::ArrayIndex firstColumn,
                  const RuleLinks& links) {
    const std::string ports = portsOf(row);
    // Of the rest, all others would be named.
    const std::string detail =
        row["ports"] == row["text"] || isRest(row) ? std::string() : row["ports"].asString();
    std::string text =
        "<tr role=\"row\" data-text=\"" + html(lower(row["text"].asString() + " " + detail)) +
        "\"" + (ports.empty() ? "" : " data-ports=\"" + html(ports) + "\"") +
        "><th scope=\"row\" role=\"rowheader\">" + html(row["text"]) +
        (detail.empty() ? "" : " <span class=\"ports\">" + html(detail) + "</span>") + "</th>";
    for (Json::ArrayIndex i = firstColumn; i < row["cells"].size(); ++i) {
        text += cellOf(row["cells"][i], "from " + table["senders"][i]["text"].asString(), links);
    }
    return text + "</tr>\n";
}

TableText tableOf(const Json::Value& table, const RuleLinks& links) {
    const std::string caption = captionOf(table);
    TableText text;
    text.head = "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"" + caption +
                "\"><table class=\"matrix\" role=\"table\" data-title=\"" +
                html(lower(table["title"].asString())) +
                (table["family"] == "v6" ? " ipv6" : " ipv4") + "\">\n<caption>" + caption +
                "</caption>\n<thead role=\"rowgroup\"><tr role=\"row\"><th scope=\"col\" "
                "role=\"columnheader\">Service or port</th>";
    // The smallest sets are the first ones.
    const Json::ArrayIndex all = table["senders"].size();
    const Json::ArrayIndex first = all - std::min(all, kMostColumns);
    text.otherColumns = first;
    for (Json::ArrayIndex i = first; i < all; ++i) {
        text.head += columnOf(table["senders"][i]);
    }
    text.head += "</tr></thead>\n<tbody role=\"rowgroup\">\n";
    for (const Json::Value& row : table["rows"]) {
        text.rows.push_back(rowOf(row, table, first, links));
    }
    text.foot = gapsOf(table) + "</div>\n";
    return text;
}

/// That packets of some of the table's adapters do not come in now.
std::string absenceOf(const Json::Value& table, const Json::Value& facts) {
    std::string names;
    for (const Json::Value& adapter : table["adapters"]) {
        if (isAbsent(adapter.asString(), facts)) {
            names += (names.empty() ? "" : ", ") + html(adapter);
        }
    }
    return names.empty() ? ""
                         : "<p class=\"note\">No interface now: " + names +
                               ". For packets of such an adapter the tables say what happens once "
                               "there is one.</p>\n";
}

/// A part for each adapter, with its tables.
std::string allTables(const Json::Value& facts, const RuleLinks& links) {
    std::vector<TableText> texts;
    std::vector<std::size_t> sizes;
    for (const Json::Value& table : facts["tables"]) {
        texts.push_back(tableOf(table, links));
        sizes.push_back(texts.back().size());
    }
    const std::vector<std::size_t> shares = sharesOf(sizes, kMostTableBytes);
    std::string all;
    const Json::Value* before = nullptr;
    for (Json::ArrayIndex i = 0; i < facts["tables"].size(); ++i) {
        const Json::Value& table = facts["tables"][i];
        if (before == nullptr || (*before)["title"] != table["title"]) {
            all += before == nullptr ? "" : "</section>\n";
            all += "<section>\n<h3>" + html(table["title"]) + "</h3>\n" + absenceOf(table, facts);
        }
        all += texts[i].shortened(shares[i]);
        before = &table;
    }
    return all.empty() ? "" : all + "</section>\n";
}

// ---- The rest -----------------------------------------------------------------------------------

std::string changesOf(const Json::Value& changes) {
    if (changes.isNull()) {
        return "";
    }
    std::string list;
    for (const Json::Value& text : changes["texts"]) {
        const std::string words = text.asString();
        const char* const paint = words.rfind("opens", 0) == 0    ? "allow"
                                  : words.rfind("closes", 0) == 0 ? "deny"
                                                                  : "none";
        list += std::string("<li class=\"") + paint + "\">" + html(words) + "</li>\n";
    }
    return "<section id=\"changes\" aria-labelledby=\"changes-title\">\n<h2 id=\"changes-title\">"
           "Compared with profile “" +
           html(changes["since"]) + "”</h2>\n" +
           (changes["same"].asBool() ? "<p>Both let the same packets through.</p>\n"
                                     : "<ul class=\"changes\">\n" + list + "</ul>\n") +
           (changes["tooComplex"].asBool()
                ? "<p class=\"note\">Too complex to compare whole: there may be more changes.</p>\n"
                : "") +
           "</section>\n";
}

std::string findingsOf(const Json::Value& findings) {
    if (findings.empty()) {
        return "";
    }
    std::string list;
    for (const Json::Value& finding : findings) {
        list += "<li>" + html(finding) + "</li>\n";
    }
    return "<section id=\"findings\" aria-labelledby=\"findings-title\">\n<h2 "
           "id=\"findings-title\">Findings</h2>\n<ul>\n" +
           list + "</ul>\n</section>\n";
}

std::string linksOf(const Json::Value& facts) {
    const auto link = [](const char* id, const char* text) {
        return std::string("<li><a href=\"#") + id + "\">" + text + "</a></li>\n";
    };
    return (facts["changes"].isNull() ? "" : link("changes", "Comparison")) +
           link("reach", "Who may reach what") + link("rules", "Rules") +
           (facts["findings"].empty() ? "" : link("findings", "Findings"));
}

std::string factsOf(const Json::Value& facts) {
    std::string list;
    const auto add = [&list](const char* name, const std::string& text) {
        list += std::string("<dt>") + name + "</dt><dd>" + text + "</dd>\n";
    };
    add("Machine", html(facts["machine"]));
    if (!facts["active"].isNull()) {
        add("Profile", facts["active"].asBool() ? "the active one" : "stored, not the active one");
    } else {
        add("Profile", "from a file");
    }
    if (!facts["enabled"].isNull()) {
        add("Firewall", facts["enabled"].asBool() ? "enabled" : "disabled: nothing is blocked");
    }
    std::size_t idle = 0;
    for (const Json::Value& rule : facts["rules"]) {
        idle += isIdle(rule) && rule["effect"] != "unknown" ? 1U : 0U;
    }
    add("Rules", std::to_string(facts["rules"].size()) +
                     (idle == 0 ? "" : ", " + std::to_string(idle) + " of them without effect"));
    return "<dl class=\"facts\">\n" + list + "</dl>\n";
}

}  // namespace

std::string reportPage(const Json::Value& facts) {
    const RuleLinks links(facts);
    return filled(kPageHtml, {{"title", "Firewall profile “" + html(facts["profile"]) + "”"},
                              {"style", kPageStyle},
                              {"style-source", sourceOf(kPageStyleHash)},
                              {"script", kPageScript},
                              {"script-source", sourceOf(kPageScriptHash)},
                              {"facts", factsOf(facts)},
                              {"links", linksOf(facts)},
                              {"changes", changesOf(facts["changes"])},
                              {"tables", allTables(facts, links)},
                              {"rules", allRules(facts, links)},
                              {"findings", findingsOf(facts["findings"])},
                              {"made", "Made by tarnfw report, " + html(facts["time"]) +
                                           ". This page loads nothing from elsewhere."}});
}

}  // namespace tarnfw
