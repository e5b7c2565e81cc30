#include "tarnfwadmin/meaningChange.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "decide/listWords.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/packetWords.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using PacketSets = std::vector<FW::FWPACKETSET>;

/// Groups that one text names, and places of rules.
constexpr std::size_t kMostGroups = 4;
constexpr std::size_t kMostPlaces = 8;

/// Changes for which a shorter text is looked for: of two profiles that have little in common,
/// nobody reads all.
constexpr std::size_t kMostSearched = 64;

struct PlaceOrder {
    bool operator()(const FW::FWPLACE& a, const FW::FWPLACE& b) const {
        return std::tie(a.origin, a.adapter, a.position) <
               std::tie(b.origin, b.adapter, b.position);
    }
};
using Places = std::set<FW::FWPLACE, PlaceOrder>;

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

// ---- Words --------------------------------------------------------------------------------------

/// What differs from `base`: "tcp 22 from 10.1.0.0/16".
std::string exceptionText(const PacketWords& words, const PacketGroup& group,
                          const PacketGroup& base) {
    Texts texts;
    const auto add = [&texts](const std::string& text, const std::string& ofBase) {
        if (text != ofBase) {
            texts.push_back(text);
        }
    };
    add(words.kindsText(group.kinds), words.kindsText(base.kinds));
    add(words.waysText(group.ways), words.waysText(base.ways));
    add(words.fromText(group.peers), words.fromText(base.peers));
    return joined(texts, " ");
}

/// The packets of `all` that are not among `some`; nothing where that is too complex.
std::vector<PacketGroup> groupsWithout(const PacketSets& all, const PacketSets& some,
                                       bool& isKnown) {
    std::vector<FW::FWRESOLVEDRULE> rules;
    for (const FW::FWPACKETSET& set : some) {
        rules.push_back({set, FW::FW_PACKET_DROP, false, {}});
    }
    const FW::FW_MEANING dropping(rules);
    PacketSets rest;
    for (const FW::FWPACKETSET& set : all) {
        const FW::FWREACHABLE reachable = dropping.reach(set);
        isKnown = isKnown && reachable.findings.empty();
        for (const FW::FWREACH& reach : reachable.reach) {
            for (FW::FWPACKETSET one : reach.packets) {
                one.in = std::make_shared<FW::FWINTERFACES>(reach.interfaces);
                rest.push_back(std::move(one));
            }
        }
    }
    return packetGroups(rest);
}

/// What the changes of one kind are called.
class ChangeWords {
public:
    /// `named`: rules of the side after that need no mention.
    ChangeWords(const PacketWords& words, const Meaning& before, const Meaning& after,
                const std::vector<RulePlace>& named)
        : words_(words), rules_{before.ownRules(), after.ownRules()} {
        for (const RulePlace& place : named) {
            named_.insert(ruleAt(place));
        }
    }

    /// Appends the lines for changes of one kind.
    void append(const std::string& verb, const std::vector<PlacedChange>& changes, Texts& texts) {
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
            const std::string text = cause.places.size() == 1
                                         ? textOf(cause.sets, *cause.places.begin(), side)
                                         : words_.effectText(packetGroups(cause.sets).front());
            texts.push_back(
                std::string(verb).append(" ").append(text).append(inBrackets(cause.places, side)));
        }
    }

    /// The packets as they are, or as what the rule matches without some, whichever is shorter.
    std::string textOf(const PacketSets& sets, const FW::FWPLACE& place, SideOfChange side) {
        const std::vector<PacketGroup> groups = packetGroups(sets);
        Texts parts;
        std::size_t length = 0;
        for (const PacketGroup& group : groups) {
            if (parts.size() < 2 * kMostGroups) {
                parts.push_back(words_.effectText(group));
                length += parts.back().size();
            } else {
                parts.emplace_back();
            }
        }
        const std::string direct = joined(shortened(std::move(parts), kMostGroups), ", and ");
        if (groups.size() == 1 || ++searched_ > kMostSearched) {
            return direct;
        }
        const std::string except = exceptText(sets, groups, place, side);
        return !except.empty() && except.size() < length ? except : direct;
    }

