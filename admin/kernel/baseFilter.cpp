#include "tarnfwadmin/baseFilter.h"

#include <algorithm>
#include <array>
#include <future>

#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/baseRecord.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

constexpr char kFilter[] = "filter";

std::string jumpLine(const std::pair<std::string, std::string>& jump) {
    return "-A " + jump.first + " -j " + jump.second;
}

bool hasJump(const RuleListing& listing, const std::pair<std::string, std::string>& jump) {
    return listing.positionOf(jump.first, jumpLine(jump)) != 0;
}

std::size_t reloadingPosition(const RuleListing& listing, const std::string& chain) {
    return listing.positionOf(chain, jumpLine({chain, kReloadingChain}));
}

/// The chains of a family whose policy was DROP at "base up".
std::vector<std::string> droppingAtBaseUp(const std::string& family) {
    std::vector<std::string> chains;
    try {
        BaseRecord record = loadBaseRecord();
        for (const auto& [chain, policy] : record[family].policies) {
            if (policy == "DROP") {
                chains.push_back(chain);
            }
        }
    } catch (const Error&) {
        chains.clear();  // a reload is not refused for it
    }
    return chains;
}

}  // namespace

std::string BaseFilter::title() const {
    return titleOf(key_);
}

BaseParts BaseFilter::missing() const {
    BaseParts parts;
    for (const std::string& chain : wholeBase().chains) {
        if (!listing().has(chain)) {
            parts.chains.push_back(chain);
        }
    }
    for (const auto& jump : wholeBase().jumps) {
        if (!hasJump(listing(), jump)) {
            parts.jumps.push_back(jump);
        }
    }
    return parts;
}

void BaseFilter::requireWhole() const {
    const BaseParts parts = missing();
    if (!parts.empty()) {
        throw Error(ErrorKind::kSystem,
                    "the base filter is not set up (" + title() + " lacks " + describe(parts) + ")",
                    {}, Remedy::kAddBase);
    }
}

bool BaseFilter::inOrder() const {
    const auto& jumps = wholeBase().jumps;
    return std::all_of(jumps.begin(), jumps.end(), [&](const auto& jump) {
        return reloadingPosition(listing(), jump.first) <=
               listing().positionOf(jump.first, jumpLine(jump));
    });
}

std::size_t BaseFilter::loadedRules() const {
    std::size_t rules = 0;
    for (const std::string& chain : FW::FW_FIREWALL_CHAINS) {
        rules += listing().rulesOf(chain).size();
    }
    return rules;
}

bool BaseFilter::isClosed() const {
    return dropsAllButEstablished(listing()) || !closedPolicies(key_, listing()).empty();
}

std::map<std::string, std::string> BaseFilter::policies() const {
    std::map<std::string, std::string> policies;
    for (const char* const chain : {"INPUT", "FORWARD"}) {
        const auto policy = listing().policies.find(chain);
        if (policy != listing().policies.end()) {
            policies.insert(*policy);
        }
    }
    return policies;
}

void BaseFilter::setPolicy(const std::string& chain, const std::string& policy) {
    run({"-P", chain, policy});
}

void BaseFilter::add(const BaseParts& parts) {
    for (const std::string& chain : parts.chains) {
        run({"-N", chain});
    }
    for (const auto& [chain, target] : parts.jumps) {
        // Ahead of what others filter; a jump to a firewall chain goes after FIREWALL_RELOADING's,
        // which is at position 0 if it is missing.
        const std::size_t position =
            target == kReloadingChain ? 1 : reloadingPosition(listing(), chain) + 1;
        run({"-I", chain, std::to_string(position), "-j", target});
    }
}

void BaseFilter::remove(const BaseParts& parts) {
    const RuleListing before = listing();
    for (const auto& jump : parts.jumps) {
        if (hasJump(before, jump)) {
            run({"-D", jump.first, "-j", jump.second});
        }
    }
    for (const std::string& chain : parts.chains) {
        if (before.has(chain)) {
            run({"-F", chain});
            run({"-X", chain});
        }
    }
}

const RuleListing& BaseFilter::listing() const {
    if (!listing_) {
        listing_ = MachineKernel().list(key_, kFilter);
    }
    return *listing_;
}

