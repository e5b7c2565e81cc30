/// Rules of other programs that packets meet besides the firewall's: those of INPUT and FORWARD
/// that may accept before it, those that somebody has put into FIREWALL_RELOADING, those that
/// change where packets go, and those that drop.
///
/// What accepts in another table ends only that table's chain: the packet still meets INPUT and
/// FORWARD. What drops is final wherever it is, in any table of either variant of iptables or of
/// nftables, before the firewall's rules or after them: a packet that those allow goes on.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/portEntry.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Packets that open a connection and come in from outside, as far as a question says.
struct ForeignQuestion {
    std::vector<std::string> interfaces;  ///< they come in through one of these; empty: any
    int protocol = 0;                     ///< IPPROTO_TCP; 0: any
    std::optional<PortSpan> ports;        ///< of the destination; none: any
    std::optional<PortSpan> sourcePorts;  ///< none: any
    std::optional<Address> source;        ///< none: any
    std::optional<Address> destination;   ///< none: any
    bool toThisMachine = true;            ///< for an address of this machine, before nat
};

/// A rule that may accept packets before they meet the firewall's.
struct EarlyAccept {
    std::string chain;  ///< "INPUT" or "FORWARD"
    /// As iptables prints them: the rule of `chain`, or of FIREWALL_RELOADING, and those of the
    /// chains that it leads to.
    std::vector<std::string> rules;
    bool certain = false;  ///< it accepts all the packets of the question
};

/// A rule or a policy that may drop packets that the firewall allows.
struct ForeignDrop {
    std::vector<std::string> rules;  ///< as in Redirection; the last may be "-P INPUT DROP"
    bool certain = false;            ///< it drops all the packets of the question
};

/// Where incoming packets meet a chain.
enum class Hook {
    kPrerouting,  ///< all of them, with the destination that the sender has written
    kInput,       ///< those for this machine
    kForward,     ///< those for others
};

/// A rule that changes where packets go.
struct Redirection {
    std::vector<std::string> rules;      ///< from that of PREROUTING on, or as nft prints them
    PortSpan ports;                      ///< those of the question that it is for
    std::string target;                  ///< "172.17.0.2:80"; "port 8081" of this machine
    bool toThisMachine = false;          ///< the packets then meet INPUT, else FORWARD
    std::optional<Address> destination;  ///< the new one; none for a range, or as before
    std::optional<PortSpan> seenPorts;   ///< the number that the filter sees; none: as before
    bool certain = false;                ///< it changes all those packets
};

/// A table in the form of iptables-save.
struct HookTable {
    /// A chain that packets begin with.
    struct Entrance {
        std::string chain;
        Hook hook = Hook::kPrerouting;
        std::vector<std::string> interfaces = {};  ///< only for packets through these; empty: any
    };

    RuleListing rules;
    std::vector<Entrance> entrances;
    std::map<std::string, std::string> texts;  ///< what to show for a rule instead of its text
    std::string prefix;                        ///< before other rules: "iptables-legacy -t nat "
};

/// Those of the machine, by family, but the table "filter" of the firewall's variant of iptables:
/// the tables of both variants, which are in force together whichever the firewall's is, and other
/// programs' tables of nftables.
struct HookTables {
    std::map<std::string, std::vector<HookTable>> byFamily;
    /// "the rules in nat of iptables-legacy are not known: there is no ...".
    std::vector<std::string> unknown;
};

/// Lists them, each program within 5 s. The kernel is asked first which tables there are, in a way
/// that loads none: a program runs only for a variant that has one, and "nft" for each table of
/// others that incoming packets meet.
HookTables hookTables();

/// The rules of one family, and what they do to the packets of a question.
class ForeignRules {
public:
    /// `own` are the machine's addresses.
    ForeignRules(std::string family, RuleListing filter, std::vector<HookTable> others,
                 std::vector<Address> own = {});

    /// The same with the table "nat" of iptables alone.
    ForeignRules(std::string family, RuleListing filter, RuleListing nat,
                 std::vector<Address> own = {});

    const std::string& family() const { return family_; }

    /// The rules of a chain before its jump to the firewall's chain that may accept such packets;
    /// none without that jump. At most kMostForeignRules.
    std::vector<EarlyAccept> earlyAccepts(const std::string& chain,
                                          const ForeignQuestion& question) const;

    /// Those of both, for any packet that opens a connection. Only the first rule of each is given,
    /// each once, and `chain` is its own, which may be FIREWALL_RELOADING.
    std::vector<EarlyAccept> anyEarlyAccepts() const;

    /// The rules that change where such packets go. At most kMostForeignRules.
    std::vector<Redirection> redirections(const ForeignQuestion& question) const;

    /// The rules and policies at a hook that may drop such packets, though the firewall allows
    /// them. Without a destination, packets for this machine have one of its addresses. At most
    /// kMostForeignRules.
    std::vector<ForeignDrop> drops(Hook hook, const ForeignQuestion& question) const;

private:
    std::string family_;
    RuleListing filter_;
    std::vector<HookTable> others_;
    std::vector<Address> own_;
};

inline constexpr std::size_t kMostForeignRules = 100;

/// The first chain of incoming packets in the table "nat".
inline constexpr char kNatEntrance[] = "PREROUTING";

/// "-A FORWARD -o docker0 -j DOCKER; -A DOCKER -d 172.17.0.2/32 ... -j ACCEPT".
std::string rulesText(const std::vector<std::string>& rules);

}  // namespace tarnfw
