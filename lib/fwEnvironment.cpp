#include "tarnfirewall/fwEnvironment.h"

#include <map>
#include <set>
#include <utility>

#include "tarnfirewall/fwIptables.h"

#include "fwAdapters.h"
#include "fwCatalogue.h"
#include "fwGeoipFile.h"
#include "fwIntervals.h"
#include "fwRuleTranslation.h"
#include "fwServiceRules.h"
#include "fwSettings.h"

namespace FW {
namespace {

using Names = std::set<std::string>;
using Countries = std::map<std::pair<std::string, FW_FAMILY>, std::shared_ptr<const FWADDRESSES>>;

/// Collects the entries of a list of each rule that `uses` names.
template <typename Uses>
Names namesIn(const FWPROFILE& profile, std::vector<std::string> FWRULE::*list, Uses uses) {
    Names names;
    for (const auto& [adapter, rules] : profile.rules) {
        for (const FWRULE& rule : rules) {
            if (uses(rule)) {
                names.insert((rule.*list).begin(), (rule.*list).end());
            }
        }
    }
    return names;
}

Number ipv6At(const char* bytes) {
    Number number = 0;
    for (std::size_t i = 0; i < 16; i += 4) {
        number = number << 32 | wordAt(bytes + i);
    }
    return number;
}

/// A file of the database.
struct CountryFile {
    std::shared_ptr<const FWADDRESSES> addresses;  // null without a file
    bool isBroken = false;                         // it ends within a record
};

CountryFile countryFile(const std::string& country, FW_FAMILY family) {
    const bool ipv6 = family == FW_FAMILY_V6;
    CountryFile file;
    Intervals intervals;
    const bool read = geoipRecordsRead(country, ipv6, [&](const char* record, std::size_t bytes) {
        if (bytes < (ipv6 ? kGeoipRecordBytesV6 : kGeoipRecordBytesV4)) {
            file.isBroken = !intervals.empty() || bytes >= kGeoipUsableBytes;
        } else if (ipv6) {
            intervals.push_back({ipv6At(record), ipv6At(record + 16)});
        } else {
            intervals.push_back(
                {ipv4Number(wordAt(record)), lastOf(ipv4Number(wordAt(record + 4)), FW_FAMILY_V4)});
        }
    });
    if (read) {
        normalize(intervals);
        file.addresses = std::make_shared<const FWADDRESSES>(addressesOf(intervals));
    }
    return file;
}

/// The codes of the countries that a profile names.
Names countriesOf(const FWPROFILE& profile) {
    return namesIn(profile, &FWRULE::ipList,
                   [](const FWRULE& rule) { return rule.ipGroup == FW_IP_GROUP_COUNTRIES; });
}

void addCountries(const Names& codes, FWENVIRONMENT& environment) {
    Countries countries;
    for (const std::string& code : codes) {
        for (const FW_FAMILY family : {FW_FAMILY_V4, FW_FAMILY_V6}) {
            const CountryFile file = countryFile(code, family);
            countries[{code, family}] = file.addresses;
            if (file.isBroken) {
                environment.brokenCountries.insert({code, family});
            }
        }
    }
    environment.countries = [countries = std::move(countries)](const std::string& country,
                                                               FW_FAMILY family) {
        const auto found = countries.find({country, family});
        return found == countries.end() ? nullptr : found->second;
    };
}

/// Adds the ports of the services that the firewall may use.
bool addServices(TARNFW_IPTABLES_RULES& translator, const Names& names,
                 std::map<std::string, ServPort>& services) {
    for (const std::string& name : names) {
        ServPort ports;
        if (!translator.servToPorts({name}, ports)) {
            return false;
        }
        if (isUsable(TARNFWServiceFind(translator.serviceCatalogue(), name.c_str()))) {
            services[name] = std::move(ports);
        }
    }
    return true;
}

}  // namespace

bool fwEnvironmentGet(const FWPROFILE& profile, FW_ADAPTERS adapters,
                      const std::vector<std::string>& services, FWENVIRONMENT& environment) {
    FWENVIRONMENT filled;
    TARNFW_IPTABLES_RULES translator;
    RuleTranslation translation(translator);

    std::vector<std::string> interfaces;
    if (!translation.interfaces(interfaces)) {
        return false;
    }
    // Without the file's lock: a user who may read the settings may be unable to make one.
    filled.batch = settingsChooseBatch();
    const std::string pppoe = translation.interfaceOf(FW_ADAPTER_PPPOE);
    const auto present = fwAdaptersNow(interfaces, pppoe);
    filled.adapters = adapters == FW_ADAPTERS_ALL ? fwAdaptersByName(profile, pppoe) : present;

    for (const std::string& adapter : adaptersOf(profile)) {
        if (adapter == FW_PPPOE_INTERFACE || present.count(adapter) == 0) {
            continue;
        }
        const std::string interface = translation.interfaceOf(adapter);
        std::string router = translation.routerInterfaceOf(interface);
        if (router != interface) {
            filled.tunnels[adapter] = std::move(router);
        }
    }

    Names names = namesIn(profile, &FWRULE::portList, fwRuleNamesServices);
    names.insert(services.begin(), services.end());
    if (!addServices(translator, names, filled.services)) {
        return false;
    }

    addCountries(countriesOf(profile), filled);
    environment = std::move(filled);
    return true;
}

std::shared_ptr<const FWADDRESSES> fwCountryAddresses(const std::string& country,
                                                      FW_FAMILY family) {
    return countryFile(country, family).addresses;
}

}  // namespace FW
