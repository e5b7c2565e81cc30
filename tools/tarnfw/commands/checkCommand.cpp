/// tarnfw check: the findings of a profile, and the kernel's answers.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>

#include "tarncore.h"

#include "tarnfirewall/fwDB.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/profileDocument.h"
#include "tarnfwadmin/scratchKernel.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/translation.h"
#include "tarnfwadmin/unlisted.h"

namespace tarnfw {
namespace {

struct Options {
    std::string what;
    bool kernel = false;
    bool strict = false;
    bool json = false;
};

/// What is checked: a text, and the name that it goes by in the findings.
struct Source {
    std::string text;
    std::string name;
    bool isStored = false;
    std::vector<Finding> around = {};  ///< about the store, for a stored profile
};

Source sourceOf(const std::string& what) {
    if (what == kStandardInput) {
        return {readText(what), "standard input"};
    }
    if (!what.empty() && namesAFile(what)) {
        return {readText(what), what};
    }
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    const std::string profile = what.empty() ? store.activeProfile() : what;
    store.requireProfile(profile);
    return {store.textOf(profile), profile, /*isStored=*/true, store.findings()};
}

void append(std::vector<Finding>& all, const std::vector<Finding>& more) {
    all.insert(all.end(), more.begin(), more.end());
}

/// Warns about the machine's adapters that a stored profile leaves open without mentioning them.
void addOpenAdapters(const Json::Value& document, Machine& machine,
                     std::vector<Finding>& findings) {
    FW::FWPROFILE profile;
    FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    for (const UnlistedAdapter& adapter : unlistedAdapters(profile, machine)) {
        if (adapter.open) {
            findings.push_back({"adapter " + inQuotes(adapter.name) + " is " + textOf(adapter),
                                /*isError=*/false});
        }
    }
}

/// The lines of a document; none, with a finding, if it cannot be translated.
std::vector<TracedLine> linesOf(const Json::Value& document, std::vector<Finding>& findings) {
    FW::FWPROFILE profile;
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
        return tracedLines(profile);
    } catch (const Json::Exception&) {
        findings.push_back({"the library cannot read this; no line was loaded"});
    } catch (const Error& failure) {
        findings.push_back({failure.what()});
    }
    return {};
}

/// That the kernel refuses a line, with its words for it.
Finding refused(const TracedLine& line, const std::string& words) {
    Finding finding{programOf(line.family) + " refuses " + inQuotes(line.line) + ": " + words};
    if (line.place.position > 0) {
        finding.rule = line.place;
    } else if (!line.place.adapter.empty()) {
        finding.path = memberPath("adapterPolicyMap", line.place.adapter);
    }
    return finding;
}

/// Loads every line of a profile into a scratch kernel, but none of a family that the machine does
/// not have. Returns how many there are.
std::size_t loadIntoKernel(const Json::Value& document, std::vector<Finding>& findings) {
    std::vector<TracedLine> lines = linesOf(document, findings);
    const ScratchKernel kernel;
    const std::vector<std::string> families = kernel.families();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const TracedLine& line) {
                                   return std::find(families.begin(), families.end(),
                                                    line.family) == families.end();
                               }),
                lines.end());
    Progress progress("Loading lines", lines.size());
    for (const TracedLine& line : lines) {
        const std::string words = kernel.load(line);
        if (!words.empty()) {
            findings.push_back(refused(line, words));
        }
        progress.step();
    }
    return lines.size();
}

void printFindings(const std::string& source, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        std::cout << painted(lineOf(source, finding),
                             finding.isError ? Paint::kBad : Paint::kDoubtful)
                  << '\n';
    }
}

Json::Value jsonOf(const std::string& source, const std::vector<Finding>& findings) {
    Json::Value document;
    document["source"] = source;
    document["findings"] = Json::Value(Json::arrayValue);
    for (const Finding& finding : findings) {
        document["findings"].append(jsonOf(finding));
    }
    const auto errors = static_cast<Json::UInt>(countErrors(findings));
    document["errors"] = errors;
    document["warnings"] = static_cast<Json::UInt>(findings.size()) - errors;
    return document;
}

void check(const Options& options) {
    const Source source = sourceOf(options.what);
    Json::Value document;
    std::vector<Finding> findings = parseDocument(source.text, document);
    std::vector<Finding> open;  // of the machine, whatever the profile: nothing for "--strict"
    std::size_t loaded = 0;
    if (countErrors(findings) == 0) {
        Machine machine;
        if (!source.isStored) {
            makeStoredForm(document);
        }
        append(findings, checkProfile(document, machine, NeedlessRules::kFound));
        if (source.isStored && countErrors(findings) == 0) {
            addOpenAdapters(document, machine, open);
        }
        if (options.kernel && isRoot() && document.isObject()) {
            loaded = loadIntoKernel(document, findings);
        }
    }
    append(findings, source.around);
    const bool isInvalid = countErrors(findings) > 0 || (options.strict && !findings.empty());
    const bool isValid = findings.empty();
    append(findings, open);
    if (options.json) {
        Json::Value answer = jsonOf(source.name, findings);
        if (options.kernel) {
            answer["loadedLines"] =
                isRoot() ? Json::Value(static_cast<Json::UInt>(loaded)) : Json::Value();
        }
        printJson(answer);
    } else {
        printFindings(source.name, findings);
        if (isValid) {
            std::cout << printable(source.name) << ": valid"
                      << (options.kernel && isRoot()
                              ? "; the kernel accepts " + counted(loaded, "line")
                              : "")
                      << '\n';
        }
    }
    if (isInvalid) {
        endWith(kExitInvalid);
    }
    if (options.kernel && !isRoot()) {
        warn("only root can try the lines in a kernel: \"--kernel\" was left out");
        endWith(kExitNotRoot);
    }
}

}  // namespace

void addCheckCommand(Command& app) {
    Command& command =
        app.subcommand("check",
                       "Check a profile; prints one line for each finding, with its place. An "
                       "error is invalid on every machine; a warning is about what this machine "
                       "lacks or a rule without effect. Exit status 3 when there are errors");
    const auto options = std::make_shared<Options>();
    command.option("FILE|PROFILE", options->what,
                   "A profile file (a path, or a name ending in .json; - for standard input) "
                   "or the name of a stored profile; by default the active one");
    command.flag("--kernel", options->kernel,
                 "Also load every line into a separate network namespace, and report each one that "
                 "the kernel refuses. The machine's own filter is not touched");
    command.flag("--strict", options->strict,
                 "Count warnings as errors, but for those about open adapters");
    addJsonFlag(command, options->json);
    command.footer("Example: tarnfw check --kernel ./home.json");
    command.run([options] { check(*options); });
}

}  // namespace tarnfw
