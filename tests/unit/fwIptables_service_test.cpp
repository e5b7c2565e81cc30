// Services: their ports from the catalogue, and the fragments made of them.

#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <json/json.h>

#include "fwIptables_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/tarnFW.h"

namespace {

using FW::FW_PORT_PROTOCOL;
using FW::FWRULE;
using FW::ServPort;
using FW::TARNFW_IPTABLES_RULES;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

using PortMap = std::map<FW_PORT_PROTOCOL, Texts>;

constexpr auto kTcp = FW::FW_PORT_PROTOCOL_TCP;
constexpr auto kUdp = FW::FW_PORT_PROTOCOL_UDP;
constexpr auto kBoth = FW::FW_PORT_PROTOCOL_TCP_UDP;
constexpr auto kIcmp = FW::FW_PORT_PROTOCOL_ICMP;
constexpr auto kIgmp = FW::FW_PORT_PROTOCOL_IGMP;

class ServiceTest : public LibraryTest {
protected:
    ServiceTest() {
        platform_.services = {
            {"ssh", {"Secure shell", kTcp, {"22"}, 0, {}}},
            {"web", {"Web", kTcp, {"80", "443"}, 0, {}}},
            {"dns", {"Names", kBoth, {"53"}, 0, {}}},
            {"dhcp", {"Leases", kUdp, {"67-68"}, kUdp, {"67", "68"}}},
            {"active", {"Source ports alone", 0, {}, kTcp, {"20"}}},
            {"ping", {"Echo", kIcmp, {"0"}, 0, {}}},
            {"groups", {"Multicast groups", kIgmp, {"0"}, 0, {}}},
            {"untitled", {"", kTcp, {"9"}, kTcp, {"9"}}},
            {"portless", {"No ports", kTcp, {}, kUdp, {}}},
            {"odd", {"A protocol that is none", 7, {"7"}, 33, {"8"}}},
            {"vpn_server_pptp", {"PPTP", kTcp, {"1723"}, 0, {}}},
            {"vpn_server_ipsec", {"IPsec", kUdp, {"500", "4500"}, 0, {}}},
        };
    }

    // The port fragments of `services`, which must convert.
    static Texts fragmentsOf(const Texts& services) {
        TARNFW_IPTABLES_RULES translator;
        Json::Value arg = emptyArgument();
        EXPECT_TRUE(translator.servPortToCmd(services, arg));
        const Texts found = texts(arg["port"]);
        arg["port"] = Json::Value(Json::arrayValue);
        EXPECT_EQ(arg, emptyArgument()) << "other options were touched";
        return found;
    }

    static FWRULE serviceRule(const Texts& services) {
        FWRULE rule;
        rule.ipGroup = 5;
        rule.portList = services;
        return rule;
    }
};

// ---- Ports of services ----

struct PortsCase {
    std::string name;
    Texts services;
    PortMap source;
    PortMap destination;
};

std::ostream& operator<<(std::ostream& stream, const PortsCase& c) {
    return stream << c.name;
}

const PortsCase kPorts[] = {
    {"NoService", {}, {}, {}},
    {"OneService", {"ssh"}, {}, {{kTcp, {"22"}}}},
    {"ServiceOrderDecides", {"web", "ssh"}, {}, {{kTcp, {"80", "443", "22"}}}},
    {"DuplicatesAreKept", {"ssh", "web", "ssh"}, {}, {{kTcp, {"22", "80", "443", "22"}}}},
    {"BothSides", {"dhcp"}, {{kUdp, {"67", "68"}}}, {{kUdp, {"67-68"}}}},
    {"SourceAlone", {"active"}, {{kTcp, {"20"}}}, {}},
    {"ProtocolsApart",
     {"dns", "ssh", "dhcp"},
     {{kUdp, {"67", "68"}}},
     {{kTcp, {"22"}}, {kUdp, {"67-68"}}, {kBoth, {"53"}}}},
    {"UnknownNamesAreSkipped", {"nothing", "ssh", "SSH", ""}, {}, {{kTcp, {"22"}}}},
    {"UntitledServicesAreSkipped", {"untitled", "ssh"}, {}, {{kTcp, {"22"}}}},
    {"PortlessServicesLeaveNoEntry", {"portless"}, {}, {}},
    {"ProtocolCodesAreTakenAsTheyAre",
     {"odd"},
     {{static_cast<FW_PORT_PROTOCOL>(33), {"8"}}},
     {{static_cast<FW_PORT_PROTOCOL>(7), {"7"}}}},
};

class PortsTest : public ServiceTest, public ::testing::WithParamInterface<PortsCase> {};

TEST_P(PortsTest, AreGatheredByProtocolInServiceOrder) {
    ServPort ports;

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().servToPorts(GetParam().services, ports));

