/// Sets of packets as sets of numbers: the form in which all operations work on rules.
#pragma once

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

#include "intervals.h"

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

/// The values of one field; null for any.
using Values = std::shared_ptr<const Intervals>;

/// A set of packets: those with one of the values in every field.
using Region = std::array<Values, kFields>;

/// A packet: one value of every field. What it does not have is 0.
using Point = std::array<Number, kFields>;

/// A set of packets whose values are kept by a PacketSpace, by their number there; 0 for any.
using ValueIds = std::array<std::uint32_t, kFields>;

/// A resolved rule.
struct SpaceRule {
    ValueIds values;
    FW_PACKET_VERDICT verdict;
    bool log;
};

/// Numbers the interfaces that rules name. Each entry of their sets has a number, for the names
/// that no longer entry fits. A beginning of names comes directly before the entries that begin
/// with it, so every set is a few intervals.
class InterfaceNumbers {
public:
    explicit InterfaceNumbers(std::vector<std::string> entries);

    const std::vector<std::string>& entries() const { return entries_; }

    bool hasAll(const FWINTERFACES& interfaces) const;
    Number numberOf(const std::string& name) const;
    Intervals numbersOf(const FWINTERFACES& interfaces) const;
    FWINTERFACES interfacesOf(const Intervals& numbers) const;

    /// A name with this number.
    std::string exampleOf(Number number) const;

    Number greatest() const { return entries_.size() - 1; }

private:
    std::size_t indexOf(const std::string& entry) const;

    std::vector<std::string> entries_;  // sorted; the first is "+"
    std::vector<std::size_t> ends_;     // by entry: one past those that begin with it
};

/// Keeps values of fields, equal ones once. Copies share them.
class PacketSpace {
public:
    /// Long lists of addresses that were added, so that each is added once.
    using AddressIds = std::unordered_map<const FWADDRESSES*, std::uint32_t>;

    /// Tells the interfaces of these rules apart.
    explicit PacketSpace(const std::vector<FWRESOLVEDRULE>& rules);

    /// Tells those apart that `space` does, and all entries of `more`.
    PacketSpace(const PacketSpace& space, const std::vector<std::string>& more);

    /// The entries of all interfaces, and whether `interfaces` consists of them.
    const std::vector<std::string>& interfaceEntries() const { return interfaces_.entries(); }
    bool knows(const FWINTERFACES& interfaces) const { return interfaces_.hasAll(interfaces); }

    ValueIds add(const FWPACKETSET& set, AddressIds& known);

    /// Frees what only adding needs; more can be added later.
    void finish();

    /// The rules of another space, in this one. Its interfaces have to be known here.
    std::vector<SpaceRule> addAll(const PacketSpace& other, const std::vector<SpaceRule>& rules);

    const Values& values(std::uint32_t id) const { return values_[id]; }
    const Intervals& all(Field field) const { return all_[field]; }

    Region regionOf(const ValueIds& ids) const;

    /// The packets of which `packet` may be one. A field that it cannot have is any: without a
    /// protocol, a port says that it is TCP or UDP.
    Region regionOf(const FWPACKET& packet) const;

    FWPACKETSET packetsOf(const Region& region) const;
    FWINTERFACES interfacesOf(const Intervals& numbers) const {
        return interfaces_.interfacesOf(numbers);
    }

    Point pointOf(const Region& region) const;  ///< the first one
    FWPACKET packetOf(const Point& point) const;

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
    std::vector<Values> values_{nullptr};
    std::vector<std::uint64_t> hashes_{0};  // of the values
    std::vector<std::uint32_t> slots_;      // ids, each at its hash or after it; 0 is free
};

// ---- Regions ----

inline bool isAny(const Values& values) {
    return values == nullptr;
}

/// Whether a region and a rule have a packet in common.
bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule);

/// Whether long lists of addresses overlap; compares two lists once.
class LongOverlaps {
public:
    bool overlap(const Values& a, const Values& b);

private:
    std::map<std::pair<Values, Values>, bool> known_;
};

/// The same for many rules and one region. Compares with long lists of addresses, which many rules
/// share, only once.
class OverlapTest {
public:
    /// With `shared`, also what other regions showed; it keeps their lists.
    OverlapTest(const PacketSpace& space, const Region& region, LongOverlaps* shared = nullptr)
        : space_(space), region_(region), shared_(shared) {}

    bool operator()(const SpaceRule& rule);

private:
    bool overlapsLong(Field field, std::uint32_t id);

    struct Known {
        Field field;
        std::uint32_t id;
        bool overlaps;
    };
    const PacketSpace& space_;
    const Region& region_;
    LongOverlaps* shared_;
    std::vector<Known> known_;
};

/// Whether a rule has every packet of a region.
bool covers(const PacketSpace& space, const SpaceRule& rule, const Region& region);

bool contains(const PacketSpace& space, const SpaceRule& rule, const Point& point);

/// The packets that a region and a rule have in common, where they overlap.
Region intersected(const PacketSpace& space, const Region& region, const SpaceRule& rule);

/// Appends the packets of a region that a rule does not have, as disjoint regions.
void appendWithout(const PacketSpace& space, Region region, const SpaceRule& rule,
                   std::vector<Region>& rest);

/// An order of values by content; below 0, 0 or above.
int compare(const Values& a, const Values& b);

/// Joins regions that differ in one field only, again and again. The result covers the same
/// packets with fewer regions, the largest first; it is disjoint when they are.
void join(const PacketSpace& space, std::vector<Region>& regions);

}  // namespace FW
