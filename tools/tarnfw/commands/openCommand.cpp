/// tarnfw open: which ports are open, to whom, and what listens on this machine.
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/packetJson.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/listeners.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/packetWords.h"
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

/// The senders of one family.
using Senders = PacketSenders;

/// Who may reach a port through an adapter. A family in which no socket of the port can be reached
/// through it is left out; one of them is there.
struct Reach {
    std::optional<Senders> v4;
    std::optional<Senders> v6;
};

/// What is allowed and what is not, asked once for an interface, family and protocol.
class OpenPorts {
public:
    explicit OpenPorts(const Meaning& meaning) : answers_(meaning) {}

    const PacketParts& through(const std::string& interface, bool ipv6,
                               FW::FW_PORT_PROTOCOL protocol) {
        const auto [place, isNew] = parts_.try_emplace({interface, ipv6, protocol});
        if (isNew) {
            FW::FWPACKETSET packets = newConnections(interface);
            packets.families =
                static_cast<std::uint8_t>(1U << (ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4));
            const std::uint16_t number =
                protocol == FW::FW_PORT_PROTOCOL_UDP ? IPPROTO_UDP : IPPROTO_TCP;
            packets.protocols = {{number, number}};
            place->second = answers_.parts(packets);
        }
        return place->second;
    }

private:
    PacketAnswers answers_;
    std::map<std::tuple<std::string, bool, FW::FW_PORT_PROTOCOL>, PacketParts> parts_;
};

/// Those of the sockets that packets of a family reach through an interface.
std::vector<const Listener*> heardBy(const Sockets& sockets, const std::string& interface,
                                     bool ipv6) {
    std::vector<const Listener*> heard;
    for (const Listener& listener : sockets) {
        const bool family = listener.address.isIpv6() == ipv6 || (!ipv6 && listener.takesIpv4);
        const bool isHere = listener.interface.empty() || listener.interface == interface;
        if (family && isHere && !isLoopback(listener)) {
            heard.push_back(&listener);
        }
    }
    return heard;
}

/// Of these sockets, through an interface, in a family.
std::optional<Senders> sendersTo(OpenPorts& open, const Sockets& sockets,
                                 const std::string& interface, bool ipv6) {
    const std::vector<const Listener*> heard = heardBy(sockets, interface, ipv6);
    if (heard.empty()) {
        return std::nullopt;
    }
    const Address& bound = heard.front()->address;
    const bool isOne = heard.size() == 1 && bound != Address(bound.isIpv6(), {});
    return open.through(interface, ipv6, heard.front()->protocol)
        .to(heard.front()->port, isOne ? std::optional(addressNumber(bound)) : std::nullopt)
        .senders();
}

constexpr char kDepends[] = "it depends on the packet";
constexpr char kNobody[] = "nobody";
constexpr char kEverybody[] = "everybody";

std::string textOf(const Reach& reach, const PacketWords& words) {
    FamilyAddresses senders;
    for (const auto& [family, all] :
         {std::pair(&reach.v4, &senders.v4), std::pair(&reach.v6, &senders.v6)}) {
        if (*family && (!(*family)->depends.empty() || (*family)->tooComplex)) {
            return kDepends;
        }
        if (*family) {
            *all = (*family)->allowed;
        }
    }
    const std::string text = words.sendersText(senders);
    const std::string only = reach.v4 && reach.v6 ? "" : reach.v4 ? " (IPv4)" : " (IPv6)";
    return only.empty() || boost::ends_with(text, only) ? text : text + only;
}

bool contains(const FW::FWADDRESSES& addresses, const Address& address) {
    const FW::FWADDRESS number = addressNumber(address);
    const auto isLess = [](const FW::FWADDRESS& one, const FW::FWADDRESS& other) {
        return std::tie(one.high, one.low) < std::tie(other.high, other.low);
    };
    return std::any_of(addresses.begin(), addresses.end(),
                       [&](const FW::FWADDRESSINTERVAL& interval) {
                           return !isLess(number, interval.first) && !isLess(interval.last, number);
                       });
}

