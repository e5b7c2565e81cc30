#include "tarnfwadmin/addressRange.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/address_v6.hpp>
#include <boost/lexical_cast/try_lexical_convert.hpp>

namespace tarnfw {
namespace {

using boost::asio::ip::address_v4;
using boost::asio::ip::address_v6;

constexpr int kIpv4Bits = 32;
constexpr int kIpv6Bits = 128;
constexpr int kByteBits = 8;

/// The first and last address that share the first `length` bits of `bytes`.
template <typename Bytes>
std::pair<Bytes, Bytes> endsOf(Bytes bytes, int length) {
    Bytes last = bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int fixed = std::clamp(length - static_cast<int>(i) * kByteBits, 0, kByteBits);
        const auto free = static_cast<unsigned char>(0xff >> fixed);
        bytes[i] = static_cast<unsigned char>(bytes[i] & ~free);
        last[i] = static_cast<unsigned char>(last[i] | free);
    }
    return {bytes, last};
}

AddressRange networkOf(const Address& address, int length) {
    if (address.is_v4()) {
        const auto [first, last] = endsOf(address.to_v4().to_bytes(), length);
        return {address_v4(first), address_v4(last)};
    }
    const auto [first, last] = endsOf(address.to_v6().to_bytes(), length);
    return {address_v6(first), address_v6(last)};
}

/// The length of a dotted mask; nothing when a one follows a zero.
std::optional<int> lengthOfMask(const address_v4& mask) {
    const address_v4::uint_type free = ~mask.to_uint();
    if ((free & (free + 1)) != 0) {
        return std::nullopt;
    }
    int length = kIpv4Bits;
    for (address_v4::uint_type bits = free; bits != 0; bits >>= 1U) {
        --length;
    }
    return length;
}

}  // namespace

std::optional<Address> addressFrom(const std::string& text) {
    boost::system::error_code error;
    const Address address = boost::asio::ip::make_address(text, error);
    if (error || text.find('%') != std::string::npos) {
        return std::nullopt;
    }
    return address;
}

std::string spelled(const Address& address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address.is_v4()) {
        const address_v4::bytes_type bytes = address.to_v4().to_bytes();
        (void)inet_ntop(AF_INET, bytes.data(), text, sizeof(text));
    } else {
        const address_v6::bytes_type bytes = address.to_v6().to_bytes();
        (void)inet_ntop(AF_INET6, bytes.data(), text, sizeof(text));
    }
    return text;
}

std::optional<int> prefixLengthFrom(const std::string& mask, bool ipv6) {
    if (!ipv6) {
        const std::optional<Address> dotted = addressFrom(mask);
        if (dotted && dotted->is_v4()) {
            return lengthOfMask(dotted->to_v4());
        }
    }
    unsigned length = 0;
    const bool digits = mask.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || !boost::conversion::try_lexical_convert(mask, length) ||
        length > static_cast<unsigned>(ipv6 ? kIpv6Bits : kIpv4Bits)) {
        return std::nullopt;
    }
    return static_cast<int>(length);
}

std::optional<AddressRange> networkFrom(const std::string& address, const std::string& mask) {
    const std::optional<Address> base = addressFrom(address);
    if (!base) {
        return std::nullopt;
    }
    const std::optional<int> length = prefixLengthFrom(mask, base->is_v6());
    if (!length) {
        return std::nullopt;
    }
    return networkOf(*base, *length);
}

std::optional<AddressRange> rangeFrom(const std::string& first, const std::string& last) {
    const std::optional<Address> low = addressFrom(first);
    const std::optional<Address> high = addressFrom(last);
    if (!low || !high || low->is_v4() != high->is_v4() || *high < *low) {
        return std::nullopt;
    }
    return AddressRange{*low, *high};
}

AddressRange wholeFamily(bool ipv6) {
    return ipv6 ? networkOf(address_v6(), 0) : networkOf(address_v4(), 0);
}

}  // namespace tarnfw
