#include "base/iptablesAddress.h"

#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr std::size_t kIpv4Bytes = 4;
constexpr unsigned long kIpv4Bits = 32;
constexpr unsigned long kIpv6Bits = 128;
constexpr unsigned long kHighestByte = 255;
constexpr int kByteBits = 8;

// iptables copies so much of a dotted address before it reads it, and refuses a text between commas
// that is longer than the other.
constexpr std::size_t kDottedBytes = 19;
constexpr std::size_t kHostBytes = 255;

std::size_t sizeOf(const Address& address) {
    return address.isIpv6() ? address.bytes().size() : kIpv4Bytes;
}

/// A number in any base of C: "8", "010", "0x8", "+8".
std::optional<unsigned long> numberRead(const std::string& text, unsigned long highest) {
    if (text.empty() || text.front() == '-' || !isWord(text)) {
        return std::nullopt;
    }
    char* end = nullptr;
    const unsigned long number = strtoul(text.c_str(), &end, 0);
    return *end != '\0' || number > highest ? std::nullopt : std::optional(number);
}

/// "10.0.0.1"; "10.1", which is 10.1.0.0, unless all four numbers are needed.
std::optional<Address> dottedRead(const std::string& text, bool whole) {
    std::vector<std::string> numbers;
    boost::split(numbers, text.substr(0, kDottedBytes), boost::is_any_of("."));
    if (numbers.size() > kIpv4Bytes || (whole && numbers.size() < kIpv4Bytes)) {
        return std::nullopt;
    }
    Address::Bytes bytes = {};
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const std::optional<unsigned long> number = numberRead(numbers[i], kHighestByte);
        if (!number) {
            return std::nullopt;
        }
        bytes[i] = static_cast<unsigned char>(*number);
    }
    return Address(false, bytes);
}

std::optional<Address> ipv6Read(const std::string& text) {
    const std::optional<Address> address = addressFrom(text);
    return address && address->isIpv6() ? address : std::nullopt;
}

/// What the C library takes for an address, without looking anything up: "10.256", "fe80::1%eth0",
/// and of IPv4 "::ffff:10.0.0.1".
std::optional<Address> resolved(const std::string& text, bool ipv6) {
    addrinfo hints = {};
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, &freeaddrinfo);
    Address::Bytes bytes = {};
    if (ipv6) {
        sockaddr_in6 address = {};
        std::memcpy(&address, found->ai_addr, sizeof address);
        std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
    } else {
        sockaddr_in address = {};
        std::memcpy(&address, found->ai_addr, sizeof address);
        std::memcpy(bytes.data(), &address.sin_addr, kIpv4Bytes);
    }
    return Address(ipv6, bytes);
}

std::optional<Address> hostRead(const std::string& text, bool ipv6) {
    if (text.empty()) {
        return std::nullopt;
    }
    const std::optional<Address> address = ipv6 ? ipv6Read(text) : dottedRead(text, false);
    return address ? address : resolved(text, ipv6);
}

Address maskOf(unsigned long length, bool ipv6) {
    Address::Bytes bytes = {};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int ones =
            std::clamp(static_cast<int>(length) - static_cast<int>(i) * kByteBits, 0, kByteBits);
        bytes[i] = static_cast<unsigned char>(0xff00 >> ones);
    }
    return Address(ipv6, bytes);
}

std::optional<MaskedAddress> oneRead(std::string text, bool ipv6) {
    text.erase(0, text.find_first_not_of(" \t\n\v\f\r"));  // as iptables does
    if (text.size() > kHostBytes) {
        return std::nullopt;
    }
    const std::size_t slash = text.rfind('/');
    const std::optional<Address> mask = slash == std::string::npos
                                            ? maskOf(ipv6 ? kIpv6Bits : kIpv4Bits, ipv6)
                                            : maskRead(text.substr(slash + 1), ipv6);
    if (!mask) {
        return std::nullopt;
    }
    const Address none(ipv6, {});
    if (*mask == none) {
        return MaskedAddress{none, none};  // whatever is before the mask
    }
    const std::optional<Address> host = hostRead(text.substr(0, slash), ipv6);
    if (!host) {
        return std::nullopt;
    }
    Address::Bytes base = host->bytes();
    for (std::size_t i = 0; i < base.size(); ++i) {
        base[i] = static_cast<unsigned char>(base[i] & mask->bytes()[i]);
    }
    return MaskedAddress{Address(ipv6, base), *mask};
}

}  // namespace

AddressRange MaskedAddress::hull() const {
    Address::Bytes last = base.bytes();
    for (std::size_t i = 0; i < sizeOf(base); ++i) {
        last[i] = static_cast<unsigned char>(last[i] | ~mask.bytes()[i]);
    }
    return {base, Address(base.isIpv6(), last)};
}

std::optional<AddressRange> MaskedAddress::range() const {
    for (unsigned long length = 0; length <= (mask.isIpv6() ? kIpv6Bits : kIpv4Bits); ++length) {
        if (maskOf(length, mask.isIpv6()) == mask) {
            return hull();
        }
    }
    return std::nullopt;
}

std::optional<std::vector<MaskedAddress>> addressesRead(const std::string& text, bool ipv6) {
    if (!isWord(text)) {
        return std::nullopt;  // a line is separated into words
    }
    std::vector<std::string> parts;
    boost::split(parts, text, boost::is_any_of(","));
    std::vector<MaskedAddress> addresses;
    for (const std::string& part : parts) {
        const std::optional<MaskedAddress> one = oneRead(part, ipv6);
        if (!one) {
            return std::nullopt;
        }
        addresses.push_back(*one);
    }
    return addresses;
}

std::optional<Address> maskRead(const std::string& text, bool ipv6) {
    if (const std::optional<Address> mask = ipv6 ? ipv6Read(text) : dottedRead(text, true)) {
        return mask;
    }
    const std::optional<unsigned long> length = numberRead(text, ipv6 ? kIpv6Bits : kIpv4Bits);
    return length ? std::optional(maskOf(*length, ipv6)) : std::nullopt;
}

std::optional<std::pair<Address, Address>> endsRead(const std::string& first,
                                                    const std::string& last, bool ipv6) {
    const std::optional<Address> low = ipv6 ? ipv6Read(first) : dottedRead(first, false);
    const std::optional<Address> high = ipv6 ? ipv6Read(last) : dottedRead(last, false);
    return low && high ? std::optional(std::make_pair(*low, *high)) : std::nullopt;
}

std::string spelled(const MaskedAddress& addresses) {
    const bool ipv6 = addresses.base.isIpv6();
    const std::string base = spelled(addresses.base);
    for (unsigned long length = 0; length <= (ipv6 ? kIpv6Bits : kIpv4Bits); ++length) {
        if (maskOf(length, ipv6) == addresses.mask) {
            const bool single = length == (ipv6 ? kIpv6Bits : kIpv4Bits);
            return single ? base : base + "/" + std::to_string(length);
        }
    }
    return base + "/" + spelled(addresses.mask);
}

}  // namespace tarnfw
