#include "tarnfirewall/fwDB.h"

#include <glob.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <utility>

// Writes numbers without the thousands separators of a program's locale.
#define BOOST_LEXICAL_CAST_ASSUME_C_LOCALE
#include <boost/lexical_cast.hpp>

#include "tarncore.h"

#include "tarnfirewall/utils.h"

#include "fwLog.h"
#include "fwSettings.h"
#include "fwStoreFiles.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwDB";

// With the trailing slash, because paths below it are made by plain concatenation.
constexpr char kFirewallDir[] = "/usr/tarn/etc/firewall.d/";
constexpr char kProfilePattern[] = "/usr/tarn/etc/firewall.d/*.json";
constexpr char kProfileExtension[] = ".json";

constexpr char kPoliciesKey[] = "adapterPolicyMap";  // of a profile

constexpr char kExportProfiles[] = "config_profiles";
constexpr char kExportSettings[] = "config_firewall_settings";
constexpr char kExportVersion[] = "config_version";
constexpr Json::UInt kExportVersionNumber = 1;

// The random part of a file name: a number below this is added to the time.
constexpr int kStemSpread = 100;

using Policies = std::map<std::string, FW_POLICY>;

/// The paths that match the store's pattern, sorted, for as long as the object lives.
class ProfilePaths {
public:
    ProfilePaths() : found_(glob(kProfilePattern, GLOB_ERR, nullptr, &paths_) == 0) {}
    ~ProfilePaths() { globfree(&paths_); }
    ProfilePaths(const ProfilePaths&) = delete;
    ProfilePaths& operator=(const ProfilePaths&) = delete;

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

void readTexts(const Json::Value& array, std::vector<std::string>& texts) {
    for (const Json::Value& text : array) {
        texts.push_back(text.asString());
    }
}

Json::Value ruleToJson(const FWRULE& rule, Json::ArrayIndex index) {
    Json::Value out(Json::objectValue);
    // The position, not `ruleID`: the store never writes "ruleID".
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

/// Reads a rule. A missing scalar reads as 0, false or empty, not as a new rule's default; lists
/// are added to those of a new rule, so that a stored rule always has both firewall chains.
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
    readTexts(in["labelList"], rule.labelList);
    for (const Json::Value& chain : in["chainList"]) {
        rule.chainList.insert(chain.asString());
    }
    rule.ipType = in["ipType"].asInt();
    rule.ipDirect = in["ipDirect"].asInt();
    rule.ipGroup = in["ipGroup"].asInt();
    readTexts(in["ipList"], rule.ipList);
    rule.portDirect = in["portDirect"].asInt();
    rule.portGroup = in["portGroup"].asInt();
    readTexts(in["portList"], rule.portList);
    return rule;
}

Json::Value policiesToJson(const Policies& policies) {
    Json::Value out;
    for (const auto& [adapter, policy] : policies) {
        out[adapter] = static_cast<Json::Int>(policy);
    }
    return out;
}

/// Appends the rules of a document; an adapter without any gets no entry. Raises, in
/// getMemberNames(), for a document that is neither an object nor null.
void appendRules(const Json::Value& in, std::map<std::string, std::vector<FWRULE>>& rules) {
    for (const std::string& adapter : in.getMemberNames()) {
        const Json::Value& stored = in[adapter];
        std::vector<FWRULE>* list = nullptr;
        for (const Json::Value& rule : stored) {
            if (list == nullptr) {
                list = &rules[adapter];
                list->reserve(list->size() + stored.size());
            }
            list->push_back(jsonToRule(rule));
        }
    }
}

/// The policies as profileSet() stores them: every adapter with rules has one, and that of
/// "global", where any other would decide for every interface, is always "none".
Policies withDefaults(const FWPROFILE& profile) {
    Policies policies = profile.adapterPolicyMap;
    for (const auto& [adapter, rules] : profile.rules) {
        policies.emplace(adapter, adapter == FW_ADAPTER_GLOBAL ? FW_POLICY_NONE : FW_POLICY_ALLOW);
    }
    policies[FW_ADAPTER_GLOBAL] = FW_POLICY_NONE;
    return policies;
}

// ---- Steps of operations ----
//
// Each works on the files of its operation and scans the directory itself, so it sees what has
// changed between two steps.

// Which documents an operation needs besides the names.
bool keepNone(const std::string& /*name*/) {
    return false;
}
bool keepAll(const std::string& /*name*/) {
    return true;
}
auto keepOne(const std::string& wanted) {
    return [wanted](const std::string& name) { return name == wanted; };
}

/// The index: the stem of each profile's file. Returns false, logged, when there are no files.
bool indexCreate(StoreFiles& files, std::map<std::string, std::string>& stems) {
    const ProfilePaths paths;
    if (!paths.found()) {
        FW_LOG_ERR("Fail to read file from %s", kFirewallDir);
        return false;
    }
    // Backwards, so that of two files with the same name the first one's entry is written last.
    for (std::size_t i = paths.count(); i-- > 0;) {
        const std::string path = paths.path(i);
        const Json::Value* const name = files.nameIn(path);
        if (name == nullptr) {
            FW_LOG_ERR("Failed to load json from %s", path.c_str());
        } else if (!name->isNull()) {
            stems[name->asString()] = fileStem(path);
        }
    }
    return true;
}

/// The same for an operation that cannot go on without an index, which is logged.
bool indexCreateLogged(StoreFiles& files, std::map<std::string, std::string>& stems) {
    if (!indexCreate(files, stems)) {
        FW_LOG_ERR("Failed to create meta json from %s", kFirewallDir);
        return false;
    }
    return true;
}

void indexToMeta(const std::map<std::string, std::string>& stems, Json::Value& meta) {
    for (const auto& [name, stem] : stems) {
        Json::Value entry(Json::objectValue);
        entry["fileName"] = stem;
        meta[name] = std::move(entry);
    }
}

std::string pathGet(StoreFiles& files, const std::string& name) {
    std::map<std::string, std::string> stems;
    if (!indexCreateLogged(files, stems)) {
        return "";
    }
    const auto found = stems.find(name);
    return found == stems.end() ? "" : pathOfStem(found->second);
}

bool exists(StoreFiles& files, const std::string& name) {
    return TLIBCFileExist(pathGet(files, name).c_str()) == 1;
}

bool recordGet(TARNFW_JSON_DB& store, StoreFiles& files, const std::string& name, FWPROFILE& out) {
    if (!exists(files, name)) {
        FW_LOG_ERR("Failed to profileGet %s due to not exist", name.c_str());
        return false;
    }
    Json::Value document;
    if (!files.load(pathGet(files, name), document)) {
        FW_LOG_ERR("Failed to profileDbLoad()");
        return false;
    }
    try {
        FWPROFILE profile = out;
        store.jsonToProfile(document, profile);
        out = std::move(profile);
    } catch (const Json::Exception& mismatch) {
        FW_LOG_ERR("Failed to convert profile %s: %s", name.c_str(), mismatch.what());
        return false;
    }
    return true;
}

}  // namespace

