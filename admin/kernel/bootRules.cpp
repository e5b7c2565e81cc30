#include "tarnfwadmin/bootRules.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <utility>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/storeSession.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kInput[] = "INPUT_FIREWALL";
constexpr char kForward[] = "FORWARD_FIREWALL";

constexpr char kFailureFile[] = "/run/tarn/boot_failure.json";
constexpr mode_t kFailureMode = 0600;
constexpr char kReasonKey[] = "reason";
constexpr char kInForceKey[] = "inForce";
constexpr char kRulesKey[] = "rules";

constexpr char kLastGood[] = "the rules of the last successful reload";
constexpr char kMinimum[] =
    "closed, except for established connections, loopback, neighbour discovery, DHCP, and SSH from "
    "private and link-local networks";
constexpr char kOld[] = "the previous rules";
constexpr char kNotMet[] = "no rules that packets meet, because the base filter is not set up";
constexpr char kNothing[] = "nothing, so it is open";
constexpr char kUnknown[] = "unknown, because its rules cannot be listed";

constexpr std::array kFamilies = {"v4", "v6"};
constexpr char kFilter[] = "filter";

constexpr char kSshService[] = "ssh";
constexpr char kSshPort[] = "22";

/// What the rules of last resort have for one family.
struct Minimum {
    std::vector<std::string> accepted;       ///< matches
    std::vector<std::string> localNetworks;  ///< private and link-local
};

const Minimum& minimumOf(const std::string& family) {
    static const Minimum v4 = {{"-p udp -m udp --sport 67 --dport 68"},
                               {"10.0.0.0/8", "172.16.0.0/12", "192.168.0.0/16", "169.254.0.0/16"}};
    // Of neighbour discovery: router solicitation and advertisement, neighbour the same.
    static const Minimum v6 = {
        {"-p ipv6-icmp -m icmp6 --icmpv6-type 133", "-p ipv6-icmp -m icmp6 --icmpv6-type 134",
         "-p ipv6-icmp -m icmp6 --icmpv6-type 135", "-p ipv6-icmp -m icmp6 --icmpv6-type 136",
         "-s fe80::/10 -p udp -m udp --sport 547 --dport 546"},
        {"fc00::/7", "fe80::/10"}};
    return family == "v4" ? v4 : v6;
}

FamilyRules minimumRulesOf(const std::string& family, const std::vector<std::string>& sshPorts) {
    FamilyRules rules;
    const auto accept = [&rules](const std::string& chain, const std::string& match) {
        rules.chains[chain].push_back("-A " + chain + " " + match + " -j ACCEPT");
    };
    const std::string established = "-m state --state RELATED,ESTABLISHED";
    accept(kInput, "-i lo");
    accept(kInput, established);
    for (const std::string& match : minimumOf(family).accepted) {
        accept(kInput, match);
    }
    for (const std::string& network : minimumOf(family).localNetworks) {
        for (const std::string& ports : sshPorts) {
            accept(kInput, "-s " + network + " -p tcp -m tcp --dport " +
                               boost::replace_all_copy(ports, "-", ":"));
        }
    }
    accept(kForward, established);
    for (const char* const chain : {kInput, kForward}) {
        rules.chains[chain].push_back(std::string("-A ") + chain + " -j DROP");
    }
    return rules;
}

/// The ports of SSH by the service catalogue.
std::vector<std::string> sshPorts() {
    try {
        for (const Service& service : Catalogue().services()) {
            if (service.name == kSshService && !service.destination.ports.empty()) {
                return service.destination.ports;
            }
        }
    } catch (const std::exception&) {
        // what is missing at boot must not close the machine to its administrator
    }
    return {kSshPort};
}

std::map<std::string, FamilyRules> readableLastGood() {
    try {
        const std::optional<SavedRules> rules = lastGoodRules();
        return rules ? rules->families() : std::map<std::string, FamilyRules>();
    } catch (const Error&) {
        return {};
    }
}

bool hasRules(const std::string& family, const FamilyRules& rules) {
    return SavedRules({{family, rules}}).hasRules();
}

/// The rules of the families that can be listed, as a document.
Json::Value rulesThatCanBeListed() {
    std::map<std::string, RuleListing> listings;
    for (const char* const family : kFamilies) {
        try {
            if (std::optional<RuleListing> listing = MachineKernel().listPresent(family, kFilter)) {
                listings.emplace(family, std::move(*listing));
            }
        } catch (const Error&) {
            // the failure has it
        }
    }
    return SavedRules::of(listings).withoutPolicies().document();
}

/// Puts rules into one family that has none, and returns what is in force there.
const char* loadInto(const std::string& family,
                     const std::map<std::string, FamilyRules>& lastGood) {
    const auto good = lastGood.find(family);
    if (good != lastGood.end()) {
        try {
            SavedRules({*good}).withoutPolicies().putBack();
            return kLastGood;
        } catch (const Error&) {
            // such as a match that a new kernel lacks
        }
    }
    try {
        minimumRules({family}, sshPorts()).putBack();
    } catch (const Error&) {
        minimumRules({family}, {kSshPort}).putBack();  // a port text that iptables does not take
    }
    return kMinimum;
}

