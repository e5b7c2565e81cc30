#include "packetSpace.h"

#include <algorithm>
#include <map>
#include <utility>

namespace FW {
namespace {

/// The protocols whose packets have ports, and those with types.
Intervals portProtocols() {
    return {{kTcp, kTcp}, {kUdp, kUdp}};
}
Intervals typeProtocols() {
    return {{kIcmp, kIcmp}, {kIcmpv6, kIcmpv6}};
}

// ---- Plain data to numbers and back ----

Intervals intervalsOf(const FWINTERVALS& intervals) {
    Intervals numbers;
    numbers.reserve(intervals.size());
    for (const FWINTERVAL& one : intervals) {
        numbers.push_back({one.first, one.last});
    }
    return numbers;
}

FWINTERVALS plain(const Values& values) {
    FWINTERVALS intervals;
    if (values != nullptr) {
        for (const Interval& one : *values) {
            intervals.push_back(
                {static_cast<std::uint16_t>(one.first), static_cast<std::uint16_t>(one.last)});
        }
    }
    return intervals;
}

Intervals bitsOf(unsigned mask) {
    Intervals numbers;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if ((mask >> bit & 1) != 0) {
            numbers.push_back({bit, bit});
        }
    }
    normalize(numbers);
    return numbers;
}

std::uint8_t maskOf(const Values& values, std::uint8_t all) {
    if (values == nullptr) {
        return all;
    }
    unsigned mask = 0;
    for (const Interval& one : *values) {
        for (Number bit = one.first; bit <= one.last; ++bit) {
            mask |= 1U << static_cast<unsigned>(bit);
        }
    }
    return static_cast<std::uint8_t>(mask);
}

std::shared_ptr<const FWADDRESSES> plainAddresses(const Values& values) {
    return isAny(values) ? nullptr : values->addresses();
}

std::uint64_t hashOf(IntervalView values) {
    std::uint64_t hash = values.size();
    const auto mix = [&hash](Number number) {
        for (const auto half :
             {static_cast<std::uint64_t>(number >> 64), static_cast<std::uint64_t>(number)}) {
            hash = mixedHash(hash, half);
        }
    };
    for (const Interval& one : values) {
        mix(one.first);
        mix(one.last);
    }
    return hash;
}

std::vector<std::string> entriesOf(const std::vector<FWRESOLVEDRULE>& rules) {
    std::vector<std::string> entries = {kEveryName};
    const FWINTERFACES* previous = nullptr;
    for (const FWRESOLVEDRULE& rule : rules) {
        for (const auto& interfaces : {rule.packets.in.get(), rule.packets.out.get()}) {
            if (interfaces == nullptr || interfaces == previous) {
                continue;
            }
            entries.insert(entries.end(), interfaces->names.begin(), interfaces->names.end());
            entries.insert(entries.end(), interfaces->except.begin(), interfaces->except.end());
            previous = interfaces;
        }
    }
    return entries;
}

std::vector<std::string> joined(std::vector<std::string> entries,
                                const std::vector<std::string>& more) {
    entries.insert(entries.end(), more.begin(), more.end());
    return entries;
}

Values single(Number number) {
    return valuesOf(Interval{number, number});
}

/// The protocols of a set: only those that have its other fields.
Intervals protocolsOf(const FWPACKETSET& set, const Intervals& all) {
    Intervals protocols = set.protocols.empty() ? all : intervalsOf(set.protocols);
    if (!set.sourcePorts.empty() || !set.destinationPorts.empty()) {
        protocols = intersected(protocols, portProtocols());
    }
    if (!set.icmpTypes.empty()) {
        protocols = intersected(protocols, typeProtocols());
    }
    return protocols;
}

}  // namespace

// ---- Values

ValueSet::ValueSet(const Interval& one) : IntervalView(one_), one_(one) {}

ValueSet::ValueSet(std::shared_ptr<const Intervals> own)
    : IntervalView(*own), list_(std::move(own)) {}

ValueSet::ValueSet(std::shared_ptr<const FWADDRESSES> list)
    : IntervalView(*list), list_(std::move(list)) {}

