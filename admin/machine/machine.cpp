#include "tarnfwadmin/machine.h"

#include <vector>

#include "tarnfirewall/fwGeoip.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

bool Machine::hasAdapter(const std::string& adapter) {
    const auto known = adapters_.find(adapter);
    if (known != adapters_.end()) {
        return known->second;
    }
    return adapters_[adapter] = translation_.adapterIsEnabled(adapter);
}

std::string Machine::nearestAdapter(const std::string& adapter) {
    if (!adapterNames_) {
        adapterNames_ = usableAdapters();
    }
    return tarnfw::nearestAdapter(adapter, *adapterNames_);
}

const Catalogue& Machine::catalogue() {
    return catalogue_ ? *catalogue_ : catalogue_.emplace(translation_.serviceCatalogue());
}

const Catalogue& Machine::requireCatalogue() {
    if (!hasCatalogue()) {
        std::string text;
        for (const CatalogueError& error : catalogue().errors()) {
            text +=
                (text.empty() ? "the service catalogue cannot be read: " : "; ") + textOf(error);
        }
        throw Error(ErrorKind::kSystem, text.empty() ? "the service catalogue is empty" : text);
    }
    return catalogue();
}

bool Machine::hasCatalogue() {
    return catalogue().readable();
}

bool Machine::hasService(const std::string& name) {
    const std::optional<Service> service = catalogue().find(name);
    return service && service->usable();
}

std::string Machine::nearestService(const std::string& name) {
    if (!serviceNames_) {
        serviceNames_.emplace();
        for (const Service& service : catalogue().usableServices()) {
            serviceNames_->push_back(service.name);
        }
    }
    return nearest(name, *serviceNames_);
}

bool Machine::hasCountry(const std::string& code, bool ipv6) {
    const auto key = std::make_pair(code, ipv6);
    const auto known = countries_.find(key);
    if (known != countries_.end()) {
        return known->second;
    }
    std::vector<std::string> usable;
    return countries_[key] = FW::FW_GEOIP().geoipSanctify({code}, ipv6, usable);
}

const std::vector<AddressRange>& Machine::countryRanges(const std::string& code, bool ipv6) {
    const auto [entry, isNew] = ranges_.try_emplace({code, ipv6});
    if (isNew) {
        Json::Value ranges;
        (void)FW::FW_GEOIP().countryIPGet(code, ipv6, ranges);  // logs for itself
        for (const Json::Value& range : ranges) {
            if (const auto parsed =
                    rangeFrom(range["ip_begin"].asString(), range["ip_end"].asString())) {
                entry->second.push_back(*parsed);
            }
        }
    }
    return entry->second;
}

Json::Value Machine::portMatches(const FW::FWRULE& rule) {
    Json::Value arg;
    (void)translation_.iptablesRulesInit(arg);
    return translation_.portToIptablesArg(rule, arg) ? arg["port"] : Json::Value();
}

}  // namespace tarnfw
