/// Questions to the kernel by netlink. Messages are built and read with libmnl.
#pragma once

#include <libmnl/libmnl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tarnfw {

/// What is done with a message of an answer; not called for those that say how the answer ends.
using EachMessage = std::function<void(const nlmsghdr& message)>;

/// Sends a request for a list (NLM_F_DUMP) or one that is acknowledged (NLM_F_ACK), and reads the
/// answer to its end. `protocol` is that of netlink(7), such as NETLINK_ROUTE. Throws
/// std::system_error: what the kernel answers, EINTR when the list has changed meanwhile, EAGAIN
/// without an answer within five seconds.
void askKernel(int protocol, const nlmsghdr& request, const EachMessage& each);

/// The part of it that reads: the messages of one datagram. Returns whether the answer has ended.
bool readMessages(std::string_view datagram, const EachMessage& each);

/// The attributes of a message, by type. Those with a type of 64 or more are left out. Valid as
/// long as the message.
class Attributes {
public:
    /// Those after the first `headBytes` of its content.
    Attributes(const nlmsghdr& message, std::size_t headBytes);
    /// Those within an attribute; none where that is null.
    explicit Attributes(const nlattr* nest);

    /// Null without one of this type.
    const nlattr* at(std::size_t type) const { return all_.at(type); }
    /// The text of an attribute; empty without one.
    std::string textAt(std::size_t type) const;
    /// The number of an attribute, as the message has its bytes; nothing without one.
    std::optional<std::uint32_t> numberAt(std::size_t type) const;

private:
    std::array<const nlattr*, 64> all_{};
};

}  // namespace tarnfw
