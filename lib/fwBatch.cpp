#include "tarnfirewall/fwBatch.h"

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "fwLog.h"
#include "fwRestoreText.h"
#include "fwText.h"
#include "fwToolRun.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwBatch";

constexpr char kFamilyV4[] = "v4";
constexpr char kFamilyV6[] = "v6";

// The last line of what a tool gets. It prints such lines, so they tell that it has read and done
// all of its input. The exit status alone does not: options like "-h" end it early with success,
// and the caller's process may not get to see the status at all.
constexpr char kEndMark[] = "# end of the rules\n";

constexpr char kReloadingChain[] = "FIREWALL_RELOADING";

// What stands for the words of a tool that had none.
constexpr char kInputCut[] = "it stopped before the end of its input";
constexpr char kTableCut[] = "it stopped before the end of the table";

/// Makes the text of one family, logging a line that cannot be written.
bool makeText(const Json::Value& cmds, const std::string& family, RestoreText& text) {
    RestoreLine fault;
    if (!text.make(cmds[family], fault)) {  // null without the family
        FW_LOG_ERR("Adapter %s: no line for iptables-restore: \"%s\"",
                   forLog(fault.adapter).c_str(), forLog(fault.command).c_str());
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

constexpr char kNoSuchChain[] = "No chain/target/match by that name";

// From some thousand lines on a save takes as long as replacing the rules.
constexpr std::size_t kLargeTextBytes = 256 * 1024;

// "--wait" has no effect: ToolRun gives each run a lock file of its own, which is free. It is
// XtablesLock that waits for other programs. A tool that does not know XTABLES_LOCKFILE takes the
// file that XtablesLock holds, and gives up after these seconds.
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

/// Whether a run of iptables-restore has done all of its input.
bool didAll(const ToolResult& result) {
    return exitedWell(result) && endsWith(result.output, kEndMark);
}

/// The tool's own words, or what stands for them when it had none: `otherwise` after success.
std::string reasonOf(const ToolResult& result, const Refusal& refusal,
                     const char* otherwise = kInputCut) {
    if (!refusal.words.empty()) {
        return refusal.words;
    }
    if (!exitedWell(result)) {
        return "status " + std::to_string(*result.status);
    }
    return otherwise;
}

/// The number of the line that makes a tool end early with success, as "-h" does, without naming
/// it; 0 when it cannot be told. Nothing is changed.
std::size_t lineThatEnds(const Tools& tools, const RestoreText& text) {
    ToolRun run(restoreArguments(tools, "--test"), text.numbered() + kEndMark);
    const ToolResult result = run.finish();
    return didAll(result) ? 0 : numberReached(result.output);
}

/// Logs why a text was refused, by the line that the tool names.
void logRefusal(const Tools& tools, const RestoreText& text, const ToolResult& result) {
    const Refusal refusal = refusalOf(result.errors);
    const std::string reason = reasonOf(result, refusal);
    const bool silent = refusal.words.empty() && exitedWell(result);
    const RestoreLine line = text.lineAt(silent ? lineThatEnds(tools, text) : refusal.line);
    if (line.command.empty()) {
        FW_LOG_ERR("Failed to run %s: %s", tools.restore, reason.c_str());
        return;
    }
    const std::string owner =
        line.adapter.empty() ? "all adapters" : "adapter " + forLog(line.adapter);
    FW_LOG_ERR("%s refused \"-t %s %s\" of %s: %s", tools.restore, forLog(line.table).c_str(),
               forLog(line.command).c_str(), owner.c_str(), reason.c_str());
}

/// Whether a run that did not come to the end of its input may have done it all the same: as far
/// as can be told, the tool did not refuse, it was killed or ended early.
bool leavesDoubt(const ToolResult& result) {
    return exitedWell(result) || *result.status > ToolResult::kSignalBase;
}

// ---- One family ----

/// One family's way through the transaction. What is not committed when it ends is not done.
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

    /// Starts to look for what interrupted reloads left, in place of a save.
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

    /// Takes in what was started to save or to list.
    bool finishLooking() { return listing_ ? finishListing() : finishSaving(); }

    /// Whether a reload line by line was interrupted in this family.
    bool wasInterrupted() const { return interrupted_ > 0; }

    /// Whether the family that is committed last is better not saved: it has so many lines, and a
    /// second commit would leave what one does. Then nothing is left of a commit that was refused,
    /// and one that leaves doubt can be done again.
    bool goesWithoutSave() const {
        return text_.head().size() > kLargeTextBytes && text_.replacesFirewallChainsOnly();
    }

    bool isSaved() const { return !saved_.empty(); }

    /// Has the commit mend what interrupted reloads left.
    void mend() {
        mends_ = true;
        text_.append(linesToMend(interrupted_));
    }

    /// Commits and returns whether all of it is in place.
    bool commit() {
        commit_->feed(text_.tail() + kEndMark);
        ToolResult result = commit_->finish();
        if (!didAll(result) && leavesDoubt(result) && !isSaved()) {
            result = commitAgain(result);
        }
        if (!didAll(result)) {
            logRefusal(tools_, text_, result);
            return false;
        }
        return true;
    }

    /// Puts back what was saved, if so, in the chains that the text changes.
    void putBack() const {
        if (!isSaved()) {
            return;
        }
        std::string text;
        for (std::size_t i = 0; i < saved_.size(); ++i) {
            RestoreTable table = text_.tables()[i];
            const bool isFilter = i == 0;
            if (isFilter && wasInterrupted()) {
                table.chains.emplace(kReloadingChain);
            }
            text += textToPutBack(table, saved_[i], mends_ && isFilter);
        }
        ToolRun run(restoreArguments(tools_, "--counters"), text + kEndMark);
        const ToolResult result = run.finish();
        if (!didAll(result)) {
            FW_LOG_ERR("Failed to put back the rules with %s: %s", tools_.restore,
                       reasonOf(result, refusalOf(result.errors)).c_str());
        }
    }

private:
    bool hasSeveralTables() const { return text_.tables().size() > 1; }

    bool finishSaving() {
        for (std::size_t i = 0; i < saving_.size(); ++i) {
            ToolResult result = saving_[i]->finish();
            if (!exitedWell(result) || !isWholeSave(result.output, text_.tables()[i].name)) {
                logNoListing(tools_.save, result);
                return false;
            }
            saved_.push_back(std::move(result.output));
        }
        interrupted_ = interruptedReloads(saved_.front());
        return true;
    }

    /// Without the chain no reload line by line can have been interrupted.
    bool finishListing() {
        const ToolResult result = listing_->finish();
        listing_.reset();
        const bool isListed = startsWith(result.output, std::string("-N ") + kReloadingChain);
        const bool isMissing = result.errors.find(kNoSuchChain) != std::string::npos;
        if (!(isListed && exitedWell(result)) && !isMissing) {
            logNoListing(tools_.list, result);
            return false;
        }
        interrupted_ = interruptedReloads(result.output);
        return true;
    }

    static void logNoListing(const char* tool, const ToolResult& result) {
        FW_LOG_ERR("Failed to run %s: %s", tool,
                   reasonOf(result, refusalOf(result.errors), kTableCut).c_str());
    }

    /// Commits once more after a run that left it in doubt.
    ToolResult commitAgain(const ToolResult& first) {
        FW_LOG_ERR("Failed to run %s: %s; trying again", tools_.restore,
                   reasonOf(first, Refusal{}).c_str());
        ToolRun run(restoreArguments(tools_),
                    text_.head() + RestoreText::filler() + text_.tail() + kEndMark);
        return run.finish();
    }

    Tools tools_;
    RestoreText text_;
    bool mends_ = false;
    std::size_t interrupted_ = 0;  ///< reloads
    std::vector<std::unique_ptr<ToolRun>> saving_;
    std::unique_ptr<ToolRun> listing_;
    std::unique_ptr<ToolRun> test_;
    std::unique_ptr<ToolRun> commit_;
    std::vector<std::string> saved_;  ///< as the text's tables
};

/// Mends both families when one has the sign of an interrupted reload. It is set after the
/// policies, and IPv6 is closed after IPv4: a family may be closed without it. Mending cannot be
/// repeated, so it takes a save.
bool mendInterrupted(FamilyRun& first, FamilyRun& last) {
    if (!first.wasInterrupted() && !last.wasInterrupted()) {
        return true;
    }
    if (!last.isSaved()) {
        last.startSaving();
        if (!last.finishLooking()) {
            return false;
        }
    }
    first.mend();
    last.mend();
    return true;
}

/// Commits both families, or leaves both as they were.
bool commitInOrder(FamilyRun& first, FamilyRun& last) {
    // A commit that failed is put back as well, if it was saved. Mostly nothing of it is in place,
    // but a tool with several tables may have done some, and one that was killed may have done all.
    if (!first.commit()) {
        first.putBack();
        return false;
    }
    if (!last.commit()) {
        last.putBack();
        first.putBack();
        return false;
    }
    return true;
}

/// Takes both families through the transaction: nothing is committed before all was examined.
/// `first` is saved for the case that `last` fails.
bool commitBoth(FamilyRun& first, FamilyRun& last) {
    // All of these run at the same time.
    first.startSaving();
    if (last.goesWithoutSave()) {
        last.startListing();
    } else {
        last.startSaving();
    }
    first.startExamining();
    last.startExamining();
    if (!first.finishExamining() || !last.finishExamining() || !first.finishLooking() ||
        !last.finishLooking() || !mendInterrupted(first, last)) {
        return false;
    }
    // The only sign of an interrupted reload goes last, for the case that this process ends in
    // between. Both families are saved then.
    return first.wasInterrupted() && !last.wasInterrupted() ? commitInOrder(last, first)
                                                            : commitInOrder(first, last);
}

}  // namespace

std::string FW_BATCH::restoreText(const Json::Value& cmds, const std::string& family) {
    if (family != kFamilyV4 && family != kFamilyV6) {
        FW_LOG_ERR("There is no family \"%s\"", forLog(family).c_str());
        return "";
    }
    RestoreText text;
    return makeText(cmds, family, text) ? text.head() + text.tail() : "";
}

bool FW_BATCH::apply(const Json::Value& cmds) {
    RestoreText textV4;
    RestoreText textV6;
    if (!makeText(cmds, kFamilyV4, textV4) || !makeText(cmds, kFamilyV6, textV6)) {
        return false;
    }
    const XtablesLock lock;
    if (!lock.held()) {
        FW_LOG_ERR("Failed to get the lock of iptables: %s",
                   std::generic_category().message(errno).c_str());
        return false;
    }
    // The shorter one first, because that one is saved.
    const bool v4First = textV4.head().size() <= textV6.head().size();
    FamilyRun v4(kToolsV4, std::move(textV4));
    FamilyRun v6(kToolsV6, std::move(textV6));
    return v4First ? commitBoth(v4, v6) : commitBoth(v6, v4);
}

}  // namespace FW
