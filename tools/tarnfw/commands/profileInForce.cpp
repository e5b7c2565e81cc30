#include "commands/profileInForce.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <string>

#include <json/json.h>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/inForce.h"
#include "tarnfwadmin/savedRules.h"
#include "tarnfwadmin/storeHistory.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

/// Translating takes time; a machine is rarely so many changes behind.
constexpr std::size_t kMostTried = 12;

/// Looks for the profile of some rules.
class Search {
public:
    Search(const SavedRules& rules, ApplyMode mode) : rules_(rules), mode_(mode) {}

    bool isOver() const { return found_ || tried_ >= kMostTried; }
    const std::optional<FW::FWPROFILE>& found() const { return found_; }

    void tryProfile(const FW::FWPROFILE& profile) {
        ++tried_;
        Json::Value commands;
        if (commandsFor(profile, mode_, commands) && hasTranslation(rules_, commands)) {
            found_ = profile;
        }
    }

    /// A document of the store; those that are no profiles are left out.
    void tryDocument(const std::string& text) {
        Json::Value document;
        if (!parseAsStored(text, document) || !document.isObject() || !document.isMember("rules")) {
            return;
        }
        try {
            FW::FWPROFILE profile;
            FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
            tryProfile(profile);
        } catch (const Json::Exception&) {
            // a value of a wrong type: it was never in force
        }
    }

private:
    const SavedRules& rules_;
    ApplyMode mode_;
    std::size_t tried_ = 0;
    std::optional<FW::FWPROFILE> found_;
};

/// Whether a reload in apply mode "lines" was interrupted: packets do not meet the rules alone.
bool isClosed(const SavedRules& rules) {
    return std::any_of(rules.families().begin(), rules.families().end(), [](const auto& family) {
        return !family.second.rulesOf(kReloadingChain).empty();
    });
}

void tryEarlier(Search& search, const StoreSnapshot& store) {
    const StoreHistory history;
    for (const HistoryEntry& entry : history.entries()) {
        const StoreChange change = history.changeOf(entry.number, store);
        for (const auto& [path, text] : change.before) {
            if (search.isOver()) {
                return;
            }
            if (path != kSettingsFile) {
                search.tryDocument(text);
            }
        }
    }
}

/// The likely ones first.
std::optional<FW::FWPROFILE> profileWith(const SavedRules& rules, ApplyMode mode,
                                         const std::optional<FW::FWPROFILE>& likely,
                                         const StoreSnapshot& store) {
    Search search(rules, mode);
    if (likely) {
        search.tryProfile(*likely);
    }
    if (!search.isOver()) {
        tryEarlier(search, store);
    }
    for (const std::string& name : store.profileNames()) {
        if (!search.isOver()) {
            search.tryProfile(store.profile(name));
        }
    }
    return search.found();
}

}  // namespace

std::optional<FW::FWPROFILE> profileInForce(const std::optional<FW::FWPROFILE>& likely,
                                            const StoreSnapshot& store) {
    try {
        const SavedRules rules = SavedRules::inKernel();
        if (isClosed(rules)) {
            return std::nullopt;
        }
        if (!rules.hasRules()) {
            return FW::FWPROFILE();
        }
        // As hasActiveProfile(): in mode "lines" both are possible.
        std::optional<FW::FWPROFILE> found = profileWith(rules, ApplyMode::kBatch, likely, store);
        return found || store.applyMode() == ApplyMode::kBatch
                   ? found
                   : profileWith(rules, ApplyMode::kLines, likely, store);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace tarnfw
