#include "packetSpace.h"

#include <algorithm>
#include <map>
#include <utility>

#include "addressText.h"

namespace FW {
namespace {

constexpr char kEveryName[] = "+";

// Lists with more intervals are those of countries: many rules share them.
constexpr std::size_t kLongList = 64;

constexpr Number kTcp = 6;
constexpr Number kUdp = 17;
constexpr Number kIcmp = 1;
constexpr Number kIcmpv6 = 58;

bool isBeginning(const std::string& entry) {
    return !entry.empty() && entry.back() == '+';
}

/// What the names of an entry begin with.
std::string startOf(const std::string& entry) {
    return isBeginning(entry) ? entry.substr(0, entry.size() - 1) : entry;
}

/// A beginning comes before the name that consists of it alone.
bool comesBefore(const std::string& a, const std::string& b) {
    const int order = startOf(a).compare(startOf(b));
    return order != 0 ? order < 0 : isBeginning(a) && !isBeginning(b);
}

bool fits(const std::string& entry, const std::string& name) {
    return isBeginning(entry) ? name.compare(0, entry.size() - 1, entry, 0, entry.size() - 1) == 0
                              : entry == name;
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

Intervals bitsOf(std::uint8_t mask) {
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
    if (values == nullptr) {
        return nullptr;
    }
    auto addresses = std::make_shared<FWADDRESSES>();
    addresses->reserve(values->size());
    for (const Interval& one : *values) {
        addresses->push_back({addressOf(one.first), addressOf(one.last)});
    }
    return addresses;
}

std::uint64_t hashOf(const Intervals& values) {
    std::uint64_t hash = values.size();
    const auto mix = [&hash](Number number) {
        for (const auto half :
             {static_cast<std::uint64_t>(number >> 64), static_cast<std::uint64_t>(number)}) {
            hash = (hash ^ half) * 0x9e3779b97f4a7c15U;
            hash ^= hash >> 29;
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
    return std::make_shared<Intervals>(Intervals{{number, number}});
}

}  // namespace

// ---- Interfaces ----

InterfaceNumbers::InterfaceNumbers(std::vector<std::string> entries)
    : entries_(std::move(entries)) {
    std::sort(entries_.begin(), entries_.end(), comesBefore);
    entries_.erase(std::unique(entries_.begin(), entries_.end()), entries_.end());
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        std::size_t end = i + 1;
        while (isBeginning(entries_[i]) && end < entries_.size() &&
               fits(entries_[i], startOf(entries_[end]))) {
            ++end;
        }
        ends_.push_back(end);
    }
}

std::size_t InterfaceNumbers::indexOf(const std::string& entry) const {
    return static_cast<std::size_t>(
        std::lower_bound(entries_.begin(), entries_.end(), entry, comesBefore) - entries_.begin());
}

bool InterfaceNumbers::hasAll(const FWINTERFACES& interfaces) const {
    const auto has = [this](const std::string& entry) {
        return std::binary_search(entries_.begin(), entries_.end(), entry, comesBefore);
    };
    return std::all_of(interfaces.names.begin(), interfaces.names.end(), has) &&
           std::all_of(interfaces.except.begin(), interfaces.except.end(), has);
}

Number InterfaceNumbers::numberOf(const std::string& name) const {
    // Of the entries that fit, the last one is the longest.
    std::size_t index = indexOf(name);
    if (index == entries_.size() || entries_[index] != name) {
        --index;  // at least "+" comes before every name
    }
    while (!fits(entries_[index], name)) {
        --index;
    }
    return index;
}

Intervals InterfaceNumbers::numbersOf(const FWINTERFACES& interfaces) const {
    std::map<std::size_t, bool> included;  // by entry, in their order: shorter ones first
    for (const std::string& entry : interfaces.except) {
        included[indexOf(entry)] = false;
    }
    for (const std::string& entry : interfaces.names) {
        included[indexOf(entry)] = true;
    }
    Intervals numbers;
    for (const auto& [index, isIn] : included) {
        const Intervals entry = {{index, ends_[index] - 1}};
        numbers = isIn ? united(numbers, entry) : without(numbers, entry);
    }
    return numbers;
}

FWINTERFACES InterfaceNumbers::interfacesOf(const Intervals& numbers) const {
    // Each entry whose membership differs from that of the next shorter one.
    FWINTERFACES interfaces;
    std::vector<std::pair<std::size_t, bool>> enclosing;  // their ends, and whether they are in
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        while (!enclosing.empty() && enclosing.back().first <= i) {
            enclosing.pop_back();
        }
        const bool isIn = contains(numbers, i);
        if (isIn != (!enclosing.empty() && enclosing.back().second)) {
            (isIn ? interfaces.names : interfaces.except).push_back(entries_[i]);
        }
        enclosing.emplace_back(ends_[i], isIn);
    }
    return interfaces;
}

std::string InterfaceNumbers::exampleOf(Number number) const {
    const std::string& entry = entries_[static_cast<std::size_t>(number)];
    if (!isBeginning(entry)) {
        return entry;
    }
    std::string name = startOf(entry);
    for (int i = 0; name.empty() || numberOf(name) != number; ++i) {
        name = startOf(entry) + (entry == kEveryName ? "any" : "") + std::to_string(i);
    }
    return name;
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
    if (values.empty() || values == all_[field]) {
        return 0;
    }
    values.shrink_to_fit();
    const std::uint64_t hash = hashOf(values);
    return idOf(field, std::make_shared<const Intervals>(std::move(values)), hash);
}

std::uint32_t PacketSpace::idOf(Field field, const Values& values, std::uint64_t hash) {
    if (*values == all_[field]) {
        return 0;
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
    for (std::uint32_t id = 1; id < values_.size(); ++id) {
        slots_[slotOf(values_[id], hashes_[id])] = id;
    }
}

std::uint32_t PacketSpace::idOf(Field field, const std::shared_ptr<const FWADDRESSES>& addresses,
                                AddressIds& known) {
    if (addresses == nullptr) {
        return 0;
    }
    const bool isLong = addresses->size() > kLongList;
    if (isLong) {
        const auto found = known.find(addresses.get());
        if (found != known.end()) {
            return found->second;
        }
    }
    Intervals numbers;
    numbers.reserve(addresses->size());
    for (const FWADDRESSINTERVAL& one : *addresses) {
        numbers.push_back({numberOf(one.first), numberOf(one.last)});
    }
    const std::uint32_t id = idOf(field, std::move(numbers));
    if (isLong) {
        known.emplace(addresses.get(), id);
    }
    return id;
}

ValueIds PacketSpace::add(const FWPACKETSET& set, AddressIds& known) {
    ValueIds ids{};
    ids[kChain] = idOf(kChain, bitsOf(set.chains));
    ids[kFamily] = idOf(kFamily, bitsOf(set.families));
    if (set.in != nullptr) {
        ids[kIn] = idOf(kIn, interfaces_.numbersOf(*set.in));
    }
    if (set.out != nullptr) {
        ids[kOut] = idOf(kOut, interfaces_.numbersOf(*set.out));
    }
    ids[kProtocol] = idOf(kProtocol, intervalsOf(set.protocols));
    ids[kSource] = idOf(kSource, set.sources, known);
    ids[kDestination] = idOf(kDestination, set.destinations, known);
    ids[kSourcePort] = idOf(kSourcePort, intervalsOf(set.sourcePorts));
    ids[kDestinationPort] = idOf(kDestinationPort, intervalsOf(set.destinationPorts));
    ids[kIcmpType] = idOf(kIcmpType, intervalsOf(set.icmpTypes));
    ids[kState] = idOf(kState, bitsOf(set.states));
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
            const bool ipv4 = packet.family == FW_FAMILY_V4;
            region[field] = std::make_shared<Intervals>(
                Intervals{{first, ipv4 ? first | kMaxNumber >> 32 : first}});
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
            region[kProtocol] = std::make_shared<Intervals>(Intervals{{kTcp, kTcp}, {kUdp, kUdp}});
        }
        set(kSourcePort, packet.sourcePort);
        set(kDestinationPort, packet.destinationPort);
    } else if (packet.protocol ? *packet.protocol == kIcmp || *packet.protocol == kIcmpv6
                               : packet.icmpType.has_value()) {
        if (!packet.protocol) {
            region[kProtocol] =
                std::make_shared<Intervals>(Intervals{{kIcmp, kIcmp}, {kIcmpv6, kIcmpv6}});
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
        point[field] = (isAny(region[field]) ? all_[field] : *region[field]).front().first;
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

// ---- Regions ----

namespace {

// The order in which fields are compared: first those that differ most often and take the least
// time. Countries have thousands of addresses.
constexpr Field kQuickFirst[] = {kIn,         kProtocol, kDestinationPort, kSourcePort, kFamily,
                                 kChain,      kOut,      kIcmpType,        kState,      kSource,
                                 kDestination};
static_assert(sizeof(kQuickFirst) / sizeof(kQuickFirst[0]) == kFields);

}  // namespace

bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id == 0 || isAny(region[field])) {
            continue;
        }
        const Values& values = space.values(id);
        if (values != region[field] && !overlaps(*values, *region[field])) {
            return false;
        }
    }
    return true;
}

bool OverlapTest::operator()(const SpaceRule& rule) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        const Values& own = region_[field];
        if (id == 0 || isAny(own)) {
            continue;
        }
        const Values& values = space_.values(id);
        if (values != own &&
            !(values->size() > kLongList ? overlapsLong(field, id) : overlaps(*values, *own))) {
            return false;
        }
    }
    return true;
}

