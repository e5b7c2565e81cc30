#include "tarnfwadmin/decision.h"

#include <algorithm>

#include "machine/ruleMatch.h"
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

bool overlap(const PortSpan& a, const PortSpan& b) {
    return a.first <= b.last && b.first <= a.last;
}

// ---- Rules ----

/// Whether a rule has a line in the chain for incoming packets.
bool hasInputLine(const FWRULE& rule, const std::string& adapter) {
    // A line of "global" has no interface, whatever the rule's direction.
    const bool incoming =
        rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT || adapter == FW::FW_ADAPTER_GLOBAL;
    return hasLine(rule) && incoming && rule.table == kFilterTable &&
           rule.chainList.count(kInputChain) != 0;
}

bool sameReason(const Decision& a, const Decision& b) {
    return a.by == b.by && a.place == b.place && a.denied == b.denied && a.unless == b.unless;
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

// ---- Matching ----

/// Whether a packet fits; kPerhaps where it depends on what was not said about the packet.
enum class Fit { kNo, kPerhaps, kYes };

Fit fitOf(const FWRULE& rule, const Packet& packet, Machine& machine) {
    const std::optional<AddressMatch> match = addressMatchOf(rule, packet.source.isIpv6(), machine);
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

Decider::Decider(FW::FWPROFILE profile, Machine& machine)
    : profile_(std::move(profile)), machine_(machine) {}

std::vector<Decision> Decider::decide(const Packet& packet) {
    Pieces pieces(packet.ports);
    if (const std::optional<DecidedBy> line = fixedLine(packet)) {
        pieces.settle(packet.ports, decisionBy(*line, {}, false));
    }
    for (const std::string& list : listsOf(packet.adapters)) {
        const auto rules = profile_.rules.find(list);
        const std::size_t count = rules == profile_.rules.end() ? 0 : rules->second.size();
        for (std::size_t i = 0; i < count; ++i) {
            const FWRULE& rule = rules->second[i];
            const Fit address = hasInputLine(rule, list) ? fitOf(rule, packet, machine_) : Fit::kNo;
            if (address == Fit::kNo) {
                continue;
            }
            const RulePlace place = {list, i + 1};
            const bool denies = rule.policy == FW::FW_POLICY_DENY;
            for (const FittingPorts& fitting : fittingPorts(rule, packet, machine_)) {
                if (std::min(address, fitting.fit) == Fit::kYes) {
                    pieces.settle(fitting.ports, decisionBy(DecidedBy::kRule, place, denies));
                } else {
                    pieces.note(fitting.ports, place, denies);
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
            return placeText(decision.place) + ": " + ruleText(ruleAt(decision.place));
        case DecidedBy::kDefaultPolicy:
            return placeText(decision.place) + (decision.denied ? ": deny" : ": allow");
        case DecidedBy::kLoopback:
            return "packets of the machine to itself are always allowed";
        case DecidedBy::kEstablished:
            return "packets of established connections are always allowed";
        default:
            return "no rule and no default policy matches";
    }
}

}  // namespace tarnfw
