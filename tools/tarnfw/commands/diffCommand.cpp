/// tarnfw diff: compares the kernel's rules with what the active profile would put there.
#include <algorithm>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/foreignRules.h"
#include "tarnfwadmin/ruleDiff.h"
#include "tarnfwadmin/scratchKernel.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

constexpr char kFilter[] = "filter";
constexpr const char* kPolicyChains[] = {"INPUT", "FORWARD"};
constexpr char kAccept[] = "ACCEPT";
constexpr char kDrop[] = "DROP";
constexpr std::size_t kContext = 1;  // lines shown around a difference

struct ChainDifference {
    std::string family;
    TableAndChain place;
    std::vector<RuleEdit> edits;
};

RuleListing listingOf(const PacketFilter& filter, const std::string& family,
                      const std::string& table) {
    try {
        return filter.list(family, table);
    } catch (const Error&) {
        if (table == kFilter) {
            throw Error(ErrorKind::kSystem,
                        "the " + titleOf(family) + " rules of the kernel cannot be listed");
        }
        return {};  // there is no such table
    }
}

/// The chains besides the firewall's own that a profile's rules are added to, by family.
std::set<TableAndChain> otherPlaces(const std::vector<TracedLine>& lines,
                                    const std::string& family) {
    std::set<TableAndChain> places;
    for (const TracedLine& line : lines) {
        const TableAndChain place = chainOf(line.line);
        if (line.family == family && !isFirewallChain(place)) {
            places.insert(place);
        }
    }
    return places;
}

/// What a profile puts into the kernel, as a scratch kernel lists it.
class WantedRules {
public:
    WantedRules(const StoreSnapshot& store, const PacketFilter& machine)
        : mode_(store.applyMode()),
          lines_(tracedLines(store.profile(""), mode_)),
          machine_(machine),
          families_(machine.families()) {
        if (!loadAtOnce(store.profile(""))) {
            loadLineByLine();
        }
    }

    const std::vector<std::string>& families() const { return families_; }
    const std::vector<TracedLine>& lines() const { return lines_; }
    std::size_t refused() const { return refused_; }

    /// Where the first of these lines comes from: "rule 3 of eth0"; empty without one.
    const std::string& firstRefused() const { return firstRefused_; }
    RuleListing listing(const std::string& family, const std::string& table) const {
        return listingOf(*kernel_, family, table);
    }

private:
    /// A new scratch kernel, with the chains that others have added on this machine.
    void makeKernel() {
        kernel_.reset();
        kernel_ = std::make_unique<ScratchKernel>();
        for (const std::string& family : families_) {
            for (const auto& [table, chain] : otherPlaces(lines_, family)) {
                if (listingOf(machine_, family, table).has(chain)) {
                    // Fails for a built-in chain, which exists.
                    (void)kernel_->run(family, {"-t", table, "-N", chain});
                }
            }
        }
    }

    bool loadAtOnce(const FW::FWPROFILE& profile) {
        Json::Value commands;
        if (!commandsFor(profile, mode_, commands)) {
            return false;
        }
        const Progress progress("Loading the rules of \"" + profile.name + "\"");
        makeKernel();
        return std::all_of(families_.begin(), families_.end(), [&](const std::string& family) {
            const std::string text = FW::FW_BATCH().restoreText(commands, family);
            return !text.empty() && kernel_->restore(family, text).status == 0;
        });
    }

    /// Loads each line alone, and counts those that the kernel refuses.
    void loadLineByLine() {
        makeKernel();
        Progress progress("Loading lines", lines_.size());
        for (const TracedLine& line : lines_) {
            const bool wanted =
                std::find(families_.begin(), families_.end(), line.family) != families_.end();
            if (wanted && !kernel_->load(line).empty()) {
                if (refused_++ == 0) {
                    firstRefused_ = line.place.adapter.empty() ? "a line of every profile"
                                                               : placeText(line.place);
                }
            }
            progress.step();
        }
    }

    ApplyMode mode_;
    std::vector<TracedLine> lines_;
    const PacketFilter& machine_;
    std::vector<std::string> families_;  ///< those that it has
    std::unique_ptr<ScratchKernel> kernel_;
    std::size_t refused_ = 0;
    std::string firstRefused_;
};

// ---- Comparison ---------------------------------------------------------------------------------

/// The chains that belong to the firewall alone.
std::vector<std::string> ownChains() {
    std::vector<std::string> chains = FW::FW_FIREWALL_CHAINS;
    chains.emplace_back(kReloadingChain);
    return chains;
}

