#include "cli/completion.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

/// The kind of a value.
enum class Kind {
    kText,  ///< free text: nothing to offer
    kProfile,
    kAdapter,
    kService,
    kCountry,
    kFile,
    kProfileOrFile,
    kRuleWords,
    kTopic,
};

struct KindRow {
    const char* command;  ///< the command or its group; empty: any
    const char* option;   ///< as the help text names it
    Kind kind;
};

// The first row that fits counts.
constexpr KindRow kKinds[] = {
    {"profile create", "NAME", Kind::kText},
    {"profile", "--from", Kind::kProfileOrFile},
    {"profile", "NAME", Kind::kProfile},
    {"profile", "OLD", Kind::kProfile},
    {"profile diff", "A", Kind::kProfileOrFile},
    {"profile diff", "B", Kind::kProfileOrFile},
    {"service", "NAME", Kind::kService},
    {"services", "PATTERN", Kind::kService},
    {"adapter", "OLD", Kind::kAdapter},
    {"adapter", "NEW", Kind::kAdapter},
    {"rule", "WORDS", Kind::kRuleWords},
    {"help", "TOPIC", Kind::kTopic},
    // Users of modules have names of their own, which need not be in the catalogue.
    {"modules", "SERVICE", Kind::kText},
    {"", "ADAPTER", Kind::kAdapter},
    {"", "--adapter", Kind::kAdapter},
    {"explain", "--out", Kind::kAdapter},
    {"reload", "--for", Kind::kAdapter},
    {"", "PROFILE", Kind::kProfile},
    {"report", "--profile", Kind::kProfileOrFile},
    {"report", "--since", Kind::kProfileOrFile},
    {"report", "--html", Kind::kFile},
    {"", "--profile", Kind::kProfile},
    {"", "FILE|PROFILE", Kind::kProfileOrFile},
    {"", "SERVICE", Kind::kService},
    {"", "--service", Kind::kService},
    {"", "COUNTRY", Kind::kCountry},
    {"", "CC", Kind::kCountry},
    {"", "FILE", Kind::kFile},
    {"", "--file", Kind::kFile},
    {"", "--output", Kind::kFile},
};

Kind kindOf(const std::string& command, const std::string& option) {
    const auto* const found =
        std::find_if(std::begin(kKinds), std::end(kKinds), [&](const auto& row) {
            const std::string group = row.command;
            return option == row.option &&
                   (group.empty() || command == group || boost::starts_with(command, group + " "));
        });
    return found == std::end(kKinds) ? Kind::kText : found->kind;
}

// ---- Options ----

const Option* optionNamed(const Command& command, const std::string& name) {
    for (const Option* option : command.options()) {
        if (!option->isPositional() && option->facts().name == (name == "-h" ? "--help" : name)) {
            return option;
        }
    }
    return nullptr;
}

bool takesValue(const Option& option) {
    return option.mostValues() > 0;
}

// ---- The words of a rule ----

