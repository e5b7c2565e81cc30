/// tarnfw explain, for packets from anywhere: the rules that decide, and for whom each does.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/packetJson.h"
#include "commands/explain.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/deciders.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/packetWords.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// Rules that the text names for one port; a person reads no more. "--json" has all.
constexpr std::size_t kMostRules = 40;

/// The same of rules that are not counted.
constexpr std::size_t kMostUncounted = 8;

/// Of what is named for one rule: groups of packets, and the entries of each list of addresses.
constexpr std::size_t kMostGroups = 4;
constexpr std::size_t kMostAddresses = 3;

/// Sets of packets of one rule that are put into words.
constexpr std::size_t kMostSets = 100;

/// Services or ports of a rule that are named, of more than one more.
constexpr std::size_t kMostPorts = 2;

// ---- The answer for one port --------------------------------------------------------------------

/// A rule and what it does, or a remark without a reason.
struct Row {
    std::string outcome;  ///< "allowed for 10.0.0.0/8"
    std::string reason;
    Paint paint = Paint::kPlain;
};

bool operator==(const Row& one, const Row& other) {
    return one.outcome == other.outcome && one.reason == other.reason;
}

/// What all answers depend on.
struct ExplainContext {
    const Meaning& meaning;
    std::string service;  ///< that is asked about; empty for ports
    std::string out;      ///< the adapter that packets leave through; empty for this machine
    PacketWords words{{meaning}, kMostAddresses};
    PacketWords numbers = {};  ///< names no services
};

/// The rule with few of its services or ports, and among them the one that is asked about.
FW::FWRULE shortened(FW::FWRULE rule, const std::string& service) {
    std::vector<std::string>& list = rule.portList;
    if (list.size() > kMostPorts + 1) {
        const auto asked = std::find(list.begin() + kMostPorts, list.end(), service);
        if (asked != list.end()) {
            list[kMostPorts - 1] = *asked;
        }
        list.resize(kMostPorts);
        list.emplace_back("...");
    }
    return rule;
}

/// The interfaces of an adapter: none for "global", which has all.
std::shared_ptr<const FW::FWINTERFACES> interfacesShown(const Meaning& meaning,
                                                        const std::string& adapter) {
    if (adapter == FW::FW_ADAPTER_GLOBAL) {
        return nullptr;
    }
    // Only while the machine has one there is a name for that of "pppoe".
    const auto known = meaning.environment().adapters.find(adapter);
    const bool isKnown =
        adapter != FW::FW_ADAPTER_PPPOE || !interfacesOf(FW::FW_ADAPTER_PPPOE).empty();
    return std::make_shared<FW::FWINTERFACES>(
        known != meaning.environment().adapters.end() && isKnown ? known->second
                                                                 : FW::FWINTERFACES{{adapter}, {}});
}

/// Who decides about the packets of one question on an adapter.
class Explanation {
public:
    Explanation(const ExplainContext& context, const std::string& adapter, const PortAnswer& port)
        : context_(context),
          adapter_(adapter),
          port_(port),
          found_(port.deciders),
          isGlobal_(adapter == FW::FW_ADAPTER_GLOBAL) {}

    const PortAnswer& port() const { return port_; }

    std::vector<Row> rows() const {
        std::vector<Row> rows;
        const std::size_t count = found_.all.size();
        for (std::size_t i = 0; i < count; ++i) {
            if (kMostRules < count && i + 1 == kMostRules) {
                rows.push_back({"... and " + std::to_string(count - kMostRules) +
                                    " more rules; --json names all",
                                "", Paint::kFaint});
                i = count - 1;
            }
            rows.push_back(rowOf(i));
        }
        for (std::size_t i = 0; i < std::min(port_.uncounted.size(), kMostUncounted); ++i) {
            const UncountedRule& rule = port_.uncounted[i];
            rows.push_back({std::string("or ") + (rule.denied ? "blocked" : "allowed") +
                                ", where this matches",
                            reasonText(context_.meaning, rule), Paint::kDoubtful});
        }
        if (port_.uncounted.size() > kMostUncounted) {
            rows.push_back({"... or where one of " +
                                std::to_string(port_.uncounted.size() - kMostUncounted) +
                                " more rules does; --json names all",
                            "", Paint::kFaint});
        }
        if (found_.tooComplex) {
            rows.push_back({"too complex to find out who else decides", "", Paint::kDoubtful});
        }
        return rows;
    }

