#include "kernel/nftChains.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <system_error>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

// The kernel answers at once.
constexpr timeval kWait{5, 0};

// Tables that change meanwhile make the kernel's list incomplete.
constexpr int kAttempts = 5;

constexpr std::size_t kAnswerBytes = 65536;

/// The attributes of a message, by number.
std::map<int, std::string_view> attributesOf(std::string_view text) {
    std::map<int, std::string_view> attributes;
    nlattr head{};
    while (text.size() >= sizeof head) {
        std::memcpy(&head, text.data(), sizeof head);
        if (head.nla_len < sizeof head || head.nla_len > text.size()) {
            break;
        }
        attributes[head.nla_type & NLA_TYPE_MASK] =
            text.substr(NLA_HDRLEN, head.nla_len - static_cast<std::size_t>(NLA_HDRLEN));
        text.remove_prefix(std::min<std::size_t>(NLA_ALIGN(head.nla_len), text.size()));
    }
    return attributes;
}

std::string textIn(std::string_view attribute) {
    return std::string(attribute.substr(0, attribute.find('\0')));
}

std::uint32_t numberIn(std::string_view attribute) {
    std::uint32_t number = 0;
    if (attribute.size() == sizeof number) {
        std::memcpy(&number, attribute.data(), sizeof number);
    }
    return ntohl(number);
}

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
void addChain(std::string_view message, std::vector<NftBaseChain>& chains) {
    nfgenmsg head{};
    if (message.size() < sizeof head) {
        return;
    }
    std::memcpy(&head, message.data(), sizeof head);
    auto attributes = attributesOf(message.substr(NLMSG_ALIGN(sizeof head)));
    const std::string family = familyName(head.nfgen_family);
    if (family.empty() || attributes.count(NFTA_CHAIN_HOOK) == 0) {
        return;
    }
    auto hook = attributesOf(attributes[NFTA_CHAIN_HOOK]);
    chains.push_back({{family, textIn(attributes[NFTA_CHAIN_TABLE])},
                      textIn(attributes[NFTA_CHAIN_NAME]),
                      textIn(attributes[NFTA_CHAIN_TYPE]),
                      numberIn(hook[NFTA_HOOK_HOOKNUM])});
}

void requestChains(int kernel) {
    struct {
        nlmsghdr header{};
        nfgenmsg message{};
    } request;
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETCHAIN;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.message.nfgen_family = NFPROTO_UNSPEC;
    request.message.version = NFNETLINK_V0;
    if (send(kernel, &request, sizeof request, 0) < 0) {
        throw std::system_error(errno, std::generic_category());
    }
}

/// One attempt; throws std::system_error.
std::vector<NftBaseChain> listChains() {
    const Descriptor kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!kernel || setsockopt(kernel.get(), SOL_SOCKET, SO_RCVTIMEO, &kWait, sizeof kWait) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    requestChains(kernel.get());
    std::vector<NftBaseChain> all;
    std::string answer(kAnswerBytes, '\0');
    for (bool ended = false; !ended;) {
        const ssize_t length = recv(kernel.get(), answer.data(), answer.size(), 0);
        if (length <= 0) {
            throw std::system_error(length == 0 ? EPROTO : errno, std::generic_category());
        }
        const std::string_view messages(answer.data(), static_cast<std::size_t>(length));
        for (NftBaseChain& chain : nftBaseChainsFrom(messages, ended)) {
            all.push_back(std::move(chain));
        }
    }
    return all;
}

/// Whether an error says that the kernel has no nftables.
bool isWithoutNftables(int error) {
    return error == EPROTONOSUPPORT || error == EAFNOSUPPORT || error == EOPNOTSUPP ||
           error == EINVAL;
}

}  // namespace

std::vector<NftBaseChain> nftBaseChainsFrom(std::string_view messages, bool& ended) {
    std::vector<NftBaseChain> chains;
    nlmsghdr header{};
    while (messages.size() >= sizeof header && !ended) {
        std::memcpy(&header, messages.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > messages.size()) {
            throw std::system_error(EPROTO, std::generic_category());
        }
        const std::string_view content = messages.substr(
            NLMSG_HDRLEN, header.nlmsg_len - static_cast<std::size_t>(NLMSG_HDRLEN));
        if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            throw std::system_error(EINTR, std::generic_category());
        }
        if (header.nlmsg_type == NLMSG_ERROR) {
            int error = 0;
            std::memcpy(&error, content.data(), std::min(content.size(), sizeof error));
            throw std::system_error(-error, std::generic_category());
        }
        ended = header.nlmsg_type == NLMSG_DONE;
        if (!ended) {
            addChain(content, chains);
        }
        messages.remove_prefix(
            std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), messages.size()));
    }
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
