/// tarnfw preview: the command lines of a profile, as a reload would run them, or as texts for
/// iptables-restore.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

constexpr char kLines[] = "lines";
constexpr char kRestore[] = "restore";
constexpr char kJson[] = "json";

struct Options {
    std::string profile;
    std::string format = kLines;
    FamilyOptions family;
    bool json = false;
};

Json::Value commandsOf(const std::string& wanted, ApplyMode mode) {
    const Context context(StoreSession::Access::kRead);
    const std::string profile = wanted.empty() ? context.store().activeProfile() : wanted;
    // A test profile is in no list, and exists all the same while a trial runs.
    if (!boost::starts_with(profile, kTestPrefix)) {
        context.store().requireProfile(profile);
    }
    Json::Value commands;
    if (!commandsFor(context.store().profile(profile), mode, commands)) {
        (void)tracedLines(context.store().profile(profile), mode);  // throws, with the rule
        throw Error(ErrorKind::kInvalid, "profile " + inQuotes(profile) + " cannot be translated");
    }
    return commands;
}

void printLines(const std::string& tool, const Json::Value& lines) {
    for (const Json::Value& line : lines) {
        std::cout << printable(tool + ' ' + line.asString()) << '\n';
    }
}

/// Prints one family in the order in which the lines run: "global" first.
void printFamily(const std::string& tool, const Json::Value& family) {
    printLines(tool, family[FW::FW_ADAPTER_GLOBAL]);
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != FW::FW_ADAPTER_GLOBAL) {
            printLines(tool, family[adapter]);
        }
    }
}

/// The text for the restore tools; nothing if one family cannot be written. The lines
/// are printed unchanged, so that they can be used.
std::string restoreTexts(const Json::Value& commands, const std::vector<std::string>& families) {
    std::string texts;
    for (const std::string& family : families) {
        const std::string text = FW::FW_BATCH().restoreText(commands, family);
        if (text.empty()) {
            throw Error(ErrorKind::kSystem,
                        "the " + titleOf(family) + " rules cannot be written for iptables-restore");
        }
        // Without the option the tool would empty the tables, including the base filter.
        texts.append("# ").append(titleOf(family)).append(", for ").append(programOf(family));
        texts.append("-restore --noflush\n").append(text);
    }
    return texts;
}

void preview(const Options& options) {
    const bool asLines = options.json || options.format != kRestore;
    const Json::Value commands =
        commandsOf(options.profile, asLines ? ApplyMode::kLines : ApplyMode::kBatch);
    std::vector<std::string> families;
    if (!options.family.onlyV6()) {
        families.emplace_back("v4");
    }
    if (!options.family.onlyV4()) {
        families.emplace_back("v6");
    }
    if (options.json || options.format == kJson) {
        Json::Value document(Json::objectValue);
        for (const std::string& family : families) {
            document[family] = commands[family];
        }
        printJson(document);
        return;
    }
    if (options.format == kRestore) {
        std::cout << restoreTexts(commands, families);
        return;
    }
    for (const std::string& family : families) {
        std::cout << "# " << titleOf(family) << '\n';
        printFamily(programOf(family), commands[family]);
    }
}

}  // namespace

void addPreviewCommand(Command& app) {
    Command& command = app.subcommand(
        "preview",
        "Print the command lines of a profile, in the order in which they run; change nothing");
    const auto options = std::make_shared<Options>();
    command.option("PROFILE", options->profile, "The profile; by default the active one");
    Option& format =
        command
            .option("--format", options->format,
                    "lines: the command lines (the default); restore: a text for "
                    "iptables-restore and one for ip6tables-restore, which replaces the "
                    "firewall's chains and adds to others; json: the lines by family and "
                    "adapter")
            .choices({kLines, kRestore, kJson});
    addFamilyOptions(command, options->family);
    command.flag("--json", options->json, "The same as --format json").excludes(format);
    command.footer(
        "Example: tarnfw preview --format restore --family v4 | iptables-restore --noflush --test");
    command.run([options] { preview(*options); });
}

}  // namespace tarnfw
