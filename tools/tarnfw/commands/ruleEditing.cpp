#include "commands/ruleEditing.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarnfirewall/tarnFW.h"

#include "cli/output.h"
#include "commands/logDenied.h"
#include "tarnfwadmin/meaningChange.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleCompare.h"
#include "tarnfwadmin/ruleEffect.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/vocabulary.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t kMostNamed = 4;  // rules

/// "eth0, which has 4 rules".
std::string listText(const Rules& rules, const Target& target) {
    return printable(target.adapter) + ", which has " + counted(rules.size(), "rule");
}

[[noreturn]] void notFound(const std::string& text) {
    throw Error(ErrorKind::kNotFound, text);
}

}  // namespace

void addTarget(Command& command, Target& target) {
    command
        .option("--adapter", target.adapter,
                "The adapter: an interface, or \"global\", \"pppoe\", \"vpn\"; by default global, "
                "whose rules are for every adapter")
        .placeholder("NAME")
        .check(adapterNameError);
    command.option("--profile", target.profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, target.reload);
}

namespace {

/// " --profile home", or nothing for the active profile.
std::string profileOption(const Target& target) {
    return target.profile.empty() ? "" : " --profile " + shellWord(target.profile);
}

}  // namespace

std::string optionsText(const Target& target) {
    return (target.adapter == FW::FW_ADAPTER_GLOBAL ? ""
                                                    : " --adapter " + shellWord(target.adapter)) +
           profileOption(target);
}

// ---- Positions ----------------------------------------------------------------------------------

void requirePosition(const Rules& rules, std::size_t position, const Target& target) {
    if (position < 1 || position > rules.size()) {
        const std::optional<RulePlace> place =
            position > 0 ? std::optional(RulePlace{target.adapter, position}) : std::nullopt;
        throw Error(
            ErrorKind::kNotFound,
            "there is no rule " + std::to_string(position) + " of " + listText(rules, target),
            {"", "", place});
    }
}

void requireOwn(const Rules& rules, std::size_t position, const Target& target) {
    requirePosition(rules, position, target);
    if (FW::fwRuleIsReserved(rules[position - 1])) {
        const RulePlace place{target.adapter, position};
        throw Error(ErrorKind::kUnusable,
                    placeText(place) +
                        " is a reserved service rule; \"tarnfw service release\" "
                        "removes a service",
                    {"", "", place});
    }
}

std::size_t freePosition(const Rules& rules, std::size_t position, const Target& target) {
    if (position < 1 || position > rules.size() + 1) {
        notFound("there is no position " + std::to_string(position) + " in the list of " +
                 listText(rules, target));
    }
    return std::max(std::min(position, lastPositionForNew(rules)), reservedAtHead(rules) + 1);
}

void insertAt(Rules& rules, std::size_t position, const FW::FWRULE& rule) {
    rules.insert(std::next(rules.begin(), static_cast<std::ptrdiff_t>(position - 1)), rule);
}

void eraseAt(Rules& rules, std::size_t position) {
    rules.erase(std::next(rules.begin(), static_cast<std::ptrdiff_t>(position - 1)));
}

// ---- Which rules are meant ----------------------------------------------------------------------

namespace {

constexpr std::size_t kMostDigits = 7;  // longer than any list

struct PositionRange {
    std::size_t first = 0;
    std::size_t last = 0;
};

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() <= kMostDigits &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// "2-4" or "7"; nothing for any other text.
std::optional<PositionRange> rangeFrom(const std::string& text) {
    const std::size_t dash = text.find('-');
    const std::string first = text.substr(0, dash);
    const std::string last = dash == std::string::npos ? first : text.substr(dash + 1);
    if (!isNumber(first) || !isNumber(last)) {
        return std::nullopt;
    }
    const PositionRange range{std::stoul(first), std::stoul(last)};
    if (range.last < range.first) {
        throw UsageError("the range of positions " + inQuotes(text) + " runs backwards");
    }
    return range;
}

/// Nothing for words that are no positions.
std::optional<std::vector<PositionRange>> rangesFrom(const Texts& words) {
    std::vector<PositionRange> ranges;
    for (const std::string& word : words) {
        Texts parts;
        boost::split(parts, word, boost::is_any_of(", "), boost::token_compress_on);
        for (const std::string& part : parts) {
            const std::optional<PositionRange> range = rangeFrom(part);
            if (!range) {
                return std::nullopt;
            }
            ranges.push_back(*range);
        }
    }
    return ranges;
}

std::vector<std::size_t> positionsIn(const std::vector<PositionRange>& ranges, const Rules& rules,
                                     const Target& target) {
    std::set<std::size_t> positions;
    for (const PositionRange& range : ranges) {
        requirePosition(rules, range.first, target);
        requirePosition(rules, std::min(range.last, rules.size() + 1), target);
        for (std::size_t position = range.first; position <= range.last; ++position) {
            positions.insert(position);
        }
    }
    return {positions.begin(), positions.end()};
}

template <typename Fits>
std::vector<std::size_t> positionsWhere(const Rules& rules, const Fits& fits) {
    std::vector<std::size_t> positions;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        if (fits(rules[i])) {
            positions.push_back(i + 1);
        }
    }
    return positions;
}

