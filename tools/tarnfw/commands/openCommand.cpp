/// tarnfw open: what listens on this machine, and who may reach it.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/decision.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/listeners.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

struct OpenQuery {
    std::string adapter;  ///< empty: all
    std::string from;     ///< one sender; empty: all
    bool json = false;
};

// ---- What listens -------------------------------------------------------------------------------

/// The sockets of one protocol and port.
using Sockets = std::vector<Listener>;

bool isLoopback(const Listener& listener) {
    const Address& address = listener.address;
    return listener.interface == "lo" || address == *addressFrom("::1") ||
           networkFrom("127.0.0.0", "8")->contains(address);
}

/// In the order of listenersNow().
std::vector<Sockets> socketsByPort() {
    std::vector<Sockets> all;
    for (Listener& listener : listenersNow()) {
        const bool isNew = all.empty() || all.back().front().protocol != listener.protocol ||
                           all.back().front().port != listener.port;
        if (isNew) {
            all.emplace_back();
        }
        all.back().push_back(std::move(listener));
    }
    return all;
}

FW::PortCompareST questionOf(const Listener& listener) {
    return {FW::FW_PORT_DIRECT_DESTINATION, listener.protocol, std::to_string(listener.port)};
}

/// "sshd (812)"; empty when it is not known.
Texts ownersOf(const Sockets& sockets) {
    std::vector<SocketOwner> owners;
    for (const Listener& listener : sockets) {
        owners.insert(owners.end(), listener.owners.begin(), listener.owners.end());
    }
    std::sort(owners.begin(), owners.end());
    owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
    Texts texts;
    for (const SocketOwner& owner : owners) {
        texts.push_back(owner.program + " (" + std::to_string(owner.process) + ")");
    }
    return texts;
}

// ---- Who may reach it ---------------------------------------------------------------------------

/// The senders of one family: nothing when it depends on more than their address.
using Senders = std::optional<std::vector<AddressRange>>;

/// Who may reach a port through an adapter. A family in which no socket of the port can be reached
/// through it is left out; one of them is there.
struct Reach {
    std::optional<Senders> v4;
    std::optional<Senders> v6;
};

/// Of these sockets, through an adapter, in a family.
std::optional<Senders> sendersTo(Decider& decider, const Sockets& sockets,
                                 const std::string& adapter, bool ipv6) {
    std::vector<const Listener*> heard;
    for (const Listener& listener : sockets) {
        const bool family = listener.address.isIpv6() == ipv6 || (!ipv6 && listener.takesIpv4);
        const bool interface = listener.interface.empty() || listener.interface == adapter;
        if (family && interface && !isLoopback(listener)) {
            heard.push_back(&listener);
        }
    }
    if (heard.empty()) {
        return std::nullopt;
    }
    Packet packet = packetsFor(questionOf(*heard.front()), adapter).front();
    packet.source = Address(ipv6, {});
    const Address& bound = heard.front()->address;
    if (heard.size() == 1 && bound != Address(bound.isIpv6(), {})) {
        packet.destination = bound;
    }
    return decider.allowedSenders(packet);
}

std::string textOf(const std::vector<AddressRange>& ranges) {
    Texts texts;
    for (const AddressRange& range : ranges) {
        texts.push_back(spelled(range));
    }
    return boost::join(texts, ", ");
}

std::string textOf(const Senders& senders) {
    if (!senders) {
        return "it depends on the packet";
    }
    if (senders->empty()) {
        return "nobody";
    }
    const std::vector<AddressRange> others = gapsOf(*senders, senders->front().first.isIpv6());
    if (others.empty()) {
        return "everybody";
    }
    return others.size() < senders->size() ? "everybody but " + textOf(others) : textOf(*senders);
}

std::string textOf(const Reach& reach) {
    if (!reach.v4 || !reach.v6) {
        return reach.v4 ? textOf(*reach.v4) + " (IPv4)" : textOf(*reach.v6) + " (IPv6)";
    }
    const std::string v4 = textOf(*reach.v4);
    const std::string v6 = textOf(*reach.v6);
    return v4 == v6 ? v4 : "IPv4: " + v4 + "; IPv6: " + v6;
}

/// The same, asked for one sender.
std::string textFor(const Reach& reach, const Address& sender) {
    const std::optional<Senders>& family = sender.isIpv6() ? reach.v6 : reach.v4;
    if (!family) {
        return "nothing listens";
    }
    if (!*family) {
        return "it depends on the packet";
    }
    const auto contains = [&](const AddressRange& range) { return range.contains(sender); };
    return std::any_of((*family)->begin(), (*family)->end(), contains) ? "open" : "closed";
}