    Json::Value document() const {
        Json::Value document;
        document["port"] = port_.question.text;
        document["verdict"] = verdictText(port_.verdict);
        document["tooComplex"] = found_.tooComplex;
        document["steps"] = Json::Value(Json::arrayValue);
        for (const Decider& decider : found_.all) {
            Json::Value step = deciderDocument(context_.meaning, decider.by);
            step["allowed"] = isLeft(decider) ? Json::Value() : Json::Value(!decider.denied);
            step["v4"] = sendersJson(decider, FW::FW_FAMILY_V4);
            step["v6"] = sendersJson(decider, FW::FW_FAMILY_V6);
            if (!decider.isBySender()) {
                for (const FW::FWPACKETSET& packets : decider.packets) {
                    step["packets"].append(packetsJson(withInterfaces(packets)));
                }
            }
            document["steps"].append(step);
        }
        for (const UncountedRule& rule : port_.uncounted) {
            document["unless"].append(deciderDocument(context_.meaning, rule));
        }
        return document;
    }

private:
    /// Whether it is that the rules of "global" leave the packets to the adapters.
    bool isLeft(const Decider& decider) const {
        return isGlobal_ && decider.by == context_.meaning.rules().size();
    }

    Row rowOf(std::size_t index) const {
        const Decider& decider = found_.all[index];
        const std::string whom = " for " + whomText(index);
        if (isLeft(decider)) {
            return {verdictText(FW::FW_POLICY_NONE) + whom,
                    "no rule of global matches: left to the adapters",
                    policyPaint(FW::FW_POLICY_NONE)};
        }
        const FW::FW_POLICY verdict = decider.denied ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW;
        return {verdictText(verdict) + whom, reasonOf(decider), policyPaint(verdict)};
    }

    /// The packets, with the interfaces of the adapters in place of the one that was asked about
    /// for them.
    FW::FWPACKETSET withInterfaces(FW::FWPACKETSET packets) const {
        packets.in = interfacesShown(context_.meaning, adapter_);
        if (packets.out != nullptr) {
            packets.out = interfacesShown(context_.meaning, context_.out);
        }
        return packets;
    }

    std::string reasonOf(const Decider& decider) const {
        std::string text = reasonText(context_.meaning, decider.by);
        const FW::FWPLACE place = placeOf(context_.meaning, decider.by);
        if (place.origin == FW::FW_ORIGIN_RULE) {
            const FW::FWRULE& rule = context_.meaning.profile()
                                         .rules.at(place.adapter)
                                         .at(static_cast<std::size_t>(place.position) - 1);
            boost::replace_first(text, ruleText(rule), ruleText(shortened(rule, context_.service)));
        }
        return text;
    }

    /// "10.0.0.0/8", "everybody else", "packets to 10.0.0.5", "tcp 80 from 10.0.0.0/8".
    std::string whomText(std::size_t index) const {
        const Decider& decider = found_.all[index];
        const bool isRest = index > 0 && index + 1 == found_.all.size() && !found_.tooComplex;
        if (isRest) {
            return decider.isBySender() ? "everybody else" : "all other packets";
        }
        if (decider.isBySender()) {
            return context_.words.sendersText({*decider.senders[0], *decider.senders[1]});
        }
        if (decider.packets.size() > kMostSets) {
            return "some packets";
        }
        const std::string asked =
            context_.numbers.kindsText(packetGroups(packetsFor(port_.question, "")).front().kinds);
        const std::vector<PacketGroup> groups = packetGroups(decider.packets);
        std::vector<std::string> texts;
        for (const PacketGroup& group : groups) {
            if (texts.size() == kMostGroups) {
                texts.push_back(std::to_string(groups.size() - kMostGroups) + " more");
                break;
            }
            const std::string kinds = context_.numbers.kindsText(group.kinds);
            texts.push_back((kinds == asked ? "packets" : kinds) + " " +
                            context_.words.fromText(group.peers));
        }
        return boost::join(texts, "; ");
    }

