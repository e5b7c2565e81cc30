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
/// which is a generated number; so every operation scans the directory anew. An object holds
/// nothing: make one on the stack, use it, let it go.
///
/// Each reading and writing of a file takes that file's lock and waits up to 30 s for it; an
/// operation that comes to a file again which has not changed since does not read it again. Nothing
/// locks the directory as a whole, so callers serialise operations that belong together. A lock
/// file that cannot be opened raises boost::interprocess::interprocess_exception.
///
/// With no "*.json" file in the directory every scan fails. With such files but no profile among
/// them, making the first profile does not return: the file name's generator accepts a number only
/// after comparison with another profile's. The first profile's file is put there from outside.
class TARNFW_EXPORT TARNFW_JSON_DB {
public:
    /// Builds the index of the directory: name -> {"fileName": file name without ".json"}. Of two
    /// files with one name, the one that sorts first is listed.
    /// Returns false, logged, when the directory holds no "*.json" file or cannot be read. A file
    /// that cannot be loaded is logged and left out; one without a text "name" is left out
    /// silently.
    bool profileMetaCreate(Json::Value& meta);

    /// The path of the file of profile `name`; empty when there is none, or, logged, no index.
    std::string profilePathGet(const std::string& name);

    /// A number in decimal, the time plus a random part, that no entry of `meta` has as its file
    /// name. Never returns when `meta` has no entry.
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

    /// Loads every profile into `profiles`, by name. Returns false, logged, without an index and at
    /// the first one that cannot be loaded; those loaded before it stay in the map.
    bool profileEnum(std::map<std::string, FWPROFILE>& profiles);

    /// Loads profile `name`, adding to what `out` holds; pass a fresh record.
    /// Returns false, logged, when it does not exist, cannot be read, or holds a member of a type
    /// that does not convert; `out` is then unchanged.
    bool profileGet(const std::string& name, FWPROFILE& out);

    /// Stores `profile` in the file of `name` (a new one when there is none) under the name that
    /// the record carries. Adapters with rules and no default policy get "allow"; "global" always
    /// gets "no target". Returns false, logged, when the file cannot be written. Never returns for
    /// a new profile in a store without any.
    bool profileSet(const std::string& name, const FWPROFILE& profile);

    /// Stores an empty profile. Returns false, logged, when `name` is taken or cannot be written,
    /// or without an index. Never returns when no "*.json" file of the store holds a profile.
    bool profileCreate(const std::string& name);

    /// Gives profile `oldName` the name `newName`, in its file and, when active, in the settings.
    /// Returns true when all of that is written.
    /// Logs what stopped it: `newName` taken, `oldName` missing, a failed read or write.
    /// On failure no profile has changed, but a failed settings write leaves the file renamed, and
    /// so does the Json::Exception for a "profile" setting that is no text.
    bool profileRename(const std::string& oldName, const std::string& newName);

    /// Copies the whole configuration into `out`: "config_profiles", each profile's document under
    /// the name of its file; "config_firewall_settings", the settings (missing ones are written
    /// with the defaults first); "config_version", 1. A file that the scan cannot load holds no
    /// profile: it is logged and left out, even where it is the active profile's. Returns false,
    /// logged, without an index, when the settings cannot be read, or when the active profile's
    /// file is lost after the scan. Raises Json::Exception for a "profile" setting that is no text.
    bool exportConfig(Json::Value& out);

    /// Replaces the whole configuration by that of an export, under the same file names. Contents
    /// are not checked: a key of "config_profiles" is used as a file name as it stands. Nothing is
    /// applied, and nothing is rolled back: all profiles are deleted before the first is written.
    /// Returns whether the settings were written; other failures are logged and passed over.
    /// Raises Json::Exception, with nothing deleted, for a document or a "config_profiles" that is
    /// no object; a lock file that cannot be opened raises wherever it is met.
    bool importConfig(const Json::Value& in);

    /// Converts a profile into its document. `out` is empty before; "rules" and "adapterPolicyMap"
    /// are null when there are none.
    void profileToJson(const FWPROFILE& profile, Json::Value& out);

    /// Appends each adapter's rules to the array of its name in `out`, with "ruleIndex" 0, 1, 2,
    /// ... An adapter without rules adds no member.
    void ruleListToJson(const std::map<std::string, std::vector<FWRULE>>& rules, Json::Value& out);

    /// Adds the profile of a document to `profile`. Nothing is checked: a missing member reads as
    /// 0, false or empty, and unknown codes are kept. Raises Json::Exception for a member of a type
    /// that does not convert; `profile` then holds what was read before it.
    void jsonToProfile(const Json::Value& in, FWPROFILE& profile);

    /// Appends the rules of "rules" to `rules`, by adapter. A rule always keeps both firewall
    /// chains, whatever its "chainList" says. Raises as jsonToProfile().
    void jsonToRuleList(Json::Value in, std::map<std::string, std::vector<FWRULE>>& rules);
};

}  // namespace FW
