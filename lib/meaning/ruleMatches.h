/// What the lines of a rule match besides interfaces and chains: addresses, protocols and ports.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "../fwIntervals.h"
#include "../fwText.h"

namespace FW {

inline constexpr FW_FAMILY kBothFamilies[] = {FW_FAMILY_V4, FW_FAMILY_V6};

constexpr std::uint8_t maskOf(std::uint8_t code) {
    return static_cast<std::uint8_t>(1U << code);
}

inline std::string inQuotes(const std::string& text) {
    return '"' + text + '"';
}

/// Why a rule is left out, or lines of it. Thrown as well.
struct LeftOut {
    std::string why;
    FW_FINDING kind = FW_FINDING_REFUSED;
};

/// Appends what is not yet among them.
inline void appendOnce(std::vector<LeftOut>& all, const LeftOut& left) {
    if (std::none_of(all.begin(), all.end(),
                     [&](const LeftOut& one) { return one.why == left.why; })) {
        all.push_back(left);
    }
}

/// The addresses of a rule in the families of `families`; null for any.
struct AddressMatch {
    std::uint8_t families;
    std::shared_ptr<const FWADDRESSES> addresses;
};

/// What one "-p ..." of a rule matches.
struct ProtocolMatch {
    std::uint8_t families = FW_BOTH_FAMILIES;
    FWINTERVALS protocols;
    FWINTERVALS ports;
    bool sourceSide = false;
};

/// What the lines of a rule match, and why some of them are left out.
template <typename Match>
struct Matches {
    std::vector<Match> of;
    std::vector<LeftOut> leftOut;
    std::array<std::optional<std::string>, 2> longest;  // by family: the words of a line

    void measure(std::uint8_t families, const std::string& words) {
        for (const FW_FAMILY family : kBothFamilies) {
            std::optional<std::string>& known = longest[family];
            if ((families & maskOf(family)) != 0 && (!known || known->size() < words.size())) {
                known = words;
            }
        }
    }
};

using AddressMatches = Matches<AddressMatch>;
using ProtocolMatches = Matches<ProtocolMatch>;

/// The addresses of a set of numbers.
inline std::shared_ptr<const FWADDRESSES> listOf(const Intervals& intervals) {
    return std::make_shared<const FWADDRESSES>(addressesOf(intervals));
}

/// Reads the rules of one profile. It keeps what services and countries match, for later rules that
/// name the same.
class RuleMatches {
public:
    explicit RuleMatches(const FWENVIRONMENT& environment) : environment_(environment) {}

    /// One for each family, or one for both; none for a rule without lines.
    AddressMatches addresses(const FWRULE& rule);

    /// One for each protocol. Valid until the next call.
    const ProtocolMatches& protocols(const FWRULE& rule);

private:
    /// Those of a list that have addresses in a family.
    struct Countries {
        Texts codes;
        std::shared_ptr<const FWADDRESSES> addresses;
        std::optional<LeftOut> leftOut;
    };

    AddressMatch textMatch(const FWRULE& rule, FW_FAMILY family);
    const Countries& countries(const Texts& codes, FW_FAMILY family);
    Countries united(const Texts& codes, FW_FAMILY family);
    void count(std::size_t intervals);
    const ProtocolMatches& ofServices(const Texts& names);

    const FWENVIRONMENT& environment_;
    std::size_t intervals_ = 0;  // of all lists of addresses made here
    ProtocolMatches protocols_;  // of the rule at hand
    std::map<Texts, ProtocolMatches> services_;
    std::map<std::pair<Texts, FW_FAMILY>, Countries> countries_;
};

}  // namespace FW
