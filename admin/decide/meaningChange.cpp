#include "tarnfwadmin/meaningChange.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "decide/changeWords.h"
#include "decide/listWords.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

/// Places of rules that one text names.
constexpr std::size_t kMostPlaces = 8;

/// Rules that are not counted which one text names.
constexpr std::size_t kMostNotCounted = 2;

/// Rules whose packets are tried to be put together: of two profiles that have little in common,
/// nobody reads all.
constexpr std::size_t kMostTogether = 64;

FW::FWPLACE ruleAt(const RulePlace& place) {
    return {FW::FW_ORIGIN_RULE, place.adapter, static_cast<std::int32_t>(place.position)};
}

enum SideOfChange : std::size_t { kBefore, kAfter };

/// One of FWDIFFERENCE::changes, with the places of its rules.
struct PlacedChange {
    const FW::FWCHANGE* change = nullptr;
    bool logs = false;  ///< the packets are logged now
    std::array<FW::FWPLACE, 2> places;
};

std::vector<PlacedChange> placed(const FW::FWDIFFERENCE& difference, const FW::FW_MEANING& before,
                                 const FW::FW_MEANING& after) {
    std::vector<PlacedChange> all;
    for (const FW::FWCHANGE& change : difference.changes) {
        const FW::FWRESOLVEDRULE now = after.rule(change.after);
        all.push_back({&change, now.log, {before.rule(change.before).place, now.place}});
    }
    return all;
}

// ---- Rules of both sides ------------------------------------------------------------------------

/// Whether the packet filter does the same by both, whatever they are called.
bool isSameRule(const FW::FWRULE& one, const FW::FWRULE& other) {
    const auto members = [](const FW::FWRULE& rule) {
        return std::tie(rule.enable, rule.adapterDirect, rule.policy, rule.blLog, rule.table,
                        rule.chainList, rule.ipType, rule.ipDirect, rule.ipGroup, rule.ipList,
                        rule.portDirect, rule.portGroup, rule.protocol, rule.portList);
    };
    return members(one) == members(other);
}

const std::vector<FW::FWRULE>& rulesOf(const Meaning& meaning, const std::string& adapter) {
    static const std::vector<FW::FWRULE> none;
    const auto list = meaning.profile().rules.find(adapter);
    return list == meaning.profile().rules.end() ? none : list->second;
}

/// How many rules at the head of an adapter's list are the same on both sides.
std::size_t sameAtHead(const Meaning& one, const Meaning& other, const std::string& adapter) {
    const std::vector<FW::FWRULE>& rules = rulesOf(one, adapter);
    const std::vector<FW::FWRULE>& others = rulesOf(other, adapter);
    const auto end = std::mismatch(rules.begin(), rules.end(), others.begin(), others.end(),
                                   [](const auto& a, const auto& b) { return isSameRule(a, b); });
    return static_cast<std::size_t>(std::distance(rules.begin(), end.first));
}

/// Whether `side` has a rule that is not counted and does the same as one of `other`, for the same
/// adapter.
bool hasNotCounted(const Meaning& side, const Meaning& other, const FW::FWPLACE& ofOther) {
    const auto ruleAtPlace = [](const Meaning& meaning, const FW::FWPLACE& place) {
        return rulesOf(meaning, place.adapter).at(static_cast<std::size_t>(place.position) - 1);
    };
    const FW::FWRULE rule = ruleAtPlace(other, ofOther);
    return std::any_of(side.findings().begin(), side.findings().end(), [&](const auto& finding) {
        return isNotCounted(finding) && finding.place.adapter == ofOther.adapter &&
               isSameRule(ruleAtPlace(side, finding.place), rule);
    });
}

/// The rules of `side` that are not counted, apart from those that are on the other side as well
/// with the same ones before them: what these do is the same. `isFormer`: of the side before; those
/// that the side after has, too, are named there.
Texts notCountedOf(const Meaning& side, const Meaning& other, bool isFormer) {
    Texts texts;
    std::map<std::string, std::size_t> heads;
    for (const FW::FWFINDING& finding : side.findings()) {
        if (!isNotCounted(finding)) {
            continue;
        }
        for (const std::string& adapter :
             {finding.place.adapter, std::string(FW::FW_ADAPTER_GLOBAL)}) {
            if (heads.count(adapter) == 0) {
                heads[adapter] = sameAtHead(side, other, adapter);
            }
        }
        const bool sameGlobal =
            heads[FW::FW_ADAPTER_GLOBAL] == std::max(rulesOf(side, FW::FW_ADAPTER_GLOBAL).size(),
                                                     rulesOf(other, FW::FW_ADAPTER_GLOBAL).size());
        const auto position = static_cast<std::size_t>(finding.place.position);
        const bool isNew = position > heads[finding.place.adapter] ||
                           (finding.place.adapter != FW::FW_ADAPTER_GLOBAL && !sameGlobal);
        if (isNew && !(isFormer && hasNotCounted(other, side, finding.place))) {
            texts.push_back((isFormer ? "the former " : "") + placeText(finding.place) +
                            " is not counted: " + finding.text);
        }
    }
    return texts;
}

