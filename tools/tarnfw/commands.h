/// The tool's command groups. Each adds its subcommands to the application; the callbacks throw
/// CommandFailed, which main() turns into a line on standard error and an exit status.
#pragma once

#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace tarnfw {

/// The settings: the one document of the profile directory that is no profile.
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

/// Exit statuses of the tool, besides 0.
enum ExitStatus : int {
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNotRoot = 4,
};

/// Ends a command. The text says what failed and why, for the person at the terminal.
class CommandFailed : public std::runtime_error {
public:
    explicit CommandFailed(const std::string& text, ExitStatus status = kExitFailed)
        : std::runtime_error(text), status_(status) {}
    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};

void addBaseCommands(CLI::App& app);     ///< base up, down, status
void addControlCommands(CLI::App& app);  ///< status, enable, disable, reload
void addPreviewCommand(CLI::App& app);   ///< preview
void addProfileCommands(CLI::App& app);  ///< profile list, show

/// Refuses to go on without root's rights. For reading commands, too: reading a profile takes its
/// lock, and lock files must be root's.
void requireRoot();

/// A name from a file as a terminal may see it: control characters become '?'.
std::string printable(std::string text);

/// The active profile's name, without making a settings file where there is none.
std::string activeProfile();

/// Whether the settings say that the firewall is enabled, likewise.
bool firewallEnabled();

}  // namespace tarnfw
