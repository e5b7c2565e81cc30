/// tarnfw rule: add, insert, set, move, delete, on, off; and tarnfw policy.
#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/logDenied.h"
#include "commands/ruleEditing.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleCompare.h"
#include "tarnfwadmin/ruleEffect.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/vocabulary.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

constexpr int kMaxPosition = 1'000'000;  // longer than any list

constexpr char kWordsHelp[] =
    "The words of a rule:\n"
    "  allow|deny [WHAT] [from|to ADDRESS]\n"
    "  WHAT     service NAME[,NAME...], tcp|udp|tcp/udp [PORT[,PORT...]], icmp, igmp,\n"
    "           or any, the default; tcp/22, 22/tcp and both 53 are read as well\n"
    "  ADDRESS  192.168.1.20, 192.168.1.0/24, 10.0.0.5-10.0.0.9, country CN,RU,\n"
    "           or anywhere, the default\n"
    "Examples:\n";

constexpr char kReservedHelp[] =
    "Reserved service rules stay at the head of an adapter's list and cannot be changed: a "
    "position before them counts as the first one after them.";

/// A command with the words of a rule.
struct RuleCommand {
    Target target;
    RuleOptions options;
    FamilyOptions family;
    Texts words;
    std::size_t position = 0;
    bool first = false;
};

FW::FWRULE ruleOf(const RuleCommand& command, Machine& machine) {
    return ruleFromWords(command.words, command.options, command.family,
                         machineVocabulary(machine));
}

// ---- A rule that is there already ----

/// The position of a rule that is the same as `rule`, of one that is on if there is one; 0 without.
/// To be the first one, the log of the denied does not count, which stays the last.
std::size_t positionOf(const FW::FWRULE& rule, const Rules& rules, bool first) {
    std::size_t found = 0;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const bool isMeant = isSameRule(rule, rules[i]) && !(first && isLogOfDenied(rules[i]));
        if (isMeant && (found == 0 || (rules[i].enable && !rules[found - 1].enable))) {
            found = i + 1;
        }
    }
    return found;
}

/// What "rule add" does with a rule that is there already.
struct Present {
    std::size_t position = 0;  ///< 0: it is not there
    std::size_t wanted = 0;    ///< where it goes: first with "--first"
    bool switchOn = false;

    bool changes() const { return wanted != position || switchOn; }
};

Present presentOf(const RuleCommand& command, const FW::FWRULE& rule, const Rules& rules) {
    Present present;
    present.position = positionOf(rule, rules, command.first);
    if (present.position > 0) {
        present.wanted = command.first ? reservedAtHead(rules) + 1 : present.position;
        present.switchOn = rule.enable && !rules[present.position - 1].enable;
    }
    return present;
}

/// "Rule 3 of eth0 is this rule already: ...", what is done with it, and what is different about
/// it.
std::string presentText(const Present& present, const FW::FWRULE& wanted, const FW::FWRULE& there,
                        const Target& target) {
    std::string text = "Rule " + std::to_string(present.position) + " of " + target.adapter +
                       " is this rule already";
    if (present.wanted != present.position) {
        text += "; moved to position " + std::to_string(present.wanted);
    }
    if (present.switchOn) {
        text += present.wanted != present.position ? " and switched on" : "; switched on";
    }
    text += ": " + ruleText(there);
    if (!wanted.name.empty() && wanted.name != there.name) {
        text += there.name.empty() ? "; it stays without a name" : "; its name stays";
    }
    if (!wanted.labelList.empty() && wanted.labelList != there.labelList) {
        text += "; its labels stay";
    }
    return text;
}

/// Says that the rule is there, as it is to be.
void keepAsItIs(Context& context, const Target& target, const FW::FWPROFILE& profile,
                std::size_t position, const std::string& text) {
    const Rules& rules = profile.rules.at(target.adapter);
    Notes notes;
    notes.ownOnly = true;
    addNotes(notes, profile, target, {position}, context.machine());
    std::cout << printable(text) << '\n';
    for (const std::string& line : notes.said) {
        std::cout << printable(line) << '\n';
    }
    target.reload.report->setProfile(profile.name);
    (*target.reload.report)["rules"].append(ruleDocument(rules, position, target));
    printWarnings(notes.warnings, *target.reload.report);
    finishUnchanged(context, profile, target.reload);
}

// ---- Commands ----

