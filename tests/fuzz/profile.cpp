// A profile's document to the text for iptables-restore: every line of the translation is one line
// of the text with the same words, and none holds a NUL, at which a command line would end.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "fake_platform.h"
#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwTypes.h"

#include "fwRestoreText.h"

#include "property.h"

namespace {

constexpr std::size_t kBufferBytes = 4096;
constexpr char kGeoipDir[] = "/usr/share/xt_geoip/";

/// The words of a line of the translation.
std::vector<std::string> allWordsOf(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    for (const char c : line + " ") {
        if (c != ' ') {
            word += c;
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words;
}

bool namesTable(const std::vector<std::string>& words) {
    return words.size() >= 2 && words[0] == "-t";
}

std::string tableOf(const std::string& line) {
    const std::vector<std::string> words = allWordsOf(line);
    return namesTable(words) ? words[1] : "filter";
}

/// The words without "-t" and the table.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words = allWordsOf(line);
    if (namesTable(words)) {
        words.erase(words.begin(), words.begin() + 2);
    }
    return words;
}

/// The words of a line as iptables-restore reads it: blanks and tabs separate, quotes protect, and
/// between them a backslash does.
std::vector<std::string> wordsRestored(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false;
    bool begun = false;
    for (std::size_t i = 0; i <= line.size(); ++i) {
        const char c = i < line.size() ? line[i] : ' ';
        if (quoted && c == '\\' && i + 1 < line.size()) {
            word += line[++i];
        } else if (c == '"') {
            quoted = !quoted;
            begun = true;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            if (begun) {
                words.push_back(word);
            }
            word.clear();
            begun = false;
        } else {
            word += c;
            begun = true;
        }
    }
    return words;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos;
         end = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    require(begin == text.size(), "the text of a table ends with a line feed", text);
    return lines;
}

/// The lines of a family of a command document, "global" first, and then by adapter.
std::vector<std::string> linesOf(const Json::Value& family) {
    std::vector<std::string> lines;
    const auto add = [&](const std::string& adapter) {
        for (const Json::Value& line : family[adapter]) {
            lines.push_back(line.asString());
        }
    };
    if (family.isMember(FW::FW_ADAPTER_GLOBAL)) {
        add(FW::FW_ADAPTER_GLOBAL);
    }
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != FW::FW_ADAPTER_GLOBAL) {
            add(adapter);
        }
    }
    return lines;
}

void checkText(const FW::RestoreText& text, const std::vector<std::string>& lines) {
    std::size_t total = 0;
    for (const FW::RestoreTable& table : text.tables()) {
        const std::vector<std::string> inTable = linesOf(table.text);
        require(inTable.size() == table.adapters.size(), "each line has its adapter", table.text);
        require(!inTable.empty() && inTable.front() == "*" + table.name, "a table begins with it",
                table.text);
        // The first table empties the firewall's chains before its lines.
        const std::size_t own =
            1 + (&table == &text.tables().front() ? FW::FW_FIREWALL_CHAINS.size() : 0);
        require(inTable.size() >= own, "the chains are emptied first", table.text);
        total += inTable.size() - own;
        // Those of this table, in their order.
        std::size_t next = own;
        for (const std::string& line : lines) {
            if (tableOf(line) != table.name) {
                continue;
            }
            require(next < inTable.size(), "no line is left out", line);
            require(wordsRestored(inTable[next]) == wordsOf(line), "a line has its words",
                    line + " => " + inTable[next]);
            ++next;
        }
    }
    require(total == lines.size(), "as many lines as the translation gave",
            std::to_string(total) + " of " + std::to_string(lines.size()));
    require(text.whole().find('\0') == std::string::npos, "no NUL in the text");
}

void checkFamily(const Json::Value& family) {
    if (!family.isObject()) {
        return;
    }
    const std::vector<std::string> lines = linesOf(family);
    for (const std::string& line : lines) {
        require(line.find('\0') == std::string::npos, "no NUL in a line", line);
    }
    FW::RestoreText text(kBufferBytes);
    FW::RestoreLine invalid;
    if (text.make(family, invalid)) {
        checkText(text, lines);
    } else {
        require(!invalid.command.empty(), "the line that cannot be written is named");
    }
}

void describe(FakePlatform& platform) {
    platform.interfaces = {"eth0", "eth1", "tun0", "ppp0"};
    platform.pppoeInterface = "ppp0";
    platform.popenOutput["eth0"] = "sit0";  // a tunnel
    platform.services["ssh"] = {"SSH", 1, {"22"}, 0, {}};
    platform.services["dns"] = {"DNS", 3, {"53"}, 2, {"53", "5300-5310"}};
    platform.services["hidden"] = {"", 1, {"9"}, 0, {}};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::filesystem::create_directories(kGeoipDir);
    std::ofstream(kGeoipDir + std::string("DE.iv4")) << std::string(8, '\1');
    std::ofstream(kGeoipDir + std::string("DE.iv6")) << std::string(32, '\1');
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    Json::Value document;
    FW::FWPROFILE profile;
    try {
        if (!Json::Reader().parse(input, document) || !document.isObject()) {
            return 0;
        }
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    } catch (const Json::Exception&) {
        return 0;  // what the store refuses
    }
    FakePlatform platform;
    describe(platform);
    for (const bool batch : {false, true}) {
        FW::TARNFW_IPTABLES_RULES translation;
        Json::Value commands;
        const bool translated =
            batch ? translation.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap,
                                                    commands, "")
                  : translation.fwRulesToIptablesRules(true, profile.rules,
                                                       profile.adapterPolicyMap, commands);
        if (translated) {
            checkFamily(commands["v4"]);
            checkFamily(commands["v6"]);
        }
    }
    return 0;
}