/// The same, asked for one sender.
std::string textFor(const Reach& reach, const Address& sender) {
    const std::optional<Senders>& family = sender.isIpv6() ? reach.v6 : reach.v4;
    if (!family) {
        return "nothing listens";
    }
    if (contains(family->allowed, sender)) {
        return "open";
    }
    return family->tooComplex || contains(family->depends, sender) ? kDepends : "closed";
}

bool isClosed(const std::string& text) {
    return text == "closed" || text == "nothing listens" || boost::starts_with(text, kNobody);
}

Paint paintOf(const std::string& text) {
    return isClosed(text) ? Paint::kFaint : text == kEverybody ? Paint::kDoubtful : Paint::kPlain;
}

/// Null when it depends on more than the address.
Json::Value jsonOf(const Senders& senders, FW::FW_FAMILY family) {
    return senders.depends.empty() && !senders.tooComplex ? addressesJson(senders.allowed, family)
                                                          : Json::Value();
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

// ---- What is open with nothing that listens
// ------------------------------------------------------

/// From how many ports on a span is said as a whole, also where something listens on one of them.
constexpr int kWideSpan = 1024;

/// Open packets: those to single ports on which nothing listens, and those to whole spans.
struct Unused {
    std::vector<FW::FWPACKETSET> ports;
    std::vector<FW::FWPACKETSET> spans;
};

/// The ports of an interval on which nothing listens.
FW::FWINTERVALS without(const FW::FWINTERVAL& interval, const std::set<std::uint16_t>& heard) {
    FW::FWINTERVALS left;
    int first = interval.first;
    const auto end = heard.upper_bound(interval.last);
    for (auto port = heard.lower_bound(interval.first); port != end; ++port) {
        if (first < *port) {
            left.push_back(
                {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(*port - 1)});
        }
        first = *port + 1;
    }
    if (first <= interval.last) {
        left.push_back({static_cast<std::uint16_t>(first), interval.last});
    }
    return left;
}

void addUnused(const std::vector<FW::FWPACKETSET>& open, const std::set<std::uint16_t>& heard,
               Unused& unused) {
    for (FW::FWPACKETSET set : open) {
        const FW::FWINTERVALS ports = std::exchange(set.destinationPorts, FW::FWINTERVALS());
        if (ports.empty()) {
            unused.spans.push_back(set);
        }
        for (const FW::FWINTERVAL& interval : ports) {
            const bool isWide = interval.last - interval.first >= kWideSpan;
            set.destinationPorts = isWide ? FW::FWINTERVALS{interval} : without(interval, heard);
            if (!set.destinationPorts.empty()) {
                (isWide ? unused.spans : unused.ports).push_back(set);
            }
        }
    }
}

/// The ports of a protocol on which a socket hears packets of a family through an interface.
std::set<std::uint16_t> portsHeard(const std::vector<Sockets>& all, const std::string& interface,
                                   bool ipv6, FW::FW_PORT_PROTOCOL protocol) {
    std::set<std::uint16_t> ports;
    for (const Sockets& sockets : all) {
        if (sockets.front().protocol == protocol && !heardBy(sockets, interface, ipv6).empty()) {
            ports.insert(sockets.front().port);
        }
    }
    return ports;
}

/// Of packets from a sender, if there is one.
Unused unusedOf(OpenPorts& open, const std::vector<Sockets>& all, const Texts& interfaces,
                const std::optional<Address>& from) {
    Unused unused;
    for (const std::string& interface : interfaces) {
        for (const bool ipv6 : {false, true}) {
            for (const auto protocol : {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP}) {
                std::vector<FW::FWPACKETSET> sets;
                for (const FW::FWPACKETSET& set : open.through(interface, ipv6, protocol).allowed) {
                    const bool isAsked =
                        !from || (from->isIpv6() == ipv6 &&
                                  (set.sources == nullptr || contains(*set.sources, *from)));
                    if (isAsked) {
                        sets.push_back(set);
                        sets.back().in =
                            std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{interface}, {}});
                    }
                }
                addUnused(sets, portsHeard(all, interface, ipv6, protocol), unused);
            }
        }
    }
    return unused;
}