Values valuesOf(Intervals intervals) {
    return intervals.size() == 1 ? valuesOf(intervals.front())
                                 : std::make_shared<const ValueSet>(
                                       std::make_shared<const Intervals>(std::move(intervals)));
}

std::shared_ptr<const FWADDRESSES> ValueSet::addresses() const {
    if (isOfAddresses()) {
        return std::static_pointer_cast<const FWADDRESSES>(list_);
    }
    return std::make_shared<const FWADDRESSES>(addressesOf(*this));
}

// ---- The space ----

PacketSpace::PacketSpace(const std::vector<FWRESOLVEDRULE>& rules)
    : PacketSpace(entriesOf(rules)) {}

PacketSpace::PacketSpace(const PacketSpace& space, const std::vector<std::string>& more)
    : PacketSpace(joined(space.interfaceEntries(), more)) {}

PacketSpace::PacketSpace(std::vector<std::string> entries) : interfaces_(std::move(entries)) {
    all_[kChain] = all_[kFamily] = {{0, 1}};
    all_[kIn] = all_[kOut] = {{0, interfaces_.greatest()}};
    all_[kProtocol] = all_[kIcmpType] = {{0, 255}};
    all_[kSource] = all_[kDestination] = {{0, kMaxNumber}};
    all_[kSourcePort] = all_[kDestinationPort] = {{0, 65535}};
    all_[kState] = {{FW_STATE_NEW, FW_STATE_UNTRACKED}};
}

std::uint32_t PacketSpace::idOf(Field field, Intervals values) {
    if (values.empty()) {
        return kNoValue;
    }
    if (values == all_[field]) {
        return kAnyValue;
    }
    values.shrink_to_fit();
    const std::uint64_t hash = hashOf(values);
    return idOf(field, valuesOf(std::move(values)), hash);
}

std::uint32_t PacketSpace::idOf(Field field, const Values& values, std::uint64_t hash) {
    if (*values == all_[field]) {
        return kAnyValue;
    }
    if (values_.size() * 2 >= slots_.size()) {
        growSlots();
    }
    std::uint32_t& slot = slots_[slotOf(values, hash)];
    if (slot == 0) {
        slot = static_cast<std::uint32_t>(values_.size());
        values_.push_back(values);
        hashes_.push_back(hash);
    }
    return slot;
}

void PacketSpace::finish() {
    slots_ = {};
    values_.shrink_to_fit();
    hashes_.shrink_to_fit();
}

/// Where the id of values is, or is to be.
std::size_t PacketSpace::slotOf(const Values& values, std::uint64_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = hash & mask;
    while (slots_[at] != 0) {
        const std::uint32_t id = slots_[at];
        if (values_[id] == values || (hashes_[id] == hash && *values_[id] == *values)) {
            break;
        }
        at = (at + 1) & mask;
    }
    return at;
}

void PacketSpace::growSlots() {
    std::size_t count = std::max<std::size_t>(slots_.size() * 2, 64);
    while (count <= values_.size() * 2) {
        count *= 2;
    }
    slots_.assign(count, 0);
    for (std::uint32_t id = kNoValue + 1; id < values_.size(); ++id) {
        slots_[slotOf(values_[id], hashes_[id])] = id;
    }
}

std::uint32_t PacketSpace::idOf(Field field, const std::shared_ptr<const FWADDRESSES>& addresses,
                                AddressIds& known) {
    if (addresses == nullptr || addresses->empty()) {
        return kAnyValue;
    }
    const bool isLong = addresses->size() > kLongList;
    if (isLong) {
        const auto found = known.find(addresses.get());
        if (found != known.end()) {
            return found->second;
        }
    }
    const Values values = addresses->size() == 1 ? valuesOf(intervalOf(addresses->front()))
                                                 : std::make_shared<const ValueSet>(addresses);
    const std::uint32_t id = idOf(field, values, hashOf(*values));
    if (isLong) {
        known.emplace(addresses.get(), id);
    }
    return id;
}

