#include "tarnfirewall/fwIptables.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "tarncore.h"
#include "tarnnetsdk.h"
#include "tarnserviceconf.h"

#include "fwCatalogue.h"
#include "fwFragments.h"
#include "fwInterfaces.h"
#include "fwLog.h"
#include "fwRuleTranslation.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwIptables";

constexpr std::size_t kPppoeNameBytes = 256;

constexpr char kLoopbackLine[] = " -i lo -j ACCEPT";
constexpr char kEstablishedMatch[] = " -m state --state ESTABLISHED,RELATED -j ACCEPT";
// Without these an IPv6 host cannot reach its neighbours and its router.
constexpr const char* kNeighbourLines[] = {
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",
};

// ---- Services ----

using PortsByProtocol = std::map<FW_PORT_PROTOCOL, std::vector<std::string>>;

/// Adds the entries of a platform list, if there are any, to the ports of a protocol.
void addPorts(int protocol, const TLIBCSZLIST* list, PortsByProtocol& out) {
    if (list == nullptr || list->nItem <= 0) {
        return;
    }
    std::vector<std::string>& ports = out[static_cast<FW_PORT_PROTOCOL>(protocol)];
    for (int i = 0; i < list->nItem; ++i) {
        if (const char* const port = TLIBCSzListGet(list, i)) {
            ports.emplace_back(port);
        }
    }
}

// ---- Documents and lines ----

/// Appends the output of `operation` to the texts of a member of a document.
template <typename Operation>
bool appendTo(Json::Value& document, const char* member, Operation operation) {
    Texts texts;
    const bool result = operation(texts);
    appendTexts(texts, document, member);
    return result;
}

/// Runs `operation` with the document's fragments already in `fragments`, then removes these: an
/// adapter without interfaces becomes a match only when there is no other.
template <typename Operation>
bool afterAdaptersOf(const Json::Value& arg, Texts& fragments, Operation operation) {
    fragments = textsOf(arg["adapter"]);
    const auto present = static_cast<std::ptrdiff_t>(fragments.size());
    const bool result = operation();
    fragments.erase(fragments.begin(), fragments.begin() + present);
    return result;
}

// Names the loopback address, because a platform may not count it among a host's addresses.
bool isIpv4(const std::string& text) {
    return BlTLIBIsIpAddr(text.c_str()) != 0 || text == "127.0.0.1";
}
bool isIpv6(const std::string& text) {
    return BlTLIBIsv6IpAddrValid(text.c_str()) != 0;
}

bool isUsableLocalIp(const std::string& localIp) {
    return localIp.empty() || isIpv4(localIp) || isIpv6(localIp);
}

/// Whether lines can be made of a rule's texts; if not, it is logged.
bool isTranslatable(const FWRULE& rule, const std::string& adapter) {
    if (adapter.find('\0') == std::string::npos && !holdsNul(rule)) {
        return true;
    }
    FW_LOG_ERR("A rule of adapter %s holds a NUL character and is left out", adapter.c_str());
    return false;
}

/// The line that lets established connections pass, except from `exceptedIp` if it is not empty.
std::string establishedLine(const std::string& chainStart, const std::string& exceptedIp) {
    return chainStart + (exceptedIp.empty() ? "" : " ! -s " + exceptedIp) + kEstablishedMatch;
}

/// Appends the lines at the beginning of every ruleset.
void appendFixedLines(bool acceptEstablished, const std::string& localIp, Json::Value& out) {
    const std::string exceptedV4 = !localIp.empty() && isIpv4(localIp) ? localIp : "";
    const std::string exceptedV6 = !localIp.empty() && isIpv6(localIp) ? localIp : "";
    Json::Value& v4 = out["v4"][FW_ADAPTER_GLOBAL];
    Json::Value& v6 = out["v6"][FW_ADAPTER_GLOBAL];
    for (const std::string& chain : FW_FIREWALL_CHAINS) {
        const std::string start = "-A " + chain;
        v4.append(start + kLoopbackLine);
        if (acceptEstablished) {
            v4.append(establishedLine(start, exceptedV4));
        }
        v6.append(start + kLoopbackLine);
        for (const char* const neighbourLine : kNeighbourLines) {
            v6.append(start + neighbourLine);
        }
        if (acceptEstablished) {
            v6.append(establishedLine(start, exceptedV6));
        }
    }
}

