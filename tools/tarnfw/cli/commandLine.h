/// The commands of the tool and what each of them takes, declared by plain calls:
///
///     Command& show = profile.subcommand("show", "Print a profile's rules");
///     show.option("NAME", values->name, "The profile").required();
///     show.flag("--json", values->json, "Print one JSON document");
///     show.run([values] { ... });
///
/// parser.h parses by these declarations.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tarnfw {

/// Thrown by a running command for wrong usage that only it can find. The text is one line.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A flag, an option with a value, or a positional. Belongs to its command.
class Option {
public:
    /// The variable to fill; must live as long as the command. None: the parser handles the option
    /// itself.
    using Target = std::variant<std::monostate, bool*, int*, std::size_t*, std::string*,
                                std::vector<std::size_t>*, std::vector<std::string>*>;
    /// Returns the error of a value; empty for a valid one.
    using Check = std::function<std::string(const std::string& value)>;

    /// The declaration of an option.
    struct Facts {
        std::string name;  ///< "--adapter", or "NAME" of a positional
        std::string help;
        Target target;
        std::optional<std::string> placeholder;    ///< of the value, for the help text
        std::vector<std::string> choices;          ///< empty: any value
        std::vector<std::string> otherChoices;     ///< accepted as well, but not named
        std::optional<std::pair<int, int>> range;  ///< least and greatest value
        Check check;
        bool required = false;
        bool showsDefault = false;
        bool oneValueEach = false;
        bool severalWords = false;
        std::string oneOf;  ///< title of a group; empty: in none
        std::vector<const Option*> excluded;
        std::vector<const Option*> needed;
    };

    Option(std::string name, Target target, std::string help);

    Option& required();
    /// The word that the help text has for the value; an empty one leaves it out. Without this call
    /// it is the choices, or a word for the value's type, such as TEXT; a positional has none.
    Option& placeholder(std::string word);
    /// The value is one of these words, or one of `others`, which help and completion do not name.
    Option& choices(std::vector<std::string> words, std::vector<std::string> others = {});
    /// The value is a number, neither less nor greater than these.
    Option& range(int least, int greatest);
    Option& check(Check check);
    /// The help text names the value that the target has now.
    Option& showDefault();
    /// A list that grows by one value each time the option is given.
    Option& oneValueEach();
    /// The value, a text, may come in several words; the target gets them with a blank between.
    /// Only for an option of a command without positionals.
    Option& severalWords();
    /// Of the options of a command with the same title, exactly one must be given. The help text
    /// lists them under the title.
    Option& exactlyOneOf(std::string title);
    /// May not be given together with `other`, of the same command.
    Option& excludes(const Option& other);
    /// May only be given together with `other`, of the same command.
    Option& needs(const Option& other);

    const Facts& facts() const { return facts_; }
    bool isPositional() const { return facts_.name.front() != '-'; }
    /// How many values it takes at most; 0 is a flag.
    std::size_t mostValues() const;

private:
    Facts facts_;
};

/// A command, or a group of commands: one that has subcommands needs one of them to be given.
class Command {
public:
    Command(std::string name, std::string help);
    ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;
    Command(Command&&) = delete;
    Command& operator=(Command&&) = delete;

    Command& subcommand(const std::string& name, const std::string& help);
    Option& flag(const std::string& name, bool& given, const std::string& help);
    /// An option with a value, "--adapter", or a positional, "NAME". `value` is one that an
    /// Option::Target can point to.
    template <typename Value>
    Option& option(const std::string& name, Value& value, const std::string& help) {
        return add(name, &value, help);
    }
    /// The text at the end of the help text, also of those subcommands that have none themselves.
    Command& footer(std::string text);
    /// Help texts, completion and messages do not name it.
    Command& hide();
    /// What the command does. An exception that it throws goes through runCommandLine(), except
    /// UsageError.
    Command& run(std::function<void()> action);
    /// Adds "--version", which prints this text.
    Command& version(std::string text);

    const std::string& name() const { return name_; }
    const std::string& help() const { return help_; }
    const std::string& footer() const { return footer_; }
    const std::string& version() const { return version_; }
    const std::function<void()>& action() const { return action_; }
    bool isHidden() const { return hidden_; }
    const Command* parent() const { return parent_; }
    /// All of them, in the order of declaration.
    const std::vector<std::unique_ptr<Command>>& subcommands() const { return subcommands_; }
    /// All of them, "--help" as well; those of exactlyOneOf() come last.
    std::vector<const Option*> options() const;

    /// With the names of the groups: "tarnfw rule add".
    std::string fullName() const;
    /// The names of the subcommands that are not hidden.
    std::vector<std::string> shownNames() const;
    /// The subcommand of this name that is not hidden; null when there is none.
    const Command* shown(const std::string& name) const;

private:
    Option& add(const std::string& name, Option::Target target, const std::string& help);

    std::string name_;
    std::string help_;
    std::string footer_;
    std::string version_;
    std::function<void()> action_;
    bool hidden_ = false;
    const Command* parent_ = nullptr;
    std::vector<std::unique_ptr<Command>> subcommands_;
    std::vector<std::unique_ptr<Option>> options_;
};

}  // namespace tarnfw
