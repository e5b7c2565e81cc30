#include "commands/portQuery.h"

#include <netinet/in.h>

#include <algorithm>
#include <iostream>
#include <utility>

#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwIptables.h"

#include "cli/commandLine.h"
#include "cli/output.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/ruleText.h"

namespace tarnfw {

const char* const kPortQueryFooter =
    "Exit status 0 when nothing is blocked, 10 when something is blocked or mixed, 11 when the "
    "kernel does not do what the answer says.\n"
    "Undecided does not block: \"global\" then leaves the verdict to the adapters, and an "
    "adapter allows what no rule decides. The verdicts are for the stored rules of the active "
    "profile; a disabled firewall blocks nothing. Where the kernel does not have those rules, "
    "where rules of other programs may accept what they block or drop what they allow, and "
    "where packets are handed to another port before they meet them, the answer says so. What "
    "may be dropped counts as blocked.";

namespace {

/// The machine's adapters that no predefined adapter of the profile covers.
std::vector<std::string> uncovered(const std::vector<std::string>& covered) {
    std::vector<std::string> meant;
    for (const char* const predefined : {FW::FW_ADAPTER_PPPOE, FW::FW_ADAPTER_VPN}) {
        if (std::find(covered.begin(), covered.end(), predefined) != covered.end()) {
            const std::vector<std::string> interfaces = interfacesOf(predefined);
            meant.insert(meant.end(), interfaces.begin(), interfaces.end());
        }
    }
    std::vector<std::string> others;
    for (const std::string& adapter : machineAdapters()) {
        if (std::find(meant.begin(), meant.end(), adapter) == meant.end()) {
            others.push_back(adapter);
        }
    }
    return others;
}

std::string subjectText(const PortQuery& options, const std::vector<PacketQuestion>& questions) {
    std::string text;
    for (const PacketQuestion& question : questions) {
        text.append(text.empty() ? "" : ", ").append(question.text);
    }
    return options.service.empty() ? text : "service " + options.service + " (" + text + ")";
}

}  // namespace

// ---- The question ----

void addQueryOptions(Command& command, PortQuery& options) {
    command.option("--service", options.service, "A service of the catalogue, such as ssh")
        .exactlyOneOf(kQuerySubject);
    command.option("--port", options.port, "Ports: tcp/22 or tcp 22, udp/5000-5010, both/53")
        .severalWords()
        .check([](const std::string& text) {
            FW::PortCompareST question{};
            return portQuestionFrom(text, question);
        })
        .exactlyOneOf(kQuerySubject);
    command
        .option("--adapter", options.adapter,
                "One adapter; by default all of the profile and the machine")
        .placeholder("NAME");
    addJsonFlag(command, options.json);
}

std::vector<PacketQuestion> questionsOf(const PortQuery& options, Machine& machine) {
    if (options.service.empty()) {
        FW::PortCompareST question{};
        (void)portQuestionFrom(options.port, question);  // has passed as an option
        return {questionAbout(question)};
    }
    std::vector<PacketQuestion> questions =
        questionsAbout(machine.requireCatalogue().require(options.service));
    if (questions.empty()) {
        throw Error(ErrorKind::kUnusable, "service " + inQuotes(options.service) + " has no ports");
    }
    return questions;
}

std::vector<std::string> adaptersAsked(const PortQuery& options, const FW::FWPROFILE& profile) {
    std::vector<std::string> adapters = adaptersOf(profile);
    if (!options.adapter.empty()) {
        requireCoveredAdapter(options.adapter, adapters);
        return {options.adapter};
    }
    for (const std::string& other : uncovered(adapters)) {
        adapters.push_back(other);
    }
    std::sort(adapters.begin(), adapters.end());
    adapters.erase(std::unique(adapters.begin(), adapters.end()), adapters.end());
    adapters.erase(std::remove_if(adapters.begin(), adapters.end(),
                                  [](const std::string& name) {
                                      return name == FW::FW_ADAPTER_GLOBAL || isLoopback(name);
                                  }),
                   adapters.end());
    return adapters;
}

// ---- What the kernel does of the answer ----

namespace {

/// What the rules do to packets that a rule of others redirects, with the address and the port that
/// they then have. Without a sender: to those of all.
InnerAnswer innerAnswer(const Meaning& meaning, const BeforeFirewall::Redirect& redirect,
                        const std::string& adapter, const std::optional<Address>& from) {
    const Redirection& redirection = redirect.redirection;
    PortPackets packets;
    FW::FWPACKET& packet = packets.packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.family = redirect.family == "v6" ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
    packet.in = interfaceFor(meaning, adapter);
    packet.protocol = redirect.protocol == "udp" ? IPPROTO_UDP : IPPROTO_TCP;
    packet.state = FW::FW_STATE_NEW;
    packets.ports = redirection.seenPorts.value_or(redirection.ports);
    if (from) {
        packet.source = addressNumber(*from);
    }
    if (redirection.destination) {
        packet.destination = addressNumber(*redirection.destination);
    }
    if (!redirection.toThisMachine) {
        packet.chain = FW::FW_CHAIN_FORWARD;
        packet.out =
            redirection.destination ? interfaceTowards(*redirection.destination) : std::nullopt;
    }
    InnerAnswer answer{adapter, "", ""};
    const std::vector<PortDecision> decisions = decisionsFor(meaning, packets);
    const auto is = [&decisions](bool denied) {
        return std::all_of(decisions.begin(), decisions.end(), [&](const PortDecision& decision) {
            return decision.denied == denied && !decision.isDoubtful();
        });
    };
    if (is(false) || is(true)) {
        answer.verdict = verdictText(is(true) ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW);
        answer.by = from && decisions.size() == 1 ? reasonText(meaning, decisions.front().by) : "";
    } else if (!from) {
        answer.verdict = verdictText(FW::FW_POLICY_MIXED);
    }
    return answer;
}

}  // namespace

KernelAnswer::KernelAnswer(const StoreSnapshot& store, const PortQuery& query,
                           const std::vector<PacketQuestion>& questions)
    : report_(kernelReportIfAny(store)),
      complaints_(complaintsOf(report_)),
      onlyGlobal_(query.adapter == FW::FW_ADAPTER_GLOBAL) {
    for (const PacketQuestion& question : questions) {
        if (question.port) {
            ports_.push_back(*question.port);
        }
    }
    if (!query.from.empty()) {
        from_ = packetAddressFrom(query.from);
        to_ = packetAddressFrom(query.to);
    }
}

BeforeFirewall KernelAnswer::ask(const Meaning& meaning, const std::string& adapter,
                                 Verdict verdict) {
    BeforeFirewall before;
    for (const FW::PortCompareST& question : ports_) {
        tarnfw::addTo(before, beforeFirewall(report_, question, adapter, from_, to_));
    }
    if (adapter == FW::FW_ADAPTER_GLOBAL) {
        before.redirects.clear();  // the adapters' answers have them
    }
    addInnerAnswers(meaning, adapter, from_, before);
    if (!verdict.blocks) {
        before.accepts.clear();  // they accept what the firewall accepts
    }
    const bool adaptersAnswer = adapter == FW::FW_ADAPTER_GLOBAL && !onlyGlobal_;
    // A reload that was killed has made policies drop: that is a complaint already.
    if (!verdict.allows || adaptersAnswer || isClosed(report_)) {
        before.drops.clear();
    }
    accepted_ = accepted_ || !before.accepts.empty();
    dropped_ = dropped_ || !before.drops.empty();
    tarnfw::addTo(all_, before);
    return before;
}

void addInnerAnswers(const Meaning& meaning, const std::string& adapter,
                     const std::optional<Address>& from, BeforeFirewall& before) {
    for (BeforeFirewall::Redirect& redirect : before.redirects) {
        redirect.inner.push_back(innerAnswer(meaning, redirect, adapter, from));
    }
}

void KernelAnswer::printFirst() const {
    for (const std::string& text : complaints_) {
        std::cout << painted(printable("The kernel does not do this: " + text), Paint::kBad)
                  << '\n';
    }
}

void KernelAnswer::printLast() const {
    for (const std::string& line : redirectsText(all_)) {
        std::cout << painted(line, Paint::kDoubtful) << '\n';
    }
    for (const std::string& text : report_.unknownRules) {
        std::cout << painted(printable("It may be redirected or dropped: " + text),
                             Paint::kDoubtful)
                  << '\n';
    }
}

void KernelAnswer::addTo(Json::Value& document) const {
    document["holds"] = report_.hidden ? Json::Value() : Json::Value(holds());
    document["allowed"] = document["allowed"].asBool() && !dropped_;
    document["complaints"] = textsJson(complaints_);
    document["redirects"] = redirectsJson(all_);
}

void KernelAnswer::end(bool allowed) const {
    if (report_.hidden) {
        warn(std::string("this is the answer of the stored rules; ") + kKernelIsRoots);
        endWith(kExitNotRoot);
    }
    if (!holds()) {
        endWith(kExitNotInForce);
    }
    if (!allowed || dropped_) {
        endWith(kExitBlocked);
    }
}

// ---- 6in4 tunnels ----

std::string TunnelAnswer::text() const {
    if (owners.empty()) {
        return "";
    }
    return "IPv6 through this tunnel of " + boost::join(owners, ", ") + ", where " +
           (owners.size() == 1 ? owners.front() + "'s" : "their") +
           " rules apply too: " + verdictText(verdict);
}

void TunnelAnswer::addTo(Json::Value& entry) const {
    for (const std::string& owner : owners) {
        entry["tunnelOf"].append(owner);
        entry["v6Verdict"] = verdictText(verdict);
    }
}

TunnelAnswer tunnelAnswer(const Meaning& meaning, const std::vector<PacketQuestion>& questions,
                          const std::string& adapter) {
    TunnelAnswer answer;
    answer.owners = tunnelOwners(meaning, adapter);
    if (answer.owners.empty()) {
        return answer;
    }
    const PacketAnswers answers(meaning);
    PacketOutcomes outcomes;
    for (const PacketQuestion& question : questions) {
        for (FW::FWPACKETSET& packets : packetsFor(question, adapter)) {
            packets.families &= 1U << FW::FW_FAMILY_V6;
            if (packets.families != 0) {
                outcomes.add(answers.outcomes(packets));
                for (const UncountedRule& rule : uncountedFor(meaning, {packets})) {
                    (rule.denied ? outcomes.denied : outcomes.allowed) = true;
                }
            }
        }
    }
    // What nothing decides is allowed.
    const FW::FW_POLICY verdict = outcomes.verdict();
    answer.verdict = verdict == FW::FW_POLICY_NONE ? FW::FW_POLICY_ALLOW : verdict;
    return answer;
}

// ---- Adapters ----

std::string AdapterNow::text() const {
    return !present ? "absent" : inProfile ? "" : "not in the profile";
}

void AdapterNow::addTo(Json::Value& entry) const {
    entry["present"] = present;
    entry["inProfile"] = inProfile;
}

AdapterNow adapterNow(const std::string& adapter, const FW::FWPROFILE& profile) {
    AdapterNow now;
    now.present = FW::TARNFW_IPTABLES_RULES().adapterIsEnabled(adapter);
    const std::vector<std::string> names =
        isPredefined(adapter) ? std::vector{adapter} : adapterNamesOf(adapter);
    const std::vector<std::string> mentioned = adaptersOf(profile);
    now.inProfile =
        adapter == FW::FW_ADAPTER_GLOBAL ||
        std::any_of(names.begin(), names.end(), [&](const std::string& name) {
            return std::find(mentioned.begin(), mentioned.end(), name) != mentioned.end();
        });
    return now;
}

// ---- The answer ----

Json::Value documentOf(const std::string& profile, const PortQuery& options,
                       const std::vector<PacketQuestion>& questions, bool enabled, bool allowed) {
    Json::Value document;
    document["enabled"] = enabled;
    document["profile"] = profile;
    if (!options.service.empty()) {
        document["service"] = options.service;
    }
    for (const PacketQuestion& question : questions) {
        document["ports"].append(question.text);
    }
    document["adapters"] = Json::Value(Json::arrayValue);
    document["notCounted"] = Json::Value(Json::arrayValue);
    document["allowed"] = allowed;
    return document;
}

void printHeading(const std::string& profile, const PortQuery& options,
                  const std::vector<PacketQuestion>& questions, const std::string& more) {
    std::string subject = subjectText(options, questions);
    subject += (subject.empty() || more.empty() ? "" : ", ") + more;
    std::cout << "Profile " << inQuotes(profile) << ", " << printable(subject) << '\n';
}

bool answeredDisabled(const StoreSnapshot& store, const PortQuery& options,
                      const std::vector<PacketQuestion>& questions) {
    if (store.firewallEnabled()) {
        return false;
    }
    if (!options.adapter.empty()) {
        (void)adaptersAsked(options, store.profile(""));  // an unknown name is an error anyway
    }
    const KernelAnswer kernel(store, options, questions);
    if (options.json) {
        Json::Value document = documentOf(store.activeProfile(), options, questions, false, true);
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        std::cout << "Firewall disabled: nothing is blocked\n";
    }
    kernel.end(true);
    return true;
}

KernelAnswer::Verdict verdictOf(FW::FW_POLICY verdict) {
    const bool denies = verdict == FW::FW_POLICY_DENY;
    return {denies || verdict == FW::FW_POLICY_MIXED, !denies};
}

void addNotCounted(const Meaning& meaning, Json::Value& document) {
    document["notCounted"] = Json::Value(Json::arrayValue);
    for (const std::string& text : notCounted(meaning)) {
        warn(text);
        document["notCounted"].append(text);
    }
}

std::string joined(const std::string& one, const std::string& other) {
    return one.empty() || other.empty() ? one + other : one + "; " + other;
}

}  // namespace tarnfw
