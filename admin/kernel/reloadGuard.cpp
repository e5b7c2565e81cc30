#include "kernel/reloadGuard.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/process.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

constexpr int kLockSeconds = 30;

// The state before a reload, while it is running.
constexpr char kRunningReload[] = "/run/tarn/reload.json";
constexpr mode_t kPrivateMode = 0600;

// The lock of iptables, which the library takes before a batch.
constexpr char kXtablesLock[] = "/run/xtables.lock";

using Jump = std::pair<std::string, std::string>;

/// Makes a text for one commit of the filter table.
std::string transaction(const std::string& lines) {
    return "*filter\n" + lines + "COMMIT\n";
}

void commit(const std::string& family, const std::string& lines) {
    if (lines.empty()) {
        return;
    }
    const ProgramAnswer answer = MachineKernel().restore(family, transaction(lines));
    if (answer.status != 0) {
        throw Error(ErrorKind::kSystem, "the " + titleOf(family) +
                                            " filter cannot be changed: " + oneLine(answer.errors));
    }
}

/// The lock of a reload, unless the caller has it.
std::unique_ptr<FileLock> taken(ReloadGuard::Lock lock) {
    if (lock == ReloadGuard::Lock::kHeld) {
        return nullptr;
    }
    auto file = std::make_unique<FileLock>(kReloadLock, kLockSeconds);
    if (!file->held()) {
        throw Error(ErrorKind::kBusy, std::string("cannot lock ") + kReloadLock +
                                          ": another reload is running or stopped");
    }
    return file;
}

// ---- What a killed reload leaves ----

bool hasReloadingRules(const RuleListing& listing) {
    return !listing.rulesOf(kReloadingChain).empty();
}

/// Whether the family is closed as during a reload in apply mode "lines".
bool isClosed(const RuleListing& listing) {
    const std::vector<std::string>& rules = listing.rulesOf(kReloadingChain);
    return (listing.hasPolicy("INPUT", "DROP") || listing.hasPolicy("FORWARD", "DROP")) &&
           std::any_of(rules.begin(), rules.end(), [](const std::string& rule) {
               return rule.find("ESTABLISHED") != std::string::npos;
           });
}

/// The state before a reload that was killed; nothing when none was, or when it did not change the
/// policies.
std::optional<SavedRules> beforeKilledReload(const std::map<std::string, RuleListing>& found) {
    if (access(kRunningReload, F_OK) != 0) {
        return std::nullopt;
    }
    Json::Value document;
    try {
        if (!parseAsStored(readText(kRunningReload), document)) {
            return std::nullopt;
        }
        SavedRules before = SavedRules::from(document);
        const bool closedSince = std::any_of(found.begin(), found.end(), [&](const auto& family) {
            const auto old = before.families().find(family.first);
            return old != before.families().end() &&
                   std::any_of(old->second.policies.begin(), old->second.policies.end(),
                               [&](const auto& policy) {
                                   return policy.second != "DROP" &&
                                          family.second.hasPolicy(policy.first, "DROP");
                               });
        });
        return closedSince ? std::optional(std::move(before)) : std::nullopt;
    } catch (const Error&) {
        return std::nullopt;  // truncated by a kill as well
    }
}

/// The rules, with the policies ACCEPT.
SavedRules opened(const SavedRules& rules) {
    std::map<std::string, FamilyRules> families = rules.families();
    for (auto& [unused, own] : families) {
        own.policies = {{"INPUT", "ACCEPT"}, {"FORWARD", "ACCEPT"}};
    }
    return SavedRules(std::move(families));
}

std::optional<SavedRules> readableLastGood() {
    try {
        return lastGoodRules();
    } catch (const Error&) {
        return std::nullopt;
    }
}

// ---- The jumps ----

bool isJump(const std::string& rule, const Jump& jump) {
    return rule == "-A " + jump.first + " -j " + jump.second;
}

