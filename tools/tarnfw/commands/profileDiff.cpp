#include "commands/profileDiff.h"

#include <cstddef>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
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
        for (const FW::FWCHANGE& change : difference_.exact().changes) {
            const FW::FWRESOLVEDRULE old = before_.answers().rule(change.before);
            const FW::FWRESOLVEDRULE now = after_.answers().rule(change.after);
            Json::Value entry;
            entry["change"] = nameOf(change.change);
            entry["before"] = placeJson(old.place);
            entry["after"] = placeJson(now.place);
            entry["loggedBefore"] = old.log;
            entry["loggedAfter"] = now.log;
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

    /// Each set of packets, with the rules that decide about it and one of its packets.
    void printExact() const {
        const PacketWords words({before_, after_}, std::numeric_limits<std::size_t>::max() - 1);
        for (const FW::FWCHANGE& change : difference_.exact().changes) {
            const FW::FWRESOLVEDRULE now = after_.answers().rule(change.after);
            std::string what = nameOf(change.change);
            if (change.change == FW::FW_CHANGE_LOGGING) {
                what = now.log ? "logged" : "no longer logged";
            }
            const std::string deciders = placeText(before_.answers().rule(change.before).place) +
                                         " before, " + placeText(now.place) + " now";
            std::cout << painted(what, Paint::kStrong) << printable(": " + deciders) << '\n';
            for (std::size_t i = 0; i < change.packets.size(); ++i) {
                for (const PacketGroup& group : packetGroups({change.packets[i]})) {
                    std::cout << "  " << printable(words.text(group)) << '\n';
                }
                std::cout << "    for example " << printable(exampleText(change.witnesses.at(i)))
                          << '\n';
            }
        }
    }

    /// The interface of an example; the adapter of one that is made up for those that it may have.
    std::string interfaceText(const std::optional<std::string>& interface) const {
        const std::string name = interface.value_or("");
        if (name == "ppp" || name == "tun") {
            return FW::FW_ADAPTER_VPN;
        }
        const auto pppoe = environment_.adapters.find(FW::FW_ADAPTER_PPPOE);
        const bool isPppoe = pppoe != environment_.adapters.end() &&
                             pppoe->second.names == std::vector<std::string>{name};
        return isPppoe ? FW::FW_ADAPTER_PPPOE : name;
    }

    /// "tcp from 10.0.0.0 port 50000 to 192.0.2.2 port 445 on eth0".
    std::string exampleText(const FW::FWPACKET& packet) const {
        const FW::FW_FAMILY family = packet.family.value_or(FW::FW_FAMILY_V4);
        const auto end = [family](const char* word, const std::optional<FW::FWADDRESS>& address,
                                  const std::optional<std::uint16_t>& port) {
            return std::string(word) +
                   FW::fwAddressText(address.value_or(FW::FWADDRESS{}), family) +
                   (port ? " port " + std::to_string(*port) : "");
        };
        const std::uint8_t protocol = packet.protocol.value_or(0);
        std::string text = (protocol == 6    ? "tcp"
                            : protocol == 17 ? "udp"
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
        "Example: tarnfw profile diff home travel");
    command.run([options] { diff(*options); });
}

}  // namespace tarnfw
