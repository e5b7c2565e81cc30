#include "tarnfirewall/fwDB.h"

#include <glob.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <utility>

// Numbers as text, without the thousands separators of a program's locale.
#define BOOST_LEXICAL_CAST_ASSUME_C_LOCALE
#include <boost/lexical_cast.hpp>

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"

#include "fwCodes.h"
#include "fwLog.h"
#include "fwPaths.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwDB";

constexpr char kProfilePattern[] = "/usr/tarn/etc/firewall.d/*.json";
constexpr char kProfileExtension[] = ".json";

constexpr char kExportProfiles[] = "config_profiles";
constexpr char kExportSettings[] = "config_firewall_settings";
constexpr char kExportVersion[] = "config_version";
constexpr Json::UInt kExportVersionNumber = 1;

// The random part of a file name: a number below this is added to the time.
constexpr int kStemSpread = 100;

/// The paths that match the store's pattern, sorted, for as long as the object lives.
class ProfileFiles {
public:
    ProfileFiles() : found_(glob(kProfilePattern, GLOB_ERR, nullptr, &paths_) == 0) {}
    ~ProfileFiles() { globfree(&paths_); }
    ProfileFiles(const ProfileFiles&) = delete;
    ProfileFiles& operator=(const ProfileFiles&) = delete;

    bool found() const { return found_; }
    std::size_t count() const { return paths_.gl_pathc; }
    std::string path(std::size_t index) const { return paths_.gl_pathv[index]; }

private:
    glob_t paths_{};
    bool found_;
};

/// The base name of a path without what follows its last dot.
std::string fileStem(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.substr(0, name.rfind('.'));
}

std::string pathOfStem(const std::string& stem) {
    return kFirewallDir + stem + kProfileExtension;
}

// ---- Rule and document ----

template <typename Texts>
Json::Value toArray(const Texts& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) {
        array.append(text);
    }
    return array;
}

void appendTexts(const Json::Value& array, std::vector<std::string>& texts) {
    for (const Json::Value& text : array) {
        texts.push_back(text.asString());
    }
}

Json::Value ruleToJson(const FWRULE& rule, Json::ArrayIndex index) {
    Json::Value out(Json::objectValue);
    // The position, not `ruleID`: what a reader finds in "ruleID" is not the store's to write.
    out["ruleIndex"] = static_cast<Json::Int>(index);
    out["enable"] = rule.enable;
    out["adapterDirect"] = rule.adapterDirect;
    out["protocol"] = rule.protocol;
    out["policy"] = static_cast<Json::Int>(rule.policy);
    out["blLog"] = rule.blLog;
    out["name"] = rule.name;
    out["table"] = rule.table;
    out["labelList"] = toArray(rule.labelList);
    out["chainList"] = toArray(rule.chainList);
    out["ipType"] = rule.ipType;
    out["ipDirect"] = rule.ipDirect;
    out["ipGroup"] = rule.ipGroup;
    out["ipList"] = toArray(rule.ipList);
    out["portDirect"] = rule.portDirect;
    out["portGroup"] = rule.portGroup;
    out["portList"] = toArray(rule.portList);
    return out;
}

/// Reads a rule. A missing scalar reads as 0, false or empty, not as a fresh rule's value; lists
/// add to those of a fresh rule, so that a stored rule never loses one of the two firewall chains.
FWRULE jsonToRule(const Json::Value& in) {
    FWRULE rule;
    rule.ruleID = in["ruleID"].asInt();
    rule.enable = in["enable"].asBool();
    rule.adapterDirect = in["adapterDirect"].asInt();
    rule.protocol = in["protocol"].asInt();
    rule.policy = static_cast<FW_POLICY>(in["policy"].asInt());
    rule.blLog = in["blLog"].asBool();
    rule.name = in["name"].asString();
    rule.table = in["table"].asString();
    appendTexts(in["labelList"], rule.labelList);
    for (const Json::Value& chain : in["chainList"]) {
        rule.chainList.insert(chain.asString());
    }
    rule.ipType = in["ipType"].asInt();
    rule.ipDirect = in["ipDirect"].asInt();
    rule.ipGroup = in["ipGroup"].asInt();
    appendTexts(in["ipList"], rule.ipList);
    rule.portDirect = in["portDirect"].asInt();
    rule.portGroup = in["portGroup"].asInt();
    appendTexts(in["portList"], rule.portList);
    return rule;
}

/// A profile as profileSet() stores it: every adapter with rules has a default policy, and that of
/// "global", where any other would decide for every interface, is always "no target".
FWPROFILE withDefaultPolicies(FWPROFILE profile) {
    for (const auto& [adapter, rules] : profile.rules) {
        profile.adapterPolicyMap.emplace(
            adapter, adapter == kGlobalAdapter ? FW_POLICY_NONE : FW_POLICY_ALLOW);
    }
    profile.adapterPolicyMap[kGlobalAdapter] = FW_POLICY_NONE;
    return profile;
}

}  // namespace

// ---- Index and paths ----