ValueIds PacketSpace::add(const FWPACKETSET& set, AddressIds& known) {
    ValueIds ids{};
    const auto setPlain = [&](Field field, const FWINTERVALS& values) {
        if (!values.empty()) {
            ids[field] = idOf(field, intervalsOf(values));
        }
    };
    ids[kChain] = idOf(kChain, bitsOf(set.chains & FW_BOTH_CHAINS));
    ids[kFamily] = idOf(kFamily, bitsOf(set.families & FW_BOTH_FAMILIES));
    if (set.in != nullptr) {
        ids[kIn] = idOf(kIn, interfaces_.numbersOf(*set.in));
    }
    if (set.out != nullptr) {
        ids[kOut] = idOf(kOut, interfaces_.numbersOf(*set.out));
    }
    ids[kProtocol] = idOf(kProtocol, protocolsOf(set, all_[kProtocol]));
    ids[kSource] = idOf(kSource, set.sources, known);
    ids[kDestination] = idOf(kDestination, set.destinations, known);
    setPlain(kSourcePort, set.sourcePorts);
    setPlain(kDestinationPort, set.destinationPorts);
    setPlain(kIcmpType, set.icmpTypes);
    ids[kState] = idOf(kState, bitsOf(set.states & FW_ALL_STATES));
    if (std::find(ids.begin(), ids.end(), kNoValue) != ids.end()) {
        ids = {};
        ids[kIn] = kNoValue;
    }
    return ids;
}

std::vector<SpaceRule> PacketSpace::addAll(const PacketSpace& other,
                                           const std::vector<SpaceRule>& rules) {
    // Interfaces may have other numbers here. The same values in both kinds of fields are looked up
    // apart.
    constexpr std::uint32_t kUnknown = ~std::uint32_t(0);
    std::array<std::vector<std::uint32_t>, 2> ids;
    ids.fill(std::vector<std::uint32_t>(other.values_.size(), kUnknown));
    ids[0][0] = ids[1][0] = 0;
    std::vector<SpaceRule> added = rules;
    for (SpaceRule& rule : added) {
        for (std::size_t at = 0; at < kFields; ++at) {
            const auto field = static_cast<Field>(at);
            const bool isInterface = field == kIn || field == kOut;
            std::uint32_t& id = ids[isInterface ? 1 : 0][rule.values[field]];
            if (id == kUnknown) {
                const Values& values = other.values_[rule.values[field]];
                id = isInterface ? idOf(field, interfaces_.numbersOf(other.interfacesOf(*values)))
                                 : idOf(field, values, other.hashes_[rule.values[field]]);
            }
            rule.values[field] = id;
        }
    }
    return added;
}

Region PacketSpace::regionOf(const ValueIds& ids) const {
    Region region;
    for (std::size_t field = 0; field < kFields; ++field) {
        region[field] = values_[ids[field]];
    }
    return region;
}

Region PacketSpace::regionOf(const FWPACKET& packet) const {
    Region region;
    const auto set = [&region](Field field, const auto& value) {
        if (value) {
            region[field] = single(*value);
        }
    };
    // An address is the interval that begins with it.
    const auto setAddress = [&](Field field, const std::optional<FWADDRESS>& address) {
        if (address) {
            const Number first = numberOf(*address);
            const FW_FAMILY family = packet.family.value_or(FW_FAMILY_V6);
            region[field] = valuesOf(Interval{first, lastOf(first, family)});
        }
    };
    set(kChain, packet.chain);
    set(kFamily, packet.family);
    if (packet.in) {
        region[kIn] = single(interfaces_.numberOf(*packet.in));
    }
    if (packet.out && packet.chain != FW_CHAIN_INPUT) {
        region[kOut] = single(interfaces_.numberOf(*packet.out));
    }
    set(kProtocol, packet.protocol);
    setAddress(kSource, packet.source);
    setAddress(kDestination, packet.destination);
    const bool hasPort = packet.sourcePort || packet.destinationPort;
    if (packet.protocol ? *packet.protocol == kTcp || *packet.protocol == kUdp : hasPort) {
        if (!packet.protocol) {
            region[kProtocol] = valuesOf(portProtocols());
        }
        set(kSourcePort, packet.sourcePort);
        set(kDestinationPort, packet.destinationPort);
    } else if (packet.protocol ? *packet.protocol == kIcmp || *packet.protocol == kIcmpv6
                               : packet.icmpType.has_value()) {
        if (!packet.protocol) {
            region[kProtocol] = valuesOf(typeProtocols());
        }
        set(kIcmpType, packet.icmpType);
    }
    set(kState, packet.state);
    return region;
}

