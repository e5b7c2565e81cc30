#include "decide/changeWords.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "decide/listWords.h"

namespace tarnfw {
namespace {

using Groups = std::vector<PacketGroup>;

/// Groups that one text names.
constexpr std::size_t kMostGroups = 4;

/// Entries of each list where all of them are too many.
constexpr std::size_t kFewEntries = 3;

/// Up to this length nothing shorter is looked for that says less.
constexpr std::size_t kComfortable = 200;

/// Texts for which a shorter one is looked for: of two profiles that have little in common, nobody
/// reads all.
constexpr std::size_t kMostSearched = 64;

/// Above so many sets none is.
constexpr std::size_t kMostSets = 1024;

/// The packets of `sets` that get through; nothing where that is too complex.
std::optional<PacketSets> openOf(const PacketSets& sets, const FW::FW_MEANING& meaning) {
    PacketSets open;
    for (const FW::FWPACKETSET& set : sets) {
        const FW::FWREACHABLE reachable = meaning.reach(set);
        if (!reachable.findings.empty() || open.size() > kMostSets) {
            return std::nullopt;
        }
        for (const FW::FWREACH& reach : reachable.reach) {
            for (FW::FWPACKETSET one : reach.packets) {
                one.in = std::make_shared<FW::FWINTERFACES>(reach.interfaces);
                open.push_back(std::move(one));
            }
        }
    }
    return open;
}

/// The packets of `all` that are not among `some`; nothing where that is too complex.
std::optional<PacketSets> without(const PacketSets& all, const PacketSets& some) {
    std::vector<FW::FWRESOLVEDRULE> rules;
    rules.reserve(some.size());
    for (const FW::FWPACKETSET& set : some) {
        rules.push_back({set, FW::FW_PACKET_DROP, false, {}});
    }
    return openOf(all, FW::FW_MEANING(rules));
}

bool includes(const PacketSets& all, const PacketGroup& group) {
    const std::optional<PacketSets> rest = without(packetSets(group), all);
    return rest && rest->empty();
}

/// The ways of all the sets.
std::vector<PacketWay> waysOf(const PacketSets& sets) {
    PacketSets ways;
    for (const FW::FWPACKETSET& set : sets) {
        FW::FWPACKETSET way;
        way.chains = set.chains;
        way.in = set.in;
        way.out = set.out;
        ways.push_back(std::move(way));
    }
    const Groups groups = packetGroups(ways);
    return groups.size() == 1 ? groups.front().ways : std::vector<PacketWay>{{}};
}

/// The sets as few groups inside `base`, each as large as it can be, so that they may have packets
/// in common: "tcp 80", and not "tcp 80 from anywhere except 10.0.0.0/8" beside "tcp 22,80 from
/// 10.0.0.0/8". Nothing where that takes more than kMostGroups.
Groups covering(const PacketSets& sets, const PacketGroup& base) {
    Groups cover;
    std::optional<PacketGroup> common;  // of all peers and ways of the base
    std::optional<PacketSets> left = sets;
    for (std::size_t i = 0; left && !left->empty(); ++i) {
        const Groups groups = packetGroups(*left);
        if (i == 2 * kMostGroups || cover.size() == kMostGroups ||
            groups.size() > 2 * kMostGroups) {
            return {};
        }
        PacketGroup widest = groups.front();
        // To as much of the base as is all in the sets. Returns whether that is all of it.
        const auto widen = [&](auto part, bool wholeOnly) {
            PacketGroup wider = widest;
            wider.*part = base.*part;
            const PacketSets all = packetSets(wider);
            const std::optional<PacketSets> outside = without(all, sets);
            if (outside && outside->empty()) {
                widest = std::move(wider);
                return true;
            }
            const std::optional<PacketSets> inside =
                outside && !wholeOnly ? without(all, *outside) : std::nullopt;
            const Groups found = inside ? packetGroups(*inside) : Groups();
            if (found.size() == 1) {
                wider.*part = found.front().*part;
                if (includes(sets, wider)) {
                    widest = std::move(wider);
                }
            }
            return false;
        };
        const bool ofAllPeers = widen(&PacketGroup::peers, false);
        const bool ofAllWays = widen(&PacketGroup::ways, false);
        (void)widen(&PacketGroup::kinds, true);
        left = without(*left, packetSets(widest));
        if (!ofAllPeers || !ofAllWays) {
            cover.push_back(std::move(widest));
        } else if (!common) {
            common = std::move(widest);
        } else {
            common->kinds.insert(common->kinds.end(), widest.kinds.begin(), widest.kinds.end());
        }
    }
    if (!left) {
        return {};
    }
    if (common) {
        cover.insert(cover.begin(), std::move(*common));
    }
    return cover;
}

bool hasException(const std::string& text) {
    return text.find("except ") != std::string::npos;
}

}  // namespace

bool PlaceOrder::operator()(const FW::FWPLACE& a, const FW::FWPLACE& b) const {
    return std::tie(a.origin, a.adapter, a.position) < std::tie(b.origin, b.adapter, b.position);
}

PacketSets decidedBy(const Places& places, std::vector<FW::FWRESOLVEDRULE> rules) {
    const FW::FW_MEANING meaning(rules);
    for (FW::FWRESOLVEDRULE& rule : rules) {
        if (places.count(rule.place) != 0) {
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

ChangeWords::ChangeWords(const std::vector<Meaning>& meanings,
                         std::vector<FW::FWRESOLVEDRULE> rules,
                         const std::vector<FW::FWRESOLVEDRULE>& otherRules)
    : words_(meanings),
      briefWords_(meanings, kFewEntries),
      rules_(std::move(rules)),
      other_(otherRules) {}

WordedPackets ChangeWords::worded(const PacketSets& sets, const Places& places, const char* decides,
                                  RuleEffect effect) {
    const Groups groups = words_.groups(sets);
    WordedPackets best;
    best.text = listed(groups, words_);
    for (const PacketGroup& group : packetGroups(sets)) {
        const PacketSets ofGroup = packetSets(group);
        best.packets.insert(best.packets.end(), ofGroup.begin(), ofGroup.end());
    }
    const bool isShort = groups.size() == 1 && best.text.size() <= kComfortable;
    const bool searches = !isShort && ++searched_ <= kMostSearched && sets.size() <= kMostSets;
    const Groups base =
        searches || best.text.size() > kLongestPackets ? matchedBy(places) : Groups();
    bool isWhole = groups.size() <= kMostGroups + 1;
    if (searches && base.size() == 1) {
        if (groups.size() > 1) {
            WordedPackets wide = overlapping(sets, base);
            if (!wide.text.empty() && (!isWhole || wide.text.size() < best.text.size())) {
                best = std::move(wide);
                isWhole = true;
            }
            WordedPackets except = excepting(sets, base);
            if (!except.text.empty() && (!isWhole || except.text.size() < best.text.size())) {
                best = std::move(except);
                isWhole = true;
            }
        }
        if (!isWhole || best.text.size() > kComfortable) {
            WordedPackets all = deciding(sets, places, base, decides);
            if (!all.text.empty() && all.text.size() < best.text.size()) {
                best = std::move(all);
            }
        }
    }
    if (base.size() == 1 && effect != RuleEffect::kDecides &&
        (best.text.size() > kComfortable || (groups.size() > 1 && isEverything(base.front())))) {
        WordedPackets all = asItWas(sets, base.front(), effect);
        if (!all.text.empty() && all.text.size() < best.text.size()) {
            best = std::move(all);
        }
    }
    if (best.text.size() > kLongestPackets) {
        best.text = listed(groups, briefWords_);
        best.isOfRule = false;
    }
    if (best.text.size() > kLongestPackets) {
        const std::string whole = listed(base, briefWords_);
        const bool fits = !whole.empty() && whole.size() < kLongestPackets;
        return {"part of " + (fits ? whole : "what it matches"), {}, !fits};
    }
    return best;
}

/// The groups, of many the first ones.
std::string ChangeWords::listed(const Groups& groups, const PacketWords& words) const {
    Texts texts;
    for (const PacketGroup& group : groups) {
        texts.push_back(texts.size() < 2 * kMostGroups ? words.effectText(group) : std::string());
    }
    return joined(shortened(std::move(texts), kMostGroups), ", and ");
}

Groups ChangeWords::matchedBy(const Places& places) const {
    PacketSets matched;
    for (const FW::FWRESOLVEDRULE& rule : rules_) {
        if (places.count(rule.place) != 0) {
            matched.push_back(rule.packets);
        }
    }
    return packetGroups(matched);
}

/// "tcp on eth0, for everybody, where it was open", "all that was open to 10.0.0.1".
std::string ChangeWords::effectText(const PacketGroup& group, RuleEffect effect) const {
    struct Words {
        const char* all;
        const char* where;
    };
    const auto wordsOf = [&]() -> Words {
        switch (effect) {
            case RuleEffect::kOpens:
                return {"all that was closed to ", ", where it was closed"};
            case RuleEffect::kCloses:
                return {"all that was open to ", ", where it was open"};
            case RuleEffect::kOpensWithout:
                return {"all that nothing else closes to ", ", where nothing else closes it"};
            case RuleEffect::kClosesWithout:
                return {"all that nothing else opens to ", ", where nothing else opens it"};
            default:
                return {"", ""};
        }
    };
    return effect != RuleEffect::kDecides && isEverything(group)
               ? wordsOf().all + words_.forText(group.peers).substr(std::string("for ").size())
               : words_.effectText(group) + wordsOf().where;
}

/// Whether it is all that some senders send.
bool ChangeWords::isEverything(const PacketGroup& group) const {
    return words_.kindsText(group.kinds) == "everything" &&
           words_.waysText(group.ways) == "on every adapter" &&
           std::all_of(group.peers.begin(), group.peers.end(),
                       [](const PacketPeers& peers) { return peers.destinations == nullptr; });
}

std::string ChangeWords::matchedText(const Places& places, RuleEffect effect) const {
    const Groups base = matchedBy(places);
    const std::string text = base.size() == 1 ? effectText(base.front(), effect) : std::string();
    return text.size() <= kLongestPackets ? text : std::string();
}

/// Those packets of the base that were open, or closed, or are so without the rule; empty where
/// there are more of these than `sets`.
WordedPackets ChangeWords::asItWas(const PacketSets& sets, const PacketGroup& base,
                                   RuleEffect effect) const {
    PacketGroup narrow = base;
    narrow.ways = waysOf(sets);
    WordedPackets best;
    for (const PacketGroup& whole : {narrow, base}) {
        const PacketSets all = packetSets(whole);
        std::optional<PacketSets> concerned = openOf(all, other_);
        if (concerned && (effect == RuleEffect::kOpens || effect == RuleEffect::kClosesWithout)) {
            concerned = without(all, *concerned);
        }
        const std::optional<PacketSets> others =
            concerned ? without(*concerned, sets) : std::nullopt;
        std::string text = effectText(whole, effect);
        if (others && others->empty() && (best.text.empty() || text.size() < best.text.size())) {
            best = {std::move(text), sets, false};
        }
    }
    return best;
}

/// "tcp 22 on every adapter except eth0, for everybody, and tcp 22 on every adapter,
/// for 10.0.0.0/8". Empty where that are many.
WordedPackets ChangeWords::overlapping(const PacketSets& sets, const Groups& base) const {
    PacketGroup whole = base.front();
    whole.ways = waysOf(sets);
    const Groups groups = covering(sets, whole);
    PacketSets packets;
    for (const PacketGroup& group : groups) {
        const PacketSets ofGroup = packetSets(group);
        packets.insert(packets.end(), ofGroup.begin(), ofGroup.end());
    }
    return {listed(groups, words_), std::move(packets), false};
}

/// "everything on eth0, for everybody, except (tcp 80 from anywhere; tcp 22 from 10.0.0.0/8)".
/// Empty where the words would not be clear: an exception never has an exception of its own.
WordedPackets ChangeWords::excepting(const PacketSets& sets, const Groups& base) const {
    PacketGroup whole = base.front();
    // A rule for every adapter may make a difference on one of them.
    whole.ways = waysOf(sets);
    const std::string wholeText = words_.effectText(whole);
    const std::optional<PacketSets> rest = without(packetSets(whole), sets);
    if (!rest || rest->size() > kMostSets) {
        return {};
    }
    if (rest->empty()) {
        return {wholeText, packetSets(whole), false};
    }
    const Groups exceptions = covering(*rest, whole);
    if (exceptions.empty() || hasException(wholeText)) {
        return {};
    }
    const std::string ways = words_.waysText(whole.ways);
    const bool isElsewhere =
        std::any_of(exceptions.begin(), exceptions.end(),
                    [&](const PacketGroup& group) { return words_.waysText(group.ways) != ways; });
    const std::string peers = words_.fromText(whole.peers);
    Texts texts;
    PacketSets excepted;
    for (const PacketGroup& group : exceptions) {
        const std::string own = words_.fromText(group.peers);
        texts.push_back(words_.kindsText(group.kinds) +
                        (isElsewhere ? " " + words_.waysText(group.ways) : "") +
                        (exceptions.size() > 1 || own != peers ? " " + own : ""));
        if (hasException(texts.back())) {
            return {};
        }
        const PacketSets ofGroup = packetSets(group);
        excepted.insert(excepted.end(), ofGroup.begin(), ofGroup.end());
    }
    const std::string text = joined(texts, "; ");
    return {wholeText + ", except " + (texts.size() == 1 ? text : "(" + text + ")"),
            without(packetSets(whole), excepted).value_or(PacketSets()), false};
}

/// "everything on eth0, for everybody, that no rule before it decides"; empty where the rules
/// decide about others as well.
WordedPackets ChangeWords::deciding(const PacketSets& sets, const Places& places,
                                    const Groups& base, const char* decides) const {
    PacketGroup whole = base.front();
    whole.ways = waysOf(sets);
    const PacketSets decided = decidedBy(places, rules_);
    const std::optional<PacketSets> others =
        decided.size() > kMostSets ? std::nullopt : without(decided, sets);
    const std::optional<PacketSets> mine =
        others ? without(packetSets(whole), *others) : std::nullopt;
    const std::optional<PacketSets> common =
        mine ? without(packetSets(whole), *mine) : std::nullopt;
    const std::optional<PacketSets> before =
        common && common->empty() ? without(packetSets(whole), decided) : std::nullopt;
    if (!before) {
        return {};
    }
    return {words_.effectText(whole) + ", that no rule before " +
                (places.size() == 1 ? "it " : "them ") + decides,
            without(packetSets(whole), *before).value_or(PacketSets()), true};
}

}  // namespace tarnfw
