#include "tarnfwadmin/storeDifference.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/ruleDiff.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Kind = StoreDifference::Kind;
using Differences = std::vector<StoreDifference>;

std::string settingText(const Json::Value& value) {
    if (value.isString()) {
        return value.asString();
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return value.isNull() ? "-" : Json::writeString(builder, value);
}

/// A setting as people call it: "firewall: disabled -> enabled". Empty where both values mean the
/// same: without "status" the firewall is disabled.
std::string changeText(const SettingDifference& difference) {
    if (difference.setting == "status") {
        const bool before = difference.before == "true";
        const bool after = difference.after == "true";
        return before == after ? ""
               : after         ? "firewall: disabled -> enabled"
                               : "firewall: enabled -> disabled";
    }
    const std::string name = difference.setting == "profile" ? "active profile"
                             : difference.setting == "apply"
                                 ? "apply mode"
                                 : "setting " + inQuotes(difference.setting);
    return name + ": " + difference.before + " -> " + difference.after;
}

// ---- Rules --------------------------------------------------------------------------------------

/// An adapter's rules: what identifies each, its words, and its protocol, which the words leave out
/// where services have protocols of their own; an update of the services sets it.
struct RuleList {
    std::vector<std::string> keys;
    std::vector<std::string> texts;
    std::vector<std::string> protocols;
};

template <typename List>
bool contains(const List& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

/// The words of a rule, with what ruleText() leaves out.
std::string fullText(const FW::FWRULE& rule) {
    std::string text = ruleText(rule);
    for (const std::string& label : rule.labelList) {
        text.append(" [").append(label).append("]");
    }
    return FW::fwRuleIsReserved(rule) ? text + ", reserved" : text;
}

/// The rules of each adapter. Rules are the same when their documents are.
std::map<std::string, RuleList> ruleLists(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::map<std::string, RuleList> lists;
    for (const auto& [adapter, rules] : profile.rules) {
        RuleList& list = lists[adapter];
        for (std::size_t i = 0; i < rules.size(); ++i) {
            Json::Value rule = document["rules"][adapter][static_cast<Json::ArrayIndex>(i)];
            rule.removeMember("ruleIndex");
            list.keys.push_back(Json::writeString(builder, rule));
            list.texts.push_back(fullText(rules[i]));
            list.protocols.push_back(protocolText(rules[i].protocol));
        }
    }
    return lists;
}

void addRules(const std::string& profile, const std::string& adapter, const RuleList& before,
              const RuleList& after, Differences& differences) {
    std::size_t removed = 0;  // how far both lists were compared
    std::size_t added = 0;
    for (const RuleEdit& edit : editsBetween(before.keys, after.keys)) {
        const bool isAdded = edit.mark == '+';
        removed += isAdded ? 0 : 1;
        added += edit.mark == '-' ? 0 : 1;
        if (edit.mark == ' ') {
            continue;
        }
        const std::size_t position = isAdded ? added : removed;
        const RuleList& list = isAdded ? after : before;
        const RuleList& other = isAdded ? before : after;
        const std::string& words = list.texts[position - 1];
        std::string text = "rule " + std::to_string(position) + " of " + adapter + ": ";
        text += words;
        if (contains(other.texts, words) && !contains(other.keys, list.keys[position - 1])) {
            text += ", stored for " + list.protocols[position - 1];
        }
        differences.push_back(
            {isAdded ? Kind::kAdded : Kind::kRemoved, profile, adapter, position, text});
    }
}

std::optional<FW::FW_POLICY> policyOf(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto found = profile.adapterPolicyMap.find(adapter);
    return found == profile.adapterPolicyMap.end() || adapter == FW::FW_ADAPTER_GLOBAL
               ? std::nullopt
               : std::optional(found->second);
}

void addPolicy(const std::string& profile, const std::string& adapter,
               const std::optional<FW::FW_POLICY>& before,
               const std::optional<FW::FW_POLICY>& after, Differences& differences) {
    if (before == after) {
        return;
    }
    const Kind kind = !before ? Kind::kAdded : !after ? Kind::kRemoved : Kind::kChanged;
    const std::string values = !before  ? policyText(*after)
                               : !after ? policyText(*before)
                                        : policyText(*before) + " -> " + policyText(*after);
    differences.push_back(
        {kind, profile, adapter, 0, "default policy of " + adapter + ": " + values});
}

// ---- Documents ----------------------------------------------------------------------------------

/// A profile among the documents.
struct Found {
    std::string path;
    std::string text;
    FW::FWPROFILE profile;
};

/// The profiles by name; `others` gets the paths of what is none, without the settings.
std::map<std::string, Found> profilesIn(const std::map<std::string, std::string>& texts,
                                        std::set<std::string>& others) {
    std::map<std::string, Found> profiles;
    for (const auto& [path, text] : texts) {
        if (path == kSettingsFile) {
            continue;
        }
        Json::Value document;
        Found found{path, text, {}};
        try {
            if (!parseAsStored(text, document) || !document.isObject()) {
                others.insert(path);
                continue;
            }
            FW::TARNFW_JSON_DB().jsonToProfile(document, found.profile);
        } catch (const Json::Exception&) {
            others.insert(path);
            continue;
        }
        profiles.emplace(found.profile.name, std::move(found));  // the first one counts
    }
    return profiles;
}

/// The name that the profile of a file has among others; empty for none.
std::string nameAt(const std::map<std::string, Found>& profiles, const std::string& path) {
    const auto found = std::find_if(profiles.begin(), profiles.end(),
                                    [&](const auto& entry) { return entry.second.path == path; });
    return found == profiles.end() ? "" : found->first;
}

std::string sizeText(const FW::FWPROFILE& profile) {
    std::size_t rules = 0;
    for (const auto& [adapter, list] : profile.rules) {
        rules += list.size();
    }
    return " (" + counted(rules, "rule") + ")";
}

void append(Differences& all, Differences more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

/// A profile that both have.
Differences between(const Found& before, const Found& after) {
    Differences differences = profileDifferences(before.profile, after.profile);
    if (differences.empty() && before.text != after.text) {
        differences.push_back({Kind::kChanged, after.profile.name, "", 0,
                               "the document was written anew, with the same rules"});
    }
    return differences;
}

Json::Value settingsIn(const std::map<std::string, std::string>& texts) {
    Json::Value settings;
    const auto found = texts.find(kSettingsFile);
    return found != texts.end() && parseAsStored(found->second, settings) && settings.isObject()
               ? settings
               : Json::Value(Json::objectValue);
}

}  // namespace

std::string StoreDifference::line() const {
    const char* const sign = kind == Kind::kAdded ? "+ " : kind == Kind::kRemoved ? "- " : "~ ";
    const bool named = !profile.empty() && (!adapter.empty() || kind == Kind::kChanged);
    return (named ? profile + ": " : "") + sign + text;
}

std::vector<SettingDifference> settingDifferences(const Json::Value& before,
                                                  const Json::Value& after) {
    std::set<std::string> members;
    for (const Json::Value* const document : {&before, &after}) {
        const std::vector<std::string> names = document->getMemberNames();
        members.insert(names.begin(), names.end());
    }
    std::vector<SettingDifference> differences;
    for (const std::string& member : members) {
        const Json::Value old = before.get(member, Json::Value());
        const Json::Value changed = after.get(member, Json::Value());
        if (old != changed) {
            differences.push_back({member, settingText(old), settingText(changed)});
        }
    }
    return differences;
}

std::vector<StoreDifference> profileDifferences(const FW::FWPROFILE& before,
                                                const FW::FWPROFILE& after) {
    const std::map<std::string, RuleList> old = ruleLists(before);
    const std::map<std::string, RuleList> changed = ruleLists(after);
    std::set<std::string> adapters;
    for (const FW::FWPROFILE* const profile : {&before, &after}) {
        const std::vector<std::string> names = adaptersOf(*profile);
        adapters.insert(names.begin(), names.end());
    }
    Differences differences;
    const auto listOf = [](const std::map<std::string, RuleList>& lists,
                           const std::string& adapter) {
        const auto found = lists.find(adapter);
        return found == lists.end() ? RuleList() : found->second;
    };
    for (const std::string& adapter : adapters) {
        addRules(after.name, adapter, listOf(old, adapter), listOf(changed, adapter), differences);
        addPolicy(after.name, adapter, policyOf(before, adapter), policyOf(after, adapter),
                  differences);
    }
    return differences;
}

std::vector<StoreDifference> storeDifferences(const std::map<std::string, std::string>& before,
                                              const std::map<std::string, std::string>& after) {
    Differences differences;
    for (const SettingDifference& setting :
         settingDifferences(settingsIn(before), settingsIn(after))) {
        const std::string text = changeText(setting);
        if (!text.empty()) {
            differences.push_back({Kind::kChanged, "", "", 0, text});
        }
    }
    std::set<std::string> others;
    std::map<std::string, Found> old = profilesIn(before, others);
    const std::map<std::string, Found> changed = profilesIn(after, others);
    for (const auto& [name, found] : changed) {
        const auto same = old.find(name);
        if (same != old.end()) {
            append(differences, between(same->second, found));
            old.erase(same);
            continue;
        }
        const std::string oldName = nameAt(old, found.path);
        if (oldName.empty() || changed.count(oldName) != 0) {
            differences.push_back(
                {Kind::kAdded, name, "", 0, "profile " + inQuotes(name) + sizeText(found.profile)});
            continue;
        }
        differences.push_back({Kind::kChanged, name, "", 0, "renamed, was " + inQuotes(oldName)});
        append(differences, profileDifferences(old.at(oldName).profile, found.profile));
        old.erase(oldName);
    }
    for (const auto& [name, found] : old) {
        differences.push_back(
            {Kind::kRemoved, name, "", 0, "profile " + inQuotes(name) + sizeText(found.profile)});
    }
    for (const std::string& path : others) {
        const bool was = before.count(path) != 0;
        const bool is = after.count(path) != 0;
        if (was != is || before.at(path) != after.at(path)) {
            differences.push_back({!was  ? Kind::kAdded
                                   : !is ? Kind::kRemoved
                                         : Kind::kChanged,
                                   "", "", 0, "file " + path + ", which is not a profile"});
        }
    }
    return differences;
}

}  // namespace tarnfw
