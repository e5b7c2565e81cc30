/// tarnfw open: which ports are open, to whom, and what listens on this machine.
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/erase.hpp>
#include <boost/algorithm/string/join.hpp>

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
#include "tarnfwadmin/openPorts.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/packetWords.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

/// As many entries of a list as there are.
constexpr std::size_t kAllEntries = 65536;

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

/// Of these sockets, through an interface, in a family; nothing when no socket of the port can be
/// reached that way.
std::optional<OpenTo> openToSockets(OpenPorts& open, const Sockets& sockets,
                                    const std::string& interface, FW::FW_FAMILY family) {
    const std::vector<const Listener*> heard =
        heardBy(sockets, interface, family == FW::FW_FAMILY_V6);
    if (heard.empty()) {
        return std::nullopt;
    }
    const Address& bound = heard.front()->address;
    const bool isOne = heard.size() == 1 && bound != Address(bound.isIpv6(), {});
    return open.to(interface, family, heard.front()->protocol, heard.front()->port,
                   isOne ? std::optional(addressNumber(bound)) : std::nullopt);
}

// ---- In words -----------------------------------------------------------------------------------

/// Of the senders some of whose packets are allowed, those that are named.
constexpr std::size_t kMostParts = 3;

/// "source port 53", "source ports 53,67-68", "any source port except 53".
std::string sourcePortsText(const FW::FWINTERVALS& ports) {
    const auto listed = [](const FW::FWINTERVALS& list) {
        std::vector<std::string> texts;
        for (const FW::FWINTERVAL& one : list) {
            texts.push_back(portSpanText({one.first, one.last}));
        }
        return boost::join(texts, ",");
    };
    FW::FWINTERVALS others;
    int first = 0;
    for (const FW::FWINTERVAL& one : ports) {
        if (first < one.first) {
            others.push_back(
                {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(one.first - 1)});
        }
        first = one.last + 1;
    }
    if (first <= kHighestPort) {
        others.push_back({static_cast<std::uint16_t>(first), kHighestPort});
    }
    if (others.size() < ports.size()) {
        return "any source port except " + listed(others);
    }
    const bool isOne = ports.size() == 1 && ports.front().first == ports.front().last;
    return (isOne ? "source port " : "source ports ") + listed(ports);
}

/// "from source port 53", "to 10.0.0.5".
std::string conditionText(const OpenPartly& part, FW::FW_FAMILY family, const PacketWords& words) {
    std::string text;
    if (!part.sourcePorts.empty()) {
        text = "from " + sourcePortsText(part.sourcePorts);
    }
    if (part.destinations != nullptr) {
        text += (text.empty() ? "" : " ") + words.fromText({{family, nullptr, part.destinations}});
    }
    return text;
}

bool isEveryAddress(const FW::FWADDRESSES& addresses) {
    const FW::FWADDRESS none = {0, 0};
    return addresses.size() == 1 && addresses.front().first.high == none.high &&
           addresses.front().first.low == none.low && ~addresses.front().last.high == none.high &&
           ~addresses.front().last.low == none.low;
}

/// Whose packets are allowed under a condition, in both families.
struct NamedPart {
    std::string condition;
    FamilyAddresses senders;
    bool areAllOthers = true;  ///< they are all whose packets are not all allowed
};

std::vector<NamedPart> partsOf(const OpenFamilies& to, const PacketWords& words) {
    std::vector<NamedPart> parts;
    for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
        if (!to[family]) {
            continue;
        }
        const auto& other = to[family == FW::FW_FAMILY_V4 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4];
        for (const OpenPartly& part : to[family]->partly) {
            const std::string condition = conditionText(part, family, words);
            auto known = std::find_if(parts.begin(), parts.end(), [&](const NamedPart& one) {
                return one.condition == condition;
            });
            if (known == parts.end()) {
                known = parts.insert(parts.end(), {condition, {}, true});
            }
            (family == FW::FW_FAMILY_V4 ? known->senders.v4 : known->senders.v6) = part.senders;
            // An address to which packets go says the family.
            const bool isOfBoth =
                part.destinations != nullptr || !other || isEveryAddress(other->always) ||
                std::any_of(other->partly.begin(), other->partly.end(), [&](const auto& one) {
                    return one.destinations == nullptr &&
                           sourcePortsText(one.sourcePorts) == sourcePortsText(part.sourcePorts);
                });
            known->areAllOthers = known->areAllOthers && part.areAllOthers && isOfBoth;
        }
    }
    return parts;
}

