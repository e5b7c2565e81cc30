#include "tarnnetsdk.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hostCall.h"
#include "netLinks.h"
#include "pppoeLink.h"
#include "tarncore.h"

namespace {

constexpr char kSource[] = "tarnnetsdk";

constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";
constexpr char kPppoeKey[] = "pppoe_interface";
constexpr char kPppoeSessions[] = "/proc/net/pppoe";

// A name that the kernel accepts for a link; it also becomes one word of a command line.
bool isLinkName(const std::string& name) {
    return !name.empty() && name.size() < sizeof TLIBNET_INTERFACE::name && name != "." &&
           name != ".." && std::none_of(name.begin(), name.end(), [](unsigned char c) {
               return c <= ' ' || c == '/' || c == ':';
           });
}

int readInterfaces(std::vector<host::NetLink>& links) {
    const int result = host::readLinks(links);
    if (result < 0) {
        HOST_LOG_ERR("Cannot list the network links: %s", strerror(-result));
        return HOST_FAIL(-result);
    }
    links.erase(std::remove_if(links.begin(), links.end(),
                               [](const host::NetLink& link) { return link.loopback; }),
                links.end());
    return 0;
}

// The name in the model file; empty without one.
std::string namedPppoeLink() {
    char value[256] = {};
    if (TLIBCFileExist(kModelFile) != 1 ||
        TLIBCFileGetKeyValue(kModelFile, kPppoeKey, value, sizeof value, 0) <= 0) {
        return {};
    }
    return value;
}

std::string sessionsText() {
    std::ifstream file(kPppoeSessions);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Fills `name` with the link of a running session; 0, or a negative error.
int findPppoeLink(std::string& name) {
    std::vector<host::NetLink> links;
    if (readInterfaces(links) < 0) {
        return -1;
    }
    std::map<std::string, host::PppTransport> transports;
    for (const host::NetLink& link : links) {
        if (link.pointToPoint) {
            transports[link.name] = host::pppTransport(link.name);
        }
    }
    const std::optional<std::string> found = host::pppoeLink(sessionsText(), links, transports);
    if (!found) {
        // Not logged: a machine without PPPoE is normal, and this is called often.
        HOST_LOG_DEBUG("No link is known to be a PPPoE session; \"%s\" in %s can name one",
                       kPppoeKey, kModelFile);
        return HOST_FAIL(ENODEV);
    }
    name = *found;
    return 0;
}

bool isAddress(int family, const char* text) {
    in6_addr address{};  // large enough for both families
    return text != nullptr && inet_pton(family, text, &address) == 1;
}

}  // namespace

// The selector would choose kinds of links; here all links except `lo` are of one kind. `extra`, if
// given, gets the number of links, including those that did not fit.
int TLIBNetGetInterfaceInfo(TLIBNET_INTERFACE* table, int capacity, int selector, int* extra) {
    (void)selector;
    return HOST_GUARDED(-1, [&] {
        if (capacity < 0 || (table == nullptr && capacity > 0)) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        std::vector<host::NetLink> links;
        if (readInterfaces(links) < 0) {
            return -1;
        }
        const auto room = static_cast<std::size_t>(capacity);
        host::orderForCapacity(links, room);
        const std::size_t count = std::min(room, links.size());
        for (std::size_t i = 0; i < count; ++i) {
            table[i] = TLIBNET_INTERFACE();
            links[i].name.copy(table[i].name, sizeof table[i].name - 1);
        }
        if (extra != nullptr) {
            *extra = static_cast<int>(links.size());
        }
        return static_cast<int>(count);
    });
}

int TARNPPPoeIntfGet(char* name, int size) {
    return HOST_GUARDED(-1, [&] {
        if (name == nullptr || size <= 0) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        // The administrator's setting is not checked: the link may come and go with the connection.
        std::string found = namedPppoeLink();
        if (!found.empty() && !isLinkName(found)) {
            HOST_LOG_ERR("%s: \"%s\" is no name of a link: \"%s\"", kModelFile, kPppoeKey,
                         found.c_str());
            return HOST_FAIL(EINVAL);
        }
        if (found.empty() && findPppoeLink(found) < 0) {
            return -1;
        }
        if (found.size() >= static_cast<std::size_t>(size)) {
            return HOST_FAIL(ENOSPC);
        }
        found.copy(name, found.size());
        name[found.size()] = '\0';
        return 0;
    });
}

int BlTLIBIsIpAddr(const char* text) {
    return isAddress(AF_INET, text) ? 1 : 0;
}

int BlTLIBIsv6IpAddrValid(const char* text) {
    return isAddress(AF_INET6, text) ? 1 : 0;
}
