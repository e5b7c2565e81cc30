/// Profiles of any size, the same ones in every run.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

/// The kind of a profile's rules.
enum class RuleKind {
    Plain,      ///< an address, one TCP port
    Multiport,  ///< an address, ten ports and ranges, TCP and UDP
    Service,    ///< a network, three services
    Country,    ///< three countries, one port
    Vpn,        ///< any address, one port, on an adapter with four interfaces
    Both,       ///< any address, one port, IPv4 and IPv6
};

struct NamedKind {
    const char* name;
    RuleKind kind;
};

inline constexpr NamedKind kRuleKinds[] = {
    {"plain", RuleKind::Plain},     {"multiport", RuleKind::Multiport},
    {"service", RuleKind::Service}, {"country", RuleKind::Country},
    {"vpn", RuleKind::Vpn},         {"both", RuleKind::Both},
};

/// The countries in rules of that kind.
inline const std::vector<std::string> kCountries = {"CN", "KP", "RU"};

/// A profile of `name` with `rules` rules of one adapter, whose default policy is to deny.
FW::FWPROFILE makeProfile(const std::string& name, RuleKind kind, int rules);