bool OverlapTest::overlapsLong(Field field, std::uint32_t id) {
    for (const Known& known : known_) {
        if (known.id == id && known.field == field) {
            return known.overlaps;
        }
    }
    const Values& values = space_.values(id);
    const Values& own = region_[field];
    const bool found = shared_ != nullptr && own->size() > kLongList ? shared_->overlap(values, own)
                                                                     : overlaps(*values, *own);
    known_.push_back({field, id, found});
    return found;
}

bool LongOverlaps::overlap(const Values& a, const Values& b) {
    const auto known = known_.find({a, b});
    return known != known_.end() ? known->second
                                 : known_.emplace(std::pair(a, b), overlaps(*a, *b)).first->second;
}

bool covers(const PacketSpace& space, const SpaceRule& rule, const Region& region) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        if (isAny(region[field]) ||
            (values != region[field] && !includes(*values, *region[field]))) {
            return false;
        }
    }
    return true;
}

bool contains(const PacketSpace& space, const SpaceRule& rule, const Point& point) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id != 0 && !contains(*space.values(id), point[field])) {
            return false;
        }
    }
    return true;
}

Region intersected(const PacketSpace& space, const Region& region, const SpaceRule& rule) {
    Region common = region;
    for (std::size_t field = 0; field < kFields; ++field) {
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        if (isAny(region[field]) || values == region[field]) {
            common[field] = values;
        } else if (!includes(*values, *region[field])) {
            common[field] = std::make_shared<const Intervals>(intersected(*region[field], *values));
        }
    }
    return common;
}

