/// Addresses as rules and country data have them: single ones, networks, ranges.
#pragma once

#include <array>
#include <optional>
#include <string>

namespace tarnfw {

/// An IPv4 or IPv6 address, without a zone. All IPv4 addresses sort before all of IPv6.
class Address {
public:
    /// In network order; of an IPv4 address the first four, and then zeros.
    using Bytes = std::array<unsigned char, 16>;

    constexpr Address() = default;  ///< 0.0.0.0
    constexpr Address(bool ipv6, const Bytes& bytes) : ipv6_(ipv6), bytes_(bytes) {}

    bool isIpv6() const { return ipv6_; }
    const Bytes& bytes() const { return bytes_; }

    bool operator==(const Address& other) const {
        return ipv6_ == other.ipv6_ && bytes_ == other.bytes_;
    }
    bool operator!=(const Address& other) const { return !(*this == other); }
    bool operator<(const Address& other) const {
        return ipv6_ == other.ipv6_ ? bytes_ < other.bytes_ : other.ipv6_;
    }
    bool operator<=(const Address& other) const { return !(other < *this); }

private:
    bool ipv6_ = false;
    Bytes bytes_ = {};
};

/// Addresses of one family, both ends included.
struct AddressRange {
    Address first;
    Address last;

    bool contains(const Address& address) const { return contains({address, address}); }
    bool contains(const AddressRange& other) const {
        return first.isIpv6() == other.first.isIpv6() && first <= other.first && other.last <= last;
    }
};

/// "192.168.1.20" or "2001:db8::1", nothing else: no zone, no shortened IPv4 form.
std::optional<Address> addressFrom(const std::string& text);

/// "192.168.1.20" or "2001:db8::1", in the shortest spelling.
std::string spelled(const Address& address);

/// The length of a mask: "255.255.255.0" or "24" for IPv4 (at most 32), "64" for IPv6 (at most
/// 128). Nothing for a mask with a gap in it.
std::optional<int> prefixLengthFrom(const std::string& mask, bool ipv6);

/// The addresses of a network: "192.168.1.0" and "255.255.255.0" or "24", "2001:db8::" and "64".
std::optional<AddressRange> networkFrom(const std::string& address, const std::string& mask);

/// The addresses from `first` to `last`; nothing for two families or a range that runs backwards.
std::optional<AddressRange> rangeFrom(const std::string& first, const std::string& last);

/// Every address of a family.
AddressRange wholeFamily(bool ipv6);

}  // namespace tarnfw
