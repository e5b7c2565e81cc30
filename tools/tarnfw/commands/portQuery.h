/// What "blocked" and "explain" have in common: the question, and what the kernel does of the
/// answer.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "commands/kernelReport.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {

struct PortQuery {
    std::string service;  ///< or `port`
    std::string port;     ///< "tcp/22"
    std::string adapter;  ///< empty: all
    std::string from;     ///< of "explain": a sender's address
    std::string to;       ///< the machine's address that the sender uses; may be empty
    bool json = false;
};

/// What the help of both says of exit statuses and verdicts.
extern const char* const kPortQueryFooter;

/// The title of the options of which one says what is asked about.
inline constexpr char kQuerySubject[] = "What to ask about";

/// Adds the options but `from` and `to`.
void addQueryOptions(Command& command, PortQuery& query);

/// One question for each queried port, and for a service's further protocols. Throws Error for an
/// unknown service.
std::vector<PacketQuestion> questionsOf(const PortQuery& query, Machine& machine);

/// The queried adapters: the given one, or those of the profile and of the machine without
/// "global" and "lo". Throws Error for an unknown one.
std::vector<std::string> adaptersAsked(const PortQuery& query, const FW::FWPROFILE& profile);

/// What the kernel does of the answer.
class KernelAnswer {
public:
    KernelAnswer(const StoreSnapshot& store, const PortQuery& query,
                 const std::vector<PacketQuestion>& questions);

    /// What the firewall's rules do to the packets on an adapter: both, when it depends on the
    /// packet.
    struct Verdict {
        bool blocks = false;
        bool allows = false;
    };

    /// What rules of others do to them. What accepts matters where the firewall's block, and what
    /// drops where these allow. Once for each adapter.
    BeforeFirewall ask(const Meaning& meaning, const std::string& adapter, Verdict verdict);

    /// Whether the kernel does what the answer says, as far as can be seen.
    bool holds() const { return complaints_.empty() && !accepted_ && !hasOtherPorts(all_); }

    /// Before the answer.
    void printFirst() const;

    /// After it.
    void printLast() const;

    /// Also makes "allowed" false where rules of others may drop the packets.
    void addTo(Json::Value& document) const;

    /// Ends the command with the exit status of the answer.
    void end(bool allowed) const;

private:
    KernelReport report_;
    std::vector<std::string> complaints_;
    std::vector<FW::PortCompareST> ports_;  // of the questions that are about ports
    std::optional<Address> from_;
    std::optional<Address> to_;
    BeforeFirewall all_;
    bool onlyGlobal_ = false;
    bool accepted_ = false;
    bool dropped_ = false;
};

/// Says of packets through an adapter that rules of others redirect what the firewall's rules do to
/// them then: those of one sender, or of all.
void addInnerAnswers(const Meaning& meaning, const std::string& adapter,
                     const std::optional<Address>& from, BeforeFirewall& before);

/// The answer for IPv6 through an interface that is the 6in4 tunnel of other adapters, whose rules
/// are repeated for it.
struct TunnelAnswer {
    std::vector<std::string> owners;  ///< none: it is no such interface
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;

    std::string text() const;  ///< empty without owners
    void addTo(Json::Value& entry) const;
};

TunnelAnswer tunnelAnswer(const Meaning& meaning, const std::vector<PacketQuestion>& questions,
                          const std::string& adapter);

/// Whether the machine has an adapter now, and whether the profile has anything for it, if only as
/// "vpn" or "pppoe". Both hold for "global".
struct AdapterNow {
    bool present = false;
    bool inProfile = false;

    std::string text() const;  ///< "absent", "not in the profile" or empty
    void addTo(Json::Value& entry) const;
};

AdapterNow adapterNow(const std::string& adapter, const FW::FWPROFILE& profile);

/// The common members of the JSON documents; "adapters" and "notCounted" are empty arrays.
Json::Value documentOf(const std::string& profile, const PortQuery& query,
                       const std::vector<PacketQuestion>& questions, bool enabled, bool allowed);

/// "Profile "home", service ssh (tcp 22)", with more about the packets at its end.
void printHeading(const std::string& profile, const PortQuery& query,
                  const std::vector<PacketQuestion>& questions, const std::string& more = "");

/// If the firewall is disabled, prints the answer for that. Returns whether it did.
bool answeredDisabled(const StoreSnapshot& store, const PortQuery& query,
                      const std::vector<PacketQuestion>& questions);

/// What the verdict on an adapter says.
KernelAnswer::Verdict verdictOf(FW::FW_POLICY verdict);

/// Warns about rules that the answer does not count, see notCounted(), and adds them to its
/// document.
void addNotCounted(const Meaning& meaning, Json::Value& document);

/// Two remarks as one; either may be empty.
std::string joined(const std::string& one, const std::string& other);

}  // namespace tarnfw