void appendWithout(const PacketSpace& space, Region region, const SpaceRule& rule,
                   std::vector<Region>& rest) {
    for (std::size_t at = 0; at < kFields; ++at) {
        const auto field = static_cast<Field>(at);
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        const Intervals& own = isAny(region[field]) ? space.all(field) : *region[field];
        Intervals outside = without(own, *values);
        if (outside.empty()) {
            continue;
        }
        Region piece = region;
        piece[field] = std::make_shared<const Intervals>(std::move(outside));
        rest.push_back(std::move(piece));
        region[field] = isAny(region[field])
                            ? values
                            : std::make_shared<const Intervals>(intersected(own, *values));
    }
}

int compare(const Values& a, const Values& b) {
    if (a == b) {
        return 0;
    }
    if (isAny(a) || isAny(b)) {
        return isAny(a) ? -1 : 1;
    }
    if (a->size() != b->size()) {
        return a->size() < b->size() ? -1 : 1;
    }
    for (std::size_t i = 0; i < a->size(); ++i) {
        const Interval& one = (*a)[i];
        const Interval& other = (*b)[i];
        if (!(one == other)) {
            return one.first < other.first || (one.first == other.first && one.last < other.last)
                       ? -1
                       : 1;
        }
    }
    return 0;
}

namespace {

/// Joins the regions that differ in `field` only.
void joinAlong(const PacketSpace& space, Field field, std::vector<Region>& regions) {
    const auto compareOthers = [field](const Region& a, const Region& b) {
        for (std::size_t other = 0; other < kFields; ++other) {
            const int order = other == field ? 0 : compare(a[other], b[other]);
            if (order != 0) {
                return order;
            }
        }
        return 0;
    };
    std::stable_sort(regions.begin(), regions.end(),
                     [&](const Region& a, const Region& b) { return compareOthers(a, b) < 0; });
    std::vector<Region> joined;
    for (std::size_t i = 0; i < regions.size();) {
        Region region = regions[i];
        // The same number is another address in the other family.
        if (field == kFamily && (!isAny(region[kSource]) || !isAny(region[kDestination]))) {
            joined.push_back(std::move(region));
            ++i;
            continue;
        }
        Intervals values;
        bool any = false;
        std::size_t next = i;
        for (; next < regions.size() && compareOthers(region, regions[next]) == 0; ++next) {
            if (isAny(regions[next][field])) {
                any = true;
            } else {
                values.insert(values.end(), regions[next][field]->begin(),
                              regions[next][field]->end());
            }
        }
        if (next > i + 1) {
            normalize(values);
            any = any || values == space.all(field);
            region[field] = any ? nullptr : std::make_shared<const Intervals>(std::move(values));
        }
        joined.push_back(std::move(region));
        i = next;
    }
    regions = std::move(joined);
}

/// Which part of all packets a region is.
long double sizeOf(const PacketSpace& space, const Region& region) {
    long double size = 1;
    for (std::size_t field = 0; field < kFields; ++field) {
        if (isAny(region[field])) {
            continue;
        }
        long double count = 0;
        for (const Interval& one : *region[field]) {
            count += static_cast<long double>(one.last - one.first) + 1;
        }
        const Interval& all = space.all(static_cast<Field>(field)).front();
        size *= count / (static_cast<long double>(all.last) + 1);
    }
    return size;
}

}  // namespace

void join(const PacketSpace& space, std::vector<Region>& regions) {
    for (std::size_t before = 0; before != regions.size() && regions.size() > 1;) {
        before = regions.size();
        for (std::size_t field = kFields; field > 0; --field) {
            joinAlong(space, static_cast<Field>(field - 1), regions);
        }
    }
    std::stable_sort(regions.begin(), regions.end(), [&](const Region& a, const Region& b) {
        return sizeOf(space, a) > sizeOf(space, b);
    });
}

}  // namespace FW
