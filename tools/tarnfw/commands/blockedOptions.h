/// The options of "blocked" and "explain", and the steps that both share.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {

struct BlockedOptions {
    std::string service;  ///< or `port`
    std::string port;     ///< "tcp/22"
    std::string adapter;  ///< empty: all
    std::string from;     ///< of "explain": a sender's address
    std::string to;       ///< the machine's address that the sender uses; may be empty
    bool json = false;
};

/// Adds the options but `from` and `to`.
void addBlockedOptions(Command& command, BlockedOptions& options);

/// The queried ports, one question each. Throws Error for an unknown service.
std::vector<FW::PortCompareST> questionsOf(const BlockedOptions& options);

/// The queried adapters: the given one, or those of the profile and of the machine without
/// "global". Throws Error for an unknown one.
std::vector<std::string> adaptersAsked(const BlockedOptions& options, const FW::FWPROFILE& profile);

/// The common members of the JSON documents; "adapters" is an empty array.
Json::Value documentOf(const StoreSnapshot& store, const BlockedOptions& options,
                       const std::vector<FW::PortCompareST>& questions, bool enabled, bool allowed);

/// "Profile "home", service ssh (tcp/22)".
void printHeading(const StoreSnapshot& store, const BlockedOptions& options,
                  const std::vector<FW::PortCompareST>& questions);

/// If the firewall is disabled, prints the answer for that. Returns whether it did.
bool answeredDisabled(const StoreSnapshot& store, const BlockedOptions& options,
                      const std::vector<FW::PortCompareST>& questions);

}  // namespace tarnfw