/// ", but rule 3 of eth0 is (--adapter eth0)"; empty when no other list has it.
template <typename Fits>
std::string elsewhere(const FW::FWPROFILE& profile, const Target& target, const char* is,
                      const Fits& fits) {
    for (const auto& [adapter, rules] : profile.rules) {
        const std::vector<std::size_t> found = positionsWhere(rules, fits);
        if (adapter != target.adapter && !found.empty()) {
            return ", but " + placeText({adapter, found.front()}) + is + " (--adapter " +
                   printable(shellWord(adapter)) + ")";
        }
    }
    return "";
}

std::vector<std::size_t> positionsNamed(const std::string& name, const Rules& rules,
                                        const FW::FWPROFILE& profile, const Target& target) {
    const auto fits = [&](const FW::FWRULE& rule) { return rule.name == name; };
    std::vector<std::size_t> found = positionsWhere(rules, fits);
    if (found.empty()) {
        Texts names;
        for (const FW::FWRULE& rule : rules) {
            names.push_back(rule.name);
        }
        const std::string other = elsewhere(profile, target, " is", fits);
        notFound("no rule of " + printable(target.adapter) + " is named " + inQuotes(name) +
                 (other.empty() ? didYouMean(nearest(name, names)) : other));
    }
    return found;
}

/// Reserved services have no words of their own, so those of a service rule mean them as well.
FW::FWRULE asWords(FW::FWRULE rule) {
    if (rule.portGroup == FW::FW_PORT_GROUP_RESERVED) {
        rule.portGroup = FW::FW_PORT_GROUP_SERVICES;
    }
    return rule;
}

bool isVerdict(const std::string& word) {
    return word == "allow" || word == "deny";
}

/// Whether two texts of rules have the same words but one, which is similar, or the verdict.
bool differInOneWord(const std::string& one, const std::string& other) {
    Texts words;
    Texts others;
    boost::split(words, one, boost::is_any_of(" "));
    boost::split(others, other, boost::is_any_of(" "));
    if (words.size() != others.size()) {
        return false;
    }
    const auto first = std::mismatch(words.begin(), words.end(), others.begin());
    return first.first != words.end() &&
           std::equal(std::next(first.first), words.end(), std::next(first.second)) &&
           (isVerdict(*first.first) ? isVerdict(*first.second)
                                    : !nearest(*first.first, {*first.second}).empty());
}

/// "; the nearest is rule 3: allow tcp 23 from anywhere", or how to list the rules. Near is one for
/// the same ports, or with one other word.
std::string nearestText(const FW::FWRULE& wanted, const Rules& rules, const Target& target) {
    const std::string text = ruleText(wanted);
    const std::string ports = portText(wanted);
    std::size_t position = 0;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const bool one = differInOneWord(text, ruleText(rules[i]));
        const bool same = wanted.portGroup != FW::FW_PORT_GROUP_ANY && portText(rules[i]) == ports;
        if ((one && same) || ((one || same) && position == 0)) {
            position = i + 1;
        }
        if (one && same) {
            break;
        }
    }
    if (position == 0) {
        return "; \"tarnfw profile show" +
               (target.profile.empty() ? "" : " " + printable(shellWord(target.profile))) +
               "\" lists the rules";
    }
    return "; the nearest is rule " + std::to_string(position) + ": " +
           ruleText(rules[position - 1]);
}

std::vector<std::size_t> positionsOf(const FW::FWRULE& wanted, const Rules& rules,
                                     const FW::FWPROFILE& profile, const Target& target) {
    const auto fits = [&](const FW::FWRULE& rule) {
        return isSameRule(wanted, rule) && (wanted.name.empty() || wanted.name == rule.name) &&
               (wanted.enable || !rule.enable);
    };
    std::vector<std::size_t> found = positionsWhere(rules, fits);
    if (found.empty()) {
        found = positionsWhere(rules, [&](const FW::FWRULE& rule) { return fits(asWords(rule)); });
    }
    if (found.empty()) {
        const std::string other = elsewhere(profile, target, " is this rule", fits);
        notFound("no rule of " + printable(target.adapter) + " is " + inQuotes(ruleText(wanted)) +
                 (other.empty() ? nearestText(wanted, rules, target) : other));
    }
    return found;
}

