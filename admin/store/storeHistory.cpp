#include "tarnfwadmin/storeHistory.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "store/changeRecord.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kStatus[] = "status";

std::string copyIn(unsigned long directory, const std::string& path) {
    return entryPath(directory) + std::filesystem::path(path).filename().string();
}

/// Gives the settings that are to be put back the present "status". False when they are to stay.
bool keepStatus(UndoneDocument& settings, const StoreSnapshot& store) {
    const bool enabled = store.firewallEnabled();
    if (!settings.text) {
        return !enabled;  // without settings it would be disabled
    }
    Json::Value old;
    if (!parseAsStored(*settings.text, old) || !old.isObject() || old[kStatus] == enabled) {
        return true;
    }
    old[kStatus] = enabled;
    settings.text = old.toStyledString();
    return old != store.settings();
}

/// The text of settings with the "status" that others have.
std::string withStatusOf(const std::string& others, const std::string& text) {
    Json::Value settings;
    Json::Value from;
    if (!parseAsStored(text, settings) || !settings.isObject() || !parseAsStored(others, from) ||
        !from.isObject() || settings[kStatus] == from[kStatus]) {
        return text;
    }
    settings[kStatus] = from[kStatus];
    return settings.toStyledString();
}

/// The text of settings without "status".
std::string withoutStatus(const std::string& text) {
    Json::Value settings;
    if (!parseAsStored(text, settings) || !settings.isObject() || !settings.isMember(kStatus)) {
        return text;
    }
    settings.removeMember(kStatus);
    return settings.toStyledString();
}

/// The active profile where there are no settings: the library writes the defaults.
std::string activeWithoutSettings() {
    Json::Value defaults;
    FW::TARNFW().initJconfig(defaults);
    return defaults["profile"].asString();
}

/// Throws Error for an entry that another user may not read, which is not a missing one.
void requireReadable(unsigned long number) {
    if (access(entryPath(number).c_str(), R_OK | X_OK) != 0 && errno == EACCES) {
        throw Error(ErrorKind::kNoRights, "cannot read " + entryPath(number) + ": " +
                                              std::strerror(EACCES) +
                                              "; changes are kept for root alone");
    }
}

}  // namespace

StoreHistory::StoreHistory() {
    for (const unsigned long number : entryNumbers()) {
        const std::optional<ChangeRecord> record = readRecord(number);
        if (!record) {
            requireReadable(number);
            continue;  // not flushed before a power failure, or removed meanwhile
        }
        HistoryEntry entry{
            entries_.size() + 1, record->time, record->command, {}, record->hasCopies};
        std::map<std::string, std::string> before;
        std::map<std::string, std::string> after;
        for (const auto& [path, digests] : record->documents) {
            entry.documents.push_back(path);
            if (digests.before) {
                before[path] = *digests.before;
            }
            if (digests.after) {
                after[path] = *digests.after;
            }
        }
        entries_.push_back(std::move(entry));
        directories_.push_back(number);
        before_.push_back(std::move(before));
        after_.push_back(std::move(after));
    }
}

const HistoryEntry& StoreHistory::entry(std::size_t number) const {
    if (entries_.empty()) {
        throw Error(ErrorKind::kNotFound, "no change is kept");
    }
    if (number < 1 || number > entries_.size()) {
        throw Error(ErrorKind::kNotFound, "there is no change " + std::to_string(number) + ": " +
                                              counted(entries_.size(), "change") + " " +
                                              (entries_.size() == 1 ? "is" : "are") + " kept");
    }
    return entries_[number - 1];
}

/// What a document of change `number` held before it.
std::optional<std::string> StoreHistory::textBefore(std::size_t number,
                                                    const std::string& path) const {
    if (before_[number - 1].count(path) == 0) {
        return std::nullopt;
    }
    std::optional<std::string> text = readTextIfAny(copyIn(directories_[number - 1], path));
    if (!text) {
        throw Error(ErrorKind::kNotFound,
                    "change " + std::to_string(number) + " is no longer kept");
    }
    return text;
}

