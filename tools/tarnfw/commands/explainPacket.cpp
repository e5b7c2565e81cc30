/// tarnfw explain, for one packet as far as it is known: the one rule that decides.
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/explain.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// Exceptions that the text names; "--json" has all.
constexpr std::size_t kMostUnless = 8;

/// The number of "icmp type NUMBER", or of a protocol.
std::optional<std::uint16_t> byteFrom(const std::string& digits) {
    constexpr int kHighest = 255;
    const std::optional<int> number = portFrom(digits);
    return number && *number <= kHighest ? std::optional(static_cast<std::uint16_t>(*number))
                                         : std::nullopt;
}

/// Packets of one protocol, and what they are called before their ports.
struct NamedPackets {
    std::string name;  ///< "tcp", "icmp type 8"
    PortPackets packets;
};

/// Adds packets of a protocol without ports, where the family of `packet` has it.
void addProtocol(const PacketQuestion& question, const FW::FWPACKETSET& set, FW::FWPACKET packet,
                 std::vector<NamedPackets>& all) {
    if (!set.icmpTypes.empty()) {
        packet.icmpType = static_cast<std::uint8_t>(set.icmpTypes.front().first);
    }
    const bool ipv6 = packet.family == FW::FW_FAMILY_V6;
    if ((set.families & (1U << *packet.family)) != 0) {
        all.push_back({question.text + (ipv6 ? " (IPv6)" : " (IPv4)"), {packet, std::nullopt}});
    }
}

/// Without the adapter.
std::vector<NamedPackets> packetsAsked(const ExplainQuery& query,
                                       const std::vector<PacketQuestion>& questions) {
    FW::FWPACKET packet;
    packet.chain = query.out.empty() ? FW::FW_CHAIN_INPUT : FW::FW_CHAIN_FORWARD;
    packet.state = FW::FW_STATE_NEW;
    const Address from = *packetAddressFrom(query.ports.from);
    packet.source = addressNumber(from);
    packet.family = familyOf(from);
    if (const auto to = packetAddressFrom(query.ports.to)) {
        packet.destination = addressNumber(*to);
    }
    std::vector<NamedPackets> all;
    for (const PacketQuestion& question : questions) {
        for (const FW::FWPACKETSET& set : question.packets) {
            FW::FWPACKET one = packet;
            one.protocol = static_cast<std::uint8_t>(set.protocols.front().first);
            if (!question.port) {
                addProtocol(question, set, one, all);
                continue;
            }
            PortSpan ports;
            if (!set.sourcePorts.empty() &&
                set.sourcePorts.front().first == set.sourcePorts.front().last) {
                one.sourcePort = set.sourcePorts.front().first;
            }
            if (!set.destinationPorts.empty()) {
                ports = {set.destinationPorts.front().first, set.destinationPorts.front().last};
            }
            all.push_back({one.protocol == IPPROTO_TCP ? "tcp" : "udp", {one, ports}});
        }
    }
    if (all.empty()) {
        throw Error(ErrorKind::kUnusable, "--from needs tcp or udp ports");
    }
    return all;
}

struct NamedDecision {
    std::string packets;  ///< "tcp 20-25", "icmp type 8"
    PortDecision decision;

    /// What may be dropped is not allowed.
    FW::FW_POLICY verdict() const {
        return decision.isDoubtful() ? FW::FW_POLICY_MIXED
               : decision.denied     ? FW::FW_POLICY_DENY
                                     : FW::FW_POLICY_ALLOW;
    }
};

/// The decisions on one adapter, protocol by protocol.
struct AdapterDecisions {
    std::string adapter;
    AdapterNow now;
    std::vector<NamedDecision> decisions;
    BeforeFirewall before;
};

AdapterDecisions decisionsOn(const Meaning& meaning, const std::string& adapter,
                             std::vector<NamedPackets> asked, const std::string& out) {
    AdapterDecisions found{adapter, adapterNow(adapter, meaning.profile()), {}, {}};
    for (NamedPackets& named : asked) {
        named.packets.packet.in = interfaceFor(meaning, adapter);
        if (!out.empty()) {
            named.packets.packet.out = interfaceFor(meaning, out);
        }
        for (PortDecision& decision : decisionsFor(meaning, named.packets)) {
            const std::string ports =
                decision.ports ? " " + portSpanText(*decision.ports) : std::string();
            found.decisions.push_back({named.name + ports, std::move(decision)});
        }
    }
    return found;
}

Json::Value decisionDocument(const Meaning& meaning, const NamedDecision& named) {
    const PortDecision& decision = named.decision;
    Json::Value document = deciderDocument(meaning, decision.by);
    document["port"] = named.packets;
    document["allowed"] = !decision.denied;
    document["unless"] = Json::Value(Json::arrayValue);
    for (const std::size_t number : decision.unless) {
        document["unless"].append(deciderDocument(meaning, number));
    }
    for (const UncountedRule& rule : decision.uncounted) {
        document["unless"].append(deciderDocument(meaning, rule));
    }
    return document;
}