    /// Null where it depends on more than the sender.
    static Json::Value sendersJson(const Decider& decider, FW::FW_FAMILY family) {
        const auto& senders = decider.senders[family];
        return senders ? addressesJson(*senders, family) : Json::Value();
    }

    const ExplainContext& context_;
    const std::string& adapter_;
    const PortAnswer& port_;
    const Deciders& found_;
    bool isGlobal_;
};

// ---- The answer on one adapter ------------------------------------------------------------------

struct AdapterExplanation {
    const AdapterAnswer& answer;
    std::vector<Explanation> ports;
    AdapterNow now;
    TunnelAnswer tunnel;
    BeforeFirewall before;

    /// That of "global" says nothing more than those of the adapters, whose rules include its own,
    /// but where it alone is asked about or rules of others are.
    bool isWorthPrinting(bool alone) const {
        return alone || answer.adapter != FW::FW_ADAPTER_GLOBAL || !before.accepts.empty() ||
               !before.drops.empty();
    }
};

Json::Value documentOf(const AdapterExplanation& found) {
    Json::Value document;
    document["name"] = found.answer.adapter;
    document["verdict"] = verdictText(found.answer.verdict);
    for (const Explanation& port : found.ports) {
        document["ports"].append(port.document());
    }
    found.now.addTo(document);
    found.tunnel.addTo(document);
    document["acceptedBefore"] = acceptsJson(found.before);
    document["droppedBy"] = dropsJson(found.before);
    return document;
}

using Cells = std::vector<Cell>;

/// What is said of the ports on an adapter, row by row.
std::vector<Cells> rowsOf(const AdapterExplanation& found) {
    std::vector<Cells> table;
    // Neighbours of which the same is said are named together.
    for (std::size_t i = 0, next = 0; i < found.ports.size(); i = next) {
        const std::vector<Row> rows = found.ports[i].rows();
        std::string names = found.ports[i].port().question.text;
        for (next = i + 1; next < found.ports.size() && found.ports[next].rows() == rows; ++next) {
            names += ", " + found.ports[next].port().question.text;
        }
        if (next - i < found.ports.size()) {
            const FW::FW_POLICY verdict = found.ports[i].port().verdict;
            table.push_back(
                {{names, Paint::kStrong}, {verdictText(verdict), policyPaint(verdict)}});
        }
        for (const Row& row : rows) {
            table.push_back({{row.outcome, row.paint}, {row.reason, Paint::kPlain}});
        }
    }
    return table;
}

/// The adapters of which the same is said.
struct SameExplanation {
    std::vector<std::string> adapters;  ///< "eth1 (absent)"
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;
    std::vector<Cells> rows;
    Cells notes;  ///< what rules of a tunnel and of others do

    bool saysTheSame(const SameExplanation& other) const {
        const auto isSame = [](const Cells& one, const Cells& another) {
            return std::equal(one.begin(), one.end(), another.begin(), another.end(),
                              [](const Cell& a, const Cell& b) { return a.text == b.text; });
        };
        return verdict == other.verdict && isSame(notes, other.notes) &&
               std::equal(rows.begin(), rows.end(), other.rows.begin(), other.rows.end(), isSame);
    }

    void print() const {
        std::cout << '\n'
                  << printable(boost::join(adapters, ", ")) << ": "
                  << painted(verdictText(verdict), policyPaint(verdict)) << '\n';
        Table table;
        for (const Cells& row : rows) {
            table.addRow(row);
        }
        table.print(2);
        for (const Cell& note : notes) {
            std::cout << "  " << painted(printable(note.text), note.paint) << '\n';
        }
    }
};

