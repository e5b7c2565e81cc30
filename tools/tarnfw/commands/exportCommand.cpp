/// tarnfw export: the whole configuration as one document.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarncore.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/commands.h"
#include "tarnfwadmin/configuration.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/wholeFile.h"

namespace tarnfw {
namespace {

constexpr mode_t kFileMode = 0644;  // as that of the profiles

struct Options {
    std::string path;
    bool force = false;
    bool partial = false;
};

/// Refuses a store of which an export would not hold everything: it is somebody's backup.
void requireWhole() {
    const StoredDocuments stored = storedDocuments();
    if (!stored.unreadable.empty()) {
        throw Error(ErrorKind::kSystem,
                    unreadableText(stored.unreadable) + "; --partial exports the rest");
    }
    const std::vector<std::string> names = requireProfiles(stored);
    const std::string active = activeProfile();
    if (std::find(names.begin(), names.end(), active) == names.end()) {
        throw Error(ErrorKind::kSystem,
                    "the active profile \"" + printable(active) +
                        "\" is not there, and no import takes an export without it; --partial "
                        "exports the rest");
    }
}

void exportAll(const Options& options) {
    requireRoot();
    const bool toFile = !options.path.empty() && options.path != kStandardInput;
    if (toFile && !options.force && TLIBCFileExist(options.path.c_str()) == 1) {
        throw Error(ErrorKind::kSystem,
                    printable(options.path) + " is there already; --force replaces it");
    }
    const StoreLock lock;
    if (!options.partial) {
        requireWhole();
    }
    const Json::Value document = currentConfiguration();
    (void)requireProfiles(storedDocuments());
    const std::string text = documentText(document);
    if (!toFile) {
        std::cout << text;
        return;
    }
    writeWholeFile(options.path, text, kFileMode,
                   options.force ? Existing::kReplaced : Existing::kKept);
    std::cout << counted(document[kConfigProfiles].size(), "profile") << " and the settings are in "
              << printable(options.path) << '\n';
}

}  // namespace

void addExportCommand(Command& app) {
    Command& command =
        app.subcommand("export", "Write all profiles and the settings into one JSON document");
    const auto options = std::make_shared<Options>();
    command.option("FILE", options->path, "Where to write it; to standard output when left out");
    command.flag("--force", options->force, "Replace a file that is there already");
    command.flag("--partial", options->partial,
                 "Export what can be read, though it is not all, or lacks the active profile");
    command.run([options] { exportAll(*options); });
}

}  // namespace tarnfw
