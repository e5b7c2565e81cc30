/// One translation of every kind of rule, for an instruction counter: prints how many lines there
/// were. `check_instructions` counts only what happens inside the translation.
#include <json/json.h>

#include <cstdio>
#include <string>

#include "tarnfirewall/fwIptables.h"

#include "support/files.h"
#include "support/profiles.h"

int main() {
    requireSandbox();
    constexpr int kRules = 500;
    for (const std::string& country : kCountries) {
        storeCountry(country, 1);
    }
    std::size_t count = 0;
    for (const NamedKind& named : kRuleKinds) {
        const FW::FWPROFILE profile = makeProfile("p", named.kind, kRules);
        Json::Value commands;
        FW::TARNFW_IPTABLES_RULES translator;
        // Not the operation without an address: it calls this one, and a counter that is switched
        // by the name of both would be off in between.
        if (!translator.fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap,
                                               commands, "")) {
            return 1;
        }
        for (const Json::Value& family : commands) {
            for (const Json::Value& lines : family) {
                count += lines.size();
            }
        }
    }
    std::printf("%zu\n", count);
    return 0;
}
