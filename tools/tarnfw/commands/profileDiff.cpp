#include "commands/profileDiff.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <json/json.h>

#include "cli/command.h"
#include "cli/output.h"
#include "cli/packetJson.h"
#include "commands/applying.h"
#include "commands/profileArgument.h"
#include "tarnfwadmin/meaningChange.h"
#include "tarnfwadmin/packetWords.h"

namespace tarnfw {
namespace {

struct DiffOptions {
    std::string first;
    std::string second;
    bool all = false;
    bool json = false;
};

const char* nameOf(FW::FW_CHANGE change) {
    switch (change) {
        case FW::FW_CHANGE_OPENED:
            return "opened";
        case FW::FW_CHANGE_CLOSED:
            return "closed";
        default:
            return "logging";
    }
}

// ---- Examples ----

bool has(const FW::FWINTERVALS& list, std::uint32_t number) {
    return list.empty() || std::any_of(list.begin(), list.end(), [&](const FW::FWINTERVAL& one) {
               return one.first <= number && number <= one.last;
           });
}

std::uint16_t portFrom(const FW::FWINTERVALS& ports, std::uint16_t usual) {
    return has(ports, usual) ? usual : static_cast<std::uint16_t>(ports.front().first);
}

/// The address after the first one of a network, which no host has; any other one as it is.
std::optional<FW::FWADDRESS> hostAddress(const std::optional<FW::FWADDRESS>& address,
                                         const std::shared_ptr<const FW::FWADDRESSES>& list,
                                         FW::FW_FAMILY family) {
    constexpr std::uint64_t kStep = std::uint64_t(1) << 32U;  // between IPv4 addresses
    const bool isIpv4 = family == FW::FW_FAMILY_V4;
    const bool isNetwork = address && list != nullptr &&
                           (isIpv4 ? (address->high / kStep) % 256 == 0 : address->low == 0);
    if (!isNetwork) {
        return address;
    }
    const FW::FWADDRESS next = isIpv4 ? FW::FWADDRESS{address->high + kStep, address->low}
                                      : FW::FWADDRESS{address->high, address->low + 1};
    const auto isUpTo = [](const FW::FWADDRESS& a, const FW::FWADDRESS& b) {
        return a.high < b.high || (a.high == b.high && a.low <= b.low);
    };
    return std::any_of(list->begin(), list->end(),
                       [&](const FW::FWADDRESSINTERVAL& one) {
                           return isUpTo(one.first, *address) && isUpTo(next, one.last);
                       })
               ? next
               : address;
}

/// A packet of the set as people know them, if it has one: of TCP, and between hosts.
FW::FWPACKET usualPacket(const FW::FWPACKETSET& set, FW::FWPACKET packet) {
    constexpr std::uint16_t kHighPort = 50000;
    constexpr std::uint16_t kWebPort = 80;
    const FW::FW_FAMILY family = packet.family.value_or(FW::FW_FAMILY_V4);
    packet.source = hostAddress(packet.source, set.sources, family);
    packet.destination = hostAddress(packet.destination, set.destinations, family);
    if (has(set.protocols, IPPROTO_TCP) && packet.protocol != IPPROTO_TCP &&
        packet.protocol != IPPROTO_UDP && set.icmpTypes.empty()) {
        packet.protocol = static_cast<std::uint8_t>(IPPROTO_TCP);
        packet.sourcePort = portFrom(set.sourcePorts, kHighPort);
        packet.destinationPort = portFrom(set.destinationPorts, kWebPort);
        packet.icmpType.reset();
    }
    return packet;
}

/// Two profiles, and what is different between them.
class Comparison {
public:
    Comparison(NamedProfile before, NamedProfile after, Machine& machine)
        : sides_{std::move(before), std::move(after)},
          environment_(environmentOf({sides_[0].profile, sides_[1].profile}, machine)),
          before_(sides_[0].profile, environment_),
          after_(sides_[1].profile, environment_),
          difference_(before_, after_) {}

    bool same() const { return difference_.same(); }

    void printText(bool all) const {
        if (same()) {
            std::cout << upper(sides_[0].title) << " and " << sides_[1].title << " mean the same\n";
            return;
        }
        std::cout << painted("From " + sides_[0].title + " to " + sides_[1].title, Paint::kStrong)
                  << '\n';
        if (all) {
            printExact();
        } else {
            for (const std::string& text : difference_.texts()) {
                std::cout << printable(text) << '\n';
            }
        }
        if (difference_.tooComplex()) {
            std::cout << painted("Too complex to compare whole: there may be more changes",
                                 Paint::kDoubtful)
                      << '\n';
        }
    }

