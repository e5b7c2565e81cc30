#include "cli/command.h"

#include <unistd.h>

#include <iostream>

namespace tarnfw {

ExitStatus exitStatusOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kInvalid:
            return kExitInvalid;
        case ErrorKind::kNoRights:
            return kExitNotRoot;
        case ErrorKind::kNotFound:
            return kExitUnknown;
        case ErrorKind::kSystem:
        case ErrorKind::kUnusable:
        case ErrorKind::kRefused:
        case ErrorKind::kBusy:
        case ErrorKind::kDeclined:
            break;
    }
    return kExitFailed;
}

std::string wordsFor(Remedy remedy) {
    switch (remedy) {
        case Remedy::kListServices:
            return " (\"tarnfw services\" lists them)";
        case Remedy::kCheckFiles:
            return " (\"tarnfw check FILE\" shows why)";
        case Remedy::kSetUpBase:
            return "; \"tarnfw base up\" writes a first one";
        case Remedy::kAddBase:
            return "; \"tarnfw base up\" sets it up";
        case Remedy::kGiveAdapterApart:
            return "; did you mean \"--adapter\"?";
        case Remedy::kNone:
            break;
    }
    return "";
}

std::string messageOf(const Error& error) {
    return error.what() + wordsFor(error.remedy());
}

void endWith(ExitStatus status) {
    throw CommandEnded(status);
}

void addJsonFlag(Command& command, bool& json) {
    command.flag("--json", json, "Print one JSON document instead of text");
}

void requireRoot() {
    if (geteuid() != 0) {
        throw Error(ErrorKind::kNoRights, "this needs root's rights");
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
