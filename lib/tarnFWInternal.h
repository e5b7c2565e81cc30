/// Shared by the sources of firewall control, which log under one name.
#pragma once

#include <string>

#include "tarnfirewall/tarnFW.h"

#include "fwLog.h"

namespace FW {

inline constexpr char kFirewallSource[] = "tarnFW";

/// The name under which the test profile of a profile is stored.
inline std::string testProfileName(const std::string& name) {
    return ".test_" + name;
}

/// Reads a profile for translation or evaluation.
bool profileGetLogged(const std::string& name, FWPROFILE& profile);

}  // namespace FW
