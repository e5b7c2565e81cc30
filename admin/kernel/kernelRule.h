/// One rule of the packet filter in words that programs can ask: what it matches and where it
/// leads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/portEntry.h"

namespace tarnfw {

/// One condition of a rule.
template <typename Value>
struct Condition {
    std::optional<Value> value;  ///< none: not a condition of this rule, or an unread one
    bool negated = false;        ///< "! -i eth0"
    bool unread = false;         ///< it is there, in a form that is not read

    bool isThere() const { return value.has_value() || unread; }
};

struct KernelRule {
    std::string text;  ///< the line
    std::string table = "filter";
    std::string chain;  ///< "INPUT"
    Condition<std::string> in;
    Condition<std::string> out;
    Condition<AddressRange> source;
    Condition<AddressRange> destination;
    Condition<int> protocol;  ///< its number
    Condition<std::vector<PortSpan>> ports;
    Condition<std::vector<PortSpan>> sourcePorts;
    bool toThisMachine = false;    ///< for addresses of this machine: "addrtype --dst-type LOCAL"
    bool establishedOnly = false;  ///< for packets of established connections only
    bool opensNone = false;        ///< the same by other words: invalid ones, TCP without SYN
    bool more = false;             ///< it has further conditions, which are not read
    std::string target;            ///< "ACCEPT", a chain; empty without one
    bool goesTo = false;           ///< the target is a chain that does not come back
    std::vector<std::string> targetWords;  ///< "--to-destination", "172.17.0.2:80"
};

/// Reads a line of iptables -S or iptables-save, or of a translation ("-t filter -A ...").
KernelRule kernelRuleFrom(const std::string& line);

/// Whether two rules of a chain are the same as far as both are read. "-s 10.0.0.1" and
/// "-s 10.0.0.1/32" are, and so are rules that differ only in conditions that are not read.
bool isSameAsFarAsRead(const KernelRule& one, const KernelRule& other);

}  // namespace tarnfw
