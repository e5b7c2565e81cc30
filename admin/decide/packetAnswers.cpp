#include "tarnfwadmin/packetAnswers.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <set>
#include <utility>

#include "decide/addressWords.h"
#include "rules/portWords.h"
#include "tarnfwadmin/deciders.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using FW::FWPLACE;
using FW::FWRESOLVEDRULE;

// No interface of the kernel has a '/' in its name.
constexpr char kOtherInterface[] = "/";
constexpr char kOtherTunnel[] = "tun/";

constexpr std::uint64_t kLowerHalf = 0xffffffff;
constexpr std::uint64_t kEveryBit = ~std::uint64_t{0};

constexpr std::uint8_t kNewMask = 1U << FW::FW_STATE_NEW;

/// Whether a rule for IPv4 addresses is one for all of IPv6 where it is repeated for a 6in4 tunnel:
/// ip6tables takes "10.0.0.0/0" for every address.
bool isTakenForAllOfIpv6(const FW::FWRULE& rule) {
    const std::string first = rule.ipList.empty() ? "" : rule.ipList[0];
    switch (rule.ipGroup) {
        case FW::FW_IP_GROUP_SINGLE:
            return isEveryIpv4Address(first);
        case FW::FW_IP_GROUP_NETWORK:
            return rule.ipList.size() > 1 && isEveryIpv4Address(first + "/" + rule.ipList[1]);
        default:
            return false;
    }
}

bool isDenied(const Meaning& meaning, std::size_t number) {
    return number < meaning.rules().size() && meaning.rules()[number].verdict == FW::FW_PACKET_DROP;
}

bool isOnly(const std::shared_ptr<const FW::FWINTERFACES>& interfaces, const std::string& name) {
    return interfaces != nullptr && interfaces->names == std::vector<std::string>{name};
}

bool fits(const std::string& entry, const std::string& name) {
    if (entry.empty()) {
        return false;
    }
    return entry.back() == '+' ? name.compare(0, entry.size() - 1, entry, 0, entry.size() - 1) == 0
                               : entry == name;
}

/// The length of the longest entry that fits; a name counts more than a beginning. 0: none fits.
std::size_t longestFit(const std::vector<std::string>& entries, const std::string& name) {
    std::size_t longest = 0;
    for (const std::string& entry : entries) {
        if (fits(entry, name)) {
            longest = std::max(longest, entry.back() == '+' ? entry.size() : name.size() + 2);
        }
    }
    return longest;
}

}  // namespace

FW::FWADDRESS addressNumber(const Address& address) {
    FW::FWADDRESS number;
    for (std::size_t i = 0; i < 8; ++i) {
        number.high = number.high << 8U | address.bytes()[i];
        number.low = number.low << 8U | address.bytes()[i + 8];
    }
    return number;
}

FW::FWADDRESSES onlyAddress(const Address& address) {
    const auto interval = FW::fwAddressFrom(spelled(address), familyOf(address));
    return interval ? FW::FWADDRESSES{*interval} : FW::FWADDRESSES();
}

std::optional<Address> packetAddressFrom(const std::string& text) {
    const std::optional<Address> address = addressFrom(text);
    return address ? std::optional(unmapped(*address)) : std::nullopt;
}

FW::FW_FAMILY familyOf(const Address& address) {
    return address.isIpv6() ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
}

std::string interfaceFor(const Meaning& meaning, const std::string& adapter) {
    if (adapter == FW::FW_ADAPTER_GLOBAL) {
        return kOtherInterface;
    }
    if (adapter == FW::FW_ADAPTER_VPN) {
        return kOtherTunnel;
    }
    const auto found = meaning.environment().adapters.find(adapter);
    const bool isOther = adapter == FW::FW_ADAPTER_PPPOE &&
                         found != meaning.environment().adapters.end() &&
                         !found->second.names.empty();
    return isOther ? found->second.names.front() : adapter;
}

