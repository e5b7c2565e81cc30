/// Addresses as rules (FWRULE::ipList) and country data have them: single ones, networks, ranges.
/// Nothing here throws.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

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

/// The address in "192.168.1.20" or "2001:db8::1". Nothing for any other text, also for one with a
/// zone ("fe80::1%eth0") or a short IPv4 form ("10.1").
std::optional<Address> addressFrom(const std::string& text);

/// The IPv4 address that an IPv6 one stands for, as "::ffff:192.0.2.7" does; any other as it is.
Address unmapped(const Address& address);

/// "192.168.1.20" or "2001:db8::1": the shortest spelling, which addressFrom() reads.
std::string spelled(const Address& address);

/// "10.0.0.5", "192.168.0.0/16" where a range is one network, else "10.0.0.5-10.0.0.9".
std::string spelled(const AddressRange& range);

/// The bits of a mask: "255.255.255.0" or "24" for IPv4 (0-32), "ffff:ffff::" or "32" for IPv6
/// (0-128). Nothing for any other text, also for a mask with a gap in it ("255.0.255.0").
std::optional<int> prefixLengthFrom(const std::string& mask, bool ipv6);

/// The addresses of a network: "192.168.1.0" and "255.255.255.0" or "24", "2001:db8::" and "64".
/// `address` may be any address of the network. Nothing when one of the texts is not valid.
std::optional<AddressRange> networkFrom(const std::string& address, const std::string& mask);

/// The addresses from `first` to `last`. Nothing when one of the texts is not valid, for addresses
/// of two families, and for a range that runs backwards.
std::optional<AddressRange> rangeFrom(const std::string& first, const std::string& last);

/// Whether a text is an IPv4 address with prefix length 0: "10.0.0.0/0", also "10/00" or "10/+0",
/// as iptables reads them. ip6tables takes such a text, and no other IPv4 one, for all of IPv6.
bool isEveryIpv4Address(const std::string& text);

/// Every address of a family.
AddressRange wholeFamily(bool ipv6);

}  // namespace tarnfw
