#include "fwRestoreText.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>

#include "tarnfirewall/fwTypes.h"

#include "fwLineLimits.h"
#include "fwPrintable.h"
#include "fwText.h"

namespace FW {
namespace {

constexpr char kFilter[] = "filter";
constexpr char kCommit[] = "COMMIT";

constexpr std::size_t kUsualWords = 24;  // enough for most lines, to avoid reallocation

// Limits for the tool's message and every other text in a log line: some daemons truncate lines
// after 1024 bytes, and the tool's message comes last.
constexpr std::size_t kWordsBytes = 400;
constexpr std::size_t kLoggedBytes = 200;
constexpr char kCutMark[] = "...";

constexpr char kNumberComment[] = "# line ";

// What fwDefaultDrop() adds, as both variants list it.
constexpr char kListedReloadingRule[] =
    "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";
constexpr char kReloadingRuleRemoval[] =
    "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n";

// ---- Words ----

/// The words of a line as TARNFW::cmdExec() would pass them: separated by blanks, up to a zero
/// byte.
std::vector<std::string_view> wordsOf(std::string_view line) {
    std::vector<std::string_view> words;
    words.reserve(kUsualWords);
    while (!line.empty()) {
        const std::string_view word = line.substr(0, line.find(' '));
        if (!word.empty()) {
            words.push_back(word.substr(0, word.find('\0')));
        }
        line.remove_prefix(std::min(word.size() + 1, line.size()));
    }
    return words;
}

/// Appends a word in the restore syntax. A word that needs no quotes must not have any: the tool
/// treats quoted words that look like options differently.
void appendWord(std::string& text, std::string_view word) {
    if (!word.empty() && word.find_first_of("\t\"") == std::string::npos) {
        text += word;
        return;
    }
    text += '"';
    for (const char c : word) {
        if (c == '"' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    text += '"';
}

/// Removes "-t" and its table from the words. Only at the beginning, where a translation writes
/// them: elsewhere "-t" may be another option's value, and otherwise the tool refuses it.
std::string_view takeTable(std::vector<std::string_view>& words) {
    if (words.size() < 2 || words[0] != "-t") {
        return kFilter;
    }
    const std::string_view table = words[1];
    words.erase(words.begin(), words.begin() + 2);
    return table;
}

bool isTableName(std::string_view name) {
    return !name.empty() && name.find_first_of("\t\n") == std::string::npos;
}

// ---- Texts in lines ----

/// Calls `use` with each line of a text, without its line feed.
template <typename Use>
void forEachLine(const std::string& text, Use use) {
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        use(line);
    }
}

/// The number after `prefix`, where the text begins with both; else 0.
std::size_t numberAfter(const std::string& text, const std::string& prefix) {
    if (!startsWith(text, prefix)) {
        return 0;
    }
    return static_cast<std::size_t>(std::strtoul(text.c_str() + prefix.size(), nullptr, 10));
}

/// The line number in "line 4: RULE_APPEND failed ..." and "iptables-restore: line 4 failed"; else
/// 0.
std::size_t failedLine(const std::string& message) {
    const std::size_t own = numberAfter(message, "line ");
    if (own != 0) {
        return own;
    }
    const auto colon = message.find(": ");
    if (colon == std::string::npos || message.find(" failed", colon) == std::string::npos) {
        return 0;
    }
    return numberAfter(message.substr(colon + 2), "line ");
}

// ---- What iptables-save writes ----

/// The lines of one table between its name and its COMMIT; nothing if it is missing or
/// incomplete.
std::optional<std::string_view> tableIn(std::string_view saved, const std::string& table) {
    const std::string title = "*" + table + "\n";
    std::size_t begin = 0;
    if (!startsWith(saved, title)) {
        begin = saved.find("\n" + title);
        if (begin == std::string_view::npos) {
            return std::nullopt;
        }
        ++begin;
    }
    begin += title.size();
    const auto end = saved.find("\nCOMMIT\n", begin - 1);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return saved.substr(begin, end + 1 - begin);
}

/// Whether a line has a policy that a reload changes.
bool isPolicyToMend(const std::string& line) {
    return startsWith(line, ":INPUT ") || startsWith(line, ":FORWARD ");
}

/// The chain of ":INPUT_FIREWALL - [0:0]"; empty for any other line.
std::string savedChain(const std::string& line) {
    return startsWith(line, ":") ? line.substr(1, line.find(' ') - 1) : "";
}

/// The chain of "[12:720] -A INPUT_FIREWALL -i lo -j ACCEPT"; empty for any other line.
std::string chainOfSavedRule(const std::string& line) {
    if (!startsWith(line, "[")) {
        return "";
    }
    std::istringstream words(line);
    std::string counters;
    std::string append;
    std::string chain;
    words >> counters >> append >> chain;
    return append == "-A" ? chain : "";
}

}  // namespace

// ==== RestoreText ================================================================================

RestoreText::RestoreText(std::size_t bufferBytes) : mark_(kExaminedMark) {
    while (mark_.size() < bufferBytes + sizeof(kExaminedMark)) {
        mark_.append(std::min(bufferBytes, kRestoreLineBytes - 1), '#').append("\n");
    }
}

bool RestoreText::make(const Json::Value& family, RestoreLine& invalid) {
    RestoreTable& filter = table(kFilter);
    filter.adapters.front() = FW_ADAPTER_GLOBAL;
    for (const std::string& chain : FW_FIREWALL_CHAINS) {
        filter.text += "-F " + chain + "\n";
        filter.adapters.emplace_back(FW_ADAPTER_GLOBAL);
        filter.chains.insert(chain);
    }
    const auto addLines = [&](const std::string& adapter) {
        const Json::Value& lines = family[adapter];
        return std::all_of(lines.begin(), lines.end(), [&](const Json::Value& line) {
            const std::string command = line.asString();
            if (!addLine(adapter, command)) {
                invalid = {adapter, command, ""};
                return false;
            }
            return true;
        });
    };
    if (family.isMember(FW_ADAPTER_GLOBAL) && !addLines(FW_ADAPTER_GLOBAL)) {
        return false;
    }
    const std::vector<std::string> adapters = family.getMemberNames();
    return std::all_of(adapters.begin(), adapters.end(), [&](const std::string& adapter) {
        return adapter == FW_ADAPTER_GLOBAL || addLines(adapter);
    });
}

RestoreTable& RestoreText::table(std::string_view name) {
    const auto known = std::find_if(tables_.begin(), tables_.end(),
                                    [&](const RestoreTable& table) { return table.name == name; });
    if (known != tables_.end()) {
        return *known;
    }
    RestoreTable made;
    made.name = name;
    made.text = "*" + made.name + "\n";
    made.adapters.emplace_back();
    tables_.push_back(std::move(made));
    return tables_.back();
}

bool RestoreText::addLine(const std::string& adapter, const std::string& line) {
    std::vector<std::string_view> words = wordsOf(line);
    const std::string_view tableName = takeTable(words);
    if (words.size() < 2 || words[0] != "-A" || !isTableName(tableName)) {
        return false;
    }
    std::string text;
    text.reserve(line.size() + 1);
    for (const std::string_view word : words) {
        if (!text.empty()) {
            text += ' ';
        }
        appendWord(text, word);
    }
    if (text.size() > kRestoreLineBytes || text.find('\n') != std::string::npos) {
        return false;
    }
    RestoreTable& target = table(tableName);
    if (target.adapters.size() == 1) {
        target.adapters.front() = adapter;  // named in the error if the table does not exist
    }
    target.text += text;
    target.text += '\n';
    target.adapters.push_back(adapter);
    if (target.chains.find(words[1]) == target.chains.end()) {
        target.chains.emplace(words[1]);
    }
    return true;
}

std::string RestoreText::whole() const {
    return head() + mark_ + tail();
}

std::string RestoreText::tail() const {
    std::string text = appended_ + kCommit + "\n";
    for (std::size_t i = 1; i < tables_.size(); ++i) {
        text += tables_[i].text;
        text += kCommit;
        text += '\n';
    }
    return text;
}

std::string RestoreText::wholeTable(const RestoreTable& table) const {
    std::string text = table.text;
    if (&table == &tables_.front()) {
        text += mark_ + appended_;
    }
    return text + kCommit + "\n";
}

std::string RestoreText::numbered() const {
    std::string text;
    std::size_t number = 0;
    for (const RestoreTable& table : tables_) {
        forEachLine(wholeTable(table), [&](const std::string& line) {
            ++number;
            if (!startsWith(line, "#")) {
                text.append(kNumberComment).append(std::to_string(number)).append("\n");
                text.append(line).append("\n");
            }
        });
    }
    return text;
}

RestoreLine RestoreText::lineAt(std::size_t number) const {
    RestoreLine found;
    if (number == 0) {
        return found;
    }
    std::size_t left = number - 1;
    for (const RestoreTable& table : tables_) {
        std::istringstream stream(wholeTable(table));
        std::string line;
        for (std::size_t i = 0; std::getline(stream, line); ++i, --left) {
            if (left == 0) {
                found.adapter = i < table.adapters.size() ? table.adapters[i] : "";
                found.command = line;
                found.table = table.name;
                return found;
            }
        }
    }
    return found;
}

bool isRestoreLine(const std::string& line) {
    Json::Value family;
    family[FW_ADAPTER_GLOBAL].append(line);
    RestoreLine invalid;
    return RestoreText(0).make(family, invalid);
}

// ==== Answers ====================================================================================

ToolError toolErrorFrom(const std::string& errors) {
    ToolError error;
    forEachLine(errors, [&](const std::string& line) {
        const std::size_t named = numberAfter(line, "Error occurred at line: ");
        if (named != 0) {
            error.line = named;
            return;
        }
        // A tool can name several lines; the later errors usually follow from the first.
        if (line.empty() || startsWith(line, "Try `") || error.line != 0) {
            return;
        }
        error.line = failedLine(line);
        if (!error.words.empty() && error.words.back() != ' ') {
            error.words += ' ';
        }
        error.words += line;
    });
    error.words.resize(std::min(error.words.size(), kWordsBytes));
    makePrintable(error.words);
    return error;
}

std::size_t numberReached(const std::string& output) {
    std::size_t reached = 0;
    forEachLine(output, [&](const std::string& line) {
        reached = std::max(reached, numberAfter(line, kNumberComment));
    });
    return reached;
}

std::string forLog(std::string text) {
    if (text.size() > kLoggedBytes) {
        text.resize(kLoggedBytes);
        text += kCutMark;
    }
    makePrintable(text);
    return text;
}

bool isWholeSave(const std::string& saved, const std::string& table) {
    return tableIn(saved, table).has_value();
}

std::string textToPutBack(const RestoreTable& table, const std::string& saved, bool policies) {
    std::string flushes;
    std::string rules;
    const auto isChanged = [&](const std::string& chain) { return table.chains.count(chain) != 0; };
    forEachLine(std::string(tableIn(saved, table.name).value()), [&](const std::string& line) {
        if (policies && isPolicyToMend(line)) {
            // ":INPUT DROP [12:720]": without the brackets it is "-P INPUT DROP".
            flushes += "-P " + line.substr(1, line.rfind(' ') - 1) + "\n";
        }
        if (const std::string chain = savedChain(line); isChanged(chain)) {
            flushes += "-F ";
            appendWord(flushes, chain);
            flushes += '\n';
        } else if (isChanged(chainOfSavedRule(line))) {
            rules += line + "\n";
        }
    });
    return "*" + table.name + "\n" + flushes + rules + kCommit + "\n";
}

std::size_t interruptedReloads(const std::string& saved) {
    std::size_t count = 0;
    for (auto at = saved.find(kListedReloadingRule); at != std::string::npos;
         at = saved.find(kListedReloadingRule, at + 1)) {
        ++count;
    }
    return count;
}

std::string linesToMend(std::size_t reloads) {
    std::string lines;
    for (std::size_t i = 0; i < reloads; ++i) {
        lines += kReloadingRuleRemoval;
    }
    return lines + "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n";
}

}  // namespace FW
