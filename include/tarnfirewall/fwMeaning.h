/// What a profile means, exactly: which packets it lets through, rule by rule.
///
/// A profile is first resolved: its rules become sets of packets in the order in which the packet
/// filter tries them, with everything that the translation into iptables lines does to them. The
/// operations on resolved rules then answer questions about single packets and about whole sets.
///
///     FWENVIRONMENT environment;
///     if (fwEnvironmentGet(profile, FW_ADAPTERS_PRESENT, {}, environment)) {  // fwEnvironment.h
///         const FW_MEANING meaning(fwResolve(profile, environment).rules);
///         const FWDECISION decision = meaning.decide(packet);
///         const FWRESOLVEDRULE decider = meaning.rule(decision.deciders.front());
///     }
///
/// Nothing here reads a file, runs a program or takes a lock: what the machine contributes is
/// given in an FWENVIRONMENT. Nothing here logs or fails; what is wrong with a profile, or too
/// complex to answer, is an FWFINDING. Only memory that runs out raises std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace FW {

// ---- Packets ----

enum FW_CHAIN : std::uint8_t {
    FW_CHAIN_INPUT = 0,   ///< packets for the machine itself: INPUT_FIREWALL
    FW_CHAIN_FORWARD = 1  ///< packets that it passes on: FORWARD_FIREWALL
};

enum FW_FAMILY : std::uint8_t { FW_FAMILY_V4 = 0, FW_FAMILY_V6 = 1 };

/// The state of the connection that a packet belongs to.
enum FW_STATE : std::uint8_t {
    FW_STATE_NEW = 0,
    FW_STATE_ESTABLISHED = 1,
    FW_STATE_RELATED = 2,
    FW_STATE_INVALID = 3,
    FW_STATE_UNTRACKED = 4
};

// Masks of these codes: bit 1 << code.
inline constexpr std::uint8_t FW_BOTH_CHAINS = 0x03;
inline constexpr std::uint8_t FW_BOTH_FAMILIES = 0x03;
inline constexpr std::uint8_t FW_ALL_STATES = 0x1f;

/// An address as a number of 128 bits. An IPv4 address is the upper 32 of them, so that all
/// addresses of either family are the same interval, 0 to the greatest number, and a single IPv4
/// address is the interval of all numbers that begin with its 32 bits.
struct FWADDRESS {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
};

/// Addresses, both ends included: `first` of an IPv4 interval ends with 96 zeros, `last` with 96
/// ones.
struct FWADDRESSINTERVAL {
    FWADDRESS first;
    FWADDRESS last;
};

/// Sorted, disjoint and not adjacent.
using FWADDRESSES = std::vector<FWADDRESSINTERVAL>;

/// Ports, protocol numbers or ICMP types, both ends included.
struct FWINTERVAL {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
};

/// Sorted, disjoint and not adjacent; empty: any value.
using FWINTERVALS = std::vector<FWINTERVAL>;

/// A set of interface names. An entry is a name, "eth0", or the beginning of names, "tun+"; "+"
/// alone is every name. The longest entry that fits a name decides, a name before a beginning:
/// the name is in the set when that entry is one of `names`.
struct FWINTERFACES {
    std::vector<std::string> names;
    std::vector<std::string> except;
};

/// A set of packets: those whose every field has one of the values given for it. A null pointer
/// and an empty list mean any value, also for packets that do not have such a field. Ports are
/// those of TCP and UDP and types those of ICMP and ICMPv6 alone, also when no protocol is given. A
/// mask without a code, interfaces without a name, and fields that no packet has together are the
/// set without any packet.
struct FWPACKETSET {
    std::uint8_t chains = FW_BOTH_CHAINS;        ///< mask of FW_CHAIN
    std::uint8_t families = FW_BOTH_FAMILIES;    ///< mask of FW_FAMILY; one where addresses are
    std::shared_ptr<const FWINTERFACES> in;      ///< interface through which they came in
    std::shared_ptr<const FWINTERFACES> out;     ///< and leave, in the chain FW_CHAIN_FORWARD
    FWINTERVALS protocols;                       ///< IP protocol numbers
    std::shared_ptr<const FWADDRESSES> sources;  ///< their addresses
    std::shared_ptr<const FWADDRESSES> destinations;
    FWINTERVALS sourcePorts;              ///< of TCP and UDP
    FWINTERVALS destinationPorts;         ///< of TCP and UDP
    FWINTERVALS icmpTypes;                ///< of ICMP and ICMPv6
    std::uint8_t states = FW_ALL_STATES;  ///< mask of FW_STATE
};

