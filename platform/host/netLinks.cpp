#include "netLinks.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "hostCall.h"

namespace host {

namespace {

// The kernel fills at most 32 KiB at a time into a reader's buffer.
constexpr std::size_t kReceiveBytes = 64 * 1024;

// If links change during a dump, it is marked as inconsistent and read again.
constexpr int kDumpAttempts = 5;

// Attributes are read by offset and copied: the macros of the kernel's headers cast bytes to
// structures and subtract with mixed signs.
struct Attribute {
    unsigned type = 0;
    const unsigned char* data = nullptr;
    std::size_t size = 0;

    template <typename T>
    bool copyTo(T& value) const {
        if (size < sizeof value) {
            return false;
        }
        std::memcpy(&value, data, sizeof value);
        return true;
    }
    std::string text() const {
        const auto* chars = reinterpret_cast<const char*>(data);
        return {chars, strnlen(chars, size)};
    }
};

std::vector<Attribute> attributesIn(const unsigned char* data, std::size_t size) {
    std::vector<Attribute> attributes;
    rtattr head{};
    while (size >= sizeof head) {
        std::memcpy(&head, data, sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > size) {
            break;
        }
        attributes.push_back({head.rta_type & static_cast<unsigned>(NLA_TYPE_MASK),
                              data + sizeof head, head.rta_len - sizeof head});
        const std::size_t step = std::min<std::size_t>(RTA_ALIGN(head.rta_len), size);
        data += step;
        size -= step;
    }
    return attributes;
}

// Copies a message's fixed part and returns its attributes; false when it is too short.
template <typename Head>
bool splitMessage(const nlmsghdr& message, Head& head, std::vector<Attribute>& attributes) {
    const std::size_t begin = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof head);
    if (message.nlmsg_len < begin) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(&message);
    std::memcpy(&head, bytes + NLMSG_HDRLEN, sizeof head);
    attributes = attributesIn(bytes + begin, message.nlmsg_len - begin);
    return true;
}

void parseTunnel(const Attribute& data, NetLink& link) {
    for (const Attribute& attribute : attributesIn(data.data, data.size)) {
        if (attribute.type == IFLA_IPTUN_LOCAL) {
            attribute.copyTo(link.tunnelLocal);
        } else if (attribute.type == IFLA_IPTUN_PROTO) {
            attribute.copyTo(link.tunnelPayload);
        }
    }
}

void parseKind(const Attribute& info, NetLink& link) {
    const std::vector<Attribute> attributes = attributesIn(info.data, info.size);
    for (const Attribute& attribute : attributes) {
        if (attribute.type == IFLA_INFO_KIND) {
            link.kind = attribute.text();
        }
    }
    for (const Attribute& attribute : attributes) {
        if (attribute.type == IFLA_INFO_DATA && link.kind == "sit") {
            parseTunnel(attribute, link);
        }
    }
}

// The result of one dump: 0, a negative errno, or 1 when it must be repeated.
template <typename Take>
int readDump(int fd, std::vector<char>& buffer, Take take) {
    bool interrupted = false;
    while (true) {
        ssize_t received = 0;
        do {
            received = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
        } while (received < 0 && errno == EINTR);
        if (received < 0) {
            return -errno;
        }
        auto left = static_cast<std::size_t>(received);
        if (left > buffer.size()) {
            return -EMSGSIZE;
        }
        const char* at = buffer.data();
        while (left >= NLMSG_HDRLEN) {
            // The buffer comes from the heap and messages are padded to four bytes.
            const auto& message = *reinterpret_cast<const nlmsghdr*>(at);
            if (message.nlmsg_len < NLMSG_HDRLEN || message.nlmsg_len > left) {
                return -EBADMSG;
            }
            interrupted = interrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE) {
                // Both begin with a result, 0 or a negative errno.
                int result = 0;
                if (message.nlmsg_len >= NLMSG_HDRLEN + sizeof result) {
                    std::memcpy(&result, at + NLMSG_HDRLEN, sizeof result);
                }
                return result == 0 && interrupted ? 1 : result;
            }
            take(message);
            const std::size_t step = std::min<std::size_t>(NLMSG_ALIGN(message.nlmsg_len), left);
            at += step;
            left -= step;
        }
    }
}

