#include "tarnfirewall/fwBatch.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "fwLog.h"
#include "fwRestoreText.h"
#include "fwText.h"
#include "fwToolRun.h"
#include "fwXtablesLock.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwBatch";

constexpr char kFamilyV4[] = "v4";
constexpr char kFamilyV6[] = "v6";

// The last line of a tool's input. The tool prints comment lines, so once it prints this one it has
// processed all of its input. The exit status alone does not prove that: options like "-h" end it
// early with success, and the caller's process may not get the status at all.
constexpr char kEndMark[] = "# end of the rules\n";

// Logged for a tool that printed no message.
constexpr char kInputCut[] = "it stopped before the end of its input";
constexpr char kTableCut[] = "it stopped before the end of the table";

/// Makes the text of one family; logs an invalid line.
bool makeText(const Json::Value& cmds, const std::string& family, RestoreText& text) {
    RestoreLine invalid;
    if (!text.make(cmds[family], invalid)) {  // null without the family
        FW_LOG_ERR("Adapter %s: no line for iptables-restore: \"%s\"",
                   forLog(invalid.adapter).c_str(), forLog(invalid.command).c_str());
        return false;
    }
    return true;
}

// ---- The tools ----

/// The programs of one address family.
struct Tools {
    const char* save;
    const char* restore;
};

constexpr Tools kToolsV4 = {"/sbin/iptables-save", "/sbin/iptables-restore"};
constexpr Tools kToolsV6 = {"/sbin/ip6tables-save", "/sbin/ip6tables-restore"};

// "--wait" has no effect: ToolRun gives each run its own lock file, which is free; XtablesLock
// waits for other programs. A tool that does not know XTABLES_LOCKFILE tries the file that
// XtablesLock holds, and gives up after these seconds.
std::vector<std::string> restoreArguments(const Tools& tools, const char* option = nullptr) {
    std::vector<std::string> arguments = {tools.restore, "--noflush", "--wait", "30", "--verbose"};
    if (option != nullptr) {
        arguments.emplace_back(option);
    }
    return arguments;
}

bool exitedWell(const ToolResult& result) {
    return result.status.value_or(0) == 0;
}

/// Whether a run of iptables-restore has processed all of its input.
bool didAll(const ToolResult& result) {
    return exitedWell(result) && endsWith(result.output, kEndMark);
}

/// The tool's message or, without one, its status; `afterSuccess` if the status is 0.
std::string reasonOf(const ToolResult& result, const ToolError& error,
                     const char* afterSuccess = kInputCut) {
    if (!error.words.empty()) {
        return error.words;
    }
    if (!exitedWell(result)) {
        return "status " + std::to_string(*result.status);
    }
    return afterSuccess;
}

/// The number of the line that makes a tool end early with success, as "-h" does, without a
/// message; 0 if it is not known. Changes nothing.
std::size_t lineThatEnds(const Tools& tools, const RestoreText& text) {
    ToolRun run(restoreArguments(tools, "--test"), text.numbered() + kEndMark);
    const ToolResult result = run.finish();
    return didAll(result) ? 0 : numberReached(result.output);
}

/// Whether the tool says that the kernel lacks its family.
bool saysAbsent(const ToolResult& result) {
    const auto says = [&](const char* words) {
        return result.errors.find(words) != std::string::npos;
    };
    return !exitedWell(result) &&
           std::any_of(std::begin(FW_ABSENT_FAMILY_WORDS), std::end(FW_ABSENT_FAMILY_WORDS), says);
}

/// Logs why a text was refused, with the line that the tool names.
void logToolError(const Tools& tools, const RestoreText& text, const ToolResult& result) {
    const ToolError error = toolErrorFrom(result.errors);
    const std::string reason = reasonOf(result, error);
    const bool silent = error.words.empty() && exitedWell(result);
    const RestoreLine line = text.lineAt(silent ? lineThatEnds(tools, text) : error.line);
    if (line.command.empty()) {
        FW_LOG_ERR("Failed to run %s: %s", tools.restore, reason.c_str());
        return;
    }
    const std::string owner =
        line.adapter.empty() ? "all adapters" : "adapter " + forLog(line.adapter);
    FW_LOG_ERR("%s refused \"-t %s %s\" of %s: %s", tools.restore, forLog(line.table).c_str(),
               forLog(line.command).c_str(), owner.c_str(), reason.c_str());
}