/// One packet. A field without a value is not known, or the packet has none. In the chain
/// FW_CHAIN_INPUT `out` is not read. An address needs a family to be understood; ports and types
/// are read only of protocols that have them, and imply these when the protocol is not known.
struct FWPACKET {
    std::optional<FW_CHAIN> chain;
    std::optional<FW_FAMILY> family;
    std::optional<std::string> in;  ///< "eth0"
    std::optional<std::string> out;
    std::optional<std::uint8_t> protocol;  ///< of IPv6 the one after the extension headers
    std::optional<FWADDRESS> source;       ///< of IPv4 the first number of the address's interval
    std::optional<FWADDRESS> destination;
    std::optional<std::uint16_t> sourcePort;
    std::optional<std::uint16_t> destinationPort;
    std::optional<std::uint8_t> icmpType;
    std::optional<FW_STATE> state;
};

// ---- Resolved rules ----

/// What happens to a packet.
enum FW_PACKET_VERDICT : std::uint8_t {
    FW_PACKET_ACCEPT = 0,  ///< accepted, and no later chain sees it: the fixed lines
    FW_PACKET_NEXT = 1,    ///< leaves the firewall's chain, where rules of others still apply:
                           ///< what a rule allows, and what no rule matches
    FW_PACKET_DROP = 2     ///< dropped: what a rule denies
};

/// Where a resolved rule comes from.
enum FW_ORIGIN : std::uint8_t {
    FW_ORIGIN_LOOPBACK = 0,     ///< fixed line: packets of the machine to itself
    FW_ORIGIN_NEIGHBOURS = 1,   ///< fixed line: neighbour discovery of IPv6
    FW_ORIGIN_ESTABLISHED = 2,  ///< fixed line: established and related connections
    FW_ORIGIN_RULE = 3,         ///< a rule of the profile
    FW_ORIGIN_DEFAULT = 4,      ///< the default policy of an adapter
    FW_ORIGIN_END = 5           ///< none: no rule matches
};

/// "rule 3 of eth0": {FW_ORIGIN_RULE, "eth0", 3}.
struct FWPLACE {
    FW_ORIGIN origin = FW_ORIGIN_END;
    std::string adapter;        ///< of a rule or default policy
    std::int32_t position = 0;  ///< of a rule: its position in the adapter's list, from 1
};

/// One step of the packet filter. A rule of the profile becomes several: one for each protocol,
/// and for each family where it has addresses.
struct FWRESOLVEDRULE {
    FWPACKETSET packets;
    FW_PACKET_VERDICT verdict = FW_PACKET_NEXT;
    bool log = false;  ///< the packets are logged as well
    FWPLACE place;
};

enum FW_FINDING : std::uint8_t {
    FW_FINDING_TOO_COMPLEX = 0,  ///< every finding of a question: its answer is incomplete; of a
                                 ///< rule: lines that are in the kernel are not resolved
    FW_FINDING_REFUSED = 1,      ///< lines that are not resolved, because iptables refuses them or
                                 ///< there are none: the translation fails
    FW_FINDING_OF_OTHERS = 2,    ///< lines that are not resolved, in tables or chains of others
    FW_FINDING_NOT_RUN = 3       ///< a line that is too long for the apply mode: the rule is not
                                 ///< resolved, and no reload succeeds
};

/// Something wrong with a profile, or a question that was too complex to answer.
struct FWFINDING {
    FWPLACE place;
    std::string text;  ///< "\"10.0.0.256\" is not an IPv4 address"
    FW_FINDING kind = FW_FINDING_TOO_COMPLEX;
};

// ---- Resolving ----

/// Masks with gaps are expanded into intervals, up to this many for the addresses of a rule in a
/// family.
inline constexpr std::size_t FW_MASK_INTERVALS = 4096;

/// All addresses of a profile's rules together make up to this many intervals. The list of a single
/// country does not count, since rules share it; one that is made of several countries does, once.
inline constexpr std::size_t FW_PROFILE_INTERVALS = 4000000;

/// What the meaning of a profile depends on besides the profile.
struct FWENVIRONMENT {
    /// The interfaces of each adapter that has any now, see fwAdaptersNow() and fwAdaptersByName().
    /// An adapter that is missing here is skipped, with its rules and its default policy.
    std::map<std::string, FWINTERFACES> adapters;

    /// By adapter: the interface that routes IPv6 for it, where that is another one. The rules of
    /// the adapter are repeated there for IPv6.
    std::map<std::string, std::string> tunnels;

    /// The services that are usable for the firewall, with their ports, by name.
    std::map<std::string, ServPort> services;

