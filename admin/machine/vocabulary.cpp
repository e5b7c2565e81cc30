#include "tarnfwadmin/vocabulary.h"

#include <iterator>
#include <sstream>
#include <vector>

#include "tarnfirewall/fwGeoip.h"

#include "tarnfwadmin/machine.h"

namespace tarnfw {

RuleVocabulary machineVocabulary(Machine& machine) {
    RuleVocabulary known;
    for (const Service& service : machine.catalogue().usableServices()) {
        known.services[service.name] = service.destination.protocol;
    }
    const std::vector<std::string> codes = machineCountries();
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