    EXPECT_EQ(ports.srcPorts, GetParam().source);
    EXPECT_EQ(ports.dstPorts, GetParam().destination);
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_THAT(platform_.journal, ElementsAre("services enum", "services free"));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

INSTANTIATE_TEST_SUITE_P(Services, PortsTest, ValuesIn(kPorts),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(ServiceTest, PortsAreAppendedToWhatTheRecordHolds) {
    ServPort ports;
    ports.srcPorts[kTcp] = {"1"};
    ports.dstPorts[kTcp] = {"2"};

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().servToPorts({"ssh", "active"}, ports));

    EXPECT_EQ(ports.srcPorts, (PortMap{{kTcp, {"1", "20"}}}));
    EXPECT_EQ(ports.dstPorts, (PortMap{{kTcp, {"2", "22"}}}));
}

// ---- The catalogue ----

TEST_F(ServiceTest, CatalogueIsLoadedOnceAndFreedWithTheTranslator) {
    {
        TARNFW_IPTABLES_RULES translator;
        ServPort ports;
        Json::Value arg = emptyArgument();
        EXPECT_THAT(platform_.journal, IsEmpty());

        EXPECT_TRUE(translator.servToPorts({"ssh"}, ports));
        platform_.services.clear();
        EXPECT_TRUE(translator.servToPorts({"ssh"}, ports));
        EXPECT_TRUE(translator.servPortToCmd({"ssh"}, arg));

        EXPECT_EQ(ports.dstPorts, (PortMap{{kTcp, {"22", "22"}}}));
        EXPECT_THAT(texts(arg["port"]), ElementsAre("-p tcp --dport 22"));
        EXPECT_THAT(platform_.journal, ElementsAre("services enum"));
        EXPECT_EQ(platform_.openCatalogues, 1);
    }
    EXPECT_THAT(platform_.journal, ElementsAre("services enum", "services free"));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(ServiceTest, TranslatorThatNeededNoCatalogueFreesNone) {
    {
        TARNFW_IPTABLES_RULES translator;
        FWRULE rule = serviceRule({"80"});
        rule.portGroup = 1;
        Json::Value arg = emptyArgument();
        EXPECT_TRUE(translator.FwRuleToIptablesArg("eth0", rule, arg));
    }
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(ServiceTest, ControlClassFreesTheCatalogueToo) {
    {
        FW::TARNFW firewall;
        ServPort ports;
        EXPECT_TRUE(firewall.servToPorts({"ssh"}, ports));
        EXPECT_EQ(platform_.openCatalogues, 1);
    }
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(ServiceTest, CatalogueIsFreedWhenTheTranslationThrows) {
    Json::Value arg = emptyArgument();
    arg["port"] = "no array";
    {
        TARNFW_IPTABLES_RULES translator;
        EXPECT_THROW((void)translator.servPortToCmd({"ssh"}, arg), Json::Exception);
        EXPECT_EQ(platform_.openCatalogues, 1);
    }
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(ServiceTest, MissingCatalogueFailsAndFreesNothing) {
    for (const int result : {0, -1, -5}) {
        platform_.servicesResult = result;
        platform_.clearLog();
        platform_.clearJournal();
        ServPort ports;

        EXPECT_FALSE(TARNFW_IPTABLES_RULES().servToPorts({"ssh"}, ports)) << result;

        EXPECT_THAT(ports.srcPorts, IsEmpty());
        EXPECT_THAT(ports.dstPorts, IsEmpty());
        EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services"));
        EXPECT_THAT(platform_.journal, ElementsAre("services enum"));
        EXPECT_EQ(platform_.openCatalogues, 0);
    }
}

TEST_F(ServiceTest, MissingCatalogueFailsEvenWithoutServices) {
    platform_.servicesResult = 0;
    ServPort ports;

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().servToPorts({}, ports));

    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services"));
}

TEST_F(ServiceTest, MissingCatalogueIsAskedForAgain) {
    {
        TARNFW_IPTABLES_RULES translator;
        ServPort ports;
        platform_.servicesResult = 0;
        EXPECT_FALSE(translator.servToPorts({"ssh"}, ports));
        platform_.servicesResult = 1;
        EXPECT_TRUE(translator.servToPorts({"ssh"}, ports));
        EXPECT_EQ(ports.dstPorts, (PortMap{{kTcp, {"22"}}}));
    }
    EXPECT_THAT(platform_.journal, ElementsAre("services enum", "services enum", "services free"));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(ServiceTest, CatalogueIsTheOneOfTheTranslation) {
    {
        TARNFW_IPTABLES_RULES rules;
        const TARNFW_SERVICE_LIST* const catalogue = rules.serviceCatalogue();
        ASSERT_NE(catalogue, nullptr);
        FW::ServPort ports;
        EXPECT_TRUE(rules.servToPorts({"ssh"}, ports));
        EXPECT_EQ(rules.serviceCatalogue(), catalogue);
        EXPECT_THAT(platform_.journal, ElementsAre("services enum"));
    }
    EXPECT_EQ(platform_.openCatalogues, 0);
    platform_.servicesResult = 0;
    EXPECT_EQ(TARNFW_IPTABLES_RULES().serviceCatalogue(), nullptr);
}

TEST_F(ServiceTest, FragmentsFailWithoutCatalogueSpecialServicesIncluded) {
    platform_.servicesResult = 0;
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().servPortToCmd({"vpn_server_pptp"}, arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services",
                                                 "err fwIptables: Failed to servToPorts()"));
}

TEST_F(ServiceTest, RuleFailsWithoutCatalogue) {
    platform_.servicesResult = 0;
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("eth0", serviceRule({"ssh"}), arg));

    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services",
                                                 "err fwIptables: Failed to servToPorts()",
                                                 "err fwIptables: Failed to servPortToCmd()",
                                                 "err fwIptables: Failed to portToIptablesArg()"));
}

// ---- Fragments ----

struct FragmentCase {
    std::string name;
    Texts services;
    Texts fragments;
};

std::ostream& operator<<(std::ostream& stream, const FragmentCase& c) {
    return stream << c.name;
}

const FragmentCase kFragments[] = {
    {"NoService", {}, {}},
    {"OnePort", {"ssh"}, {"-p tcp --dport 22"}},
    {"SeveralPorts", {"web"}, {"-p tcp -m multiport --dports 80,443"}},
    {"PortsOfSeveralServicesJoin", {"ssh", "web"}, {"-p tcp -m multiport --dports 22,80,443"}},
    {"BothProtocolsTcpThenUdp", {"dns"}, {"-p tcp --dport 53", "-p udp --dport 53"}},
    {"SourceBeforeDestination",
     {"dhcp"},
     {"-p udp -m multiport --sports 67,68", "-p udp -m multiport --dports 67:68"}},
    {"AllSourcesBeforeAllDestinations",
     {"ssh", "dhcp", "active"},
     {"-p tcp --sport 20", "-p udp -m multiport --sports 67,68", "-p tcp --dport 22",
      "-p udp -m multiport --dports 67:68"}},
    {"AscendingProtocolCodes",
     {"groups", "ping", "dns", "dhcp", "ssh"},
     {"-p udp -m multiport --sports 67,68", "-p tcp --dport 22",
      "-p udp -m multiport --dports 67:68", "-p tcp --dport 53", "-p udp --dport 53", "-p icmp ",
      "-p icmpv6 ", "-p igmp "}},
    {"UnknownServicesAreSkipped", {"nothing", "ssh"}, {"-p tcp --dport 22"}},
    {"AllUnknown", {"nothing", "untitled"}, {}},
    {"PortlessService", {"portless"}, {}},
    {"ProtocolOutsideTheListContributesNothing", {"odd"}, {}},
    {"PptpPortsBeforeItsRawProtocol", {"vpn_server_pptp"}, {"-p tcp --dport 1723", "-p 47 "}},
    {"IpsecPortsBeforeItsRawProtocols",
     {"vpn_server_ipsec"},
     {"-p udp -m multiport --dports 500,4500", "-p 50 ", "-p 51 "}},
    {"RawProtocolsComeLastInServiceOrder",
     {"vpn_server_ipsec", "vpn_server_pptp", "ssh"},
     {"-p tcp -m multiport --dports 1723,22", "-p udp -m multiport --dports 500,4500", "-p 50 ",
      "-p 51 ", "-p 47 "}},
    {"ServiceNamedTwiceCountsTwice",
     {"vpn_server_pptp", "vpn_server_pptp"},
     {"-p tcp -m multiport --dports 1723,1723", "-p 47 ", "-p 47 "}},
    {"SpecialNamesAreMatchedWhole", {"vpn_server_pptp2", "vpn_server", "vpn_server_l2tp"}, {}},
};

class FragmentTest : public ServiceTest, public ::testing::WithParamInterface<FragmentCase> {};

TEST_P(FragmentTest, AreExactlyThese) {
    EXPECT_EQ(fragmentsOf(GetParam().services), GetParam().fragments);
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_EQ(platform_.openCatalogues, 0);
}

INSTANTIATE_TEST_SUITE_P(Services, FragmentTest, ValuesIn(kFragments),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(ServiceTest, SpecialServiceOutsideTheCatalogueKeepsItsRawProtocols) {
    platform_.services = {{"vpn_server_ipsec", {"", kUdp, {"500"}, 0, {}}}};

    EXPECT_THAT(fragmentsOf({"vpn_server_pptp", "vpn_server_ipsec"}),
                ElementsAre("-p 47 ", "-p 50 ", "-p 51 "));
}

TEST_F(ServiceTest, PortsAreGroupedBySevenAcrossServices) {
    platform_.services = {{"a", {"A", kBoth, {"1", "2", "3", "4-4"}, 0, {}}},
                          {"b", {"B", kBoth, {"5", "6-8", "9", "10", "11"}, 0, {}}}};

    EXPECT_THAT(fragmentsOf({"a", "b"}), ElementsAre("-p tcp -m multiport --dports 1,2,3,4,5,6:8,9",
                                                     "-p tcp -m multiport --dports 10,11",
                                                     "-p udp -m multiport --dports 1,2,3,4,5,6:8,9",
                                                     "-p udp -m multiport --dports 10,11"));
}

TEST_F(ServiceTest, LoneRangeOfAServiceIsMultiport) {
    platform_.services = {{"a", {"A", 0, {}, kTcp, {"6000-6010"}}}};

    EXPECT_THAT(fragmentsOf({"a"}), ElementsAre("-p tcp -m multiport --sports 6000:6010"));
}

TEST_F(ServiceTest, FragmentsAreAppendedToWhatIsThere) {
    Json::Value arg = emptyArgument();
    arg["port"].append("earlier");

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().servPortToCmd({"ssh"}, arg));

    EXPECT_THAT(texts(arg["port"]), ElementsAre("earlier", "-p tcp --dport 22"));
}

// ---- Lines ----

TEST_F(ServiceTest, DefaultRuleForPptpLetsPortAndRawProtocolThrough) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;
    const FWRULE rule = serviceRule({"vpn_server_pptp"});

