/// The tool's command groups. Each adds its subcommands to the application; the callbacks throw
/// Error, which main() turns into a line on standard error and an exit status.
#pragma once

#include "cli/commandLine.h"

namespace tarnfw {

/// All of them, in the order of the help text; then "help", and "complete", which is hidden.
void addCommands(Command& app);

void addStatusCommand(Command& app);      ///< status
void addControlCommands(Command& app);    ///< enable, disable, reload, apply-mode
void addTryCommand(Command& app);         ///< try
void addProfileCommands(Command& app);    ///< profile list, show, create, ..., edit
void addRuleCommands(Command& app);       ///< rule add, insert, ..., off; policy
void addLogDeniedCommand(Command& app);   ///< log-denied
void addInventoryCommands(Command& app);  ///< adapters, services
void addServiceCommands(Command& app);    ///< service reserve, release, update; adapter rename
void addBlockedCommand(Command& app);     ///< blocked
void addOpenCommand(Command& app);        ///< open
void addExplainCommand(Command& app);     ///< explain
void addPreviewCommand(Command& app);     ///< preview
void addCheckCommand(Command& app);       ///< check
void addDiffCommand(Command& app);        ///< diff
void addReportCommand(Command& app);      ///< report
void addHistoryCommands(Command& app);    ///< history, undo
void addExportCommand(Command& app);      ///< export
void addImportCommand(Command& app);      ///< import
void addGeoipCommands(Command& app);      ///< geoip list, show, check
void addModulesCommands(Command& app);    ///< modules load, unload, status
void addBaseCommands(Command& app);       ///< base up, down, status

}  // namespace tarnfw
