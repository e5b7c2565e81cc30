#include "tarnfwadmin/decision.h"

#include <algorithm>

#include <json/json.h>

#include "tarnfirewall/fwGeoip.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using FW::FWRULE;

constexpr char kInputChain[] = "INPUT_FIREWALL";
constexpr char kFilterTable[] = "filter";
constexpr char kLoopback[] = "lo";

// ---- Ports ----

/// The ports of a rule's lines, line by line; the kernel takes or refuses a line as a whole.
std::vector<PortSpan> spansOf(const std::vector<std::string>& ports) {
    std::vector<PortSpan> spans;
    for (std::size_t first = 0; first < ports.size(); first += FW::FW_PORTS_PER_LINE) {
        const std::size_t end = std::min(first + FW::FW_PORTS_PER_LINE, ports.size());
        std::vector<PortSpan> line;
        for (std::size_t i = first; i < end; ++i) {
            if (const std::optional<PortSpan> span = portSpanFrom(ports[i])) {
                line.push_back(*span);
            }
        }
        if (line.size() == end - first) {
            spans.insert(spans.end(), line.begin(), line.end());
        }
    }
    return spans;
}

bool overlap(const PortSpan& a, const PortSpan& b) {
    return a.first <= b.last && b.first <= a.last;
}

bool isFor(std::int32_t ruleProtocol, FW::FW_PORT_PROTOCOL protocol) {
    return ruleProtocol == protocol || ruleProtocol == FW::FW_PORT_PROTOCOL_TCP_UDP;
}

// ---- Addresses ----

std::string at(const std::vector<std::string>& list, std::size_t index) {
    return index < list.size() ? list[index] : std::string();
}