bool isAmong(const FW::FWINTERFACES& interfaces, const std::string& name) {
    const std::size_t in = longestFit(interfaces.names, name);
    return in != 0 && in > longestFit(interfaces.except, name);
}

std::vector<std::string> tunnelOwners(const Meaning& meaning, const std::string& interface) {
    std::vector<std::string> owners;
    for (const auto& [adapter, tunnel] : meaning.environment().tunnels) {
        if (tunnel == interface && adapter != interface) {
            owners.push_back(adapter);
        }
    }
    return owners;
}

std::vector<std::string> notCounted(const Meaning& meaning) {
    std::vector<std::string> texts;
    for (const FW::FWFINDING& finding : meaning.findings()) {
        if (isNotCounted(finding)) {
            texts.push_back(placeText(finding.place) + " is not counted: " + finding.text);
        }
    }
    return texts;
}

// ---- One packet ----

PortPackets packetsFrom(const std::string& address, const std::string& port,
                        const std::string& interface) {
    const std::optional<Address> source = packetAddressFrom(address);
    if (!source) {
        throw Error(ErrorKind::kInvalid, inQuotes(address) + " is not an IP address");
    }
    const std::optional<ProtocolPorts> read = protocolPortsFrom(port);
    const std::optional<PortSpan> ports = read ? portEndsWritten(read->ports) : std::nullopt;
    if (!ports || ports->last < ports->first || read->protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
        throw Error(ErrorKind::kInvalid,
                    inQuotes(port) + " is not a port such as tcp/22 or udp/6000-6010");
    }
    PortPackets packets;
    packets.packet.chain = FW::FW_CHAIN_INPUT;
    packets.packet.family = familyOf(*source);
    packets.packet.in = interface;
    packets.packet.protocol =
        read->protocol == FW::FW_PORT_PROTOCOL_UDP ? IPPROTO_UDP : IPPROTO_TCP;
    packets.packet.source = addressNumber(*source);
    packets.packet.state = FW::FW_STATE_NEW;
    packets.ports = *ports;
    return packets;
}

namespace {

/// The beginnings of parts of `ports` that no rule cuts.
std::set<int> cuts(const Meaning& meaning, const PortSpan& ports) {
    std::set<int> begins = {ports.first};
    for (const FWRESOLVEDRULE& rule : meaning.rulesWithUncounted()) {
        for (const FW::FWINTERVAL& interval : rule.packets.destinationPorts) {
            for (const int begin : {int(interval.first), interval.last + 1}) {
                if (ports.first < begin && begin <= ports.last) {
                    begins.insert(begin);
                }
            }
        }
    }
    return begins;
}

/// The packets that are this one as far as it is known.
FW::FWPACKETSET packetSet(const FW::FWPACKET& packet, const std::optional<PortSpan>& ports) {
    FW::FWPACKETSET set;
    const auto only = [](const auto& number) {
        return number ? FW::FWINTERVALS{{*number, *number}} : FW::FWINTERVALS();
    };
    const auto interface = [](const std::optional<std::string>& name) {
        return name ? std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{*name}, {}}) : nullptr;
    };
    const auto address = [&packet](const std::optional<FW::FWADDRESS>& number) {
        // Of IPv4 the other bits are those of the interval.
        const bool isIpv4 = packet.family == FW::FW_FAMILY_V4;
        return number ? std::make_shared<FW::FWADDRESSES>(FW::FWADDRESSES{
                            {*number, isIpv4 ? FW::FWADDRESS{number->high | kLowerHalf, kEveryBit}
                                             : *number}})
                      : nullptr;
    };
    set.chains = packet.chain ? static_cast<std::uint8_t>(1U << *packet.chain) : set.chains;
    set.families = packet.family ? static_cast<std::uint8_t>(1U << *packet.family) : set.families;
    set.states = packet.state ? static_cast<std::uint8_t>(1U << *packet.state) : set.states;
    set.in = interface(packet.in);
    set.out = interface(packet.out);
    set.protocols = only(packet.protocol);
    set.sources = address(packet.source);
    set.destinations = address(packet.destination);
    set.sourcePorts = only(packet.sourcePort);
    set.destinationPorts = ports ? FW::FWINTERVALS{{static_cast<std::uint16_t>(ports->first),
                                                    static_cast<std::uint16_t>(ports->last)}}
                                 : only(packet.destinationPort);
    set.icmpTypes = only(packet.icmpType);
    return set;
}

