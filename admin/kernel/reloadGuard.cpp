#include "kernel/reloadGuard.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <boost/algorithm/string/predicate.hpp>

#include "fwXtablesLock.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

// The state before a reload, while it is running.
constexpr char kRunningReload[] = "/run/tarn/reload.json";
constexpr mode_t kPrivateMode = 0600;

// The library and the platform have waited for the lock of iptables already.
constexpr std::chrono::seconds kGoBackWait{3};

using Jump = std::pair<std::string, std::string>;

/// Makes a text for one commit of the filter table.
std::string transaction(const std::string& lines) {
    return "*filter\n" + lines + "COMMIT\n";
}

void commit(const std::string& family, const std::string& lines,
            PacketFilter::Others others = PacketFilter::Others::kAwaited) {
    if (lines.empty()) {
        return;
    }
    const ProgramAnswer answer = MachineKernel().restore(family, transaction(lines), others);
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
    auto file = std::make_unique<FileLock>(kReloadLock, kReloadLockSeconds);
    if (!file->held()) {
        throw Error(ErrorKind::kBusy, std::string("cannot lock ") + kReloadLock +
                                          ": another reload is running or stopped");
    }
    return file;
}

PacketFilter::Others othersFor(bool insists) {
    return insists ? PacketFilter::Others::kIgnored : PacketFilter::Others::kAwaited;
}

// ---- What a killed reload leaves ----

bool hasReloadingRules(const RuleListing& listing) {
    return !listing.rulesOf(kReloadingChain).empty();
}

/// The state before a reload that is running or was killed; nothing when none was.
std::optional<SavedRules> recordedBefore() {
    if (access(kRunningReload, F_OK) != 0) {
        return std::nullopt;
    }
    Json::Value document;
    try {
        if (!parseAsStored(readText(kRunningReload), document)) {
            return std::nullopt;
        }
        return SavedRules::from(document);
    } catch (const Error&) {
        return std::nullopt;  // truncated by a kill as well
    }
}

/// The chains whose policy is DROP, and was another before.
std::vector<std::string> closedSince(const SavedRules& before, const std::string& family,
                                     const RuleListing& listing) {
    std::vector<std::string> chains;
    const auto old = before.families().find(family);
    if (old != before.families().end()) {
        for (const auto& [chain, policy] : old->second.policies) {
            if (policy != "DROP" && listing.hasPolicy(chain, "DROP")) {
                chains.push_back(chain);
            }
        }
    }
    return chains;
}

/// The state before a reload that was killed; nothing when none was, or when it did not change the
/// policies.
std::optional<SavedRules> beforeKilledReload(const std::map<std::string, RuleListing>& found) {
    std::optional<SavedRules> before = recordedBefore();
    const bool closed = before && std::any_of(found.begin(), found.end(), [&](const auto& family) {
                            return !closedSince(*before, family.first, family.second).empty();
                        });
    return closed ? std::move(before) : std::nullopt;
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

// ---- A batch ----

// From this size of a table on, two programs that list half of it each are quicker than one.
constexpr std::size_t kManyBytes = 65536;

// What review() keeps: the texts, this line with the family before each, and the other at the end.
constexpr char kFamilyMark[] = "\n# family ";
constexpr char kEndMark[] = "\n# end\n";
constexpr char kClosedMark[] = "# closed\n";  // instead of all that, after a killed reload

/// What iptables-save wrote, without the rules of the firewall's two chains.
std::string sharedPart(std::string_view saved) {
    std::string part;
    while (!saved.empty()) {
        const std::string_view line = saved.substr(0, saved.find('\n'));
        saved.remove_prefix(std::min(line.size() + 1, saved.size()));
        const std::size_t rule = std::min(line.find("-A "), line.size());
        if (!boost::starts_with(line.substr(rule), "-A INPUT_FIREWALL ") &&
            !boost::starts_with(line.substr(rule), "-A FORWARD_FIREWALL ")) {
            part.append(line).append("\n");
        }
    }
    return part;
}

/// The rules in what review() keeps.
SavedRules savedIn(const std::string& text) {
    std::map<std::string, RuleListing> listings;
    std::size_t mark = text.find(kFamilyMark);
    while (mark != std::string::npos) {
        const std::size_t name = mark + std::strlen(kFamilyMark);
        const std::size_t begin = text.find('\n', name);
        mark = text.find(kFamilyMark, begin);
        listings.emplace(text.substr(name, begin - name),
                         RuleListing::fromSaved(text.substr(begin, mark - begin)));
    }
    return SavedRules::of(listings);
}

/// The chains of the base filter of families with a table of this many bytes; where one has no
/// such chain, the whole tables.
std::map<std::string, RuleListing> listOwn(const std::map<std::string, std::size_t>& bytes) {
    std::map<std::string, PacketFilter::ChainGroups> chains;
    for (const auto& [family, count] : bytes) {
        chains[family] =
            count < kManyBytes
                ? PacketFilter::ChainGroups{{"INPUT", "INPUT_FIREWALL", kReloadingChain, "FORWARD",
                                             "FORWARD_FIREWALL"}}
                : PacketFilter::ChainGroups{{"INPUT", "INPUT_FIREWALL", kReloadingChain},
                                            {"FORWARD", "FORWARD_FIREWALL"}};
    }
    const auto found = MachineKernel().listChains(chains);
    return found ? *found : MachineKernel().listFilters();
}

}  // namespace