// ---- One family ----

/// The transaction of one family. Without a commit before it is destroyed, nothing changes.
class FamilyRun {
public:
    FamilyRun(const Tools& tools, RestoreText text) : tools_(tools), text_(std::move(text)) {}

    /// Starts to save the tables that the text changes, for putBack().
    void startSaving() {
        for (const RestoreTable& table : text_.tables()) {
            saving_.push_back(std::make_unique<ToolRun>(
                std::vector<std::string>{tools_.save, "--counters", "--table", table.name}, ""));
        }
    }

    /// Starts the run that commits and sends it everything before the first COMMIT. That finds
    /// every error that "--test" would, and leaves little to do for commit(). Further tables need
    /// a separate test.
    void startExamining() {
        if (text_.tables().size() > 1) {
            test_ = std::make_unique<ToolRun>(restoreArguments(tools_, "--test"),
                                              text_.whole() + kEndMark);
        }
        commit_ = std::make_unique<ToolRun>(restoreArguments(tools_));
        commit_->feed(text_.head() + text_.mark());
    }

    /// Whether the machine does not have this family: no such tools, or a kernel without it. Waits
    /// for the saves.
    bool isAbsent() {
        if (saving_.front()->isMissing() && commit_->isMissing()) {
            return true;
        }
        awaitSaves();
        return saysAbsent(saves_.front());
    }

    /// Whether the text passes every test that changes nothing.
    bool finishExamining() {
        if (!commit_->awaitOutput(kExaminedMark)) {
            logToolError(tools_, text_, commit_->finish());
            return false;
        }
        if (!test_) {
            return true;
        }
        const ToolResult result = test_->finish();
        if (!didAll(result)) {
            logToolError(tools_, text_, result);
            return false;
        }
        return true;
    }

    /// Waits for the saves and keeps them.
    bool finishSaving() {
        awaitSaves();
        for (std::size_t i = 0; i < saves_.size(); ++i) {
            ToolResult& result = saves_[i];
            if (!exitedWell(result) || !isWholeSave(result.output, text_.tables()[i].name)) {
                FW_LOG_ERR("Failed to run %s: %s", tools_.save,
                           reasonOf(result, toolErrorFrom(result.errors), kTableCut).c_str());
                return false;
            }
            saved_.push_back(std::move(result.output));
        }
        interrupted_ = interruptedReloads(saved_.front());
        return true;
    }

    /// The filter table as it was saved.
    const std::string& savedFilter() const { return saved_.front(); }

    /// Whether a line-by-line reload was interrupted in this family.
    bool wasInterrupted() const { return interrupted_ > 0; }

    /// Makes the commit also repair what interrupted reloads left.
    void mend() {
        mends_ = true;
        text_.append(linesToMend(interrupted_));
    }

    /// Commits, and returns whether everything is in place.
    bool commit() {
        commit_->feed(text_.tail() + kEndMark);
        const ToolResult result = commit_->finish();
        if (!didAll(result)) {
            logToolError(tools_, text_, result);
            return false;
        }
        return true;
    }

    /// Restores the saved rules of the chains that the text changes.
    void putBack() const {
        std::string text;
        for (std::size_t i = 0; i < saved_.size(); ++i) {
            RestoreTable table = text_.tables()[i];
            const bool isFilter = i == 0;
            if (isFilter && wasInterrupted()) {
                table.chains.emplace("FIREWALL_RELOADING");
            }
            text += textToPutBack(table, saved_[i], mends_ && isFilter);
        }
        ToolRun run(restoreArguments(tools_, "--counters"), text + kEndMark);
        const ToolResult result = run.finish();
        if (!didAll(result)) {
            FW_LOG_ERR("Failed to put back the rules with %s: %s", tools_.restore,
                       reasonOf(result, toolErrorFrom(result.errors)).c_str());
        }
    }

private:
    void awaitSaves() {
        for (const std::unique_ptr<ToolRun>& run : saving_) {
            saves_.push_back(run->finish());
        }
        saving_.clear();
    }

