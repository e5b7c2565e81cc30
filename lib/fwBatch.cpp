#include "tarnfirewall/fwBatch.h"

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "fwLog.h"
#include "fwRestoreText.h"
#include "fwToolRun.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwBatch";

// The last line of what a tool gets. It prints such lines, so they tell that it has read and done
// all of its input. The exit status alone does not: options like "-h" end it early with success,
// and the caller's process may not get to see the status at all.
constexpr char kEndMark[] = "# end of the rules\n";

constexpr char kReloadingChain[] = "FIREWALL_RELOADING";

/// Makes the text of one family, logging a line that cannot be written.
bool textOf(const Json::Value& cmds, const std::string& family, RestoreText& text) {
    RestoreLine fault;
    if (!text.make(cmds[family], fault)) {  // null without the family
        FW_LOG_ERR("Adapter %s: no line for iptables-restore: \"%s\"", fault.adapter.c_str(),
                   fault.command.c_str());
        return false;
    }
    return true;
}

// ---- The tools ----

/// The programs of one address family.
struct Tools {
    const char* list;
    const char* save;
    const char* restore;
};

constexpr Tools kToolsV4 = {"/sbin/iptables", "/sbin/iptables-save", "/sbin/iptables-restore"};
constexpr Tools kToolsV6 = {"/sbin/ip6tables", "/sbin/ip6tables-save", "/sbin/ip6tables-restore"};

