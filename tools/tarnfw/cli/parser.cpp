#include "cli/parser.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <type_traits>
#include <utility>
#include <variant>

#include <CLI/CLI.hpp>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "tarnfwadmin/text.h"

#include "cli/output.h"

namespace tarnfw {
namespace {

// ---- Help texts ---------------------------------------------------------------------------------

constexpr std::size_t kFileWidth = 80;  // if the output is not a terminal
constexpr std::size_t kNarrowest = 20;  // of a column of texts
constexpr std::size_t kWidest = 100;    // longer lines are hard to read

std::size_t lineWidth() {
    const std::size_t terminal = terminalWidth();
    return terminal == 0 ? kFileWidth : std::min(terminal, kWidest);
}

/// The text within the columns after the first `taken` of a line. A line that begins with blanks
/// is an example, to be copied: it is not wrapped.
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

/// Accepts numbers from the first to the second.
std::function<std::string(const std::string&)> rangeOf(const std::pair<int, int>& range) {
    return [range](const std::string& text) -> std::string {
        int number = 0;
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        if (isNumber && number >= range.first && number <= range.second) {
            return "";
        }
        return inQuotes(text) + " is not a number from " + std::to_string(range.first) + " to " +
               std::to_string(range.second);
    };
}

/// What the help says of an option after its own text: "required", "by default 60", "not together
/// with --v4, --v6".
std::vector<std::string> conditionsOf(const CLI::Option& option) {
    const auto namesOf = [](const std::set<CLI::Option*>& options) {
        std::vector<std::string> names;
        names.reserve(options.size());
        for (const CLI::Option* other : options) {
            names.push_back(other->get_name());
        }
        std::sort(names.begin(), names.end());
        return boost::join(names, ", ");
    };
    std::vector<std::string> conditions;
    if (option.get_required()) {
        conditions.emplace_back("required");
    }
    if (!option.get_default_str().empty()) {
        conditions.push_back("by default " + option.get_default_str());
    }
    if (!option.get_needs().empty()) {
        conditions.push_back("only with " + namesOf(option.get_needs()));
    }
    if (!option.get_excludes().empty()) {
        conditions.push_back("not together with " + namesOf(option.get_excludes()));
    }
    return conditions;
}

/// The parser's own layout, with texts wrapped; those of options and commands keep their column.
class HelpFormat : public CLI::Formatter {
public:
    std::string make_description(const CLI::App* app) const override {
        const std::string text = app->get_description();
        return text.empty() ? text : fitted(text, 0) + "\n";
    }

    std::string make_footer(const CLI::App* app) const override {
        const std::string footer = fitted(app->get_footer(), 0);
        return footer.empty() ? footer : footer + "\n";
    }

    std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
        return boost::replace_all_copy(CLI::Formatter::make_option_name(option, isPositional), ",",
                                       ", ");
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_type_size() == 0) {
            return "";
        }
        const std::string word = option->get_type_name();
        const bool isList = option->get_expected_max() == CLI::detail::expected_max_vector_size;
        return (word.empty() ? "" : " " + word) + (isList ? " ..." : "");
    }

    std::string make_option_desc(const CLI::Option* option) const override {
        const std::string conditions = boost::join(conditionsOf(*option), "; ");
        return fitted(
            option->get_description() + (conditions.empty() ? "" : " (" + conditions + ")"),
            get_column_width());
    }

    /// A group of options, of which one is to be given.
    std::string make_expanded(const CLI::App* group) const override {
        std::string text = "\n" + group->get_group() + ", one of:\n";
        for (const CLI::Option* option : group->get_options()) {
            if (option != group->get_help_ptr()) {
                text += make_option(option, false);
            }
        }
        return text;
    }

    std::string make_subcommand(const CLI::App* command) const override {
        // In a list the first sentence is enough.
        const std::string text = command->get_description();
        std::ostringstream out;
        CLI::detail::format_help(out, command->get_display_name(true),
                                 fitted(text.substr(0, text.find(". ")), get_column_width()),
                                 get_column_width());
        return out.str();
    }
};

// ---- The parser ---------------------------------------------------------------------------------

/// The choice that a word may have meant: in other letters, mistyped, or a word that other tools
/// have for it. Empty if there is none.
std::string meantBy(const std::string& word, const std::vector<std::string>& choices) {
    static const std::map<std::string, std::string> kOthers = {
        {"accept", "allow"}, {"block", "deny"}, {"drop", "deny"}, {"reject", "deny"}};
    const std::string lower = boost::to_lower_copy(word);
    const auto other = kOthers.find(lower);
    const std::string guess = other == kOthers.end() ? lower : other->second;
    return std::find(choices.begin(), choices.end(), guess) != choices.end()
               ? guess
               : nearest(lower, choices);
}

/// Rejects a word that is not one of the choices, and suggests the nearest one.
CLI::Validator choiceOf(const std::vector<std::string>& choices,
                        const std::vector<std::string>& others) {
    return CLI::Validator(
        [choices, others](const std::string& word) -> std::string {
            if (std::find(choices.begin(), choices.end(), word) != choices.end() ||
                std::find(others.begin(), others.end(), word) != others.end()) {
                return {};
            }
            // Thrown and not returned: the parser would put the option's name before it.
            throw UsageError("\"" + word + "\" is not one of " + boost::join(choices, ", ") +
                             didYouMean(meantBy(word, choices)));
        },
        "");
}