/// Fills in the rules that are not counted.
void addUncounted(const Meaning& meaning, const FW::FWPACKET& packet, PortDecision& decision) {
    for (const UncountedRule& rule : uncountedFor(meaning, {packetSet(packet, decision.ports)})) {
        const bool isOpposite =
            rule.denied != decision.denied ||
            std::any_of(decision.unless.begin(), decision.unless.end(), [&](std::size_t number) {
                return isDenied(meaning, number) != rule.denied;
            });
        if (isOpposite) {
            decision.uncounted.push_back(rule);
        }
    }
}

PortDecision decisionFor(const Meaning& meaning, const FW::FWPACKET& packet) {
    const FW::FWDECISION found = meaning.answers().decide(packet);
    PortDecision decision;
    decision.by = found.deciders.back();
    decision.denied = isDenied(meaning, decision.by);
    decision.tooComplex = found.tooComplex;
    for (const std::size_t number : found.deciders) {
        const bool isKnown =
            !decision.unless.empty() &&
            isSamePlace(placeOf(meaning, decision.unless.back()), placeOf(meaning, number));
        if (isDenied(meaning, number) != decision.denied && !isKnown) {
            decision.unless.push_back(number);
        }
    }
    return decision;
}

bool isSameReason(const Meaning& meaning, const PortDecision& one, const PortDecision& other) {
    const auto isSame = [&meaning](std::size_t a, std::size_t b) {
        return a == b || (isSamePlace(placeOf(meaning, a), placeOf(meaning, b)) &&
                          tunnelOf(meaning, a) == tunnelOf(meaning, b));
    };
    return one.denied == other.denied && isSame(one.by, other.by) &&
           std::equal(one.unless.begin(), one.unless.end(), other.unless.begin(),
                      other.unless.end(), isSame) &&
           std::equal(one.uncounted.begin(), one.uncounted.end(), other.uncounted.begin(),
                      other.uncounted.end(), [](const auto& rule, const auto& same) {
                          return isSamePlace(rule.place, same.place);
                      });
}

}  // namespace

std::vector<PortDecision> decisionsFor(const Meaning& meaning, const PortPackets& packets) {
    if (!packets.ports) {
        PortDecision decision = decisionFor(meaning, packets.packet);
        addUncounted(meaning, packets.packet, decision);
        return {decision};
    }
    const std::set<int> begins = cuts(meaning, *packets.ports);
    std::vector<PortDecision> decisions;
    for (auto begin = begins.begin(); begin != begins.end(); ++begin) {
        const auto next = std::next(begin);
        FW::FWPACKET packet = packets.packet;
        packet.destinationPort = static_cast<std::uint16_t>(*begin);
        PortDecision decision = decisionFor(meaning, packet);
        decision.ports = {*begin, next == begins.end() ? packets.ports->last : *next - 1};
        addUncounted(meaning, packet, decision);
        if (!decisions.empty() && isSameReason(meaning, decisions.back(), decision)) {
            decisions.back().ports->last = decision.ports->last;
            decisions.back().tooComplex = decisions.back().tooComplex || decision.tooComplex;
        } else {
            decisions.push_back(std::move(decision));
        }
    }
    return decisions;
}

FWPLACE placeOf(const Meaning& meaning, std::size_t number) {
    return number < meaning.rules().size() ? meaning.rules()[number].place : FWPLACE();
}