template <typename Head, typename Record>
int dump(std::uint16_t type, unsigned char family, bool (*parse)(const nlmsghdr&, Record&),
         std::vector<Record>& records) {
    struct {
        nlmsghdr header;
        Head body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    *reinterpret_cast<unsigned char*>(&request.body) = family;  // the first byte of either body

    std::vector<char> buffer(kReceiveBytes);
    int failure = 0;
    // Also after an error, such as ENOBUFS: a translation without the list has no rules for any
    // interface.
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
        const Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        if (!netlink || send(netlink.get(), &request, sizeof request, 0) < 0) {
            failure = -errno;
            continue;
        }
        std::vector<Record> read;
        const int result = readDump(netlink.get(), buffer, [&](const nlmsghdr& message) {
            Record record;
            if (parse(message, record)) {
                read.push_back(std::move(record));
            }
        });
        if (result == 0) {
            records = std::move(read);
            return 0;
        }
        failure = result < 0 ? result : -EAGAIN;
    }
    return failure;
}

// sysfs shows the device of a link, but it may belong to another namespace, in which the same name
// is a different link, or be missing; then a link without a kind counts as hardware.
bool hasDevice(const NetLink& link) {
    const std::string directory = "/sys/class/net/" + link.name;
    int index = 0;
    if (std::ifstream(directory + "/ifindex") >> index && index == link.index) {
        return access((directory + "/device").c_str(), F_OK) == 0;
    }
    return link.kind.empty();
}

}  // namespace

bool parseLink(const nlmsghdr& message, NetLink& link) {
    ifinfomsg head{};
    std::vector<Attribute> attributes;
    if (message.nlmsg_type != RTM_NEWLINK || !splitMessage(message, head, attributes)) {
        return false;
    }
    link = NetLink();
    link.index = head.ifi_index;
    link.up = (head.ifi_flags & IFF_UP) != 0;
    link.loopback = (head.ifi_flags & IFF_LOOPBACK) != 0;
    link.pointToPoint = head.ifi_type == ARPHRD_PPP;
    bool elsewhere = false;
    for (const Attribute& attribute : attributes) {
        switch (attribute.type) {
            case IFLA_IFNAME:
                link.name = attribute.text();
                break;
            case IFLA_LINK:
                attribute.copyTo(link.lowerIndex);
                break;
            case IFLA_LINK_NETNSID:
                elsewhere = true;
                break;
            case IFLA_LINKINFO:
                parseKind(attribute, link);
                break;
            default:
                break;
        }
    }
    if (elsewhere) {
        link.lowerIndex = 0;
    }
    return !link.name.empty();
}

bool parseAddress(const nlmsghdr& message, NetAddress& address) {
    ifaddrmsg head{};
    std::vector<Attribute> attributes;
    if (message.nlmsg_type != RTM_NEWADDR || !splitMessage(message, head, attributes) ||
        head.ifa_family != AF_INET) {
        return false;
    }
    address = NetAddress();
    address.linkIndex = static_cast<int>(head.ifa_index);
    // IFA_ADDRESS would be the other end on a point-to-point link.
    for (const Attribute& attribute : attributes) {
        if (attribute.type == IFA_LOCAL) {
            return attribute.copyTo(address.address);
        }
    }
    return false;
}

int readLinks(std::vector<NetLink>& links) {
    std::vector<NetLink> read;
    const int result = dump<ifinfomsg>(RTM_GETLINK, AF_UNSPEC, parseLink, read);
    if (result < 0) {
        return result;
    }
    for (NetLink& link : read) {
        link.hasDevice = hasDevice(link);
    }
    std::sort(read.begin(), read.end(),
              [](const NetLink& a, const NetLink& b) { return a.index < b.index; });
    links = std::move(read);
    return 0;
}

int readAddresses(std::vector<NetAddress>& addresses) {
    return dump<ifaddrmsg>(RTM_GETADDR, AF_INET, parseAddress, addresses);
}

void orderForCapacity(std::vector<NetLink>& links, std::size_t capacity) {
    if (links.size() <= capacity) {
        return;
    }
    const auto rank = [](const NetLink& link) {
        if (link.hasDevice) {
            return 0;
        }
        return link.kind == "veth" ? 2 : 1;
    };
    std::stable_sort(links.begin(), links.end(),
                     [&](const NetLink& a, const NetLink& b) { return rank(a) < rank(b); });
}

}  // namespace host
