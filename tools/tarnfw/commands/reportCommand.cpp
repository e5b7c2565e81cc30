/// tarnfw report: what a profile means, as one page or one document.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarncore.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/profileArgument.h"
#include "report/facts.h"
#include "report/page.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/profileCheck.h"

namespace tarnfw {
namespace {

constexpr mode_t kFileMode = 0600;  // as that of the profiles

struct Options {
    std::string html;
    std::string profile;
    std::string since;
    bool force = false;
    bool json = false;
};

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/// What a check says of the profile's rules.
std::vector<Finding> findingsOf(const FW::FWPROFILE& profile, Machine& machine) {
    std::vector<RulePlace> places;
    for (const auto& [adapter, rules] : profile.rules) {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            places.push_back({adapter, i + 1});
        }
    }
    return ruleFindings(profile, places, machine);
}

/// The profile's adapters that have no interface now.
std::vector<std::string> absentOf(const FW::FWPROFILE& profile, Machine& machine) {
    std::vector<std::string> absent = adaptersOf(profile);
    absent.erase(std::remove_if(absent.begin(), absent.end(),
                                [&](const std::string& adapter) {
                                    return adapter == FW::FW_ADAPTER_GLOBAL || adapter == "lo" ||
                                           machine.absenceOf(adapter).empty();
                                }),
                 absent.end());
    return absent;
}

Json::Value factsFor(const Options& options) {
    Context context(StoreSession::Access::kRead);
    const auto named = [&](const std::string& what) {
        return namedProfile(what, DocumentName::kRequired, "there is no report of it", context);
    };
    const NamedProfile subject = named(options.profile);
    std::vector<FW::FWPROFILE> profiles = {subject.profile};
    std::string since;
    if (!options.since.empty()) {
        NamedProfile other = named(options.since);
        since = other.isStored ? other.name : other.title;
        profiles.push_back(std::move(other.profile));
    }
    const FW::FWENVIRONMENT environment = environmentOf(profiles, context.machine());
    const Meaning meaning(subject.profile, environment);
    Json::Value facts = reportFacts(meaning, findingsOf(subject.profile, context.machine()),
                                    absentOf(subject.profile, context.machine()));
    if (profiles.size() > 1) {
        facts["changes"] = changeFacts(since, Meaning(profiles[1], environment), meaning);
    }
    const StoreSnapshot& store = context.store();
    const bool isActive = subject.isStored && subject.name == store.activeProfile();
    facts["active"] = subject.isStored ? Json::Value(isActive) : Json::Value();
    facts["enabled"] = isActive ? Json::Value(store.firewallEnabled()) : Json::Value();
    facts["machine"] = machineName();
    facts["time"] = timeForPrograms(std::time(nullptr));
    return facts;
}

void report(const Options& options) {
    if (options.json) {
        printJson(factsFor(options));
        return;
    }
    const bool toFile = options.html != kStandardInput;
    if (toFile && !options.force && TLIBCFileExist(options.html.c_str()) == 1) {
        throw Error(ErrorKind::kUnusable,
                    printable(options.html) + " already exists; --force replaces it");
    }
    const std::string page = reportPage(factsFor(options));
    if (!toFile) {
        std::cout << page;
        return;
    }
    writeFileAtomically(options.html, page, kFileMode,
                        options.force ? Existing::kReplacedAlike : Existing::kKept);
    std::cout << "The report was written to " << printable(options.html) << '\n';
}

}  // namespace

void addReportCommand(Command& app) {
    Command& command = app.subcommand("report",
                                      "Write a page that shows who may reach what, by which rules, "
                                      "and which rules have no effect");
    const auto options = std::make_shared<Options>();
    constexpr char kForm[] = "Form (exactly one)";
    Option& html =
        command
            .option("--html", options->html,
                    "Write one HTML page to a file, for a browser; - for standard output. "
                    "It needs nothing from elsewhere")
            .placeholder("FILE")
            .exactlyOneOf(kForm);
    command.flag("--json", options->json, "Print the same as one JSON document")
        .exactlyOneOf(kForm);
    command
        .option("--profile", options->profile,
                "A profile: a stored one, or a file (a path, or a name ending in .json; - for "
                "standard input); by default the active one")
        .placeholder("FILE|PROFILE");
    command
        .option("--since", options->since,
                "Another profile, named in the same way: also show what the first one opens and "
                "closes compared with it")
        .placeholder("FILE|PROFILE");
    command.flag("--force", options->force, "Replace an existing file").needs(html);
    command.footer("Example: tarnfw report --html report.html --since home --profile travel");
    command.run([options] { report(*options); });
}

}  // namespace tarnfw
