/// Converts command documents to input for iptables-restore, and parses its output. Runs nothing.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace FW {

/// The lines of one table, from "*table" on, without the COMMIT after them.
struct RestoreTable {
    std::string name;                           ///< "filter"
    std::string text;                           ///< "*filter\n-F INPUT_FIREWALL\n..."
    std::vector<std::string> adapters;          ///< the adapter of each line of `text`
    std::set<std::string, std::less<>> chains;  ///< those that the lines change
};

/// The line that caused an error.
struct RestoreLine {
    std::string adapter;  ///< empty for a line that does not come from the document
    std::string command;  ///< the line, or "COMMIT"
    std::string table;
};

/// The first line of RestoreText::mark().
inline constexpr char kExaminedMark[] = "# examined\n";

/// The text of one family.
class RestoreText {
public:
    /// `bufferBytes` is how much output a tool buffers, see ToolRun::outputBufferBytes().
    explicit RestoreText(std::size_t bufferBytes);

    /// Makes the text of a family of a command document. Returns false when a line cannot be
    /// written; `invalid` is then that line.
    bool make(const Json::Value& family, RestoreLine& invalid);

    /// Adds lines after those of "filter" that do not come from the document.
    void append(const std::string& lines) { appended_ += lines; }

    const std::vector<RestoreTable>& tables() const { return tables_; }

    /// The text before the first COMMIT, without which nothing takes effect. Has no append()ed
    /// lines.
    const std::string& head() const { return tables_.front().text; }

    /// Comments between head() and tail(), which the tool prints once it has processed head(). They
    /// are long enough to make the tool flush its output buffer.
    const std::string& mark() const { return mark_; }

    /// The rest: append()ed lines, the first COMMIT, other tables.
    std::string tail() const;

    /// head(), mark() and tail().
    std::string whole() const;

    /// The line with that number in whole(), from 1; has an empty command when there is none.
    RestoreLine lineAt(std::size_t number) const;

    /// head() and tail() with a comment before each line that has its number, for
    /// numberReached().
    std::string numbered() const;

private:
    RestoreTable& table(std::string_view name);
    bool addLine(const std::string& adapter, const std::string& line);

    /// The lines of a table as whole() has them.
    std::string wholeTable(const RestoreTable& table) const;

    std::vector<RestoreTable> tables_;
    std::string mark_;
    std::string appended_;
};

/// Whether a RestoreText can have a line of a translation.
bool isRestoreLine(const std::string& line);

/// The error message of a tool that rejected a text.
struct ToolError {
    std::size_t line = 0;  ///< of the text, from 1; 0 when it names none
    std::string words;     ///< on one line, without usage hints
};

/// Parses what iptables-restore, of either variant, writes to standard error.
ToolError toolErrorFrom(const std::string& errors);

/// The number of the last line that a tool had read when it ended, from the comments of a
/// RestoreText::numbered() that it printed; 0 without any.
std::size_t numberReached(const std::string& output);

/// A text for a line of the system log: without control characters, and truncated.
std::string forLog(std::string text);

/// Whether iptables-save has written a table completely.
bool isWholeSave(const std::string& saved, const std::string& table);

/// The lines that restore chains of a table from `saved`, a complete save of that table with
/// counters: their rules and, with `policies`, the policies of INPUT and FORWARD. A chain that is
/// not in `saved` is left out, since it did not exist and cannot have been changed.
std::string textToPutBack(const RestoreTable& table, const std::string& saved, bool policies);

/// How often a save of "filter" contains the rule that an interrupted reload leaves.
std::size_t interruptedReloads(const std::string& saved);

/// The lines that open the policies and remove the rules left by that many interrupted reloads.
std::string linesToMend(std::size_t reloads);

}  // namespace FW
