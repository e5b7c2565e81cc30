#include "tarnfwadmin/interfaces.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <system_error>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "base/netlink.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

struct AddressListFree {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

std::optional<Address> addressOf(const sockaddr* address) {
    Address::Bytes bytes = {};
    if (address != nullptr && address->sa_family == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, address, sizeof v4);
        std::memcpy(bytes.data(), &v4.sin_addr, sizeof v4.sin_addr);
        return Address(false, bytes);
    }
    if (address != nullptr && address->sa_family == AF_INET6) {
        sockaddr_in6 v6{};
        std::memcpy(&v6, address, sizeof v6);
        std::memcpy(bytes.data(), &v6.sin6_addr, bytes.size());
        return Address(true, bytes);
    }
    return std::nullopt;
}

std::size_t lengthOf(const Address& address) {
    return address.isIpv6() ? sizeof(in6_addr) : sizeof(in_addr);
}

/// Adds an address to a question for a route. Returns the bits of a prefix that is just this one.
unsigned char putAddress(nlmsghdr& request, std::uint16_t type, const Address& address) {
    mnl_attr_put(&request, type, lengthOf(address), address.bytes().data());
    return static_cast<unsigned char>(lengthOf(address) * CHAR_BIT);
}

/// An interface as the kernel lists it.
struct ListedInterface {
    InterfaceKind kind;
    unsigned int portOf = 0;  // an index; 0: none
};

/// The kernel's list of its interfaces, by index. Throws std::system_error.
std::map<int, ListedInterface> listedInterfaces() {
    std::array<char, 64> space{};  // 32 bytes are needed
    nlmsghdr& request = *mnl_nlmsg_put_header(space.data());
    request.nlmsg_type = RTM_GETLINK;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    (void)mnl_nlmsg_put_extra_header(&request, sizeof(ifinfomsg));
    std::map<int, ListedInterface> found;
    askKernel(NETLINK_ROUTE, request, [&found](const nlmsghdr& message) {
        ifinfomsg device{};
        if (message.nlmsg_type != RTM_NEWLINK ||
            mnl_nlmsg_get_payload_len(&message) < sizeof device) {
            return;
        }
        std::memcpy(&device, mnl_nlmsg_get_payload(&message), sizeof device);
        const Attributes attributes(message, sizeof device);
        ListedInterface& listed = found[device.ifi_index];
        listed.kind.name = attributes.textAt(IFLA_IFNAME);
        listed.kind.kind = Attributes(attributes.at(IFLA_LINKINFO)).textAt(IFLA_INFO_KIND);
        listed.portOf = attributes.numberAt(IFLA_MASTER).value_or(0);
    });
    return found;
}

/// The same. A list that has changed meanwhile is asked for again.
std::map<int, ListedInterface> listedInterfacesAtLast() {
    constexpr int kMostTimes = 5;
    for (int times = 1;; ++times) {
        try {
            return listedInterfaces();
        } catch (const std::system_error& error) {
            if (error.code() != std::errc::interrupted || times == kMostTimes) {
                throw Error(
                    ErrorKind::kSystem,
                    std::string("the machine's interfaces cannot be listed: ") + error.what());
            }
        }
    }
}

}  // namespace

std::vector<InterfaceKind> interfaceKindsNow() {
    const std::map<int, ListedInterface> listed = listedInterfacesAtLast();
    std::vector<InterfaceKind> kinds;
    for (const auto& [index, interface] : listed) {
        kinds.push_back(interface.kind);
        const auto port = listed.find(static_cast<int>(interface.portOf));
        if (port != listed.end()) {
            kinds.back().portOf = port->second.kind.name;
        }
    }
    std::sort(kinds.begin(), kinds.end(),
              [](const auto& one, const auto& other) { return one.name < other.name; });
    return kinds;
}

std::optional<std::string> interfaceTowards(const Address& peer,
                                            const std::optional<Address>& local) {
    std::array<char, 256> space{};  // for two addresses, at most 72 bytes are needed
    nlmsghdr& request = *mnl_nlmsg_put_header(space.data());
    request.nlmsg_type = RTM_GETROUTE;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    auto* const route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(&request, sizeof(rtmsg)));
    route->rtm_family = peer.isIpv6() ? AF_INET6 : AF_INET;
    route->rtm_dst_len = putAddress(request, RTA_DST, peer);
    if (local) {
        route->rtm_src_len = putAddress(request, RTA_SRC, *local);
    }
    unsigned int index = 0;
    try {
        askKernel(NETLINK_ROUTE, request, [&index](const nlmsghdr& message) {
            index = Attributes(message, sizeof(rtmsg)).numberAt(RTA_OIF).value_or(0);
        });
    } catch (const std::system_error&) {
        return std::nullopt;  // no route, or the kernel cannot be asked
    }
    std::array<char, IF_NAMESIZE> name{};
    if (index == 0 || if_indextoname(index, name.data()) == nullptr) {
        return std::nullopt;
    }
    return std::string(name.data());
}

