#include "process/trialRecord.h"

#include <unistd.h>

#include <exception>

#include <json/json.h>

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

constexpr char kRecordFile[] = "/run/tarn/trial.json";
constexpr mode_t kPrivateMode = 0600;

}  // namespace

bool TrialRecord::isChanged(const SavedRules& now) const {
    return tried && !(now.withoutPolicies() == tried->withoutPolicies());
}

void storeTrialRecord(const TrialRecord& record) {
    Json::Value document;
    document["profile"] = record.profile;
    document["active"] = record.active;
    document["watchdog"] = static_cast<Json::Int64>(record.watchdog);
    document["adopting"] = record.adopting;
    document["before"] = record.before.document();
    if (record.tried) {
        document["tried"] = record.tried->document();
    }
    makeDirectory(kRunDir);
    writeFileAtomically(kRecordFile, documentText(document), kPrivateMode, Existing::kReplaced);
}

std::optional<TrialRecord> readTrialRecord() {
    if (access(kRecordFile, F_OK) != 0) {
        return std::nullopt;
    }
    try {
        Json::Value document;
        if (!parseAsStored(readText(kRecordFile), document)) {
            return std::nullopt;
        }
        TrialRecord record;
        record.profile = document["profile"].asString();
        record.active = document["active"].asString();
        record.watchdog = static_cast<pid_t>(document["watchdog"].asInt64());
        record.adopting = document["adopting"].asBool();
        record.before = SavedRules::from(document["before"]);
        if (document.isMember("tried")) {
            record.tried = SavedRules::from(document["tried"]);
        }
        return record;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void removeTrialRecord() {
    (void)unlink(kRecordFile);
}

}  // namespace tarnfw
