#include "profiles.h"

namespace {

constexpr int kTcp = 1;
constexpr int kTcpAndUdp = 3;

// The codes of FWRULE::ipGroup and FWRULE::portGroup.
enum { kOneAddress = 0, kNetwork = 1, kCountry = 3, kAnyAddress = 5 };
enum { kServices = 0, kPorts = 1 };
enum { kBothFamilies = 2 };

std::string addressOf(int number) {
    return "10." + std::to_string(number >> 16 & 255) + "." + std::to_string(number >> 8 & 255) +
           "." + std::to_string(number & 255);
}

std::string portOf(int number) {
    return std::to_string(1024 + number % 60000);
}

FW::FWRULE makeRule(RuleKind kind, int number) {
    FW::FWRULE rule;
    rule.policy = number % 2 == 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
    rule.name = "Rule " + std::to_string(number);
    rule.ipGroup = kOneAddress;
    rule.ipList = {addressOf(number)};
    rule.portGroup = kPorts;
    rule.protocol = kTcp;
    rule.portList = {portOf(number)};
    switch (kind) {
        case RuleKind::Plain:
            break;
        case RuleKind::Multiport:
            rule.protocol = kTcpAndUdp;
            rule.portList = {"22",   "80",   "443",  "5000-5001", "6000-6010",
                             "7000", "8080", "8443", "9000-9000", portOf(number)};
            break;
        case RuleKind::Service:
            rule.ipGroup = kNetwork;
            rule.ipList = {addressOf(number << 8), "255.255.255.0"};
            rule.portGroup = kServices;
            rule.portList = {"ssh", "smb", "https"};
            break;
        case RuleKind::Country:
            rule.ipGroup = kCountry;
            rule.ipList = kCountries;
            break;
        case RuleKind::Vpn:
            rule.ipGroup = kAnyAddress;
            rule.ipList = {};
            break;
        case RuleKind::Both:
            rule.ipType = kBothFamilies;
            rule.ipGroup = kAnyAddress;
            rule.ipList = {};
            break;
    }
    return rule;
}

}  // namespace

FW::FWPROFILE makeProfile(const std::string& name, RuleKind kind, int rules) {
    const char* const adapter = kind == RuleKind::Vpn ? "vpn" : "eth0";
    FW::FWPROFILE profile;
    profile.name = name;
    profile.adapterPolicyMap = {{adapter, FW::FW_POLICY_DENY}, {"global", FW::FW_POLICY_NONE}};
    std::vector<FW::FWRULE>& list = profile.rules[adapter];
    list.reserve(static_cast<std::size_t>(rules));
    for (int i = 0; i < rules; ++i) {
        list.push_back(makeRule(kind, i));
    }
    return profile;
}