// ---- Index and paths ----

bool TARNFW_JSON_DB::profileMetaCreate(Json::Value& meta) {
    StoreFiles files(keepNone);
    std::map<std::string, std::string> stems;
    if (!indexCreate(files, stems)) {
        return false;
    }
    indexToMeta(stems, meta);
    return true;
}

std::string TARNFW_JSON_DB::profilePathGet(const std::string& name) {
    StoreFiles files(keepNone);
    return pathGet(files, name);
}

std::string TARNFW_JSON_DB::profilePathNameGen(const Json::Value& meta) {
    for (;;) {
        const auto candidate =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(std::time(nullptr)) +
                                      static_cast<std::uint32_t>(std::rand() % kStemSpread));
        const auto stem = boost::lexical_cast<std::string>(candidate);
        // Accepted only after a comparison: without entries this never ends.
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
    StoreFiles files(keepOne(name));
    return files.load(pathGet(files, name), out);
}

bool TARNFW_JSON_DB::profileDbDump(const std::string& name, const Json::Value& doc) {
    StoreFiles files(keepNone);
    std::map<std::string, std::string> stems;
    if (!indexCreateLogged(files, stems)) {
        return false;
    }
    if (stems.count(name) != 0) {
        return jsonFileDump(doc, pathGet(files, name));
    }
    Json::Value meta;
    indexToMeta(stems, meta);
    return jsonFileDump(doc, pathOfStem(profilePathNameGen(meta)));
}

