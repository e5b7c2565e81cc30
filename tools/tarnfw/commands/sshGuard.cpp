#include "commands/sshGuard.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/lexical_cast/try_lexical_convert.hpp>

#include "cli/command.h"
#include "cli/output.h"
#include "tarnfwadmin/deciders.h"
#include "tarnfwadmin/firstProfile.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/portEntry.h"

namespace tarnfw {
namespace {

constexpr char kVariable[] = "SSH_CONNECTION";
constexpr char kParentKey[] = "PPid:";
constexpr char kLoopback[] = "lo";

// Parents may end while they are followed: this bounds the loop.
constexpr int kMostParents = 1000;

/// An address with or without a zone, "fe80::1%eth0". Fills the zone, if there is one.
std::optional<Address> addressWithZone(const std::string& text, std::string& zone) {
    const std::size_t percent = text.find('%');
    if (percent != std::string::npos) {
        zone = text.substr(percent + 1);
    }
    return packetAddressFrom(text.substr(0, percent));
}

/// A port as the environment has it, where leading zeros mean nothing.
std::optional<int> environmentPort(const std::string& text) {
    const std::size_t first = std::min(text.find_first_not_of('0'), text.size() - 1);
    return text.empty() ? std::nullopt : portFrom(text.substr(first));
}

/// The variable in a process's environment, a list of NUL-terminated texts.
std::optional<SshConnection> connectionIn(const std::string& environmentFile) {
    const std::string start = std::string(kVariable) + "=";
    std::ifstream file(environmentFile, std::ios::binary);
    for (std::string entry; std::getline(file, entry, '\0');) {
        if (boost::starts_with(entry, start)) {
            return sshConnectionFrom(entry.substr(start.size()));
        }
    }
    return std::nullopt;
}

/// The process that started another one; 0 for the first, or where it cannot be read.
pid_t parentOf(const std::string& statusFile) {
    std::ifstream file(statusFile);
    for (std::string line; std::getline(file, line);) {
        pid_t parent = 0;
        if (boost::starts_with(line, kParentKey)) {
            std::istringstream(line.substr(std::string(kParentKey).size())) >> parent;
            return parent;
        }
    }
    return 0;
}

bool hasAddress(const Interface& interface, const Address& address) {
    return std::find(interface.addresses.begin(), interface.addresses.end(), address) !=
           interface.addresses.end();
}

}  // namespace

std::optional<SshConnection> sshConnectionFrom(const std::string& value) {
    std::istringstream words(value);
    std::string client;
    std::string clientPort;
    std::string server;
    std::string serverPort;
    std::string more;
    if (!(words >> client >> clientPort >> server >> serverPort) || words >> more) {
        return std::nullopt;
    }
    std::string zone;
    const std::optional<Address> from = addressWithZone(client, zone);
    const std::optional<Address> to = addressWithZone(server, zone);
    const std::optional<int> port = environmentPort(serverPort);
    if (!from || !to || !port || !environmentPort(clientPort) || from->isIpv6() != to->isIpv6()) {
        return std::nullopt;
    }
    return SshConnection{*from, *to, *port, zone};
}

std::optional<SshConnection> sshConnectionAbove(pid_t process, const std::string& directory) {
    for (int level = 0; process > 0 && level < kMostParents; ++level) {
        const std::string start =
            std::string(directory).append("/").append(std::to_string(process)).append("/");
        if (const auto connection = connectionIn(start + "environ")) {
            return connection;
        }
        process = parentOf(start + "status");
    }
    return std::nullopt;
}

std::optional<SshConnection> currentSshConnection() {
    if (const char* const value = std::getenv(kVariable)) {
        if (const auto connection = sshConnectionFrom(value)) {
            return connection;
        }
    }
    return sshConnectionAbove(getppid(), "/proc");
}

std::vector<std::string> entrancesOf(const SshConnection& connection,
                                     const std::vector<Interface>& interfaces,
                                     const std::vector<std::string>& routes) {
    std::vector<std::string> entrances;
    const auto add = [&entrances](const std::string& name) {
        if (std::find(entrances.begin(), entrances.end(), name) == entrances.end()) {
            entrances.push_back(name);
        }
    };
    for (const Interface& interface : interfaces) {
        if (hasAddress(interface, connection.client)) {
            return {kLoopback};  // the machine to itself, with any of its addresses
        }
        // Link-local addresses are those of any interface, so the zone alone decides about them.
        if (connection.zone.empty() ? hasAddress(interface, connection.server)
                                    : connection.zone == interface.name) {
            add(interface.name);
        }
    }
    if (!entrances.empty() && connection.zone.empty()) {
        for (const std::string& name : routes) {
            add(name);
        }
    }
    return entrances;
}

std::vector<std::string> routesBack(const SshConnection& connection) {
    std::vector<std::string> names;
    for (const auto& local :
         {std::optional<Address>(connection.server), std::optional<Address>()}) {
        if (const auto name = interfaceTowards(connection.client, local)) {
            names.push_back(*name);
        }
    }
    return names;
}

namespace {

// A client takes any of these (RFC 6056); its next connection has another one.
constexpr FW::FWINTERVAL kClientPorts = {1024, 65535};

/// New connections like this one, from any port of the client.
FW::FWPACKETSET packetsLike(const SshConnection& connection, const std::string& interface) {
    const auto serverPort = static_cast<std::uint16_t>(connection.serverPort);
    FW::FWPACKETSET packets = newConnections(interface);
    packets.families = static_cast<std::uint8_t>(1U << familyOf(connection.client));
    packets.protocols = {{IPPROTO_TCP, IPPROTO_TCP}};
    packets.sources = std::make_shared<FW::FWADDRESSES>(onlyAddress(connection.client));
    packets.destinations = std::make_shared<FW::FWADDRESSES>(onlyAddress(connection.server));
    packets.sourcePorts = {kClientPorts};
    packets.destinationPorts = {{serverPort, serverPort}};
    return packets;
}

/// Why it is not known whether a profile denies a connection: a rule that denies and is not
/// counted. Empty where there is none.
std::string unknownReason(const Meaning& meaning) {
    for (const FW::FWFINDING& finding : meaning.findings()) {
        const bool denies = isNotCounted(finding) &&
                            meaning.profile()
                                    .rules.at(finding.place.adapter)
                                    .at(static_cast<std::size_t>(finding.place.position) - 1)
                                    .policy == FW::FW_POLICY_DENY;
        if (denies) {
            return placeText(finding.place) + " is not counted: " + finding.text;
        }
    }
    return {};
}

}  // namespace

std::string sshDropWarning(const Meaning& stored, const SshConnection& connection,
                           const std::string& interface) {
    const Meaning meaning = stored.between(connection.client, connection.server);
    const Deciders found = decidersOf(meaning, {packetsLike(connection, interface)});
    const auto denies = std::find_if(found.all.begin(), found.all.end(),
                                     [](const Decider& decider) { return decider.denied; });
    const bool isDenied = denies != found.all.end();
    const bool isAllowedToo = std::any_of(found.all.begin(), found.all.end(),
                                          [](const Decider& decider) { return !decider.denied; });
    const std::string unknown = isDenied ? "" : unknownReason(meaning);
    if (!isDenied && unknown.empty()) {
        return {};
    }
    const std::string profile = "profile \"" + meaning.profile().name + "\"";
    std::string text = "you are connected over SSH from ";
    text.append(spelled(connection.client))
        .append(" to port ")
        .append(std::to_string(connection.serverPort))
        .append(" on ")
        .append(interface);
    if (!isDenied) {
        text.append(", and it is not known whether ")
            .append(profile)
            .append(" denies that (")
            .append(unknown)
            .append("); this connection stays, but you may be unable to connect again");
        return printable(text);
    }
    text.append(", and ")
        .append(profile)
        .append(isAllowedToo ? " denies that from some ports (" : " denies that (")
        .append(reasonText(meaning, denies->by))
        .append("); this connection stays, but you ")
        .append(isAllowedToo ? "may be unable to connect again" : "could not connect again");
    return printable(text);
}

std::string sshWarning(const FW::FWPROFILE& profile, Machine& machine, ApplyMode mode) {
    const std::optional<SshConnection> connection = currentSshConnection();
    if (!connection) {
        return {};
    }
    const std::vector<std::string> entrances =
        entrancesOf(*connection, interfacesNow(), routesBack(*connection));
    if (entrances.empty()) {
        return {};
    }
    FW::FWENVIRONMENT environment = environmentOf({profile}, machine);
    environment.batch = mode == ApplyMode::kBatch;
    const Meaning meaning(profile, std::move(environment));
    for (const std::string& interface : entrances) {
        const std::string warning = sshDropWarning(meaning, *connection, interface);
        if (!warning.empty()) {
            return warning;
        }
    }
    return {};
}

void requireSshAccess(const FW::FWPROFILE& profile, Machine& machine, ApplyMode mode, bool yes,
                      const std::string& question, const std::string& ifDeclined) {
    const std::string warning = sshWarning(profile, machine, mode);
    if (warning.empty()) {
        return;
    }
    if (!yes && !canAsk()) {
        throw Error(ErrorKind::kDeclined, warning + "; " + ifDeclined, {}, Remedy::kAgree);
    }
    std::cerr << "tarnfw: " << warning << '\n';
    if (!yes && !confirmed(question)) {
        throw Error(ErrorKind::kDeclined, ifDeclined);
    }
}

FW::FWPROFILE firstProfileHere(const std::string& name, Machine& machine) {
    const std::optional<SshConnection> connection = currentSshConnection();
    const auto session = connection
                             ? std::optional(SshSession{connection->client, connection->serverPort})
                             : std::nullopt;
    return firstProfile(name, interfaceKindsNow(), machine.catalogue().usableServices(), session);
}

}  // namespace tarnfw
