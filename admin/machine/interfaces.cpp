#include "tarnfwadmin/interfaces.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/descriptor.h"
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

// The kernel answers at once.
constexpr timeval kRouteWait{2, 0};

std::size_t lengthOf(const Address& address) {
    return address.isIpv6() ? sizeof(in6_addr) : sizeof(in_addr);
}

/// A question for the route to an address.
struct RouteRequest {
    nlmsghdr header{};
    rtmsg route{};
    std::array<char, 2 * RTA_SPACE(sizeof(in6_addr))> attributes{};

    explicit RouteRequest(const Address& peer) {
        header.nlmsg_len = NLMSG_LENGTH(sizeof route);
        header.nlmsg_type = RTM_GETROUTE;
        header.nlmsg_flags = NLM_F_REQUEST;
        route.rtm_family = peer.isIpv6() ? AF_INET6 : AF_INET;
        add(RTA_DST, peer);
        route.rtm_dst_len = static_cast<unsigned char>(lengthOf(peer) * CHAR_BIT);
    }

    void addSource(const Address& local) {
        add(RTA_SRC, local);
        route.rtm_src_len = static_cast<unsigned char>(lengthOf(local) * CHAR_BIT);
    }

private:
    void add(unsigned short type, const Address& address) {
        const std::size_t length = lengthOf(address);
        char* const place = attributes.data() + (header.nlmsg_len - NLMSG_LENGTH(sizeof route));
        rtattr attribute{};
        attribute.rta_type = type;
        attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        std::memcpy(place, &attribute, sizeof attribute);
        std::memcpy(place + RTA_LENGTH(0), address.bytes().data(), length);
        header.nlmsg_len += static_cast<unsigned int>(RTA_SPACE(length));
    }
};

/// The outgoing interface in the kernel's answer; 0 in an error.
unsigned int outgoingInterface(const char* answer, std::size_t length) {
    nlmsghdr header{};
    if (length < NLMSG_LENGTH(sizeof(rtmsg))) {
        return 0;
    }
    std::memcpy(&header, answer, sizeof header);
    if (header.nlmsg_type != RTM_NEWROUTE) {
        return 0;
    }
    std::size_t at = NLMSG_SPACE(sizeof(rtmsg));
    const std::size_t end = std::min<std::size_t>(header.nlmsg_len, length);
    rtattr attribute{};
    while (at + sizeof attribute <= end) {
        std::memcpy(&attribute, answer + at, sizeof attribute);
        unsigned int index = 0;
        if (attribute.rta_type == RTA_OIF && at + RTA_LENGTH(sizeof index) <= end) {
            std::memcpy(&index, answer + at + RTA_LENGTH(0), sizeof index);
            return index;
        }
        if (attribute.rta_len < sizeof attribute) {
            return 0;
        }
        at += RTA_ALIGN(attribute.rta_len);
    }
    return 0;
}

}  // namespace

std::optional<std::string> interfaceTowards(const Address& peer,
                                            const std::optional<Address>& local) {
    RouteRequest request(peer);
    if (local) {
        request.addSource(*local);
    }
    const Descriptor kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    std::array<char, 8192> answer{};
    if (kernel.get() < 0 ||
        setsockopt(kernel.get(), SOL_SOCKET, SO_RCVTIMEO, &kRouteWait, sizeof kRouteWait) != 0 ||
        send(kernel.get(), &request, request.header.nlmsg_len, 0) < 0) {
        return std::nullopt;
    }
    const ssize_t length = recv(kernel.get(), answer.data(), answer.size(), 0);
    const unsigned int index =
        length > 0 ? outgoingInterface(answer.data(), static_cast<std::size_t>(length)) : 0;
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
    return adapter == FW::FW_PPPOE_INTERFACE;
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

void requireAdapter(const std::string& adapter, const std::vector<std::string>& others) {
    const std::vector<std::string> usable = usableAdapters();
    std::set<std::string> known(usable.begin(), usable.end());
    known.insert(others.begin(), others.end());
    if (known.count(adapter) != 0) {
        if (!isAdapterName(adapter)) {
            throw Error(ErrorKind::kUnusable, inQuotes(adapter) + " is not the name of an adapter");
        }
        return;
    }
    if (isNeverApplied(adapter)) {
        throw Error(ErrorKind::kUnusable, kPppoeInterfaceText);
    }
    const std::vector<std::string> names(known.begin(), known.end());
    const std::string meant = nearestAdapter(adapter, names);
    throw Error(ErrorKind::kNotFound, "there is no adapter " + inQuotes(adapter) +
                                          didYouMean(meant) +
                                          " (known: " + printable(boost::join(names, ", ")) + ")");
}

}  // namespace tarnfw