/// "eth0", "eth1"
Texts entrancesOf(const PacketGroup& group) {
    std::set<std::string> names;
    for (const PacketWay& way : group.ways) {
        if (way.in != nullptr) {
            names.insert(way.in->names.begin(), way.in->names.end());
        }
    }
    return {names.begin(), names.end()};
}

/// "everybody", "10.0.0.0/8", "packets to 10.0.0.5".
std::string peersText(const PacketGroup& group, const PacketWords& words) {
    constexpr char kFor[] = "for ";
    const std::string text = words.forText(group.peers);
    return boost::starts_with(text, kFor) ? text.substr(sizeof kFor - 1) : text;
}

Json::Value unusedJson(const PacketGroup& group, bool isSpan, const PacketWords& words) {
    Json::Value entry;
    for (const PacketKind& kind : group.kinds) {
        entry["packets"].append(words.kindsText({kind}));
    }
    entry["others"] = isSpan;
    for (const std::string& interface : entrancesOf(group)) {
        entry["adapters"].append(interface);
    }
    for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
        Json::Value ranges(Json::arrayValue);
        for (const PacketPeers& peers : group.peers) {
            for (const Json::Value& range :
                 peers.family == family
                     ? addressesJson(peers.sources == nullptr ? allAddresses() : *peers.sources,
                                     family)
                     : Json::Value(Json::arrayValue)) {
                ranges.append(range);
            }
        }
        entry[family == FW::FW_FAMILY_V4 ? "v4" : "v6"] = ranges;
    }
    return entry;
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

/// What is said of a port on an adapter.
enum State { kOpenState, kUnusedState, kClosedState, kLoopbackState };

struct StateWords {
    const char* heading;
    const char* word;  ///< in JSON
};

