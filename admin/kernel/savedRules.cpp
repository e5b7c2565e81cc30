#include "tarnfwadmin/savedRules.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

constexpr std::array kFamilies = {"v4", "v6"};
constexpr mode_t kLastGoodMode = 0600;

// The chains whose policies a reload changes.
const std::set<std::string> kPolicyChains = {"INPUT", "FORWARD"};

/// The part of a listing that belongs to the firewall.
FamilyRules ownPart(const RuleListing& listing) {
    FamilyRules own;
    for (const auto& [chain, policy] : listing.policies) {
        if (kPolicyChains.count(chain) != 0) {
            own.policies.emplace(chain, policy);
        }
    }
    for (const std::string& chain : wholeBase().chains) {
        if (listing.has(chain)) {
            own.chains.emplace(chain, listing.rulesOf(chain));
        }
    }
    return own;
}

std::vector<std::string> restoreLines(const FamilyRules& rules) {
    std::vector<std::string> lines = {"*filter"};
    for (const auto& [chain, policy] : rules.policies) {
        lines.push_back(boost::join(std::array{":" + chain, policy, std::string("[0:0]")}, " "));
    }
    for (const auto& [chain, unused] : rules.chains) {
        lines.push_back(":" + chain + " - [0:0]");
    }
    for (const auto& [unused, rulesOfChain] : rules.chains) {
        lines.insert(lines.end(), rulesOfChain.begin(), rulesOfChain.end());
    }
    lines.emplace_back("COMMIT");
    return lines;
}

[[noreturn]] void refuseDocument(const std::string& line) {
    throw Error(ErrorKind::kInvalid,
                "these are no saved rules" + (line.empty() ? "" : ": \"" + line + "\""));
}

/// Takes one line of a family's text, and nothing that would reach other chains.
void takeLine(FamilyRules& rules, const std::string& line) {
    std::istringstream words(line);
    std::string first;
    std::string second;
    words >> first >> second;
    const bool oneLine = line.find_first_of(std::string("\n\0", 2)) == std::string::npos;
    if (!oneLine || first.empty()) {
        refuseDocument(line);
    }
    if (first[0] == ':') {
        const std::string chain = first.substr(1);
        if (kPolicyChains.count(chain) != 0 && (second == "ACCEPT" || second == "DROP")) {
            rules.policies[chain] = second;
            return;
        }
        const std::vector<std::string>& own = wholeBase().chains;
        if (second == "-" && std::find(own.begin(), own.end(), chain) != own.end()) {
            rules.chains[chain];
            return;
        }
    } else if (first == "-A" && rules.has(second)) {
        rules.chains[second].push_back(line);
        return;
    }
    refuseDocument(line);
}

FamilyRules rulesOfLines(const Json::Value& lines) {
    FamilyRules rules;
    const Json::ArrayIndex count = lines.isArray() ? lines.size() : 0;
    if (count < 2 || lines[0U] != "*filter" || lines[count - 1] != "COMMIT") {
        refuseDocument("");
    }
    for (Json::ArrayIndex i = 1; i + 1 < count; ++i) {
        takeLine(rules, lines[i].isString() ? lines[i].asString() : "");
    }
    return rules;
}

}  // namespace

// ---- SavedRules ---------------------------------------------------------------------------------

SavedRules SavedRules::inKernel(const PacketFilter& kernel, PacketFilter::Others others) {
    return of(kernel.listFilters(others));
}

SavedRules SavedRules::of(const std::map<std::string, RuleListing>& listings) {
    SavedRules saved;
    for (const auto& [family, listing] : listings) {
        saved.families_.emplace(family, ownPart(listing));
    }
    return saved;
}

SavedRules SavedRules::from(const Json::Value& document) {
    if (!document.isObject()) {
        refuseDocument("");
    }
    SavedRules saved;
    for (const char* const family : kFamilies) {
        if (document.isMember(family)) {
            saved.families_.emplace(family, rulesOfLines(document[family]));
        }
    }
    return saved;
}

bool SavedRules::hasRules() const {
    return std::any_of(families_.begin(), families_.end(), [](const auto& family) {
        const auto& chains = FW::FW_FIREWALL_CHAINS;
        return std::any_of(chains.begin(), chains.end(), [&](const std::string& chain) {
            return !family.second.rulesOf(chain).empty();
        });
    });
}

SavedRules SavedRules::withoutPolicies() const {
    SavedRules copy = *this;
    for (auto& [unused, rules] : copy.families_) {
        rules.policies.clear();
    }
    return copy;
}

SavedRules SavedRules::withoutReloading() const {
    SavedRules copy = *this;
    for (auto& [unused, rules] : copy.families_) {
        if (rules.has(kReloadingChain)) {
            rules.chains[kReloadingChain].clear();
        }
    }
    return copy;
}

std::string SavedRules::restoreText(const std::string& family) const {
    const auto found = families_.find(family);
    return found == families_.end() ? std::string()
                                    : boost::join(restoreLines(found->second), "\n") + "\n";
}

Json::Value SavedRules::document() const {
    Json::Value document(Json::objectValue);
    for (const auto& [family, rules] : families_) {
        Json::Value& lines = document[family];
        for (const std::string& line : restoreLines(rules)) {
            lines.append(line);
        }
    }
    return document;
}

void SavedRules::putBack(const PacketFilter& kernel, PacketFilter::Others others) const {
    std::string failure;
    for (const auto& [family, unused] : families_) {
        try {
            const ProgramAnswer answer = kernel.restore(family, restoreText(family), others);
            if (answer.status == 0) {
                continue;
            }
            failure += failure.empty() ? "" : "; ";
            failure += titleOf(family) + ": " + oneLine(answer.errors);
        } catch (const Error& error) {
            failure += failure.empty() ? "" : "; ";
            failure += titleOf(family) + ": " + error.what();
        }
    }
    if (!failure.empty()) {
        throw Error(ErrorKind::kSystem, "the rules could not be put back: " + failure);
    }
}

// ---- The last good rules ------------------------------------------------------------------------

std::optional<SavedRules> lastGoodRules() {
    if (access(kLastGoodFile, F_OK) != 0 && errno == ENOENT) {
        return std::nullopt;
    }
    Json::Value document;
    if (!parseAsStored(readText(kLastGoodFile), document)) {
        throw Error(ErrorKind::kInvalid, std::string(kLastGoodFile) + " is damaged");
    }
    try {
        return SavedRules::from(document);
    } catch (const Error& error) {
        throw Error(ErrorKind::kInvalid, std::string(kLastGoodFile) + ": " + error.what());
    }
}

void storeLastGood(const SavedRules& rules) {
    const std::string text = documentText(rules.withoutPolicies().document());
    try {
        if (access(kLastGoodFile, F_OK) == 0 && readText(kLastGoodFile) == text) {
            return;
        }
    } catch (const Error&) {
        // it cannot be read, so it is replaced
    }
    writeFileAtomically(kLastGoodFile, text, kLastGoodMode, Existing::kReplaced);
}

void forgetLastGood() {
    if (unlink(kLastGoodFile) != 0 && errno != ENOENT) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot remove ") + kLastGoodFile + ": " + std::strerror(errno));
    }
}

}  // namespace tarnfw