/// The word that the help text has for the value of an option.
std::string placeholderOf(const Option& option) {
    const Option::Facts& facts = option.facts();
    if (facts.placeholder) {
        return *facts.placeholder;
    }
    if (option.isPositional()) {
        return "";  // its name says it
    }
    if (!facts.choices.empty()) {
        return boost::join(facts.choices, "|");
    }
    const bool isNumber = std::holds_alternative<int*>(facts.target) ||
                          std::holds_alternative<std::size_t*>(facts.target) ||
                          std::holds_alternative<std::vector<std::size_t>*>(facts.target);
    return isNumber ? "NUMBER" : "TEXT";
}

/// The declared commands as the parser knows them.
class Parser {
public:
    explicit Parser(const Command& tool) {
        root_.name(tool.name());
        root_.formatter(std::make_shared<HelpFormat>());
        if (!tool.version().empty()) {
            root_.set_version_flag("--version", tool.version());
        }
        fill(root_, tool);
    }

    CLI::App& root() { return root_; }

    std::string helpOf(const Command& command) const {
        const auto found = std::find_if(commands_.begin(), commands_.end(), [&](const auto& entry) {
            return entry.second == &command;
        });
        const CLI::App* const app = found->first;
        return app->get_formatter()->make_help(app, command.fullName(), CLI::AppFormatMode::Normal);
    }

    /// The error in the words that the parser has read.
    /// `kind` is the parser's name for it; empty for an error of the command.
    ParseError errorOf(const std::string& message, const std::string& kind = "") const {
        const auto [refusing, extra] = firstExtra(root_);
        if (!extra.empty()) {
            return {commands_.at(refusing), extra, {}};
        }
        const Command& command = *commands_.at(&deepest(root_));
        return {&command, {}, kind.empty() ? message : inWords(command, message, kind)};
    }

private:
    void fill(CLI::App& app, const Command& command) {
        commands_[&app] = &command;
        app.description(command.help());
        if (!command.footer().empty()) {
            app.footer(command.footer());  // else it keeps its group's
        }
        std::map<const Option*, CLI::Option*> added;
        for (const Option* option : command.options()) {
            if (CLI::Option* const made = addTo(app, *option); made != nullptr) {
                added[option] = made;
            }
        }
        for (const auto& [option, made] : added) {
            for (const Option* other : option->facts().excluded) {
                made->excludes(added.at(other));
            }
            for (const Option* other : option->facts().needed) {
                made->needs(added.at(other));
            }
        }
        if (command.action()) {
            app.callback(command.action());
        }
        for (const auto& below : command.subcommands()) {
            CLI::App& made = *app.add_subcommand(below->name());
            if (below->isHidden()) {
                made.group("");
            }
            fill(made, *below);
        }
        if (!command.subcommands().empty()) {
            app.require_subcommand(1);
        }
    }

    /// The parent of an option: the command, or the group with this title, which is created if
    /// needed.
    static CLI::App& groupOf(CLI::App& app, const std::string& title) {
        if (title.empty()) {
            return app;
        }
        const auto isIt = [&title](const CLI::App* group) {
            return group->get_name().empty() && group->get_group() == title;
        };
        const std::vector<CLI::App*> groups =
            app.get_subcommands([&isIt](const CLI::App* group) { return isIt(group); });
        if (!groups.empty()) {
            return *groups.front();
        }
        CLI::App& group = *app.add_option_group(title);
        group.require_option(1);
        return group;
    }

    static constexpr int kMostWords = 99;  // of a value: its check says what is too much

    /// An option whose value may come in several words, which are checked together.
    static CLI::Option* addOfWords(CLI::App& group, const Option::Facts& facts,
                                   std::string& target) {
        const auto take = [&facts, &target](const std::vector<std::string>& words) {
            target = boost::join(words, " ");
            const std::string wrong = facts.check ? facts.check(target) : "";
            if (!wrong.empty()) {
                throw CLI::ValidationError(facts.name, wrong);
            }
        };
        CLI::Option* const made =
            group.add_option_function<std::vector<std::string>>(facts.name, take, facts.help);
        return made->expected(1, kMostWords);
    }