bool TARNFW_JSON_DB::profileMetaCreate(Json::Value& meta) {
    const ProfileFiles files;
    if (!files.found()) {
        FW_LOG_ERR("Fail to read file from %s", kFirewallDir);
        return false;
    }
    // Backwards, so that of two files with one name the first one's entry is written last.
    for (std::size_t i = files.count(); i-- > 0;) {
        const std::string path = files.path(i);
        Json::Value document;
        if (!jsonFileLoad(document, path)) {
            FW_LOG_ERR("Failed to load json from %s", path.c_str());
            continue;
        }
        if (!document.isObject() || !document["name"].isString()) {
            continue;  // the settings file, for one
        }
        Json::Value entry(Json::objectValue);
        entry["fileName"] = fileStem(path);
        meta[document["name"].asString()] = entry;
    }
    return true;
}

std::string TARNFW_JSON_DB::profilePathGet(const std::string& name) {
    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return "";
    }
    return meta.isMember(name) ? pathOfStem(meta[name]["fileName"].asString()) : "";
}

std::string TARNFW_JSON_DB::profilePathNameGen(const Json::Value& meta) {
    for (;;) {
        const auto candidate =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(std::time(nullptr)) +
                                      static_cast<std::uint32_t>(std::rand() % kStemSpread));
        const auto stem = boost::lexical_cast<std::string>(candidate);
        // Accepted only after a comparison: without entries there is none, and no end.
        bool accepted = false;
        for (const Json::Value& entry : meta) {
            accepted = entry["fileName"].asString() != stem;
            if (!accepted) {
                break;
            }
        }
        if (accepted) {
            return stem;
        }
    }
}

// ---- Documents ----

bool TARNFW_JSON_DB::profileDbLoad(const std::string& name, Json::Value& out) {
    return jsonFileLoad(out, profilePathGet(name));
}

bool TARNFW_JSON_DB::profileDbDump(const std::string& name, const Json::Value& doc) {
    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return false;
    }
    const std::string path =
        meta.isMember(name) ? profilePathGet(name) : pathOfStem(profilePathNameGen(meta));
    return jsonFileDump(doc, path);
}

bool TARNFW_JSON_DB::profileDbRemove(const std::string& name) {
    const std::string path = profilePathGet(name);
    (void)unlink(path.c_str());  // fails for a profile that does not exist, which is as well
    const std::string lockPath = getLockFile(path);
    if (TLIBCFileExist(lockPath.c_str()) == 1) {
        (void)unlink(lockPath.c_str());
    }
    return true;
}

bool TARNFW_JSON_DB::profileDelete(const std::string& name) {
    return profileDbRemove(name);
}

// ---- Profiles ----

bool TARNFW_JSON_DB::profileExist(const std::string& name) {
    return TLIBCFileExist(profilePathGet(name).c_str()) == 1;
}

bool TARNFW_JSON_DB::profileEnum(std::vector<std::string>& names) {
    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return false;
    }
    for (const std::string& name : meta.getMemberNames()) {
        names.push_back(name);
    }
    return true;
}

bool TARNFW_JSON_DB::profileEnum(std::map<std::string, FWPROFILE>& profiles) {
    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return false;
    }
    for (const std::string& name : meta.getMemberNames()) {
        FWPROFILE profile;
        if (!profileGet(name, profile)) {
            // The name of the record that failed, which is empty: the lines before it tell more.
            FW_LOG_ERR("Failed to profileDbLoad() [%s]", profile.name.c_str());
            return false;
        }
        profiles[name] = std::move(profile);
    }
    return true;
}

bool TARNFW_JSON_DB::profileGet(const std::string& name, FWPROFILE& out) {
    if (!profileExist(name)) {
        FW_LOG_ERR("Failed to profileGet %s due to not exist", name.c_str());
        return false;
    }
    Json::Value document;
    if (!profileDbLoad(name, document)) {
        FW_LOG_ERR("Failed to profileDbLoad()");
        return false;
    }
    try {
        FWPROFILE profile = out;
        jsonToProfile(document, profile);
        out = std::move(profile);
    } catch (const Json::Exception& mismatch) {
        FW_LOG_ERR("Failed to convert profile %s: %s", name.c_str(), mismatch.what());
        return false;
    }
    return true;
}

bool TARNFW_JSON_DB::profileSet(const std::string& name, const FWPROFILE& profile) {
    Json::Value document;
    profileToJson(withDefaultPolicies(profile), document);
    if (!profileDbDump(name, document)) {
        FW_LOG_ERR("Failed to profileDbDump()");
        return false;
    }
    return true;
}

bool TARNFW_JSON_DB::profileCreate(const std::string& name) {
    if (profileExist(name)) {
        FW_LOG_ERR("The profile %s already exist", name.c_str());
        return false;
    }
    FWPROFILE profile;
    profile.name = name;
    if (!profileSet(name, profile)) {
        FW_LOG_ERR("Failed to profileSet");
        return false;
    }
    return true;
}