/// Adds the rule to the list; or moves it and switches it on, where it is there already.
Outcome addTo(Rules& rules, const RuleCommand& command, const FW::FWRULE& rule) {
    const Present present = presentOf(command, rule, rules);
    std::size_t position = command.first ? reservedAtHead(rules) + 1 : lastPositionForNew(rules);
    FW::FWRULE added = rule;
    if (present.position > 0) {
        position = present.wanted;
        added = rules[present.position - 1];
        added.enable = added.enable || present.switchOn;
        eraseAt(rules, present.position);
    }
    insertAt(rules, position, added);
    Outcome outcome = changedAt(rules, position, command.target);
    if (present.position > 0) {
        outcome.said = {presentText(present, rule, added, command.target)};
    }
    outcome.saysEffect = true;
    return outcome;
}

void add(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    const Target& target = command.target;
    const FW::FWPROFILE profile = context.store().profile(target.profile);
    const auto list = profile.rules.find(target.adapter);
    const Present present =
        list == profile.rules.end() ? Present() : presentOf(command, rule, list->second);
    if (present.position > 0 && !present.changes()) {
        keepAsItIs(context, target, profile, present.position,
                   presentText(present, rule, list->second[present.position - 1], target));
        return;
    }
    changeRules(context, target, [&](const FW::FWPROFILE& /*profile*/, Rules& rules) {
        return addTo(rules, command, rule);
    });
}

void insert(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    changeRules(context, command.target, [&](const FW::FWPROFILE& /*profile*/, Rules& rules) {
        const std::size_t position = freePosition(rules, command.position, command.target);
        insertAt(rules, position, rule);
        Outcome outcome = changedAt(rules, position, command.target);
        outcome.saysEffect = true;
        return outcome;
    });
}

void set(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    changeRules(context, command.target, [&](const FW::FWPROFILE& /*profile*/, Rules& rules) {
        requireOwn(rules, command.position, command.target);
        rules[command.position - 1] = rule;
        Outcome outcome = changedAt(rules, command.position, command.target);
        outcome.saysEffect = true;
        return outcome;
    });
}

void move(const Target& target, std::size_t from, std::size_t to) {
    Context context(StoreSession::Access::kChange);
    changeRules(context, target, [&](const FW::FWPROFILE& /*profile*/, Rules& rules) {
        requireOwn(rules, from, target);
        const FW::FWRULE rule = rules[from - 1];
        requirePosition(rules, to, target);
        eraseAt(rules, from);
        const std::size_t position =
            isLogOfDenied(rule) ? rules.size() + 1 : freePosition(rules, to, target);
        insertAt(rules, position, rule);
        return changedAt(rules, position, target);
    });
}

void remove(const Target& target, const RuleSelection& selection) {
    requireSelection(selection, /*wordsAllowed=*/true);
    Context context(StoreSession::Access::kChange);
    changeRules(context, target, [&](const FW::FWPROFILE& profile, Rules& rules) {
        Outcome outcome;
        const std::vector<std::size_t> ascending =
            selectedPositions(selection, profile, target, context.machine());
        for (const std::size_t position : ascending) {
            requireOwn(rules, position, target);
            outcome.said.push_back("Deleted " + placeText({target.adapter, position}) + ": " +
                                   ruleText(rules[position - 1]));
            outcome.rules.append(ruleDocument(rules, position, target));
        }
        // From the end, so that the other positions stay the same.
        std::for_each(ascending.rbegin(), ascending.rend(),
                      [&](std::size_t position) { eraseAt(rules, position); });
        return outcome;
    });
}

void switchRules(const Target& target, const RuleSelection& selection, bool on) {
    requireSelection(selection, /*wordsAllowed=*/false);
    Context context(StoreSession::Access::kChange);
    changeRules(context, target, [&](const FW::FWPROFILE& profile, Rules& rules) {
        Outcome outcome;
        for (const std::size_t position :
             selectedPositions(selection, profile, target, context.machine())) {
            if (on) {
                outcome.changed.push_back(position);
            } else {
                requireOwn(rules, position, target);
            }
            rules[position - 1].enable = on;
            outcome.said.push_back(placedText(rules, position, target));
            outcome.rules.append(ruleDocument(rules, position, target));
        }
        return outcome;
    });
}

/// The rules that deny and log what an adapter's default policy denies, as a deletion of them.
Outcome logToRemove(const FW::FWPROFILE& profile, const Target& target) {
    Outcome outcome;
    const auto list = profile.rules.find(target.adapter);
    if (list == profile.rules.end()) {
        return outcome;
    }
    for (const std::size_t position : positionsOfLogOfDenied(list->second)) {
        outcome.said.push_back("Deleted " + placeText({target.adapter, position}) +
                               ", which logged what the default policy denied: " +
                               ruleText(list->second[position - 1]));
        outcome.rules.append(ruleDocument(list->second, position, target));
    }
    return outcome;
}

