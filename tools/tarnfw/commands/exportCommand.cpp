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
#include "commands/context.h"
#include "tarnfwadmin/documentFile.h"

namespace tarnfw {
namespace {

constexpr mode_t kFileMode = 0644;  // as that of the profiles

struct Options {
    std::string path;
    bool force = false;
    bool partial = false;
};

/// Refuses a store of which an export would not hold everything: it is somebody's backup.
void requireWhole(const StoreSnapshot& store) {
    if (!store.unreadable().empty()) {
        throw Error(ErrorKind::kSystem, store.unreadableText() + "; --partial exports the rest");
    }
    const std::vector<std::string> names = store.requireProfiles();
    const std::string active = store.activeProfile();
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
    // Under the lock, so that the export is of no change that is half made.
    const Context context(StoreSession::Access::kChange);
    if (!options.partial) {
        requireWhole(context.store());
    }
    const Json::Value document = context.store().configuration();
    (void)context.store().requireProfiles();
    const std::string text = documentText(document);
    if (!toFile) {
        std::cout << text;
        return;
    }
    writeFileAtomically(options.path, text, kFileMode,
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
