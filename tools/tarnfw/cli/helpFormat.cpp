#include "cli/helpFormat.h"

#include <algorithm>
#include <sstream>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "cli/output.h"

namespace tarnfw {
namespace {

constexpr std::size_t kFileWidth = 80;  // of what goes elsewhere than to a terminal
constexpr std::size_t kNarrowest = 20;  // of a column of texts
constexpr std::size_t kWidest = 100;    // longer lines are hard to read

std::size_t lineWidth() {
    const std::size_t terminal = terminalWidth();
    return terminal == 0 ? kFileWidth : std::min(terminal, kWidest);
}

/// The text within the columns behind the first `taken` of a line. A line that begins with blanks
/// is an example, to be copied: it stays whole.
std::string fitted(const std::string& text, std::size_t taken) {
    const std::size_t width = std::max(lineWidth(), taken + kNarrowest) - taken;
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind(' ', 0) == 0) {
            lines.push_back(line);
            continue;
        }
        for (const std::string& part : wrapped(line, width)) {
            lines.push_back(part);
        }
    }
    return boost::join(lines, "\n");
}

}  // namespace

std::string HelpFormat::make_description(const CLI::App* app) const {
    // A group of options without a text of its own begins with what of them is required.
    const std::string text = boost::trim_left_copy(CLI::Formatter::make_description(app));
    return text.empty() ? text : fitted(text, 0) + "\n";
}

std::string HelpFormat::make_footer(const CLI::App* app) const {
    const std::string footer = fitted(app->get_footer(), 0);
    return footer.empty() ? footer : footer + "\n";
}

std::string HelpFormat::make_option_desc(const CLI::Option* option) const {
    return fitted(option->get_description(), get_column_width());
}

std::string HelpFormat::make_subcommand(const CLI::App* command) const {
    // In a list the first sentence is enough.
    const std::string text = command->get_description();
    std::ostringstream out;
    CLI::detail::format_help(out, command->get_display_name(true),
                             fitted(text.substr(0, text.find(". ")), get_column_width()),
                             get_column_width());
    return out.str();
}

}  // namespace tarnfw
