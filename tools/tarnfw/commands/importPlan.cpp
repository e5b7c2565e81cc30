#include "commands/importPlan.h"

#include <iostream>
#include <map>
#include <set>

#include "cli/output.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

/// The keys of the profiles, by name.
std::map<std::string, std::string> keysByName(const Json::Value& document) {
    std::map<std::string, std::string> keys;
    const Json::Value& profiles = document[kConfigProfiles];
    for (const std::string& key : profiles.getMemberNames()) {
        keys[profiles[key]["name"].asString()] = key;
    }
    return keys;
}

std::string settingText(const Json::Value& value) {
    if (value.isString()) {
        return value.asString();
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return value.isNull() ? "-" : Json::writeString(builder, value);
}

Paint paintOf(const std::string& change) {
    if (change == "added") {
        return Paint::kGood;
    }
    if (change == "removed") {
        return Paint::kBad;
    }
    return change == "changed" ? Paint::kDoubtful : Paint::kFaint;
}

}  // namespace

ImportPlan importPlan(const Json::Value& current, const Json::Value& document) {
    ImportPlan plan;
    const auto oldKeys = keysByName(current);
    const auto newKeys = keysByName(document);
    std::set<std::string> names;
    for (const auto& [name, key] : oldKeys) {
        names.insert(name);
    }
    for (const auto& [name, key] : newKeys) {
        names.insert(name);
    }
    for (const std::string& name : names) {
        const auto before = oldKeys.find(name);
        const auto after = newKeys.find(name);
        if (after == newKeys.end()) {
            plan.profiles.push_back({name, before->second, "removed"});
        } else if (before == oldKeys.end()) {
            plan.profiles.push_back({name, after->second, "added"});
        } else {
            const bool same = current[kConfigProfiles][before->second] ==
                              document[kConfigProfiles][after->second];
            plan.profiles.push_back({name, after->second, same ? "unchanged" : "changed"});
        }
    }
    const Json::Value& settings = document[kConfigSettings];
    for (const std::string& member : settings.getMemberNames()) {
        const Json::Value& now = current[kConfigSettings][member];
        if (now != settings[member]) {
            plan.settings.push_back({member, settingText(now), settingText(settings[member])});
        }
    }
    plan.changesNothing =
        plan.settings.empty() && current[kConfigProfiles] == document[kConfigProfiles];
    return plan;
}

void printPlan(const ImportPlan& plan) {
    Table profiles({"profile", "change", "file"});
    for (const ProfileChange& change : plan.profiles) {
        profiles.addRow({{change.name}, {change.change, paintOf(change.change)}, {change.file}});
    }
    profiles.print();
    if (plan.settings.empty()) {
        return;
    }
    std::cout << '\n';
    Table settings({"setting", "now", "imported"});
    for (const SettingChange& change : plan.settings) {
        settings.addRow({{change.setting}, {change.now}, {change.imported, Paint::kDoubtful}});
    }
    settings.print();
}

Json::Value jsonOf(const ImportPlan& plan) {
    Json::Value document;
    document["changes"] = !plan.changesNothing;
    document["profiles"] = Json::Value(Json::arrayValue);
    for (const ProfileChange& change : plan.profiles) {
        Json::Value entry;
        entry["name"] = change.name;
        entry["file"] = change.file;
        entry["change"] = change.change;
        document["profiles"].append(entry);
    }
    document["settings"] = Json::Value(Json::arrayValue);
    for (const SettingChange& change : plan.settings) {
        Json::Value entry;
        entry["setting"] = change.setting;
        entry["now"] = change.now;
        entry["imported"] = change.imported;
        document["settings"].append(entry);
    }
    return document;
}

}  // namespace tarnfw