class Comparison {
public:
    /// Of a family while the firewall is enabled.
    void compare(const std::string& family, const PacketFilter& machine,
                 const WantedRules& wanted) {
        const RuleListing held = listingOf(machine, family, kFilter);
        const RuleListing wantedFilter = wanted.listing(family, kFilter);
        std::set<TableAndChain> others = otherPlaces(wanted.lines(), family);
        noteClosed(family, held);
        for (const char* const chain : kPolicyChains) {
            std::vector<RuleEdit> edits = changedPolicyEdits(family, chain, held);
            append(edits, aheadEdits(family, chain, held));
            append(edits, missingFrom(wantedFilter.rulesOf(chain), held.rulesOf(chain)));
            add(family, {kFilter, chain}, edits);
            others.erase({kFilter, chain});
        }
        for (const std::string& chain : ownChains()) {
            std::vector<RuleEdit> edits;
            if (!held.has(chain)) {
                edits.push_back({'-', "-N " + chain, 0});
            }
            append(edits, editsBetween(wantedFilter.rulesOf(chain), held.rulesOf(chain)));
            add(family, {kFilter, chain}, edits);
        }
        for (const TableAndChain& place : others) {
            add(family, place,
                missingFrom(wanted.listing(family, place.first).rulesOf(place.second),
                            listingOf(machine, family, place.first).rulesOf(place.second)));
        }
    }

    /// Of a family while it is disabled.
    void compareDisabled(const std::string& family, const PacketFilter& machine) {
        const RuleListing held = listingOf(machine, family, kFilter);
        noteClosed(family, held);
        for (const char* const chain : kPolicyChains) {
            add(family, {kFilter, chain}, changedPolicyEdits(family, chain, held));
        }
        for (const std::string& chain : ownChains()) {
            add(family, {kFilter, chain}, editsBetween({}, held.rulesOf(chain)));
        }
    }

    const std::vector<ChainDifference>& differences() const { return differences_; }

    /// Whether a family is as a reload in apply mode "lines" leaves it while it runs, or when it
    /// was killed.
    bool isClosed() const { return isClosed_; }

private:
    static std::vector<RuleEdit> policyEdits(const std::string& chain, const std::string& wanted,
                                             const std::string& held) {
        return {{'-', "-P " + chain + " " + wanted, 0}, {'+', "-P " + chain + " " + held, 0}};
    }

    /// A policy that was DROP before the firewall, and that some program's reload made ACCEPT.
    static std::vector<RuleEdit> openedEdits(const std::string& family, const std::string& chain,
                                             const RuleListing& held) {
        const std::vector<std::string> opened = openedPolicies(family, held);
        return std::find(opened.begin(), opened.end(), chain) == opened.end()
                   ? std::vector<RuleEdit>()
                   : policyEdits(chain, kDrop, kAccept);
    }

    /// Any other policy that others have set is theirs; only an interrupted reload's is a
    /// difference.
    static std::vector<RuleEdit> changedPolicyEdits(const std::string& family,
                                                    const std::string& chain,
                                                    const RuleListing& held) {
        const auto policy = held.policies.find(chain);
        if (policy == held.policies.end() || policy->second == kAccept) {
            return openedEdits(family, chain, held);
        }
        const std::vector<std::string> closed = closedPolicies(family, held);
        const bool ofReload = std::find(closed.begin(), closed.end(), chain) != closed.end() ||
                              !held.rulesOf(kReloadingChain).empty();
        return ofReload ? policyEdits(chain, kAccept, policy->second) : std::vector<RuleEdit>();
    }

    void noteClosed(const std::string& family, const RuleListing& held) {
        isClosed_ = isClosed_ || BaseFilter(family, held).isClosed();
    }

    /// Rules of others that may accept packets before they meet the firewall's.
    static std::vector<RuleEdit> aheadEdits(const std::string& family, const std::string& chain,
                                            const RuleListing& held) {
        std::vector<RuleEdit> edits;
        for (const EarlyAccept& accept :
             ForeignRules(family, held, RuleListing()).anyEarlyAccepts()) {
            if (accept.chain == chain) {
                const std::string& rule = accept.rules.front();
                edits.push_back({'+', rule, held.positionOf(chain, rule)});
            }
        }
        return edits;
    }

    static void append(std::vector<RuleEdit>& edits, const std::vector<RuleEdit>& more) {
        edits.insert(edits.end(), more.begin(), more.end());
    }

    void add(const std::string& family, const TableAndChain& place,
             const std::vector<RuleEdit>& edits) {
        if (hasDifferences(edits)) {
            differences_.push_back({family, place, edits});
        }
    }

    std::vector<ChainDifference> differences_;
    bool isClosed_ = false;
};

// ---- Output -------------------------------------------------------------------------------------

/// What the kernel was compared with.
struct Compared {
    bool enabled;
    std::string profile;
    std::size_t refused = 0;
    std::string firstRefused = {};
};