/// The lines that put a chain's two jumps of the firewall ahead of all other rules; none when they
/// are there. In one commit there is no moment without them.
std::string linesToLead(const RuleListing& listing, const std::string& chain) {
    std::vector<Jump> jumps;
    for (const Jump& jump : wholeBase().jumps) {
        if (jump.first == chain) {
            jumps.push_back(jump);
        }
    }
    const std::vector<std::string>& rules = listing.rulesOf(chain);
    bool leads = rules.size() >= jumps.size();
    std::string lines;
    for (std::size_t i = 0; i < jumps.size(); ++i) {
        const auto times = std::count_if(rules.begin(), rules.end(), [&](const std::string& rule) {
            return isJump(rule, jumps[i]);
        });
        if (times == 0) {
            return "";  // without the base filter nothing is applied
        }
        leads = leads && times == 1 && isJump(rules[i], jumps[i]);
        for (auto left = times; left > 0; --left) {
            lines += "-D " + chain + " -j " + jumps[i].second + "\n";
        }
    }
    for (std::size_t i = 0; i < jumps.size(); ++i) {
        lines += "-I " + chain + " " + std::to_string(i + 1) + " -j " + jumps[i].second + "\n";
    }
    return leads ? "" : lines;
}

}  // namespace

// ---- RuleSaves ----------------------------------------------------------------------------------

/// The rules of the families as iptables-save writes them, by programs that may still be running.
/// Until they have ended the lock of iptables is held: by them, so that it ends with the last one.
class RuleSaves {
public:
    explicit RuleSaves(const std::vector<std::string>& families) {
        const Descriptor lock(open(kXtablesLock, O_RDONLY | O_CREAT | O_CLOEXEC, kPrivateMode));
        const bool held = lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0;
        for (const std::string& family : families) {
            start(family, lock.get());
        }
        if (!held) {
            await();  // nothing keeps a reload from being faster
        }
    }
    ~RuleSaves() { await(); }
    RuleSaves(const RuleSaves&) = delete;
    RuleSaves& operator=(const RuleSaves&) = delete;

    /// Throws Error, kSystem, when a program has failed.
    SavedRules rules() {
        await();
        std::map<std::string, RuleListing> listings;
        for (const auto& [family, save] : saves_) {
            std::string text;
            if (!save.succeeded || lseek(save.text.get(), 0, SEEK_SET) != 0 ||
                !readAll(save.text.get(), text) || text.find("\nCOMMIT\n") == std::string::npos) {
                throw Error(ErrorKind::kSystem,
                            "the " + titleOf(family) + " rules of before could not be saved");
            }
            listings.emplace(family, RuleListing::fromSaved(text));
        }
        return SavedRules::of(listings);
    }

private:
    struct Save {
        Descriptor text;
        pid_t process = -1;
        bool succeeded = false;
    };

    void start(const std::string& family, int lock) {
        Save& save = saves_[family];
        save.text = memoryFile("rules");
        save.process = startProcess("iptables-save", [&] {
            (void)fcntl(lock, F_SETFD, 0);  // kept open by the program
            // As it has no lock to wait for: this process holds the machine's.
            (void)setenv("XTABLES_LOCKFILE", "/proc/self/fd/1", 1);
            return dup2(save.text.get(), STDOUT_FILENO) < 0
                       ? kProgramNotRun
                       : becomeProgram({programOf(family) + "-save", "-t", "filter"});
        });
    }

    void await() {
        for (auto& [unused, save] : saves_) {
            if (save.process > 0) {
                save.succeeded = exitStatusOf(save.process) == 0;
                save.process = -1;
            }
        }
    }

    std::map<std::string, Save> saves_;  // by family
};

// ---- ReloadGuard --------------------------------------------------------------------------------

ReloadGuard::ReloadGuard(Lock lock, Change change) : lock_(lock) {
    const auto held = taken(lock_);
    if (change == Change::kBatch && readForBatch()) {
        return;
    }
    const Listings found = MachineKernel().listFilters();
    read(found);
    makeReady(found);
    makeDirectory(kRunDir);
    writeFileAtomically(kRunningReload, documentText(before().document()), kPrivateMode,
                        Existing::kReplaced);
}

ReloadGuard::~ReloadGuard() = default;

