/// Words for packets that some rules of a profile are responsible for.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/packetWords.h"

namespace tarnfw {

using PacketSets = std::vector<FW::FWPACKETSET>;

struct PlaceOrder {
    bool operator()(const FW::FWPLACE& a, const FW::FWPLACE& b) const;
};
using Places = std::set<FW::FWPLACE, PlaceOrder>;

/// The packets that the rules at these places decide about: those with which something else happens
/// without them.
PacketSets decidedBy(const Places& places, std::vector<FW::FWRESOLVEDRULE> rules);

/// Up to this many characters name packets; a word of a profile, such as an adapter, may be longer.
inline constexpr std::size_t kLongestPackets = 480;

struct WordedPackets {
    std::string text;       ///< "tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16"
    PacketSets packets;     ///< those that it names; none where it names them as a part of others
    bool isOfRule = false;  ///< the text speaks of the rule that decides, as "it"
};

/// What rules do to the packets that they are responsible for.
enum class RuleEffect {
    kDecides,       ///< whatever would happen without them
    kOpens,         ///< they were closed without the rules
    kCloses,        ///< they were open
    kOpensWithout,  ///< they are open now, since the rules are gone
    kClosesWithout  ///< they are closed now
};

/// Looks for short texts. For one thread.
class ChangeWords {
public:
    /// `rules` without the lines that are the same for every profile; `otherRules` are those of the
    /// other side of a change.
    ChangeWords(const std::vector<Meaning>& meanings, std::vector<FW::FWRESOLVEDRULE> rules,
                const std::vector<FW::FWRESOLVEDRULE>& otherRules = {});

    /// The packets as they are, or as what the rules match without some, whichever is shorter; of
    /// many, as all that the rules decide about, if it is that, or as those of the packets that the
    /// rules match that were open, or closed. `decides`: "decides", or "decided" of rules that are
    /// no more.
    WordedPackets worded(const PacketSets& sets, const Places& places, const char* decides,
                         RuleEffect effect = RuleEffect::kDecides);

    /// All that the rules match, with what the effect is: "tcp on eth0, for everybody, where it was
    /// open". Empty where that is long.
    std::string matchedText(const Places& places, RuleEffect effect) const;

private:
    std::string listed(const std::vector<PacketGroup>& groups, const PacketWords& words) const;
    std::vector<PacketGroup> matchedBy(const Places& places) const;
    WordedPackets overlapping(const PacketSets& sets, const std::vector<PacketGroup>& base) const;
    WordedPackets excepting(const PacketSets& sets, const std::vector<PacketGroup>& base) const;
    WordedPackets deciding(const PacketSets& sets, const Places& places,
                           const std::vector<PacketGroup>& base, const char* decides) const;

    WordedPackets asItWas(const PacketSets& sets, const PacketGroup& base, RuleEffect effect) const;
    std::string effectText(const PacketGroup& group, RuleEffect effect) const;
    bool isEverything(const PacketGroup& group) const;

    PacketWords words_;
    PacketWords briefWords_;
    std::vector<FW::FWRESOLVEDRULE> rules_;
    FW::FW_MEANING other_;
    std::size_t searched_ = 0;
};

}  // namespace tarnfw
