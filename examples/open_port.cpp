// Opens a port in the active profile, ahead of its other rules for every adapter, and prints the
// commands of that list that the next reload would run for IPv4. Nothing is applied.
//
//   open_port tcp|udp PORT
#include <tarnfirewall/tarnFW.h>

#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
    const std::string protocol = argc == 3 ? argv[1] : "";
    if (protocol != "tcp" && protocol != "udp") {
        std::cerr << "usage: open_port tcp|udp PORT\n";
        return 2;
    }
    FW::TARNFW firewall;
    FW::TARNFW_PROFILE profiles;
    std::string name;
    FW::FWPROFILE profile;
    if (!firewall.fwProfileConfigGet(name) || !profiles.profileGet(name, profile)) {
        return 1;  // the system log says why
    }

    FW::FWRULE rule;
    rule.name = "opened by an example";
    rule.ipType = FW::FW_IP_TYPE_BOTH;
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.protocol = protocol == "udp" ? FW::FW_PORT_PROTOCOL_UDP : FW::FW_PORT_PROTOCOL_TCP;
    rule.portList = {argv[2]};
    auto& rules = profile.rules[FW::FW_ADAPTER_GLOBAL];
    rules.insert(rules.begin(), rule);

    Json::Value commands;
    if (!profiles.profileSet(name, profile) ||
        !firewall.fwIptablesRulesEnum(name, commands, true)) {
        return 1;
    }
    for (const Json::Value& line : commands["v4"][FW::FW_ADAPTER_GLOBAL]) {
        std::cout << "/sbin/iptables " << line.asString() << '\n';
    }
    return 0;
}