/// Whose packets are allowed: the text, and what it comes to.
struct OpenText {
    std::string text;
    bool isClosed = false;     ///< nobody's
    bool isEverybody = false;  ///< all of them, of the families that are asked about
};

constexpr char kTooComplex[] = "too complex to find out who else";

/// "10.0.0.0/8", "everybody (IPv4)", "10.0.0.0/8; others from source port 53", "nobody".
OpenText textOf(const OpenFamilies& to, const PacketWords& words) {
    OpenText open;
    FamilyAddresses always;
    bool tooComplex = false;
    open.isClosed = open.isEverybody = true;
    for (const auto& [family, all] :
         {std::pair(&to[FW::FW_FAMILY_V4], &always.v4), {&to[FW::FW_FAMILY_V6], &always.v6}}) {
        if (*family) {
            *all = (*family)->always;
            tooComplex = tooComplex || (*family)->tooComplex;
            open.isClosed = open.isClosed && (*family)->isNobody();
            open.isEverybody = open.isEverybody && isEveryAddress((*family)->always);
        }
    }
    const bool isSome = !always.v4.empty() || !always.v6.empty();
    const std::vector<NamedPart> parts = partsOf(to, words);
    std::vector<std::string> texts;
    if (isSome || parts.empty()) {
        texts.push_back(words.sendersText(always));
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i == kMostParts) {
            texts.push_back(std::to_string(parts.size() - i) + " more");
            break;
        }
        const std::string who = !parts[i].areAllOthers ? words.sendersText(parts[i].senders)
                                : isSome               ? "others"
                                                       : "packets";
        texts.push_back(who + " " + parts[i].condition);
    }
    if (tooComplex) {
        texts.emplace_back(kTooComplex);
    }
    open.text = boost::join(texts, "; ");
    const bool both = to[FW::FW_FAMILY_V4] && to[FW::FW_FAMILY_V6];
    if (!both) {  // once, at the end
        const std::string only = to[FW::FW_FAMILY_V4] ? " (IPv4)" : " (IPv6)";
        boost::erase_all(open.text, only);
        open.text += only;
    }
    return open;
}

/// The same of one sender's packets: "open", "open from source port 53", "closed".
OpenText textFor(const std::optional<OpenTo>& to, FW::FW_FAMILY family, const PacketWords& words) {
    OpenText open;
    open.isClosed = to->isNobody();
    open.isEverybody = !to->always.empty();
    open.text = open.isClosed ? "closed" : open.isEverybody ? "open" : "";
    if (!open.text.empty()) {
        return open;
    }
    std::vector<std::string> texts;
    for (const OpenPartly& part : to->partly) {
        if (texts.size() == kMostParts) {
            texts.push_back(std::to_string(to->partly.size() - kMostParts) + " more");
            break;
        }
        texts.push_back(conditionText(part, family, words));
    }
    if (to->tooComplex) {
        texts.emplace_back("too complex to find out more");
    }
    open.text = "open " + boost::join(texts, "; ");
    return open;
}

Paint paintOf(const OpenText& open) {
    return open.isClosed              ? Paint::kFaint
           : open.text == "everybody" ? Paint::kDoubtful
                                      : Paint::kPlain;
}

/// Null when there may be more.
Json::Value jsonOf(const OpenTo& to, FW::FW_FAMILY family) {
    return to.tooComplex ? Json::Value() : addressesJson(to.always, family);
}

/// The packets of those senders some of whose packets are allowed.
Json::Value partlyJson(const OpenFamilies& to) {
    Json::Value all(Json::arrayValue);
    for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
        if (!to[family]) {
            continue;
        }
        for (const OpenPartly& part : to[family]->partly) {
            FW::FWPACKETSET packets;
            packets.families = static_cast<std::uint8_t>(1U << family);
            packets.sources = std::make_shared<FW::FWADDRESSES>(part.senders);
            packets.sourcePorts = part.sourcePorts;
            packets.destinations = part.destinations;
            all.append(packetsJson(packets));
        }
    }
    return all;
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

// ---- What is open though nothing listens --------------------------------------------------------

/// Of rows for single ports, and of those for spans, a person reads no more; "--json" has all.
constexpr std::size_t kMostPortRows = 30;
constexpr std::size_t kMostSpanRows = 10;

/// The ports of a protocol on which a socket hears packets of a family through an interface.
std::set<std::uint16_t> portsHeard(const std::vector<Sockets>& all, const std::string& interface,
                                   FW::FW_FAMILY family, FW::FW_PORT_PROTOCOL protocol) {
    std::set<std::uint16_t> ports;
    for (const Sockets& sockets : all) {
        if (sockets.front().protocol == protocol &&
            !heardBy(sockets, interface, family == FW::FW_FAMILY_V6).empty()) {
            ports.insert(sockets.front().port);
        }
    }
    return ports;
}