    ASSERT_TRUE(translator.FwRuleToIptablesArg("eth0", rule, arg));
    translator.iptablesArgToCmd("eth0", rule, arg, out);

    EXPECT_THAT(texts(arg["port"]), ElementsAre("-p tcp --dport 1723", "-p 47 "));
    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A FORWARD_FIREWALL -i eth0 -p tcp --dport 1723 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i eth0 -p 47  -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 1723 -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p 47  -j RETURN"));
    EXPECT_FALSE(out.isMember("v6"));
}

TEST_F(ServiceTest, RawProtocolsServeBothFamilies) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;
    FWRULE rule = serviceRule({"vpn_server_ipsec"});
    rule.ipType = 2;
    rule.chainList = {"INPUT_FIREWALL"};
    platform_.services.clear();

    ASSERT_TRUE(translator.FwRuleToIptablesArg("eth0", rule, arg));
    translator.iptablesArgToCmd("eth0", rule, arg, out);

    for (const char* family : {"v4", "v6"}) {
        EXPECT_THAT(linesOf(out, family, "eth0"),
                    ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p 50  -j RETURN",
                                "-t filter -A INPUT_FIREWALL -i eth0 -p 51  -j RETURN"));
    }
}

TEST_F(ServiceTest, EmptyServiceListYieldsNoFragmentAndNoLine) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;

    ASSERT_TRUE(translator.FwRuleToIptablesArg("eth0", serviceRule({}), arg));
    translator.iptablesArgToCmd("eth0", serviceRule({}), arg, out);

    EXPECT_THAT(texts(arg["port"]), IsEmpty());
    EXPECT_TRUE(out.isNull());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(ServiceTest, OnlyUnknownServicesYieldNoLine) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;

    ASSERT_TRUE(translator.FwRuleToIptablesArg("eth0", serviceRule({"nothing"}), arg));
    translator.iptablesArgToCmd("eth0", serviceRule({"nothing"}), arg, out);

    EXPECT_TRUE(out.isNull());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- Against a second evaluation ----