/// The rules of one adapter, and the last rule if the adapter has a default policy.
struct AdapterRules {
    const std::vector<FWRULE>* rules = nullptr;
    std::optional<FWRULE> closing;
};

/// A different interface that routes IPv6 for `adapter`, if there is one and the rule can be
/// repeated for it.
std::optional<std::string> tunnelFor(RuleTranslation& translation, const std::string& adapter,
                                     const FWRULE& rule) {
    const std::string& interface = translation.interfaceOf(adapter);
    std::string router = translation.routerInterfaceOf(interface);
    if (router == interface || (translation.isForBatch() && hasIpv4Address(rule))) {
        return std::nullopt;
    }
    return router;
}

/// Appends the lines of a rule to a command document. `fragments` is reused memory.
bool appendRule(RuleTranslation& translation, const FWRULE& rule, const std::string& adapter,
                AdapterLines& lines, Fragments& fragments) {
    fragments.clear();
    if (!translation.convert(adapter, rule, fragments)) {
        return false;
    }
    lines.append(rule, fragments);
    return true;
}

/// Repeats the IPv6 lines of a rule for the tunnel that routes it. Failures add nothing.
void appendTunnelRule(RuleTranslation& translation, const FWRULE& rule, const std::string& router,
                      Json::Value& out) {
    AdapterLines lines(out, router);
    Fragments fragments;
    if (!appendRule(translation, rule, router, lines, fragments)) {
        FW_LOG_ERR("Failed to convert rule to iptables arg in 6in4 over PPPoE.");
    }
}

/// Translates the rules of one adapter, in their order, into a command document.
class AdapterTranslation {
public:
    AdapterTranslation(TARNFW_IPTABLES_RULES& translator, RuleTranslation& translation,
                       const std::string& adapter, Json::Value& out)
        : translator_(translator),
          translation_(translation),
          adapter_(adapter),
          out_(out),
          lines_(out, adapter) {}

    /// Skips a rule that is not in use now. False when it cannot be converted.
    bool append(const FWRULE& rule) {
        if (!rule.enable || adapter_ == FW_PPPOE_INTERFACE || !isEnabled() ||
            rule.policy == FW_POLICY_NONE || !isTranslatable(rule, adapter_)) {
            return true;
        }
        if (!appendRule(translation_, rule, adapter_, lines_, fragments_)) {
            return false;
        }
        if (const auto router = tunnelFor(translation_, adapter_, rule)) {
            FWRULE ipv6Rule = rule;
            ipv6Rule.ipType = FW_IP_TYPE_V6;
            appendTunnelRule(translation_, ipv6Rule, *router, out_);
        }
        return true;
    }

private:
    /// Keeps a positive answer. After a negative one asks the translator again for each rule, which
    /// logs it each time.
    bool isEnabled() {
        enabled_ = enabled_ || translator_.adapterIsEnabled(adapter_);
        return enabled_;
    }

    TARNFW_IPTABLES_RULES& translator_;
    RuleTranslation& translation_;
    const std::string& adapter_;
    Json::Value& out_;
    AdapterLines lines_;
    Fragments fragments_;
    bool enabled_ = false;
};

/// How a profile's translation treats established connections.
struct Established {
    bool accept;
    const std::string& exceptedIp;
};

/// Translates a profile; see TARNFW_IPTABLES_RULES::fwRulesToIptablesRules().
bool translateProfile(TARNFW_IPTABLES_RULES& translator, RuleTranslation& translation,
                      const Established& established,
                      const std::map<std::string, std::vector<FWRULE>>& rules,
                      const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out) {
    if (!isUsableLocalIp(established.exceptedIp)) {
        FW_LOG_ERR("Invalid input argument '%s' which is not an IP address.",
                   established.exceptedIp.c_str());
        return false;
    }
    appendFixedLines(established.accept, established.exceptedIp, out);

    std::map<std::string, AdapterRules> completed;
    for (const auto& [adapter, list] : rules) {
        completed[adapter].rules = &list;
    }
    for (const auto& [adapter, policy] : adapterPolicy) {
        if (adapter != FW_PPPOE_INTERFACE && translator.adapterIsEnabled(adapter)) {
            completed[adapter].closing = defaultRule(policy);
        }
    }

    for (const auto& [adapter, list] : completed) {
        AdapterTranslation lines(translator, translation, adapter, out);
        const auto append = [&](const FWRULE& rule) { return lines.append(rule); };
        if (list.rules != nullptr && !std::all_of(list.rules->begin(), list.rules->end(), append)) {
            return false;
        }
        if (list.closing && !append(*list.closing)) {
            return false;
        }
    }
    return true;
}

}  // namespace

