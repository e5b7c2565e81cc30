#include "tarnfwadmin/savedRules.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

constexpr std::array kFamilies = {"v4", "v6"};
constexpr mode_t kLastGoodMode = 0600;

// Of a restore text.
constexpr char kFirstLine[] = "*filter\n";
constexpr char kLastLine[] = "COMMIT\n";

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

std::string restoreTextOf(const FamilyRules& rules) {
    std::string text = kFirstLine;
    for (const auto& [chain, policy] : rules.policies) {
        text.append(":").append(chain).append(" ").append(policy).append(" [0:0]\n");
    }
    for (const auto& [chain, unused] : rules.chains) {
        text.append(":").append(chain).append(" - [0:0]\n");
    }
    for (const auto& [unused, rulesOfChain] : rules.chains) {
        for (const std::string& rule : rulesOfChain) {
            text.append(rule).append("\n");
        }
    }
    return text + kLastLine;
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
    if (first.empty() || line.find('\0') != std::string::npos) {
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

FamilyRules rulesOfText(const std::string& text) {
    if (!boost::starts_with(text, kFirstLine) ||
        !boost::ends_with(text, std::string("\n") + kLastLine)) {
        refuseDocument("");
    }
    FamilyRules rules;
    const std::size_t end = text.size() - std::strlen(kLastLine);
    for (std::size_t begin = std::strlen(kFirstLine); begin < end;) {
        const std::size_t next = text.find('\n', begin);
        takeLine(rules, text.substr(begin, next - begin));
        begin = next + 1;
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
            const Json::Value& text = document[family];
            saved.families_.emplace(family, rulesOfText(text.isString() ? text.asString() : ""));
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
    return found == families_.end() ? std::string() : restoreTextOf(found->second);
}

Json::Value SavedRules::document() const {
    Json::Value document(Json::objectValue);
    for (const auto& [family, rules] : families_) {
        document[family] = restoreTextOf(rules);
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
    const std::optional<std::string> text = readTextIfAny(kLastGoodFile);
    if (!text) {
        return std::nullopt;
    }
    Json::Value document;
    if (!parseAsStored(*text, document)) {
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
        if (readTextIfAny(kLastGoodFile) == text) {
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
