#include "report/pageTables.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

#include "report/pageText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// So that a telephone can show it: below 2 MB of a thousand rules. "--json" has the rest.
constexpr std::size_t kMostTableBytes = 1200000;
constexpr Json::ArrayIndex kMostColumns = 12;
constexpr Json::ArrayIndex kMostAddresses = 300;  ///< of a column, for the search

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

}  // namespace

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

}  // namespace tarnfw
