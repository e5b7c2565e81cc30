#include "meaning_cases.h"

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwIptables.h"

#include "files.h"

namespace {

// Of a database of some 250 countries, the 20 largest.
constexpr int kCountryCount = 20;
constexpr std::uint32_t kRangesV4 = 8000;
constexpr std::uint32_t kRangesV6 = 4000;

constexpr const char* kServices[] = {"ssh", "smb", "https"};

using Random = std::mt19937;

unsigned pick(Random& random, unsigned count) {
    return static_cast<unsigned>(random() % count);
}

std::string countryOf(unsigned number) {
    return {static_cast<char>('A' + number / 10), static_cast<char>('A' + number % 10)};
}

std::string addressText(std::uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

std::string portRange(std::uint32_t first, std::uint32_t last) {
    return std::to_string(first) + "-" + std::to_string(last);
}

void setNetwork(FW::FWRULE& rule, std::uint32_t address, unsigned prefix) {
    rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
    rule.ipList = {addressText(address), std::to_string(prefix)};
}

FW::FWRULE randomRule(Random& random) {
    FW::FWRULE rule;
    setNetwork(rule, 10U << 24 | (random() & 0xffffff), 8 + pick(random, 25));
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.protocol = 1 + static_cast<int>(pick(random, 3));
    const std::uint32_t port = pick(random, 65536);
    rule.portList = {pick(random, 2) == 0
                         ? std::to_string(port)
                         : portRange(port, std::min(port + pick(random, 2000), 65535U))};
    return rule;
}

FW::FWRULE realisticRule(Random& random) {
    FW::FWRULE rule = randomRule(random);
    const unsigned sort = pick(random, 10);
    if (sort < 2) {
        rule.ipType = FW::FW_IP_TYPE_BOTH;
        rule.ipGroup = FW::FW_IP_GROUP_ANY;
        rule.portGroup = FW::FW_PORT_GROUP_SERVICES;
        rule.portList = {kServices[pick(random, 3)]};
    } else if (sort == 2) {
        rule.ipType = FW::FW_IP_TYPE_BOTH;
        rule.ipGroup = FW::FW_IP_GROUP_COUNTRIES;
        rule.ipList = {countryOf(pick(random, kCountryCount))};
    } else if (sort < 7) {
        setNetwork(rule, static_cast<std::uint32_t>(random()),
                   32);  // one address that is to be blocked
        rule.portGroup = FW::FW_PORT_GROUP_ANY;
        rule.portList.clear();
    }
    return rule;
}

FW::FWRULE hostileRule(Random& random) {
    FW::FWRULE rule;
    auto first = static_cast<std::uint32_t>(random());
    auto last = static_cast<std::uint32_t>(random());
    rule.ipGroup = FW::FW_IP_GROUP_RANGE;
    rule.ipList = {addressText(std::min(first, last)), addressText(std::max(first, last))};
    rule.ipDirect = static_cast<int>(pick(random, 2));
    first = pick(random, 65536);
    last = pick(random, 65536);
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = {portRange(std::min(first, last), std::max(first, last))};
    rule.portDirect = static_cast<int>(pick(random, 2));
    rule.protocol = 1 + static_cast<int>(pick(random, 3));
    return rule;
}

FW::FWRULE listRule(Random& random) {
    constexpr int kGaps = 7;
    std::uint32_t mask = 0xffffffff;
    for (int i = 0; i < kGaps;) {
        const std::uint32_t bit = 2U << pick(random, 31);  // the last bit would join neighbours
        i += (mask & bit) != 0 ? 1 : 0;
        mask &= ~bit;
    }
    FW::FWRULE rule;
    rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
    rule.ipList = {addressText(static_cast<std::uint32_t>(random())), addressText(mask)};
    rule.ipDirect = 1;
    rule.portGroup = FW::FW_PORT_GROUP_ANY;
    return rule;
}

/// Ranges of a country: every 20th block of the whole space is its own.
std::uint32_t rangeStart(unsigned country, std::uint32_t range, std::uint32_t ranges) {
    const std::uint32_t block = 0xffffffffU / (ranges * kCountryCount);
    return (range * kCountryCount + country) * block;
}

}  // namespace

FW::FWPROFILE makeMeaningProfile(MeaningKind kind, int rules, unsigned seed) {
    static const std::vector<std::string> kAdapters = {"global", "eth0", "eth1", "tun0"};
    Random random(seed);
    FW::FWPROFILE profile;
    for (const std::string& adapter : kAdapters) {
        profile.adapterPolicyMap[adapter] =
            adapter == "global" ? FW::FW_POLICY_NONE : FW::FW_POLICY_DENY;
    }
    const bool isCrowded = kind == MeaningKind::Crowded || kind == MeaningKind::Lists;
    for (int i = 0; i < rules; ++i) {
        FW::FWRULE rule = kind == MeaningKind::Random      ? randomRule(random)
                          : kind == MeaningKind::Realistic ? realisticRule(random)
                          : kind == MeaningKind::Lists     ? listRule(random)
                                                           : hostileRule(random);
        rule.policy = pick(random, 2) == 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
        rule.blLog = pick(random, 10) == 0;
        if (isCrowded) {
            rule.protocol = FW::FW_PORT_PROTOCOL_TCP;
        }
        profile.rules[isCrowded ? "eth0" : kAdapters[pick(random, 4)]].push_back(std::move(rule));
    }
    return profile;
}

FW::FWENVIRONMENT makeMeaningEnvironment() {
    static const auto kCountries = [] {
        std::map<std::pair<std::string, FW::FW_FAMILY>, std::shared_ptr<const FW::FWADDRESSES>>
            countries;
        for (unsigned country = 0; country < kCountryCount; ++country) {
            for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
                const std::uint32_t ranges = family == FW::FW_FAMILY_V4 ? kRangesV4 : kRangesV6;
                std::vector<FW::FWADDRESSINTERVAL> list;
                for (std::uint32_t i = 0; i < ranges; ++i) {
                    const std::uint64_t first = rangeStart(country, i, ranges);
                    list.push_back({{first << 32, 0}, {(first + 255) << 32 | 0xffffffff, ~0ULL}});
                }
                countries[{countryOf(country), family}] =
                    std::make_shared<FW::FWADDRESSES>(FW::fwAddressesFrom(list));
            }
        }
        return countries;
    }();
    FW::FWENVIRONMENT environment;
    environment.adapters =
        FW::fwAdaptersNow({"eth0", "eth1", "ppp100", "ppp101", "tun0", "tun1"}, "");
    FW::TARNFW_IPTABLES_RULES translator;
    for (const char* const service : kServices) {
        (void)translator.servToPorts({service}, environment.services[service]);
    }
    environment.countries = [](const std::string& country, FW::FW_FAMILY family) {
        const auto found = kCountries.find({country, family});
        return found == kCountries.end() ? nullptr : found->second;
    };
    return environment;
}

void storeMeaningCountries() {
    for (unsigned country = 0; country < kCountryCount; ++country) {
        storeCountry(countryOf(country), 1);  // the translation only looks whether there are any
        writeFile(kGeoipDir + countryOf(country) + ".iv6", std::string(32, '\0'));
    }
}