/// One family after the attempt to protect it.
struct FamilyProtection {
    std::string inForce = kUnknown;
    std::string loaded;  ///< "" for nothing
    std::string failure;
};

/// Nothing for a family that the machine does not have.
std::optional<FamilyProtection> tryToProtect(const std::string& family,
                                             const std::map<std::string, FamilyRules>& lastGood) {
    FamilyProtection own;
    try {
        const std::optional<RuleListing> now = MachineKernel().listPresent(family, kFilter);
        if (!now) {
            return std::nullopt;
        }
        std::string inForce = kOld;
        if (!hasRules(family, *now)) {
            own.inForce = kNothing;
            own.loaded = loadInto(family, lastGood);
            own.inForce = kUnknown;
            inForce = own.loaded;
        }
        own.inForce = BaseFilter(family).missing().empty() ? inForce : kNotMet;
    } catch (const Error& error) {
        own.failure = own.inForce == kNothing ? titleOf(family) + " is open: " : "";
        own.failure += error.what();
    }
    return own;
}

/// "IPv4 and IPv6: WHAT", or "IPv4: WHAT; IPv6: WHAT".
std::string inForceText(const std::map<std::string, std::string>& families) {
    std::vector<std::string> texts;
    std::string title;
    for (auto family = families.begin(); family != families.end(); ++family) {
        const auto next = std::next(family);
        title += titleOf(family->first);
        if (next != families.end() && next->second == family->second) {
            title += " and ";
            continue;
        }
        texts.push_back(title + ": " + family->second);
        title.clear();
    }
    return boost::join(texts, "; ");
}

}  // namespace

bool mustProtect() {
    try {
        std::error_code error;
        if (std::filesystem::symlink_status(kSettingsFile, error).type() !=
            std::filesystem::file_type::not_found) {
            if (!std::filesystem::exists(kSettingsFile)) {
                return true;  // a link to nowhere
            }
            const Json::Value settings = StoreSnapshot().settings();
            if (settings.isMember("status")) {
                return settings["status"].asBool();
            }
        }
    } catch (const std::exception&) {
        return true;
    }
    return access(kLastGoodFile, F_OK) == 0 || errno != ENOENT;
}

SavedRules minimumRules(const std::vector<std::string>& families,
                        const std::vector<std::string>& sshPorts) {
    std::map<std::string, FamilyRules> rules;
    for (const std::string& family : families) {
        rules.emplace(family, minimumRulesOf(family, sshPorts));
    }
    return SavedRules(std::move(rules));
}

Protection protectMachine(const Protection& before) {
    const std::optional<BootFailure> known = bootFailure();
    const std::map<std::string, FamilyRules> lastGood = readableLastGood();
    Protection all = {"", "", before.loaded};
    std::map<std::string, std::string> inForce;
    for (const char* const family : kFamilies) {
        const std::optional<FamilyProtection> own = tryToProtect(family, lastGood);
        if (!own) {
            continue;
        }
        if (!own->loaded.empty()) {
            all.loaded[family] = own->loaded;
        }
        const auto loaded = all.loaded.find(family);
        inForce[family] =
            own->inForce == kOld && loaded != all.loaded.end() ? loaded->second : own->inForce;
        all.failure += (all.failure.empty() || own->failure.empty() ? "" : "; ") + own->failure;
    }
    // The boot may have been tried before, and nothing has changed.
    all.inForce = known && all.loaded.empty() ? known->inForce : inForceText(inForce);
    return all;
}

void storeBootFailure(const BootFailure& failure) {
    Json::Value document;
    document[kReasonKey] = failure.reason;
    document[kInForceKey] = failure.inForce;
    document[kRulesKey] = rulesThatCanBeListed();
    makeDirectory(kRunDir);
    writeFileAtomically(kFailureFile, documentText(document), kFailureMode, Existing::kReplaced);
}

std::optional<BootFailure> bootFailure() {
    if (access(kFailureFile, F_OK) != 0) {
        return std::nullopt;
    }
    Json::Value document;
    try {
        if (!parseAsStored(readText(kFailureFile), document) || !document.isObject() ||
            !document[kReasonKey].isString() || !document[kInForceKey].isString() ||
            document[kRulesKey] != rulesThatCanBeListed()) {
            return std::nullopt;
        }
    } catch (const Error&) {
        return std::nullopt;
    }
    return BootFailure{document[kReasonKey].asString(), document[kInForceKey].asString()};
}

void forgetBootFailure() {
    (void)unlink(kFailureFile);  // mostly there is none
}

std::string textOf(const BootFailure& failure) {
    return "the active profile was not applied at boot: " + printable(failure.reason) +
           ". In force: " + failure.inForce;
}

}  // namespace tarnfw
