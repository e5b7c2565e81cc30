#include "commands/bootUnit.h"

#include <exception>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>
#include <vector>

#include "tarnfwadmin/documentFile.h"

namespace tarnfw {
namespace {

constexpr char kOwnUnit[] = "tarnfw.service";

// Exists while systemd is the system's manager.
constexpr char kSystemdRuns[] = "/run/systemd/system";

// Where units are, those that win first. Not those of /run, which a restart removes.
constexpr const char* kUnitDirectories[] = {
    "/etc/systemd/system",
    "/usr/local/lib/systemd/system",
    "/usr/lib/systemd/system",
    "/lib/systemd/system",
};

// The targets that a start of the machine reaches, whatever it is for, but for rescue and
// emergency.
constexpr const char* kBootTargets[] = {
    "default",     "graphical", "multi-user",     "basic",    "sysinit",   "sockets", "timers",
    "network-pre", "network",   "network-online", "local-fs", "remote-fs", "paths",
};

// No unit is that long.
constexpr off_t kMostBytes = 1 << 20;

bool isThere(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::symlink_status(path, error).type() !=
           std::filesystem::file_type::not_found;
}

/// Empty for what is masked, by a link to /dev/null, and for a link to nowhere.
std::string textOf(const std::filesystem::path& path) {
    try {
        return readDocument(path, kMostBytes) + "\n";
    } catch (const std::exception&) {
        return "";
    }
}

/// The text of the unit `name` and then of its drop-ins, in the order in which systemd reads them.
std::string unitText(const std::string& root, const std::string& name) {
    std::string text;
    std::map<std::string, std::filesystem::path> dropIns;
    bool isFound = false;
    for (const char* const directory : kUnitDirectories) {
        const std::filesystem::path path = std::filesystem::path(root + directory) / name;
        if (!isFound && isThere(path)) {
            isFound = true;
            text = textOf(path);
        }
        std::error_code error;
        for (std::filesystem::directory_iterator at(path.string() + ".d", error), end;
             !error && at != end; at.increment(error)) {
            if (at->path().extension() == ".conf") {
                dropIns.emplace(at->path().filename(), at->path());
            }
        }
    }
    if (text.empty()) {
        return "";
    }
    for (const auto& [file, path] : dropIns) {
        text += textOf(path);
    }
    return text;
}

bool runsBoot(const std::string& unit) {
    bool runs = false;
    std::istringstream lines(unit);
    for (std::string line; std::getline(lines, line);) {
        if (line == "ExecStart=") {
            runs = false;  // forgets those before
        } else if (line.rfind("ExecStart", 0) == 0 &&
                   line.find("tarnfw boot") != std::string::npos) {
            runs = true;
        }
    }
    return runs;
}

/// The services that a target of a start wants or requires: "sysinit.target.wants/x.service".
std::vector<std::string> wantedServices(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const char* const target : kBootTargets) {
        for (const char* const kind : {".target.wants", ".target.requires"}) {
            std::error_code error;
            for (std::filesystem::directory_iterator
                     link(directory / (std::string(target) + kind), error),
                 end;
                 !error && link != end; link.increment(error)) {
                if (link->path().extension() == ".service") {
                    names.push_back(link->path().filename());
                }
            }
        }
    }
    return names;
}

}  // namespace

BootUnit bootUnit(const std::string& root) {
    BootUnit unit;
    std::error_code error;
    if (!std::filesystem::is_directory(root + kSystemdRuns, error)) {
        return unit;
    }
    unit.enabled = false;
    for (const char* const directory : kUnitDirectories) {
        for (const std::string& name : wantedServices(root + directory)) {
            if (runsBoot(unitText(root, name))) {
                return {true, name};
            }
        }
    }
    if (runsBoot(unitText(root, kOwnUnit))) {
        unit.name = kOwnUnit;
    }
    return unit;
}

std::string notAfterRestart(const BootUnit& unit) {
    if (unit.enabled.value_or(true)) {
        return "";
    }
    return unit.name.empty()
               ? "no enabled unit of systemd runs \"tarnfw boot\""
               : unit.name + " is not enabled; \"systemctl enable tarnfw\" enables it";
}

}  // namespace tarnfw
