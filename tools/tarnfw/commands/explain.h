/// What the sources of "explain" share: the question, and the frame of the answer.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "commands/applying.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {

struct ExplainQuery {
    PortQuery ports;
    std::string protocol;  ///< instead of ports: "icmp/8"
    std::string profile;   ///< empty: the active one
    std::string out;       ///< of forwarded packets: the adapter that they leave through
};

/// A protocol without ports: "icmp", "icmp/8", "igmp" or a number. Nothing for any other text.
std::optional<PacketQuestion> protocolQuestion(const std::string& text);

/// Explains who decides about packets from anywhere, also about those that are forwarded; ends the
/// command with its exit status.
void explainDeciders(const ExplainQuery& query);

/// Explains the one rule that decides about packets of one sender, as far as they are known; ends
/// the command with its exit status.
void explainPackets(const ExplainQuery& query);

/// What is asked, and what it is answered by.
class Asked {
public:
    explicit Asked(const ExplainQuery& query);

    const StoreSnapshot& store() const { return context.store(); }
    bool isInForce() const { return isActive && store().firewallEnabled(); }

    /// The profile was not named, and the firewall is disabled.
    bool isUnfiltered(const ExplainQuery& query) const {
        return query.profile.empty() && !store().firewallEnabled();
    }

    std::vector<PacketQuestion> questions;
    Context context;
    std::string profile;
    bool isActive;

private:
    Asked(const ExplainQuery& query, std::unique_ptr<Machine> machine);
};

/// Adds what was asked, besides ports and services: "protocol", "from", "to" and "out".
void addAsked(const ExplainQuery& query, Json::Value& document);

/// "forwarded out through eth1"; empty without --out.
std::string wayText(const ExplainQuery& query);

/// Prints a document, or by `print`, and ends the command with its exit status. What the kernel
/// does is in it when the profile is in force.
void printExplanation(const ExplainQuery& query, const Asked& asked,
                      const std::optional<KernelAnswer>& kernel, Json::Value document, bool allowed,
                      const std::function<void()>& print);

/// "by": who decides. Of a rule or default policy "adapter" and, where rules are repeated for a
/// 6in4 tunnel, "tunnel"; of a rule "position" and "text".
Json::Value deciderDocument(const Meaning& meaning, std::size_t number);
Json::Value deciderDocument(const Meaning& meaning, const UncountedRule& rule);

}  // namespace tarnfw