private:
    using ByPlace = std::map<FW::FWPLACE, PacketSets, PlaceOrder>;

    /// Rules, and the packets that they are responsible for.
    struct Cause {
        Places places;
        PacketSets sets;
    };

    /// Puts those rules together whose packets are one group together.
    static std::vector<Cause> together(const ByPlace& byPlace) {
        std::vector<Cause> causes;
        for (const auto& [place, sets] : byPlace) {
            causes.push_back({{place}, sets});
        }
        for (std::size_t i = 0; i < causes.size() && causes.size() <= kMostSearched; ++i) {
            for (std::size_t j = i + 1; j < causes.size();) {
                PacketSets both = causes[i].sets;
                both.insert(both.end(), causes[j].sets.begin(), causes[j].sets.end());
                if (packetGroups(both).size() > 1) {
                    ++j;
                    continue;
                }
                causes[i].sets = std::move(both);
                causes[i].places.insert(causes[j].places.begin(), causes[j].places.end());
                causes.erase(causes.begin() + static_cast<std::ptrdiff_t>(j));
                j = i + 1;
            }
        }
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

    std::string inBrackets(const Places& places, SideOfChange side) const {
        const bool isNamed =
            side == kAfter &&
            std::includes(named_.begin(), named_.end(), places.begin(), places.end(), PlaceOrder());
        if (isNamed || places.size() > kMostPlaces) {
            return "";
        }
        return (side == kBefore ? " (before: " : " (") +
               placesText({places.begin(), places.end()}, kMostPlaces) + ")";
    }

    /// Empty where that is no shorter form.
    std::string exceptText(const PacketSets& sets, const std::vector<PacketGroup>& groups,
                           const FW::FWPLACE& place, SideOfChange side) {
        PacketSets matched;
        for (const FW::FWRESOLVEDRULE& rule : rules_[side]) {
            if (isSamePlace(rule.place, place)) {
                matched.push_back(rule.packets);
            }
        }
        std::vector<PacketGroup> base = packetGroups(matched);
        if (base.size() != 1) {
            return "";
        }
        // A rule for every adapter may make a difference on one of them.
        const std::string ways = words_.waysText(groups.front().ways);
        if (std::all_of(groups.begin(), groups.end(), [&](const PacketGroup& group) {
                return words_.waysText(group.ways) == ways;
            })) {
            base.front().ways = groups.front().ways;
            matched = packetSets(base.front());
        }
        bool isKnown = true;
        const std::vector<PacketGroup> rest = groupsWithout(matched, sets, isKnown);
        if (!isKnown || rest.empty() || rest.size() > kMostGroups) {
            return "";
        }
        Texts exceptions;
        for (const PacketGroup& group : rest) {
            exceptions.push_back(exceptionText(words_, group, base.front()));
        }
        return words_.effectText(base.front()) + ", except " + enumerated(exceptions);
    }

    const PacketWords& words_;
    std::array<std::vector<FW::FWRESOLVEDRULE>, 2> rules_;
    Places named_;
    std::size_t searched_ = 0;
};

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

/// The lines for all changes that are among `exact`.
Texts textsOf(const Meaning& before, const Meaning& after, const std::vector<PlacedChange>& exact,
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
    const PacketWords words({before, after});
    ChangeWords changeWords(words, before, after, named);
    Texts texts;
    for (const KindOfChange& kind : kKinds) {
        std::vector<PlacedChange> ofKind;
        std::copy_if(changes.begin(), changes.end(), std::back_inserter(ofKind),
                     [&](const PlacedChange& one) {
                         return one.change->change == kind.change &&
                                (kind.change != FW::FW_CHANGE_LOGGING || one.logs == kind.logs);
                     });
        changeWords.append(kind.verb, ofKind, texts);
    }
    return texts;
}

/// The packets that the rules at a place decide about: those with which something else happens
/// without them.
PacketSets decidedBy(const FW::FWPLACE& place, std::vector<FW::FWRESOLVEDRULE> rules) {
    const FW::FW_MEANING meaning(rules);
    for (FW::FWRESOLVEDRULE& rule : rules) {
        if (isSamePlace(rule.place, place)) {
            rule.verdict =
                rule.verdict == FW::FW_PACKET_DROP ? FW::FW_PACKET_NEXT : FW::FW_PACKET_DROP;
        }
    }
    PacketSets decided;
    for (FW::FWCHANGE& change : FW::FW_MEANING(rules).differenceFrom(meaning).changes) {
        std::move(change.packets.begin(), change.packets.end(), std::back_inserter(decided));
    }
    return decided;
}

}  // namespace

MeaningDifference::MeaningDifference(const Meaning& before, const Meaning& after,
                                     const std::vector<RulePlace>& named)
    : exact_(after.answers().differenceFrom(before.answers())) {
    if (!exact_.changes.empty()) {
        texts_ = textsOf(before, after, placed(exact_, before.answers(), after.answers()), named);
    }
}

std::string MeaningDifference::text(std::size_t most) const {
    if (texts_.empty()) {
        return tooComplex() ? "too complex to compare" : "nothing else happens to any packet";
    }
    Texts texts = texts_;
    if (texts.size() > most + 1) {
        const std::size_t others = texts.size() - most;
        texts.resize(most);
        texts.push_back("and " + std::to_string(others) + " more changes");
    }
    return joined(texts, "; ") + (tooComplex() ? "; too complex: there may be more changes" : "");
}

std::string decidedText(const Meaning& meaning, const RulePlace& place) {
    const FW::FWPLACE rule = ruleAt(place);
    if (decidedBy(rule, meaning.rules()).empty()) {
        return "";
    }
    const PacketWords words({meaning});
    return ChangeWords(words, meaning, meaning, {})
        .textOf(decidedBy(rule, meaning.ownRules()), rule, kAfter);
}

}  // namespace tarnfw
