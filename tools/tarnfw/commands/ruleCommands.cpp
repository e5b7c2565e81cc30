/// tarnfw rule: add, insert, set, move, delete, on, off; and tarnfw policy.
#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleSyntax.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/vocabulary.h"

namespace tarnfw {
namespace {

using Rules = std::vector<FW::FWRULE>;
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

/// The list that a command changes.
struct Target {
    std::string adapter;
    std::string profile;  ///< empty: the active one
    ReloadOptions reload;
};

/// A command with the words of a rule.
struct RuleCommand {
    Target target;
    RuleOptions options;
    FamilyOptions family;
    Texts words;
    std::size_t position = 0;
};

// ---- Reserved rules ----

/// How many rules at the head of the list are reserved.
std::size_t reservedAtHead(const Rules& rules) {
    return static_cast<std::size_t>(std::distance(
        rules.begin(), std::find_if_not(rules.begin(), rules.end(), FW::fwRuleIsReserved)));
}

// ---- Positions, as a person counts them: from 1 ----

void requirePosition(const Rules& rules, std::size_t position, const Target& target) {
    if (position < 1 || position > rules.size()) {
        throw Error(ErrorKind::kNotFound, "there is no rule " + std::to_string(position) + ": " +
                                              printable(target.adapter) + " has " +
                                              counted(rules.size(), "rule"));
    }
}

/// Throws Error for a reserved rule.
void requireOwn(const Rules& rules, std::size_t position, const Target& target) {
    requirePosition(rules, position, target);
    if (FW::fwRuleIsReserved(rules[position - 1])) {
        throw Error(
            ErrorKind::kUnusable,
            "rule " + std::to_string(position) + " of " + printable(target.adapter) +
                " is a reserved service rule; \"tarnfw service release\" removes a service");
    }
}

/// The index for a rule that is to be at `position` of `rules`.
std::size_t freePosition(const Rules& rules, std::size_t position, const Target& target) {
    if (position < 1 || position > rules.size() + 1) {
        throw Error(ErrorKind::kNotFound, "there is no position " + std::to_string(position) +
                                              ": " + printable(target.adapter) + " has " +
                                              counted(rules.size(), "rule"));
    }
    return std::max(position, reservedAtHead(rules) + 1);
}

void insertAt(Rules& rules, std::size_t position, const FW::FWRULE& rule) {
    rules.insert(std::next(rules.begin(), static_cast<std::ptrdiff_t>(position - 1)), rule);
}

void eraseAt(Rules& rules, std::size_t position) {
    rules.erase(std::next(rules.begin(), static_cast<std::ptrdiff_t>(position - 1)));
}

// ---- Changing a list ----

/// The rule in words, with its place.
std::string standing(const Rules& rules, std::size_t position, const Target& target) {
    return std::string("Rule ")
        .append(std::to_string(position))
        .append(" of ")
        .append(target.adapter)
        .append(": ")
        .append(ruleText(rules[position - 1]));
}

/// The result of a change.
struct Outcome {
    Texts said;                             ///< what to print when it is stored
    std::vector<std::size_t> changed = {};  ///< positions of rules that are new or were switched on
};

Outcome changedAt(const Rules& rules, std::size_t position, const Target& target) {
    return {{standing(rules, position, target)}, {position}};
}

/// What there is to say about the changed rules. Refuses invalid ones.
Texts warningsOf(const FW::FWPROFILE& profile, const std::string& adapter,
                 const std::vector<std::size_t>& positions, Machine& machine) {
    std::vector<RulePlace> places;
    places.reserve(positions.size());
    for (const std::size_t position : positions) {
        places.push_back({adapter, position});
    }
    Texts warnings;
    if (places.empty()) {
        return warnings;
    }
    for (const Finding& finding : ruleFindings(profile, places, machine)) {
        if (finding.isError) {
            throw Error(ErrorKind::kInvalid, textOf(finding), {"", finding.path, finding.rule});
        }
        warnings.push_back(textOf(finding));
    }
    return warnings;
}

/// A rule put ahead of many can shadow all of them.
void print(const Texts& warnings) {
    constexpr std::size_t kMost = 3;
    for (std::size_t i = 0; i < std::min(warnings.size(), kMost); ++i) {
        warn(warnings[i]);
    }
    if (warnings.size() > kMost) {
        warn("and " + counted(warnings.size() - kMost, "more warning"));
    }
}

/// Reads the profile, lets `change` alter the adapter's list, and stores it. An exception
/// leaves the profile unchanged.
void changeRules(Context& context, const Target& target,
                 const std::function<Outcome(Rules&)>& change) {
    requireReloadable(context, target.reload);
    Outcome outcome;
    Texts warnings;
    const FW::FWPROFILE stored = changeProfile(
        context.session(), target.profile, target.adapter,
        [&](FW::FWPROFILE& profile) { outcome = change(profile.rules[target.adapter]); },
        [&](const FW::FWPROFILE& profile) {
            warnings = warningsOf(profile, target.adapter, outcome.changed, context.machine());
            requireAppliable(context, profile, target.reload);
        });
    context.session().unlock();
    finishChange(
        context, stored.name, target.reload,
        [&] {
            for (const std::string& line : outcome.said) {
                std::cout << printable(line) << '\n';
            }
            print(warnings);
        },
        onlyRules(stored, target.adapter, outcome.changed));
}

FW::FWRULE ruleOf(const RuleCommand& command, Machine& machine) {
    const RuleVocabulary known = machineVocabulary(machine);
    RuleOptions options = command.options;
    options.v4 = command.family.onlyV4();
    options.v6 = command.family.onlyV6();
    try {
        return ruleFrom(command.words, options, known);
    } catch (const Error& error) {
        if (error.kind() == ErrorKind::kInvalid) {
            throw UsageError(messageOf(error));  // wrong words are wrong usage
        }
        throw;
    }
}

// ---- Commands ----

void add(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    changeRules(context, command.target, [&](Rules& rules) {
        rules.push_back(rule);
        return changedAt(rules, rules.size(), command.target);
    });
}

void insert(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    changeRules(context, command.target, [&](Rules& rules) {
        const std::size_t position = freePosition(rules, command.position, command.target);
        insertAt(rules, position, rule);
        return changedAt(rules, position, command.target);
    });
}

void set(const RuleCommand& command) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const FW::FWRULE rule = ruleOf(command, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    changeRules(context, command.target, [&](Rules& rules) {
        requireOwn(rules, command.position, command.target);
        rules[command.position - 1] = rule;
        return changedAt(rules, command.position, command.target);
    });
}

void move(const Target& target, std::size_t from, std::size_t to) {
    Context context(StoreSession::Access::kChange);
    changeRules(context, target, [&](Rules& rules) {
        requireOwn(rules, from, target);
        const FW::FWRULE rule = rules[from - 1];
        requirePosition(rules, to, target);
        eraseAt(rules, from);
        const std::size_t position = freePosition(rules, to, target);
        insertAt(rules, position, rule);
        return changedAt(rules, position, target);
    });
}

void remove(const Target& target, const std::vector<std::size_t>& positions) {
    Context context(StoreSession::Access::kChange);
    const std::set<std::size_t> ascending(positions.begin(), positions.end());
    changeRules(context, target, [&](Rules& rules) {
        Outcome outcome;
        for (const std::size_t position : ascending) {
            requireOwn(rules, position, target);
            outcome.said.push_back(
                std::string("Deleted: ").append(standing(rules, position, target)));
        }
        // From the end, so that the other positions stay the same.
        std::for_each(ascending.rbegin(), ascending.rend(),
                      [&](std::size_t position) { eraseAt(rules, position); });
        return outcome;
    });
}

void switchRules(const Target& target, const std::vector<std::size_t>& positions, bool on) {
    Context context(StoreSession::Access::kChange);
    const std::set<std::size_t> ascending(positions.begin(), positions.end());
    changeRules(context, target, [&](Rules& rules) {
        Outcome outcome;
        for (const std::size_t position : ascending) {
            if (on) {
                requirePosition(rules, position, target);
                outcome.changed.push_back(position);
            } else {
                requireOwn(rules, position, target);
            }
            rules[position - 1].enable = on;
            outcome.said.push_back(standing(rules, position, target));
        }
        return outcome;
    });
}

void setPolicy(const Target& target, const std::string& word) {
    requireRoot();
    if (target.adapter == FW::FW_ADAPTER_GLOBAL) {
        throw Error(ErrorKind::kUnusable,
                    "\"global\" has no default policy, because the adapters' rules come after its "
                    "own; a last rule \"deny any\" decides for all adapters");
    }
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, target.reload);
    const FW::FW_POLICY policy = word == "allow"  ? FW::FW_POLICY_ALLOW
                                 : word == "deny" ? FW::FW_POLICY_DENY
                                                  : FW::FW_POLICY_NONE;
    const FW::FWPROFILE stored = changeProfile(
        context.session(), target.profile, target.adapter,
        [&](FW::FWPROFILE& profile) { profile.adapterPolicyMap[target.adapter] = policy; },
        [&](const FW::FWPROFILE& profile) { requireAppliable(context, profile, target.reload); });
    context.session().unlock();
    FW::FWPROFILE changed = onlyRules(stored, target.adapter, {});
    changed.adapterPolicyMap[target.adapter] = policy;
    finishChange(
        context, stored.name, target.reload,
        [&] {
            std::cout << "Default policy of " << printable(target.adapter) << ": "
                      << policyText(policy) << '\n';
        },
        changed);
}

// ---- Options ----

void addTarget(Command& command, Target& target) {
    command
        .option("--adapter", target.adapter,
                "The adapter: an interface, or \"global\", \"pppoe\", "
                "\"vpn\"")
        .placeholder("NAME")
        .required();
    command.option("--profile", target.profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, target.reload);
}

void addRuleOptions(Command& command, RuleCommand& values) {
    RuleOptions& options = values.options;
    addFamilyOptions(command, values.family);
    command.flag("--source-port", options.sourcePort, "The ports are the sender's");
    command.flag("--out", options.out,
                 "For packets forwarded out through the adapter; packets that the machine itself "
                 "sends are not filtered");
    command.flag("--log", options.log, "Also log matching packets");
    command.flag("--disabled", options.disabled, "Store the rule switched off");
    command.option("--name", options.name, "A name for the rule").placeholder("TEXT");
    command.option("--label", options.labels, "A label; may be given more than once")
        .placeholder("TEXT")
        .oneValueEach();
}

Option& addPosition(Command& command, const char* name, std::size_t& position, const char* help) {
    return command.option(name, position, help).placeholder("").required().range(0, kMaxPosition);
}

using RuleRun = void (*)(const RuleCommand&);

/// A command that takes a rule; with a position if `positionHelp` is given.
void addRuleWriter(Command& group, const char* name, const char* help, const char* positionHelp,
                   const std::string& examples, RuleRun run) {
    Command& command = group.subcommand(name, help);
    const auto values = std::make_shared<RuleCommand>();
    if (positionHelp != nullptr) {
        addPosition(command, "POSITION", values->position, positionHelp);
    }
    command.option("WORDS", values->words, "The rule; see below").placeholder("");
    addTarget(command, values->target);
    addRuleOptions(command, *values);
    command.footer(kWordsHelp + examples);
    command.run([values, run] { run(*values); });
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
    command.footer(kReservedHelp);
    command.run([values] { move(values->target, values->from, values->to); });
}

using PositionsRun = std::function<void(const Target&, const std::vector<std::size_t>&)>;

void addForPositions(Command& group, const char* name, const char* help, const PositionsRun& run) {
    struct Values {
        Target target;
        std::vector<std::size_t> positions;
    };
    Command& command = group.subcommand(name, help);
    const auto values = std::make_shared<Values>();
    command.option("POSITION", values->positions, "Positions, as \"profile show\" prints them")
        .placeholder("")
        .required()
        .range(0, kMaxPosition);
    addTarget(command, values->target);
    command.run([values, run] { run(values->target, values->positions); });
}

void addPolicyCommand(Command& app) {
    struct Values {
        Target target;
        std::string policy;
    };
    Command& command = app.subcommand(
        "policy", "Set the default policy of an adapter, for packets that no rule matches");
    const auto values = std::make_shared<Values>();
    command.option("ADAPTER", values->target.adapter, "The adapter").placeholder("").required();
    command.option("POLICY", values->policy, "allow, deny or none")
        .placeholder("")
        .required()
        .choices({"allow", "deny", "none"});
    command.option("--profile", values->target.profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, values->target.reload);
    command.footer("Example: tarnfw policy eth0 deny");
    command.run([values] { setPolicy(values->target, values->policy); });
}

}  // namespace