TEST_F(ServiceTest, RandomServiceListsAgreeWithASecondEvaluation) {
    std::mt19937 random(77);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    const std::int32_t codes[] = {0, 1, 2, 3, 4, 5, 32};
    const Texts ports = {"80", "443", "22-22", "6000-6010", "1-2-3"};
    const Texts names = {"a", "b", "c", "d", "vpn_server_pptp", "vpn_server_ipsec", "missing"};

    for (int round = 0; round < 3000; ++round) {
        platform_.services.clear();
        for (std::size_t i = 0; i + 1 < names.size(); ++i) {
            FakeService service;
            service.title = below(5) == 0 ? "" : "usable";
            service.dstProtocol = codes[below(7)];
            service.srcProtocol = codes[below(7)];
            for (std::size_t n = below(6); n > 0; --n) {
                (below(2) == 0 ? service.dstPorts : service.srcPorts).push_back(ports[below(5)]);
            }
            platform_.services[names[i]] = service;
        }
        Texts asked(below(8));
        for (std::string& name : asked) {
            name = names[below(names.size())];
        }

        // Side by side and code by code, each time through the whole list.
        Texts expected;
        for (const bool source : {true, false}) {
            for (const std::int32_t code : codes) {
                Texts gathered;
                for (const std::string& name : asked) {
                    const FakeService service = platform_.services.count(name) == 1
                                                    ? platform_.services[name]
                                                    : FakeService();
                    if (!service.title.empty() &&
                        (source ? service.srcProtocol : service.dstProtocol) == code) {
                        gathered = gathered + (source ? service.srcPorts : service.dstPorts);
                    }
                }
                if (!gathered.empty()) {
                    expected = expected + expectedFragments(code, source ? 1 : 0, gathered);
                }
            }
        }
        for (const std::string& name : asked) {
            if (name == "vpn_server_pptp") {
                expected.push_back("-p 47 ");
            } else if (name == "vpn_server_ipsec") {
                expected.push_back("-p 50 ");
                expected.push_back("-p 51 ");
            }
        }

        ASSERT_EQ(fragmentsOf(asked), expected) << "round " << round << ": " << joined(asked, " ");
    }
    EXPECT_EQ(platform_.openCatalogues, 0);
}

}  // namespace