Paint paintOf(const std::string& text) {
    return text == "nobody" || text == "closed" ? Paint::kFaint
           : text == "everybody"                ? Paint::kDoubtful
                                                : Paint::kPlain;
}

Json::Value jsonOf(const Senders& senders) {
    if (!senders) {
        return {};
    }
    Json::Value ranges(Json::arrayValue);
    for (const AddressRange& range : *senders) {
        ranges.append(spelled(range));
    }
    return ranges;
}

/// Leaves out what is said of a family; of none for an empty name.
void leaveOut(const std::string& family, BeforeFirewall& before) {
    const auto erase = [&family](auto& all) {
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [&family](const auto& one) { return one.family == family; }),
                  all.end());
    };
    erase(before.accepts);
    erase(before.drops);
    erase(before.redirects);
}

// ---- The answer ---------------------------------------------------------------------------------

/// The interfaces of the machine that an adapter is, or all for an empty name; never "lo".
Texts interfacesAsked(const std::string& adapter) {
    if (isPredefined(adapter)) {
        return interfacesOf(adapter);
    }
    Texts interfaces;
    for (const std::string& interface : machineAdapters()) {
        if (interface != "lo" && (adapter.empty() || adapter == interface)) {
            interfaces.push_back(interface);
        }
    }
    return interfaces;
}

/// The adapters for which the answer about a port is the same.
struct SameAnswer {
    Texts adapters;
    std::string text;
    std::string note;  ///< what rules of others do to its packets
};

class OpenAnswer {
public:
    OpenAnswer(const OpenQuery& query, Context& context)
        : query_(query),
          from_(query.from.empty() ? std::nullopt : addressFrom(query.from)),
          enabled_(context.store().firewallEnabled()),
          decider_(enabled_ ? context.store().profile("") : FW::FWPROFILE(), context.machine(),
                   context.store().applyMode()),
          report_(kernelReportIfAny(context.store())),
          complaints_(complaintsOf(report_)) {
        document_["enabled"] = enabled_;
        document_["profile"] = context.store().activeProfile();
        document_["ports"] = Json::Value(Json::arrayValue);
        document_["complaints"] = Json::Value(Json::arrayValue);
        for (const std::string& text : complaints_) {
            document_["complaints"].append(text);
        }
        adapters_ = interfacesAsked(query.adapter);
        if (!query.adapter.empty()) {
            document_["adapter"] = query.adapter;
            document_["present"] = !adapters_.empty();
        }
    }

    void add(const Sockets& sockets) {
        const FW::PortCompareST question = questionOf(sockets.front());
        Json::Value entry;
        entry["port"] = questionText(question);
        entry["programs"] = Json::Value(Json::arrayValue);
        const Texts owners = ownersOf(sockets);
        for (const std::string& owner : owners) {
            entry["programs"].append(owner);
        }
        std::vector<SameAnswer> answers;
        if (std::all_of(sockets.begin(), sockets.end(), isLoopback)) {
            answers.push_back({{"lo"}, "this machine alone", ""});
            entry["loopback"] = true;
        } else {
            answers = answersFor(sockets, question, entry);
        }
        document_["ports"].append(entry);
        std::string port = questionText(question);
        std::string programs = boost::join(owners, ", ");
        for (const SameAnswer& answer : answers) {
            table_.addRow({{std::exchange(port, ""), Paint::kStrong},
                           {std::exchange(programs, ""), Paint::kPlain},
                           {boost::join(answer.adapters, ", "), Paint::kPlain},
                           {joined(answer.text, answer.note), paintOf(answer.text)}});
        }
    }

    void print() const {
        if (query_.json) {
            printJson(document_);
            return;
        }
        for (const std::string& text : complaints_) {
            std::cout << painted(printable("The kernel does not do this: " + text), Paint::kBad)
                      << '\n';
        }
        std::cout << (enabled_ ? "Profile " + inQuotes(document_["profile"].asString())
                               : std::string("Firewall disabled: nothing is blocked"))
                  << '\n';
        if (adapters_.empty() && !query_.adapter.empty()) {
            std::cout << inQuotes(query_.adapter)
                      << " is absent now: no packets come in through it\n";
        } else if (table_.empty()) {
            std::cout << "Nothing listens for others\n";
        } else {
            table_.print();
        }
        for (const std::string& line : redirectsText(before_)) {
            std::cout << painted(line, Paint::kDoubtful) << '\n';
        }
    }

    /// Whether only root could see what the kernel does.
    bool isHidden() const { return report_.hidden; }

