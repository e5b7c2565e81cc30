#include "tarnfwadmin/unlisted.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <system_error>

#include <libmnl/libmnl.h>

#include "base/netlink.h"
#include "machine/ruleMatch.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

constexpr char kInputChain[] = "INPUT_FIREWALL";
constexpr char kFilterTable[] = "filter";

// ---- Ports of bridges and bonds ----

/// The interfaces that are ports of others; none where the kernel does not say.
std::set<std::string> portsNow() {
    std::array<char, MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(ifinfomsg))> space{};
    nlmsghdr* const request = mnl_nlmsg_put_header(space.data());
    request->nlmsg_type = RTM_GETLINK;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    (void)mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg));
    std::set<std::string> names;
    try {
        askKernel(NETLINK_ROUTE, *request, [&](const nlmsghdr& message) {
            const Attributes link(message, sizeof(ifinfomsg));
            if (link.at(IFLA_MASTER) != nullptr) {
                names.insert(link.textAt(IFLA_IFNAME));
            }
        });
    } catch (const std::system_error&) {
        // then each counts as an adapter of its own
    }
    return names;
}

// ---- What "global" leaves open ----

/// Whether the ranges together are a whole family.
bool areWhole(std::vector<AddressRange> ranges, bool ipv6) {
    std::sort(ranges.begin(), ranges.end(),
              [](const AddressRange& a, const AddressRange& b) { return a.first < b.first; });
    std::optional<Address> next = wholeFamily(ipv6).first;
    for (const AddressRange& range : ranges) {
        if (!next || *next < range.first) {
            break;
        }
        next = range.last < *next ? next : addressAfter(range.last);
    }
    return !next;
}

bool matchesEveryProtocol(const FW::FWRULE& rule, Machine& machine) {
    const auto matches = portMatchesOf(rule, machine);
    return matches && std::any_of(matches->begin(), matches->end(),
                                  [](const PortMatch& match) { return match.protocol.empty(); });
}

/// Whether packets of a family to this machine can pass the list of "global". Where that depends on
/// a country, or on the machine's own address, they count as passing.
bool isLeftOpen(const std::vector<FW::FWRULE>& global, bool ipv6, Machine& machine) {
    std::vector<AddressRange> decided;
    for (const FW::FWRULE& rule : global) {
        if (!hasLine(rule) || rule.table != kFilterTable ||
            rule.chainList.count(kInputChain) == 0 || !matchesEveryProtocol(rule, machine)) {
            continue;
        }
        const std::optional<AddressMatch> match = addressMatchOf(rule, ipv6, machine);
        if (!match) {
            continue;
        }
        if (match->any()) {
            return rule.policy == FW::FW_POLICY_ALLOW;
        }
        if (match->source) {
            decided.insert(decided.end(), match->ranges.begin(), match->ranges.end());
        }
        if (areWhole(decided, ipv6)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::vector<UnlistedAdapter> unlistedAdapters(const FW::FWPROFILE& profile, Machine& machine) {
    std::set<std::string> others = portsNow();
    for (const std::string& adapter : adaptersOf(profile)) {
        others.insert(adapter);
        others.insert(machine.tunnelOf(adapter));
        for (const std::string& interface : interfacesOf(adapter)) {
            others.insert(interface);
        }
    }
    const auto global = profile.rules.find(FW::FW_ADAPTER_GLOBAL);
    const std::vector<FW::FWRULE> none;
    const std::vector<FW::FWRULE>& rules = global == profile.rules.end() ? none : global->second;
    const bool open = isLeftOpen(rules, false, machine) || isLeftOpen(rules, true, machine);
    std::vector<UnlistedAdapter> unlisted;
    for (const std::string& adapter : machineAdapters()) {
        if (others.count(adapter) == 0) {
            unlisted.push_back({adapter, open});
        }
    }
    return unlisted;
}

std::string textOf(const UnlistedAdapter& adapter) {
    return adapter.open ? "open: not in the profile" : "not in the profile";
}

}  // namespace tarnfw
