#include "tarnfwadmin/firstProfile.h"

#include <algorithm>
#include <cctype>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

constexpr char kLoopback[] = "lo";

// The kernel's words for kinds of interfaces.
constexpr char kBridge[] = "bridge";
constexpr char kVeth[] = "veth";
constexpr char kTap[] = "tun";
constexpr char kVrf[] = "vrf";

// ---- What belongs to containers ----

// How managers of containers and virtual machines name bridges.
constexpr const char* kManagersBridges[] = {"docker",  "virbr",  "lxcbr", "lxdbr",
                                            "incusbr", "podman", "cni"};

// A container network of its own: "br-" and the first digits of its number.
constexpr char kNumberedBridge[] = "br-";
constexpr std::size_t kNumberDigits = 12;

// How they name the machine's end of a container's link. The end inside the container, which is the
// machine's own interface when this runs there, has another name.
constexpr const char* kContainersLinks[] = {"veth", "lxc", "cali", "vnet"};

template <std::size_t N>
bool startsWithOneOf(const std::string& name, const char* const (&starts)[N]) {
    return std::any_of(std::begin(starts), std::end(starts),
                       [&](const char* start) { return boost::starts_with(name, start); });
}

bool hasManagersName(const std::string& bridge) {
    const std::string number = boost::starts_with(bridge, kNumberedBridge)
                                   ? bridge.substr(sizeof kNumberedBridge - 1)
                                   : "";
    const bool numbered = number.size() == kNumberDigits &&
                          std::all_of(number.begin(), number.end(), [](unsigned char digit) {
                              return std::isxdigit(digit) != 0;
                          });
    return numbered || startsWithOneOf(bridge, kManagersBridges);
}

/// The machine's end of a link to a container or a virtual machine: a port of a bridge, or one by
/// its name, unless it is in a VRF, which routes for the machine itself.
bool isLinkToContainer(const InterfaceKind& interface, const std::vector<InterfaceKind>& all) {
    if (interface.kind != kVeth && interface.kind != kTap) {
        return false;
    }
    const auto port = std::find_if(all.begin(), all.end(), [&](const InterfaceKind& other) {
        return other.name == interface.portOf;
    });
    const std::string kind = port == all.end() ? "" : port->kind;
    return kind == kBridge || (kind != kVrf && startsWithOneOf(interface.name, kContainersLinks));
}

// ---- Services ----

struct KnownService {
    const char* name;
    std::int32_t protocol;  // for a machine whose catalogue cannot be read
};

// Answers to what the machine itself asks, from servers with any address.
constexpr KnownService kAnswers[] = {
    {"dhcp_client", FW::FW_PORT_PROTOCOL_UDP},
    {"dhcpv6_client", FW::FW_PORT_PROTOCOL_UDP},
};

constexpr KnownService kManagement[] = {
    {"ssh", FW::FW_PORT_PROTOCOL_TCP},
    {"http", FW::FW_PORT_PROTOCOL_TCP},
    {"https", FW::FW_PORT_PROTOCOL_TCP},
};

constexpr KnownService kStorage[] = {
    {"smb", FW::FW_PORT_PROTOCOL_TCP},          {"smb_browse", FW::FW_PORT_PROTOCOL_UDP},
    {"ws_discovery", FW::FW_PORT_PROTOCOL_UDP}, {"nfs", FW::FW_PORT_PROTOCOL_TCP_UDP},
    {"afp", FW::FW_PORT_PROTOCOL_TCP},          {"ftp", FW::FW_PORT_PROTOCOL_TCP},
    {"ftp_passive", FW::FW_PORT_PROTOCOL_TCP},  {"ftps", FW::FW_PORT_PROTOCOL_TCP},
    {"rsync", FW::FW_PORT_PROTOCOL_TCP},        {"iscsi", FW::FW_PORT_PROTOCOL_TCP},
    {"mdns", FW::FW_PORT_PROTOCOL_UDP},
};

// Private and link-local, of both families.
constexpr const char* kLocalNetworks[] = {"10.0.0.0/8",     "172.16.0.0/12", "192.168.0.0/16",
                                          "169.254.0.0/16", "fc00::/7",      "fe80::/10"};

/// Collects the rules of "global".
class GlobalRules {
public:
    explicit GlobalRules(const std::vector<Service>& services) {
        for (const Service& service : services) {
            known_.services[service.name] = service.destination.protocol;
        }
        if (known_.services.empty()) {
            assume(kAnswers);
            assume(kManagement);
            assume(kStorage);
        }
    }

    /// "ssh,http,https": those of them that the machine knows.
    template <std::size_t N>
    std::string known(const KnownService (&services)[N]) const {
        std::vector<std::string> names;
        for (const KnownService& service : services) {
            if (known_.services.count(service.name) != 0) {
                names.emplace_back(service.name);
            }
        }
        return boost::join(names, ",");
    }