std::vector<PacketKind> kindsOf(const OpenRow& row) {
    std::vector<PacketKind> kinds;
    const auto add = [&kinds](std::uint16_t protocol, const FW::FWINTERVALS& ports) {
        if (!ports.empty()) {
            const bool isAny = ports.front().first == 0 && ports.front().last == kHighestPort;
            kinds.push_back({{{protocol, protocol}}, {}, isAny ? FW::FWINTERVALS() : ports, {}});
        }
    };
    add(IPPROTO_TCP, row.tcp);
    add(IPPROTO_UDP, row.udp);
    return kinds;
}

Json::Value unusedJson(const OpenRow& row, const PacketWords& words) {
    Json::Value entry;
    for (const PacketKind& kind : kindsOf(row)) {
        entry["packets"].append(words.kindsText({kind}));
    }
    entry["others"] = row.isSpan;
    for (const std::string& interface : row.interfaces) {
        entry["adapters"].append(interface);
    }
    entry["v4"] = jsonOf(*row.to[FW::FW_FAMILY_V4], FW::FW_FAMILY_V4);
    entry["v6"] = jsonOf(*row.to[FW::FW_FAMILY_V6], FW::FW_FAMILY_V6);
    entry["partly"] = partlyJson(row.to);
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
    OpenText open;
    std::string note;  ///< what rules of others do to its packets
};

class OpenAnswer {
public:
    OpenAnswer(const OpenQuery& query, Context& context)
        : query_(query),
          from_(packetAddressFrom(query.from)),
          enabled_(context.store().firewallEnabled()),
          meaning_(
              Meaning(enabled_ ? context.store().profile("") : FW::FWPROFILE(), context.machine())
                  .between(from_, std::nullopt)),
          words_({meaning_}),
          allWords_({meaning_}, kAllEntries),
          open_(meaning_, from_),
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
        for (const std::string& adapter : adaptersOf(meaning_.profile())) {
            if (query.adapter.empty() && adapter != FW::FW_ADAPTER_GLOBAL &&
                interfacesAsked(adapter).empty()) {
                absent_.push_back(adapter);
                document_["absent"].append(adapter);
            }
        }
        const std::string column = from_ ? "From " + query_.from : "Open to";
        for (std::size_t state = 0; state < std::size(kStates); ++state) {
            std::vector<std::string> columns = {"Port", "Program", "Adapter", column};
            if (state == kUnusedState) {
                columns.erase(columns.begin() + 1);
            }
            tables_.emplace_back(std::move(columns));
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
            answers.push_back({{"lo"}, {"this machine alone", false, false}, ""});
            entry["loopback"] = true;
        } else {
            answers = answersFor(sockets, question, entry);
        }
        document_["ports"].append(entry);
        for (const SameAnswer& answer : answers) {
            const State state = answer.adapters == Texts{"lo"} ? kLoopbackState
                                : answer.open.isClosed         ? kClosedState
                                                               : kOpenState;
            tables_[state].addRow({{questionText(question), Paint::kStrong},
                                   {boost::join(owners, ", "), Paint::kPlain},
                                   {boost::join(answer.adapters, ", "), Paint::kPlain},
                                   {joined(answer.open.text, answer.note), paintOf(answer.open)}});
        }
    }

    /// What rules of others redirect, on whatever ports.
    void addRedirects() {
        for (const std::string& adapter : adapters_) {
            for (const auto protocol : {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP}) {
                // Asked about again, since of all ports a rule for one redirects only some.
                for (const auto& some : redirectsOf(protocol, {0, kHighestPort}, adapter)) {
                    BeforeFirewall found;
                    found.redirects = redirectsOf(protocol, some.redirection.ports, adapter);
                    addInnerAnswers(meaning_, adapter, from_, found);
                    addTo(redirected_, found);
                }
            }
        }
        document_["redirects"] = redirectsJson(redirected_);
    }

    /// What is open besides, while the firewall is enabled.
    void addUnusedPorts(const std::vector<Sockets>& all) {
        if (!enabled_) {
            return;
        }
        const std::vector<OpenRow> rows =
            open_.rows(adapters_, [&all](const auto& interface, auto family, auto protocol) {
                return portsHeard(all, interface, family, protocol);
            });
        std::array<std::size_t, 2> left = {kMostPortRows, kMostSpanRows};
        for (const OpenRow& row : rows) {
            if (query_.json) {
                document_["unused"].append(unusedJson(row, allWords_));
                continue;
            }
            if (left[row.isSpan ? 1 : 0] == 0) {
                ++moreUnused_;
                continue;
            }
            --left[row.isSpan ? 1 : 0];
            const std::string kinds = words_.kindsText(kindsOf(row));
            const OpenText open = from_
                                      ? textFor(row.to[familyOf(*from_)], familyOf(*from_), words_)
                                      : textOf(row.to, words_);
            tables_[kUnusedState].addRow(
                {{row.isSpan ? "other ports of " + kinds : kinds, Paint::kStrong},
                 {boost::join(row.interfaces, ", "), Paint::kPlain},
                 {open.text, paintOf(open)}});
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
        } else {
            printTables();
        }
        if (!absent_.empty()) {
            std::cout << "\nAbsent now, so no packets come in through "
                      << (absent_.size() == 1 ? "it" : "them") << ": "
                      << printable(boost::join(absent_, ", ")) << '\n';
        }
        for (const std::string& line : redirectsText(redirected_)) {
            std::cout << painted(line, Paint::kDoubtful) << '\n';
        }
    }

    /// Whether only root could see what the kernel does.
    bool isHidden() const { return report_.hidden; }

    /// Whether the kernel does what the answer says, as far as can be seen.
    bool holds() const { return complaints_.empty() && !accepted_; }

