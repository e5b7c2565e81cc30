#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <numeric>

namespace tarnfw {
namespace {

constexpr std::size_t kGap = 2;              // blanks between two columns
constexpr std::size_t kNarrowest = 8;        // no column is wrapped below this
constexpr std::size_t kUnlimited = 0;        // the width of what is no terminal
constexpr std::size_t kProgressParts = 200;  // a terminal is not written to more often

bool colourWanted() {
    const char* const refusal = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (refusal == nullptr || *refusal == '\0') &&
           terminal != nullptr && std::string(terminal) != "dumb";
}

const char* colourOf(Paint paint) {
    switch (paint) {
        case Paint::kGood:
            return "32";
        case Paint::kBad:
            return "31";
        case Paint::kDoubtful:
            return "33";
        case Paint::kFaint:
            return "2";
        case Paint::kStrong:
            return "1";
        default:
            return "0";
    }
}

std::size_t terminalWidth() {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
        return kUnlimited;
    }
    return size.ws_col;
}

/// The terminal's columns that a text takes.
std::size_t widthOf(const std::string& text) {
    std::size_t width = 0;
    std::mbstate_t state{};
    const char* next = text.data();
    const char* const end = next + text.size();
    while (next != end) {
        wchar_t character = 0;
        const std::size_t bytes =
            mbrtowc(&character, next, static_cast<std::size_t>(end - next), &state);
        const bool valid = bytes > 0 && bytes <= static_cast<std::size_t>(end - next);
        if (!valid) {
            state = {};  // no UTF-8: the terminal shows one sign for the byte
        }
        next += valid ? bytes : 1;
        width += static_cast<std::size_t>(valid ? std::max(wcwidth(character), 0) : 1);
    }
    return width;
}

/// The text in lines of at most `width` columns, broken behind blanks and commas. A word that is
/// longer than that stays whole.
std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
    std::vector<std::string> lines(1);
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t found = text.find_first_of(" ,", start);
        const std::size_t end = found == std::string::npos ? text.size() : found + 1;
        const std::string word = text.substr(start, end - start);
        const std::size_t needed = widthOf(word.substr(0, word.find_last_not_of(' ') + 1));
        if (!lines.back().empty() && widthOf(lines.back()) + needed > width) {
            lines.emplace_back();
        }
        lines.back() += word;
        start = end;
    }
    return lines;
}

/// Takes from the widest columns what the lines are too long by.
void narrow(std::vector<std::size_t>& widths, std::size_t available) {
    std::size_t total = std::accumulate(widths.begin(), widths.end(), std::size_t{0});
    while (total > available) {
        std::size_t& widest = *std::max_element(widths.begin(), widths.end());
        if (widest <= kNarrowest) {
            return;
        }
        --widest;
        --total;
    }
}

void printRow(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
              std::size_t indent) {
    std::vector<std::vector<std::string>> columns;
    std::size_t height = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        columns.push_back(wrapped(printable(cells[i].text), widths[i]));
        height = std::max(height, columns.back().size());
    }
    for (std::size_t line = 0; line < height; ++line) {
        std::string out(indent, ' ');
        std::size_t pending = 0;  // blanks, written only when a text follows: none ends a line
        for (std::size_t i = 0; i < cells.size(); ++i) {
            std::string text = line < columns[i].size() ? columns[i][line] : std::string();
            text.erase(text.find_last_not_of(' ') + 1);
            if (!text.empty()) {
                out.append(pending, ' ').append(painted(text, cells[i].paint));
                pending = 0;
            }
            pending += widths[i] - std::min(widths[i], widthOf(text)) + kGap;
        }
        std::cout << out << '\n';
    }
}

}  // namespace

std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    return text;
}

std::string inQuotes(const std::string& text) {
    return std::string("\"").append(printable(text)).append("\"");
}

std::string painted(const std::string& text, Paint paint) {
    static const bool wanted = colourWanted();
    if (!wanted || paint == Paint::kPlain) {
        return text;
    }
    return std::string("\033[").append(colourOf(paint)).append("m").append(text).append("\033[0m");
}

void Table::print(std::size_t indent) const {
    std::vector<std::vector<Cell>> rows;
    if (!headings_.empty()) {
        rows.emplace_back();
        for (const std::string& heading : headings_) {
            rows.back().push_back({heading, Paint::kStrong});
        }
    }
    rows.insert(rows.end(), rows_.begin(), rows_.end());

    std::vector<std::size_t> widths;
    for (const std::vector<Cell>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], widthOf(printable(row[i].text)));
        }
    }
    if (widths.empty()) {
        return;
    }
    const std::size_t terminal = terminalWidth();
    const std::size_t taken = indent + kGap * (widths.size() - 1);
    if (terminal > taken) {
        narrow(widths, terminal - taken);
    }
    for (const std::vector<Cell>& row : rows) {
        printRow(row, widths, indent);
    }
}

void printJson(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    (void)writer->write(document, &std::cout);
    std::cout << '\n';
}

std::string counted(std::size_t number, const std::string& noun) {
    return std::to_string(number).append(" ").append(noun).append(number == 1 ? "" : "s");
}

Progress::Progress(std::string what, std::size_t total)
    : what_(std::move(what)), total_(total), shown_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (shown_ && done_ > 0) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

void Progress::step() {
    ++done_;
    const std::size_t part = std::max<std::size_t>(total_ / kProgressParts, 1);
    if (shown_ && done_ % part == 0) {
        std::cerr << '\r' << what_ << ": " << done_ << " of " << total_ << std::flush;
    }
}

}  // namespace tarnfw
