/// Rules from the words of a person: "deny tcp 22,6000-6010 from 192.168.1.0/24".
///
///     allow|deny [WHAT] [from|to ADDRESS]
///     WHAT     service NAME[,NAME...]; tcp, udp or tcp/udp ("both" is the same), alone or with
///              PORT[,PORT...]; icmp; igmp; any, which is also meant when it is left out
///     PORT     22 or 6000-6010
///     ADDRESS  one address; a network, ADDRESS/LENGTH or ADDRESS/MASK; FIRST-LAST;
///              country CC[,CC...]; anywhere, which is also meant when it is left out
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// What rules can name on this machine.
struct RuleVocabulary {
    std::map<std::string, std::int32_t> services;  ///< usable ones, with the catalogue's protocol
    std::vector<std::string> countriesV4;          ///< codes that have IPv4 data
    std::vector<std::string> countriesV6;          ///< codes that have IPv6 data
};

/// What is said of a rule with options instead of words.
struct RuleOptions {
    bool v4 = false;          ///< IPv4 only
    bool v6 = false;          ///< IPv6 only
    bool sourcePort = false;  ///< the ports are the sender's
    bool out = false;         ///< packets that leave through the adapter
    bool log = false;
    bool disabled = false;
    std::string name;
    std::vector<std::string> labels;
};

/// The rule that `words` and `options` describe, for both address families unless an address or an
/// option says otherwise. Networks are stored by their first address, IPv4 masks with dots.
/// Throws Error: kInvalid, with one line that names the word and what was expected in its place;
/// kSystem without a service catalogue; kNotFound for countries without data.
FW::FWRULE ruleFrom(const std::vector<std::string>& words, const RuleOptions& options,
                    const RuleVocabulary& vocabulary);

}  // namespace tarnfw