void CatalogueRelease::operator()(TARNFW_SERVICE_LIST* list) const {
    TARNFwServiceFree(list);
}

TARNFW_IPTABLES_RULES::TARNFW_IPTABLES_RULES() = default;
TARNFW_IPTABLES_RULES::~TARNFW_IPTABLES_RULES() = default;

// ---- Rule to argument document, argument document to lines ----

bool TARNFW_IPTABLES_RULES::FwRuleToIptablesArg(const std::string& adapter, const FWRULE& rule,
                                                Json::Value& arg) {
    if (!isTranslatable(rule, adapter)) {
        return true;  // without fragments: only this rule yields no line
    }
    Fragments fragments;
    const bool converted = afterAdaptersOf(arg, fragments.adapter, [&] {
        return RuleTranslation(*this).convert(adapter, rule, fragments);
    });
    fragments.appendTo(arg);
    return converted;
}

bool TARNFW_IPTABLES_RULES::adapterToIptablesArg(const std::string& adapter, const FWRULE& rule,
                                                 Json::Value& arg) {
    return appendTo(arg, "adapter", [&](Texts& fragments) {
        return afterAdaptersOf(arg, fragments, [&] {
            return RuleTranslation(*this).adapterFragments(adapter, rule, fragments);
        });
    });
}

bool TARNFW_IPTABLES_RULES::ipToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    Fragments fragments;
    const bool converted = RuleTranslation(*this).ipFragments(rule, fragments.ip);
    fragments.appendTo(arg);
    return converted;
}

bool TARNFW_IPTABLES_RULES::portToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    return appendTo(arg, "port", [&](Texts& fragments) {
        return RuleTranslation(*this).portFragments(rule, fragments);
    });
}

bool TARNFW_IPTABLES_RULES::chainToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    return appendTo(arg, "chain", [&](Texts& fragments) {
        return RuleTranslation::chainFragments(rule, fragments);
    });
}

bool TARNFW_IPTABLES_RULES::tableToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    return appendTo(arg, "table", [&](Texts& fragments) {
        return RuleTranslation::tableFragments(rule, fragments);
    });
}

bool TARNFW_IPTABLES_RULES::policyToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    return appendTo(arg, "policy", [&](Texts& fragments) {
        return RuleTranslation::policyFragments(rule, fragments);
    });
}

void TARNFW_IPTABLES_RULES::iptablesArgToCmd(const std::string& adapter, const FWRULE& rule,
                                             const Json::Value& arg, Json::Value& out) {
    AdapterLines(out, adapter).append(rule, Fragments::of(arg, rule.ipType));
}

// ---- Adapters ----

