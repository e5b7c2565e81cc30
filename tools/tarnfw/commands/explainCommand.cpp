/// tarnfw explain: the rules that decide about packets from anywhere, or the one that decides about
/// a packet.
#include "commands/explain.h"

#include <iostream>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/packetJson.h"
#include "commands/commands.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/ruleText.h"

namespace tarnfw {

Asked::Asked(const ExplainQuery& query) : Asked(query, std::make_unique<Machine>()) {}

Asked::Asked(const ExplainQuery& query, std::unique_ptr<Machine> machine)
    : questions(query.protocol.empty() ? questionsOf(query.ports, *machine)
                                       : std::vector{*protocolQuestion(query.protocol)}),
      context(StoreSession::Access::kRead, std::move(machine)),
      profile(query.profile.empty() ? store().activeProfile() : query.profile),
      isActive(profile == store().activeProfile()) {
    if (!isActive) {
        (void)store().profile(profile);  // that there is one
    }
}

void printExplanation(const ExplainQuery& query, const Asked& asked,
                      const std::optional<KernelAnswer>& kernel, Json::Value document, bool allowed,
                      const std::function<void()>& print) {
    if (query.ports.json) {
        if (kernel) {
            kernel->addTo(document);
        } else {
            document["holds"] = Json::Value();
            document["complaints"] = Json::Value(Json::arrayValue);
            document["redirects"] = Json::Value(Json::arrayValue);
        }
        printJson(document);
    } else {
        if (kernel) {
            kernel->printFirst();
        } else {
            std::cout << "Not in force: "
                      << (asked.isActive ? "the firewall is disabled" : "another profile is active")
                      << '\n';
        }
        print();
        if (kernel) {
            kernel->printLast();
        }
    }
    if (kernel) {
        kernel->end(allowed);
    } else if (!allowed) {
        endWith(kExitBlocked);
    }
}

void addAsked(const ExplainQuery& query, Json::Value& document) {
    for (const auto& [key, value] :
         {std::pair<const char*, std::string>("protocol", query.protocol),
          {"from", query.ports.from},
          {"to", query.ports.to},
          {"out", query.out}}) {
        if (!value.empty()) {
            document[key] = value;
        }
    }
}

std::string wayText(const ExplainQuery& query) {
    return query.out.empty() ? "" : "forwarded out through " + query.out;
}

namespace {

Json::Value placeDocument(const Meaning& meaning, const FW::FWPLACE& place) {
    Json::Value document;
    document["by"] = originWord(place.origin);
    if (rulePlaceOf(place)) {
        document["adapter"] = place.adapter;
    }
    if (place.origin == FW::FW_ORIGIN_RULE) {
        document["position"] = place.position;
        document["text"] = ruleText(meaning.profile()
                                        .rules.at(place.adapter)
                                        .at(static_cast<std::size_t>(place.position) - 1));
    }
    return document;
}

}  // namespace

Json::Value deciderDocument(const Meaning& meaning, const UncountedRule& rule) {
    return placeDocument(meaning, rule.place);
}

Json::Value deciderDocument(const Meaning& meaning, std::size_t number) {
    Json::Value document = placeDocument(meaning, placeOf(meaning, number));
    const std::string tunnel = tunnelOf(meaning, number);
    if (!tunnel.empty()) {
        document["tunnel"] = tunnel;
    }
    return document;
}

// ---- The command line ---------------------------------------------------------------------------

namespace {

/// The error of an address; empty for a valid one.
std::string addressComplaint(const std::string& text) {
    return addressFrom(text) ? std::string() : inQuotes(text) + " is not an address";
}

}  // namespace

void addExplainCommand(Command& app) {
    Command& command =
        app.subcommand("explain",
                       "Show whether a port or a service gets through, and which rules decide for "
                       "whom");
    const auto query = std::make_shared<ExplainQuery>();
    addQueryOptions(command, query->ports);
    command
        .option(
            "--protocol", query->protocol,
            "A protocol, whatever the ports: icmp, icmp/8 (a type), igmp, tcp, udp, or a number "
            "such as 47")
        .check([](const std::string& text) {
            return protocolQuestion(text)
                       ? std::string()
                       : inQuotes(text) +
                             " is not a protocol such as icmp, icmp/8, igmp, tcp or 47";
        })
        .exactlyOneOf(kQuerySubject);
    command.option("--from", query->ports.from, "Show the one rule that decides for a sender")
        .placeholder("ADDRESS")
        .check(addressComplaint);
    command
        .option("--to", query->ports.to,
                "The machine's address that the sender uses (needs --from), or with --out the "
                "receiver's")
        .placeholder("ADDRESS")
        .check(addressComplaint);
    command.option("--out", query->out, "Of packets that are forwarded: through this adapter")
        .placeholder("NAME");
    command
        .option("--profile", query->profile,
                "Ask about a stored profile, active or not; by default about the active one")
        .placeholder("NAME");
    command.footer(
        std::string(kPortQueryFooter) +
        "\nThe rules are evaluated as in the kernel; country rules count as in one that has "
        "the \"geoip\" match. With --from, \"unless\" names rules with the other result that "
        "depend on what is not said, the source port or --to; the verdict is then \"mixed\". "
        "Rules of other programs are not looked up for forwarded packets and protocols "
        "without ports. A profile that is not in force is answered for as if it were.\n"
        "Examples:\n"
        "  tarnfw explain --port tcp/20-25 --adapter eth0 --from 192.168.1.20\n"
        "  tarnfw explain --port tcp/80 --adapter eth0 --out eth1 --to 10.0.0.5\n"
        "  tarnfw explain --protocol icmp/8 --profile default");
    command.run([query] {
        if (!query->ports.to.empty() && query->ports.from.empty() && query->out.empty()) {
            throw UsageError("--to needs --from or --out");
        }
        if (query->out == FW::FW_ADAPTER_GLOBAL) {
            throw UsageError("--out: no packet leaves through \"global\"; name another adapter");
        }
        if (!query->ports.from.empty()) {
            explainPackets(*query);
        } else {
            explainDeciders(*query);
        }
    });
}

}  // namespace tarnfw