std::vector<Interface> interfacesNow() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        throw Error(ErrorKind::kSystem, std::string("the machine's interfaces cannot be listed: ") +
                                            std::strerror(errno));
    }
    const std::unique_ptr<ifaddrs, AddressListFree> owned(list);
    std::map<std::string, Interface> found;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        Interface& interface = found[entry->ifa_name];
        interface.name = entry->ifa_name;
        interface.up = (entry->ifa_flags & IFF_UP) != 0;
        interface.running = interface.up && (entry->ifa_flags & IFF_RUNNING) != 0;
        if (const std::optional<Address> address = addressOf(entry->ifa_addr)) {
            interface.addresses.push_back(*address);
        }
    }
    std::vector<Interface> interfaces;
    interfaces.reserve(found.size());
    for (auto& [name, interface] : found) {
        interfaces.push_back(std::move(interface));
    }
    return interfaces;
}

std::vector<std::string> machineAdapters() {
    std::set<std::string> names;
    if (!FW::TARNFW().fwAdapterEnum(names)) {
        throw Error(ErrorKind::kSystem, "the machine's interfaces cannot be listed");
    }
    return {names.begin(), names.end()};
}

std::vector<std::string> interfacesOf(const std::string& adapter) {
    FW::TARNFW_IPTABLES_RULES translator;
    if ((adapter != FW::FW_ADAPTER_PPPOE && adapter != FW::FW_ADAPTER_VPN) ||
        !translator.adapterIsEnabled(adapter)) {
        return {};
    }
    // From the translation, whose matches are "-i ppp0".
    Json::Value argument;
    (void)translator.iptablesRulesInit(argument);
    if (!translator.adapterToIptablesArg(adapter, FW::FWRULE(), argument)) {
        throw Error(ErrorKind::kSystem,
                    "the interfaces of " + inQuotes(adapter) + " cannot be listed");
    }
    std::vector<std::string> interfaces;
    for (const Json::Value& match : argument["adapter"]) {
        const std::string text = match.asString();
        interfaces.push_back(text.substr(text.rfind(' ') + 1));
    }
    return interfaces;
}

std::vector<std::string> adapterNamesOf(const std::string& interface) {
    std::vector<std::string> names = {interface};
    for (const char* const predefined : {FW::FW_ADAPTER_PPPOE, FW::FW_ADAPTER_VPN}) {
        const std::vector<std::string> meant = interfacesOf(predefined);
        if (std::find(meant.begin(), meant.end(), interface) != meant.end()) {
            names.emplace_back(predefined);
        }
    }
    return names;
}

bool isPredefined(const std::string& adapter) {
    const std::vector<std::string>& names = FW::FW_PREDEFINED_ADAPTERS;
    return std::find(names.begin(), names.end(), adapter) != names.end();
}

bool isNeverApplied(const std::string& adapter) {
    return adapter == FW::FW_PPPOE_INTERFACE || isLoopback(adapter);
}

bool isLoopback(const std::string& adapter) {
    return adapter == "lo";
}

bool isAdapterName(const std::string& name) {
    return isWord(name) && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           name.find_first_of("/:") == std::string::npos;
}

std::vector<std::string> usableAdapters() {
    std::set<std::string> names(FW::FW_PREDEFINED_ADAPTERS.begin(),
                                FW::FW_PREDEFINED_ADAPTERS.end());
    for (const std::string& name : machineAdapters()) {
        if (!isNeverApplied(name)) {
            names.insert(name);
        }
    }
    return {names.begin(), names.end()};
}

void requireAdapterName(const std::string& adapter, const std::vector<std::string>& others) {
    if (!isAdapterName(adapter)) {
        throw Error(ErrorKind::kUnusable, inQuotes(adapter) + " is not the name of an adapter");
    }
    if (adapter == FW::FW_PPPOE_INTERFACE &&
        std::find(others.begin(), others.end(), adapter) == others.end()) {
        throw Error(ErrorKind::kUnusable, kPppoeInterfaceText);
    }
}

void requireAdapter(const std::string& adapter, const std::vector<std::string>& others) {
    const std::vector<std::string> usable = usableAdapters();
    std::set<std::string> known(usable.begin(), usable.end());
    known.insert(others.begin(), others.end());
    if (known.count(adapter) != 0 || adapter == FW::FW_PPPOE_INTERFACE) {
        requireAdapterName(adapter, others);
        return;
    }
    const std::vector<std::string> names(known.begin(), known.end());
    const std::string meant = nearestAdapter(adapter, names);
    throw Error(ErrorKind::kNotFound, "there is no adapter " + inQuotes(adapter) +
                                          didYouMean(meant) + " (known: " + listed(names) + ")");
}

void requireCoveredAdapter(const std::string& adapter, const std::vector<std::string>& others) {
    requireAdapter(adapter, others);
    if (isPredefined(adapter) && adapter != FW::FW_ADAPTER_GLOBAL &&
        std::find(others.begin(), others.end(), adapter) == others.end() &&
        interfacesOf(adapter).empty()) {
        throw Error(ErrorKind::kNotFound, "the machine has no interface for " + inQuotes(adapter) +
                                              " now, and the profile has nothing for it");
    }
}

}  // namespace tarnfw