bool isOneOf(const std::string& word, const Texts& words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// `current` with its last entry completed, if it is a list such as "ssh,ht".
Texts listsWith(const std::string& current, const Texts& entries) {
    const std::size_t comma = current.rfind(',');
    const std::string kept = comma == std::string::npos ? "" : current.substr(0, comma + 1);
    Texts there;
    boost::split(there, kept, boost::is_any_of(","));
    Texts lists;
    for (const std::string& entry : entries) {
        if (!isOneOf(entry, there)) {
            lists.push_back(std::string(kept).append(entry));
        }
    }
    return lists;
}

/// The words that can follow these words of a rule; see ruleSyntax.h.
Texts ruleWords(const Texts& before, const std::string& current, const CompletionNames& names) {
    if (before.empty()) {
        return {"allow", "deny"};
    }
    const std::string& last = before.back();
    if (before.size() == 1) {
        return {"service", "tcp", "udp", "tcp/udp", "icmp", "igmp", "any", "from", "to"};
    }
    if (last == "service" && before.size() == 2) {
        return listsWith(current, names.services());
    }
    if (last == "from" || last == "to") {
        return {"anywhere", "country"};
    }
    const auto side = std::find_if(before.begin(), before.end(), [](const std::string& word) {
        return word == "from" || word == "to";
    });
    if (side == before.end()) {
        return {"from", "to"};
    }
    const bool isCountry = last == "country" && std::next(side, 2) == before.end();
    return isCountry ? listsWith(current, names.countries()) : Texts{};
}

// ---- The words on the line ----

/// The place on the command line after the finished words.
struct Place {
    const Command* command = nullptr;
    std::string path;                 ///< the command's words: "rule add"
    const Option* waiting = nullptr;  ///< given, its value comes next
    bool goesOn = false;              ///< words belong to the value before
    std::set<const Option*> given;
    Texts taken;  ///< words that are neither commands nor options
    bool onlyWords = false;
};

void takeOption(Place& place, const std::string& word) {
    const std::size_t equals = word.find('=');
    const Option* const option = optionNamed(*place.command, word.substr(0, equals));
    place.given.insert(option);
    place.goesOn = option != nullptr && option->facts().severalWords;
    if (option != nullptr && takesValue(*option) && equals == std::string::npos) {
        place.waiting = option;
    }
}

void take(Place& place, const std::string& word) {
    if (place.waiting != nullptr) {
        place.waiting = nullptr;
    } else if (!place.onlyWords && word == "--") {
        place.onlyWords = true;
    } else if (!place.onlyWords && boost::starts_with(word, "-")) {
        takeOption(place, word);
    } else if (const Command* const next =
                   place.taken.empty() ? place.command->shown(word) : nullptr) {
        place.command = next;
        place.path.append(place.path.empty() ? "" : " ").append(word);
        place.given.clear();
    } else if (!place.goesOn) {
        place.taken.push_back(word);
    }
}

/// The positional for the next word, if it is neither a command nor an option.
struct Next {
    const Option* positional = nullptr;
    Texts before;          ///< the words that this positional already has
    bool surplus = false;  ///< there were too many words before
};

Next nextOf(const Place& place) {
    auto first = place.taken.begin();
    for (const Option* option : place.command->options()) {
        if (!option->isPositional()) {
            continue;
        }
        const auto left = static_cast<std::size_t>(std::distance(first, place.taken.end()));
        if (left < option->mostValues()) {
            return {option, Texts(first, place.taken.end()), false};
        }
        std::advance(first, option->mostValues());
    }
    return {nullptr, {}, first != place.taken.end()};
}

// ---- Candidates ----

/// The topics, or the subcommands of the given commands.
Texts topics(const Command& tool, const Texts& before, const CompletionNames& names) {
    const Command* group = &tool;
    for (const std::string& word : before) {
        group = group->shown(word);
        if (group == nullptr) {
            return {};
        }
    }
    Texts words = group->shownNames();
    if (before.empty()) {
        const Texts more = names.topics();
        words.insert(words.end(), more.begin(), more.end());
    }
    return words;
}

/// Options that can still be given.
Texts optionNames(const Place& place) {
    Texts names;
    for (const Option* option : place.command->options()) {
        const bool again = option->mostValues() > 1;
        if (!option->isPositional() && (place.given.count(option) == 0 || again)) {
            names.push_back(option->facts().name);
        }
    }
    return names;
}

class Line {
public:
    Line(const Command& tool, const CompletionNames& names) : tool_(tool), names_(names) {}

    Completion fitting(const Place& place, const std::string& current) const {
        if (place.waiting != nullptr) {
            return valuesOf(*place.waiting, place, {}, current);
        }
        if (!place.onlyWords && boost::starts_with(current, "-")) {
            return afterDash(place, current);
        }
        if (place.taken.empty()) {
            const Texts commands = place.command->shownNames();
            if (!commands.empty()) {
                return {commands};
            }
        }
        const Next next = nextOf(place);
        if (next.positional != nullptr) {
            return valuesOf(*next.positional, place, next.before, current);
        }
        // Without positionals, offer options; otherwise only after a dash.
        return next.surplus || place.onlyWords ? Completion() : Completion{optionNames(place)};
    }

private:
    Completion valuesOf(const Option& option, const Place& place, const Texts& before,
                        const std::string& current) const {
        switch (kindOf(place.path, option.facts().name)) {
            case Kind::kText:
                return {option.facts().choices};
            case Kind::kProfile:
                return {names_.profiles()};
            case Kind::kAdapter:
                return {names_.adapters()};
            case Kind::kService:
                return {names_.services()};
            case Kind::kCountry:
                return {names_.countries()};
            case Kind::kFile:
                return {{}, true};
            case Kind::kProfileOrFile:
                return {names_.profiles(), true};
            case Kind::kRuleWords:
                return {ruleWords(before, current, names_)};
            case Kind::kTopic:
                return {topics(tool_, before, names_)};
        }
        return {};
    }

    /// An option's name, or its value after "=".
    Completion afterDash(const Place& place, const std::string& current) const {
        const std::size_t equals = current.find('=');
        if (equals == std::string::npos) {
            return {optionNames(place)};
        }
        const Option* const option = optionNamed(*place.command, current.substr(0, equals));
        if (option == nullptr || !takesValue(*option)) {
            return {};
        }
        Completion fits = valuesOf(*option, place, {}, current.substr(equals + 1));
        for (std::string& word : fits.words) {
            word.insert(0, current, 0, equals + 1);
        }
        return fits;
    }

    const Command& tool_;
    const CompletionNames& names_;
};

/// A name with a line feed cannot be passed on, and one with control characters should not be.
bool hasControl(const std::string& word) {
    return std::any_of(word.begin(), word.end(), [](char letter) {
        const auto code = static_cast<unsigned char>(letter);
        return code < 0x20 || code == 0x7f;
    });
}

}  // namespace

Completion complete(const Command& tool, const std::vector<std::string>& line,
                    const CompletionNames& names) {
    const std::string current = line.empty() ? "" : line.back();
    Place place;
    place.command = &tool;
    for (std::size_t i = 0; i + 1 < line.size(); ++i) {
        take(place, line[i]);
    }
    Completion fits = Line(tool, names).fitting(place, current);
    Texts words;
    for (const std::string& word : fits.words) {
        if (boost::starts_with(word, current) && !hasControl(word) && !isOneOf(word, words)) {
            words.push_back(word);
        }
    }
    fits.words = std::move(words);
    return fits;
}

}  // namespace tarnfw
