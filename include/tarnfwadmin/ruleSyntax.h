/// Rules from words: "deny tcp 22,6000-6010 from 192.168.1.0/24".
///
///     allow|deny [WHAT] [from|to ADDRESS]
///     WHAT     service NAME[,NAME...]; tcp, udp or tcp/udp, alone or with PORT[,PORT...]; icmp;
///              igmp; any, the default
///     PORT     22 or 6000-6010
///     ADDRESS  one address; a network, ADDRESS/LENGTH or ADDRESS/MASK; FIRST-LAST;
///              country CC[,CC...]; anywhere, the default
///
/// Other spellings are read as well: "tcp/22" and "22/tcp", "both 53", "tcp,udp 53", "6000:6010";
/// and all that ruleText() prints of a rule that this made: "[off] deny udp source port 123 from
/// anywhere, outgoing, logged (IPv6)  "a name"".
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The names for rules on this machine. The caller reads it (Catalogue, FW_GEOIP); reading a rule's
/// words reads no file.
struct RuleVocabulary {
    /// By name, those that the firewall uses; with the FW_PORT_PROTOCOL code of the ports that they
    /// answer on.
    std::map<std::string, std::int32_t> services;
    std::vector<std::string> countriesV4;  ///< codes that have IPv4 data: "DE"
    std::vector<std::string> countriesV6;  ///< codes that have IPv6 data
};

/// What options say about a rule and words do not. At most one of `v4` and `v6`.
struct RuleOptions {
    bool v4 = false;                  ///< IPv4 only
    bool v6 = false;                  ///< IPv6 only
    bool sourcePort = false;          ///< the ports are the sender's
    bool out = false;                 ///< packets that leave through the adapter
    bool log = false;                 ///< FWRULE::blLog
    bool disabled = false;            ///< stored switched off
    std::string name;                 ///< FWRULE::name
    std::vector<std::string> labels;  ///< FWRULE::labelList
};

/// The rule that `words` and `options` describe. It is for both address families unless an address
/// or an option says otherwise. A network is stored by its first address, an IPv4 mask with dots;
/// countries in capital letters; tcp or udp without ports as "0-65535".
/// Words may be given in any number of texts. Throws Error: kInvalid, with one line that names the
/// word, what was expected in its place and the nearest right one; kNotFound for a service or
/// country that `vocabulary` does not have, with the nearest; kSystem for a service when it has
/// none at all.
FW::FWRULE ruleFrom(const std::vector<std::string>& words, const RuleOptions& options,
                    const RuleVocabulary& vocabulary);

}  // namespace tarnfw