// ---- Words --------------------------------------------------------------------------------------

/// What the changes of one kind are called.
class ChangesInWords {
public:
    /// `named`: rules of the side after that need no mention.
    ChangesInWords(const Meaning& before, const Meaning& after, const std::vector<RulePlace>& named)
        : sides_{before, after},
          words_{ChangeWords({before, after}, before.ownRules(), after.ownRules()),
                 ChangeWords({before, after}, after.ownRules(), before.ownRules())} {
        for (const RulePlace& place : named) {
            named_.insert(ruleAt(place));
        }
    }

    /// Appends the texts for changes of one kind, which `kind` is a text of.
    void append(const std::string& verb, const ChangeText& kind,
                const std::vector<PlacedChange>& changes, std::vector<ChangeText>& texts) {
        if (changes.empty()) {
            return;
        }
        std::array<ByPlace, 2> bySide;
        for (const PlacedChange& change : changes) {
            const PacketSets& packets = change.change->packets;
            for (const SideOfChange side : {kBefore, kAfter}) {
                PacketSets& sets = bySide[side][change.places[side]];
                sets.insert(sets.end(), packets.begin(), packets.end());
            }
        }
        const SideOfChange side = responsible(bySide[kBefore], bySide[kAfter]);
        for (const Cause& cause : together(bySide[side])) {
            texts.push_back(textOf(verb, kind, cause, side));
        }
    }

    /// Appends what one rule or default policy, which only this side has, does to all that it
    /// matches. Returns whether there are short words for it.
    bool appendEdit(const FW::FWPLACE& place, bool denies, SideOfChange side,
                    std::vector<ChangeText>& texts) {
        const bool opens = denies == (side == kBefore);
        const RuleEffect effect =
            side == kBefore ? (opens ? RuleEffect::kOpensWithout : RuleEffect::kClosesWithout)
                            : (opens ? RuleEffect::kOpens : RuleEffect::kCloses);
        const bool isPolicy = place.origin == FW::FW_ORIGIN_DEFAULT;
        const std::string words =
            words_[side].matchedText({place}, isPolicy ? RuleEffect::kDecides : effect);
        if (words.empty()) {
            return false;
        }
        const char* const undecided = side == kBefore ? ", that no rule before it decided"
                                                      : ", that no rule before it decides";
        ChangeText& text = texts.emplace_back();
        text.change = opens ? FW::FW_CHANGE_OPENED : FW::FW_CHANGE_CLOSED;
        text.text = std::string(opens ? "opens " : "closes ")
                        .append(words)
                        .append(isPolicy ? undecided : "")
                        .append(inBrackets({place}, side, isPolicy));
        return true;
    }

private:
    using ByPlace = std::map<FW::FWPLACE, PacketSets, PlaceOrder>;

    /// Rules, and the packets that they are responsible for.
    struct Cause {
        Places places;
        PacketSets sets;
        std::size_t groups = 0;  ///< that the packets make
    };

    ChangeText textOf(const std::string& verb, const ChangeText& kind, const Cause& cause,
                      SideOfChange side) {
        const RuleEffect effect =
            kind.change == FW::FW_CHANGE_LOGGING ? RuleEffect::kDecides
            : kind.change == FW::FW_CHANGE_OPENED
                ? (side == kBefore ? RuleEffect::kOpensWithout : RuleEffect::kOpens)
                : (side == kBefore ? RuleEffect::kClosesWithout : RuleEffect::kCloses);
        WordedPackets worded = words_[side].worded(cause.sets, cause.places,
                                                   side == kBefore ? "decided" : "decides", effect);
        ChangeText text = kind;
        text.text = std::string(verb)
                        .append(" ")
                        .append(worded.text)
                        .append(inBrackets(cause.places, side, worded.isOfRule));
        text.packets = std::move(worded.packets);
        return text;
    }