std::vector<std::string> restoreArguments(const Tools& tools, const char* option = nullptr) {
    std::vector<std::string> arguments = {tools.restore, "--noflush", "--wait", "30", "--verbose"};
    if (option != nullptr) {
        arguments.emplace_back(option);
    }
    return arguments;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool exitedWell(const ToolResult& result) {
    return result.status.value_or(0) == 0;
}

/// Whether a run of iptables-restore has done all of its input.
bool didAll(const ToolResult& result) {
    return exitedWell(result) && endsWith(result.output, kEndMark);
}

/// Whether a run of iptables-save has written all of a table.
bool isWholeSave(const std::string& output) {
    return output.rfind("\nCOMMIT\n") != std::string::npos;
}

/// The tool's own words, or what stands for them when it had none.
std::string wordsOf(const ToolResult& result, const Refusal& refusal) {
    if (!refusal.words.empty()) {
        return refusal.words;
    }
    if (!exitedWell(result)) {
        return "status " + std::to_string(*result.status);
    }
    return "it stopped before the end of its input";
}

/// Logs why a text was refused, by the line that the tool names.
void logRefusal(const Tools& tools, const RestoreText& text, const ToolResult& result) {
    const Refusal refusal = refusalOf(result.errors);
    const std::string words = wordsOf(result, refusal);
    const RestoreLine line = text.lineAt(refusal.line);
    if (line.command.empty()) {
        FW_LOG_ERR("Failed to run %s: %s", tools.restore, words.c_str());
        return;
    }
    const std::string owner = line.adapter.empty() ? "all adapters" : "adapter " + line.adapter;
    FW_LOG_ERR("%s refused \"-t %s %s\" of %s: %s", tools.restore, line.table.c_str(),
               line.command.c_str(), owner.c_str(), words.c_str());
}

// ---- One family ----

/// One family's way through the transaction. What is not committed when it ends is not done.
class FamilyRun {
public:
    FamilyRun(const Tools& tools, RestoreText text) : tools_(tools), text_(std::move(text)) {}

    /// Starts to save the tables that the text changes.
    void startSaving() {
        for (const RestoreTable& table : text_.tables()) {
            saving_.push_back(std::make_unique<ToolRun>(
                std::vector<std::string>{tools_.save, "--counters", "--table", table.name}, ""));
        }
    }

    /// Starts to list what tells of an interrupted reload, where nothing is saved.
    void startListing() {
        listing_ = std::make_unique<ToolRun>(
            std::vector<std::string>{tools_.list, "--list-rules", kReloadingChain}, "");
    }

    /// Starts the run that commits and hands on all up to the first COMMIT. That finds whatever
    /// "--test" would, and leaves little to do for commit(). Further tables need a test of their
    /// own.
    void startExamining() {
        if (hasSeveralTables()) {
            test_ = std::make_unique<ToolRun>(
                restoreArguments(tools_, "--test"),
                text_.head() + RestoreText::filler() + text_.tail() + kEndMark);
        }
        commit_ = std::make_unique<ToolRun>(restoreArguments(tools_));
        commit_->feed(text_.head());
    }

    /// Whether all that can be found wrong without changing anything is right.
    bool finishExamining() {
        if (!commit_->awaitReading(RestoreText::filler())) {
            logRefusal(tools_, text_, commit_->finish());
            return false;
        }
        if (!test_) {
            return true;
        }
        const ToolResult result = test_->finish();
        if (!didAll(result)) {
            logRefusal(tools_, text_, result);
            return false;
        }
        return true;
    }

    /// Takes in what the family holds, and has the commit mend what an interrupted reload left.
    bool finishReading() {
        for (const auto& saving : saving_) {
            const ToolResult result = saving->finish();
            if (!exitedWell(result) || !isWholeSave(result.output)) {
                FW_LOG_ERR("Failed to run %s: %s", tools_.save,
                           wordsOf(result, refusalOf(result.errors)).c_str());
                return false;
            }
            saved_.push_back(result.output);
        }
        // A chain that does not exist makes no listing, and has nothing to mend.
        const std::string listing = listing_ ? listing_->finish().output : saved_.front();
        const std::size_t interrupted = interruptedReloads(listing);
        mends_ = interrupted > 0;
        text_.append(linesToMend(interrupted));
        return true;
    }

    /// Commits and returns whether all of it is in place.
    bool commit() {
        commit_->feed(text_.tail() + kEndMark);
        const ToolResult result = commit_->finish();
        if (!didAll(result)) {
            logRefusal(tools_, text_, result);
            return false;
        }
        return true;
    }

    /// Puts back what was saved, in the chains that the text changes.
    void putBack() const {
        std::string text;
        for (std::size_t i = 0; i < saved_.size(); ++i) {
            RestoreTable table = text_.tables()[i];
            const bool mended = mends_ && i == 0;
            if (mended) {
                table.chains.emplace(kReloadingChain);
            }
            text += textToPutBack(table, saved_[i], mended);
        }
        ToolRun run(restoreArguments(tools_, "--counters"), text + kEndMark);
        const ToolResult result = run.finish();
        if (!didAll(result)) {
            FW_LOG_ERR("Failed to put back the rules with %s: %s", tools_.restore,
                       wordsOf(result, refusalOf(result.errors)).c_str());
        }
    }

    bool hasSeveralTables() const { return text_.tables().size() > 1; }

private:
    Tools tools_;
    RestoreText text_;
    bool mends_ = false;
    std::vector<std::unique_ptr<ToolRun>> saving_;
    std::unique_ptr<ToolRun> test_;
    std::unique_ptr<ToolRun> listing_;
    std::unique_ptr<ToolRun> commit_;
    std::vector<std::string> saved_;  ///< as the text's tables
};

/// Takes both families through the transaction: nothing is committed before all was examined.
bool commitBoth(FamilyRun& v4, FamilyRun& v6) {
    // All of these run at the same time. Only what may have to be put back is saved: IPv4, which is
    // committed first, and a family with several tables, of which each is a commit of its own.
    v4.startSaving();
    v4.startExamining();
    v6.startExamining();
    if (v6.hasSeveralTables()) {
        v6.startSaving();
    } else {
        v6.startListing();
    }
    if (!v4.finishExamining() || !v6.finishExamining() || !v4.finishReading() ||
        !v6.finishReading()) {
        return false;
    }
    if (!v4.commit()) {
        if (v4.hasSeveralTables()) {
            v4.putBack();
        }
        return false;
    }
    if (!v6.commit()) {
        if (v6.hasSeveralTables()) {
            v6.putBack();
        }
        v4.putBack();
        return false;
    }
    return true;
}

}  // namespace

std::string FW_BATCH::restoreText(const Json::Value& cmds, const std::string& family) {
    RestoreText text;
    return textOf(cmds, family, text) ? text.head() + text.tail() : "";
}

bool FW_BATCH::apply(const Json::Value& cmds) {
    RestoreText textV4;
    RestoreText textV6;
    if (!textOf(cmds, "v4", textV4) || !textOf(cmds, "v6", textV6)) {
        return false;
    }
    const XtablesLock lock;
    if (!lock.held()) {
        FW_LOG_ERR("Failed to get the lock of iptables: %s",
                   std::generic_category().message(errno).c_str());
        return false;
    }
    FamilyRun v4(kToolsV4, std::move(textV4));
    FamilyRun v6(kToolsV6, std::move(textV6));
    return commitBoth(v4, v6);
}

}  // namespace FW
