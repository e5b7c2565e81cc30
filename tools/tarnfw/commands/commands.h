/// The tool's command groups. Each adds its subcommands to the application; the callbacks throw
/// Error, which main() turns into a line on standard error and an exit status.
#pragma once

#include "cli/cliFwd.h"

namespace tarnfw {

/// All of them, in the order of the help text.
void addCommands(CLI::App& app);

void addStatusCommand(CLI::App& app);      ///< status
void addControlCommands(CLI::App& app);    ///< enable, disable, reload, apply-mode
void addTryCommand(CLI::App& app);         ///< try
void addProfileCommands(CLI::App& app);    ///< profile list, show, create, ..., edit
void addRuleCommands(CLI::App& app);       ///< rule add, insert, ..., off; policy
void addInventoryCommands(CLI::App& app);  ///< adapters, services
void addServiceCommands(CLI::App& app);    ///< service reserve, release, update; adapter rename
void addBlockedCommands(CLI::App& app);    ///< blocked, explain
void addPreviewCommand(CLI::App& app);     ///< preview
void addCheckCommand(CLI::App& app);       ///< check
void addDiffCommand(CLI::App& app);        ///< diff
void addExportCommand(CLI::App& app);      ///< export
void addImportCommand(CLI::App& app);      ///< import
void addGeoipCommands(CLI::App& app);      ///< geoip list, show, check
void addModulesCommands(CLI::App& app);    ///< modules load, unload, status
void addBaseCommands(CLI::App& app);       ///< base up, down, status
void addHelpCommand(CLI::App& app);        ///< help
void addCompleteCommand(CLI::App& app);    ///< complete, which is hidden

}  // namespace tarnfw