StoreChange StoreHistory::changeOf(std::size_t number, const StoreSnapshot& store) const {
    const std::map<std::string, std::string> now = store.texts();
    StoreChange change;
    if (!entry(number).undoable) {
        return change;
    }
    for (const std::string& path : entry(number).documents) {
        std::size_t later = number - 1;
        while (later > 0 && std::count(entries_[later - 1].documents.begin(),
                                       entries_[later - 1].documents.end(), path) == 0) {
            --later;
        }
        if (later > 0 && !entries_[later - 1].undoable) {
            continue;  // what that one has found is lost
        }
        if (const auto text = textBefore(number, path)) {
            change.before[path] = *text;
        }
        if (later == 0) {
            if (now.count(path) != 0) {
                change.after[path] = now.at(path);
            }
        } else if (const auto text = textBefore(later, path)) {
            change.after[path] = *text;
        }
    }
    const auto before = change.before.find(kSettingsFile);
    const auto after = change.after.find(kSettingsFile);
    if (before != change.before.end() && after != change.after.end()) {
        after->second = withStatusOf(before->second, after->second);
    } else if (after != change.after.end()) {
        after->second = withoutStatus(after->second);  // it may have been enabled since
    }
    return change;
}

std::map<std::string, UndoneDocument> StoreHistory::undoing(std::size_t number,
                                                            const StoreSnapshot& store) const {
    (void)entry(number);
    const std::map<std::string, std::string> now = store.texts();
    std::map<std::string, UndoneDocument> undone;
    for (std::size_t each = 1; each <= number; ++each) {  // what an earlier change found, counts
        if (!entries_[each - 1].undoable) {
            throw Error(ErrorKind::kUnusable,
                        "change " + std::to_string(each) + " (" +
                            printable(entries_[each - 1].command) +
                            ") cannot be undone, nor those before it: it was too large to be kept, "
                            "or the disk was nearly full; nothing was changed");
        }
        for (const std::string& path : entries_[each - 1].documents) {
            undone[path] = {textBefore(each, path), copyIn(directories_[each - 1], path)};
        }
    }
    const auto settings = undone.find(kSettingsFile);
    if (settings != undone.end() && !keepStatus(settings->second, store)) {
        undone.erase(settings);
    }
    for (auto document = undone.begin(); document != undone.end();) {
        const auto present = now.find(document->first);
        const bool same = present == now.end() ? !document->second.text
                                               : document->second.text == present->second;
        document = same ? undone.erase(document) : std::next(document);
    }
    return undone;
}

std::vector<std::string> StoreHistory::changedByOthers(std::size_t number,
                                                       const StoreSnapshot& store) const {
    const std::map<std::string, std::string> now = store.texts();
    std::vector<std::string> paths;
    for (const auto& undone : undoing(number, store)) {
        const std::string& path = undone.first;
        // From the present back to the state before the change: each change has to have left what
        // the next one found.
        const auto present = now.find(path);
        std::optional<std::string> found = digestOfMissing(path);
        if (present != now.end()) {
            found = digestOf(path, present->second);
        }
        bool own = true;
        for (std::size_t each = 1; each <= number; ++each) {
            const std::vector<std::string>& documents = entries_[each - 1].documents;
            if (std::count(documents.begin(), documents.end(), path) == 0) {
                continue;
            }
            const auto digestIn = [&](const std::map<std::string, std::string>& digests) {
                const auto digest = digests.find(path);
                return digest == digests.end() ? digestOfMissing(path)
                                               : std::optional(digest->second);
            };
            own = own && found == digestIn(after_[each - 1]);
            found = digestIn(before_[each - 1]);
        }
        if (!own) {
            paths.push_back(path);
        }
    }
    return paths;
}

void requireUndoable(const std::map<std::string, UndoneDocument>& undone,
                     const StoreSnapshot& store) {
    std::map<std::string, std::string> paths;  // by name, of the profiles that there would be
    for (const std::string& name : store.profileNames()) {
        if (undone.count(store.pathOf(name)) == 0) {
            paths[name] = store.pathOf(name);
        }
    }
    std::string active = store.activeProfile();
    for (const auto& [path, document] : undone) {
        Json::Value content;
        if (path == kSettingsFile && !document.text) {
            active = activeWithoutSettings();
        }
        if (!document.text || !parseAsStored(*document.text, content) || !content.isObject()) {
            continue;
        }
        if (path == kSettingsFile) {
            active = content["profile"].isString() ? content["profile"].asString() : "";
        } else if (content["name"].isString()) {
            const auto [other, isNew] = paths.emplace(content["name"].asString(), path);
            if (!isNew) {
                throw Error(ErrorKind::kUnusable, "profile " + inQuotes(other->first) +
                                                      " would be there twice, in " +
                                                      printable(other->second) + " and " +
                                                      printable(path) + "; nothing was changed");
            }
        }
    }
    if (paths.count(active) == 0 && (store.firewallEnabled() || !paths.empty())) {
        throw Error(ErrorKind::kUnusable, "the active profile, " + inQuotes(active) +
                                              ", would be gone; nothing was changed");
    }
}

}  // namespace tarnfw
