#include "cli/command.h"

#include <unistd.h>

#include <iostream>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/interfaces.h"

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

std::string remedyText(Remedy remedy) {
    switch (remedy) {
        case Remedy::kListServices:
            return "\"tarnfw services\" lists them";
        case Remedy::kCheckFiles:
            return "\"tarnfw check FILE\" shows why";
        case Remedy::kSetUpBase:
            return "\"tarnfw base up\" writes a first one";
        case Remedy::kAddBase:
            return "\"tarnfw base up\" sets it up";
        case Remedy::kGiveAdapterApart:
            return "did you mean \"--adapter\"?";
        case Remedy::kAgree:
            return "--yes goes on anyway";
        case Remedy::kForceUndo:
            return "--force undoes that, too";
        case Remedy::kNone:
            break;
    }
    return "";
}

std::string wordsFor(Remedy remedy) {
    const std::string text = remedyText(remedy);
    if (text.empty()) {
        return "";
    }
    const bool aside = remedy == Remedy::kListServices || remedy == Remedy::kCheckFiles ||
                       remedy == Remedy::kAgree || remedy == Remedy::kForceUndo;
    return aside ? " (" + text + ")" : "; " + text;
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

bool FamilyOptions::onlyV4() const {
    return v4 || (!family.empty() && family.back() == '4');
}

bool FamilyOptions::onlyV6() const {
    return v6 || (!family.empty() && family.back() == '6');
}

void addFamilyOptions(Command& command, FamilyOptions& options) {
    Option& family = command.option("--family", options.family, "Only IPv4 or only IPv6")
                         .choices({"v4", "v6"}, {"4", "6", "ipv4", "ipv6", "IPv4", "IPv6"});
    Option& v4 = command.flag("--v4", options.v4, "The same as --family v4").excludes(family);
    command.flag("--v6", options.v6, "The same as --family v6").excludes(family).excludes(v4);
}

bool isRoot() {
    return geteuid() == 0;
}

void requireRoot() {
    if (!isRoot()) {
        throw Error(ErrorKind::kNoRights, "this needs root's rights");
    }
}

void requireKernelRights() {
    if (!isRoot()) {
        throw Error(ErrorKind::kNoRights, kKernelIsRoots);
    }
}

bool canAsk() {
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool namesAFile(const std::string& argument) {
    return argument == kStandardInput || argument.find('/') != std::string::npos ||
           boost::ends_with(argument, ".json") || access(argument.c_str(), F_OK) == 0;
}

std::string adapterNameError(const std::string& argument) {
    try {
        requireAdapterName(argument, /*others=*/{argument});
    } catch (const Error& error) {
        return error.what();
    }
    return "";
}

bool confirmed(const std::string& question) {
    if (!canAsk()) {
        return false;
    }
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

}  // namespace tarnfw