void printDecisions(const ExplainQuery& query, const Meaning& meaning,
                    const std::vector<AdapterDecisions>& found) {
    Table table({"Adapter", query.protocol.empty() ? "Port" : "Protocol", "Verdict", "Decided by"});
    for (const AdapterDecisions& adapter : found) {
        for (const NamedDecision& named : adapter.decisions) {
            const PortDecision& decision = named.decision;
            std::string reason = reasonText(meaning, decision.by);
            const std::size_t all = decision.unless.size() + decision.uncounted.size();
            for (std::size_t i = 0; i < std::min(all, kMostUnless); ++i) {
                const std::size_t known = decision.unless.size();
                reason.append("; unless this matches: ")
                    .append(i < known ? reasonText(meaning, decision.unless[i])
                                      : reasonText(meaning, decision.uncounted[i - known]));
            }
            if (all > kMostUnless) {
                reason.append("; and ").append(std::to_string(all - kMostUnless)).append(" more");
            }
            if (decision.tooComplex) {
                reason.append("; too complex: some of these cannot match");
            }
            reason =
                joined(reason, tunnelOf(meaning, decision.by).empty() ? adapter.now.text() : "");
            reason = joined(
                reason, decision.denied ? acceptsText(adapter.before) : dropsText(adapter.before));
            const FW::FW_POLICY verdict = named.verdict();
            table.addRow({{adapter.adapter, Paint::kPlain},
                          {named.packets, Paint::kPlain},
                          {verdictText(verdict), policyPaint(verdict)},
                          {reason, Paint::kPlain}});
        }
    }
    table.print();
}

}  // namespace

std::optional<PacketQuestion> protocolQuestion(const std::string& text) {
    constexpr char kIcmp[] = "icmp";
    constexpr char kIcmpWithType[] = "icmp/";
    static const std::map<std::string, std::optional<std::uint16_t>> kProtocols = {
        {"igmp", IPPROTO_IGMP}, {"tcp", IPPROTO_TCP}, {"udp", IPPROTO_UDP}};
    PacketQuestion question{text, std::nullopt, {}};
    FW::FWPACKETSET packets = newConnections("");
    if (text == kIcmp || boost::starts_with(text, kIcmpWithType)) {
        if (text != kIcmp) {
            const auto type = byteFrom(text.substr(sizeof kIcmpWithType - 1));
            if (!type) {
                return std::nullopt;
            }
            packets.icmpTypes = {{*type, *type}};
            question.text = "icmp type " + std::to_string(*type);
        }
        // ICMP is another protocol in each family.
        for (const bool ipv6 : {false, true}) {
            const std::uint16_t number =
                ipv6 ? std::uint16_t{IPPROTO_ICMPV6} : std::uint16_t{IPPROTO_ICMP};
            packets.families =
                static_cast<std::uint8_t>(1U << (ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4));
            packets.protocols = {{number, number}};
            question.packets.push_back(packets);
        }
        return question;
    }
    const auto named = kProtocols.find(text);
    const auto number = named == kProtocols.end() ? byteFrom(text) : named->second;
    if (!number) {
        return std::nullopt;
    }
    question.text = named == kProtocols.end() ? "protocol " + std::to_string(*number) : text;
    packets.protocols = {{*number, *number}};
    question.packets = {packets};
    return question;
}

void explainPackets(const ExplainQuery& query) {
    const PortQuery& options = query.ports;
    const std::optional<Address> from = packetAddressFrom(options.from);
    const std::optional<Address> to = packetAddressFrom(options.to);
    if (to && to->isIpv6() != from->isIpv6()) {
        throw UsageError("--to: not of the same family as --from");
    }
    if (options.adapter == FW::FW_ADAPTER_GLOBAL) {
        throw UsageError(
            "--adapter: no packet comes in through \"global\"; name another adapter, or none for "
            "all");
    }
    Asked asked(query);
    if (asked.isUnfiltered(query)) {
        (void)answeredDisabled(asked.store(), options, asked.questions);
        return;
    }
    const Meaning meaning =
        Meaning(asked.store().profile(asked.profile), asked.context.machine()).between(from, to);
    if (!query.out.empty()) {
        requireCoveredAdapter(query.out, adaptersOf(meaning.profile()));
    }
    std::optional<KernelAnswer> kernel;
    if (asked.isInForce()) {
        kernel.emplace(asked.store(), options, asked.questions);
    }
    const std::vector<NamedPackets> packets = packetsAsked(query, asked.questions);
    std::vector<AdapterDecisions> found;
    bool allowed = true;
    for (const std::string& adapter : adaptersAsked(options, meaning.profile())) {
        found.push_back(decisionsOn(meaning, adapter, packets, query.out));
        KernelAnswer::Verdict verdict;
        for (const NamedDecision& named : found.back().decisions) {
            const FW::FW_POLICY one = named.verdict();
            verdict.blocks = verdict.blocks || one != FW::FW_POLICY_ALLOW;
            verdict.allows = verdict.allows || one != FW::FW_POLICY_DENY;
        }
        allowed = allowed && !verdict.blocks;
        // Rules of others are known for packets to this machine only.
        if (kernel && query.out.empty()) {
            found.back().before = kernel->ask(meaning, adapter, verdict);
        }
    }
    Json::Value document = documentOf(asked.profile, options, asked.questions,
                                      asked.store().firewallEnabled(), allowed);
    addNotCounted(meaning, document);
    addAsked(query, document);
    for (const AdapterDecisions& adapter : found) {
        Json::Value entry;
        entry["name"] = adapter.adapter;
        adapter.now.addTo(entry);
        for (const NamedDecision& named : adapter.decisions) {
            entry["decisions"].append(decisionDocument(meaning, named));
        }
        entry["acceptedBefore"] = acceptsJson(adapter.before);
        entry["droppedBy"] = dropsJson(adapter.before);
        document["adapters"].append(entry);
    }
    printExplanation(query, asked, kernel, std::move(document), allowed, [&] {
        printHeading(asked.profile, options, asked.questions, wayText(query));
        printDecisions(query, meaning, found);
    });
}

}  // namespace tarnfw
