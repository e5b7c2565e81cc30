#include "addressText.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace FW {
namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";

// iptables copies so much of four numbers with dots before it reads them, and refuses a text
// between commas that is longer than the other.
constexpr std::size_t kDottedBytes = 19;
constexpr std::size_t kHostBytes = 255;

constexpr unsigned bitsOf(FW_FAMILY family) {
    return family == FW_FAMILY_V4 ? 32 : 128;
}

std::optional<Number> ipv6From(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    if (inet_pton(AF_INET6, text.c_str(), bytes) != 1) {
        return std::nullopt;
    }
    Number number = 0;
    for (const unsigned char byte : bytes) {
        number = number << 8 | byte;
    }
    return number;
}

/// Four numbers with dots. Missing ones at the end are zero, where an address may be incomplete.
std::optional<Number> ipv4From(const std::string& whole, bool mayBeIncomplete) {
    const std::string text = whole.substr(0, kDottedBytes);
    Number number = 0;
    std::size_t start = 0;
    for (unsigned count = 0; count < 4; ++count) {
        const std::size_t dot = count < 3 ? text.find('.', start) : std::string::npos;
        const bool isLast = dot == std::string::npos;
        if (isLast && count < 3 && !mayBeIncomplete) {
            return std::nullopt;
        }
        const auto byte = numberFrom(text.substr(start, isLast ? dot : dot - start), 255);
        if (!byte) {
            return std::nullopt;
        }
        number |= Number(*byte) << (120 - 8 * count);
        if (isLast) {
            break;
        }
        start = dot + 1;
    }
    return number;
}

std::optional<Number> numericAddress(const std::string& text, FW_FAMILY family) {
    return family == FW_FAMILY_V4 ? ipv4From(text, /*mayBeIncomplete=*/true) : ipv6From(text);
}

/// What the C library takes for an IPv4 address: "167772161", "10.256", and in IPv6 form,
/// "::ffff:10.0.0.1".
std::optional<Number> ipv4OfLibrary(const std::string& text) {
    in_addr address = {};
    if (text.find_first_of(kBlanks) == std::string::npos &&
        inet_aton(text.c_str(), &address) != 0) {
        return ipv4Number(ntohl(address.s_addr));
    }
    constexpr Number kMapped = 0xffff;
    const auto mapped = ipv6From(text);
    return mapped && *mapped >> 32 == kMapped ? std::optional(*mapped << 96) : std::nullopt;
}

/// An address before a mask. iptables asks the C library about one that it does not understand.
std::optional<Number> hostFrom(const std::string& text, FW_FAMILY family) {
    const auto address = numericAddress(text, family);
    return address || family == FW_FAMILY_V6 ? address : ipv4OfLibrary(text);
}

/// A mask as a number: "255.0.0.0", "ffff::", or a prefix length.
std::optional<Number> maskFrom(const std::string& text, FW_FAMILY family) {
    const auto mask =
        family == FW_FAMILY_V4 ? ipv4From(text, /*mayBeIncomplete=*/false) : ipv6From(text);
    if (mask) {
        return mask;
    }
    const auto length = numberFrom(text, bitsOf(family));
    if (!length) {
        return std::nullopt;
    }
    return *length == 0 ? Number(0) : kMaxNumber << (128 - *length);
}

/// Appends the addresses that agree with `address` in the bits of `mask`.
TextResult appendMasked(Number address, Number mask, FW_FAMILY family, Intervals& addresses) {
    if (family == FW_FAMILY_V4) {
        mask &= ~kBelowIpv4;
    }
    // The zeros at the end of the mask are one interval; each other zero doubles the intervals.
    const Number inside = mask == 0 ? kMaxNumber : (mask & (~mask + 1)) - 1;
    const Number gaps = ~mask & ~inside;
    std::size_t count = 1;
    for (Number bits = gaps; bits != 0; bits &= bits - 1) {
        count *= 2;
        if (addresses.size() + count > FW_MASK_INTERVALS) {
            return TextResult::kTooComplex;
        }
    }
    Number gap = 0;
    do {
        const Number first = (address & mask) | gap;
        addresses.push_back({first, first | inside});
        gap = (gap - gaps) & gaps;  // the next greater number with bits in `gaps` only
    } while (gap != 0);
    return TextResult::kRead;
}