bool TARNFW_IPTABLES_RULES::enabledAdapterEnum() {
    if (!enabledAdapters_.empty()) {
        return true;
    }
    const int result = interfacesEnum(enabledAdapters_);
    if (result < 0) {
        FW_LOG_INTERFACES_FAILURE(result);
        return false;
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::vpnAdatperEnum() {
    if (!vpnAdapters_.empty()) {
        return true;
    }
    if (!enabledAdapterEnum()) {
        FW_LOG_ERR("Failed to enabledAdapterEnum()");
        return false;
    }
    pppoeAdaterGet();
    for (const std::string& adapter : enabledAdapters_) {
        if (isVpnInterface(adapter, pppoeInterface_)) {
            vpnAdapters_.push_back(adapter);
        }
    }
    return true;
}

void TARNFW_IPTABLES_RULES::pppoeAdaterGet() {
    if (!pppoeInterface_.empty()) {
        return;
    }
    char name[kPppoeNameBytes] = {};
    if (TARNPPPoeIntfGet(name, sizeof(name)) < 0) {
        FW_LOG_DEBUG("Failed to TARNPPPoeIntfGet()");
        return;
    }
    pppoeInterface_.assign(name, strnlen(name, sizeof(name)));
}

bool TARNFW_IPTABLES_RULES::adapterIsEnabled(const std::string& adapter) {
    if (adapter == FW_ADAPTER_GLOBAL) {
        return true;
    }
    if (adapter == FW_ADAPTER_VPN) {
        (void)vpnAdatperEnum();  // logs for itself; a failure leaves the list empty
        return !vpnAdapters_.empty();
    }
    if (adapter == FW_ADAPTER_PPPOE) {
        pppoeAdaterGet();
        return !pppoeInterface_.empty();
    }
    if (!enabledAdapterEnum()) {
        FW_LOG_ERR("Failed to enabledAdapterEnum()");
        return false;
    }
    return std::find(enabledAdapters_.begin(), enabledAdapters_.end(), adapter) !=
           enabledAdapters_.end();
}

// ---- Services ----

const TARNFW_SERVICE_LIST* TARNFW_IPTABLES_RULES::serviceCatalogue() {
    if (!services_) {
        services_ = catalogueLoad();
    }
    return services_.get();
}

bool TARNFW_IPTABLES_RULES::servToPorts(const std::vector<std::string>& services, ServPort& out) {
    const TARNFW_SERVICE_LIST* const catalogue = serviceCatalogue();
    if (catalogue == nullptr) {
        FW_LOG_ERR("Failed to enum services");
        return false;
    }
    for (const std::string& name : services) {
        const TARNFW_SERVICE* const service = TARNFWServiceFind(catalogue, name.c_str());
        if (!isUsable(service)) {
            continue;
        }
        addPorts(service->srcProtocol, service->srcPorts, out.srcPorts);
        addPorts(service->dstProtocol, service->dstPorts, out.dstPorts);
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::servPortToCmd(const std::vector<std::string>& services,
                                          Json::Value& arg) {
    return appendTo(arg, "port", [&](Texts& fragments) {
        return RuleTranslation(*this).serviceFragments(services, fragments);
    });
}

// ---- Whole profiles ----

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(
    const bool& acceptEstablished, const std::map<std::string, std::vector<FWRULE>>& rules,
    const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out,
    const std::string& localIp) {
    RuleTranslation translation(*this);
    return translateProfile(*this, translation, {acceptEstablished, localIp}, rules, adapterPolicy,
                            out);
}

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(
    const bool& acceptEstablished, const std::map<std::string, std::vector<FWRULE>>& rules,
    const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out) {
    return fwRulesToIptablesRules(acceptEstablished, rules, adapterPolicy, out, "");
}

bool TARNFW_IPTABLES_RULES::fwRulesToBatchRules(
    bool acceptEstablished, const std::map<std::string, std::vector<FWRULE>>& rules,
    const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out,
    const std::string& localIp) {
    RuleTranslation translation(*this, LinesFor::kBatch);
    return translateProfile(*this, translation, {acceptEstablished, localIp}, rules, adapterPolicy,
                            out);
}

bool TARNFW_IPTABLES_RULES::iptablesRulesInit(Json::Value& arg) {
    for (const char* const kind : {"adapter", "port", "chain", "table", "policy"}) {
        arg[kind] = Json::Value(Json::arrayValue);
    }
    Json::Value& ip = arg["ip"];
    ip = Json::Value(Json::objectValue);
    ip["v4"] = Json::Value(Json::arrayValue);
    ip["v6"] = Json::Value(Json::arrayValue);
    return true;
}

bool TARNFW_IPTABLES_RULES::jIptablesCmdInit(Json::Value& out) {
    out["v4"] = Json::Value();
    out["v6"] = Json::Value();
    return true;
}

void TARNFW_IPTABLES_RULES::iptables6in4ToCmd(const std::string& adapter, const FWRULE& rule,
                                              Json::Value& out) {
    if (!isTranslatable(rule, adapter)) {
        return;
    }
    RuleTranslation translation(*this);
    if (const auto router = tunnelFor(translation, adapter, rule)) {
        appendTunnelRule(translation, rule, *router, out);
    }
}

}  // namespace FW
