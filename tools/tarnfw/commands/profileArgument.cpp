#include "commands/profileArgument.h"

#include <json/json.h>

#include "tarnfirewall/fwDB.h"

#include "cli/command.h"
#include "cli/output.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/profileDocument.h"

namespace tarnfw {
namespace {

/// What the store makes of a profile: it gives each adapter with rules a default policy, and each
/// rule both chains.
FW::FWPROFILE asStored(const FW::FWPROFILE& profile) {
    FW::TARNFW_JSON_DB converter;
    Json::Value document;
    converter.profileToJson(profile, document);
    FW::FWPROFILE stored;
    converter.jsonToProfile(document, stored);
    for (const auto& [adapter, rules] : stored.rules) {
        stored.adapterPolicyMap.emplace(adapter, FW::FW_POLICY_ALLOW);
    }
    stored.adapterPolicyMap[FW::FW_ADAPTER_GLOBAL] = FW::FW_POLICY_NONE;
    return stored;
}

/// The profile of a file's text, which has to be valid.
FW::FWPROFILE profileIn(const std::string& text, DocumentName documentName,
                        const std::string& title, const char* consequence, Machine& machine) {
    ProfileDocument document(text);
    if (documentName == DocumentName::kNotRead) {
        document.becomeNew("new");
    }
    if (!document.check(machine)) {
        warn(title, document.findings());
        throw Error(ErrorKind::kInvalid, title + " is invalid: " + consequence,
                    placeOfFirstError(title, document.findings()));
    }
    return asStored(document.profile());
}

}  // namespace

NamedProfile namedProfile(const std::string& what, DocumentName documentName,
                          const char* consequence, Context& context) {
    const StoreSnapshot& store = context.store();
    if (what == kStandardInput || (!what.empty() && !store.hasProfile(what) && namesAFile(what))) {
        const std::string title =
            what == kStandardInput ? std::string("standard input") : printable(what);
        return {what, title, /*isStored=*/false,
                profileIn(readText(what), documentName, title, consequence, context.machine())};
    }
    const std::string name = what.empty() ? store.activeProfile() : what;
    store.requireProfile(name);
    return {name, "profile " + inQuotes(name), /*isStored=*/true, store.profile(name)};
}

}  // namespace tarnfw