/// Reads what is needed before a batch, and makes ready. False when a killed reload has left
/// something: all has to be read then.
bool ReloadGuard::readForBatch() {
    const auto found = MachineKernel().listChains({"INPUT", "FORWARD", kReloadingChain});
    const auto lacksBase = [](const auto& family) {
        const auto& jumps = wholeBase().jumps;
        return std::any_of(jumps.begin(), jumps.end(), [&](const Jump& jump) {
            return family.second.positionOf(jump.first,
                                            "-A " + jump.first + " -j " + jump.second) == 0;
        });
    };
    if (!found || std::any_of(found->begin(), found->end(), lacksBase)) {
        requireBase();
        return false;
    }
    if (access(kRunningReload, F_OK) == 0 ||
        std::any_of(found->begin(), found->end(),
                    [](const auto& family) { return isClosed(family.second); })) {
        return false;
    }
    std::vector<std::string> families;
    for (const auto& [family, unused] : *found) {
        families.push_back(family);
    }
    shared_ = SavedRules::of(*found).families();
    makeReady(*found);
    saves_ = std::make_unique<RuleSaves>(families);
    return true;
}

/// Puts the jumps first, and ends what a killed reload has left unless the machine is closed.
void ReloadGuard::makeReady(const Listings& found) {
    for (const auto& [family, listing] : found) {
        std::string lines = linesToLead(listing, "INPUT") + linesToLead(listing, "FORWARD");
        if (hasReloadingRules(listing) && !isClosed(listing)) {
            lines += std::string("-F ") + kReloadingChain + "\n";
        }
        commit(family, lines);
    }
}

void ReloadGuard::read(const Listings& found) {
    const SavedRules now = SavedRules::of(found);
    const bool closed = std::any_of(found.begin(), found.end(),
                                    [](const auto& family) { return isClosed(family.second); });
    if (std::optional<SavedRules> known = beforeKilledReload(found)) {
        before_ = std::move(*known);
    } else if (!closed) {
        before_ = now.withoutReloading();
    } else if (const std::optional<SavedRules> good = readableLastGood()) {
        before_ = opened(good->withoutReloading());
    } else {
        before_ = now;
        leftClosed_ = true;
    }
}

const SavedRules& ReloadGuard::before() const {
    if (!before_) {
        before_ = saves_->rules().withoutReloading();
    }
    return *before_;
}

SavedRules ReloadGuard::finish() const {
    const auto held = taken(lock_);
    const Listings now = MachineKernel().listFilters();
    settle(now);
    return SavedRules::of(now).withoutReloading();
}

/// Empties FIREWALL_RELOADING and puts the policies back.
void ReloadGuard::settle(const Listings& now) const {
    const std::map<std::string, FamilyRules> before =
        !before_ ? shared_ : (leftClosed_ ? opened(*before_) : *before_).families();
    for (const auto& [family, listing] : now) {
        std::string lines;
        if (hasReloadingRules(listing)) {
            lines += std::string("-F ") + kReloadingChain + "\n";
        }
        const auto old = before.find(family);
        if (old != before.end()) {
            for (const auto& [chain, policy] : old->second.policies) {
                if (!listing.hasPolicy(chain, policy)) {
                    lines.append(":").append(chain).append(" ").append(policy).append(" [0:0]\n");
                }
            }
        }
        commit(family, lines);
    }
    (void)unlink(kRunningReload);
}

void ReloadGuard::putBack() const {
    std::unique_ptr<FileLock> held;
    if (lock_ == Lock::kTake) {
        held = std::make_unique<FileLock>(kReloadLock, kLockSeconds);
    }
    before().putBack();  // without the lock, too: each family is one commit
    (void)unlink(kRunningReload);
}

void ReloadGuard::mend(bool enabled) const {
    if (!enabled) {
        (void)finish();
    } else if (!leftClosed_ && !isAsBefore()) {
        putBack();
    } else {
        (void)unlink(kRunningReload);
    }
}

bool ReloadGuard::isAsBefore() const {
    return SavedRules::inKernel() == before();
}

}  // namespace tarnfw
