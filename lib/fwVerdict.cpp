#include "fwVerdict.h"

#include <algorithm>
#include <cstdlib>

namespace FW {
namespace {

/// A range of ports, both ends included.
struct PortRange {
    long low;
    long high;
};

long numberOf(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

/// "80" or "6000-6010", split at the first dash.
PortRange rangeOf(const std::string& text) {
    const auto dash = text.find('-');
    if (dash == std::string::npos) {
        const long port = numberOf(text);
        return {port, port};
    }
    return {numberOf(text.substr(0, dash)), numberOf(text.substr(dash + 1))};
}

bool overlaps(const PortRange& a, const PortRange& b) {
    return a.high >= b.low && a.low <= b.high;
}

bool covers(const PortRange& outer, const PortRange& inner) {
    return outer.low <= inner.low && outer.high >= inner.high;
}

bool protocolsMatch(std::int32_t query, std::int32_t rule, bool blocking) {
    if (rule == FW_PORT_PROTOCOL_TCP_UDP || query == rule) {
        return true;
    }
    return blocking && query == FW_PORT_PROTOCOL_TCP_UDP;
}

// ---- Transitions ----

// Columns: the rule's policy.
enum PolicyColumn : std::size_t { kAllow = 0, kDeny = 1, kOther = 2 };

PolicyColumn columnOf(FW_POLICY policy) {
    switch (policy) {
        case FW_POLICY_ALLOW:
            return kAllow;
        case FW_POLICY_DENY:
            return kDeny;
        default:
            return kOther;
    }
}

// Rows: the verdict so far.
enum VerdictRow : std::size_t {
    kDefault = 0,    // allowed, blocked or undecided, from the default policy
    kAllowSome = 1,  // allowed from some addresses
    kDenySome = 2,   // blocked from some addresses
    kMixed = 3,      // mixed, or no verdict at all
};

VerdictRow rowOf(FW_POLICY verdict) {
    switch (verdict) {
        case FW_POLICY_ALLOW:
        case FW_POLICY_DENY:
        case FW_POLICY_NONE:
            return kDefault;
        case FW_POLICY_ALLOW_SOME:
            return kAllowSome;
        case FW_POLICY_DENY_SOME:
            return kDenySome;
        default:
            return kMixed;
    }
}

constexpr VerdictStep stop(FW_POLICY verdict) {
    return {verdict, false};
}
constexpr VerdictStep goOn(FW_POLICY verdict) {
    return {verdict, true};
}

constexpr FW_POLICY kAllowed = FW_POLICY_ALLOW;
constexpr FW_POLICY kBlocked = FW_POLICY_DENY;
constexpr FW_POLICY kUndecided = FW_POLICY_NONE;
constexpr FW_POLICY kBoth = FW_POLICY_MIXED;
constexpr FW_POLICY kSomeAllowed = FW_POLICY_ALLOW_SOME;
constexpr FW_POLICY kSomeBlocked = FW_POLICY_DENY_SOME;

// Several entries are "allowed" where one might expect the old verdict to stay. Callers rely on
// them, and changing one would change which ports they open.

// clang-format off

// A rule for any address ends the list. The first row is only for the reader: nextVerdict() makes
// the rule's policy the verdict there, whatever it is.
constexpr VerdictStep kAnyAddress[4][3] = {
    //                 rule allows          rule denies          neither
    /* default    */ { stop(kAllowed),      stop(kBlocked),      stop(kUndecided) },
    /* allow some */ { stop(kAllowed),      stop(kSomeAllowed),  stop(kAllowed)   },
    /* deny some  */ { stop(kSomeBlocked),  stop(kBlocked),      stop(kAllowed)   },
    /* mixed      */ { stop(kAllowed),      stop(kAllowed),      stop(kAllowed)   },
};

// After a rule for some addresses the next one is evaluated, until some are allowed and some
// blocked. In the first row nextVerdict() returns "allowed" for a policy equal to the verdict.
constexpr VerdictStep kSomeAddresses[4][3] = {
    //                 rule allows          rule denies          neither
    /* default    */ { goOn(kSomeAllowed),  goOn(kSomeBlocked),  goOn(kAllowed)   },
    /* allow some */ { goOn(kAllowed),      stop(kBoth),         stop(kAllowed)   },
    /* deny some  */ { stop(kBoth),         goOn(kAllowed),      stop(kAllowed)   },
    /* mixed      */ { stop(kAllowed),      stop(kAllowed),      stop(kAllowed)   },
};

// clang-format on

}  // namespace

bool portsMatch(const PortCompareST& query, std::int32_t portDirect, std::int32_t protocol,
                const std::vector<std::string>& ports, bool blocking) {
    if (!protocolsMatch(query.protocol, protocol, blocking) || query.portDirect != portDirect) {
        return false;
    }
    const PortRange asked = rangeOf(query.port);
    return std::any_of(ports.begin(), ports.end(), [&](const std::string& port) {
        const PortRange range = rangeOf(port);
        return blocking ? overlaps(range, asked) : covers(range, asked);
    });
}

VerdictStep nextVerdict(FW_POLICY current, FW_POLICY policy, bool anyAddress) {
    const VerdictRow row = rowOf(current);
    if (row == kDefault) {
        if (anyAddress) {
            return stop(policy);
        }
        if (policy == current) {
            return goOn(kAllowed);
        }
    }
    return (anyAddress ? kAnyAddress : kSomeAddresses)[row][columnOf(policy)];
}

}  // namespace FW
