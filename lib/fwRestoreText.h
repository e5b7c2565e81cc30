/// Command documents as texts for iptables-restore, and its answers. Nothing is run here.
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
    std::vector<std::string> adapters;          ///< whose each line of `text` is
    std::set<std::string, std::less<>> chains;  ///< those that the lines change
};

/// What a refusal is traced back to.
struct RestoreLine {
    std::string adapter;  ///< empty for a line that was made from none of the document's
    std::string command;  ///< the line, or "COMMIT"
    std::string table;
};

/// The first line of RestoreText::mark().
inline constexpr char kExaminedMark[] = "# examined\n";

/// The text of one family.
class RestoreText {
public:
    /// `bufferBytes` is what a tool keeps back of its output, see ToolRun::outputBufferBytes().
    explicit RestoreText(std::size_t bufferBytes);

    /// Makes the text of a family of a command document. Returns false when a line cannot be
    /// written; `invalid` is then that line.
    bool make(const Json::Value& family, RestoreLine& invalid);

    /// Adds lines of the program's own after those of "filter".
    void append(const std::string& lines) { appended_ += lines; }

    const std::vector<RestoreTable>& tables() const { return tables_; }

    /// Up to the first COMMIT, which nothing is done without; append()ed lines are left out.
    const std::string& head() const { return tables_.front().text; }

    /// Comments between head() and tail(), which the tool prints once it has done all of head().
    /// There are enough of them to make it write: what it prints waits in a buffer until then.
    const std::string& mark() const { return mark_; }

    /// What follows: append()ed lines, the first COMMIT, other tables.
    std::string tail() const;

    /// head(), mark() and tail().
    std::string whole() const;

    /// The line of that number in whole(), from 1; an empty command when there is none.
    RestoreLine lineAt(std::size_t number) const;

    /// head() and tail() with a comment before each line, which names its number. For
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

/// What a tool said when it refused a text.
struct Refusal {
    std::size_t line = 0;  ///< of the text, from 1; 0 when it names none
    std::string words;     ///< in one line, without hints on usage
};

/// Takes apart what iptables-restore, of either variant, writes to standard error.
Refusal refusalOf(const std::string& errors);

/// The number of the line that a tool had read when it ended, by those comments of a
/// RestoreText::numbered() that it printed; 0 without any.
std::size_t numberReached(const std::string& output);

/// A text as a line of the system log bears it: without control characters, and cut.
std::string forLog(std::string text);

/// Whether iptables-save has written all of a table.
bool isWholeSave(const std::string& saved, const std::string& table);

/// The lines that put chains of a table back as `saved` has them, which is a whole save of that
/// table with counters: their rules and, with `policies`, the policies of INPUT and FORWARD. A
/// chain that it does not have is left out: it was not there to be changed.
std::string textToPutBack(const RestoreTable& table, const std::string& saved, bool policies);

/// How often a save of "filter" has the rule that an interrupted reload leaves.
std::size_t interruptedReloads(const std::string& saved);

/// The lines that open the policies and take out the rules that so many interrupted reloads left.
std::string linesToMend(std::size_t reloads);

}  // namespace FW
