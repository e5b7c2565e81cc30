/// tarnfw export: the whole configuration as one document.
#include <iostream>
#include <memory>
#include <string>

#include <json/json.h>

#include "tarncore.h"

#include "command.h"
#include "commands.h"
#include "configuration.h"
#include "documentFile.h"
#include "output.h"
#include "store.h"
#include "wholeFile.h"

namespace tarnfw {
namespace {

constexpr mode_t kFileMode = 0644;  // as that of the profiles

struct Options {
    std::string path;
    bool force = false;
};

void exportAll(const Options& options) {
    requireRoot();
    const bool toFile = !options.path.empty() && options.path != kStandardInput;
    if (toFile && !options.force && TLIBCFileExist(options.path.c_str()) == 1) {
        throw CommandFailed(printable(options.path) + " is there already; --force replaces it");
    }
    const StoreLock lock;
    const Json::Value document = currentConfiguration();
    if (document[kConfigProfiles].empty()) {
        throw CommandFailed("there are no profiles; \"tarnfw base up\" writes a first one");
    }
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

void addExportCommand(CLI::App& app) {
    CLI::App* const command =
        app.add_subcommand("export", "Write all profiles and the settings into one JSON document");
    const auto options = std::make_shared<Options>();
    command->add_option("FILE", options->path,
                        "Where to write it; to standard output when left out");
    command->add_flag("--force", options->force, "Replace a file that is there already");
    command->callback([options] { exportAll(*options); });
}

}  // namespace tarnfw