void BaseFilter::run(const std::vector<std::string>& arguments) {
    listing_.reset();
    std::vector<std::string> words = {"-t", kFilter};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const ProgramAnswer answer = MachineKernel().run(key_, words);
    if (answer.status != 0) {
        throw Error(ErrorKind::kSystem, "this command failed: " + programOf(key_) + " " +
                                            boost::join(words, " ") + becauseOf(answer));
    }
}

const BaseParts& wholeBase() {
    static const BaseParts base = {
        {kReloadingChain, "INPUT_FIREWALL", "FORWARD_FIREWALL"},
        {{"INPUT", kReloadingChain},
         {"INPUT", "INPUT_FIREWALL"},
         {"FORWARD", kReloadingChain},
         {"FORWARD", "FORWARD_FIREWALL"}},
    };
    return base;
}

std::vector<BaseFilter> baseFilters(PacketFilter::Others others) {
    std::vector<BaseFilter> filters;
    for (auto& [family, listing] : MachineKernel().listFilters(others)) {
        filters.emplace_back(family, std::move(listing));
    }
    return filters;
}

void requireBase() {
    const auto listingOf = [](const char* family, const char* chain) {
        return std::async(std::launch::async, [family, chain] {
            using Chains = decltype(RuleListing::chains);
            try {
                return std::optional<Chains>(MachineKernel().list(family, kFilter, chain).chains);
            } catch (const Error&) {
                if (MachineKernel().isAbsent(family)) {
                    return std::optional<Chains>();
                }
                throw;
            }
        });
    };
    // All at once: most of the time goes into the start of the programs.
    std::array listings = {listingOf("v4", "INPUT"), listingOf("v4", "FORWARD"),
                           listingOf("v6", "INPUT"), listingOf("v6", "FORWARD")};
    std::size_t next = 0;
    for (const char* const family : {"v4", "v6"}) {
        auto input = listings[next++].get();
        auto forward = listings[next++].get();
        if (!input || !forward) {
            continue;  // the machine does not have the family
        }
        RuleListing listing;
        listing.chains = std::move(*input);
        listing.chains.merge(*forward);
        const auto& jumps = wholeBase().jumps;
        if (std::all_of(jumps.begin(), jumps.end(),
                        [&](const auto& jump) { return hasJump(listing, jump); })) {
            continue;
        }
        BaseFilter(family).requireWhole();
    }
}

bool dropsAllButEstablished(const RuleListing& listing) {
    const std::vector<std::string>& rules = listing.rulesOf(kReloadingChain);
    return (listing.hasPolicy("INPUT", "DROP") || listing.hasPolicy("FORWARD", "DROP")) &&
           std::any_of(rules.begin(), rules.end(), [](const std::string& rule) {
               return rule.find("ESTABLISHED") != std::string::npos;
           });
}

std::vector<std::string> openedPolicies(const std::string& family, const RuleListing& listing) {
    std::vector<std::string> opened;
    for (const std::string& chain : droppingAtBaseUp(family)) {
        if (listing.hasPolicy(chain, "ACCEPT")) {
            opened.push_back(chain);
        }
    }
    return opened;
}

std::vector<std::string> closeOpenedPolicies() {
    if (droppingAtBaseUp("v4").empty() && droppingAtBaseUp("v6").empty()) {
        return {};  // as nearly always: nothing has to be listed
    }
    const FileLock lock(kReloadLock, kReloadLockSeconds);
    if (!lock.held()) {
        throw Error(ErrorKind::kBusy,
                    std::string("cannot lock ") + kReloadLock +
                        ": a reload is running or stopped; policies were not put back");
    }
    std::vector<std::string> closed;
    for (const auto& [family, listing] : MachineKernel().listFilters()) {
        for (const std::string& chain : openedPolicies(family, listing)) {
            BaseFilter(family).setPolicy(chain, "DROP");
            closed.push_back(chain + " of " + titleOf(family));
        }
    }
    return closed;
}

std::string describe(const BaseParts& parts) {
    std::vector<std::string> jumps;
    for (const auto& [chain, target] : parts.jumps) {
        jumps.push_back(boost::join(std::array{chain, target}, " -> "));
    }
    std::vector<std::string> kinds;
    if (!parts.chains.empty()) {
        kinds.push_back("chains " + boost::join(parts.chains, ", "));
    }
    if (!jumps.empty()) {
        kinds.push_back("jumps " + boost::join(jumps, ", "));
    }
    return kinds.empty() ? "nothing" : boost::join(kinds, "; ");
}

}  // namespace tarnfw
