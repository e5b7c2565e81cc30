#include "cli/output.h"

#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <numeric>

namespace tarnfw {
namespace {

constexpr std::size_t kGap = 2;              // blanks between two columns
constexpr std::size_t kNarrowest = 4;        // no column is wrapped below this
constexpr std::size_t kLongWord = 26;        // longer words, such as IPv6 addresses, may be cut
constexpr std::size_t kCutFirst = 16;        // the least of a column that is cut before others
constexpr std::size_t kProgressParts = 200;  // most updates of the terminal

bool colourWanted(int fd) {
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(fd) == 1 && (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
           std::string(terminal) != "dumb";
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

/// A byte within a UTF-8 character, not the first one.
bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

std::string inColour(const std::string& text, Paint paint) {
    if (paint == Paint::kPlain) {
        return text;
    }
    return std::string("\033[").append(colourOf(paint)).append("m").append(text).append("\033[0m");
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

/// How many bytes of `text` fit into `width` columns; those of one character at least.
std::size_t bytesWithin(const std::string& text, std::size_t width) {
    std::size_t bytes = 0;
    do {
        ++bytes;
        while (bytes < text.size() && isContinuation(text[bytes])) {
            ++bytes;
        }
    } while (bytes < text.size() && widthOf(text.substr(0, bytes + 1)) <= width);
    return bytes;
}

// Between these, a word that is too long is cut.
constexpr char kSigns[] = "-_/:.";

/// Takes the start of a word, up to a sign, that fits into `width` columns; it may be empty.
std::string startWithin(std::string& word, std::size_t width) {
    const std::size_t most = width == 0 ? 0 : bytesWithin(word, width);
    const std::size_t sign = word.substr(0, most).find_last_of(kSigns);
    const std::string start = word.substr(0, sign == std::string::npos ? 0 : sign + 1);
    word.erase(0, start.size());
    return start;
}

/// Cuts a word that is too long: after a character that separates parts of such words, else
/// anywhere.
std::vector<std::string> pieces(std::string word, std::size_t width) {
    std::vector<std::string> found;
    while (widthOf(word) > width) {
        const std::size_t most = bytesWithin(word, width);
        const std::size_t sign = word.substr(0, most).find_last_of(kSigns);
        const std::size_t cut = sign == std::string::npos ? most : sign + 1;
        found.push_back(word.substr(0, cut));
        word.erase(0, cut);
    }
    found.push_back(word);
    return found;
}

/// The words of a text, each with the blanks after it; a comma also ends a word.
std::vector<std::string> wordsOf(const std::string& text) {
    std::vector<std::string> words;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t found = text.find_first_of(" ,", start);
        const std::size_t end = std::min(
            text.find_first_not_of(' ', std::min(found, text.size() - 1) + 1), text.size());
        words.push_back(text.substr(start, end - start));
        start = end;
    }
    return words;
}

std::string withoutEndBlanks(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

/// The columns below which words of the text have to be cut.
std::size_t longestWord(const std::string& text) {
    std::size_t longest = 0;
    for (const std::string& word : wordsOf(text)) {
        longest = std::max(longest, widthOf(withoutEndBlanks(word)));
    }
    return longest;
}

/// Narrows the widest columns until the lines fit; none gets narrower than its minimum.
void narrow(std::vector<std::size_t>& widths, const std::vector<std::size_t>& floors,
            std::size_t available) {
    std::size_t total = std::accumulate(widths.begin(), widths.end(), std::size_t{0});
    while (total > available) {
        std::size_t* widest = nullptr;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (widths[i] > floors[i] && (widest == nullptr || widths[i] > *widest)) {
                widest = &widths[i];
            }
        }
        if (widest == nullptr) {
            return;
        }
        --*widest;
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
            const std::string text = line < columns[i].size() ? columns[i][line] : std::string();
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

std::size_t terminalWidth() {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
        return 0;
    }
    return size.ws_col;
}

std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
    std::vector<std::string> lines(1);
    for (const std::string& word : wordsOf(text)) {
        std::string rest = withoutEndBlanks(word);
        if (widthOf(rest) > width) {
            // It is cut anyway, so it begins on this line.
            lines.back() += startWithin(rest, width - std::min(width, widthOf(lines.back())));
        }
        for (const std::string& piece : pieces(rest, width)) {
            if (!lines.back().empty() && widthOf(lines.back()) + widthOf(piece) > width) {
                lines.emplace_back();
            }
            lines.back() += piece;
        }
        lines.back().append(word.size() - withoutEndBlanks(word).size(), ' ');
    }
    std::transform(lines.begin(), lines.end(), lines.begin(), withoutEndBlanks);
    return lines;
}

std::string painted(const std::string& text, Paint paint) {
    return colourWanted(STDOUT_FILENO) ? inColour(text, paint) : text;
}

Paint policyPaint(FW::FW_POLICY policy) {
    switch (policy) {
        case FW::FW_POLICY_ALLOW:
            return Paint::kGood;
        case FW::FW_POLICY_DENY:
            return Paint::kBad;
        default:
            return Paint::kDoubtful;
    }
}

void warn(const std::string& text) {
    const std::string line = "tarnfw: " + printable(text);
    std::cerr << (colourWanted(STDERR_FILENO) ? inColour(line, Paint::kDoubtful) : line) << '\n';
}

void warn(const std::string& source, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        warn(lineOf(source, finding));
    }
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
    std::vector<std::size_t> words;  // the longest of each column
    for (const std::vector<Cell>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        words.resize(widths.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string text = printable(row[i].text);
            widths[i] = std::max(widths[i], widthOf(text));
            words[i] = std::max(words[i], std::min(longestWord(text), kLongWord));
        }
    }
    if (widths.empty()) {
        return;
    }
    const std::size_t taken = indent + kGap * (widths.size() - 1);
    if (const std::size_t terminal = terminalWidth(); terminal > taken) {
        if (cutFirst_ && *cutFirst_ < widths.size()) {
            std::vector<std::size_t> floors = widths;
            floors[*cutFirst_] = std::min(kCutFirst, widths[*cutFirst_]);
            narrow(widths, floors, terminal - taken);
        }
        // Words are cut only if wrapping between them is not enough; long ones before other columns
        // get narrow.
        narrow(widths, words, terminal - taken);
        narrow(widths, std::vector<std::size_t>(widths.size(), kNarrowest), terminal - taken);
    }
    for (const std::vector<Cell>& row : rows) {
        printRow(row, widths, indent);
    }
}

std::string jsonText(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return printableJson(Json::writeString(builder, document)) + '\n';
}

void printJson(const Json::Value& document) {
    std::cout << jsonText(document);
}

std::string localTime(std::time_t time, const char* format) {
    std::tm parts{};
    (void)localtime_r(&time, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

std::string timeForPrograms(std::time_t time) {
    std::tm parts{};
    (void)gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

Json::Value textsJson(const std::vector<std::string>& texts) {
    Json::Value all(Json::arrayValue);
    for (const std::string& text : texts) {
        all.append(text);
    }
    return all;
}

Json::Value textOrNull(const std::string& text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

Progress::Progress(const std::string& what)
    : what_(printable(what)), total_(0), shown_(isatty(STDERR_FILENO) == 1), written_(shown_) {
    if (shown_) {
        std::cerr << what_ << " ..." << std::flush;
    }
}

Progress::Progress(std::string what, std::size_t total)
    : what_(std::move(what)), total_(total), shown_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (written_) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

void Progress::step() {
    ++done_;
    const std::size_t part = std::max<std::size_t>(total_ / kProgressParts, 1);
    if (shown_ && done_ % part == 0) {
        written_ = true;
        std::cerr << '\r' << what_ << ": " << done_ << " of " << total_ << std::flush;
    }
}

}  // namespace tarnfw
