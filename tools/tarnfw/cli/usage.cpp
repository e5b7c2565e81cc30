#include "cli/usage.h"

#include <algorithm>
#include <iterator>

#include <CLI/CLI.hpp>
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

// What people type who know other tools, or guess.
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

/// The command that the words were for, as far as they name one.
const CLI::App& deepest(const CLI::App& app) {
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? app : deepest(*parsed.front());
}

std::string fullName(const CLI::App& app) {
    return app.get_parent() == nullptr ? app.get_name()
                                       : fullName(*app.get_parent()) + " " + app.get_name();
}

Texts commandNames(const CLI::App& app) {
    Texts names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (!command->get_group().empty() && !command->get_name().empty()) {
            names.push_back(command->get_name());
        }
    }
    return names;
}

Texts optionNames(const CLI::App& app) {
    Texts names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

/// The commands as a person types them, without the tool's name: "status", "rule add".
Texts wholeCommands(const CLI::App& app) {
    Texts commands;
    for (const std::string& name : commandNames(app)) {
        const Texts below = wholeCommands(*app.get_subcommand(name));
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

/// Whether each word of the command is like the typed one in its place.
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

/// The command that the first words may have meant; empty when it is none.
std::string nearestCommand(const CLI::App& app, const Texts& words) {
    const Texts commands = wholeCommands(app);
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
    const Texts first = commandNames(app);
    const bool firstIsRight = std::find(first.begin(), first.end(), one) != first.end();
    return found.empty() && !firstIsRight ? nearest(one, first) : found;
}

/// The command among those on the way to `command` that did not take a word, and the word.
std::pair<const CLI::App*, std::string> firstExtra(const CLI::App& app) {
    const Texts extras = app.remaining();
    if (!extras.empty()) {
        return {&app, extras.front()};
    }
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? std::make_pair(&app, std::string()) : firstExtra(*parsed.front());
}

/// What a message of the parser means: "POLICY: deney not in {allow,deny}" and the like.
std::string inWords(const CLI::App& command, const std::string& message) {
    constexpr char kNotIn[] = " not in {";
    const std::size_t found = message.find(kNotIn);
    if (found != std::string::npos && boost::ends_with(message, "}")) {
        const std::size_t colon = message.find(": ");
        const std::size_t start = colon == std::string::npos ? 0 : colon + 2;
        const std::string word = message.substr(start, found - start);
        const std::size_t list = found + sizeof kNotIn - 1;
        Texts choices;
        boost::split(choices, message.substr(list, message.size() - 1 - list),
                     boost::is_any_of(","));
        const std::string meant = nearest(word, choices);
        return "\"" + word + "\" is none of " + boost::join(choices, ", ") + didYouMean(meant);
    }
    constexpr char kOneOf[] = " 1 option from [";
    if (const std::size_t list = message.find(kOneOf); list != std::string::npos) {
        const std::size_t start = list + sizeof kOneOf - 1;
        Texts options;
        boost::split(options, message.substr(start, message.find(']') - start),
                     boost::is_any_of(","));
        return "\"" + fullName(command) + "\" needs one of " + boost::join(options, ", ");
    }
    if (message == "A subcommand is required") {
        return "\"" + fullName(command) + "\" needs one of " +
               boost::join(commandNames(command), ", ");
    }
    return message;
}

}  // namespace

std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error,
                       const std::vector<std::string>& words) {
    const auto [refusing, extra] = firstExtra(app);
    const CLI::App& command = extra.empty() ? deepest(app) : *refusing;
    const std::string name = fullName(command);
    const bool isOption = boost::starts_with(extra, "-");
    const bool isCommand = !extra.empty() && !isOption && !commandNames(command).empty();

    std::string text = "tarnfw: ";
    std::string meant;
    if (extra.empty()) {
        text.append(inWords(command, error.what())).append("\n");
    } else if (isCommand) {
        text.append("there is no command \"").append(name).append(" ").append(extra).append("\"\n");
        meant = nearestCommand(app, words);
    } else {
        text.append("\"").append(name).append("\" does not take \"").append(extra).append("\"\n");
        meant = isOption ? nearest(extra, optionNames(command)) : std::string();
    }
    if (!meant.empty()) {
        text.append("Did you mean \"").append(isCommand ? app.get_name() : name);
        text.append(" ").append(meant).append("\"?\n");
    }
    text.append("\"").append(name).append(" --help\" tells how it is used.\n");
    return text;
}

}  // namespace tarnfw