bool TARNFW_JSON_DB::profileRename(const std::string& oldName, const std::string& newName) {
    if (profileExist(newName)) {
        FW_LOG_ERR("profile %s already exist", newName.c_str());
        return false;
    }
    TARNFW config;
    Json::Value settings;
    if (!config.configGet(settings)) {
        FW_LOG_ERR("Falied to config.configGet()");
        return false;
    }
    FWPROFILE profile;
    if (!profileGet(oldName, profile)) {
        FW_LOG_ERR("Failed to get profile %s", oldName.c_str());
        return false;
    }
    // Over the old file, as loaded: a rename does not touch the policies.
    const std::string storedName = std::exchange(profile.name, newName);
    Json::Value document;
    profileToJson(profile, document);
    if (!jsonFileDump(document, profilePathGet(storedName))) {
        FW_LOG_ERR("Failed to jsonFileDump [%s]", newName.c_str());
        return false;
    }
    const Json::Value& active = std::as_const(settings)["profile"];
    if (active.asString() == oldName) {
        settings["profile"] = newName;
        if (!config.configSet(settings)) {
            FW_LOG_ERR("Falied to config.configSet()");
            return false;
        }
    }
    return true;
}

// ---- The whole configuration ----

bool TARNFW_JSON_DB::exportConfig(Json::Value& out) {
    out = Json::Value(Json::objectValue);
    Json::Value& documents = out[kExportProfiles];
    documents = Json::Value(Json::objectValue);
    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return false;
    }
    Json::Value settings;
    if (!TARNFW().configGet(settings)) {
        FW_LOG_ERR("Falied to get firewall settings.");
        return false;
    }
    const std::string active = std::as_const(settings)["profile"].asString();
    out[kExportSettings] = settings;
    out[kExportVersion] = kExportVersionNumber;
    for (const std::string& name : meta.getMemberNames()) {
        const std::string stem = meta[name]["fileName"].asString();
        const std::string path = pathOfStem(stem);
        Json::Value document;
        if (jsonFileLoad(document, path)) {
            documents[stem + kProfileExtension] = document;
            continue;
        }
        const bool isActive = name == active;
        FW_LOG_ERR("Failed to load json from [%s] for profile [%s]%s", path.c_str(), name.c_str(),
                   isActive ? " which is the current one." : ".");
        if (isActive) {
            return false;
        }
    }
    return true;
}

bool TARNFW_JSON_DB::importConfig(const Json::Value& in) {
    // Looked at before anything is deleted: a document of another shape raises here.
    const Json::Value& documents = in[kExportProfiles];
    const std::vector<std::string> keys = documents.getMemberNames();
    const Json::Value& settings = in[kExportSettings];

    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s",
                   kFirewallDir);  // no failure: there is nothing to delete
    }
    for (const std::string& name : meta.getMemberNames()) {
        if (!profileDelete(name)) {
            FW_LOG_ERR("Failed to delete old profile '%s'.", name.c_str());
        }
    }
    for (const std::string& key : keys) {
        if (!jsonFileDump(documents[key], kFirewallDir + key)) {
            FW_LOG_ERR("Failed to jsonFileDump [%s].", key.c_str());
        }
    }
    if (!TARNFW().configSet(settings)) {
        FW_LOG_ERR("Falied to set firewall settings.");
        return false;
    }
    return true;
}

// ---- Conversion ----

void TARNFW_JSON_DB::profileToJson(const FWPROFILE& profile, Json::Value& out) {
    out["name"] = profile.name;
    ruleListToJson(profile.rules, out["rules"]);
    Json::Value& policies = out["adapterPolicyMap"];
    policies = Json::Value();
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        policies[adapter] = static_cast<Json::Int>(policy);
    }
}

void TARNFW_JSON_DB::ruleListToJson(const std::map<std::string, std::vector<FWRULE>>& rules,
                                    Json::Value& out) {
    for (const auto& [adapter, list] : rules) {
        if (list.empty()) {
            continue;
        }
        Json::Value& array = out[adapter];
        if (array.isNull()) {
            array = Json::Value(Json::arrayValue);
        }
        Json::ArrayIndex index = 0;
        for (const FWRULE& rule : list) {
            array.append(ruleToJson(rule, index++));
        }
    }
}

void TARNFW_JSON_DB::jsonToProfile(const Json::Value& in, FWPROFILE& profile) {
    profile.name = in["name"].asString();
    jsonToRuleList(in["rules"], profile.rules);
    const Json::Value& policies = in["adapterPolicyMap"];
    for (const std::string& adapter : policies.getMemberNames()) {
        profile.adapterPolicyMap[adapter] = static_cast<FW_POLICY>(policies[adapter].asInt());
    }
}

void TARNFW_JSON_DB::jsonToRuleList(Json::Value in,
                                    std::map<std::string, std::vector<FWRULE>>& rules) {
    for (const std::string& adapter : in.getMemberNames()) {
        for (const Json::Value& rule : in[adapter]) {
            rules[adapter].push_back(jsonToRule(rule));
        }
    }
}

}  // namespace FW
