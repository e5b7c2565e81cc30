/// What the commands that change an adapter's list of rules have in common: the list, its
/// positions, which rules are meant, and the change itself.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "commands/applying.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {

using Rules = std::vector<FW::FWRULE>;

/// The list that a command changes.
struct Target {
    std::string adapter = FW::FW_ADAPTER_GLOBAL;
    std::string profile;  ///< empty: the active one
    ReloadOptions reload;
};

/// Adds "--adapter", "--profile" and the options of a reload.
void addTarget(Command& command, Target& target);

/// " --adapter eth0 --profile home", as a shell reads them in a command for this list.
std::string optionsText(const Target& target);

// ---- Positions, as a person counts them: from 1 ----

void requirePosition(const Rules& rules, std::size_t position, const Target& target);

/// Throws Error for a reserved rule.
void requireOwn(const Rules& rules, std::size_t position, const Target& target);

/// Where a rule goes that is to be at `position` of `rules`: after the reserved ones, and before
/// the log of the denied.
std::size_t freePosition(const Rules& rules, std::size_t position, const Target& target);

void insertAt(Rules& rules, std::size_t position, const FW::FWRULE& rule);
void eraseAt(Rules& rules, std::size_t position);

// ---- Which rules are meant ----

/// Rules of a list by their positions ("2-4,7"), their words or their name.
struct RuleSelection {
    std::vector<std::string> words;
    RuleOptions options;  ///< the name as well
    FamilyOptions family;
};

/// Throws UsageError unless something is given. `named`: the words of a rule are not accepted, only
/// positions and a name.
void requireSelection(const RuleSelection& selection, bool wordsAllowed);

/// The positions of the rules that are meant, ascending; all that are the same rule as the words
/// describe, or have the name. Throws Error, kNotFound, with what is nearest, when one is not
/// there; UsageError for wrong words.
std::vector<std::size_t> selectedPositions(const RuleSelection& selection,
                                           const FW::FWPROFILE& profile, const Target& target,
                                           Machine& machine);

/// The rule that the words describe. Wrong words are a UsageError.
FW::FWRULE ruleFromWords(const std::vector<std::string>& words, RuleOptions options,
                         const FamilyOptions& family, const RuleVocabulary& known);

// ---- Changing a list ----

/// The rule in words, with its place: "Rule 3 of eth0: allow tcp 22 from anywhere".
std::string placedText(const Rules& rules, std::size_t position, const Target& target);

/// The rule for "--json": its adapter, its position and the rule in words.
Json::Value ruleDocument(const Rules& rules, std::size_t position, const Target& target);

/// The result of a change.
struct Outcome {
    std::vector<std::string> said;          ///< what to print when it is stored
    std::vector<std::size_t> changed = {};  ///< positions of rules that are new or were switched on
    bool saysEffect = false;                ///< say what these open or close
    Json::Value rules = Json::arrayValue;   ///< the rules that the command is about, for "--json"
};

Outcome changedAt(const Rules& rules, std::size_t position, const Target& target);

/// What there is to say about rules at their positions.
struct Notes {
    std::vector<std::string> said;      ///< no warnings: an earlier rule does the same already
    std::vector<std::string> warnings;  ///< with the place where one takes effect that never does

    /// Leaves out what is about rules at other positions.
    bool ownOnly = false;
};

/// Adds to `notes` what there is to say about rules at these positions. Throws Error for invalid
/// ones.
void addNotes(Notes& notes, const FW::FWPROFILE& profile, const Target& target,
              const std::vector<std::size_t>& positions, Machine& machine);

/// Prints them: the first ones and how many more there are, since a rule put ahead of many can
/// shadow all of them. With "--json" all.
void printWarnings(const std::vector<std::string>& warnings, const Report& report);

/// Reads the profile, lets `change` alter the adapter's list, and stores it. An exception leaves
/// the profile unchanged.
void changeRules(Context& context, const Target& target,
                 const std::function<Outcome(FW::FWPROFILE&, Rules&)>& change);

}  // namespace tarnfw
