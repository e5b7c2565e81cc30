#include "cli/commandLine.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarnfw {

Option::Option(std::string name, Target target, std::string help) {
    facts_.name = std::move(name);
    facts_.help = std::move(help);
    facts_.target = target;
}

Option& Option::required() {
    facts_.required = true;
    return *this;
}

Option& Option::placeholder(std::string word) {
    facts_.placeholder = std::move(word);
    return *this;
}

Option& Option::choices(std::vector<std::string> words, std::vector<std::string> others) {
    facts_.choices = std::move(words);
    facts_.otherChoices = std::move(others);
    return *this;
}

Option& Option::range(int least, int greatest) {
    facts_.range = {least, greatest};
    return *this;
}

Option& Option::check(Check check) {
    facts_.check = std::move(check);
    return *this;
}

Option& Option::showDefault() {
    facts_.showsDefault = true;
    return *this;
}

Option& Option::severalWords() {
    facts_.severalWords = true;
    return *this;
}

Option& Option::oneValueEach() {
    facts_.oneValueEach = true;
    return *this;
}

Option& Option::exactlyOneOf(std::string title) {
    facts_.oneOf = std::move(title);
    return *this;
}

Option& Option::excludes(const Option& other) {
    facts_.excluded.push_back(&other);
    return *this;
}

Option& Option::needs(const Option& other) {
    facts_.needed.push_back(&other);
    return *this;
}

std::size_t Option::mostValues() const {
    const Target& target = facts_.target;
    if (std::holds_alternative<std::monostate>(target) || std::holds_alternative<bool*>(target)) {
        return 0;
    }
    const bool isList = std::holds_alternative<std::vector<std::size_t>*>(target) ||
                        std::holds_alternative<std::vector<std::string>*>(target);
    return isList ? std::string::npos : 1;
}

Command::Command(std::string name, std::string help)
    : name_(std::move(name)), help_(std::move(help)) {
    add("--help", {}, "Print this help message and exit");
}

Command& Command::subcommand(const std::string& name, const std::string& help) {
    subcommands_.push_back(std::make_unique<Command>(name, help));
    subcommands_.back()->parent_ = this;
    return *subcommands_.back();
}

Option& Command::flag(const std::string& name, bool& given, const std::string& help) {
    return add(name, &given, help);
}

Command& Command::footer(std::string text) {
    footer_ = std::move(text);
    return *this;
}

Command& Command::hide() {
    hidden_ = true;
    return *this;
}

Command& Command::run(std::function<void()> action) {
    action_ = std::move(action);
    return *this;
}

Command& Command::version(std::string text) {
    version_ = std::move(text);
    add("--version", {}, "Display program version information and exit");
    return *this;
}

Option& Command::add(const std::string& name, Option::Target target, const std::string& help) {
    options_.push_back(std::make_unique<Option>(name, target, help));
    return *options_.back();
}

std::vector<const Option*> Command::options() const {
    std::vector<const Option*> all;
    std::transform(options_.begin(), options_.end(), std::back_inserter(all),
                   [](const auto& option) { return option.get(); });
    std::stable_partition(all.begin(), all.end(),
                          [](const Option* option) { return option->facts().oneOf.empty(); });
    return all;
}

std::string Command::fullName() const {
    return parent_ == nullptr ? name_ : parent_->fullName() + " " + name_;
}

std::vector<std::string> Command::shownNames() const {
    std::vector<std::string> names;
    for (const auto& command : subcommands_) {
        if (!command->isHidden()) {
            names.push_back(command->name());
        }
    }
    return names;
}

const Command* Command::shown(const std::string& name) const {
    for (const auto& command : subcommands_) {
        if (!command->isHidden() && command->name() == name) {
            return command.get();
        }
    }
    return nullptr;
}

}  // namespace tarnfw