void print(const std::vector<AdapterExplanation>& all) {
    std::vector<SameExplanation> printed;
    for (const AdapterExplanation& found : all) {
        if (!found.isWorthPrinting(all.size() == 1)) {
            continue;
        }
        const std::string now = found.tunnel.owners.empty() ? found.now.text() : "";
        SameExplanation one;
        one.adapters = {found.answer.adapter + (now.empty() ? "" : " (" + now + ")")};
        one.verdict = found.answer.verdict;
        one.rows = rowsOf(found);
        for (const Cell& note : {Cell{found.tunnel.text(), Paint::kPlain},
                                 {acceptsText(found.before), Paint::kBad},
                                 {dropsText(found.before), Paint::kBad}}) {
            if (!note.text.empty()) {
                one.notes.push_back(note);
            }
        }
        const auto same =
            std::find_if(printed.begin(), printed.end(),
                         [&one](const SameExplanation& known) { return known.saysTheSame(one); });
        if (same == printed.end()) {
            printed.push_back(std::move(one));
        } else {
            same->adapters.push_back(one.adapters.front());
        }
    }
    for (const SameExplanation& one : printed) {
        one.print();
    }
}

/// Makes the questions those about packets that are forwarded out through an interface. One about
/// a protocol that the family of `to` does not have is left out.
void forward(std::vector<PacketQuestion>& questions, const std::string& out,
             const std::optional<Address>& to) {
    for (PacketQuestion& question : questions) {
        std::vector<FW::FWPACKETSET> forwarded;
        for (FW::FWPACKETSET& set : question.packets) {
            set.chains = 1U << FW::FW_CHAIN_FORWARD;
            set.out = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{out}, {}});
            if (to) {
                set.families = static_cast<std::uint8_t>(set.families & (1U << familyOf(*to)));
                set.destinations = std::make_shared<FW::FWADDRESSES>(onlyAddress(*to));
            }
            if (set.families != 0) {
                forwarded.push_back(std::move(set));
            }
        }
        question.packets = std::move(forwarded);
    }
    questions.erase(std::remove_if(questions.begin(), questions.end(),
                                   [](const auto& question) { return question.packets.empty(); }),
                    questions.end());
}

}  // namespace

void explainDeciders(const ExplainQuery& query) {
    const PortQuery& options = query.ports;
    Asked asked(query);
    if (asked.isUnfiltered(query)) {
        (void)answeredDisabled(asked.store(), options, asked.questions);
        return;
    }
    const std::optional<Address> to = packetAddressFrom(options.to);
    const Meaning meaning = Meaning(asked.store().profile(asked.profile), asked.context.machine())
                                .between(std::nullopt, to);
    if (!query.out.empty()) {
        requireCoveredAdapter(query.out, adaptersOf(meaning.profile()));
        forward(asked.questions, interfaceFor(meaning, query.out), to);
    }
    const std::vector<std::string> adapters = adaptersAsked(options, meaning.profile());
    const std::vector<AdapterAnswer> answers =
        explainedVerdicts(meaning, asked.questions, adapters);
    std::optional<KernelAnswer> kernel;
    if (asked.isInForce()) {
        kernel.emplace(asked.store(), options, asked.questions);
    }
    const bool allowed = allAllowed(answers);
    Json::Value document = tarnfw::documentOf(asked.profile, options, asked.questions,
                                              asked.store().firewallEnabled(), allowed);
    addNotCounted(meaning, document);
    addAsked(query, document);
    const ExplainContext context{meaning, options.service, query.out};
    std::vector<AdapterExplanation> all;
    for (const AdapterAnswer& answer : answers) {
        all.push_back({answer,
                       {},
                       adapterNow(answer.adapter, meaning.profile()),
                       tunnelAnswer(meaning, asked.questions, answer.adapter),
                       // Rules of others are known for packets to this machine only.
                       kernel && query.out.empty()
                           ? kernel->ask(meaning, answer.adapter, verdictOf(answer.verdict))
                           : BeforeFirewall()});
        for (const PortAnswer& port : answer.ports) {
            all.back().ports.emplace_back(context, answer.adapter, port);
        }
        if (options.json) {
            document["adapters"].append(documentOf(all.back()));
        }
    }
    printExplanation(query, asked, kernel, std::move(document), allowed, [&] {
        printHeading(asked.profile, options, asked.questions, wayText(query));
        print(all);
    });
}

}  // namespace tarnfw