void setPolicy(const Target& target, const std::string& word) {
    requireRoot();
    if (target.adapter == FW::FW_ADAPTER_GLOBAL) {
        throw Error(ErrorKind::kUnusable,
                    "\"global\" has no default policy, because the adapters' rules come after its "
                    "own; a last rule \"deny any\" decides for all adapters");
    }
    Context context(StoreSession::Access::kChange);
    const FW::FW_POLICY policy = word == "allow"  ? FW::FW_POLICY_ALLOW
                                 : word == "deny" ? FW::FW_POLICY_DENY
                                                  : FW::FW_POLICY_NONE;
    (*target.reload.report)["adapter"] = target.adapter;
    (*target.reload.report)["policy"] = policyText(policy);
    const FW::FWPROFILE before = context.store().profile(target.profile);
    const Outcome log = policy == FW::FW_POLICY_DENY ? Outcome() : logToRemove(before, target);
    (*target.reload.report)["rules"] = log.rules;
    const auto present = before.adapterPolicyMap.find(target.adapter);
    if (present != before.adapterPolicyMap.end() && present->second == policy && log.said.empty()) {
        std::cout << "Default policy of " << printable(target.adapter) << " is "
                  << policyText(policy) << " already\n";
        finishUnchanged(context, before, target.reload);
        return;
    }
    requireReloadable(context, target.reload, target.profile);
    const FW::FWPROFILE stored = changeProfile(
        context.session(), target.profile, target.adapter,
        [&](FW::FWPROFILE& profile) {
            profile.adapterPolicyMap[target.adapter] = policy;
            if (!log.said.empty()) {
                (void)removeLogOfDenied(profile.rules.at(target.adapter));
            }
        },
        [&](const FW::FWPROFILE& profile) { requireAppliable(context, profile, target.reload); });
    context.session().unlock();
    const std::string absence = context.machine().absenceOf(target.adapter);
    FW::FWPROFILE changed = onlyRules(stored, target.adapter, {});
    changed.adapterPolicyMap[target.adapter] = policy;
    finishChange(
        context, stored.name, target.reload,
        [&] {
            std::cout << "Default policy of " << printable(target.adapter) << ": "
                      << policyText(policy) << '\n';
            for (const std::string& line : log.said) {
                std::cout << printable(line) << '\n';
            }
            if (!absence.empty()) {
                warn(absence);
            }
        },
        changed);
}

// ---- Options ----

/// What rules and those that are to be found match besides their words.
void addMatchOptions(Command& command, FamilyOptions& family, RuleOptions& options,
                     const char* outHelp, const char* logHelp) {
    addFamilyOptions(command, family);
    command.flag("--source-port", options.sourcePort, "The ports are the sender's");
    command.flag("--out", options.out, outHelp);
    command.flag("--log", options.log, logHelp);
}

void addRuleOptions(Command& command, RuleCommand& values) {
    RuleOptions& options = values.options;
    addMatchOptions(command, values.family, options,
                    "For packets forwarded out through the adapter; packets that the machine "
                    "itself sends are not filtered",
                    "Also log matching packets");
    command.flag("--disabled", options.disabled, "Store the rule switched off");
    command.option("--name", options.name, "A name for the rule").placeholder("TEXT");
    command.option("--label", options.labels, "A label; may be given more than once")
        .placeholder("TEXT")
        .oneValueEach();
}

Option& addPosition(Command& command, const char* name, std::size_t& position, const char* help) {
    return command.option(name, position, help).placeholder("").required().range(1, kMaxPosition);
}

using RuleRun = void (*)(const RuleCommand&);

/// A command that takes a rule; with a position if `positionHelp` is given.
Command& addRuleWriter(Command& group, const char* name, const char* help, const char* positionHelp,
                       const std::string& examples, RuleRun run,
                       const std::shared_ptr<RuleCommand>& values) {
    Command& command = group.subcommand(name, help);
    if (positionHelp != nullptr) {
        addPosition(command, "POSITION", values->position, positionHelp);
    }
    command.option("WORDS", values->words, "The rule; see below").placeholder("");
    addTarget(command, values->target);
    addRuleOptions(command, *values);
    command.footer(kWordsHelp + examples);
    runReporting(command, *values->target.reload.report, [values, run] { run(*values); });
    return command;
}

void addMove(Command& group) {
    struct Values {
        Target target;
        std::size_t from = 0;
        std::size_t to = 0;
    };
    Command& command = group.subcommand("move", "Move a rule to another position");
    const auto values = std::make_shared<Values>();
    addPosition(command, "FROM", values->from, "Its present position");
    addPosition(command, "TO", values->to, "Its new position");
    addTarget(command, values->target);
    command.footer(std::string("Example: tarnfw rule move 4 1 --adapter eth0\n") + kReservedHelp +
                   "\nThe rule \"log denied\" stays the last one.");
    runReporting(command, *values->target.reload.report,
                 [values] { move(values->target, values->from, values->to); });
}