std::string tunnelOf(const Meaning& meaning, std::size_t number) {
    const FWPLACE place = placeOf(meaning, number);
    const auto tunnel = meaning.environment().tunnels.find(place.adapter);
    if (!rulePlaceOf(place) || tunnel == meaning.environment().tunnels.end() ||
        tunnel->second == place.adapter) {
        return "";
    }
    const FW::FWPACKETSET& packets = meaning.rules()[number].packets;
    return isOnly(packets.in, tunnel->second) || isOnly(packets.out, tunnel->second)
               ? tunnel->second
               : "";
}

std::string reasonText(const Meaning& meaning, std::size_t number) {
    const FWPLACE place = placeOf(meaning, number);
    const std::string tunnel = tunnelOf(meaning, number);
    const std::string repeated =
        tunnel.empty() ? "" : " (repeated for the 6in4 tunnel " + tunnel + ")";
    switch (place.origin) {
        case FW::FW_ORIGIN_RULE: {
            const FW::FWRULE& rule = meaning.profile()
                                         .rules.at(place.adapter)
                                         .at(static_cast<std::size_t>(place.position) - 1);
            return placeText(place) + ": " + ruleText(rule) + repeated +
                   (!tunnel.empty() && isTakenForAllOfIpv6(rule) ? ", where \"/0\" is all of IPv6"
                                                                 : "");
        }
        case FW::FW_ORIGIN_DEFAULT:
            return placeText(place) + (isDenied(meaning, number) ? ": deny" : ": allow") + repeated;
        case FW::FW_ORIGIN_LOOPBACK:
            return "packets of the machine to itself are always allowed";
        case FW::FW_ORIGIN_NEIGHBOURS:
            return "packets of neighbour discovery are always allowed";
        case FW::FW_ORIGIN_ESTABLISHED:
            return "packets of established connections are always allowed";
        default:
            return "no rule and no default policy matches";
    }
}

std::string reasonText(const Meaning& meaning, const UncountedRule& rule) {
    return placeText(rule.place) + ": " +
           ruleText(meaning.profile()
                        .rules.at(rule.place.adapter)
                        .at(static_cast<std::size_t>(rule.place.position) - 1)) +
           ", which is too complex to be counted";
}

// ---- Many packets ----

void PacketOutcomes::add(const PacketOutcomes& others) {
    denied = denied || others.denied;
    allowed = allowed || others.allowed;
    undecided = undecided || others.undecided;
    tooComplex = tooComplex || others.tooComplex;
}

FW::FW_POLICY PacketOutcomes::verdict() const {
    if (tooComplex || (denied && (allowed || undecided))) {
        return FW::FW_POLICY_MIXED;
    }
    return denied ? FW::FW_POLICY_DENY : allowed ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_NONE;
}

FW::FW_POLICY PacketOutcomes::verdictOfPart() const {
    return !denied && undecided && !tooComplex ? FW::FW_POLICY_NONE : verdict();
}

