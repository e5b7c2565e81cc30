#include "usage.h"

#include <algorithm>

namespace tarnfw {
namespace {

/// How many letters have to be put in, taken out, replaced or swapped with their neighbour to make
/// one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
    // needed[i][j]: for the first i letters of `from` and the first j of `to`.
    std::vector<std::vector<std::size_t>> needed(from.size() + 1,
                                                 std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                needed[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = needed[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            needed[i][j] = std::min({replaced, needed[i - 1][j] + 1, needed[i][j - 1] + 1});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                needed[i][j] = std::min(needed[i][j], needed[i - 2][j - 2] + 1);
            }
        }
    }
    return needed[from.size()][to.size()];
}

/// The command that the words were for, as far as they name one.
const CLI::App& deepest(const CLI::App& app) {
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? app : deepest(*parsed.front());
}

std::string fullName(const CLI::App& app) {
    return app.get_parent() == nullptr ? app.get_name()
                                       : fullName(*app.get_parent()) + " " + app.get_name();
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (!command->get_group().empty()) {
            names.push_back(command->get_name());
        }
    }
    return names;
}

std::vector<std::string> optionNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

/// The first word that nothing took; empty when there is none.
std::string firstExtra(const CLI::App& app) {
    const std::vector<std::string> extras = app.remaining(/*recurse=*/true);
    return extras.empty() ? std::string() : extras.front();
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& known) {
    // A third of the letters wrong is a typing error; more is another word.
    std::size_t best = std::max<std::size_t>(word.size() / 3, 1) + 1;
    std::string found;
    for (const std::string& candidate : known) {
        const std::size_t needed = distance(word, candidate);
        if (needed < best) {
            best = needed;
            found = candidate;
        }
    }
    return found;
}

std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App& command = deepest(app);
    const std::string name = fullName(command);
    const std::string extra = firstExtra(app);
    const std::vector<std::string> commands = commandNames(command);
    const bool isOption = extra.rfind('-', 0) == 0;

    std::string text = "tarnfw: ";
    if (extra.empty()) {
        text.append(error.what()).append("\n");
    } else if (isOption || commands.empty()) {
        text.append("\"").append(name).append("\" does not take \"").append(extra).append("\"\n");
    } else {
        text.append("there is no command \"").append(name).append(" ").append(extra).append("\"\n");
    }
    const std::string meant =
        extra.empty() ? std::string() : nearest(extra, isOption ? optionNames(command) : commands);
    if (!meant.empty()) {
        text.append("Did you mean \"").append(name).append(" ").append(meant).append("\"?\n");
    }
    text.append("\"").append(name).append(" --help\" tells how it is used.\n");
    return text;
}

}  // namespace tarnfw
