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

/// Looks for short texts. For one thread.
class ChangeWords {
public:
    /// `rules` without the lines that are the same for every profile.
    ChangeWords(const std::vector<Meaning>& meanings, std::vector<FW::FWRESOLVEDRULE> rules);

    /// The packets as they are, or as what the rules match without some, whichever is shorter; of
    /// many, as all that the rules decide about, if it is that. `decides`: "decides", or
    /// "decided" of rules that are no more.
    WordedPackets worded(const PacketSets& sets, const Places& places, const char* decides);

private:
    std::string listed(const std::vector<PacketGroup>& groups, const PacketWords& words) const;
    std::vector<PacketGroup> matchedBy(const Places& places) const;
    WordedPackets overlapping(const PacketSets& sets, const std::vector<PacketGroup>& base) const;
    WordedPackets excepting(const PacketSets& sets, const std::vector<PacketGroup>& base) const;
    WordedPackets deciding(const PacketSets& sets, const Places& places,
                           const std::vector<PacketGroup>& base, const char* decides) const;

    PacketWords words_;
    PacketWords briefWords_;
    std::vector<FW::FWRESOLVEDRULE> rules_;
    std::size_t searched_ = 0;
};

}  // namespace tarnfw
