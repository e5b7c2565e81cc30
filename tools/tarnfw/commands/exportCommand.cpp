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
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/documentFile.h"

namespace tarnfw {
namespace {

constexpr mode_t kFileMode = 0600;  // as that of the profiles

struct Options {
    std::string path;
    bool force = false;
    bool partial = false;
    Report report;
};

/// Throws Error if an export would not be complete: it may be somebody's only backup.
void requireWhole(const StoreSnapshot& store) {
    if (!store.unreadable().empty()) {
        throw Error(ErrorKind::kSystem, store.unreadableText() + wordsFor(Remedy::kCheckFiles) +
                                            "; --partial exports the rest");
    }
    const std::vector<std::string> names = store.requireProfiles();
    const std::string active = store.activeProfile();
    if (std::find(names.begin(), names.end(), active) == names.end()) {
        throw Error(ErrorKind::kSystem, "the active profile \"" + printable(active) +
                                            "\" does not exist, and an export without it cannot be "
                                            "imported; --partial exports the rest");
    }
}

void exportAll(Options& options) {
    const bool toFile = !options.path.empty() && options.path != kStandardInput;
    if (!toFile && options.report.isJson()) {
        throw UsageError("--json needs a FILE: what goes to standard output is a document already");
    }
    if (toFile && !options.force && TLIBCFileExist(options.path.c_str()) == 1) {
        throw Error(ErrorKind::kUnusable,
                    printable(options.path) + " already exists; --force replaces it");
    }
    // Root's under the lock, so that it is of no change that is half made; others get a note of
    // one.
    const Context context(isRoot() ? StoreSession::Access::kChange : StoreSession::Access::kRead);
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
                        options.force ? Existing::kReplacedAlike : Existing::kKept);
    options.report.setProfile(context.store().activeProfile());
    options.report["file"] = options.path;
    options.report["profiles"] = textsJson(context.store().profileNames());
    std::cout << counted(document[kConfigProfiles].size(), "profile")
              << " and the settings written to " << printable(options.path) << '\n';
}

}  // namespace

void addExportCommand(Command& app) {
    Command& command =
        app.subcommand("export", "Write all profiles and the settings into one JSON document");
    const auto options = std::make_shared<Options>();
    command.option("FILE", options->path, "The file to write; by default standard output");
    command.flag("--force", options->force, "Replace an existing file");
    command.flag("--partial", options->partial,
                 "Export what can be read, even if profiles or the active one are missing");
    runReporting(command, options->report, [options] { exportAll(*options); });
}

}  // namespace tarnfw