    /// Allows services, "ssh,http", or none.
    void allowServices(const std::string& names, const std::string& from = "anywhere") {
        if (!names.empty()) {
            allow({"service", names, "from", from});
        }
    }

    void allow(std::vector<std::string> words) {
        words.insert(words.begin(), "allow");
        rules_.push_back(ruleFrom(words, RuleOptions(), known_));
    }

    std::vector<FW::FWRULE> take() { return std::move(rules_); }

private:
    template <std::size_t N>
    void assume(const KnownService (&services)[N]) {
        for (const KnownService& service : services) {
            known_.services[service.name] = service.protocol;
        }
    }

    RuleVocabulary known_;
    std::vector<FW::FWRULE> rules_;
};

// ---- The session ----

std::optional<AddressRange> networkOf(const std::string& text) {
    const std::size_t slash = text.find('/');
    return networkFrom(text.substr(0, slash), text.substr(slash + 1));
}

/// The one of the local networks that an address is in; empty for none.
std::string localNetworkOf(const Address& address) {
    const auto* const found =
        std::find_if(std::begin(kLocalNetworks), std::end(kLocalNetworks),
                     [&](const char* text) { return networkOf(text)->contains(address); });
    return found == std::end(kLocalNetworks) ? "" : *found;
}

bool isLoopback(const Address& address) {
    return networkOf("127.0.0.0/8")->contains(address) || networkOf("::1/128")->contains(address);
}

/// Whether a service of `names` answers on this TCP port. Without a catalogue: SSH, on its own.
bool answersOn(const std::string& names, int port, const std::vector<Service>& services) {
    if (services.empty()) {
        return port == SshSession().port;
    }
    const std::string listed = "," + names + ",";
    return std::any_of(services.begin(), services.end(), [&](const Service& service) {
        const std::vector<std::string>& ports = service.destination.ports;
        return listed.find("," + service.name + ",") != std::string::npos &&
               service.destination.protocol != FW::FW_PORT_PROTOCOL_UDP &&
               std::any_of(ports.begin(), ports.end(), [&](const std::string& entry) {
                   const std::optional<PortSpan> span = portSpanFrom(entry);
                   return span && covers(*span, {port, port});
               });
    });
}

/// Allows what is missing for another session like this one. From a local network the rest of it
/// may connect as well: its addresses change.
void allowSession(GlobalRules& rules, const SshSession& session,
                  const std::vector<Service>& services) {
    if (isLoopback(session.client)) {
        return;  // "lo" stays open
    }
    const std::string management = rules.known(kManagement);
    const std::string network = localNetworkOf(session.client);
    const std::string from = network.empty() ? spelled(session.client) : network;
    if (network.empty()) {
        rules.allowServices(management, from);
    }
    if (!answersOn(management, session.port, services)) {
        rules.allow({"tcp", std::to_string(session.port), "from", from});
    }
}

}  // namespace

bool isOfContainers(const InterfaceKind& interface, const std::vector<InterfaceKind>& all) {
    if (interface.kind != kBridge) {
        return isLinkToContainer(interface, all);
    }
    // With a port to the outside it is the machine's own, whatever its name.
    return hasManagersName(interface.name) &&
           std::all_of(all.begin(), all.end(), [&](const InterfaceKind& other) {
               return other.portOf != interface.name || isLinkToContainer(other, all);
           });
}

FW::FWPROFILE firstProfile(const std::string& name, const std::vector<InterfaceKind>& interfaces,
                           const std::vector<Service>& services,
                           const std::optional<SshSession>& session) {
    GlobalRules rules(services);
    rules.allow({"icmp"});
    rules.allowServices(rules.known(kAnswers));
    const std::string management = rules.known(kManagement);
    const std::string storage = rules.known(kStorage);
    std::string both = management;
    both.append(management.empty() || storage.empty() ? "" : ",").append(storage);
    for (const char* const network : kLocalNetworks) {
        rules.allowServices(both, network);
    }
    if (session) {
        allowSession(rules, *session, services);
    }
    FW::FWPROFILE profile;
    profile.name = name;
    profile.rules[FW::FW_ADAPTER_GLOBAL] = rules.take();
    profile.adapterPolicyMap[FW::FW_ADAPTER_GLOBAL] = FW::FW_POLICY_NONE;
    for (const InterfaceKind& interface : interfaces) {
        if (interface.name == kLoopback || isOfContainers(interface, interfaces)) {
            continue;
        }
        const std::string adapter =
            isNeverApplied(interface.name) ? FW::FW_ADAPTER_PPPOE : interface.name;
        if (isAdapterName(adapter)) {
            profile.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
        }
    }
    return profile;
}

}  // namespace tarnfw
