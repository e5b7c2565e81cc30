#include "tarnfwadmin/baseRecord.h"

#include <sys/types.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

constexpr mode_t kRecordMode = 0600;

constexpr char kChainsKey[] = "chains";
constexpr char kJumpsKey[] = "jumps";
constexpr char kPoliciesKey[] = "policies";

template <typename Part>
void addMissing(std::vector<Part>& all, const std::vector<Part>& more) {
    for (const Part& part : more) {
        if (std::find(all.begin(), all.end(), part) == all.end()) {
            all.push_back(part);
        }
    }
}

/// Throws Error unless that is so.
void require(bool valid) {
    if (!valid) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot read ") + kBaseRecordFile + ": it is damaged");
    }
}

std::string textIn(const Json::Value& value) {
    require(value.isString());
    return value.asString();
}

FamilyBaseRecord familyFrom(const Json::Value& document) {
    FamilyBaseRecord family;
    require(document.isNull() || document.isObject());
    const Json::Value& chains = document[kChainsKey];
    const Json::Value& jumps = document[kJumpsKey];
    const Json::Value& policies = document[kPoliciesKey];
    require((chains.isNull() || chains.isArray()) && (jumps.isNull() || jumps.isArray()) &&
            (policies.isNull() || policies.isObject()));
    for (const Json::Value& chain : chains) {
        family.added.chains.push_back(textIn(chain));
    }
    for (const Json::Value& jump : jumps) {
        require(jump.isArray() && jump.size() == 2);
        family.added.jumps.emplace_back(textIn(jump[0U]), textIn(jump[1U]));
    }
    for (auto policy = policies.begin(); policy != policies.end(); ++policy) {
        family.policies.emplace(policy.name(), textIn(*policy));
    }
    return family;
}

Json::Value documentOf(const FamilyBaseRecord& family) {
    Json::Value document(Json::objectValue);
    for (const std::string& chain : family.added.chains) {
        document[kChainsKey].append(chain);
    }
    for (const auto& [chain, target] : family.added.jumps) {
        Json::Value jump;
        jump.append(chain);
        jump.append(target);
        document[kJumpsKey].append(jump);
    }
    for (const auto& [chain, policy] : family.policies) {
        document[kPoliciesKey][chain] = policy;
    }
    return document;
}

}  // namespace

void FamilyBaseRecord::add(const BaseParts& parts) {
    addMissing(added.chains, parts.chains);
    addMissing(added.jumps, parts.jumps);
}

BaseRecord loadBaseRecord() {
    BaseRecord record;
    const std::optional<std::string> text = readTextIfAny(kBaseRecordFile);
    if (!text) {
        return record;
    }
    Json::Value document;
    require(parseAsStored(*text, document) && document.isObject());
    for (auto family = document.begin(); family != document.end(); ++family) {
        record.emplace(family.name(), familyFrom(*family));
    }
    return record;
}

void storeBaseRecord(const BaseRecord& record) {
    Json::Value document(Json::objectValue);
    for (const auto& [family, own] : record) {
        document[family] = documentOf(own);
    }
    writeFileAtomically(kBaseRecordFile, documentText(document), kRecordMode, Existing::kReplaced);
}

}  // namespace tarnfw