// By State.
constexpr StateWords kStates[] = {
    {"Open and listening", "open"},
    {"Open, nothing listens", "unused"},
    {"Listening, but closed", "closed"},
    {"Listening for this machine alone", "loopback"},
};

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
          meaning_(enabled_ ? context.store().profile("") : FW::FWPROFILE(), context.machine()),
          words_({meaning_}),
          open_(meaning_),
          report_(kernelReportIfAny(context.store())),
          complaints_(complaintsOf(report_)) {
        document_["enabled"] = enabled_;
        document_["profile"] = context.store().activeProfile();
        addNotCounted(meaning_, document_);
        document_["ports"] = Json::Value(Json::arrayValue);
        document_["unused"] = Json::Value(Json::arrayValue);
        document_["complaints"] = textsJson(complaints_);
        adapters_ = interfacesAsked(query.adapter);
        if (!query.adapter.empty()) {
            document_["adapter"] = query.adapter;
            document_["present"] = !adapters_.empty();
        }
        const std::string column = from_ ? "From " + query_.from : "Open to";
        for (std::size_t state = 0; state < std::size(kStates); ++state) {
            tables_.emplace_back(std::vector<std::string>{"Port", "Program", "Adapter", column});
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
        for (const SameAnswer& answer : answers) {
            const State state = answer.adapters == Texts{"lo"} ? kLoopbackState
                                : isClosed(answer.text)        ? kClosedState
                                                               : kOpenState;
            tables_[state].addRow({{questionText(question), Paint::kStrong},
                                   {boost::join(owners, ", "), Paint::kPlain},
                                   {boost::join(answer.adapters, ", "), Paint::kPlain},
                                   {joined(answer.text, answer.note), paintOf(answer.text)}});
        }
    }

    /// What is open besides, while the firewall is enabled.
    void addUnusedPorts(const std::vector<Sockets>& all) {
        if (!enabled_) {
            return;
        }
        const Unused unused = unusedOf(open_, all, adapters_, from_);
        const auto add = [this](const std::vector<FW::FWPACKETSET>& sets, bool isSpan) {
            for (const PacketGroup& group : packetGroups(sets)) {
                const std::string kinds = words_.kindsText(group.kinds);
                const std::string text = from_ ? "open" : peersText(group, words_);
                tables_[kUnusedState].addRow(
                    {{isSpan ? "other ports of " + kinds : kinds, Paint::kStrong},
                     {"", Paint::kPlain},
                     {boost::join(entrancesOf(group), ", "), Paint::kPlain},
                     {text, paintOf(text)}});
                document_["unused"].append(unusedJson(group, isSpan, words_));
            }
        };
        add(unused.ports, false);
        add(unused.spans, true);
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
        } else {
            printTables();
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
    void printTables() const {
        const bool isEmpty = std::all_of(tables_.begin(), tables_.end(),
                                         [](const Table& table) { return table.empty(); });
        if (isEmpty) {
            std::cout << "Nothing listens for others\n";
        }
        for (std::size_t state = 0; state < tables_.size(); ++state) {
            if (!tables_[state].empty()) {
                std::cout << '\n' << kStates[state].heading << '\n';
                tables_[state].print(2);
            }
        }
    }

    std::vector<SameAnswer> answersFor(const Sockets& sockets, const FW::PortCompareST& question,
                                       Json::Value& entry) {
        std::vector<SameAnswer> answers;
        entry["adapters"] = Json::Value(Json::arrayValue);
        for (const std::string& adapter : adapters_) {
            const Reach reach{sendersTo(open_, sockets, adapter, false),
                              sendersTo(open_, sockets, adapter, true)};
            if (!reach.v4 && !reach.v6) {
                continue;  // the sockets hear other interfaces only
            }
            const std::string text = from_ ? textFor(reach, *from_) : textOf(reach, words_);
            BeforeFirewall before = beforeFirewall(report_, question, adapter, from_);
            leaveOut(reach.v4 ? "" : "v4", before);
            leaveOut(reach.v6 ? "" : "v6", before);
            if (boost::starts_with(text, kEverybody) || text == "open") {
                before.accepts.clear();  // they accept what the firewall accepts
            } else if (isClosed(text)) {
                before.drops.clear();
            }
            const std::string note = joined(acceptsText(before), dropsText(before));
            accepted_ = accepted_ || !before.accepts.empty();
            addTo(before_, before);
            Json::Value one;
            one["name"] = adapter;
            if (reach.v4) {
                one["v4"] = jsonOf(*reach.v4, FW::FW_FAMILY_V4);
            }
            if (reach.v6) {
                one["v6"] = jsonOf(*reach.v6, FW::FW_FAMILY_V6);
            }
            one["state"] = kStates[isClosed(text) ? kClosedState : kOpenState].word;
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
    Meaning meaning_;
    PacketWords words_;
    OpenPorts open_;
    KernelReport report_;
    Texts complaints_;
    Texts adapters_;
    bool accepted_ = false;  // something that is closed may be accepted by a rule of others
    BeforeFirewall before_;
    Json::Value document_;
    std::vector<Table> tables_;  // by State
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
    const std::vector<Sockets> all = socketsByPort();
    for (const Sockets& sockets : all) {
        answer.add(sockets);
    }
    answer.addUnusedPorts(all);
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
        app.subcommand("open", "Show which ports are open, to whom, and what listens on them");
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
        "Lists what is open and listens, what is open though nothing listens, and what listens but "
        "is closed: TCP sockets that listen and UDP sockets without a peer, with their programs. "
        "Who may reach them is said by the stored rules of the active profile; where the kernel "
        "does not have those rules, or rules of other programs decide before them, the answer says "
        "so. \"Other ports\" are all of a span but those that something listens on. Exit status 11 "
        "when the kernel does not do what the answer says.\n"
        "Example: tarnfw open --from 192.168.1.20");
    command.run([query] { open(*query); });
}

}  // namespace tarnfw
