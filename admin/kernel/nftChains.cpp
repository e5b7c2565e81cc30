#include "kernel/nftChains.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "base/netlink.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

// Tables that change meanwhile make the kernel's list incomplete.
constexpr int kAttempts = 5;

std::string familyName(unsigned char family) {
    switch (family) {
        case NFPROTO_IPV4:
            return "ip";
        case NFPROTO_IPV6:
            return "ip6";
        case NFPROTO_INET:
            return "inet";
        case NFPROTO_NETDEV:
            return "netdev";
        default:
            return "";
    }
}

/// Adds the chain of a message if it is one at a hook.
void addChain(const nlmsghdr& message, std::vector<NftBaseChain>& chains) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nfgenmsg)) {
        return;
    }
    const auto* const head = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message));
    const Attributes attributes(message, sizeof *head);
    const std::string family = familyName(head->nfgen_family);
    const nlattr* const hook = attributes.at(NFTA_CHAIN_HOOK);
    if (family.empty() || hook == nullptr) {
        return;
    }
    chains.push_back({{family, attributes.textAt(NFTA_CHAIN_TABLE)},
                      attributes.textAt(NFTA_CHAIN_NAME),
                      attributes.textAt(NFTA_CHAIN_TYPE),
                      ntohl(Attributes(hook).numberAt(NFTA_HOOK_HOOKNUM).value_or(0))});
}

/// One attempt; throws std::system_error.
std::vector<NftBaseChain> listChains() {
    std::array<char, MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(nfgenmsg))> space{};
    nlmsghdr* const request = mnl_nlmsg_put_header(space.data());
    request->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETCHAIN;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* const head =
        static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    head->nfgen_family = NFPROTO_UNSPEC;
    head->version = NFNETLINK_V0;
    std::vector<NftBaseChain> chains;
    askKernel(NETLINK_NETFILTER, *request,
              [&chains](const nlmsghdr& message) { addChain(message, chains); });
    return chains;
}

/// Whether an error says that the kernel has no nftables.
bool isWithoutNftables(int error) {
    return error == EPROTONOSUPPORT || error == EAFNOSUPPORT || error == EOPNOTSUPP ||
           error == EINVAL;
}

}  // namespace

std::vector<NftBaseChain> nftBaseChainsFrom(std::string_view datagram) {
    std::vector<NftBaseChain> chains;
    (void)readMessages(datagram, [&chains](const nlmsghdr& message) { addChain(message, chains); });
    return chains;
}

std::vector<NftBaseChain> nftBaseChains() {
    for (int attempt = 1;; ++attempt) {
        try {
            return listChains();
        } catch (const std::system_error& error) {
            const int number = error.code().value();
            if (isWithoutNftables(number)) {
                return {};
            }
            if (number != EINTR || attempt == kAttempts) {
                throw Error(ErrorKind::kSystem,
                            "the chains of nftables cannot be listed: " + error.code().message());
            }
        }
    }
}

}  // namespace tarnfw