/// With the services of the profile: those that have left the catalogue can be named, too.
RuleVocabulary vocabularyFor(const FW::FWPROFILE& profile, Machine& machine) {
    RuleVocabulary known = machineVocabulary(machine);
    for (const auto& [adapter, rules] : profile.rules) {
        for (const FW::FWRULE& rule : rules) {
            for (const std::string& name :
                 FW::fwRuleNamesServices(rule) ? rule.portList : Texts()) {
                known.services.emplace(name, rule.protocol);
            }
        }
    }
    return known;
}

}  // namespace

void requireSelection(const RuleSelection& selection, bool wordsAllowed) {
    if (selection.words.empty() && selection.options.name.empty()) {
        throw UsageError(wordsAllowed ? "expected positions (2-4,7), the words of a rule, or --name"
                                      : "expected positions (2-4,7) or --name");
    }
    const bool positions = !selection.words.empty() && rangesFrom(selection.words);
    if (positions && !selection.options.name.empty()) {
        throw UsageError("positions and --name exclude each other");
    }
    if (!positions && !wordsAllowed && !selection.words.empty()) {
        throw UsageError(inQuotes(boost::join(selection.words, " ")) +
                         " is no position and no range of positions (2-4,7)");
    }
}

std::vector<std::size_t> selectedPositions(const RuleSelection& selection,
                                           const FW::FWPROFILE& profile, const Target& target,
                                           Machine& machine) {
    const auto list = profile.rules.find(target.adapter);
    const Rules rules = list == profile.rules.end() ? Rules() : list->second;
    if (selection.words.empty()) {
        return positionsNamed(selection.options.name, rules, profile, target);
    }
    if (const auto ranges = rangesFrom(selection.words)) {
        return positionsIn(*ranges, rules, target);
    }
    return positionsOf(ruleFromWords(selection.words, selection.options, selection.family,
                                     vocabularyFor(profile, machine)),
                       rules, profile, target);
}

FW::FWRULE ruleFromWords(const std::vector<std::string>& words, RuleOptions options,
                         const FamilyOptions& family, const RuleVocabulary& known) {
    options.v4 = family.onlyV4();
    options.v6 = family.onlyV6();
    try {
        return ruleFrom(words, options, known);
    } catch (const Error& error) {
        if (error.kind() == ErrorKind::kInvalid) {
            throw UsageError(messageOf(error));  // wrong words are wrong usage
        }
        throw;
    }
}

// ---- Changing a list ----------------------------------------------------------------------------

std::string placedText(const Rules& rules, std::size_t position, const Target& target) {
    return "Rule " + std::to_string(position) + " of " + target.adapter + ": " +
           ruleText(rules[position - 1]);
}

Json::Value ruleDocument(const Rules& rules, std::size_t position, const Target& target) {
    Json::Value document;
    document["adapter"] = target.adapter;
    document["position"] = static_cast<Json::UInt64>(position);
    document["text"] = ruleText(rules[position - 1]);
    return document;
}

Outcome changedAt(const Rules& rules, std::size_t position, const Target& target) {
    Outcome outcome{{placedText(rules, position, target)}, {position}};
    outcome.rules.append(ruleDocument(rules, position, target));
    return outcome;
}

