/// The profile store, one JSON file per profile in "/usr/tarn/etc/firewall.d/".
#pragma once

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace FW {

/// The profile store. A profile is found by the "name" inside its file, never by the file name,
/// which is a generated number, so every operation scans the directory again. An object has no
/// state: make one on the stack for each use.
///
/// Every read and write of a file takes that file's lock and waits up to 30 s for it; within one
/// operation a file that has not changed is not read again. Nothing locks the directory as a
/// whole, so callers serialise operations that belong together. A lock file that cannot be opened
/// raises boost::interprocess::interprocess_exception.
///
/// Without a "*.json" file in the directory every scan fails. With such files but no profile among
/// them, creating the first profile never returns: the generator accepts a number for the file name
/// only after comparing it with another profile's. Something else must create the first profile.
class TARNFW_EXPORT TARNFW_JSON_DB {
public:
    /// Builds the index of the directory: name -> {"fileName": file name without ".json"}. Of two
    /// files with the same name, the one that sorts first is listed.
    /// Returns false, logged, when the directory holds no "*.json" file or cannot be read. A file
    /// that cannot be loaded is logged and left out; one whose "name" is not a string is left
    /// out silently.
    bool profileMetaCreate(Json::Value& meta);

    /// The path of the file of profile `name`; empty without one or, logged, without an index.
    std::string profilePathGet(const std::string& name);

    /// A number in decimal, the time plus a random part, that is not yet the file name of an
    /// entry of `meta`. Never returns when `meta` has no entry.
    std::string profilePathNameGen(const Json::Value& meta);

    /// Loads the document of profile `name`. Returns and logs as jsonFileLoad().
    bool profileDbLoad(const std::string& name, Json::Value& out);

    /// Writes `doc` over the file of profile `name`, or into a new file. Returns as jsonFileDump(),
    /// or false, logged, without an index. Never returns for a new profile when no "*.json" file
    /// holds one.
    bool profileDbDump(const std::string& name, const Json::Value& doc);

    /// Deletes the file of profile `name` and that file's lock file. Always true, also for a
    /// profile that does not exist and for a file that cannot be removed.
    bool profileDbRemove(const std::string& name);

    /// The same as profileDbRemove().
    bool profileDelete(const std::string& name);

    /// Whether profile `name` has a file.
    bool profileExist(const std::string& name);

    /// Appends the names of all profiles, sorted, to `names`. False, logged, without an index.
    bool profileEnum(std::vector<std::string>& names);

    /// Loads every profile into `profiles`, by name. Returns false, logged, without an index or
    /// when a profile cannot be loaded; those loaded before it stay in the map.
    bool profileEnum(std::map<std::string, FWPROFILE>& profiles);

    /// Loads profile `name`, adding to what `out` holds; pass a fresh record.
    /// Returns false, logged, when it does not exist, cannot be read, or has a member whose
    /// type does not convert; `out` is then unchanged.
    bool profileGet(const std::string& name, FWPROFILE& out);

    /// Stores `profile` in the file of `name` (a new one when there is none) under the name that
    /// the record carries. Adapters with rules and no default policy get "allow"; "global" always
    /// gets "none". Returns false, logged, when the file cannot be written. Never returns for
    /// a new profile in a store without any.
    bool profileSet(const std::string& name, const FWPROFILE& profile);

    /// Stores an empty profile. Returns false, logged, when `name` is taken or cannot be written,
    /// or without an index. Never returns when no "*.json" file of the store holds a profile.
    bool profileCreate(const std::string& name);

    /// Gives profile `oldName` the name `newName`, in its file and, when active, in the settings.
    /// Returns true when all of that is written.
    /// Logs what stopped it: `newName` taken, `oldName` missing, a failed read or write.
    /// On failure no profile has changed, but a failed settings write leaves the file renamed, and
    /// so does the Json::Exception for a "profile" setting that is not a string.
    bool profileRename(const std::string& oldName, const std::string& newName);

    /// Copies the whole configuration into `out`: "config_profiles", each profile's document under
    /// the name of its file; "config_firewall_settings", the settings (missing ones are written
    /// with the defaults first); "config_version", 1. A file that the scan cannot load is
    /// logged and left out, even if it is the active profile's. Returns false, logged, without an
    /// index, when the settings cannot be read, or when the active profile's file disappears after
    /// the scan. Raises Json::Exception for a "profile" setting that is not a string.
    bool exportConfig(Json::Value& out);

    /// Replaces the whole configuration with that of an export, under the same file names. Contents
    /// are not checked: a key of "config_profiles" becomes a file name unchanged. Nothing is
    /// applied, and nothing is rolled back: all profiles are deleted before the first is written.
    /// Returns whether the settings were written; other failures are logged and ignored.
    /// Raises Json::Exception, with nothing deleted, when the document or "config_profiles" is not
    /// an object; a lock file that cannot be opened raises at any point.
    bool importConfig(const Json::Value& in);

    /// Converts a profile into its document. Pass an empty `out`; "rules" and "adapterPolicyMap"
    /// are null when there are none.
    void profileToJson(const FWPROFILE& profile, Json::Value& out);

    /// Appends each adapter's rules to the array of its name in `out`, with "ruleIndex" 0, 1, 2,
    /// ... An adapter without rules adds no member.
    void ruleListToJson(const std::map<std::string, std::vector<FWRULE>>& rules, Json::Value& out);

    /// Adds the profile of a document to `profile`. Nothing is checked: a missing member reads as
    /// 0, false or empty, and unknown codes are kept. Raises Json::Exception for a member whose
    /// type does not convert; `profile` then has what was read before it.
    void jsonToProfile(const Json::Value& in, FWPROFILE& profile);

    /// Appends the rules of "rules" to `rules`, by adapter. A rule always keeps both firewall
    /// chains, whatever its "chainList" says. Raises as jsonToProfile().
    void jsonToRuleList(Json::Value in, std::map<std::string, std::vector<FWRULE>>& rules);
};

}  // namespace FW
