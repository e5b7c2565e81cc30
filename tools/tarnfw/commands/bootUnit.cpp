#include "commands/bootUnit.h"

#include <exception>
#include <filesystem>
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

// No unit is that long.
constexpr off_t kMostBytes = 1 << 20;

/// The text of the unit `name`; empty for a masked one, which is a link to /dev/null.
std::string unitText(const std::string& root, const std::string& name) {
    for (const char* const directory : kUnitDirectories) {
        const std::filesystem::path path = std::filesystem::path(root + directory) / name;
        std::error_code error;
        if (std::filesystem::symlink_status(path, error).type() ==
            std::filesystem::file_type::not_found) {
            continue;
        }
        try {
            return readDocument(path, kMostBytes);
        } catch (const std::exception&) {
            return "";  // masked, or a link to nowhere
        }
    }
    return "";
}

bool runsBoot(const std::string& unit) {
    std::istringstream lines(unit);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("ExecStart", 0) == 0 && line.find("tarnfw boot") != std::string::npos) {
            return true;
        }
    }
    return false;
}

/// The services that a unit of `directory` wants or requires: "sysinit.target.wants/x.service".
std::vector<std::string> wantedServices(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
         at.increment(error)) {
        const std::string kind = at->path().extension();
        if (kind != ".wants" && kind != ".requires") {
            continue;
        }
        std::error_code unreadable;
        for (std::filesystem::directory_iterator link(at->path(), unreadable);
             !unreadable && link != end; link.increment(unreadable)) {
            if (link->path().extension() == ".service") {
                names.push_back(link->path().filename());
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