namespace {

/// Where a rule would take effect that never does at its place, because of `shadowedBy`.
std::string offerFor(const FW::FWPROFILE& profile, const RulePlace& place,
                     const std::vector<RulePlace>& shadowedBy, const Target& target) {
    const std::optional<RulePlace> better = effectivePlace(profile, place, shadowedBy);
    if (!better) {
        const bool reserved =
            std::any_of(shadowedBy.begin(), shadowedBy.end(), [&](const RulePlace& by) {
                const auto list = profile.rules.find(by.adapter);
                return list != profile.rules.end() && by.position <= reservedAtHead(list->second);
            });
        return reserved ? "; reserved service rules stay before it" : "";
    }
    const std::string position = std::to_string(better->position);
    if (better->adapter == place.adapter) {
        return "; at position " + position + " it does (\"tarnfw rule move " +
               std::to_string(place.position) + " " + position + optionsText(target) + "\")";
    }
    Target global = target;
    global.adapter = better->adapter;
    return "; rules of global come before those of " + place.adapter +
           ", so only there it does, for every adapter: tarnfw rule insert " + position + " " +
           shellWord(ruleText(profile.rules.at(place.adapter)[place.position - 1])) +
           optionsText(global);
}

/// "rule 3 of global allows this already"; empty where one of the earlier rules does otherwise, or
/// does not log what the later one would.
std::string sameAsText(const FW::FWPROFILE& profile, const std::vector<RulePlace>& earlier,
                       const RulePlace& later, bool namesLater) {
    const FW::FWRULE& rule = profile.rules.at(later.adapter).at(later.position - 1);
    std::vector<FW::FWPLACE> places;
    for (const RulePlace& place : earlier) {
        if (place.position == 0) {
            return "";
        }
        const FW::FWRULE& first = profile.rules.at(place.adapter).at(place.position - 1);
        if (first.policy != rule.policy || (rule.blLog && !first.blLog)) {
            return "";
        }
        places.push_back({FW::FW_ORIGIN_RULE, place.adapter, static_cast<int>(place.position)});
    }
    const std::string one = rule.policy == FW::FW_POLICY_DENY ? " denies" : " allows";
    const std::string some = rule.policy == FW::FW_POLICY_DENY ? " deny" : " allow";
    return placesText(places, kMostNamed) + (places.size() == 1 ? one : some) +
           (namesLater ? " already what " + placeText(later) + one : std::string(" this already"));
}

/// The meaning of a profile before and after a change of its rules.
struct MeantChange {
    Meaning before;
    Meaning after;
};

MeantChange meantChange(const FW::FWPROFILE& before, const FW::FWPROFILE& after, Machine& machine) {
    const FW::FWENVIRONMENT environment = environmentOf({before, after}, machine);
    return {Meaning(before, environment), Meaning(after, environment)};
}

/// "Already open in profile "home": tcp 22 on eth0, for everybody". Empty for a rule that decides
/// about no packet, or for an adapter without an interface now: there nothing is open.
std::string alreadyText(Context& context, const Meaning& meaning, const RulePlace& place,
                        const Target& target) {
    const bool isAbsent =
        place.adapter != FW::FW_ADAPTER_GLOBAL && !context.machine().hasAdapter(place.adapter);
    const std::string text = isAbsent ? "" : decidedText(meaning, place);
    const FW::FWPROFILE& profile = meaning.profile();
    const bool denies =
        profile.rules.at(place.adapter)[place.position - 1].policy == FW::FW_POLICY_DENY;
    const StoreSnapshot& store = context.store();
    // Without the firewall everything is open.
    const bool holdsNow = profile.name == store.activeProfile() &&
                          (store.firewallEnabled() ? context.applies(target.reload) : !denies);
    return text.empty()
               ? text
               : std::string(denies ? "Already closed" : "Already open") +
                     (holdsNow ? "" : " in profile " + inQuotes(profile.name)) + ": " + text;
}

/// "wg0 has the default policy "allow": ..." for a new rule that allows some of what that leaves
/// open; else empty.
std::string openAdapterText(const Meaning& meaning, const RulePlace& place, const Target& target) {
    const FW::FWPROFILE& profile = meaning.profile();
    const FW::FWRULE& rule = profile.rules.at(place.adapter)[place.position - 1];
    const bool allowsAll = rule.portGroup == FW::FW_PORT_GROUP_ANY &&
                           rule.ipGroup == FW::FW_IP_GROUP_ANY &&
                           rule.ipType == FW::FW_IP_TYPE_BOTH;
    if (rule.policy != FW::FW_POLICY_ALLOW || allowsAll || !hasLines(meaning, place)) {
        return "";
    }
    const OpenByPolicy open = openByPolicy(meaning, place.adapter);
    if (open == OpenByPolicy::kNothing) {
        return "";
    }
    const auto policy = profile.adapterPolicyMap.find(place.adapter);
    const std::string adapter = printable(place.adapter);
    return adapter + " has the default policy " +
           inQuotes(policyText(policy == profile.adapterPolicyMap.end() ? FW::FW_POLICY_ALLOW
                                                                        : policy->second)) +
           (open == OpenByPolicy::kEverything ? ": everything else is open on it, too"
                                              : ": what no rule denies is open on it, too") +
           "; \"tarnfw policy " +
           printable(shellWord(place.adapter) + " deny" + profileOption(target)) + "\" closes it";
}

}  // namespace

