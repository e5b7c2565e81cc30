#include "command.h"

#include <unistd.h>

#include <iostream>

#include <CLI/CLI.hpp>
#include <boost/interprocess/exceptions.hpp>

namespace tarnfw {

std::string reasonOf(const std::exception& error) {
    const bool isLock =
        dynamic_cast<const boost::interprocess::interprocess_exception*>(&error) != nullptr;
    return std::string(isLock ? "a lock file below /var/lock/firewall cannot be opened: " : "") +
           error.what();
}

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
