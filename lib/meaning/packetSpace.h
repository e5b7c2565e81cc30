/// Sets of packets as sets of numbers: the form in which all operations work on rules.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "../fwIntervals.h"
#include "interfaceNumbers.h"

namespace FW {

/// The fields of a packet. A field that only some packets have comes after the one that says so:
/// ports after the protocol.
enum Field : std::size_t {
    kChain,
    kFamily,
    kIn,
    kOut,
    kProtocol,
    kSource,
    kDestination,
    kSourcePort,
    kDestinationPort,
    kIcmpType,
    kState,
    kFields
};

// Protocols whose packets have fields of their own.
inline constexpr Number kTcp = IPPROTO_TCP;
inline constexpr Number kUdp = IPPROTO_UDP;
inline constexpr Number kIcmp = IPPROTO_ICMP;
inline constexpr Number kIcmpv6 = IPPROTO_ICMPV6;

/// Values that a field can have. A list of addresses is shared with others that hold it: those of
/// countries are long, and there need be only one of each.
class ValueSet : public IntervalView {
public:
    explicit ValueSet(const Interval& one);
    explicit ValueSet(std::shared_ptr<const Intervals> own);
    explicit ValueSet(std::shared_ptr<const FWADDRESSES> list);
    ValueSet(const ValueSet&) = delete;
    ValueSet& operator=(const ValueSet&) = delete;

    /// The same as a list of addresses.
    std::shared_ptr<const FWADDRESSES> addresses() const;

private:
    Interval one_{};  // most sets are one interval, which needs no memory of its own
    std::shared_ptr<const void> list_;  // has the intervals of any other
};

/// The values of one field; null for any.
using Values = std::shared_ptr<const ValueSet>;

inline Values valuesOf(const Interval& one) {
    return std::make_shared<const ValueSet>(one);
}

Values valuesOf(Intervals intervals);

inline bool isAny(const Values& values) {
    return values == nullptr;
}

/// A set of packets: those with one of the values in every field.
using Region = std::array<Values, kFields>;

/// A packet: one value of every field. What it does not have is 0.
using Point = std::array<Number, kFields>;

/// A set of packets whose values are kept by a PacketSpace, by their number there.
using ValueIds = std::array<std::uint32_t, kFields>;

inline constexpr std::uint32_t kAnyValue = 0;
inline constexpr std::uint32_t kNoValue = 1;  // the incoming interface of a set without any packet

// Lists of addresses with more intervals are those of countries: many rules share them.
inline constexpr std::size_t kLongList = 64;

/// A resolved rule.
struct SpaceRule {
    ValueIds values;
    FW_PACKET_VERDICT verdict;
    bool log;
};

inline bool hasPackets(const SpaceRule& rule) {
    return rule.values[kIn] != kNoValue;
}

/// Keeps values of fields, equal ones once. Copies share them, and lists of addresses are shared
/// with the rules that were added.
class PacketSpace {
public:
    /// Long lists of addresses that were added, so that each is looked at once.
    using AddressIds = std::unordered_map<const FWADDRESSES*, std::uint32_t>;

    /// Tells the interfaces of these rules apart.
    explicit PacketSpace(const std::vector<FWRESOLVEDRULE>& rules);

    /// Tells those apart that `space` does, and all entries of `more`.
    PacketSpace(const PacketSpace& space, const std::vector<std::string>& more);

    /// The entries of all interfaces, and whether `interfaces` consists of them.
    const std::vector<std::string>& interfaceEntries() const { return interfaces_.entries(); }
    bool knows(const FWINTERFACES& interfaces) const { return interfaces_.hasAll(interfaces); }

    /// Ports say that it is TCP or UDP, types that it is ICMP.
    ValueIds add(const FWPACKETSET& set, AddressIds& known);

    /// Frees what only adding needs; more can be added later.
    void finish();

    /// The rules of another space, in this one. Its interfaces have to be known here.
    std::vector<SpaceRule> addAll(const PacketSpace& other, const std::vector<SpaceRule>& rules);

    const Values& values(std::uint32_t id) const { return values_[id]; }
    std::size_t size() const { return values_.size(); }  ///< one more than the greatest number
    const Intervals& all(Field field) const { return all_[field]; }

    /// The values of a field of a region, also where they are any.
    IntervalView valuesIn(const Region& region, Field field) const {
        if (isAny(region[field])) {
            return all_[field];
        }
        return *region[field];
    }

    Region regionOf(const ValueIds& ids) const;

    /// The packets of which `packet` may be one. A field that it cannot have is any: without a
    /// protocol, a port says that it is TCP or UDP.
    Region regionOf(const FWPACKET& packet) const;

    FWPACKETSET packetsOf(const Region& region) const;
    FWINTERFACES interfacesOf(IntervalView numbers) const {
        return interfaces_.interfacesOf(numbers);
    }

    Point pointOf(const Region& region) const;  ///< the first one
    FWPACKET packetOf(const Point& point) const;

    /// One that is easy to imagine, where a region has such a one.
    FWPACKET exampleOf(const Region& region) const;

private:
    explicit PacketSpace(std::vector<std::string> entries);

    std::uint32_t idOf(Field field, Intervals values);
    std::uint32_t idOf(Field field, const Values& values, std::uint64_t hash);
    std::uint32_t idOf(Field field, const std::shared_ptr<const FWADDRESSES>& addresses,
                       AddressIds& known);
    std::size_t slotOf(const Values& values, std::uint64_t hash) const;
    void growSlots();

    InterfaceNumbers interfaces_;
    std::array<Intervals, kFields> all_;
    std::vector<Values> values_{nullptr, valuesOf(Intervals())};  // by kAnyValue, kNoValue, ...
    std::vector<std::uint64_t> hashes_{0, 0};                     // of the values
    std::vector<std::uint32_t> slots_;  // ids, each at its hash or after it; 0 is free
};

}  // namespace FW
