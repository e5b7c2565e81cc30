/// The tool's output: tables that fit the terminal, colour, JSON, progress.
#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

/// The columns of the terminal on standard output; 0 if it is not a terminal, or they are unknown.
std::size_t terminalWidth();

/// A text of one line in lines of at most `width` columns (1 or more): broken between words and
/// after commas, and within words that are longer than that.
std::vector<std::string> wrapped(const std::string& text, std::size_t width);

/// What a text means to the reader; the colour follows from it.
enum class Paint { kPlain, kGood, kBad, kDoubtful, kFaint, kStrong };

/// The text in the colour of `paint`: on a terminal, and unless NO_COLOR is set.
std::string painted(const std::string& text, Paint paint);

/// Of a policy or a verdict: green for allow, red for deny, yellow for everything else.
Paint policyPaint(FW::FW_POLICY policy);

/// Prints a line of warning, "tarnfw: ...", to standard error.
void warn(const std::string& text);

/// Prints a line for each finding about the document `source` in the same way.
void warn(const std::string& source, const std::vector<Finding>& findings);

/// One cell of a table. Its text is made printable.
struct Cell {
    std::string text;
    Paint paint = Paint::kPlain;
};

/// A table, left-aligned, two blanks between columns. On a terminal that is too narrow for it, the
/// widest columns are wrapped: nothing is cut off.
class Table {
public:
    /// `headings` names the columns; without any there is no heading line.
    explicit Table(std::vector<std::string> headings = {}) : headings_(std::move(headings)) {}

    /// On a terminal that is too narrow, this column gets narrow before the others: its words, such
    /// as addresses, may be cut.
    void cutFirst(std::size_t column) { cutFirst_ = column; }

    void addRow(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }
    bool empty() const { return rows_.empty(); }

    /// Prints to standard output, each line after `indent` blanks.
    void print(std::size_t indent = 0) const;

private:
    std::vector<std::string> headings_;
    std::vector<std::vector<Cell>> rows_;
    std::optional<std::size_t> cutFirst_;
};

/// A document as "--json" prints it: indented, in UTF-8, with a line feed at its end.
std::string jsonText(const Json::Value& document);

/// Prints it to standard output.
void printJson(const Json::Value& document);

/// A time as local time, in a format of strftime() that makes less than 32 characters.
std::string localTime(std::time_t time, const char* format);

/// A time of a document: "2026-11-21T05:14:56Z".
std::string timeForPrograms(std::time_t time);

/// A text of a document; null when it is empty.
Json::Value textOrNull(const std::string& text);

/// An array of texts.
Json::Value textsJson(const std::vector<std::string>& texts);

/// Progress of long work, on standard error if it is a terminal; cleared at the end.
class Progress {
public:
    /// For work without steps, such as "Applying the rules": prints "`what` ..." immediately.
    explicit Progress(const std::string& what);

    /// For work in `total` steps; `what` is such as "Loading lines".
    Progress(std::string what, std::size_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void step();

private:
    std::string what_;
    std::size_t total_;
    std::size_t done_ = 0;
    bool shown_;
    bool written_ = false;
};

}  // namespace tarnfw
