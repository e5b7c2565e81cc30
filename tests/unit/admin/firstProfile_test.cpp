// The profile that a machine begins with: a function of its interfaces, its catalogue and the
// session. tests/kernel/scripts/first_profile_is_written_once.sh sends packets through it.
#include "tarnfwadmin/firstProfile.h"

#include <gmock/gmock.h>

#include "tarnfwadmin/ruleText.h"

namespace tarnfw {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

Service service(const std::string& name, std::int32_t protocol, std::vector<std::string> ports) {
    Service made;
    made.name = name;
    made.title = name;
    made.destination = {protocol, std::move(ports)};
    return made;
}

const std::vector<Service>& someServices() {
    static const std::vector<Service> services = {
        service("dhcp_client", FW::FW_PORT_PROTOCOL_UDP, {"68"}),
        service("https", FW::FW_PORT_PROTOCOL_TCP, {"443"}),
        service("mdns", FW::FW_PORT_PROTOCOL_UDP, {"5353"}),
        service("smb", FW::FW_PORT_PROTOCOL_TCP, {"139", "445"}),
        service("ssh", FW::FW_PORT_PROTOCOL_TCP, {"22"}),
        service("telnet", FW::FW_PORT_PROTOCOL_TCP, {"23"}),
    };
    return services;
}

std::vector<std::string> globalTexts(const std::optional<SshSession>& session,
                                     const std::vector<Service>& services = someServices()) {
    std::vector<std::string> texts;
    const FW::FWPROFILE profile = firstProfile("p", {}, services, session);
    for (const FW::FWRULE& rule : profile.rules.at("global")) {
        texts.push_back(ruleText(rule));
    }
    return texts;
}

SshSession session(const std::string& client, int port = 22) {
    return {*addressFrom(client), port};
}

TEST(FirstProfileTest, AllowsTheCataloguesStorageServicesFromLocalNetworks) {
    EXPECT_THAT(globalTexts({}),
                ElementsAre("allow icmp from anywhere", "allow service dhcp_client from anywhere",
                            "allow service ssh,https,smb,mdns from 10.0.0.0/8 (IPv4)",
                            "allow service ssh,https,smb,mdns from 172.16.0.0/12 (IPv4)",
                            "allow service ssh,https,smb,mdns from 192.168.0.0/16 (IPv4)",
                            "allow service ssh,https,smb,mdns from 169.254.0.0/16 (IPv4)",
                            "allow service ssh,https,smb,mdns from fc00::/7 (IPv6)",
                            "allow service ssh,https,smb,mdns from fe80::/10 (IPv6)"));
}

TEST(FirstProfileTest, NamesAllServicesWhereTheCatalogueCannotBeRead) {
    EXPECT_THAT(globalTexts({}, {}), Contains(HasSubstr("ssh,http,https,smb,smb_browse,"
                                                        "ws_discovery,nfs,afp,ftp,ftp_passive,ftps,"
                                                        "rsync,iscsi,mdns from 10.0.0.0/8")));
}

TEST(FirstProfileTest, LeavesOutARuleWhoseServicesAreAllUnknown) {
    EXPECT_THAT(globalTexts({}, {service("telnet", FW::FW_PORT_PROTOCOL_TCP, {"23"})}),
                ElementsAre("allow icmp from anywhere"));
}

// A catalogue's update keeps a protocol that the services need: "service update" changes nothing.
TEST(FirstProfileTest, RulesHaveTheProtocolThatTheirServicesNeed) {
    std::vector<Service> services = someServices();
    services.erase(services.begin() + 2);  // mdns
    const FW::FWPROFILE tcp = firstProfile("p", {}, services, {});
    EXPECT_EQ(tcp.rules.at("global")[1].protocol, FW::FW_PORT_PROTOCOL_UDP);
    EXPECT_EQ(tcp.rules.at("global")[2].protocol, FW::FW_PORT_PROTOCOL_TCP);

    const FW::FWPROFILE both = firstProfile("p", {}, someServices(), {});
    EXPECT_EQ(both.rules.at("global")[2].protocol, FW::FW_PORT_PROTOCOL_TCP_UDP);
}

TEST(FirstProfileTest, DeniesNothingInGlobalSoThatRulesAfterItsOwnTakeEffect) {
    const FW::FWPROFILE profile = firstProfile("p", {}, someServices(), {});
    for (const FW::FWRULE& rule : profile.rules.at("global")) {
        EXPECT_EQ(rule.policy, FW::FW_POLICY_ALLOW) << ruleText(rule);
    }
    EXPECT_THAT(profile.adapterPolicyMap, ElementsAre(Pair("global", FW::FW_POLICY_NONE)));
}

struct SessionCase {
    const char* name;
    const char* client;
    int port;
    std::vector<std::string> added;
};

void PrintTo(const SessionCase& c, std::ostream* out) {
    *out << c.name;
}

const SessionCase kSessions[] = {
    {"PublicIpv4", "203.0.113.20", 22, {"allow service ssh,https from 203.0.113.20 (IPv4)"}},
    {"PublicIpv6", "2001:db8::20", 22, {"allow service ssh,https from 2001:db8::20 (IPv6)"}},
    {"PublicOtherPort",
     "203.0.113.20",
     2222,
     {"allow service ssh,https from 203.0.113.20 (IPv4)",
      "allow tcp 2222 from 203.0.113.20 (IPv4)"}},
    {"Private", "172.31.255.255", 22, {}},
    {"JustNotPrivate", "172.32.0.0", 22, {"allow service ssh,https from 172.32.0.0 (IPv4)"}},
    {"PrivateOtherPort", "192.168.1.20", 2222, {"allow tcp 2222 from 192.168.0.0/16 (IPv4)"}},
    {"PrivateOnAPortOfAnotherAllowedService", "192.168.1.20", 443, {}},
    {"PrivateOnAPortOfAServiceThatIsNot",
     "192.168.1.20",
     23,
     {"allow tcp 23 from 192.168.0.0/16 (IPv4)"}},
    {"LinkLocal", "fe80::1", 22, {}},
    {"UniqueLocal", "fd00::1", 22, {}},
    {"Loopback", "127.0.0.1", 2222, {}},
    {"LoopbackIpv6", "::1", 2222, {}},
};

class FirstProfileSessionTest : public testing::TestWithParam<SessionCase> {};

TEST_P(FirstProfileSessionTest, AllowsWhatTheSessionNeeds) {
    const SessionCase& c = GetParam();
    std::vector<std::string> wanted = globalTexts({});
    wanted.insert(wanted.end(), c.added.begin(), c.added.end());
    EXPECT_EQ(globalTexts(session(c.client, c.port)), wanted);
}

INSTANTIATE_TEST_SUITE_P(All, FirstProfileSessionTest, testing::ValuesIn(kSessions),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(FirstProfileTest, AnUnreadableCatalogueStillHasTheSessionsPort) {
    EXPECT_EQ(globalTexts(session("192.168.1.20"), {}), globalTexts({}, {}));
    EXPECT_THAT(globalTexts(session("192.168.1.20", 2222), {}),
                Contains("allow tcp 2222 from 192.168.0.0/16 (IPv4)"));
}

std::vector<std::string> denied(const std::vector<InterfaceKind>& interfaces) {
    std::vector<std::string> names;
    const FW::FWPROFILE profile = firstProfile("p", interfaces, {}, {});
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        if (policy == FW::FW_POLICY_DENY) {
            names.push_back(adapter);
        }
    }
    return names;
}

TEST(FirstProfileTest, DeniesByDefaultOnEachInterfaceOfTheMachine) {
    EXPECT_THAT(
        denied({{"lo", "", ""},
                {"eth0", "", ""},
                {"bond0", "bond", ""},
                {"eth1", "", "bond0"},
                {"br0", "bridge", ""},
                {"eth2", "", "br0"},
                {"wlan0", "", ""},
                {"tun0", "tun", ""},
                {"wg0", "wireguard", ""}}),
        UnorderedElementsAre("eth0", "bond0", "eth1", "br0", "eth2", "wlan0", "tun0", "wg0"));
}

TEST(FirstProfileTest, LeavesContainersToTheirManagers) {
    EXPECT_THAT(denied({{"br-0123456789ab", "bridge", ""},
                        {"cni0", "bridge", ""},
                        {"docker0", "bridge", ""},
                        {"lxcbr0", "bridge", ""},
                        {"podman1", "bridge", ""},
                        {"cali0a1b2c3d4e5", "veth", ""},
                        {"veth0a1b2c3", "veth", "docker0"},
                        {"c1-link", "veth", "br-0123456789ab"},
                        {"virbr0", "bridge", ""},
                        {"vnet0", "tun", "virbr0"}}),
                ElementsAre());
}

TEST(FirstProfileTest, DecidesByKindAndPortsWhereNamesMislead) {
    // A container's own end of its link, seen from inside.
    EXPECT_THAT(denied({{"eth0", "veth", ""}}), ElementsAre("eth0"));
    // Hardware that only has such a name.
    EXPECT_THAT(denied({{"docker0", "", ""}, {"veth0", "", ""}}), ElementsAre("docker0", "veth0"));
    // In a VRF, which is no bridge.
    EXPECT_THAT(
        denied({{"blue", "vrf", ""}, {"uplink", "veth", "blue"}, {"veth1", "veth", "blue"}}),
        ElementsAre("blue", "uplink", "veth1"));
    // Too short for a number, and no number.
    EXPECT_THAT(denied({{"br-lan", "bridge", ""}, {"br-0123456789ag", "bridge", ""}}),
                ElementsAre("br-0123456789ag", "br-lan"));
    // A port to the outside, which lets others in.
    EXPECT_THAT(denied({{"virbr0", "bridge", ""}, {"eth1", "", "virbr0"}}),
                ElementsAre("eth1", "virbr0"));
}

TEST(FirstProfileTest, CallsAPppoeConnectionWhatRulesCallIt) {
    EXPECT_THAT(denied({{"ppp0", "ppp", ""}}), ElementsAre("pppoe"));
}

TEST(FirstProfileTest, SkipsWhatNoRuleCanName) {
    EXPECT_THAT(denied({{"-x", "", ""}}), ElementsAre());
}

TEST(InterfaceKindsTest, ListsTheKernelsInterfaces) {
    std::vector<std::string> names;
    for (const InterfaceKind& interface : interfaceKindsNow()) {
        names.push_back(interface.name);
    }
    std::vector<std::string> wanted;
    for (const Interface& interface : interfacesNow()) {
        wanted.push_back(interface.name);
    }
    EXPECT_THAT(names, Contains("lo"));
    EXPECT_THAT(names, testing::IsSupersetOf(wanted));
    EXPECT_THAT(names, Not(Contains("")));
}

}  // namespace
}  // namespace tarnfw