    /// The addresses of a country; null when the database has none for the family. Without a
    /// function there are no countries.
    std::function<std::shared_ptr<const FWADDRESSES>(const std::string& country, FW_FAMILY family)>
        countries;

    /// Countries whose file ends within a record. iptables refuses a line with one.
    std::set<std::pair<std::string, FW_FAMILY>> brokenCountries;

    /// Whether packets of established connections are accepted, except from this address.
    bool acceptEstablished = true;
    std::string exceptedIp;  ///< "10.0.0.5" or "fe80::1"; empty for none

    /// Whether the lines are for apply mode "batch", where a rule with an IPv4 address is never
    /// repeated for a tunnel. In "lines" one with the prefix length 0 is.
    bool batch = false;
};

/// The adapters that have an interface now: each interface by its name, "global", "pppoe" when
/// `pppoe` names its interface, and "vpn" when there is any VPN interface.
TARNFW_EXPORT std::map<std::string, FWINTERFACES> fwAdaptersNow(
    const std::vector<std::string>& interfaces, const std::string& pppoe);

/// All adapters of a profile, whether their interfaces exist or not: "vpn" as the names "ppp..."
/// without `pppoe` and "tun..." without "tun1000"; "pppoe", where `pppoe` is empty, as "/pppoe",
/// which no interface is called.
TARNFW_EXPORT std::map<std::string, FWINTERFACES> fwAdaptersByName(const FWPROFILE& profile,
                                                                   const std::string& pppoe);

struct FWRESOLVED {
    std::vector<FWRESOLVEDRULE> rules;  ///< in the order in which the packet filter tries them
    std::vector<FWFINDING> findings;    ///< by rule, in byte order of the adapters: what is not
                                        ///< resolved, see FW_FINDING
};

/// The resolved rules of a profile: the fixed lines, then the rules of "global", then those of the
/// other adapters in byte order, each list with its default policy at the end. What is repeated for
/// a tunnel is in the list of the tunnel's interface, in byte order of the adapters that it comes
/// from: the rules and the default policy of "pppoe", repeated for "eth0", come after the default
/// policy of "eth0". Rules that yield no line are not among them. Of a rule with findings, the
/// lines that iptables takes are: in apply mode "lines" they are in the kernel, in "batch" the
/// whole profile is refused. An `exceptedIp` that is no address is a finding, and there are no
/// rules at all. Texts are read as iptables reads them: "10/8" is 10.0.0.0/8, "010.0.0.1"
/// is 8.0.0.1, "10.256" is 10.0.1.0, and of four numbers with dots the first 19 characters count.
/// Names of hosts and of ports, ports above 65535, IPv6 addresses with an interface
/// ("fe80::1%eth0") and texts with a blank or line feed in them are findings, even where iptables
/// does not refuse them: it asks a name server, makes 4464 of the UDP port 70000, or leaves an
/// interface out that exists.
TARNFW_EXPORT FWRESOLVED fwResolve(const FWPROFILE& profile, const FWENVIRONMENT& environment);

/// The packets for a service with these ports: sets by protocol, with those of the protocols that
/// it needs besides ports. None for a service without either. Entries that are no ports are left
/// out, each on its own.
TARNFW_EXPORT std::vector<FWPACKETSET> fwServicePackets(const std::string& service,
                                                        const ServPort& ports);

/// A list of intervals in any order, sorted and joined where they overlap or are adjacent. Those
/// that run backwards are left out.
TARNFW_EXPORT FWADDRESSES fwAddressesFrom(const std::vector<FWADDRESSINTERVAL>& intervals);

/// The interval of one address in the syntax of inet_pton(); nothing for any other text.
TARNFW_EXPORT std::optional<FWADDRESSINTERVAL> fwAddressFrom(const std::string& text,
                                                             FW_FAMILY family);

/// "10.0.0.1" or "fe80::1".
TARNFW_EXPORT std::string fwAddressText(const FWADDRESS& address, FW_FAMILY family);

// ---- Questions about resolved rules ----

/// How many steps one question may take. A step compares a rule with a piece of the packets that
/// the question is about, or the bounds of some hundred rules at once, or a few intervals of long
/// lists, or makes a few. Rules that cut each other in every field can need any number of pieces;
/// such a question is given up as too complex, mostly within a second. Joining the pieces that
/// were found may take as many again; beyond that they stay smaller.
inline constexpr std::size_t FW_MEANING_STEPS = 10000000;

/// What one question may hold of such pieces, about, in bytes; with more it is given up, too.
inline constexpr std::size_t FW_MEANING_BYTES = 128000000;

