#include "commands/commands.h"

namespace tarnfw {

void addCommands(Command& app) {
    addStatusCommand(app);
    addControlCommands(app);
    addTryCommand(app);
    addProfileCommands(app);
    addRuleCommands(app);
    addInventoryCommands(app);
    addServiceCommands(app);
    addBlockedCommands(app);
    addPreviewCommand(app);
    addCheckCommand(app);
    addDiffCommand(app);
    addExportCommand(app);
    addImportCommand(app);
    addGeoipCommands(app);
    addModulesCommands(app);
    addBaseCommands(app);
    addHelpCommand(app);
    addCompleteCommand(app);
}

}  // namespace tarnfw
