#include "commands.h"

namespace tarnfw {

void addCommands(CLI::App& app) {
    addControlCommands(app);
    addPreviewCommand(app);
    addProfileCommands(app);
    addBaseCommands(app);
}

}  // namespace tarnfw