/// Appends what one of the texts between commas matches. Blanks before it are skipped.
TextResult appendOne(std::string text, FW_FAMILY family, Intervals& addresses) {
    text.erase(0, text.find_first_not_of(kBlanks));
    if (text.size() > kHostBytes) {
        return TextResult::kInvalid;
    }
    const std::size_t slash = text.rfind('/');
    Number mask = kMaxNumber;
    if (slash != std::string::npos) {
        const auto given = maskFrom(text.substr(slash + 1), family);
        if (!given) {
            return TextResult::kInvalid;
        }
        mask = *given;
    }
    // iptables reads "/0" as any address, whatever is before it.
    const auto address = mask == 0 ? Number(0) : hostFrom(text.substr(0, slash), family);
    return address ? appendMasked(*address, mask, family, addresses) : TextResult::kInvalid;
}

}  // namespace

std::optional<unsigned> numberFrom(const std::string& text, unsigned max, int base) {
    // What nearly every text is.
    if (!text.empty() && text.size() < 6 && (text[0] != '0' || text.size() == 1) &&
        text.find_first_not_of("0123456789") == std::string::npos) {
        unsigned number = 0;
        for (const char digit : text) {
            number = number * 10 + static_cast<unsigned>(digit - '0');
        }
        return number <= max ? std::optional(number) : std::nullopt;
    }
    const std::size_t sign = text.find_first_not_of(kBlanks);
    if (sign == std::string::npos || text[sign] == '-') {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text.c_str(), &end, base);
    if (errno != 0 || end == text.c_str() || *end != '\0' || number > max) {
        return std::nullopt;
    }
    return static_cast<unsigned>(number);
}

TextResult readAddresses(const std::string& text, FW_FAMILY family, Intervals& addresses) {
    addresses.clear();
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const TextResult result =
            appendOne(text.substr(start, comma == std::string::npos ? comma : comma - start),
                      family, addresses);
        if (result != TextResult::kRead) {
            return result;
        }
        if (comma == std::string::npos) {
            normalize(addresses);
            return TextResult::kRead;
        }
        start = comma + 1;
    }
}

TextResult readRange(const std::string& first, const std::string& last, FW_FAMILY family,
                     Intervals& addresses) {
    const auto from = numericAddress(first, family);
    const auto to = numericAddress(last, family);
    if (!from || !to) {
        return TextResult::kInvalid;
    }
    addresses = {{*from, lastOf(*to, family)}};
    normalize(addresses);
    return TextResult::kRead;
}

FWADDRESSES fwAddressesFrom(const std::vector<FWADDRESSINTERVAL>& intervals) {
    Intervals numbers;
    numbers.reserve(intervals.size());
    for (const FWADDRESSINTERVAL& one : intervals) {
        numbers.push_back(intervalOf(one));
    }
    normalize(numbers);
    return addressesOf(numbers);
}

std::optional<FWADDRESSINTERVAL> fwAddressFrom(const std::string& text, FW_FAMILY family) {
    unsigned char bytes[sizeof(in6_addr)] = {};
    if (inet_pton(family == FW_FAMILY_V4 ? AF_INET : AF_INET6, text.c_str(), bytes) != 1) {
        return std::nullopt;
    }
    Number number = 0;
    for (const unsigned char byte : bytes) {
        number = number << 8 | byte;
    }
    return FWADDRESSINTERVAL{addressOf(number), addressOf(lastOf(number, family))};
}

std::string fwAddressText(const FWADDRESS& address, FW_FAMILY family) {
    unsigned char bytes[sizeof(in6_addr)];
    for (unsigned i = 0; i < sizeof(bytes); ++i) {
        const std::uint64_t half = i < 8 ? address.high : address.low;
        bytes[i] = static_cast<unsigned char>(half >> (56 - 8 * (i % 8)));
    }
    char text[INET6_ADDRSTRLEN] = {};
    (void)inet_ntop(family == FW_FAMILY_V4 ? AF_INET : AF_INET6, bytes, text, sizeof(text));
    return text;
}

}  // namespace FW
