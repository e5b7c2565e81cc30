/// What "blocked" and "explain" are asked, and what both begin with.
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

/// The ports asked about, one question each. Throws Error for an unknown service.
std::vector<FW::PortCompareST> questionsOf(const BlockedOptions& options);

/// The adapters asked about: the one named, or those of the profile and of the machine without
/// "global". Throws Error for an unknown one.
std::vector<std::string> adaptersAsked(const BlockedOptions& options, const FW::FWPROFILE& profile);

/// What every JSON document begins with; "adapters" is an empty array.
Json::Value documentOf(const StoreSnapshot& store, const BlockedOptions& options,
                       const std::vector<FW::PortCompareST>& questions, bool enabled, bool allowed);

/// "Profile "home", service ssh (tcp/22)".
void printHeading(const StoreSnapshot& store, const BlockedOptions& options,
                  const std::vector<FW::PortCompareST>& questions);

/// Answers for a firewall that is off. Returns whether it is.
bool answeredDisabled(const StoreSnapshot& store, const BlockedOptions& options,
                      const std::vector<FW::PortCompareST>& questions);

}  // namespace tarnfw
