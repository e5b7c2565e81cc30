#include "commands.h"

namespace tarnfw {

void addCommands(CLI::App& app) {
    addStatusCommand(app);
    addControlCommands(app);
    addPreviewCommand(app);
    addCheckCommand(app);
    addDiffCommand(app);
    addProfileCommands(app);
    addTryCommand(app);
    addBlockedCommands(app);
    addInventoryCommands(app);
    addServiceCommands(app);
    addRuleCommands(app);
    addGeoipCommands(app);
    addBaseCommands(app);
}

}  // namespace tarnfw