private:
    std::vector<BeforeFirewall::Redirect> redirectsOf(FW::FW_PORT_PROTOCOL protocol,
                                                      const PortSpan& ports,
                                                      const std::string& adapter) const {
        const FW::PortCompareST question = {FW::FW_PORT_DIRECT_DESTINATION, protocol,
                                            portSpanText(ports)};
        return beforeFirewall(report_, question, adapter, from_).redirects;
    }

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
                if (state == kUnusedState && moreUnused_ > 0) {
                    std::cout << "  ... and " << moreUnused_ << " more; --json has all\n";
                }
            }
        }
    }

    std::vector<SameAnswer> answersFor(const Sockets& sockets, const FW::PortCompareST& question,
                                       Json::Value& entry) {
        std::vector<SameAnswer> answers;
        entry["adapters"] = Json::Value(Json::arrayValue);
        for (const std::string& adapter : adapters_) {
            OpenFamilies reach;
            for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
                if (!from_ || familyOf(*from_) == family) {
                    reach[family] = openToSockets(open_, sockets, adapter, family);
                }
            }
            const auto& v4 = reach[FW::FW_FAMILY_V4];
            const auto& v6 = reach[FW::FW_FAMILY_V6];
            if (!v4 && !v6) {
                continue;  // the sockets hear other interfaces only, or another family
            }
            const OpenText open =
                from_ ? textFor(v4 ? v4 : v6, familyOf(*from_), words_) : textOf(reach, words_);
            BeforeFirewall before = beforeFirewall(report_, question, adapter, from_);
            leaveOut(v4 ? "" : "v4", before);
            leaveOut(v6 ? "" : "v6", before);
            if (open.isEverybody) {
                before.accepts.clear();  // they accept what the firewall accepts
            } else if (open.isClosed) {
                before.drops.clear();
            }
            const std::string note = joined(acceptsText(before), dropsText(before));
            accepted_ = accepted_ || !before.accepts.empty();
            Json::Value one;
            one["name"] = adapter;
            if (v4) {
                one["v4"] = jsonOf(*v4, FW::FW_FAMILY_V4);
            }
            if (v6) {
                one["v6"] = jsonOf(*v6, FW::FW_FAMILY_V6);
            }
            one["partly"] = partlyJson(reach);
            one["state"] = kStates[open.isClosed ? kClosedState : kOpenState].word;
            one["acceptedBefore"] = acceptsJson(before);
            one["droppedBy"] = dropsJson(before);
            one["redirects"] = redirectsJson(before);
            entry["adapters"].append(one);
            const auto same =
                std::find_if(answers.begin(), answers.end(), [&](const SameAnswer& answer) {
                    return answer.open.text == open.text && answer.note == note;
                });
            if (same == answers.end()) {
                answers.push_back({{adapter}, open, note});
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
    PacketWords allWords_;  // of long lists, too
    OpenPorts open_;
    KernelReport report_;
    Texts complaints_;
    Texts adapters_;
    bool accepted_ = false;  // something that is closed may be accepted by a rule of others
    BeforeFirewall redirected_;
    Texts absent_;  // adapters of the profile
    Json::Value document_;
    std::vector<Table> tables_;  // by State
    std::size_t moreUnused_ = 0;
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
    answer.addRedirects();
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