    Tools tools_;
    RestoreText text_;
    bool mends_ = false;
    std::size_t interrupted_ = 0;  ///< reloads
    std::vector<std::unique_ptr<ToolRun>> saving_;
    std::vector<ToolResult> saves_;
    std::unique_ptr<ToolRun> test_;
    std::unique_ptr<ToolRun> commit_;
    std::vector<std::string> saved_;  ///< as the text's tables
};

/// Commits the families in this order, or leaves all as they were.
bool commitInOrder(const std::vector<FamilyRun*>& families) {
    for (std::size_t i = 0; i < families.size(); ++i) {
        if (families[i]->commit()) {
            continue;
        }
        // A failed commit is undone as well. Usually it has changed nothing, but a tool with
        // several tables may have committed some, and one that was killed may have committed all.
        for (std::size_t undone = i + 1; undone > 0; --undone) {
            families[undone - 1]->putBack();
        }
        return false;
    }
    return true;
}

/// Saves and tests both families at the same time, then commits them if the review agrees. A
/// machine may have no IPv6: then IPv4 alone.
bool commitBoth(FamilyRun& v4, FamilyRun& v6, const Json::Value& cmds,
                const FW_BATCH_REVIEW& review) {
    v4.startSaving();
    v6.startSaving();
    v4.startExamining();
    v6.startExamining();
    std::vector<FamilyRun*> families = {&v4};
    const bool hasV6 = !v6.isAbsent();
    if (hasV6) {
        families.push_back(&v6);
    }
    const auto all = [&](bool (FamilyRun::*done)()) {
        return std::all_of(families.begin(), families.end(),
                           [done](FamilyRun* family) { return (family->*done)(); });
    };
    if (!all(&FamilyRun::finishExamining) || !all(&FamilyRun::finishSaving)) {
        return false;
    }
    FWPENDINGBATCH batch{cmds, {{kFamilyV4, v4.savedFilter()}}};
    if (hasV6) {
        batch.saved.emplace(kFamilyV6, v6.savedFilter());
    }
    if (review && !review(batch)) {
        return false;
    }
    const auto wasInterrupted = [](const FamilyRun* family) { return family->wasInterrupted(); };
    if (std::any_of(families.begin(), families.end(), wasInterrupted)) {
        // Both, because the rule in FIREWALL_RELOADING is added after the policies are set, and in
        // IPv6 after IPv4: a family may be closed without it.
        for (FamilyRun* const family : families) {
            family->mend();
        }
    }
    // The family with the only sign of an interrupted reload goes last, in case this process ends
    // in between.
    std::stable_partition(families.begin(), families.end(),
                          [&](const FamilyRun* family) { return !wasInterrupted(family); });
    return commitInOrder(families);
}

}  // namespace

std::string FW_BATCH::restoreText(const Json::Value& cmds, const std::string& family) {
    if (family != kFamilyV4 && family != kFamilyV6) {
        FW_LOG_ERR("There is no family \"%s\"", forLog(family).c_str());
        return "";
    }
    RestoreText text(0);
    return makeText(cmds, family, text) ? text.head() + text.tail() : "";
}

bool FW_BATCH::apply(const Json::Value& cmds) {
    return applyReviewed(cmds, {});
}

bool FW_BATCH::applyReviewed(const Json::Value& cmds, const FW_BATCH_REVIEW& review) {
    const std::size_t bufferBytes = ToolRun::outputBufferBytes();
    RestoreText textV4(bufferBytes);
    RestoreText textV6(bufferBytes);
    if (!makeText(cmds, kFamilyV4, textV4) || !makeText(cmds, kFamilyV6, textV6)) {
        return false;
    }
    const XtablesLock lock;
    if (!lock.held()) {
        FW_LOG_ERR("Failed to get the lock of iptables, %s: %s", kXtablesLockPath,
                   errno == EWOULDBLOCK ? "another program holds it"
                                        : std::generic_category().message(errno).c_str());
        return false;
    }
    FamilyRun v4(kToolsV4, std::move(textV4));
    FamilyRun v6(kToolsV6, std::move(textV6));
    return commitBoth(v4, v6, cmds, review);
}

}  // namespace FW
