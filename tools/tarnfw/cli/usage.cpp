#include "cli/usage.h"

#include <algorithm>
#include <iterator>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

struct OtherWord {
    const char* words;
    const char* command;
};

// Words from other tools, and guesses.
constexpr OtherWord kOtherWords[] = {
    {"add", "rule add"},
    {"allow", "rule add"},
    {"block", "rule add"},
    {"deny", "rule add"},
    {"insert", "rule insert"},
    {"remove", "rule delete"},
    {"delete", "rule delete"},
    {"list", "profile list"},
    {"show", "profile show"},
    {"rules", "profile show"},
    {"rule list", "profile show"},
    {"rule show", "profile show"},
    {"rule remove", "rule delete"},
    {"rule edit", "rule set"},
    {"profile remove", "profile delete"},
    {"profile add", "profile create"},
    {"profile new", "profile create"},
    {"profile apply", "profile use"},
    {"service list", "services"},
    {"service show", "services"},
    {"adapter list", "adapters"},
    {"interfaces", "adapters"},
    {"default", "policy"},
    {"start", "enable"},
    {"on", "enable"},
    {"stop", "disable"},
    {"off", "disable"},
    {"restart", "reload"},
    {"apply", "reload"},
    {"test", "try"},
    {"confirm", "try --confirm"},
    {"save", "export"},
    {"backup", "export"},
    {"restore", "import"},
    {"version", "--version"},
};

Texts optionNames(const Command& command) {
    Texts names;
    for (const Option* option : command.options()) {
        if (!option->isPositional()) {
            names.push_back(option->facts().name);
        }
    }
    return names;
}

/// The commands as a person types them, without the tool's name: "status", "rule add".
Texts wholeCommands(const Command& group) {
    Texts commands;
    for (const std::string& name : group.shownNames()) {
        const Texts below = wholeCommands(*group.shown(name));
        std::transform(below.begin(), below.end(), std::back_inserter(commands),
                       [&name](const std::string& rest) {
                           return std::string(name).append(" ").append(rest);
                       });
        if (below.empty()) {
            commands.push_back(name);
        }
    }
    return commands;
}

/// Whether each word of the command is similar to the typed one.
bool isNear(const Texts& typed, const std::string& command) {
    Texts words;
    boost::split(words, command, boost::is_any_of(" "));
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i >= typed.size() || nearest(typed[i], {words[i]}).empty()) {
            return false;
        }
    }
    return true;
}

/// The command that the first words may have meant; empty if there is none.
std::string nearestCommand(const Command& tool, const Texts& words) {
    const Texts commands = wholeCommands(tool);
    const std::string one = words.empty() ? std::string() : words[0];
    const std::string two = words.size() < 2 ? std::string() : one + " " + words[1];
    const std::string swapped = words.size() < 2 ? std::string() : words[1] + " " + one;
    for (const std::string& typed : {two, swapped}) {
        if (std::find(commands.begin(), commands.end(), typed) != commands.end()) {
            return typed;
        }
    }
    for (const std::string& typed : {two, one}) {
        for (const OtherWord& other : kOtherWords) {
            if (typed == other.words) {
                return other.command;
            }
        }
    }
    Texts near;
    std::copy_if(commands.begin(), commands.end(), std::back_inserter(near),
                 [&words](const std::string& command) { return isNear(words, command); });
    const std::string found = nearest(two, near);
    const Texts first = tool.shownNames();
    const bool firstIsRight = std::find(first.begin(), first.end(), one) != first.end();
    return found.empty() && !firstIsRight ? nearest(one, first) : found;
}

}  // namespace

std::string wrongUsage(const Command& tool, const ParseError& error,
                       const std::vector<std::string>& words) {
    const Command& command = *error.command;
    const std::string& extra = error.unknown;
    const std::string name = command.fullName();
    const bool isOption = boost::starts_with(extra, "-");
    const bool isCommand = !extra.empty() && !isOption && !command.shownNames().empty();

    std::string text = "tarnfw: ";
    std::string meant;
    if (extra.empty()) {
        text.append(error.reason).append("\n");
    } else if (isCommand) {
        text.append("there is no command \"").append(name).append(" ").append(extra).append("\"\n");
        meant = nearestCommand(tool, words);
    } else {
        text.append("\"").append(name).append("\" does not take \"").append(extra).append("\"\n");
        meant = isOption ? nearest(extra, optionNames(command)) : std::string();
    }
    if (!meant.empty()) {
        text.append("Did you mean \"").append(isCommand ? tool.name() : name);
        text.append(" ").append(meant).append("\"?\n");
    }
    text.append("\"").append(name).append(" --help\" shows its usage.\n");
    return text;
}

}  // namespace tarnfw
