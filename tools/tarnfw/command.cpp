#include "command.h"

#include <unistd.h>

#include <iostream>

namespace tarnfw {

void endWith(ExitStatus status) {
    throw CLI::RuntimeError(status);
}

void addJsonFlag(CLI::App& command, bool& json) {
    command.add_flag("--json", json, "Print one JSON document instead of text");
}

void requireRoot() {
    if (geteuid() != 0) {
        throw CommandFailed("this needs root's rights", kExitNotRoot);
    }
}

bool confirmed(const std::string& question) {
    if (isatty(STDIN_FILENO) != 1) {
        return false;
    }
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

}  // namespace tarnfw
