#include "base/netlink.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "tarnfwadmin/descriptor.h"

namespace tarnfw {
namespace {

// The kernel answers at once.
constexpr timeval kWait{5, 0};

// The kernel puts at most 32 KiB of a list into a datagram.
constexpr std::size_t kDatagramBytes = 65536;

[[noreturn]] void fail(int error) {
    throw std::system_error(error, std::generic_category());
}

/// Throws what a last message says, which is 0 for success. The message of an error has it, and
/// that of the end of a list may.
void requireSuccess(const nlmsghdr& last) {
    if (mnl_nlmsg_get_payload_len(&last) < sizeof(int)) {
        return;
    }
    const int error = *static_cast<const int*>(mnl_nlmsg_get_payload(&last));
    if (error != 0) {
        fail(-error);
    }
}

/// mnl_attr_parse() and its like hand on the array as `all`.
int keepAttribute(const nlattr* attribute, void* all) {
    auto& attributes = *static_cast<std::array<const nlattr*, 64>*>(all);
    if (mnl_attr_get_type(attribute) < attributes.size()) {
        attributes[mnl_attr_get_type(attribute)] = attribute;
    }
    return MNL_CB_OK;
}

}  // namespace

bool readMessages(std::string_view datagram, const EachMessage& each) {
    auto left = static_cast<int>(datagram.size());
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): libmnl's own way
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            fail(EINTR);
        }
        if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE) {
            requireSuccess(*message);
            return true;
        }
        each(*message);
    }
    if (left != 0) {
        fail(EPROTO);  // the rest is no message
    }
    return false;
}

void askKernel(int protocol, const nlmsghdr& request, const EachMessage& each) {
    const Descriptor kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!kernel || setsockopt(kernel.get(), SOL_SOCKET, SO_RCVTIMEO, &kWait, sizeof kWait) != 0 ||
        send(kernel.get(), &request, request.nlmsg_len, 0) < 0) {
        fail(errno);
    }
    std::string datagram(kDatagramBytes, '\0');
    for (bool ended = false; !ended;) {
        const ssize_t length = recv(kernel.get(), datagram.data(), datagram.size(), 0);
        if (length <= 0) {
            fail(length == 0 ? EPROTO : errno);
        }
        ended = readMessages({datagram.data(), static_cast<std::size_t>(length)}, each);
    }
}

Attributes::Attributes(const nlmsghdr& message, std::size_t headBytes) {
    if (mnl_nlmsg_get_payload_len(&message) >= headBytes) {
        (void)mnl_attr_parse(&message, static_cast<unsigned int>(headBytes), keepAttribute, &all_);
    }
}

Attributes::Attributes(const nlattr* nest) {
    if (nest != nullptr) {
        (void)mnl_attr_parse_nested(nest, keepAttribute, &all_);
    }
}

std::string Attributes::textAt(std::size_t type) const {
    const nlattr* const attribute = at(type);
    if (attribute == nullptr) {
        return "";
    }
    const char* const text = mnl_attr_get_str(attribute);
    return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

std::optional<std::uint32_t> Attributes::numberAt(std::size_t type) const {
    const nlattr* const attribute = at(type);
    if (attribute == nullptr || mnl_attr_validate(attribute, MNL_TYPE_U32) != 0) {
        return std::nullopt;
    }
    return mnl_attr_get_u32(attribute);
}

}  // namespace tarnfw
