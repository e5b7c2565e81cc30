/// Converts rules to fragments, with one function for each mapping. TARNFW_IPTABLES_RULES offers
/// the mappings one by one, on documents; a whole profile is translated here without documents.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwIptables.h"

#include "fwFragments.h"

namespace FW {

/// How the lines of a translation are put into the kernel.
enum class LinesFor {
    kRunning,  ///< one by one, each by its own process
    kBatch,    ///< all at once, see TARNFW_IPTABLES_RULES::fwRulesToBatchRules()
};

/// The last rule of an adapter's list, for its default policy: it matches everything that no user's
/// rule matched.
FWRULE defaultRule(FW_POLICY policy);

/// Whether a rule matches an address, network or range.
bool hasAddressText(const FWRULE& rule);

/// Whether a rule matches an address, network or range of IPv4, whatever its family.
bool hasIpv4Address(const FWRULE& rule);

/// Whether one of a rule's texts holds a NUL character. A program would see that text only up to
/// there, and the line would mean something else.
bool holdsNul(const FWRULE& rule);

/// The match of a rule's address, network or range, see hasAddressText(): "-s 10.0.0.0/8".
std::string addressFragment(const FWRULE& rule);

/// The match of countries: "-m geoip --source-country AA,BB".
std::string countryFragment(const FWRULE& rule, const Texts& countries);

/// Appends the matches of a protocol (an FW_PORT_PROTOCOL code; others have none) and of ports
/// given as texts, "80" or "6000-6010": "-p tcp --dport 80", or "-p tcp -m multiport --dports
/// 80,6000:6010".
void appendPortFragments(std::int32_t protocol, bool sourceSide, const Texts& ports,
                         Texts& fragments);

/// Every operation appends. It gets facts about the machine from the translator.
/// Use one object for one translation: it keeps the results for the countries and services that a
/// rule names, for later rules that name the same.
class RuleTranslation {
public:
    explicit RuleTranslation(TARNFW_IPTABLES_RULES& translator, LinesFor use = LinesFor::kRunning)
        : translator_(translator), use_(use) {}

    /// The machine's interfaces. Returns false, logged, when they cannot be listed.
    bool interfaces(std::vector<std::string>& names);

    /// The interface of `adapter`; for "pppoe" that of the connection.
    const std::string& interfaceOf(const std::string& adapter);

    /// The interface that routes IPv6 for `interface`, which may be itself.
    std::string routerInterfaceOf(const std::string& interface);

    /// Whether the lines are for apply mode "batch".
    bool isForBatch() const { return use_ == LinesFor::kBatch; }

    /// All fragments of a rule. False at the first kind that fails, logged; those before it stay.
    bool convert(const std::string& adapter, const FWRULE& rule, Fragments& fragments);

    bool adapterFragments(const std::string& adapter, const FWRULE& rule, Texts& fragments);
    bool ipFragments(const FWRULE& rule, std::array<Texts, 2>& fragments);
    bool portFragments(const FWRULE& rule, Texts& fragments);
    bool serviceFragments(const Texts& services, Texts& fragments);
    static bool chainFragments(const FWRULE& rule, Texts& fragments);
    static bool tableFragments(const FWRULE& rule, Texts& fragments);
    static bool policyFragments(const FWRULE& rule, Texts& fragments);

private:
    void appendCountries(const FWRULE& rule, const Family& family, Texts& fragments);

    TARNFW_IPTABLES_RULES& translator_;
    LinesFor use_;
    std::map<std::string, std::string> routerInterfaces_;    // those looked up, for a batch
    std::array<std::map<Texts, std::string>, 2> countries_;  // by Family::index: the usable ones
    std::map<Texts, Texts> services_;                        // their fragments
};

}  // namespace FW
