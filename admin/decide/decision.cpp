#include "tarnfwadmin/decision.h"

#include <algorithm>
#include <map>
#include <set>

#include "machine/ruleMatch.h"
#include "rules/portWords.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using FW::FWRULE;

constexpr char kInputChain[] = "INPUT_FIREWALL";
constexpr char kForwardChain[] = "FORWARD_FIREWALL";
constexpr char kFilterTable[] = "filter";
constexpr char kLoopback[] = "lo";

bool overlap(const PortSpan& a, const PortSpan& b) {
    return a.first <= b.last && b.first <= a.last;
}

// ---- Rules ----

bool has(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// Whether the packet meets a line for this interface and direction.
bool passes(const Packet& packet, const std::string& adapter, bool incoming) {
    return incoming ? has(packet.adapters, adapter)
                    : packet.forwardedTo && has(*packet.forwardedTo, adapter);
}

/// Whether a rule has a line that the packet meets, for the interfaces of `adapter`.
bool hasLineFor(const Packet& packet, const FWRULE& rule, const std::string& adapter) {
    // A line of "global" has no interface, whatever the rule's direction.
    return hasLine(rule) && rule.table == kFilterTable &&
           rule.chainList.count(packet.forwardedTo ? kForwardChain : kInputChain) != 0 &&
           (adapter == FW::FW_ADAPTER_GLOBAL ||
            passes(packet, adapter, rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT));
}

bool sameReason(const Decision& a, const Decision& b) {
    return a.by == b.by && a.place == b.place && a.denied == b.denied && a.tunnel == b.tunnel &&
           a.unless == b.unless;
}

// ---- Undecided ports ----

/// The queried ports, cut where the rules' ports begin and end, with their decisions.
class Pieces {
public:
    explicit Pieces(const PortSpan& ports) { open_.push_back({ports, {}}); }

    /// A rule or default policy matches these ports, as far as they are still undecided.
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

    /// All decisions, sorted; neighbours with the same reason are joined.
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

    /// Cuts the undecided pieces so that each is inside or outside of `ports`.
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

Decision decisionBy(DecidedBy by, const RulePlace& place, bool denied,
                    const std::string& tunnel = "") {
    Decision decision;
    decision.by = by;
    decision.place = place;
    decision.denied = denied;
    decision.tunnel = tunnel;
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

// ---- Matching ----

/// Whether a packet fits; kPerhaps where it depends on what was not said about the packet.
enum class Fit { kNo, kPerhaps, kYes };

Fit fitOf(const std::optional<AddressMatch>& match, const Packet& packet, Machine& machine) {
    if (!match) {
        return Fit::kNo;
    }
    if (match->any()) {
        return Fit::kYes;
    }
    if (match->source) {
        return match->contains(packet.source, machine) ? Fit::kYes : Fit::kNo;
    }
    if (packet.destination) {
        return match->contains(*packet.destination, machine) ? Fit::kYes : Fit::kNo;
    }
    return Fit::kPerhaps;
}

/// Destination ports, and whether packets for them fit.
struct FittingPorts {
    PortSpan ports;
    Fit fit;
};

std::vector<FittingPorts> fittingPorts(const FWRULE& rule, const Packet& packet, Machine& machine) {
    const auto matches = portMatchesOf(rule, machine);
    if (!matches) {
        throw Error(ErrorKind::kSystem, "the service catalogue cannot be read");
    }
    const char* const protocol = packet.protocol == FW::FW_PORT_PROTOCOL_TCP ? "tcp" : "udp";
    const PortSpan sourcePorts = packet.sourcePorts.value_or(PortSpan());
    std::vector<FittingPorts> fitting;
    for (const PortMatch& match : *matches) {
        if (!match.protocol.empty() && match.protocol != protocol) {
            continue;
        }
        if (!match.ports || !match.source) {
            fitting.push_back({match.ports.value_or(PortSpan()), Fit::kYes});
        } else if (overlap(*match.ports, sourcePorts)) {
            fitting.push_back(
                {PortSpan(), covers(*match.ports, sourcePorts) ? Fit::kYes : Fit::kPerhaps});
        }
    }
    return fitting;
}

}  // namespace

/// A list of the profile whose lines a packet meets.
struct Decider::List {
    std::string adapter;  // of the list
    std::string lines;    // of the interface that its lines are for: another one for a tunnel

    bool isRepeated() const { return adapter != lines; }
};

// ---- Deciding ----

Packet packetFrom(const std::string& address, const std::string& port,
                  const std::string& interface) {
    const std::optional<Address> source = addressFrom(address);
    if (!source) {
        throw Error(ErrorKind::kInvalid, inQuotes(address) + " is not an IP address");
    }
    const std::optional<ProtocolPorts> read = protocolPortsFrom(port);
    const std::optional<PortSpan> ports = read ? portEndsWritten(read->ports) : std::nullopt;
    if (!ports || ports->last < ports->first || read->protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
        throw Error(ErrorKind::kInvalid,
                    inQuotes(port) + " is not a port such as tcp/22 or udp/6000-6010");
    }
    Packet packet;
    packet.adapters = adapterNamesOf(interface);
    packet.source = *source;
    packet.protocol = read->protocol == FW::FW_PORT_PROTOCOL_UDP ? FW::FW_PORT_PROTOCOL_UDP
                                                                 : FW::FW_PORT_PROTOCOL_TCP;
    packet.ports = *ports;
    return packet;
}

Decider::Decider(FW::FWPROFILE profile, Machine& machine, ApplyMode mode)
    : profile_(std::move(profile)), machine_(machine), mode_(mode) {}

std::vector<std::string> Decider::tunnelOwners(const std::string& interface) {
    std::set<std::string> lists;
    for (const auto& [adapter, unused] : profile_.rules) {
        lists.insert(adapter);
    }
    for (const auto& [adapter, unused] : profile_.adapterPolicyMap) {
        lists.insert(adapter);
    }
    std::vector<std::string> owners;
    for (const std::string& adapter : lists) {
        if (adapter != FW::FW_ADAPTER_GLOBAL && adapter != interface &&
            machine_.tunnelOf(adapter) == interface) {
            owners.push_back(adapter);
        }
    }
    return owners;
}

/// In the order of the kernel's lines.
std::vector<Decider::List> Decider::listsFor(const Packet& packet) {
    std::vector<std::string> adapters = packet.adapters;
    if (packet.forwardedTo) {
        adapters.insert(adapters.end(), packet.forwardedTo->begin(), packet.forwardedTo->end());
    }
    std::vector<List> lists;
    for (const std::string& adapter : listsOf(adapters)) {
        std::set<std::string> names = {adapter};
        if (packet.source.isIpv6() && adapter != FW::FW_ADAPTER_GLOBAL) {
            const std::vector<std::string> owners = tunnelOwners(adapter);
            names.insert(owners.begin(), owners.end());
        }
        for (const std::string& name : names) {
            lists.push_back({name, adapter});
        }
    }
    return lists;
}

/// What the lines of a rule of a list match; nothing when it has none for such packets.
std::optional<AddressMatch> Decider::matchOf(const List& list, const FWRULE& rule,
                                             const Packet& packet) {
    if (!hasLineFor(packet, rule, list.lines)) {
        return std::nullopt;
    }
    if (!list.isRepeated()) {
        return addressMatchOf(rule, packet.source.isIpv6(), machine_);
    }
    if (mode_ != ApplyMode::kLines && isTakenForAllOfIpv6(rule)) {
        return std::nullopt;  // a batch does not repeat rules for IPv4 addresses
    }
    FWRULE repeated = rule;
    repeated.ipType = FW::FW_IP_TYPE_V6;  // whatever it is for
    return addressMatchOf(repeated, true, machine_);
}

std::vector<Decision> Decider::decide(const Packet& packet) {
    Pieces pieces(packet.ports);
    if (const std::optional<DecidedBy> line = fixedLine(packet)) {
        pieces.settle(packet.ports, decisionBy(*line, {}, false));
    }
    for (const List& list : listsFor(packet)) {
        const std::string tunnel = list.isRepeated() ? list.lines : "";
        const auto rules = profile_.rules.find(list.adapter);
        const std::size_t count = rules == profile_.rules.end() ? 0 : rules->second.size();
        for (std::size_t i = 0; i < count; ++i) {
            const FWRULE& rule = rules->second[i];
            const Fit address = fitOf(matchOf(list, rule, packet), packet, machine_);
            if (address == Fit::kNo) {
                continue;
            }
            const RulePlace place = {list.adapter, i + 1};
            const bool denies = rule.policy == FW::FW_POLICY_DENY;
            for (const FittingPorts& fitting : fittingPorts(rule, packet, machine_)) {
                if (std::min(address, fitting.fit) == Fit::kYes) {
                    pieces.settle(fitting.ports,
                                  decisionBy(DecidedBy::kRule, place, denies, tunnel));
                } else {
                    pieces.note(fitting.ports, place, denies);
                }
            }
        }
        const auto policy = profile_.adapterPolicyMap.find(list.adapter);
        if (policy != profile_.adapterPolicyMap.end() &&
            (list.lines == FW::FW_ADAPTER_GLOBAL || passes(packet, list.lines, true)) &&
            (policy->second == FW::FW_POLICY_ALLOW || policy->second == FW::FW_POLICY_DENY)) {
            pieces.settle(packet.ports, decisionBy(DecidedBy::kDefaultPolicy, {list.adapter, 0},
                                                   policy->second == FW::FW_POLICY_DENY, tunnel));
        }
    }
    pieces.settle(packet.ports, decisionBy(DecidedBy::kNothing, {}, false));
    return std::move(pieces).result();
}

std::optional<std::map<Address, std::set<bool>>> Decider::deniedBySender(Packet packet) {
    std::map<Address, std::set<bool>> denied;
    denied[Address(packet.source.isIpv6(), {})];
    packet.source = denied.begin()->first;
    for (const List& list : listsFor(packet)) {
        const auto rules = profile_.rules.find(list.adapter);
        if (rules == profile_.rules.end()) {
            continue;
        }
        for (const FWRULE& rule : rules->second) {
            const std::optional<AddressMatch> match = matchOf(list, rule, packet);
            if (!match || !match->source) {
                continue;
            }
            if (!match->masked.empty() || !match->countries.empty()) {
                return std::nullopt;
            }
            for (const AddressRange& range : match->ranges) {
                denied[range.first];
                if (const std::optional<Address> next = addressAfter(range.last)) {
                    denied[*next];
                }
            }
        }
    }
    for (auto& [sender, outcomes] : denied) {
        packet.source = sender;
        for (const Decision& decision : decide(packet)) {
            if (!decision.unless.empty()) {
                return std::nullopt;
            }
            outcomes.insert(decision.denied);
        }
    }
    return denied;
}

std::optional<std::vector<AddressRange>> Decider::allowedSenders(const Packet& packet) {
    const auto denied = deniedBySender(packet);
    if (!denied) {
        return std::nullopt;
    }
    std::vector<AddressRange> allowed;
    bool open = false;  // the last one has no end yet
    for (const auto& [sender, outcomes] : *denied) {
        const bool isAllowed = outcomes.count(true) == 0;
        if (isAllowed && !open) {
            allowed.push_back({sender, wholeFamily(sender.isIpv6()).last});
        } else if (!isAllowed && open) {
            allowed.back().last = *addressBefore(sender);
        }
        open = isAllowed;
    }
    return allowed;
}

std::optional<FW::FW_POLICY> Decider::verdictForAll(const Packet& packet) {
    const auto denied = deniedBySender(packet);
    if (!denied) {
        return std::nullopt;
    }
    std::set<bool> outcomes;
    for (const auto& [sender, some] : *denied) {
        outcomes.insert(some.begin(), some.end());
    }
    return outcomes.size() > 1 ? FW::FW_POLICY_MIXED
           : *outcomes.begin() ? FW::FW_POLICY_DENY
                               : FW::FW_POLICY_ALLOW;
}

const FWRULE& Decider::ruleAt(const RulePlace& place) const {
    return profile_.rules.at(place.adapter).at(place.position - 1);
}

std::string Decider::reason(const Decision& decision) const {
    const std::string repeated =
        decision.tunnel.empty() ? "" : " (repeated for the 6in4 tunnel " + decision.tunnel + ")";
    switch (decision.by) {
        case DecidedBy::kRule:
            return placeText(decision.place) + ": " + ruleText(ruleAt(decision.place)) + repeated +
                   (!decision.tunnel.empty() && isTakenForAllOfIpv6(ruleAt(decision.place))
                        ? ", where \"/0\" is all of IPv6"
                        : "");
        case DecidedBy::kDefaultPolicy:
            return placeText(decision.place) + (decision.denied ? ": deny" : ": allow") + repeated;
        case DecidedBy::kLoopback:
            return "packets of the machine to itself are always allowed";
        case DecidedBy::kEstablished:
            return "packets of established connections are always allowed";
        default:
            return "no rule and no default policy matches";
    }
}

}  // namespace tarnfw