struct SelectingCommand {
    Target target;
    RuleSelection selection;
};

using SelectionRun = std::function<void(const Target&, const RuleSelection&)>;

/// A command for rules that are there, by position or name.
Command& addForRules(Command& group, const char* name, const char* help, const char* words,
                     const char* wordsHelp, const std::shared_ptr<SelectingCommand>& values,
                     const SelectionRun& run) {
    Command& command = group.subcommand(name, help);
    command.option(words, values->selection.words, wordsHelp).placeholder("");
    command.option("--name", values->selection.options.name, "The rules of this name")
        .placeholder("TEXT");
    addTarget(command, values->target);
    runReporting(command, *values->target.reload.report,
                 [values, run] { run(values->target, values->selection); });
    return command;
}

void addDelete(Command& group) {
    const auto values = std::make_shared<SelectingCommand>();
    Command& command =
        addForRules(group, "delete", "Delete rules", "WORDS",
                    "Positions, or the words of a rule; every rule that is this one is deleted",
                    values, remove);
    addMatchOptions(command, values->selection.family, values->selection.options,
                    "With words: the rule is for packets forwarded out through the adapter",
                    "With words: the rule logs matching packets");
    command.flag("--disabled", values->selection.options.disabled,
                 "With words: only if it is switched off");
    command.footer(
        "Positions are those before the first deletion, as \"profile show\" prints them.\n"
        "Examples:\n"
        "  tarnfw rule delete 2-4,7 --adapter eth0\n"
        "  tarnfw rule delete allow tcp 8080\n"
        "  tarnfw rule delete --name office --adapter eth0");
}

void addSwitch(Command& group, const char* name, const char* help, bool on) {
    addForRules(group, name, help, "POSITION", "Positions, as \"profile show\" prints them: 2-4,7",
                std::make_shared<SelectingCommand>(),
                [on](const Target& target, const RuleSelection& selection) {
                    switchRules(target, selection, on);
                })
        .footer(std::string("Example: tarnfw rule ") + name + " 2-4,7 --adapter eth0");
}

void addPolicyCommand(Command& app) {
    struct Values {
        Target target;
        std::string policy;
    };
    Command& command = app.subcommand(
        "policy", "Set the default policy of an adapter, for packets that no rule matches");
    const auto values = std::make_shared<Values>();
    command.option("ADAPTER", values->target.adapter, "The adapter")
        .placeholder("")
        .required()
        .check(adapterNameError);
    command.option("POLICY", values->policy, "allow, deny or none")
        .placeholder("")
        .required()
        .choices({"allow", "deny", "none"});
    command.option("--profile", values->target.profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, values->target.reload);
    command.footer("Example: tarnfw policy eth0 deny");
    runReporting(command, *values->target.reload.report,
                 [values] { setPolicy(values->target, values->policy); });
}

}  // namespace

void addRuleCommands(Command& app) {
    Command& rule = app.subcommand("rule", "Change the rules of a profile");
    rule.footer(kReservedHelp);
    const auto added = std::make_shared<RuleCommand>();
    addRuleWriter(
        rule, "add", "Add a rule after the adapter's others", nullptr,
        "  tarnfw rule add allow tcp 8080\n"
        "  tarnfw rule add --adapter eth0 allow tcp 22,80,6000-6010 from 192.168.1.0/24\n"
        "  tarnfw rule add --adapter eth0 allow service smb from 10.0.0.5-10.0.0.9\n"
        "  tarnfw rule add deny from country CN,RU --log --name abroad --first\n"
        "A rule that is there already is not added again. If it is off, it is switched on, "
        "unless --disabled is given; --first moves it.",
        add, added)
        .flag("--first", added->first, "Before the adapter's others");
    addRuleWriter(rule, "insert", "Insert a rule at a position, before the rule that is there now",
                  "Its position, from 1",
                  std::string("  tarnfw rule insert 1 --adapter eth0 deny from 203.0.113.9\n") +
                      kReservedHelp,
                  insert, std::make_shared<RuleCommand>());
    addRuleWriter(rule, "set", "Replace a rule with a new one",
                  "The position of the rule to replace",
                  "  tarnfw rule set 3 --adapter eth0 allow udp 53 from 10.0.0.0/8", set,
                  std::make_shared<RuleCommand>());
    addMove(rule);
    addDelete(rule);
    addSwitch(rule, "on", "Switch rules on", true);
    addSwitch(rule, "off", "Switch rules off; they stay in the profile", false);
    addPolicyCommand(app);
}

}  // namespace tarnfw