std::vector<std::string> closedPolicies(const std::string& family, const RuleListing& listing) {
    const std::optional<SavedRules> before = recordedBefore();
    return before ? closedSince(*before, family, listing) : std::vector<std::string>();
}

// ---- ReloadGuard --------------------------------------------------------------------------------

ReloadGuard::ReloadGuard(Lock lock, Change change) : lock_(lock) {
    const auto held = taken(lock_);
    if (change == Change::kBatch && !isThere(kRunningReload)) {
        saved_ = memoryFile("rules");
        return;
    }
    const Listings found = MachineKernel().listFilters();
    read(found);
    makeReady(found);
    makeDirectory(kRunDir);
    writeFileAtomically(kRunningReload, documentText(before().document()), kPrivateMode,
                        Existing::kReplaced);
}

bool ReloadGuard::review(const std::map<std::string, std::string_view>& saved) {
    if (!saved_) {
        return true;
    }
    Listings shared;
    std::string kept;
    for (const auto& [family, text] : saved) {
        const auto& [here, unused] =
            shared.emplace(family, RuleListing::fromSaved(sharedPart(text)));
        BaseFilter(family, here->second).requireWhole();
        bytes_[family] = text.size();
        kept.append(kFamilyMark).append(family).append("\n").append(text);
    }
    const bool closed = std::any_of(shared.begin(), shared.end(), [](const auto& family) {
        return dropsAllButEstablished(family.second);
    });
    if (!writeText(saved_.get(), closed ? kClosedMark : kept + kEndMark)) {
        throw Error(ErrorKind::kSystem, "the previous rules could not be kept");
    }
    shared_ = SavedRules::of(shared).families();
    return !closed;
}

/// What review() has kept; empty when the change did not come so far.
std::string ReloadGuard::reviewed() const {
    std::string text;
    if (saved_ && (lseek(saved_.get(), 0, SEEK_SET) != 0 || !readAll(saved_.get(), text))) {
        throw Error(ErrorKind::kSystem, "the previous rules cannot be read");
    }
    return boost::ends_with(text, kEndMark) || text == kClosedMark ? text : "";
}

bool ReloadGuard::needsMore() const {
    return reviewed() == kClosedMark;
}

/// Puts the jumps first, and ends what a killed reload has left unless the machine is closed.
void ReloadGuard::makeReady(const Listings& found) {
    for (const auto& [family, listing] : found) {
        std::string lines = linesToLead(listing, "INPUT") + linesToLead(listing, "FORWARD");
        if (hasReloadingRules(listing) && !dropsAllButEstablished(listing)) {
            lines += std::string("-F ") + kReloadingChain + "\n";
        }
        commit(family, lines);
    }
}

void ReloadGuard::read(const Listings& found) {
    const SavedRules now = SavedRules::of(found);
    const bool closed = std::any_of(found.begin(), found.end(), [](const auto& family) {
        return dropsAllButEstablished(family.second);
    });
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
        const std::string text = reviewed();
        // Without a review nothing has changed.
        before_ = (text.empty() ? SavedRules::of(listNow()) : savedIn(text)).withoutReloading();
    }
    return *before_;
}

SavedRules ReloadGuard::finish() const {
    const auto held = taken(lock_);
    const Listings now = bytes_.empty() ? listNow() : listOwn(bytes_);
    settle(now);
    return SavedRules::of(now).withoutReloading();
}

/// Empties FIREWALL_RELOADING, and puts the policies back and the jumps first.
void ReloadGuard::settle(const Listings& now) const {
    const auto iptables = lockIfFree();
    const std::map<std::string, FamilyRules> before =
        !before_ ? shared_ : (leftClosed_ ? opened(*before_) : *before_).families();
    for (const auto& [family, listing] : now) {
        std::string lines = linesToLead(listing, "INPUT") + linesToLead(listing, "FORWARD");
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
        commit(family, lines, othersFor(insists_));
    }
    (void)unlink(kRunningReload);
}

void ReloadGuard::insist() {
    insists_ = true;
    (void)lockIfFree();
}

/// The lock of iptables while going back; nothing when the programs take it themselves.
std::unique_ptr<FW::XtablesLock> ReloadGuard::lockIfFree() const {
    if (!insists_) {
        return nullptr;
    }
    auto lock =
        std::make_unique<FW::XtablesLock>(lockIsKept_ ? std::chrono::seconds(0) : kGoBackWait);
    if (!lock->held() && !lockIsKept_) {
        lockIsKept_ = true;
        syslog(LOG_ERR, "%s is kept by another process: going back without it",
               FW::kXtablesLockPath);
    }
    return lock;
}

ReloadGuard::Listings ReloadGuard::listNow() const {
    return MachineKernel().listFilters(othersFor(insists_));
}

void ReloadGuard::putBack() const {
    std::unique_ptr<FileLock> held;
    if (lock_ == Lock::kTake) {
        held = std::make_unique<FileLock>(kReloadLock, kReloadLockSeconds);
    }
    // Without that lock, too: each family is one commit.
    const auto iptables = lockIfFree();
    before().putBack(MachineKernel(), othersFor(insists_));
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
    if (saved_ && reviewed().empty()) {
        return true;
    }
    return SavedRules::of(listNow()) == before();
}

}  // namespace tarnfw
