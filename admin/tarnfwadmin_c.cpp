#include "tarnfwadmin/tarnfwadmin_c.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "tarnfwadmin/control.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/storeSession.h"
#include "tarnfwadmin/text.h"
#include "tarnfwadmin/verdicts.h"
#include "tarnfwadmin/vocabulary.h"

namespace {

using tarnfw::Error;
using tarnfw::ErrorKind;
using tarnfw::StoreSession;

/// A caller's buffer for a text.
struct Reason {
    char* text;
    std::size_t size;

    void operator=(const char* line) const {
        if (text != nullptr && size > 0) {
            const std::size_t length = std::min(std::strlen(line), size - 1);
            std::memcpy(text, line, length);
            text[length] = '\0';
        }
    }
};

int codeOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kNotFound:
            return TARNFWADMIN_NOT_FOUND;
        case ErrorKind::kInvalid:
            return TARNFWADMIN_INVALID;
        case ErrorKind::kUnusable:
            return TARNFWADMIN_UNUSABLE;
        case ErrorKind::kRefused:
            return TARNFWADMIN_REFUSED;
        case ErrorKind::kBusy:
            return TARNFWADMIN_BUSY;
        case ErrorKind::kNoRights:
            return TARNFWADMIN_NO_RIGHTS;
        case ErrorKind::kSystem:
        case ErrorKind::kDeclined:  // no operation here asks
            break;
    }
    return TARNFWADMIN_SYSTEM;
}

/// Runs `step`, which returns what was done; what it throws becomes a code and a reason.
template <typename Step>
int guarded(Reason reason, const Step& step) noexcept {
    try {
        try {
            reason = step().c_str();
            return TARNFWADMIN_OK;
        } catch (const Error& error) {
            reason = error.what();
            return codeOf(error.kind());
        } catch (const std::exception& error) {
            reason = tarnfw::reasonOf(error).c_str();
        }
    } catch (...) {
        reason = "an unexpected failure";
    }
    return TARNFWADMIN_SYSTEM;
}

/// The text of an argument that must be there.
std::string required(const char* argument, const char* name) {
    if (argument == nullptr) {
        throw Error(ErrorKind::kInvalid, std::string("no ") + name + " is given");
    }
    return argument;
}

void requireRoot() {
    if (geteuid() != 0) {
        throw Error(ErrorKind::kNoRights, "this needs root's rights");
    }
}

std::string decided(const tarnfw::Meaning& meaning, const tarnfw::PortDecision& decision) {
    std::string text = reasonText(meaning, decision.by);
    for (const std::size_t number : decision.unless) {
        text += "; unless " + tarnfw::placeText(placeOf(meaning, number)) + " matches";
    }
    for (const tarnfw::UncountedRule& rule : decision.uncounted) {
        text += "; unless " + tarnfw::placeText(rule.place) + " matches";
    }
    return text;
}

/// Those of the active profile; none when there is no such profile, or it cannot be read.
std::vector<std::string> adaptersKnown(const tarnfw::StoreSnapshot& store) {
    return store.hasProfile(store.activeProfile()) ? tarnfw::adaptersOf(store.profile(""))
                                                   : std::vector<std::string>();
}

/// The adapters of the profile and the machine, but for "lo", whose packets no rule meets.
std::vector<std::string> filteredAdapters(const FW::FWPROFILE& profile) {
    std::set<std::string> adapters;
    for (const auto& some : {tarnfw::adaptersOf(profile), tarnfw::machineAdapters()}) {
        adapters.insert(some.begin(), some.end());
    }
    adapters.erase("lo");
    return {adapters.begin(), adapters.end()};
}

/// "eth0: blocked; eth1: allowed". The answer of "global", the first one, counts only alone: the
/// adapters' contain it.
std::string summary(const std::vector<tarnfw::AdapterAnswer>& answers, int& blocked) {
    std::string text;
    bool all = true;
    bool some = false;
    for (std::size_t i = answers.size() > 1 ? 1 : 0; i < answers.size(); ++i) {
        const FW::FW_POLICY verdict = answers[i].verdict;
        all = all && verdict == FW::FW_POLICY_DENY;
        some = some || verdict == FW::FW_POLICY_DENY || verdict == FW::FW_POLICY_MIXED;
        text.append(text.empty() ? "" : "; ").append(answers[i].adapter);
        text.append(": ").append(tarnfw::verdictText(verdict));
    }
    blocked = all ? 2 : some ? 1 : 0;
    return text;
}

}  // namespace

int tarnfwadmin_check_rule(const char* rule, char* reason, size_t size) {
    return guarded({reason, size}, [&] {
        tarnfw::Machine machine;
        return tarnfw::ruleText(tarnfw::ruleFromText(required(rule, "rule"), machine));
    });
}

