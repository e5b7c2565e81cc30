#include "tarnfwadmin/addressRange.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include <boost/lexical_cast/try_lexical_convert.hpp>

namespace tarnfw {
namespace {

constexpr int kIpv4Bits = 32;
constexpr int kIpv6Bits = 128;
constexpr int kByteBits = 8;

constexpr std::size_t kIpv4Bytes = 4;
constexpr Address kHighestIpv4(false, {0xff, 0xff, 0xff, 0xff});

// Those of the IPv4 addresses in IPv6 form.
constexpr unsigned char kMappedStart[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

/// The addresses that share the first `length` bits of `address`.
AddressRange networkOf(const Address& address, int length) {
    Address::Bytes first = address.bytes();
    Address::Bytes last = first;
    const std::size_t size = address.isIpv6() ? first.size() : kIpv4Bytes;
    for (std::size_t i = 0; i < size; ++i) {
        const int fixed = std::clamp(length - static_cast<int>(i) * kByteBits, 0, kByteBits);
        const auto free = static_cast<unsigned char>(0xff >> fixed);
        first[i] = static_cast<unsigned char>(first[i] & ~free);
        last[i] = static_cast<unsigned char>(last[i] | free);
    }
    return {Address(address.isIpv6(), first), Address(address.isIpv6(), last)};
}

/// The length of a mask in words; nothing when a one follows a zero.
std::optional<int> lengthOfMask(const Address& mask) {
    const Address highest = mask.isIpv6() ? wholeFamily(true).last : kHighestIpv4;
    for (int length = 0; length <= (mask.isIpv6() ? kIpv6Bits : kIpv4Bits); ++length) {
        if (networkOf(highest, length).first == mask) {
            return length;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<Address> addressFrom(const std::string& text) {
    Address::Bytes bytes = {};
    if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        return Address(false, bytes);
    }
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        return Address(true, bytes);
    }
    return std::nullopt;
}

Address unmapped(const Address& address) {
    const Address::Bytes& bytes = address.bytes();
    if (!address.isIpv6() ||
        !std::equal(std::begin(kMappedStart), std::end(kMappedStart), bytes.begin())) {
        return address;
    }
    Address::Bytes v4 = {};
    std::copy(bytes.begin() + sizeof kMappedStart, bytes.end(), v4.begin());
    return Address(false, v4);
}

std::string spelled(const Address& address) {
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(address.isIpv6() ? AF_INET6 : AF_INET, address.bytes().data(), text,
                    sizeof(text));
    return text;
}

std::string spelled(const AddressRange& range) {
    if (range.first == range.last) {
        return spelled(range.first);
    }
    const std::size_t bits = range.first.isIpv6() ? 128 : 32;
    const auto bitOf = [](const Address& address, std::size_t bit) {
        return (address.bytes()[bit / 8] >> (7 - bit % 8) & 1) != 0;
    };
    std::size_t length = 0;
    while (bitOf(range.first, length) == bitOf(range.last, length)) {
        ++length;
    }
    std::size_t bit = length;
    while (bit < bits && !bitOf(range.first, bit) && bitOf(range.last, bit)) {
        ++bit;
    }
    return bit == bits ? spelled(range.first) + "/" + std::to_string(length)
                       : spelled(range.first) + "-" + spelled(range.last);
}

std::optional<int> prefixLengthFrom(const std::string& mask, bool ipv6) {
    const std::optional<Address> bits = addressFrom(mask);
    if (bits && bits->isIpv6() == ipv6) {
        return lengthOfMask(*bits);
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
    const std::optional<int> length = prefixLengthFrom(mask, base->isIpv6());
    if (!length) {
        return std::nullopt;
    }
    return networkOf(*base, *length);
}

std::optional<AddressRange> rangeFrom(const std::string& first, const std::string& last) {
    const std::optional<Address> low = addressFrom(first);
    const std::optional<Address> high = addressFrom(last);
    if (!low || !high || low->isIpv6() != high->isIpv6() || *high < *low) {
        return std::nullopt;
    }
    return AddressRange{*low, *high};
}

bool isEveryIpv4Address(const std::string& text) {
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    if (slash == std::string::npos || address.empty() ||
        address.find_first_not_of("0123456789.") != std::string::npos) {
        return false;
    }
    std::string length = text.substr(slash + 1);
    for (const char* const start : {"+", "0x"}) {
        length.erase(0, length.rfind(start, 0) == 0 ? std::strlen(start) : 0);
    }
    return !length.empty() && length.find_first_not_of('0') == std::string::npos;
}

AddressRange wholeFamily(bool ipv6) {
    return networkOf(Address(ipv6, {}), 0);
}

}  // namespace tarnfw