    Json::Value document() const {
        Json::Value document;
        document["before"] = sides_[0].name;
        document["after"] = sides_[1].name;
        document["same"] = same();
        document["tooComplex"] = difference_.tooComplex();
        document["texts"] = textsJson(difference_.texts());
        document["changes"] = Json::Value(Json::arrayValue);
        for (const Pair& change : pairs()) {
            Json::Value entry;
            entry["change"] = nameOf(change.change);
            entry["before"] = placeJson(change.before);
            entry["after"] = placeJson(change.after);
            entry["loggedBefore"] = change.loggedBefore;
            entry["loggedAfter"] = change.loggedAfter;
            entry["packets"] = Json::Value(Json::arrayValue);
            for (const FW::FWPACKETSET& packets : change.packets) {
                entry["packets"].append(packetsJson(packets));
            }
            entry["witnesses"] = Json::Value(Json::arrayValue);
            for (const FW::FWPACKET& witness : change.witnesses) {
                entry["witnesses"].append(packetJson(witness));
            }
            document["changes"].append(entry);
        }
        return document;
    }

private:
    static std::string upper(std::string text) {
        return text.rfind("profile", 0) == 0 ? "P" + text.substr(1) : text;
    }

    /// Two rules, or default policies, and the packets that they treat differently.
    struct Pair {
        FW::FW_CHANGE change = FW::FW_CHANGE_OPENED;
        FW::FWPLACE before;
        FW::FWPLACE after;
        bool loggedBefore = false;
        bool loggedAfter = false;
        std::vector<FW::FWPACKETSET> packets;
        std::vector<FW::FWPACKET> witnesses;

        bool isFor(const Pair& other) const {
            return change == other.change && isSamePlace(before, other.before) &&
                   isSamePlace(after, other.after) && loggedBefore == other.loggedBefore &&
                   loggedAfter == other.loggedAfter;
        }
    };

    /// The exact changes, those of one pair together: a rule is resolved into several, such as one
    /// for each family.
    std::vector<Pair> pairs() const {
        std::vector<Pair> pairs;
        std::map<PlaceKeys, std::vector<std::size_t>> known;
        for (const FW::FWCHANGE& change : difference_.exact().changes) {
            const FW::FWRESOLVEDRULE old = before_.answers().rule(change.before);
            const FW::FWRESOLVEDRULE now = after_.answers().rule(change.after);
            Pair pair{change.change, old.place, now.place, old.log, now.log, {}, {}};
            std::vector<std::size_t>& alike = known[{keyOf(old.place), keyOf(now.place)}];
            const auto same = std::find_if(alike.begin(), alike.end(), [&](std::size_t index) {
                return pairs[index].isFor(pair);
            });
            const std::size_t index = same == alike.end() ? pairs.size() : *same;
            if (index == pairs.size()) {
                alike.push_back(index);
                pairs.push_back(std::move(pair));
            }
            Pair& whole = pairs[index];
            for (std::size_t i = 0; i < change.packets.size(); ++i) {
                whole.packets.push_back(change.packets[i]);
                whole.witnesses.push_back(usualPacket(change.packets[i], change.witnesses.at(i)));
            }
        }
        return pairs;
    }

    using PlaceKey = std::tuple<int, std::string, int>;
    using PlaceKeys = std::pair<PlaceKey, PlaceKey>;

    static PlaceKey keyOf(const FW::FWPLACE& place) {
        return {place.origin, place.adapter, place.position};
    }

    /// Each set of packets, with the rules that decide about it and one of its packets; and the
    /// rules that are not counted.
    void printExact() const {
        const PacketWords words({before_, after_}, std::numeric_limits<std::size_t>::max() - 1);
        for (const Pair& change : pairs()) {
            std::string what = nameOf(change.change);
            if (change.change == FW::FW_CHANGE_LOGGING) {
                what = change.loggedAfter ? "logged" : "no longer logged";
            }
            const std::string deciders =
                placeText(change.before) + " before, " + placeText(change.after) + " now";
            std::cout << painted(what, Paint::kStrong) << printable(": " + deciders) << '\n';
            for (std::size_t i = 0; i < change.packets.size(); ++i) {
                for (const PacketGroup& group : packetGroups({change.packets[i]})) {
                    std::cout << "  " << printable(words.text(group)) << '\n';
                }
                std::cout << "    for example " << printable(exampleText(change.witnesses[i]))
                          << '\n';
            }
        }
        for (const std::string& text : difference_.notCounted()) {
            std::cout << printable(text) << '\n';
        }
    }

