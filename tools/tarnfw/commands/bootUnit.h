/// Whether systemd runs "tarnfw boot" when the machine starts, so that the firewall is in force
/// after a restart.
#pragma once

#include <optional>
#include <string>

namespace tarnfw {

struct BootUnit {
    std::optional<bool> enabled;  ///< nothing where systemd does not run the machine
    std::string name;  ///< the enabled unit, or what there would be to enable; may be empty
};

/// Looks for a unit that runs "tarnfw boot", with its drop-ins, and that a target wants which every
/// start of the machine reaches: multi-user, sysinit, ... Reads the units' files below `root`, so
/// systemd need not answer. Throws nothing: what cannot be read is not enabled.
BootUnit bootUnit(const std::string& root = "");

/// "tarnfw.service is not enabled; ..." and what to do; empty unless it is known that the
/// firewall will not be in force after a restart.
std::string notAfterRestart(const BootUnit& unit);

}  // namespace tarnfw