    /// Whether the kernel does what the answer says, as far as can be seen.
    bool holds() const { return complaints_.empty() && !accepted_; }

private:
    std::vector<SameAnswer> answersFor(const Sockets& sockets, const FW::PortCompareST& question,
                                       Json::Value& entry) {
        std::vector<SameAnswer> answers;
        entry["adapters"] = Json::Value(Json::arrayValue);
        for (const std::string& adapter : adapters_) {
            const Reach reach{sendersTo(decider_, sockets, adapter, false),
                              sendersTo(decider_, sockets, adapter, true)};
            if (!reach.v4 && !reach.v6) {
                continue;  // the sockets hear other interfaces only
            }
            const std::string text = from_ ? textFor(reach, *from_) : textOf(reach);
            BeforeFirewall before = beforeFirewall(report_, question, adapter, from_);
            leaveOut(reach.v4 ? "" : "v4", before);
            leaveOut(reach.v6 ? "" : "v6", before);
            if (text == "everybody" || text == "open") {
                before.accepts.clear();  // they accept what the firewall accepts
            } else if (text == "nobody" || text == "closed") {
                before.drops.clear();
            }
            const std::string note = joined(acceptsText(before), dropsText(before));
            accepted_ = accepted_ || !before.accepts.empty();
            addTo(before_, before);
            Json::Value one;
            one["name"] = adapter;
            if (reach.v4) {
                one["v4"] = jsonOf(*reach.v4);
            }
            if (reach.v6) {
                one["v6"] = jsonOf(*reach.v6);
            }
            one["acceptedBefore"] = acceptsJson(before);
            one["droppedBy"] = dropsJson(before);
            one["redirects"] = redirectsJson(before);
            entry["adapters"].append(one);
            const auto same =
                std::find_if(answers.begin(), answers.end(), [&](const SameAnswer& answer) {
                    return answer.text == text && answer.note == note;
                });
            if (same == answers.end()) {
                answers.push_back({{adapter}, text, note});
            } else {
                same->adapters.push_back(adapter);
            }
        }
        return answers;
    }

    const OpenQuery& query_;
    std::optional<Address> from_;
    bool enabled_;
    Decider decider_;
    KernelReport report_;
    Texts complaints_;
    Texts adapters_;
    bool accepted_ = false;  // something that is closed may be accepted by a rule of others
    BeforeFirewall before_;
    Json::Value document_;
    Table table_{{"Port", "Program", "Adapter", from_ ? "From " + query_.from : "Open to"}};
};

void open(const OpenQuery& query) {
    if (query.adapter == FW::FW_ADAPTER_GLOBAL || query.adapter == "lo") {
        throw UsageError("--adapter: " + inQuotes(query.adapter) +
                         (query.adapter == "lo" ? " is open to this machine alone"
                                                : " is no interface that packets come in through") +
                         "; leave --adapter out for all the others");
    }
    Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    if (!query.adapter.empty()) {
        requireCoveredAdapter(query.adapter, store.hasProfile(store.activeProfile())
                                                 ? adaptersOf(store.profile(""))
                                                 : Texts());
    }
    OpenAnswer answer(query, context);
    for (const Sockets& sockets : socketsByPort()) {
        answer.add(sockets);
    }
    answer.print();
    if (answer.isHidden()) {
        warn(std::string(
                 "this is the answer of the stored rules; the programs of other users and ") +
             kKernelIsRoots);
        endWith(kExitNotRoot);
    }
    if (!answer.holds()) {
        endWith(kExitNotInForce);
    }
}

}  // namespace

void addOpenCommand(Command& app) {
    Command& command =
        app.subcommand("open", "Show what listens on this machine, and who may reach it");
    const auto query = std::make_shared<OpenQuery>();
    command.option("--adapter", query->adapter, "One adapter; by default all of the machine")
        .placeholder("NAME");
    command.option("--from", query->from, "A sender's address: whether the ports are open for it")
        .placeholder("ADDRESS")
        .check([](const std::string& text) {
            return addressFrom(text) ? std::string() : inQuotes(text) + " is not an address";
        });
    addJsonFlag(command, query->json);
    command.footer(
        "Lists TCP sockets that listen and UDP sockets without a peer, with their programs. Who "
        "may "
        "reach them is said by the stored rules of the active profile; where the kernel does not "
        "have those rules, or rules of other programs decide before them, the answer says so. Exit "
        "status 11 when the kernel does not do what the answer says.\n"
        "Example: tarnfw open --from 192.168.1.20");
    command.run([query] { open(*query); });
}

}  // namespace tarnfw