    /// Puts those rules together whose packets need no more words together than those of either.
    static std::vector<Cause> together(const ByPlace& byPlace) {
        std::vector<Cause> causes;
        std::vector<Cause> apart;
        for (const auto& [place, sets] : byPlace) {
            // Of many rules the adapters' default policies are still alike.
            const bool isTried =
                byPlace.size() <= kMostTogether || place.origin != FW::FW_ORIGIN_RULE;
            (isTried ? causes : apart)
                .push_back({{place}, sets, isTried ? packetGroups(sets).size() : 0});
        }
        for (std::size_t i = 0; i < causes.size() && causes.size() <= kMostTogether; ++i) {
            for (std::size_t j = i + 1; j < causes.size();) {
                PacketSets both = causes[i].sets;
                both.insert(both.end(), causes[j].sets.begin(), causes[j].sets.end());
                const std::size_t groups = packetGroups(both).size();
                if (groups > std::min(causes[i].groups, causes[j].groups)) {
                    ++j;
                    continue;
                }
                causes[i].sets = std::move(both);
                causes[i].groups = groups;
                causes[i].places.insert(causes[j].places.begin(), causes[j].places.end());
                causes.erase(causes.begin() + static_cast<std::ptrdiff_t>(j));
                j = i + 1;
            }
        }
        causes.insert(causes.begin(), std::make_move_iterator(apart.begin()),
                      std::make_move_iterator(apart.end()));
        return causes;
    }

    /// The side that says more about the changes: the one where rules decide, not default policies,
    /// and then the one with fewer of them.
    static SideOfChange responsible(const ByPlace& before, const ByPlace& after) {
        const auto isOfNoRule = [](const ByPlace& side) {
            return std::any_of(side.begin(), side.end(), [](const auto& one) {
                return one.first.origin == FW::FW_ORIGIN_END;
            });
        };
        const auto isOfRules = [](const ByPlace& side) {
            return std::all_of(side.begin(), side.end(), [](const auto& one) {
                return one.first.origin == FW::FW_ORIGIN_RULE;
            });
        };
        if (isOfNoRule(after) != isOfNoRule(before)) {
            return isOfNoRule(after) ? kBefore : kAfter;
        }
        if (isOfRules(after) != isOfRules(before)) {
            return isOfRules(before) ? kBefore : kAfter;
        }
        return before.size() < after.size() ? kBefore : kAfter;
    }

    /// " (rule 3 of eth0)", " (before: rule 3 of eth0)", " (now rule 3 of eth0)".
    std::string inBrackets(const Places& places, SideOfChange side, bool isWanted) const {
        const bool isNamed =
            side == kAfter &&
            std::includes(named_.begin(), named_.end(), places.begin(), places.end(), PlaceOrder());
        if (!isWanted && (isNamed || places.size() > kMostPlaces)) {
            return "";
        }
        const char* const when = side == kBefore ? "before: " : hasMoved(places) ? "now " : "";
        return std::string(" (") + when + placesText({places.begin(), places.end()}, kMostPlaces) +
               ")";
    }

    /// Whether one of the rules had another position before.
    bool hasMoved(const Places& places) const {
        return places.size() <= kMostPlaces &&
               std::any_of(places.begin(), places.end(), [this](const FW::FWPLACE& place) {
                   const std::vector<FW::FWRULE>& now = rulesOf(sides_[kAfter], place.adapter);
                   const std::vector<FW::FWRULE>& old = rulesOf(sides_[kBefore], place.adapter);
                   const auto index = static_cast<std::size_t>(place.position) - 1;
                   if (place.origin != FW::FW_ORIGIN_RULE || index >= now.size() ||
                       (index < old.size() && isSameRule(old[index], now[index]))) {
                       return false;
                   }
                   return std::any_of(old.begin(), old.end(), [&](const FW::FWRULE& rule) {
                       return isSameRule(rule, now[index]);
                   });
               });
    }

    std::array<Meaning, 2> sides_;
    std::array<ChangeWords, 2> words_;
    Places named_;
};

// ---- One edit -----------------------------------------------------------------------------------

/// What only one side has, where that is one rule or default policy.
struct Edit {
    FW::FWPLACE place;
    bool denies = false;
    bool logs = false;
};

/// By side; nothing where both have the same in effect.
using Edits = std::array<std::optional<Edit>, 2>;

std::optional<Edit> editAt(const Meaning& side, const std::string& adapter, std::size_t position) {
    const FW::FWRULE& rule = rulesOf(side, adapter)[position - 1];
    return rule.enable && rule.policy != FW::FW_POLICY_NONE
               ? std::optional(Edit{ruleAt({adapter, position}), rule.policy == FW::FW_POLICY_DENY,
                                    rule.blLog})
               : std::nullopt;
}