bool agreeUnder(const Address::Bytes& mask, const Address::Bytes& a, const Address::Bytes& b) {
    for (std::size_t i = 0; i < mask.size(); ++i) {
        if (((a[i] ^ b[i]) & mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

/// Whether an address is in a network, also one whose mask has gaps.
bool inNetwork(const std::string& base, const std::string& mask, const Address& address) {
    if (const std::optional<AddressRange> range = networkFrom(base, mask)) {
        return range->contains(address);
    }
    const std::optional<Address> network = addressFrom(base);
    const std::optional<Address> bits = addressFrom(mask);
    return network && bits && network->isIpv6() == address.isIpv6() &&
           bits->isIpv6() == address.isIpv6() &&
           agreeUnder(bits->bytes(), network->bytes(), address.bytes());
}

/// "10.0.0.1", or with a mask, which iptables takes in the same place.
bool isAddressOrNetwork(const std::string& text, const Address& address) {
    const std::size_t slash = text.find('/');
    if (slash != std::string::npos) {
        return inNetwork(text.substr(0, slash), text.substr(slash + 1), address);
    }
    return addressFrom(text) == address;
}

bool hasFamily(const FWRULE& rule, bool ipv6) {
    return rule.ipType == FW::FW_IP_TYPE_BOTH ||
           rule.ipType == (ipv6 ? FW::FW_IP_TYPE_V6 : FW::FW_IP_TYPE_V4);
}

// ---- Rules ----

/// Whether a rule has a line in the chain for incoming packets.
bool hasLine(const FWRULE& rule, const std::string& adapter) {
    // For "global" there is no interface in the line, whichever direction the rule names.
    const bool incoming =
        rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT || adapter == FW::FW_ADAPTER_GLOBAL;
    return rule.enable && incoming && rule.table == kFilterTable &&
           rule.chainList.count(kInputChain) != 0 &&
           (rule.policy == FW::FW_POLICY_ALLOW || rule.policy == FW::FW_POLICY_DENY);
}

/// The lists that the packet meets, in the kernel's order.
std::vector<std::string> listsOf(const Packet& packet) {
    std::vector<std::string> lists = packet.adapters;
    std::sort(lists.begin(), lists.end());
    lists.erase(std::unique(lists.begin(), lists.end()), lists.end());
    lists.erase(std::remove_if(lists.begin(), lists.end(),
                               [](const std::string& name) {
                                   return name == FW::FW_ADAPTER_GLOBAL ||
                                          name == FW::FW_PPPOE_INTERFACE;
                               }),
                lists.end());
    lists.insert(lists.begin(), FW::FW_ADAPTER_GLOBAL);
    return lists;
}

bool sameReason(const Decision& a, const Decision& b) {
    return a.by == b.by && a.place == b.place && a.denied == b.denied && a.unless == b.unless;
}

// ---- What is left to decide ----

/// The ports asked about, cut where the rules' ports begin and end, and what has decided for them.
class Pieces {
public:
    explicit Pieces(const PortSpan& ports) { open_.push_back({ports, {}}); }

    /// A rule or default policy matches these ports, as far as they are still open.
    void settle(const PortSpan& ports, const Decision& decision) {
        cutAt(ports);
        std::vector<Piece> left;
        for (Piece& piece : open_) {
            if (!covers(ports, piece.ports)) {
                left.push_back(std::move(piece));
                continue;
            }
            Decision settled = decision;
            settled.ports = piece.ports;
            for (const auto& [place, denies] : piece.perhaps) {
                if (denies != decision.denied) {
                    settled.unless.push_back(place);
                }
            }
            settled_.push_back(std::move(settled));
        }
        open_ = std::move(left);
    }

    /// A rule may match these ports.
    void note(const PortSpan& ports, const RulePlace& place, bool denies) {
        cutAt(ports);
        for (Piece& piece : open_) {
            const bool known = !piece.perhaps.empty() && piece.perhaps.back().first == place;
            if (covers(ports, piece.ports) && !known) {
                piece.perhaps.emplace_back(place, denies);
            }
        }
    }

    /// Everything that was settled, sorted, neighbours with one reason taken together.
    std::vector<Decision> result() && {
        std::sort(settled_.begin(), settled_.end(), [](const Decision& a, const Decision& b) {
            return a.ports.first < b.ports.first;
        });
        std::vector<Decision> merged;
        for (Decision& decision : settled_) {
            if (!merged.empty() && sameReason(merged.back(), decision)) {
                merged.back().ports.last = decision.ports.last;
            } else {
                merged.push_back(std::move(decision));
            }
        }
        return merged;
    }

private:
    struct Piece {
        PortSpan ports;
        std::vector<std::pair<RulePlace, bool>> perhaps;  // and whether it denies
    };

    /// Cuts the open pieces so that each is inside or outside of `ports`.
    void cutAt(const PortSpan& ports) {
        std::vector<Piece> cut;
        for (const Piece& piece : open_) {
            const PortSpan whole = piece.ports;
            if (!overlap(whole, ports)) {
                cut.push_back(piece);
                continue;
            }
            const int first = std::max(whole.first, ports.first);
            const int last = std::min(whole.last, ports.last);
            for (const PortSpan& span : {PortSpan{whole.first, first - 1}, PortSpan{first, last},
                                         PortSpan{last + 1, whole.last}}) {
                if (span.first <= span.last) {
                    cut.push_back({span, piece.perhaps});
                }
            }
        }
        open_ = std::move(cut);
    }

    std::vector<Piece> open_;
    std::vector<Decision> settled_;
};

Decision decisionBy(DecidedBy by, const RulePlace& place, bool denied) {
    Decision decision;
    decision.by = by;
    decision.place = place;
    decision.denied = denied;
    return decision;
}

/// The first lines of the chain, in this order.
std::optional<DecidedBy> fixedLine(const Packet& packet) {
    if (std::find(packet.adapters.begin(), packet.adapters.end(), kLoopback) !=
        packet.adapters.end()) {
        return DecidedBy::kLoopback;
    }
    return packet.established ? std::optional(DecidedBy::kEstablished) : std::nullopt;
}

}  // namespace

// ---- Matching ----

bool Decider::inCountries(const std::vector<std::string>& countries, const Address& address) {
    std::vector<std::string> usable;
    if (countries.empty() || !FW::FW_GEOIP().geoipSanctify(countries, address.isIpv6(), usable)) {
        return false;
    }
    return std::any_of(usable.begin(), usable.end(), [&](const std::string& country) {
        const auto key = std::make_pair(country, address.isIpv6());
        const auto [entry, isNew] = countries_.try_emplace(key);
        if (isNew) {
            Json::Value ranges;
            // It logs for itself.
            (void)FW::FW_GEOIP().countryIPGet(country, address.isIpv6(), ranges);
            for (const Json::Value& range : ranges) {
                if (const auto parsed =
                        rangeFrom(range["ip_begin"].asString(), range["ip_end"].asString())) {
                    entry->second.push_back(*parsed);
                }
            }
        }
        return std::any_of(entry->second.begin(), entry->second.end(),
                           [&](const AddressRange& range) { return range.contains(address); });
    });
}

bool Decider::holdsAddress(const FWRULE& rule, const Address& address) {
    switch (rule.ipGroup) {
        case FW::FW_IP_GROUP_SINGLE:
            return isAddressOrNetwork(at(rule.ipList, 0), address);
        case FW::FW_IP_GROUP_NETWORK:
            return inNetwork(at(rule.ipList, 0), at(rule.ipList, 1), address);
        case FW::FW_IP_GROUP_COUNTRIES:
            return inCountries(rule.ipList, address);
        case FW::FW_IP_GROUP_RANGE: {
            const auto range = rangeFrom(at(rule.ipList, 0), at(rule.ipList, 1));
            return range && range->contains(address);
        }
        default:
            return false;
    }
}

Decider::Match Decider::matchesAddress(const FWRULE& rule, const Packet& packet) {
    if (!hasFamily(rule, packet.source.isIpv6())) {
        return Match::kNo;
    }
    if (rule.ipGroup == FW::FW_IP_GROUP_ANY) {
        return Match::kYes;
    }
    if (rule.ipDirect != FW::FW_IP_DIRECT_DESTINATION) {
        return holdsAddress(rule, packet.source) ? Match::kYes : Match::kNo;
    }
    if (packet.destination) {
        return holdsAddress(rule, *packet.destination) ? Match::kYes : Match::kNo;
    }
    const bool hasAddress =
        rule.ipGroup == FW::FW_IP_GROUP_SINGLE || rule.ipGroup == FW::FW_IP_GROUP_NETWORK ||
        rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES || rule.ipGroup == FW::FW_IP_GROUP_RANGE;
    return hasAddress ? Match::kPerhaps : Match::kNo;
}

std::vector<Decider::MatchedPorts> Decider::matchedPorts(const FWRULE& rule, const Packet& packet) {
    std::vector<MatchedPorts> matched;
    const auto addPorts = [&](std::int32_t protocol, bool sourceSide,
                              const std::vector<std::string>& ports) {
        if (!isFor(protocol, packet.protocol)) {
            return;
        }
        for (const PortSpan& span : spansOf(ports)) {
            if (!sourceSide) {
                matched.push_back({span, Match::kYes});
                continue;
            }
            const PortSpan asked = packet.sourcePorts.value_or(PortSpan());
            if (overlap(span, asked)) {
                matched.push_back(
                    {PortSpan(), covers(span, asked) ? Match::kYes : Match::kPerhaps});
            }
        }
    };
    switch (rule.portGroup) {
        case 0:
        case 2: {
            FW::ServPort ports;
            if (!translator_.servToPorts(rule.portList, ports)) {
                throw Error(ErrorKind::kSystem, "the service catalogue cannot be read");
            }
            // A service's ports are matched on their own sides, whatever side the rule names.
            for (const auto& [protocol, list] : ports.srcPorts) {
                addPorts(protocol, true, list);
            }
            for (const auto& [protocol, list] : ports.dstPorts) {
                addPorts(protocol, false, list);
            }
            break;
        }
        case 1:
            addPorts(rule.protocol, rule.portDirect != FW::FW_PORT_DIRECT_DESTINATION,
                     rule.portList);
            break;
        case 3:
            matched.push_back({PortSpan(), Match::kYes});
            break;
        default:
            break;
    }
    return matched;
}

// ---- Deciding ----

Packet packetFrom(const std::string& address, const std::string& port,
                  const std::string& interface) {
    const std::optional<Address> source = addressFrom(address);
    if (!source) {
        throw Error(ErrorKind::kInvalid, inQuotes(address) + " is not an IP address");
    }
    const std::string protocol = port.substr(0, port.find('/'));
    const std::optional<PortSpan> ports =
        portSpanFrom(protocol == port ? "" : port.substr(protocol.size() + 1));
    if ((protocol != "tcp" && protocol != "udp") || !ports) {
        throw Error(ErrorKind::kInvalid,
                    inQuotes(port) + " is not a port such as tcp/22 or udp/6000-6010");
    }
    Packet packet;
    packet.adapters = adapterNamesOf(interface);
    packet.source = *source;
    packet.protocol = protocol == "udp" ? FW::FW_PORT_PROTOCOL_UDP : FW::FW_PORT_PROTOCOL_TCP;
    packet.ports = *ports;
    return packet;
}

std::vector<Decision> Decider::decide(const Packet& packet) {
    Pieces pieces(packet.ports);
    if (const std::optional<DecidedBy> line = fixedLine(packet)) {
        pieces.settle(packet.ports, decisionBy(*line, {}, false));
    }
    for (const std::string& list : listsOf(packet)) {
        const auto rules = profile_.rules.find(list);
        const std::size_t count = rules == profile_.rules.end() ? 0 : rules->second.size();
        for (std::size_t i = 0; i < count; ++i) {
            const FWRULE& rule = rules->second[i];
            const Match address = hasLine(rule, list) ? matchesAddress(rule, packet) : Match::kNo;
            if (address == Match::kNo) {
                continue;
            }
            const RulePlace place = {list, i + 1};
            const bool denies = rule.policy == FW::FW_POLICY_DENY;
            for (const MatchedPorts& matched : matchedPorts(rule, packet)) {
                if (std::min(address, matched.match) == Match::kYes) {
                    pieces.settle(matched.ports, decisionBy(DecidedBy::kRule, place, denies));
                } else {
                    pieces.note(matched.ports, place, denies);
                }
            }
        }
        const auto policy = profile_.adapterPolicyMap.find(list);
        if (policy != profile_.adapterPolicyMap.end() &&
            (policy->second == FW::FW_POLICY_ALLOW || policy->second == FW::FW_POLICY_DENY)) {
            pieces.settle(packet.ports, decisionBy(DecidedBy::kDefaultPolicy, {list, 0},
                                                   policy->second == FW::FW_POLICY_DENY));
        }
    }
    pieces.settle(packet.ports, decisionBy(DecidedBy::kNothing, {}, false));
    return std::move(pieces).result();
}

const FWRULE& Decider::ruleAt(const RulePlace& place) const {
    return profile_.rules.at(place.adapter).at(place.position - 1);
}

std::string Decider::reason(const Decision& decision) const {
    switch (decision.by) {
        case DecidedBy::kRule:
            return std::string("rule ")
                .append(std::to_string(decision.place.position))
                .append(" of ")
                .append(decision.place.adapter)
                .append(": ")
                .append(ruleText(ruleAt(decision.place)));
        case DecidedBy::kDefaultPolicy:
            return std::string("the default policy of ")
                .append(decision.place.adapter)
                .append(": ")
                .append(decision.denied ? "deny" : "allow");
        case DecidedBy::kLoopback:
            return "packets of the machine to itself are always let through";
        case DecidedBy::kEstablished:
            return "packets of established connections are let through";
        default:
            return "no rule and no default policy decides";
    }
}

}  // namespace tarnfw