FWPACKETSET PacketSpace::packetsOf(const Region& region) const {
    FWPACKETSET set;
    set.chains = maskOf(region[kChain], FW_BOTH_CHAINS);
    set.families = maskOf(region[kFamily], FW_BOTH_FAMILIES);
    const auto interfaces = [&](Field field) -> std::shared_ptr<const FWINTERFACES> {
        return isAny(region[field])
                   ? nullptr
                   : std::make_shared<FWINTERFACES>(interfaces_.interfacesOf(*region[field]));
    };
    set.in = interfaces(kIn);
    set.out = interfaces(kOut);
    set.protocols = plain(region[kProtocol]);
    set.sources = plainAddresses(region[kSource]);
    set.destinations = plainAddresses(region[kDestination]);
    set.sourcePorts = plain(region[kSourcePort]);
    set.destinationPorts = plain(region[kDestinationPort]);
    set.icmpTypes = plain(region[kIcmpType]);
    set.states = maskOf(region[kState], FW_ALL_STATES);
    return set;
}

Point PacketSpace::pointOf(const Region& region) const {
    Point point;
    for (std::size_t field = 0; field < kFields; ++field) {
        point[field] = valuesIn(region, static_cast<Field>(field)).front().first;
    }
    return point;
}

FWPACKET PacketSpace::packetOf(const Point& point) const {
    FWPACKET packet;
    packet.chain = static_cast<FW_CHAIN>(point[kChain]);
    packet.family = static_cast<FW_FAMILY>(point[kFamily]);
    packet.in = interfaces_.exampleOf(point[kIn]);
    if (packet.chain == FW_CHAIN_FORWARD) {
        packet.out = interfaces_.exampleOf(point[kOut]);
    }
    const Number protocol = point[kProtocol];
    packet.protocol = static_cast<std::uint8_t>(protocol);
    packet.source = addressOf(point[kSource]);
    packet.destination = addressOf(point[kDestination]);
    if (protocol == kTcp || protocol == kUdp) {
        packet.sourcePort = static_cast<std::uint16_t>(point[kSourcePort]);
        packet.destinationPort = static_cast<std::uint16_t>(point[kDestinationPort]);
    } else if (protocol == kIcmp || protocol == kIcmpv6) {
        packet.icmpType = static_cast<std::uint8_t>(point[kIcmpType]);
    }
    packet.state = static_cast<FW_STATE>(point[kState]);
    return packet;
}

FWPACKET PacketSpace::exampleOf(const Region& region) const {
    Point point = pointOf(region);
    const auto prefer = [&](Field field, const std::vector<Number>& wanted) {
        const IntervalView values = valuesIn(region, field);
        const auto found = std::find_if(wanted.begin(), wanted.end(),
                                        [&](Number number) { return contains(values, number); });
        if (found != wanted.end()) {
            point[field] = *found;
        }
    };
    std::vector<Number> names;  // rather than beginnings of names
    for (std::size_t i = 0; i < interfaces_.entries().size(); ++i) {
        if (interfaces_.entries()[i].back() != '+') {
            names.push_back(i);
        }
    }
    prefer(kIn, names);
    prefer(kOut, names);
    prefer(kProtocol, {kTcp, kUdp, point[kFamily] == FW_FAMILY_V4 ? kIcmp : kIcmpv6});
    const std::vector<Number> hosts =
        point[kFamily] == FW_FAMILY_V4
            ? std::vector<Number>{ipv4Number(0xc0000201), ipv4Number(0xc0000202)}
            : std::vector<Number>{Number(0x20010db8) << 96 | 1, Number(0x20010db8) << 96 | 2};
    prefer(kSource, hosts);
    prefer(kDestination, {hosts[1], hosts[0]});
    prefer(kSourcePort, {50000, 1});
    prefer(kDestinationPort, {1});
    return packetOf(point);
}

}  // namespace FW