/// Adds the edit of an adapter's list; false where it is none of one rule.
bool addListEdit(const Meaning& before, const Meaning& after, const std::string& adapter,
                 Edits& edits) {
    const std::vector<FW::FWRULE>& old = rulesOf(before, adapter);
    const std::vector<FW::FWRULE>& now = rulesOf(after, adapter);
    const std::size_t head = sameAtHead(before, after, adapter);
    const std::size_t most = std::min(old.size(), now.size()) - head;
    std::size_t tail = 0;
    while (tail < most && isSameRule(old[old.size() - 1 - tail], now[now.size() - 1 - tail])) {
        ++tail;
    }
    if (old.size() - head - tail > 1 || now.size() - head - tail > 1) {
        return false;
    }
    if (old.size() > head + tail) {
        edits[kBefore] = editAt(before, adapter, head + 1);
    }
    if (now.size() > head + tail) {
        edits[kAfter] = editAt(after, adapter, head + 1);
    }
    return true;
}

FW::FW_POLICY policyOf(const Meaning& side, const std::string& adapter) {
    const auto found = side.profile().adapterPolicyMap.find(adapter);
    return found == side.profile().adapterPolicyMap.end() ? FW::FW_POLICY_NONE : found->second;
}

/// What one edit makes of one profile the other; nothing where there are several.
std::optional<Edits> oneEdit(const Meaning& before, const Meaning& after) {
    std::set<std::string> adapters;
    for (const Meaning& side : {before, after}) {
        for (const auto& [adapter, rules] : side.profile().rules) {
            adapters.insert(adapter);
        }
        for (const auto& [adapter, policy] : side.profile().adapterPolicyMap) {
            adapters.insert(adapter);
        }
    }
    Edits edits;
    std::size_t changed = 0;
    for (const std::string& adapter : adapters) {
        const std::size_t size =
            std::max(rulesOf(before, adapter).size(), rulesOf(after, adapter).size());
        if (sameAtHead(before, after, adapter) != size) {
            ++changed;
            if (!addListEdit(before, after, adapter, edits)) {
                return std::nullopt;
            }
        }
        const std::array<FW::FW_POLICY, 2> policies = {policyOf(before, adapter),
                                                       policyOf(after, adapter)};
        if (policies[kBefore] == policies[kAfter]) {
            continue;
        }
        ++changed;
        // What is not denied is open.
        const SideOfChange denying = policies[kBefore] == FW::FW_POLICY_DENY ? kBefore : kAfter;
        if (policies[denying] == FW::FW_POLICY_DENY) {
            edits[denying] = Edit{{FW::FW_ORIGIN_DEFAULT, adapter, 0}, true, false};
        }
    }
    return changed == 1 ? std::optional(edits) : std::nullopt;
}

/// The texts for one edit that is too complex to compare: what its rule matches. Empty where there
/// are several edits, or no short words.
std::vector<ChangeText> textsOfEdit(const Meaning& before, const Meaning& after,
                                    const std::vector<RulePlace>& named) {
    const std::optional<Edits> edits = oneEdit(before, after);
    std::vector<ChangeText> texts;
    if (!edits) {
        return texts;
    }
    ChangesInWords words(before, after, named);
    for (const SideOfChange side : {kBefore, kAfter}) {
        const std::optional<Edit>& edit = (*edits)[side];
        if (edit && (edit->logs || !words.appendEdit(edit->place, edit->denies, side, texts))) {
            return {};
        }
    }
    return texts;
}

struct KindOfChange {
    FW::FW_CHANGE change;
    bool logs;
    const char* verb;
};

constexpr KindOfChange kKinds[] = {
    {FW::FW_CHANGE_OPENED, false, "opens"},
    {FW::FW_CHANGE_CLOSED, false, "closes"},
    {FW::FW_CHANGE_LOGGING, true, "logs"},
    {FW::FW_CHANGE_LOGGING, false, "no longer logs"},
};