namespace {

/// The rules, changed so that packets of some verdicts pass, and what no rule matches if `rest`.
FW::FW_MEANING filterFor(std::vector<FWRESOLVEDRULE> rules, bool denied, bool allowed, bool rest) {
    for (FWRESOLVEDRULE& rule : rules) {
        const bool passes = rule.verdict == FW::FW_PACKET_DROP ? denied : allowed;
        rule.verdict = passes ? FW::FW_PACKET_NEXT : FW::FW_PACKET_DROP;
    }
    if (!rest) {
        rules.emplace_back().verdict = FW::FW_PACKET_DROP;
    }
    return FW::FW_MEANING(rules);
}

/// Those packets of the query that pass; whether there may be more.
std::vector<FW::FWPACKETSET> passing(const FW::FW_MEANING& filter, const FW::FWPACKETSET& query,
                                     bool& tooComplex) {
    FW::FWREACHABLE found = filter.reach(query);
    tooComplex = tooComplex || !found.findings.empty();
    std::vector<FW::FWPACKETSET> sets;
    for (FW::FWREACH& reach : found.reach) {
        std::move(reach.packets.begin(), reach.packets.end(), std::back_inserter(sets));
    }
    return sets;
}

FW::Intervals sourcesOf(const std::vector<FW::FWPACKETSET>& sets) {
    FW::Intervals all;
    for (const FW::FWPACKETSET& set : sets) {
        const FW::Intervals sources = numbersOf(set.sources);
        all.insert(all.end(), sources.begin(), sources.end());
    }
    FW::normalize(all);
    return all;
}

std::vector<FWRESOLVEDRULE> rulesOf(const Meaning& meaning, const std::string& adapter) {
    std::vector<FWRESOLVEDRULE> rules;
    std::copy_if(meaning.rules().begin(), meaning.rules().end(), std::back_inserter(rules),
                 [&adapter](const FWRESOLVEDRULE& rule) { return rule.place.adapter == adapter; });
    return rules;
}

}  // namespace

PacketAnswers::PacketAnswers(const Meaning& meaning) : rules_(meaning.rules()) {}

PacketAnswers::PacketAnswers(const Meaning& meaning, const std::string& adapter)
    : rules_(rulesOf(meaning, adapter)) {}

const FW::FW_MEANING& PacketAnswers::filter(Filter filter) const {
    std::optional<FW::FW_MEANING>& found = filters_[filter];
    if (!found) {
        found.emplace(filterFor(rules_, filter == kDenied, filter == kAllowed || filter == kPassed,
                                filter == kUndecided || filter == kPassed));
    }
    return *found;
}

PacketOutcomes PacketAnswers::outcomes(const FW::FWPACKETSET& packets) const {
    PacketOutcomes found;
    found.denied = !passing(filter(kDenied), packets, found.tooComplex).empty();
    found.allowed = !passing(filter(kAllowed), packets, found.tooComplex).empty();
    found.undecided = !passing(filter(kUndecided), packets, found.tooComplex).empty();
    // What is found is there, so that nothing can be added to both outcomes.
    found.tooComplex = found.tooComplex && !(found.denied && (found.allowed || found.undecided));
    return found;
}

PacketParts PacketAnswers::parts(const FW::FWPACKETSET& packets) const {
    PacketParts found;
    found.allowed = passing(filter(kPassed), packets, found.tooComplex);
    found.denied = passing(filter(kDenied), packets, found.tooComplex);
    return found;
}

PacketParts PacketParts::to(std::uint16_t port, const std::optional<FW::FWADDRESS>& address) const {
    const auto takes = [&](const FW::FWPACKETSET& set) {
        const auto& ports = set.destinationPorts;
        return (ports.empty() || std::any_of(ports.begin(), ports.end(),
                                             [port](const FW::FWINTERVAL& interval) {
                                                 return interval.first <= port &&
                                                        port <= interval.last;
                                             })) &&
               (!address || contains(numbersOf(set.destinations), numberOf(*address)));
    };
    PacketParts found;
    std::copy_if(allowed.begin(), allowed.end(), std::back_inserter(found.allowed), takes);
    std::copy_if(denied.begin(), denied.end(), std::back_inserter(found.denied), takes);
    found.tooComplex = tooComplex;
    return found;
}

PacketSenders PacketParts::senders() const {
    const FW::Intervals from = sourcesOf(allowed);
    const FW::Intervals notFrom = sourcesOf(denied);
    return {addressesOf(without(from, notFrom)), addressesOf(intersected(from, notFrom)),
            tooComplex};
}

FW::FWPACKETSET newConnections(const std::string& interface) {
    FW::FWPACKETSET packets;
    packets.chains = 1U << FW::FW_CHAIN_INPUT;
    packets.states = kNewMask;
    packets.in = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{interface}, {}});
    return packets;
}

}  // namespace tarnfw