void addRuleCommands(Command& app) {
    Command& rule = app.subcommand("rule", "Change the rules of a profile");
    rule.footer(kReservedHelp);
    addRuleWriter(rule, "add", "Add a rule after the adapter's others", nullptr,
                  "  tarnfw rule add --adapter eth0 allow tcp 22,80,6000-6010 from 192.168.1.0/24\n"
                  "  tarnfw rule add --adapter eth0 allow service smb from 10.0.0.5-10.0.0.9\n"
                  "  tarnfw rule add --adapter global deny from country CN,RU --log --name abroad",
                  add);
    addRuleWriter(rule, "insert", "Insert a rule at a position, before the rule that is there now",
                  "Its position, from 1",
                  std::string("  tarnfw rule insert 1 --adapter eth0 deny from 203.0.113.9\n") +
                      kReservedHelp,
                  insert);
    addRuleWriter(rule, "set", "Replace a rule with a new one",
                  "The position of the rule to replace",
                  "  tarnfw rule set 3 --adapter eth0 allow udp 53 from 10.0.0.0/8", set);
    addMove(rule);
    addForPositions(rule, "delete",
                    "Delete rules; the positions are those before the first deletion", remove);
    addForPositions(rule, "on", "Switch rules on",
                    [](const Target& target, const std::vector<std::size_t>& positions) {
                        switchRules(target, positions, true);
                    });
    addForPositions(rule, "off", "Switch rules off; they stay in the profile",
                    [](const Target& target, const std::vector<std::size_t>& positions) {
                        switchRules(target, positions, false);
                    });
    addPolicyCommand(app);
}

}  // namespace tarnfw