/// How many steps shadows() spends on a single rule each time that it examines it: whether it never
/// decides, whether it is needless beside the rules that stay, and beside all.
inline constexpr std::size_t FW_MEANING_STEPS_PER_RULE = 100000;

/// Who decides about a packet.
struct FWDECISION {
    /// Numbers of resolved rules, in order; as many as there are rules means "no rule matches".
    /// One when everything that matters of the packet is known, otherwise all that may decide.
    std::vector<std::size_t> deciders;

    bool tooComplex = false;  ///< some of `deciders` may be unable to decide
};

/// A rule that could be removed.
struct FWSHADOW {
    FWPLACE place;
    bool neverDecides = false;    ///< rules before it are known to decide about all of its packets;
                                  ///< otherwise those after it would do with them what it does
    std::vector<FWPLACE> by;      ///< these rules, in order; with none, no rule matches afterwards
    std::vector<FWPLACE> before;  ///< rules before one that may decide, whatever their verdict,
                                  ///< that decide about those of its packets that `by` leaves out
};

struct FWSHADOWS {
    std::vector<FWSHADOW> shadows;    ///< in the order of the rules
    std::vector<FWFINDING> findings;  ///< rules for which this is too complex to find out, each
                                      ///< once and none of `shadows`; without a place, the last
                                      ///< one: all that are not among the others
};

enum FW_CHANGE : std::uint8_t {
    FW_CHANGE_OPENED = 0,  ///< were dropped and are not any more
    FW_CHANGE_CLOSED = 1,  ///< are dropped now
    FW_CHANGE_LOGGING = 2  ///< are logged now, or are not any more; nothing else
};

/// Packets with which something else happens than before.
struct FWCHANGE {
    FW_CHANGE change = FW_CHANGE_OPENED;
    std::vector<FWPACKETSET> packets;  ///< disjoint sets, the largest first
    std::vector<FWPACKET> witnesses;   ///< one packet of each
    std::size_t before = 0;  ///< the number of the rule that decided about them, see FWDECISION
    std::size_t after = 0;   ///< and of the one that does now, among the other rules
};

struct FWDIFFERENCE {
    std::vector<FWCHANGE> changes;    ///< one for each pair of rules, before and after
    std::vector<FWFINDING> findings;  ///< without a place: it is too complex, and there may be more
};

/// What gets through from some interfaces.
struct FWREACH {
    FWINTERFACES interfaces;
    std::vector<FWPACKETSET>
        packets;  ///< disjoint sets, the largest first; none when all is closed
};

struct FWREACHABLE {
    std::vector<FWREACH> reach;  ///< each interface once; those with the same packets together
    std::vector<FWFINDING>
        findings;  ///< without a place: too complex, and there may be more packets
};

/// Resolved rules, prepared for questions. It does not change, so that several threads may ask.
class TARNFW_EXPORT FW_MEANING {
public:
    /// Copies what it needs of the rules, some hundred bytes each. Lists of addresses are not
    /// copied but kept, each once: they must not change any more.
    explicit FW_MEANING(const std::vector<FWRESOLVEDRULE>& rules);
    ~FW_MEANING();

    /// What was moved from can only be assigned to or destroyed.
    FW_MEANING(FW_MEANING&& other) noexcept;
    FW_MEANING& operator=(FW_MEANING&& other) noexcept;

    std::size_t size() const;  ///< how many rules there are

    /// A rule by its number, from 0; at size() what happens when no rule matches.
    FWRESOLVEDRULE rule(std::size_t number) const;

    /// The rule that decides about a packet, or all that may while fields of it are not known. The
    /// answer for a packet that is known takes a microsecond or two with 10,000 rules that have one
    /// interval in each field, or share lists. Lists that each rule has for itself can cost 0.1 us
    /// a rule: a millisecond where 10,000 rules have masks with seven gaps. Any other answer takes
    /// up to FW_MEANING_STEPS.
    FWDECISION decide(const FWPACKET& packet) const;

    /// The rules of the profile, default policies apart, that change nothing: neither what happens
    /// to a packet nor whether it is logged. Any one of them can be removed, and all together. Of
    /// rules that make each other needless the later ones are named.
    FWSHADOWS shadows() const;

    /// What happens to which packets after `this` and not before. Whether a packet is accepted or
    /// goes on to rules of others is no difference.
    FWDIFFERENCE differenceFrom(const FW_MEANING& before) const;

    /// Who can reach what: which of the packets of `query` are not dropped, by the interface
    /// through which they come in. Ask for FW_STATE_NEW alone to leave established connections out.
    FWREACHABLE reach(const FWPACKETSET& query) const;

private:
    struct State;
    std::unique_ptr<const State> state_;
};

}  // namespace FW