    /// The interface of an example; the adapter of one that is made up for those that it may have.
    std::string interfaceText(const std::optional<std::string>& interface) const {
        const std::string name = interface.value_or("");
        if (name == "ppp" || name == "tun") {
            return FW::FW_ADAPTER_VPN;
        }
        const auto pppoe = environment_.adapters.find(FW::FW_ADAPTER_PPPOE);
        if (name.rfind("any", 0) == 0 && !isKnown(name)) {
            return "any other adapter";
        }
        const bool isPppoe = pppoe != environment_.adapters.end() &&
                             pppoe->second.names == std::vector<std::string>{name};
        return isPppoe ? FW::FW_ADAPTER_PPPOE : name;
    }

    /// Whether the machine or a profile has it: others are made up.
    bool isKnown(const std::string& name) const {
        return std::any_of(environment_.adapters.begin(), environment_.adapters.end(),
                           [&](const auto& adapter) {
                               const std::vector<std::string>& names = adapter.second.names;
                               return adapter.first == name ||
                                      std::find(names.begin(), names.end(), name) != names.end();
                           });
    }

    /// "tcp from 10.0.0.1 port 50000 to 192.0.2.2 port 445 on eth0".
    std::string exampleText(const FW::FWPACKET& packet) const {
        const FW::FW_FAMILY family = packet.family.value_or(FW::FW_FAMILY_V4);
        const auto end = [family](const char* word, const std::optional<FW::FWADDRESS>& address,
                                  const std::optional<std::uint16_t>& port) {
            return std::string(word) +
                   FW::fwAddressText(address.value_or(FW::FWADDRESS{}), family) +
                   (port ? " port " + std::to_string(*port) : "");
        };
        const std::uint8_t protocol = packet.protocol.value_or(0);
        std::string text = (protocol == IPPROTO_TCP   ? "tcp"
                            : protocol == IPPROTO_UDP ? "udp"
                                                      : "protocol " + std::to_string(protocol)) +
                           (packet.icmpType ? " type " + std::to_string(*packet.icmpType) : "") +
                           end(" from ", packet.source, packet.sourcePort) +
                           end(" to ", packet.destination, packet.destinationPort) + " on " +
                           interfaceText(packet.in);
        if (packet.chain == FW::FW_CHAIN_FORWARD) {
            text += ", forwarded out through " + interfaceText(packet.out);
        }
        return text;
    }

    NamedProfile sides_[2];
    FW::FWENVIRONMENT environment_;
    Meaning before_;
    Meaning after_;
    MeaningDifference difference_;
};

void diff(const DiffOptions& options) {
    Context context(StoreSession::Access::kRead);
    const bool hasBoth = !options.second.empty();
    const auto side = [&](const std::string& what) {
        return namedProfile(what, DocumentName::kNotRead, "it was not compared", context);
    };
    NamedProfile before = side(hasBoth ? options.first : "");
    NamedProfile after = side(hasBoth ? options.second : options.first);
    const Comparison comparison(std::move(before), std::move(after), context.machine());
    if (options.json) {
        printJson(comparison.document());
    } else {
        comparison.printText(options.all);
    }
    if (!comparison.same()) {
        endWith(kExitBlocked);
    }
}

}  // namespace

void addProfileDiff(Command& group) {
    Command& command = group.subcommand(
        "diff",
        "Show what one profile lets through and another does not: what it opens, closes and logs. "
        "Exit status 0 when both mean the same, else 10");
    const auto options = std::make_shared<DiffOptions>();
    command
        .option("A", options->first,
                "A profile: a file (a path, or a name ending in .json; - for standard input) or a "
                "stored one. Alone it is compared with the active profile, as what would change")
        .placeholder("")
        .required();
    command.option("B", options->second, "The other profile: what would change from A to B")
        .placeholder("");
    command.flag("--all", options->all,
                 "Each set of packets, with the rules that decide about it and one of its packets");
    addJsonFlag(command, options->json);
    command.footer(
        "Compares what the rules mean, not how they are written: rules in another order, or others "
        "with the same effect, are no difference. Packets that every profile accepts, such as "
        "those of established connections, are left out. \"tarnfw diff\" compares the kernel with "
        "the active profile.\n"
        "In brackets is the rule that decides: \"rule 4 of eth0\"; \"before: rule 1 of eth0\" is "
        "one "
        "that decided, by its number before; \"now rule 5 of eth0\" is one that had another "
        "number.\n"
        "Example: tarnfw profile diff home travel");
    command.run([options] { diff(*options); });
}

}  // namespace tarnfw
