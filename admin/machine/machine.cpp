#include "tarnfwadmin/machine.h"

#include <algorithm>
#include <vector>

#include "tarncore.h"

#include "tarnfirewall/fwGeoip.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kCountryDirectory[] = "/usr/share/xt_geoip";

bool hasCountryData(const std::string& code, bool ipv6) {
    std::vector<std::string> usable;
    return FW::FW_GEOIP().geoipSanctify({code}, ipv6, usable);
}

}  // namespace

std::vector<std::string> machineCountries() {
    std::vector<std::string> codes;
    if (TLIBCFileExist(kCountryDirectory) == 1) {
        (void)FW::FW_GEOIP().countryEnum(codes);  // logs for itself; then there are none
    }
    std::sort(codes.begin(), codes.end());
    codes.erase(std::unique(codes.begin(), codes.end()), codes.end());
    return codes;
}

std::vector<AddressRange> readCountryRanges(const std::string& code, bool ipv6) {
    std::vector<AddressRange> ranges;
    Json::Value records(Json::arrayValue);
    if (!hasCountryData(code, ipv6) || !FW::FW_GEOIP().countryIPGet(code, ipv6, records)) {
        return ranges;  // it logs for itself
    }
    ranges.reserve(records.size());
    for (const Json::Value& record : records) {
        if (const auto range =
                rangeFrom(record["ip_begin"].asString(), record["ip_end"].asString())) {
            ranges.push_back(*range);
        }
    }
    return ranges;
}

bool Machine::hasAdapter(const std::string& adapter) {
    const auto known = adapters_.find(adapter);
    if (known != adapters_.end()) {
        return known->second;
    }
    return adapters_[adapter] = translation_.adapterIsEnabled(adapter);
}

std::string Machine::absenceOf(const std::string& adapter) {
    if (isLoopback(adapter)) {
        return kLoopbackText;
    }
    if (isNeverApplied(adapter) || hasAdapter(adapter)) {
        return "";
    }
    constexpr char kLater[] =
        " now: its rules and default policy have no effect until there is one; the package's udev "
        "rule then applies them, without it the next reload does";
    return isPredefined(adapter) ? inQuotes(adapter) + " has no interface" + kLater
                                 : "there is no adapter " + inQuotes(adapter) + kLater +
                                       didYouMean(nearestAdapter(adapter));
}

const std::string& Machine::tunnelOf(const std::string& adapter) {
    const auto [entry, isNew] = tunnels_.try_emplace(adapter);
    if (isNew && !isNeverApplied(adapter) && hasAdapter(adapter)) {
        // The translation repeats this rule, as any other, for a tunnel.
        FW::FWRULE any;
        any.ipType = FW::FW_IP_TYPE_V6;
        any.ipGroup = FW::FW_IP_GROUP_ANY;
        any.portGroup = FW::FW_PORT_GROUP_ANY;
        Json::Value lines;
        translation_.iptables6in4ToCmd(adapter, any, lines);
        const Json::Value& repeated = lines["v6"];
        if (repeated.isObject() && !repeated.empty()) {
            entry->second = repeated.getMemberNames().front();
        }
    }
    return entry->second;
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
    return countries_[key] = hasCountryData(code, ipv6);
}

}  // namespace tarnfw