/// Whether a line is a difference or near one.
bool isShown(const std::vector<RuleEdit>& edits, std::size_t index) {
    const std::size_t first = index - std::min(index, kContext);
    const std::size_t end = std::min(index + kContext + 1, edits.size());
    return std::any_of(edits.begin() + static_cast<std::ptrdiff_t>(first),
                       edits.begin() + static_cast<std::ptrdiff_t>(end),
                       [](const RuleEdit& edit) { return edit.mark != ' '; });
}

void printChain(const ChainDifference& difference) {
    const auto& [table, chain] = difference.place;
    std::cout << painted(titleOf(difference.family) + ", chain " + printable(chain) +
                             (table == kFilter ? "" : ", table " + printable(table)),
                         Paint::kStrong)
              << '\n';
    bool gap = false;
    for (std::size_t i = 0; i < difference.edits.size(); ++i) {
        const RuleEdit& edit = difference.edits[i];
        if (!isShown(difference.edits, i)) {
            gap = true;
            continue;
        }
        if (gap) {
            std::cout << "  ...\n";
            gap = false;
        }
        const Paint paint = edit.mark == '-'   ? Paint::kBad
                            : edit.mark == '+' ? Paint::kGood
                                               : Paint::kPlain;
        std::cout << painted(std::string(1, edit.mark) + " " + printable(edit.line), paint) << '\n';
    }
    if (gap) {
        std::cout << "  ...\n";
    }
}

void printText(const Compared& compared, const std::vector<ChainDifference>& differences) {
    const std::string profile = "profile " + inQuotes(compared.profile);
    if (differences.empty()) {
        std::cout << (compared.enabled ? "The kernel agrees with " + profile + "\n"
                                       : "The firewall is disabled and its chains are empty\n");
        return;
    }
    std::cout << "--- " << (compared.enabled ? profile : "firewall disabled") << '\n'
              << "+++ kernel\n";
    for (const ChainDifference& difference : differences) {
        printChain(difference);
    }
}

void printDocument(const Compared& compared, const std::vector<ChainDifference>& differences) {
    Json::Value document;
    document["agree"] = differences.empty();
    document["enabled"] = compared.enabled;
    document["profile"] = compared.profile;
    document["refusedLines"] = static_cast<Json::UInt>(compared.refused);
    document["differences"] = Json::Value(Json::arrayValue);
    for (const ChainDifference& difference : differences) {
        for (const RuleEdit& edit : difference.edits) {
            if (edit.mark == ' ') {
                continue;
            }
            Json::Value entry;
            entry["family"] = difference.family;
            entry["table"] = difference.place.first;
            entry["chain"] = difference.place.second;
            entry["change"] = edit.mark == '-' ? "missing" : "extra";
            entry["rule"] = edit.line;
            entry["position"] = edit.position == 0
                                    ? Json::Value()
                                    : Json::Value(static_cast<Json::UInt>(edit.position));
            document["differences"].append(entry);
        }
    }
    printJson(document);
}

void diff(bool json) {
    requireKernelRights();
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    const MachineKernel machine;
    Compared compared{store.firewallEnabled(), store.activeProfile()};
    Comparison comparison;
    if (compared.enabled) {
        const WantedRules wanted(store, machine);
        compared.refused = wanted.refused();
        compared.firstRefused = wanted.firstRefused();
        for (const std::string& family : wanted.families()) {
            comparison.compare(family, machine, wanted);
        }
    } else {
        for (const std::string& family : machine.families()) {
            comparison.compareDisabled(family, machine);
        }
    }
    if (json) {
        printDocument(compared, comparison.differences());
    } else {
        printText(compared, comparison.differences());
        if (compared.refused > 0) {
            warn(compared.firstRefused + ": this kernel refuses " +
                 counted(compared.refused, "line") +
                 " of the profile; \"tarnfw check --kernel\" shows why");
        }
    }
    if (comparison.isClosed() && !isLocked(kReloadLock)) {
        std::cerr << "tarnfw: " << interruptedText(compared.enabled) << '\n';
    }
    if (!comparison.differences().empty()) {
        endWith(kExitBlocked);
    }
}

}  // namespace

void addDiffCommand(Command& app) {
    Command& command = app.subcommand(
        "diff",
        "Compare the kernel with what the active profile would put there, or with empty chains "
        "while the firewall is disabled. Lines with - are missing in the kernel; lines with + are "
        "in the kernel but not in the profile. Exit status 0 when both agree, else 10");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.footer(
        "The profile is loaded into a separate network namespace, so that the kernel lists both "
        "sides. This compares the firewall's chains in their order, the policies of INPUT and "
        "FORWARD, the jumps of the base filter and what other programs accept before them, and the "
        "profile's rules in other chains.");
    command.run([json] { diff(*json); });
}

}  // namespace tarnfw