int tarnfwadmin_add_rule(const char* profile, const char* adapter, const char* rule, char* reason,
                         size_t size) {
    return guarded({reason, size}, [&] {
        requireRoot();
        const std::string list = required(adapter, "adapter");
        tarnfw::Machine machine;
        const FW::FWRULE added = tarnfw::ruleFromText(required(rule, "rule"), machine);
        StoreSession session(StoreSession::Access::kChange);
        const tarnfw::RulePlace place =
            addRule(session, profile == nullptr ? "" : profile, list, added, machine);
        const std::string absence = machine.absenceOf(list);
        return placeText(place) + ": " + tarnfw::ruleText(added) +
               (absence.empty() ? "" : "; " + absence);
    });
}

int tarnfwadmin_enable(char* reason, size_t size) {
    return guarded({reason, size}, [] {
        requireRoot();
        StoreSession session(StoreSession::Access::kChange);
        tarnfw::Machine machine;
        tarnfw::Control(session).enable(machine);
        return "the firewall is enabled with profile " +
               tarnfw::inQuotes(session.snapshot().activeProfile());
    });
}

int tarnfwadmin_disable(char* reason, size_t size) {
    return guarded({reason, size}, [] {
        requireRoot();
        StoreSession session(StoreSession::Access::kChange);
        tarnfw::Control(session).disable();
        return std::string("the firewall is disabled");
    });
}

int tarnfwadmin_reload(char* reason, size_t size) {
    return guarded({reason, size}, [] {
        requireRoot();
        StoreSession session(StoreSession::Access::kChange);
        return tarnfw::Control(session).apply()
                   ? "profile " + tarnfw::inQuotes(session.snapshot().activeProfile()) +
                         " is applied"
                   : std::string("the firewall is disabled: nothing to apply");
    });
}

int tarnfwadmin_known(const char* service, const char* adapter, char* reason, size_t size) {
    return guarded({reason, size}, [&] {
        if (service != nullptr) {
            tarnfw::Machine machine;
            (void)machine.requireCatalogue().require(service);
        }
        if (adapter != nullptr) {
            const StoreSession session(StoreSession::Access::kRead);
            tarnfw::requireAdapter(adapter, adaptersKnown(session.snapshot()));
        }
        return std::string("known");
    });
}

int tarnfwadmin_blocked(const char* service, const char* adapter, int* blocked, char* reason,
                        size_t size) {
    return guarded({reason, size}, [&] {
        if (blocked == nullptr) {
            throw Error(ErrorKind::kInvalid, "there is no place for the answer");
        }
        tarnfw::Machine machine;
        const std::vector<tarnfw::PacketQuestion> questions =
            questionsAbout(machine.requireCatalogue().require(required(service, "service")));
        const StoreSession session(StoreSession::Access::kRead);
        const tarnfw::StoreSnapshot& store = session.snapshot();
        if (adapter != nullptr) {
            tarnfw::requireCoveredAdapter(adapter, adaptersKnown(store));
        }
        if (!store.firewallEnabled()) {
            *blocked = 0;
            return std::string("the firewall is disabled");
        }
        const FW::FWPROFILE& profile = store.profile("");
        const std::vector<std::string> asked =
            adapter == nullptr ? filteredAdapters(profile) : std::vector<std::string>{adapter};
        return summary(exactVerdicts(tarnfw::Meaning(profile, machine), questions, asked),
                       *blocked);
    });
}

int tarnfwadmin_decide(const char* address, const char* port, const char* adapter, int* allowed,
                       char* reason, size_t size) {
    return guarded({reason, size}, [&] {
        const std::string interface = required(adapter, "adapter");
        tarnfw::PortPackets packets =
            tarnfw::packetsFrom(required(address, "address"), required(port, "port"), interface);
        if (packets.ports->first != packets.ports->last) {
            throw Error(ErrorKind::kInvalid, "one port can be asked about, not a range");
        }
        if (allowed == nullptr) {
            throw Error(ErrorKind::kInvalid, "there is no place for the answer");
        }
        const StoreSession session(StoreSession::Access::kRead);
        const tarnfw::StoreSnapshot& store = session.snapshot();
        if (!store.firewallEnabled()) {
            tarnfw::requireCoveredAdapter(interface, adaptersKnown(store));
            *allowed = 1;
            return std::string("the firewall is disabled");
        }
        tarnfw::Machine machine;
        const FW::FWPROFILE& profile = store.profile("");
        tarnfw::requireCoveredAdapter(interface, tarnfw::adaptersOf(profile));
        const tarnfw::Meaning meaning(profile, machine);
        packets.packet.in = interfaceFor(meaning, interface);
        const tarnfw::PortDecision decision = decisionsFor(meaning, packets).front();
        const std::string text = decided(meaning, decision);
        *allowed = decision.denied ? 0 : 1;
        return text;
    });
}
