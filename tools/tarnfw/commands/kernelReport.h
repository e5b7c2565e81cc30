/// What the kernel does of what is stored, for the commands that answer from the stored rules.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/foreignRules.h"
#include "tarnfwadmin/inForce.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// The kernel at one moment: the filter table of each family and those of others, listed once and
/// all at the same time.
struct KernelReport {
    FilterListings listings;              ///< the filter tables
    std::vector<FamilyInForce> families;  ///< "v4" first
    std::vector<std::string>
        emptyChains;                    ///< where the others have rules: "INPUT_FIREWALL of IPv4"
    std::vector<ForeignRules> foreign;  ///< of the families that the machine has
    std::vector<std::string> opened;    ///< see openedPolicies(): "INPUT of IPv4"
    std::string unknownOpened;          ///< why that is not known
    bool hidden = false;                ///< only root may list it; nothing else is filled in
    std::string unknown;                ///< why the filter tables could not be listed
    std::vector<std::string> unknownRules;  ///< what others have that is not known, and why
    bool enabled = false;                   ///< by the settings
    bool reloading = false;                 ///< a reload is running
};

/// Without root's rights it is hidden. Throws Error, kSystem, when no filter table can be listed. A
/// family that cannot be listed while the other can is InForce::kUnknown.
KernelReport kernelReport(const StoreSnapshot& store);

/// The same, with the failure in `unknown`.
KernelReport kernelReportIfAny(const StoreSnapshot& store);

bool isClosed(const KernelReport& report);

/// That a killed reload has closed the machine, and what opens it while the firewall is enabled or
/// disabled.
std::string interruptedText(bool enabled);

/// Whether it is known that no family has any rule, though the active profile has some.
bool isNothingInForce(const KernelReport& report);

/// What the kernel does not do of what is stored, and what fixes it, the worst first: "no rules are
/// in force for IPv6, which is open; "tarnfw reload" applies them". Empty when it does all.
std::vector<std::string> complaintsOf(const KernelReport& report);

/// That policies accept which dropped at "base up", and what puts them back; empty without such.
std::string openedComplaint(const KernelReport& report);

/// That rules of other programs may accept packets before an enabled firewall's, and what fixes it;
/// empty without such rules.
std::string aheadComplaint(const KernelReport& report);

/// What the firewall's rules do to redirected packets: those that come in through an adapter, with
/// the address and the port that they then have.
struct InnerAnswer {
    std::string adapter;
    std::string verdict;  ///< "blocked"; empty when it depends on more than is known
    std::string by;       ///< the rule, in words, where the sender is known
};

/// What rules of other programs do to the packets of a question: most of it before they meet the
/// firewall's rules, but what drops may also do so after these have allowed them.
struct BeforeFirewall {
    struct Accept {
        std::string family;
        EarlyAccept accept;
    };
    struct Drop {
        std::string family;
        ForeignDrop drop;
    };
    struct Redirect {
        std::string family;
        std::string protocol;  ///< "tcp"
        Redirection redirection;
        std::vector<InnerAnswer> inner = {};  ///< where the packets come in
    };
    std::vector<Accept> accepts;
    std::vector<Drop> drops;  ///< of packets for this machine, and of redirected ones
    std::vector<Redirect> redirects;
};

/// For a question about an adapter, and for one sender if there is one. `to` is the machine's
/// address that the sender uses.
BeforeFirewall beforeFirewall(const KernelReport& report, const FW::PortCompareST& question,
                              const std::string& adapter, const std::optional<Address>& from = {},
                              const std::optional<Address>& to = {});

/// Adds what is not there yet, and inner answers to what is.
void addTo(BeforeFirewall& all, const BeforeFirewall& more);

/// Whether packets meet the firewall with another port than the asked one.
bool hasOtherPorts(const BeforeFirewall& before);

/// "but accepted before it by: -A INPUT -j ACCEPT (IPv4)", or "but may be accepted ..."; empty
/// without such rules.
std::string acceptsText(const BeforeFirewall& before);

/// "but dropped by: -A INPUT -p tcp -j DROP (IPv4)", or "but may be dropped by ..."; empty without
/// such rules.
std::string dropsText(const BeforeFirewall& before);

/// "tcp 8080 is handed to 172.17.0.2:80 (IPv4: -A DOCKER ...); the rules of FORWARD_FIREWALL see
/// port 80: eth0 blocked", one line each.
std::vector<std::string> redirectsText(const BeforeFirewall& before);

Json::Value acceptsJson(const BeforeFirewall& before);
Json::Value dropsJson(const BeforeFirewall& before);
Json::Value redirectsJson(const BeforeFirewall& before);

}  // namespace tarnfw
