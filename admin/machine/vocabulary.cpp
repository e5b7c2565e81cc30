#include "tarnfwadmin/vocabulary.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <vector>

#include "tarncore.h"

#include "tarnfirewall/fwGeoip.h"

#include "tarnfwadmin/machine.h"

namespace tarnfw {
namespace {

constexpr char kCountryDirectory[] = "/usr/share/xt_geoip";

std::vector<std::string> countries() {
    std::vector<std::string> codes;
    if (TLIBCFileExist(kCountryDirectory) == 1) {
        (void)FW::FW_GEOIP().countryEnum(codes);  // logs for itself; then there are none
    }
    std::sort(codes.begin(), codes.end());
    return codes;
}

}  // namespace

RuleVocabulary machineVocabulary(Machine& machine) {
    RuleVocabulary known;
    for (const Service& service : machine.catalogue().usableServices()) {
        known.services[service.name] = service.destination.protocol;
    }
    const std::vector<std::string> codes = countries();
    if (!codes.empty()) {
        FW::FW_GEOIP geoip;
        (void)geoip.geoipSanctify(codes, false, known.countriesV4);
        (void)geoip.geoipSanctify(codes, true, known.countriesV6);
    }
    return known;
}

FW::FWRULE ruleFromText(const std::string& text, Machine& machine) {
    std::istringstream words(text);
    return ruleFrom({std::istream_iterator<std::string>(words), {}}, RuleOptions(),
                    machineVocabulary(machine));
}

}  // namespace tarnfw