/// The texts for all changes that are among `exact`.
std::vector<ChangeText> textsOf(const Meaning& before, const Meaning& after,
                                const std::vector<PlacedChange>& exact,
                                const std::vector<RulePlace>& named) {
    using Key = std::tuple<FW::FW_CHANGE, FW::FWPLACE, FW::FWPLACE>;
    const auto keyOf = [](const PlacedChange& one) {
        return Key(one.change->change, one.places[kBefore], one.places[kAfter]);
    };
    const auto isLess = [](const Key& a, const Key& b) {
        const auto& [aChange, aBefore, aAfter] = a;
        const auto& [bChange, bBefore, bAfter] = b;
        return std::tie(aChange, aBefore.origin, aBefore.adapter, aBefore.position, aAfter.origin,
                        aAfter.adapter, aAfter.position) <
               std::tie(bChange, bBefore.origin, bBefore.adapter, bBefore.position, bAfter.origin,
                        bAfter.adapter, bAfter.position);
    };
    std::set<Key, decltype(isLess)> real(isLess);
    for (const PlacedChange& one : exact) {
        real.insert(keyOf(one));
    }
    // Without the lines of every profile, which cut pieces out of everything.
    const FW::FW_MEANING own(after.ownRules());
    const FW::FW_MEANING ownBefore(before.ownRules());
    const FW::FWDIFFERENCE difference = own.differenceFrom(ownBefore);
    std::vector<PlacedChange> changes;
    for (const PlacedChange& one : placed(difference, ownBefore, own)) {
        if (real.count(keyOf(one)) != 0) {
            changes.push_back(one);
        }
    }
    ChangesInWords words(before, after, named);
    std::vector<ChangeText> texts;
    for (const KindOfChange& kind : kKinds) {
        std::vector<PlacedChange> ofKind;
        std::copy_if(changes.begin(), changes.end(), std::back_inserter(ofKind),
                     [&](const PlacedChange& one) {
                         return one.change->change == kind.change &&
                                (kind.change != FW::FW_CHANGE_LOGGING || one.logs == kind.logs);
                     });
        words.append(kind.verb, {"", kind.change, kind.logs, {}}, ofKind, texts);
    }
    return texts;
}

/// The adapters whose rules and default policies decide about the changes.
Texts adaptersOf(const std::vector<PlacedChange>& changes) {
    std::set<std::string> adapters;
    for (const PlacedChange& change : changes) {
        for (const FW::FWPLACE& place : change.places) {
            if (!place.adapter.empty() && place.adapter != FW::FW_ADAPTER_GLOBAL) {
                adapters.insert(place.adapter);
            }
        }
    }
    return {adapters.begin(), adapters.end()};
}

}  // namespace

MeaningDifference::MeaningDifference(const Meaning& before, const Meaning& after,
                                     const std::vector<RulePlace>& named)
    : exact_(after.answers().differenceFrom(before.answers())),
      notCounted_(notCountedOf(after, before, false)) {
    for (const std::string& text : notCountedOf(before, after, true)) {
        notCounted_.push_back(text);
    }
    const std::vector<PlacedChange> changes = placed(exact_, before.answers(), after.answers());
    adapters_ = adaptersOf(changes);
    if (!exact_.findings.empty()) {
        changes_ = textsOfEdit(before, after, named);
        saysAll_ = !changes_.empty();
    }
    if (changes_.empty() && !changes.empty()) {
        changes_ = textsOf(before, after, changes, named);
    }
}

Texts MeaningDifference::texts() const {
    Texts texts;
    for (const ChangeText& change : changes_) {
        texts.push_back(change.text);
    }
    texts.insert(texts.end(), notCounted_.begin(), notCounted_.end());
    return texts;
}

std::string MeaningDifference::text(std::size_t most) const {
    Texts texts;
    const std::size_t named = changes_.size() > most + 1 ? most : changes_.size();
    for (std::size_t i = 0; i < named; ++i) {
        texts.push_back(changes_[i].text);
    }
    if (named < changes_.size()) {
        texts.push_back("and " + std::to_string(changes_.size() - named) + " more changes");
    }
    if (!exact_.findings.empty() && !saysAll_) {
        texts.emplace_back(texts.empty() ? "too complex to compare"
                                         : "too complex: there may be more changes");
    }
    for (const std::string& text : shortened(notCounted_, kMostNotCounted)) {
        texts.push_back(text);
    }
    if (!notCounted_.empty()) {
        texts.push_back(std::string("for packets that ") +
                        (notCounted_.size() == 1 ? "it matches" : "they match") +
                        ", something else may happen");
    }
    return texts.empty() ? "nothing else happens to any packet" : joined(texts, "; ");
}

std::string decidedText(const Meaning& meaning, const RulePlace& place) {
    const Places rule = {ruleAt(place)};
    if (decidedBy(rule, meaning.rules()).empty()) {
        return "";
    }
    return ChangeWords({meaning}, meaning.ownRules())
        .worded(decidedBy(rule, meaning.ownRules()), rule, "decides")
        .text;
}

}  // namespace tarnfw