bool TARNFW_JSON_DB::profileDbRemove(const std::string& name) {
    const std::string path = profilePathGet(name);
    (void)unlink(path.c_str());  // fails for a profile that does not exist
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
    StoreFiles files(keepNone);
    return exists(files, name);
}

bool TARNFW_JSON_DB::profileEnum(std::vector<std::string>& names) {
    StoreFiles files(keepNone);
    std::map<std::string, std::string> stems;
    if (!indexCreateLogged(files, stems)) {
        return false;
    }
    for (const auto& [name, stem] : stems) {
        names.push_back(name);
    }
    return true;
}

bool TARNFW_JSON_DB::profileEnum(std::map<std::string, FWPROFILE>& profiles) {
    StoreFiles files(keepAll);
    std::map<std::string, std::string> stems;
    if (!indexCreateLogged(files, stems)) {
        return false;
    }
    for (const auto& [name, stem] : stems) {
        FWPROFILE profile;
        if (!recordGet(*this, files, name, profile)) {
            // The name in the failed record, which is empty: the lines before it have the details.
            FW_LOG_ERR("Failed to profileDbLoad() [%s]", profile.name.c_str());
            return false;
        }
        profiles[name] = std::move(profile);
    }
    return true;
}

bool TARNFW_JSON_DB::profileGet(const std::string& name, FWPROFILE& out) {
    StoreFiles files(keepOne(name));
    return recordGet(*this, files, name, out);
}

bool TARNFW_JSON_DB::profileSet(const std::string& name, const FWPROFILE& profile) {
    Json::Value document;
    profileToJson(profile, document);
    document[kPoliciesKey] = policiesToJson(withDefaults(profile));
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
    StoreFiles files(keepOne(oldName));
    if (exists(files, newName)) {
        FW_LOG_ERR("profile %s already exist", newName.c_str());
        return false;
    }
    Json::Value settings;
    if (!settingsGet(settings)) {
        FW_LOG_ERR("Falied to config.configGet()");
        return false;
    }
    FWPROFILE profile;
    if (!recordGet(*this, files, oldName, profile)) {
        FW_LOG_ERR("Failed to get profile %s", oldName.c_str());
        return false;
    }
    // Overwrites the old file with what was loaded: a rename does not change the policies.
    const std::string storedName = std::exchange(profile.name, newName);
    Json::Value document;
    profileToJson(profile, document);
    if (!jsonFileDump(document, pathGet(files, storedName))) {
        FW_LOG_ERR("Failed to jsonFileDump [%s]", newName.c_str());
        return false;
    }
    const Json::Value& active = std::as_const(settings)[kProfileKey];
    if (active.asString() == oldName) {
        settings[kProfileKey] = newName;
        if (!settingsSet(settings)) {
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
    if (!settingsGet(settings)) {
        FW_LOG_ERR("Falied to get firewall settings.");
        return false;
    }
    const std::string active = std::as_const(settings)[kProfileKey].asString();
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
    // Before anything is deleted, because an invalid document raises here.
    const Json::Value& documents = in[kExportProfiles];
    const std::vector<std::string> keys = documents.getMemberNames();
    const Json::Value& settings = in[kExportSettings];

    Json::Value meta;
    if (!profileMetaCreate(meta)) {
        FW_LOG_ERR("Failed to create meta json from %s",
                   kFirewallDir);  // not a failure: there is nothing to delete
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
    if (!settingsSet(settings)) {
        FW_LOG_ERR("Falied to set firewall settings.");
        return false;
    }
    return true;
}

// ---- Conversion ----

void TARNFW_JSON_DB::profileToJson(const FWPROFILE& profile, Json::Value& out) {
    out["name"] = profile.name;
    ruleListToJson(profile.rules, out["rules"]);
    out[kPoliciesKey] = policiesToJson(profile.adapterPolicyMap);
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
    appendRules(in["rules"], profile.rules);
    const Json::Value& policies = in[kPoliciesKey];
    for (const std::string& adapter : policies.getMemberNames()) {
        profile.adapterPolicyMap[adapter] = static_cast<FW_POLICY>(policies[adapter].asInt());
    }
}

void TARNFW_JSON_DB::jsonToRuleList(Json::Value in,
                                    std::map<std::string, std::vector<FWRULE>>& rules) {
    appendRules(in, rules);
}

}  // namespace FW
