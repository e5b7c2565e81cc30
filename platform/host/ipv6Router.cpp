#include "ipv6Router.h"

#include <netinet/in.h>

#include <algorithm>

namespace host {

namespace {

// The kernel creates this one in every network namespace, for packets that match no tunnel.
constexpr char kFallbackTunnel[] = "sit0";

bool carriesIpv6(const NetLink& link) {
    return link.kind == "sit" && link.name != kFallbackTunnel && link.up &&
           (link.tunnelPayload == 0 || link.tunnelPayload == IPPROTO_IPV6);
}

}  // namespace

std::string ipv6RouterInterface(const std::string& interface, const std::vector<NetLink>& links,
                                const std::vector<NetAddress>& addresses) {
    const auto lower = std::find_if(links.begin(), links.end(),
                                    [&](const NetLink& link) { return link.name == interface; });
    if (lower == links.end()) {
        return interface;
    }
    const auto startsAtLower = [&](const NetLink& tunnel) {
        return std::any_of(addresses.begin(), addresses.end(), [&](const NetAddress& address) {
            return address.linkIndex == lower->index && address.address == tunnel.tunnelLocal;
        });
    };
    const NetLink* bound = nullptr;
    const NetLink* local = nullptr;
    for (const NetLink& link : links) {
        if (!carriesIpv6(link) || link.index == lower->index) {
            continue;
        }
        if (link.lowerIndex == lower->index) {
            if (bound == nullptr || link.index < bound->index) {
                bound = &link;
            }
        } else if (startsAtLower(link)) {
            if (local == nullptr || link.index < local->index) {
                local = &link;
            }
        }
    }
    const NetLink* tunnel = bound != nullptr ? bound : local;
    return tunnel != nullptr ? tunnel->name : interface;
}

}  // namespace host
