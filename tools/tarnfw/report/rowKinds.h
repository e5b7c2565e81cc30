/// The kinds of packets that the rows of tables are made of, and where these cut each other.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "report/matrixRows.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetGroup.h"

namespace tarnfw {

inline constexpr std::uint16_t kHighestPort = 65535;
inline constexpr std::uint16_t kHighestType = 255;

/// Whether intervals have a value; without any, they have all.
bool contains(const FW::FWINTERVALS& intervals, std::uint16_t value);

bool hasPorts(std::uint16_t protocol);

/// Whether a packet is of a kind; `isIcmp`, whether its protocol has types.
bool contains(const PacketKind& kind, const KindPoint& point, bool isIcmp);

bool areEqual(const FW::FWINTERVALS& a, const FW::FWINTERVALS& b);

/// Adds intervals to others, in order and joined where they touch.
void unite(FW::FWINTERVALS& list, const FW::FWINTERVALS& more);

/// Where the values from 0 on are cut into intervals.
class Cuts {
public:
    explicit Cuts(std::uint16_t highest) : highest_(highest) { starts_.insert(0); }

    void add(const FW::FWINTERVALS& intervals);
    FW::FWINTERVALS intervals() const;

private:
    std::uint16_t highest_;
    std::set<std::uint16_t> starts_;
};

/// What a rule or a service has for kinds of packets: one of the sets.
struct KindList {
    std::vector<PacketKind> kinds;
    bool isService = false;
};

/// Of the services and of the rules, each list once. What a rule has for several protocols is one
/// list. Those of all packets tell none apart.
std::vector<KindList> kindListsOf(const std::vector<FW::FWRESOLVEDRULE>& rules,
                                  const std::set<std::string>& services, const Meaning& meaning,
                                  FW::FW_FAMILY family);

}  // namespace tarnfw
