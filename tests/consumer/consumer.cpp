// A C++ program that uses each public class once, against an installed copy of the library. It
// expects a store with one profile, "home". Prints what it sees.
#include <tarnfirewall/fwDB.h>
#include <tarnfirewall/fwGeoip.h>
#include <tarnfirewall/fwHook.h>
#include <tarnfirewall/fwIptables.h>
#include <tarnfirewall/fwTypes.h>
#include <tarnfirewall/tarnFW.h>
#include <tarnfirewall/tarnIptablesModule.h>
#include <tarnfirewall/utils.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

int failures = 0;

template <typename Value>
void expect(const std::string& what, const Value& value, const Value& expected) {
    std::cout << what << ": " << value << '\n';
    if (value != expected) {
        std::cout << "    expected " << expected << '\n';
        ++failures;
    }
}

}  // namespace

int main() {
    std::vector<std::string> names;
    expect("profiles can be listed", FW::TARNFW_PROFILE().profileEnum(names), true);
    expect("profiles", names.empty() ? std::string() : names[0], std::string("home"));

    FW::FWPROFILE profile;
    expect("home can be read", FW::TARNFW_JSON_DB().profileGet("home", profile), true);
    FW::FWRULE rule;
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = {"22", "6000-6010"};
    profile.rules[FW::FW_ADAPTER_GLOBAL].push_back(rule);
    expect("home can be written", FW::TARNFW_JSON_DB().profileSet("home", profile), true);

    Json::Value commands;
    expect("home can be translated",
           FW::TARNFW().fwIptablesRulesEnum("home", commands, std::string("10.0.0.1")), true);
    const Json::Value& lines = commands["v4"]["global"];
    expect("its last line", lines[lines.size() - 1].asString(),
           std::string("-t filter -A INPUT_FIREWALL -p tcp -m multiport --dports 22,6000:6010 "
                       "-j RETURN"));

    FW::TARNFW_IPTABLES_RULES translator;
    FW::ServPort ports;
    expect("services have ports", translator.servToPorts({"ssh"}, ports), true);
    expect("the port of ssh", ports.dstPorts[FW::FW_PORT_PROTOCOL_TCP].at(0), std::string("22"));

    std::vector<std::string> modules;
    expect("modules are listed", FW::TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules), true);
    std::vector<std::string> usable;
    expect("no country without data", FW::FW_GEOIP().geoipSanctify({"XX"}, false, usable), false);
    expect("hooks run", FW::TarnFwHook().RunFwEnablePreHook(), true);
    expect("lock files have a place", FW::getLockFile("/a/b.json"),
           std::string("/var/lock/firewall/b.json.lock"));
    return failures != 0;
}
