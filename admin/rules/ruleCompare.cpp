#include "tarnfwadmin/ruleCompare.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "base/iptablesAddress.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/portEntry.h"

namespace tarnfw {
namespace {

using Texts = std::set<std::string>;

Texts setOf(const std::vector<std::string>& list) {
    return {list.begin(), list.end()};
}

std::string plainAddress(const std::string& text) {
    const std::optional<Address> address = addressFrom(text);
    return address ? spelled(*address) : text;
}

/// The addresses as texts that are the same for the same addresses.
Texts addressesOf(const FW::FWRULE& rule) {
    const std::vector<std::string>& list = rule.ipList;
    switch (rule.ipGroup) {
        case FW::FW_IP_GROUP_ANY:
        case FW::FW_IP_GROUP_NONE:
            return {};
        case FW::FW_IP_GROUP_SINGLE:
            return list.empty() ? Texts() : Texts{plainAddress(list[0])};
        case FW::FW_IP_GROUP_NETWORK:
            if (list.size() >= 2) {
                if (const auto network = networkFrom(list[0], list[1])) {
                    return {spelled(network->first) + "-" + spelled(network->last)};
                }
                const auto read =
                    addressesRead(list[0] + "/" + list[1], rule.ipType == FW::FW_IP_TYPE_V6);
                if (read && read->size() == 1) {
                    const AddressRange hull = read->front().hull();
                    return {read->front().range() ? spelled(hull.first) + "-" + spelled(hull.last)
                                                  : spelled(read->front())};
                }
                return {plainAddress(list[0]) + "/" + plainAddress(list[1])};
            }
            return setOf(list);
        case FW::FW_IP_GROUP_RANGE:
            return list.size() < 2 ? setOf(list)
                                   : Texts{plainAddress(list[0]) + "-" + plainAddress(list[1])};
        default:
            return setOf(list);
    }
}

bool hasPorts(const FW::FWRULE& rule) {
    return rule.portGroup == FW::FW_PORT_GROUP_PORTS && rule.protocol >= FW::FW_PORT_PROTOCOL_TCP &&
           rule.protocol <= FW::FW_PORT_PROTOCOL_TCP_UDP;
}

/// "22-22" and "22" are the same entry.
Texts portsOf(const FW::FWRULE& rule) {
    Texts ports;
    for (const std::string& entry : rule.portList) {
        const std::optional<PortSpan> span = portSpanFrom(entry);
        ports.insert(span ? portSpanText(*span) : entry);
    }
    return ports;
}

bool samePorts(const FW::FWRULE& one, const FW::FWRULE& other) {
    if (one.portGroup != other.portGroup) {
        return false;
    }
    switch (one.portGroup) {
        case FW::FW_PORT_GROUP_ANY:
            return true;
        case FW::FW_PORT_GROUP_PORTS:
            return one.protocol == other.protocol &&
                   (!hasPorts(one) || (portsOf(one) == portsOf(other) &&
                                       (one.portDirect == FW::FW_PORT_DIRECT_DESTINATION) ==
                                           (other.portDirect == FW::FW_PORT_DIRECT_DESTINATION)));
        default:
            return setOf(one.portList) == setOf(other.portList);
    }
}

bool sameAddresses(const FW::FWRULE& one, const FW::FWRULE& other) {
    const bool sameSide = (one.ipDirect == FW::FW_IP_DIRECT_DESTINATION) ==
                          (other.ipDirect == FW::FW_IP_DIRECT_DESTINATION);
    return one.ipGroup == other.ipGroup && one.ipType == other.ipType &&
           (sameSide || one.ipGroup == FW::FW_IP_GROUP_ANY) &&
           addressesOf(one) == addressesOf(other);
}

}  // namespace

bool isSameRule(const FW::FWRULE& one, const FW::FWRULE& other) {
    return one.policy == other.policy && one.blLog == other.blLog && one.table == other.table &&
           one.chainList == other.chainList &&
           (one.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT) ==
               (other.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT) &&
           samePorts(one, other) && sameAddresses(one, other);
}

}  // namespace tarnfw
