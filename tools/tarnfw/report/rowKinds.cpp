#include "report/rowKinds.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <netinet/in.h>

namespace tarnfw {

bool contains(const FW::FWINTERVALS& intervals, std::uint16_t value) {
    return intervals.empty() ||
           std::any_of(intervals.begin(), intervals.end(), [value](const FW::FWINTERVAL& one) {
               return one.first <= value && value <= one.last;
           });
}

bool hasPorts(std::uint16_t protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
}

bool contains(const PacketKind& kind, const KindPoint& point, bool isIcmp) {
    return contains(kind.protocols, point.protocol) &&
           (!hasPorts(point.protocol) ||
            (contains(kind.sourcePorts, point.sourcePort) &&
             contains(kind.destinationPorts, point.destinationPort))) &&
           (!isIcmp || contains(kind.icmpTypes, point.icmpType)) &&
           // A rule about ports or types is for packets that have them.
           (hasPorts(point.protocol) ||
            (kind.sourcePorts.empty() && kind.destinationPorts.empty())) &&
           (isIcmp || kind.icmpTypes.empty());
}

bool areEqual(const FW::FWINTERVALS& a, const FW::FWINTERVALS& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
        return x.first == y.first && x.last == y.last;
    });
}

void unite(FW::FWINTERVALS& list, const FW::FWINTERVALS& more) {
    list.insert(list.end(), more.begin(), more.end());
    std::sort(list.begin(), list.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    FW::FWINTERVALS all;
    for (const FW::FWINTERVAL& one : list) {
        if (!all.empty() && one.first <= all.back().last + 1) {
            all.back().last = std::max(all.back().last, one.last);
        } else {
            all.push_back(one);
        }
    }
    list = std::move(all);
}

void Cuts::add(const FW::FWINTERVALS& intervals) {
    for (const FW::FWINTERVAL& one : intervals) {
        starts_.insert(one.first);
        if (one.last < highest_) {
            starts_.insert(static_cast<std::uint16_t>(one.last + 1));
        }
    }
}

FW::FWINTERVALS Cuts::intervals() const {
    FW::FWINTERVALS all;
    for (const std::uint16_t start : starts_) {
        if (!all.empty()) {
            all.back().last = static_cast<std::uint16_t>(start - 1);
        }
        all.push_back({start, highest_});
    }
    return all;
}

// ---- Lists ----

namespace {

PacketKind kindOf(const FW::FWPACKETSET& packets) {
    return {packets.protocols, packets.sourcePorts, packets.destinationPorts, packets.icmpTypes};
}

bool isEverything(const PacketKind& kind) {
    return kind.protocols.empty() && kind.sourcePorts.empty() && kind.destinationPorts.empty() &&
           kind.icmpTypes.empty();
}

using ListKey = std::vector<std::size_t>;

ListKey keyOf(const KindList& list) {
    ListKey key;
    for (const PacketKind& kind : list.kinds) {
        for (const FW::FWINTERVALS* const intervals :
             {&kind.protocols, &kind.sourcePorts, &kind.destinationPorts, &kind.icmpTypes}) {
            key.push_back(intervals->size());
            for (const FW::FWINTERVAL& one : *intervals) {
                key.insert(key.end(), {one.first, one.last});
            }
        }
    }
    return key;
}

/// Whether two resolved rules come from one rule and are for the same packets otherwise.
bool differInKindAlone(const FW::FWRESOLVEDRULE& a, const FW::FWRESOLVEDRULE& b) {
    return isSamePlace(a.place, b.place) && a.packets.chains == b.packets.chains &&
           a.packets.in == b.packets.in && a.packets.out == b.packets.out &&
           a.packets.sources == b.packets.sources &&
           a.packets.destinations == b.packets.destinations && a.packets.states == b.packets.states;
}

}  // namespace

std::vector<KindList> kindListsOf(const std::vector<FW::FWRESOLVEDRULE>& rules,
                                  const std::set<std::string>& services, const Meaning& meaning,
                                  FW::FW_FAMILY family) {
    std::vector<KindList> lists;
    for (const std::string& name : services) {
        const auto service = meaning.environment().services.find(name);
        if (service != meaning.environment().services.end()) {
            KindList& list = lists.emplace_back();
            list.isService = true;
            for (const FW::FWPACKETSET& packets : FW::fwServicePackets(name, service->second)) {
                list.kinds.push_back(kindOf(packets));
            }
        }
    }
    const FW::FWRESOLVEDRULE* before = nullptr;
    for (const FW::FWRESOLVEDRULE& rule : rules) {
        if ((rule.packets.families & (1U << family)) == 0) {
            continue;
        }
        if (before == nullptr || !differInKindAlone(*before, rule)) {
            lists.emplace_back();
        }
        lists.back().kinds.push_back(kindOf(rule.packets));
        before = &rule;
    }
    std::set<ListKey> seen;
    const auto isNeedless = [&seen](const KindList& list) {
        return std::any_of(list.kinds.begin(), list.kinds.end(), isEverything) ||
               list.kinds.empty() || !seen.insert(keyOf(list)).second;
    };
    lists.erase(std::remove_if(lists.begin(), lists.end(), isNeedless), lists.end());
    return lists;
}

}  // namespace tarnfw
