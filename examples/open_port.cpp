// Opens a port in the active profile, ahead of its other rules for every adapter, and prints the
// commands that the next reload would run for IPv4. Nothing is applied.
//
//   open_port tcp|udp PORT
#include <tarnfirewall/tarnFW.h>

#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
    if (argc != 3) {
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
    rule.ipType = 2;   // IPv4 and IPv6
    rule.ipGroup = 5;  // any address
    rule.portGroup = 1;
    rule.protocol =
        std::string(argv[1]) == "udp" ? FW::FW_PORT_PROTOCOL_UDP : FW::FW_PORT_PROTOCOL_TCP;
    rule.portList = {argv[2]};
    auto& rules = profile.rules["global"];
    rules.insert(rules.begin(), rule);

    Json::Value commands;
    if (!profiles.profileSet(name, profile) ||
        !firewall.fwIptablesRulesEnum(name, commands, true)) {
        return 1;
    }
    for (const Json::Value& line : commands["v4"]["global"]) {
        std::cout << "/sbin/iptables " << line.asString() << '\n';
    }
    return 0;
}
