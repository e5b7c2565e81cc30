/// tarnfw explain, for one packet as far as it is known: the one rule that decides.
#include <netinet/in.h>

#include <cstdint>
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

/// A protocol without ports.
struct ProtocolAsked {
    std::uint8_t number = 0;
    std::optional<std::uint8_t> icmpType;
    std::string name;  ///< "icmp type 8", "igmp", "protocol 47"
};

/// Reads "icmp", "icmp/8", "igmp" or a number; of IPv6 packets "icmp" is ICMPv6.
std::optional<ProtocolAsked> protocolFrom(const std::string& text, bool ipv6) {
    constexpr char kIcmpWithType[] = "icmp/";
    constexpr int kHighest = 255;
    ProtocolAsked asked;
    const auto byte = [](const std::string& digits) {
        const std::optional<int> number = portFrom(digits);
        return number && *number <= kHighest ? std::optional(static_cast<std::uint8_t>(*number))
                                             : std::nullopt;
    };
    if (text == "igmp") {
        asked.number = IPPROTO_IGMP;
        asked.name = text;
        return asked;
    }
    const bool typed = boost::starts_with(text, kIcmpWithType);
    if (typed || text == "icmp") {
        asked.number = ipv6 ? std::uint8_t{IPPROTO_ICMPV6} : std::uint8_t{IPPROTO_ICMP};
        asked.name = "icmp";
        if (typed) {
            asked.icmpType = byte(text.substr(sizeof kIcmpWithType - 1));
            asked.name += " type " + text.substr(sizeof kIcmpWithType - 1);
        }
        return typed && !asked.icmpType ? std::nullopt : std::optional(asked);
    }
    const std::optional<std::uint8_t> number = byte(text);
    if (!number) {
        return std::nullopt;
    }
    asked.number = *number;
    asked.name = "protocol " + text;
    return asked;
}

/// Packets of one protocol, and what they are called before their ports.
struct NamedPackets {
    std::string name;  ///< "tcp", "icmp type 8"
    PortPackets packets;
};

/// Without the adapter.
std::vector<NamedPackets> packetsAsked(const ExplainQuery& query,
                                       const std::vector<FW::PortCompareST>& questions) {
    FW::FWPACKET packet;
    packet.chain = query.out.empty() ? FW::FW_CHAIN_INPUT : FW::FW_CHAIN_FORWARD;
    packet.state = FW::FW_STATE_NEW;
    const auto from = addressFrom(query.ports.from);
    const auto to = addressFrom(query.ports.to);
    if (from) {
        packet.source = addressNumber(*from);
    }
    if (to) {
        packet.destination = addressNumber(*to);
    }
    if (from || to) {
        packet.family = familyOf(from ? *from : *to);
    }
    std::vector<NamedPackets> all;
    for (const bool ipv6 : {false, true}) {
        const FW::FW_FAMILY family = ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
        if (query.protocol.empty() || packet.family.value_or(family) != family) {
            continue;
        }
        // ICMP is another protocol in each family.
        const ProtocolAsked asked = *protocolFrom(query.protocol, ipv6);
        FW::FWPACKET one = packet;
        one.family = family;
        one.protocol = asked.number;
        one.icmpType = asked.icmpType;
        all.push_back({asked.name + (ipv6 ? " (IPv6)" : " (IPv4)"), {one, std::nullopt}});
    }
    for (const FW::PortCompareST& question : questions) {
        for (const FW::FWPACKETSET& set : packetsFor(question, "")) {
            FW::FWPACKET one = packet;
            one.protocol = static_cast<std::uint8_t>(set.protocols.front().first);
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

    /// Without a sender, rules for some of them are no exception.
    FW::FW_POLICY verdict(const ExplainQuery& query) const {
        const bool depends = query.ports.from.empty() && !decision.unless.empty();
        return depends           ? FW::FW_POLICY_MIXED
               : decision.denied ? FW::FW_POLICY_DENY
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
    return document;
}

void printDecisions(const ExplainQuery& query, const Meaning& meaning,
                    const std::vector<AdapterDecisions>& found) {
    Table table({"Adapter", query.protocol.empty() ? "Port" : "Protocol", "Verdict", "Decided by"});
    for (const AdapterDecisions& adapter : found) {
        for (const NamedDecision& named : adapter.decisions) {
            const PortDecision& decision = named.decision;
            std::string reason = reasonText(meaning, decision.by);
            for (const std::size_t number : decision.unless) {
                reason.append("; unless this matches: ").append(reasonText(meaning, number));
            }
            if (decision.tooComplex) {
                reason.append("; too complex: some of these cannot match");
            }
            reason =
                joined(reason, tunnelOf(meaning, decision.by).empty() ? adapter.now.text() : "");
            reason = joined(
                reason, decision.denied ? acceptsText(adapter.before) : dropsText(adapter.before));
            const FW::FW_POLICY verdict = named.verdict(query);
            table.addRow({{adapter.adapter, Paint::kPlain},
                          {named.packets, Paint::kPlain},
                          {verdictText(verdict), policyPaint(verdict)},
                          {reason, Paint::kPlain}});
        }
    }
    table.print();
}

}  // namespace

std::string protocolComplaint(const std::string& text) {
    return protocolFrom(text, false)
               ? std::string()
               : inQuotes(text) + " is not a protocol such as icmp, icmp/8, igmp or 47";
}

void explainPackets(const ExplainQuery& query) {
    const PortQuery& options = query.ports;
    if (!options.to.empty() && !options.from.empty() &&
        addressFrom(options.to)->isIpv6() != addressFrom(options.from)->isIpv6()) {
        throw UsageError("--to: not of the same family as --from");
    }
    if (options.adapter == FW::FW_ADAPTER_GLOBAL || query.out == FW::FW_ADAPTER_GLOBAL) {
        throw UsageError(options.adapter == FW::FW_ADAPTER_GLOBAL
                             ? "--adapter: no packet comes in through \"global\"; name another "
                               "adapter, or none for all"
                             : "--out: no packet leaves through \"global\"; name another adapter");
    }
    Asked asked(query);
    if (asked.isUnfiltered(query)) {
        (void)answeredDisabled(asked.store(), options, asked.questions);
        return;
    }
    const Meaning meaning(asked.store().profile(asked.profile), asked.context.machine());
    warnNotCounted(meaning);
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
            const FW::FW_POLICY one = named.verdict(query);
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
    if (!query.protocol.empty()) {
        document["protocol"] = query.protocol;
        document["ports"] = Json::Value(Json::arrayValue);
    }
    for (const auto& [key, value] : {std::pair<const char*, std::string>("from", options.from),
                                     {"to", options.to},
                                     {"out", query.out}}) {
        if (!value.empty()) {
            document[key] = value;
        }
    }
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
        std::string subject = query.protocol.empty() ? "" : "protocol " + query.protocol;
        subject += query.out.empty() ? ""
                                     : (subject.empty() ? "" : ", ") +
                                           std::string("forwarded out through ") + query.out;
        printHeading(asked.profile, options, asked.questions, subject);
        printDecisions(query, meaning, found);
    });
}

}  // namespace tarnfw