    /// Null for an option that the parser has by itself.
    static CLI::Option* addTo(CLI::App& app, const Option& option) {
        const Option::Facts& facts = option.facts();
        CLI::Option* const made = std::visit(
            [&](auto target) -> CLI::Option* {
                using Target = decltype(target);
                if constexpr (std::is_same_v<Target, std::monostate>) {
                    return nullptr;
                } else if constexpr (std::is_same_v<Target, bool*>) {
                    return groupOf(app, facts.oneOf).add_flag(facts.name, *target, facts.help);
                } else if constexpr (std::is_same_v<Target, std::string*>) {
                    CLI::App& group = groupOf(app, facts.oneOf);
                    return facts.severalWords ? addOfWords(group, facts, *target)
                                              : group.add_option(facts.name, *target, facts.help);
                } else {
                    return groupOf(app, facts.oneOf).add_option(facts.name, *target, facts.help);
                }
            },
            facts.target);
        if (made == nullptr) {
            return made;
        }
        if (option.mostValues() != 0) {
            made->type_name(placeholderOf(option));
        }
        if (!facts.choices.empty()) {
            made->check(choiceOf(facts.choices, facts.otherChoices));
        }
        if (facts.range) {
            made->check(rangeOf(*facts.range));
        }
        if (facts.check && !facts.severalWords) {
            made->check(facts.check);
        }
        made->required(facts.required);
        if (facts.showsDefault) {
            made->capture_default_str();
        }
        if (facts.oneValueEach) {
            made->allow_extra_args(false);
        }
        return made;
    }

    /// The command that the words name.
    static const CLI::App& deepest(const CLI::App& app) {
        const std::vector<CLI::App*> parsed = app.get_subcommands();
        return parsed.empty() ? app : deepest(*parsed.front());
    }

    /// The command on the path that did not take a word, and the word.
    static std::pair<const CLI::App*, std::string> firstExtra(const CLI::App& app) {
        const std::vector<std::string> extras = app.remaining();
        const auto extra = std::find_if(extras.begin(), extras.end(), [](const std::string& word) {
            return word != "--";  // the end of the options, which every command takes
        });
        if (extra != extras.end()) {
            return {&app, *extra};
        }
        const std::vector<CLI::App*> parsed = app.get_subcommands();
        return parsed.empty() ? std::make_pair(&app, std::string()) : firstExtra(*parsed.front());
    }

    static bool isFlag(const Command& command, const std::string& name) {
        const std::vector<const Option*> options = command.options();
        return std::any_of(options.begin(), options.end(), [&name](const Option* option) {
            return option->facts().name == name && option->mostValues() == 0;
        });
    }

    /// "--port: 1 required TEXT missing", for instance, as "--port needs a value".
    static std::string aboutValues(const Command& command, const std::string& message) {
        const std::string name = message.substr(0, message.find(':'));
        if (isFlag(command, name)) {
            return name + " takes no value";
        }
        const bool missing = message.find("missing") != std::string::npos ||
                             message.find("received 0") != std::string::npos ||
                             message.find("At Least") != std::string::npos;
        return name + (missing ? " needs a value" : " is given more than once");
    }

    /// "Could not convert: --seconds = soon".
    static std::string aboutConversion(const Command& command, const std::string& message) {
        const std::size_t name = message.find(": ");
        const std::size_t value = message.find(" = ");
        if (name == std::string::npos || value == std::string::npos || value < name) {
            return "a value is not of the right sort";
        }
        const std::string option = message.substr(name + 2, value - name - 2);
        if (isFlag(command, option)) {
            return option + " takes no value";
        }
        return option + ": " + inQuotes(message.substr(value + 3)) + " is not of the right sort";
    }

    /// A plain text for those of the parser's messages that are not plain.
    static std::string inWords(const Command& command, const std::string& message,
                               const std::string& kind) {
        const auto between = [&message](const char* word, const char* with, const char* end) {
            return boost::replace_first_copy(message, word, with) + end;
        };
        if (kind == "ExcludesError") {
            return between(" excludes ", " and ", " exclude each other");
        }
        if (kind == "RequiresError") {
            return between(" requires ", " needs ", "");
        }
        if (kind == "ArgumentMismatch") {
            return aboutValues(command, message);
        }
        if (kind == "ConversionError") {
            return aboutConversion(command, message);
        }
        std::vector<std::string> needed;
        const bool several = message.find(" were given") != std::string::npos;
        if (message.find(" 1 option from [") != std::string::npos) {
            for (const Option* option : command.options()) {
                if (!option->facts().oneOf.empty()) {
                    needed.push_back(option->facts().name);
                }
            }
        } else if (message == "A subcommand is required") {
            needed = command.shownNames();
        }
        return needed.empty()
                   ? message
                   : inQuotes(command.fullName()) + (several ? " takes only" : " needs") +
                         " one of " + boost::join(needed, ", ");
    }

    CLI::App root_;
    std::map<const CLI::App*, const Command*> commands_;
};

const Command& rootOf(const Command& command) {
    return command.parent() == nullptr ? command : rootOf(*command.parent());
}

}  // namespace

std::optional<ParseError> runCommandLine(const Command& tool,
                                         const std::vector<std::string>& words) {
    Parser parser(tool);
    try {
        // The parser wants them from the last to the first.
        parser.root().parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::Success& answered) {  // help, or the version
        (void)parser.root().exit(answered);
    } catch (const CLI::ParseError& error) {
        return parser.errorOf(error.what(), error.get_name());
    } catch (const UsageError& error) {
        return parser.errorOf(error.what());
    }
    return std::nullopt;
}

std::string helpText(const Command& command) {
    return Parser(rootOf(command)).helpOf(command);
}

}  // namespace tarnfw
