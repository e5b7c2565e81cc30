/// Questions about ports, and the verdicts on them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/deciders.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Reads "tcp/22", "udp/5000-5010" or "both/53" into a question about destination ports; also "tcp
/// 22", "22/tcp", "tcp/udp 53", "5000:5010/udp". Returns why the text is not valid, and then leaves
/// `question` alone; else an empty text.
std::string portQuestionFrom(const std::string& text, FW::PortCompareST& question);

/// "tcp 22", "tcp/udp 53"; for source ports "tcp source port 22": as portText() has them. Not made
/// printable.
std::string questionText(const FW::PortCompareST& question);

/// Packets that are asked about, and what they are called.
struct PacketQuestion {
    std::string text;  ///< "tcp 22", "udp source port 53", "protocol 47"; not made printable
    std::optional<FW::PortCompareST> port;  ///< of packets to or from ports
    std::vector<FW::FWPACKETSET> packets;   ///< each of one protocol; through any interface
};

/// New connections to this machine, of both families: one set for each protocol that has ports.
PacketQuestion questionAbout(const FW::PortCompareST& port);

/// One for each port of a service, as portsOf() has them, and then for each protocol that it needs
/// besides ports.
std::vector<PacketQuestion> questionsAbout(const Service& service);

/// "allowed", "blocked", "undecided", "mixed"; or "unknown verdict 7".
std::string verdictText(FW::FW_POLICY verdict);

/// The packets of a question that come in through an interface.
std::vector<FW::FWPACKETSET> packetsFor(const PacketQuestion& question,
                                        const std::string& interface);

/// The verdict for one query.
struct PortAnswer {
    PacketQuestion question;
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;  ///< ALLOW, DENY, NONE or MIXED
    PacketOutcomes outcomes = {};                ///< by the rules that are counted
    std::vector<UncountedRule> uncounted = {};   ///< may decide otherwise about some of the packets
    Deciders deciders = {};                      ///< only where they are asked for
};

/// The verdict of an adapter for all queries, the most severe one: blocked, mixed, allowed,
/// undecided.
struct AdapterAnswer {
    std::string adapter;                         ///< "global" or as asked
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;  ///< ALLOW, DENY, NONE or MIXED
    std::vector<PortAnswer> ports;               ///< one for each question, in their order
};

/// The verdicts for every packet of a question, from any address: what a packet meets, as
/// docs/model.md has it. The first answer is that of "global", and then one for each of `adapters`,
/// in their order. "mixed" when some are allowed and some are not, or when it is too complex to
/// find out, also since a rule that is not counted may decide otherwise; "undecided" on an adapter
/// of the profile when no rule and no default policy decides about any of them, and on "global"
/// when it leaves some of them to the adapters and denies none.
std::vector<AdapterAnswer> exactVerdicts(const Meaning& meaning,
                                         const std::vector<PacketQuestion>& questions,
                                         const std::vector<std::string>& adapters);

/// The same, with who decides: on "global", by its own rules alone.
std::vector<AdapterAnswer> explainedVerdicts(const Meaning& meaning,
                                             const std::vector<PacketQuestion>& questions,
                                             const std::vector<std::string>& adapters);

/// Whether no verdict is "blocked" or "mixed".
bool allAllowed(const std::vector<AdapterAnswer>& answers);

}  // namespace tarnfw
