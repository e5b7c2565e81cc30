#include "report/page.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

#include "report/pageParts.h"
#include "report/pageRules.h"
#include "report/pageTables.h"
#include "report/pageText.h"

namespace tarnfw {
namespace {

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