void addNotes(Notes& notes, const FW::FWPROFILE& profile, const Target& target,
              const std::vector<std::size_t>& positions, Machine& machine) {
    std::vector<RulePlace> places;
    places.reserve(positions.size());
    for (const std::size_t position : positions) {
        places.push_back({target.adapter, position});
    }
    if (places.empty()) {
        return;
    }
    for (const Finding& finding : ruleFindings(profile, places, machine)) {
        if (finding.isError) {
            throw Error(ErrorKind::kInvalid, textOf(finding), {"", finding.path, finding.rule});
        }
        const bool own =
            finding.rule && std::find(places.begin(), places.end(), *finding.rule) != places.end();
        if (notes.ownOnly && finding.rule && !own) {
            continue;
        }
        const bool shadowed = !finding.shadowedBy.empty() && own;
        const std::string same =
            shadowed ? sameAsText(profile, finding.shadowedBy, *finding.rule, places.size() > 1)
                     : "";
        if (!same.empty()) {
            notes.said.push_back(capitalised(same));
            continue;
        }
        notes.warnings.push_back(
            (finding.rule ? textOf(finding) : finding.text) +
            (shadowed ? offerFor(profile, *finding.rule, finding.shadowedBy, target) : ""));
    }
}

void printWarnings(const std::vector<std::string>& warnings, const Report& report) {
    constexpr std::size_t kMost = 3;  // for people
    const std::size_t printed =
        report.isJson() ? warnings.size() : std::min(warnings.size(), kMost);
    for (std::size_t i = 0; i < printed; ++i) {
        warn(warnings[i]);
    }
    if (warnings.size() > printed) {
        warn("and " + counted(warnings.size() - printed, "more warning"));
    }
}

namespace {

/// What the change opens and closes by rules at these positions, which are new; empty when that is
/// nothing. Adds to `notes` what they match that is open or closed already, and what is open
/// besides.
std::string effectOf(Context& context, const FW::FWPROFILE& before, const FW::FWPROFILE& stored,
                     const std::vector<std::size_t>& positions, const Target& target,
                     Notes& notes) {
    if (target.reload.quiet) {
        return "";
    }
    std::vector<RulePlace> places;
    places.reserve(positions.size());
    for (const std::size_t position : positions) {
        places.push_back({target.adapter, position});
    }
    try {
        const ComparedWith compared = comparedWith(context, stored.name, before);
        const MeantChange change = meantChange(compared.profile, stored, context.machine());
        const MeaningDifference difference(change.before, change.after, places);
        for (const RulePlace& place : places) {
            const std::string already =
                difference.same() ? alreadyText(context, change.after, place, target) : "";
            if (!already.empty()) {
                notes.said.push_back(already);
            }
            const std::string open = openAdapterText(change.after, place, target);
            if (!open.empty()) {
                notes.warnings.push_back(open);
            }
        }
        return difference.same() ? ""
                                 : whenText(context, stored.name, target.reload,
                                            withUnknown(difference.text(), compared));
    } catch (const Error& failure) {
        return whenText(context, stored.name, target.reload, unknownChangeText(failure));
    }
}

}  // namespace

void changeRules(Context& context, const Target& target,
                 const std::function<Outcome(FW::FWPROFILE&, Rules&)>& change) {
    requireReloadable(context, target.reload, target.profile);
    Outcome outcome;
    Notes notes;
    FW::FWPROFILE before;
    const FW::FWPROFILE stored = changeProfile(
        context.session(), target.profile, target.adapter,
        [&](FW::FWPROFILE& profile) {
            before = profile;
            outcome = change(profile, profile.rules[target.adapter]);
        },
        [&](const FW::FWPROFILE& profile) {
            addNotes(notes, profile, target, outcome.changed, context.machine());
            requireAppliable(context, profile, target.reload);
        });
    context.session().unlock();
    (*target.reload.report)["rules"] = outcome.rules;
    std::optional<std::string> effect;
    if (outcome.saysEffect) {
        effect = effectOf(context, before, stored, outcome.changed, target, notes);
    }
    outcome.said.insert(outcome.said.end(), notes.said.begin(), notes.said.end());
    finishChange(
        context, stored.name, target.reload,
        [&] {
            for (const std::string& line : outcome.said) {
                std::cout << printable(line) << '\n';
            }
            printWarnings(notes.warnings, *target.reload.report);
        },
        onlyRules(stored, target.adapter, outcome.changed), effect);
}

}  // namespace tarnfw
