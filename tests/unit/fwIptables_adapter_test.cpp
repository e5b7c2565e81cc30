// Adapters: the interfaces of a name, whether there are any, and their matches.

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "fwIptables_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/tarnFW.h"

namespace {

using FW::FWRULE;
using FW::TARNFW;
using FW::TARNFW_IPTABLES_RULES;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

constexpr char kQuery[] = "interfaces 32 8";
constexpr char kPppoeQuery[] = "pppoe 256";
constexpr char kQueryFailed[] =
    "err fwIptables: Failed to TLIBNetGetInterfaceInfo(-7) [0x0D01 netinfo.c:12]";
constexpr char kEnumFailed[] = "err fwIptables: Failed to enabledAdapterEnum()";
constexpr char kVpnFailed[] = "err fwIptables: Failed to vpnAdatperEnum()";
constexpr char kNoPppoe[] = "debug fwIptables: Failed to TARNPPPoeIntfGet()";

FWRULE withDirection(std::int32_t direction) {
    FWRULE rule;
    rule.adapterDirect = direction;
    return rule;
}

class AdapterTest : public LibraryTest {
protected:
    // The matches of an incoming rule on `adapter`, which must convert.
    Texts matchesOf(const std::string& adapter, std::int32_t direction = 1) {
        return matchesOf(translator_, adapter, direction);
    }

    static Texts matchesOf(TARNFW_IPTABLES_RULES& translator, const std::string& adapter,
                           std::int32_t direction = 1) {
        Json::Value arg = emptyArgument();
        EXPECT_TRUE(translator.adapterToIptablesArg(adapter, withDirection(direction), arg));
        const Texts found = texts(arg["adapter"]);
        arg["adapter"] = Json::Value(Json::arrayValue);
        EXPECT_EQ(arg, emptyArgument()) << "other options were touched";
        return found;
    }

    void makeWireless() {
        platform_.supportWireless = 1;
        platform_.keyValues["/etc.defaults/tarninfo.conf"]["support_wireless"] = "yes";
    }

    TARNFW_IPTABLES_RULES translator_;
};

// ---- Interface enumeration ----

TEST_F(AdapterTest, InterfacesAreAskedForOnce) {
    platform_.interfaces = {"eth0", "eth1"};

    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
    EXPECT_TRUE(translator_.adapterIsEnabled("eth1"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(AdapterTest, EveryTranslatorAsksForItself) {
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().enabledAdapterEnum());
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().enabledAdapterEnum());

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kQuery));
}

TEST_F(AdapterTest, NoInterfacesSucceedsAndIsAskedAgain) {
    platform_.interfaces.clear();
    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_FALSE(translator_.adapterIsEnabled("eth0"));

    platform_.interfaces = {"eth0"};
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kQuery, kQuery));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(AdapterTest, FilledListIsKeptWhenInterfacesComeAndGo) {
    EXPECT_TRUE(translator_.enabledAdapterEnum());
    platform_.interfaces = {"eth1"};
    platform_.interfacesResult = -1;

    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
    EXPECT_FALSE(translator_.adapterIsEnabled("eth1"));
}

TEST_F(AdapterTest, FailedQueryIsLoggedWithThePlatformsError) {
    platform_.interfacesResult = -7;

    EXPECT_FALSE(translator_.enabledAdapterEnum());

    EXPECT_THAT(logLines(platform_), ElementsAre(kQueryFailed));
    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
}

TEST_F(AdapterTest, FailedQueryIsAskedAgain) {
    platform_.interfacesResult = -7;
    EXPECT_FALSE(translator_.enabledAdapterEnum());

    platform_.interfacesResult = 0;
    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kQuery));
}

TEST_F(AdapterTest, FailedQueryEnablesNoWirelessInterface) {
    makeWireless();
    platform_.interfacesResult = -7;
    EXPECT_FALSE(translator_.enabledAdapterEnum());
    EXPECT_FALSE(translator_.adapterIsEnabled("wlan0"));
}

TEST_F(AdapterTest, ThirtyTwoInterfacesAreTakenAndNoMore) {
    platform_.interfaces.clear();
    for (int i = 0; i < 33; ++i) {
        platform_.interfaces.push_back("eth" + std::to_string(i));
    }

    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
    EXPECT_TRUE(translator_.adapterIsEnabled("eth31"));
    EXPECT_FALSE(translator_.adapterIsEnabled("eth32"));
}

TEST_F(AdapterTest, LongestInterfaceNameIsKeptWhole) {
    platform_.interfaces = {"interface123456"};

    EXPECT_TRUE(translator_.adapterIsEnabled("interface123456"));
    EXPECT_FALSE(translator_.adapterIsEnabled("interface12345"));
}

TEST_F(AdapterTest, OnlyAdjacentDuplicatesAreRemoved) {
    platform_.interfaces = {"tun0", "tun0", "tun1", "tun1", "tun1", "tun0"};

    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i tun0", "-i tun1", "-i tun0"));
}

struct WirelessCase {
    std::string name;
    std::string key;  // of the model file; empty: the key is absent
    int support;
    bool enabled;
};

std::ostream& operator<<(std::ostream& stream, const WirelessCase& c) {
    return stream << c.name;
}

const WirelessCase kWireless[] = {
    {"BothSayYes", "yes", 1, true},
    {"PlatformSaysNo", "yes", 0, false},
    {"ModelFileSaysNo", "no", 1, false},
    {"ModelFileLacksTheKey", "", 1, false},
    {"ModelFileSaysYesInOtherLetters", "YES", 1, false},
    {"NeitherSaysYes", "no", 0, false},
};

class WirelessTest : public AdapterTest, public ::testing::WithParamInterface<WirelessCase> {
protected:
    WirelessTest() {
        platform_.supportWireless = GetParam().support;
        if (!GetParam().key.empty()) {
            platform_.keyValues["/etc.defaults/tarninfo.conf"]["support_wireless"] = GetParam().key;
        }
    }
};

TEST_P(WirelessTest, DecidesWhetherAnUnreportedWlan0IsEnabled) {
    EXPECT_EQ(translator_.adapterIsEnabled("wlan0"), GetParam().enabled);
    EXPECT_FALSE(translator_.adapterIsEnabled("wlan1"));
    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
}

TEST_P(WirelessTest, DecidesWhetherTheControlClassListsAnUnreportedWlan0) {
    std::set<std::string> names;
    EXPECT_TRUE(TARNFW().fwAdapterEnum(names));
    EXPECT_EQ(names, GetParam().enabled ? (std::set<std::string>{"eth0", "wlan0"})
                                        : (std::set<std::string>{"eth0"}));
}

INSTANTIATE_TEST_SUITE_P(Models, WirelessTest, ValuesIn(kWireless),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(AdapterTest, ReportedWlan0NeedsNoWirelessModel) {
    platform_.interfaces = {"eth0", "wlan0"};
    EXPECT_TRUE(translator_.adapterIsEnabled("wlan0"));
}

TEST_F(AdapterTest, Wlan0AloneFillsTheList) {
    makeWireless();
    platform_.interfaces.clear();

    EXPECT_TRUE(translator_.enabledAdapterEnum());
    EXPECT_TRUE(translator_.adapterIsEnabled("wlan0"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
}

// ---- The control class's enumeration ----

TEST_F(AdapterTest, ControlClassListsTheInterfacesAsASet) {
    makeWireless();
    platform_.interfaces = {"wlan0", "eth1", "eth0", "eth1"};
    std::set<std::string> names;

    EXPECT_TRUE(TARNFW().fwAdapterEnum(names));

    EXPECT_THAT(names, ElementsAre("eth0", "eth1", "wlan0"));
    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(AdapterTest, ControlClassLeavesAFilledSetAlone) {
    std::set<std::string> names = {"there"};

    EXPECT_TRUE(TARNFW().fwAdapterEnum(names));

    EXPECT_THAT(names, ElementsAre("there"));
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(AdapterTest, ControlClassAsksForEveryEmptySet) {
    TARNFW firewall;
    std::set<std::string> first;
    std::set<std::string> second;
    EXPECT_TRUE(firewall.fwAdapterEnum(first));
    platform_.interfaces = {"eth1"};
    EXPECT_TRUE(firewall.fwAdapterEnum(second));

    EXPECT_THAT(first, ElementsAre("eth0"));
    EXPECT_THAT(second, ElementsAre("eth1"));
    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kQuery));
}

TEST_F(AdapterTest, ControlClassLogsAFailedQueryAsItsOwn) {
    platform_.interfacesResult = -7;
    std::set<std::string> names;

    EXPECT_FALSE(TARNFW().fwAdapterEnum(names));

    EXPECT_THAT(names, IsEmpty());
    EXPECT_THAT(
        logLines(platform_),
        ElementsAre("err tarnFW: Failed to TLIBNetGetInterfaceInfo(-7) [0x0D01 netinfo.c:12]"));
}

TEST_F(AdapterTest, ControlClassAcceptsAMachineWithoutInterfaces) {
    platform_.interfaces.clear();
    std::set<std::string> names;

    EXPECT_TRUE(TARNFW().fwAdapterEnum(names));

    EXPECT_THAT(names, IsEmpty());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- The PPPoE interface ----

TEST_F(AdapterTest, PppoeInterfaceIsAskedForOnce) {
    platform_.pppoeInterface = "ppp0";

    translator_.pppoeAdaterGet();
    platform_.pppoeInterface = "ppp5";
    translator_.pppoeAdaterGet();

    EXPECT_THAT(matchesOf("pppoe"), ElementsAre("-i ppp0"));
    EXPECT_THAT(platform_.journal, ElementsAre(kPppoeQuery));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(AdapterTest, MissingPppoeInterfaceIsLoggedForDebuggingAndAskedForAgain) {
    translator_.pppoeAdaterGet();
    EXPECT_FALSE(translator_.adapterIsEnabled("pppoe"));
    EXPECT_THAT(logLines(platform_), ElementsAre(kNoPppoe, kNoPppoe));

    platform_.pppoeInterface = "ppp0";
    EXPECT_TRUE(translator_.adapterIsEnabled("pppoe"));
    EXPECT_TRUE(translator_.adapterIsEnabled("pppoe"));

    EXPECT_THAT(platform_.journal, ElementsAre(kPppoeQuery, kPppoeQuery, kPppoeQuery));
    EXPECT_THAT(logLines(platform_), ElementsAre(kNoPppoe, kNoPppoe));
}

TEST_F(AdapterTest, LongPppoeInterfaceNameIsKeptWhole) {
    platform_.pppoeInterface = std::string(255, 'p');
    EXPECT_THAT(matchesOf("pppoe"), ElementsAre("-i " + std::string(255, 'p')));
}

// ---- VPN interfaces ----

TEST_F(AdapterTest, PppoeInterfaceIsNoVpnInterfaceWhileAnotherPppIs) {
    platform_.pppoeInterface = "ppp0";
    platform_.interfaces = {"eth0", "ppp0", "ppp1"};

    EXPECT_TRUE(translator_.vpnAdatperEnum());

    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i ppp1"));
}

TEST_F(AdapterTest, Ppp0IsAVpnInterfaceWhenPppoeRunsElsewhereOrNotAtAll) {
    platform_.interfaces = {"ppp0", "ppp1"};
    platform_.pppoeInterface = "ppp1";
    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i ppp0"));

    platform_.pppoeInterface.clear();
    TARNFW_IPTABLES_RULES withoutPppoe;
    EXPECT_THAT(matchesOf(withoutPppoe, "vpn"), ElementsAre("-i ppp0", "-i ppp1"));
}

TEST_F(AdapterTest, Tun0IsAVpnInterfaceAndTun1000IsNot) {
    platform_.interfaces = {"tun1000", "tun0"};

    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i tun0"));
}

TEST_F(AdapterTest, Tun1000AloneIsNoVpn) {
    platform_.interfaces = {"eth0", "tun1000"};

    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));
}

TEST_F(AdapterTest, VpnInterfacesAreKnownByTheBeginningOfTheirNames) {
    platform_.pppoeInterface = "ppp0";
    platform_.interfaces = {"xtun0", "tun10000", "ppp",    "tu0",   "tun",  "tun100", "eth0",
                            "PPP1",  "ppp00",    "tunnel", "pppX0", "Tun0", "pp0",    "wppp1"};

    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i tun10000", "-i ppp", "-i tun", "-i tun100",
                                              "-i ppp00", "-i tunnel", "-i pppX0"));
}

TEST_F(AdapterTest, PppoeOverATunLeavesItAVpnInterface) {
    platform_.pppoeInterface = "tun0";
    platform_.interfaces = {"tun0"};

    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i tun0"));
}

TEST_F(AdapterTest, VpnInterfacesAreFoundOnceInterfacesBeforePppoe) {
    platform_.interfaces = {"ppp1"};

    EXPECT_TRUE(translator_.vpnAdatperEnum());
    EXPECT_TRUE(translator_.vpnAdatperEnum());
    EXPECT_TRUE(translator_.adapterIsEnabled("vpn"));
    EXPECT_THAT(matchesOf("vpn"), ElementsAre("-i ppp1"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kPppoeQuery));
    EXPECT_THAT(logLines(platform_), ElementsAre(kNoPppoe));
}

TEST_F(AdapterTest, EmptyVpnListIsLookedForAgainInTheKeptInterfaces) {
    platform_.interfaces = {"eth0"};

    EXPECT_TRUE(translator_.vpnAdatperEnum());
    EXPECT_TRUE(translator_.vpnAdatperEnum());

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kPppoeQuery, kPppoeQuery));
}

TEST_F(AdapterTest, EmptyVpnListAsksNothingWhenAllElseIsKnown) {
    platform_.interfaces = {"eth0", "ppp0"};
    platform_.pppoeInterface = "ppp0";

    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));
    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));

    EXPECT_THAT(platform_.journal, ElementsAre(kQuery, kPppoeQuery));
}

TEST_F(AdapterTest, VpnEnumerationFailsWithTheInterfacesAndAsksForNoPppoe) {
    platform_.interfacesResult = -7;

    EXPECT_FALSE(translator_.vpnAdatperEnum());

    EXPECT_THAT(logLines(platform_), ElementsAre(kQueryFailed, kEnumFailed));
    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
}

TEST_F(AdapterTest, FailureKeepsThePppoeNameThatWasFound) {
    platform_.pppoeInterface = "ppp0";
    EXPECT_TRUE(translator_.adapterIsEnabled("pppoe"));
    platform_.interfacesResult = -7;
    platform_.pppoeInterface.clear();

    EXPECT_FALSE(translator_.vpnAdatperEnum());

    EXPECT_THAT(matchesOf("pppoe"), ElementsAre("-i ppp0"));
    EXPECT_THAT(platform_.journal, ElementsAre(kPppoeQuery, kQuery));
}

// ---- Is an adapter enabled ----

TEST_F(AdapterTest, GlobalIsAlwaysEnabledWithoutAQuestion) {
    platform_.interfacesResult = -7;

    EXPECT_TRUE(translator_.adapterIsEnabled("global"));

    EXPECT_THAT(platform_.journal, IsEmpty());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(AdapterTest, VpnIsEnabledWithAVpnInterface) {
    platform_.interfaces = {"eth0"};
    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));

    platform_.interfaces = {"eth0", "tun0"};
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().adapterIsEnabled("vpn"));
}

TEST_F(AdapterTest, VpnIsNotEnabledWhenTheInterfacesCannotBeListed) {
    platform_.interfacesResult = -7;

    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));

    EXPECT_THAT(logLines(platform_), ElementsAre(kQueryFailed, kEnumFailed));
}

TEST_F(AdapterTest, PppoeIsEnabledByItsNameAloneWhateverTheInterfaces) {
    platform_.pppoeInterface = "ppp0";
    platform_.interfacesResult = -7;

    EXPECT_TRUE(translator_.adapterIsEnabled("pppoe"));

    EXPECT_THAT(platform_.journal, ElementsAre(kPppoeQuery));
}

TEST_F(AdapterTest, OtherNamesAreEnabledWhenTheMachineHasExactlyThatInterface) {
    platform_.interfaces = {"eth0", "bond0.10"};

    EXPECT_TRUE(translator_.adapterIsEnabled("eth0"));
    EXPECT_TRUE(translator_.adapterIsEnabled("bond0.10"));
    for (const char* name : {"", "eth", "eth00", "ETH0", "bond0", "Global", "VPN", "global "}) {
        EXPECT_FALSE(translator_.adapterIsEnabled(name)) << name;
    }
}

TEST_F(AdapterTest, OtherNamesAreNotEnabledWhenTheInterfacesCannotBeListed) {
    platform_.interfacesResult = -7;

    EXPECT_FALSE(translator_.adapterIsEnabled("eth0"));

    EXPECT_THAT(logLines(platform_), ElementsAre(kQueryFailed, kEnumFailed));
    EXPECT_THAT(platform_.journal, ElementsAre(kQuery));
}

// ---- Matches ----

TEST_F(AdapterTest, InterfaceMatchFollowsTheDirectionAndAsksNothing) {
    EXPECT_THAT(matchesOf("eth0", 1), ElementsAre("-i eth0"));
    EXPECT_THAT(matchesOf("eth0", 0), ElementsAre("-o eth0"));
    EXPECT_THAT(matchesOf("eth0", -1), ElementsAre("-i eth0"));
    EXPECT_THAT(matchesOf("eth0", 2), ElementsAre("-i eth0"));

    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(AdapterTest, InterfaceMatchDoesNotNeedTheInterface) {
    EXPECT_THAT(matchesOf("missing7"), ElementsAre("-i missing7"));
    EXPECT_THAT(matchesOf(""), ElementsAre("-i "));
}

TEST_F(AdapterTest, GlobalHasOneEmptyMatchInBothDirections) {
    EXPECT_THAT(matchesOf("global", 1), ElementsAre(""));
    EXPECT_THAT(matchesOf("global", 0), ElementsAre(""));
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(AdapterTest, PppoeMatchNamesItsInterfaceInBothDirections) {
    platform_.pppoeInterface = "ppp0";

    EXPECT_THAT(matchesOf("pppoe", 1), ElementsAre("-i ppp0"));
    EXPECT_THAT(matchesOf("pppoe", 0), ElementsAre("-o ppp0"));

    EXPECT_THAT(platform_.journal, ElementsAre(kPppoeQuery));
}

TEST_F(AdapterTest, PppoeWithoutInterfaceFails) {
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(translator_.adapterToIptablesArg("pppoe", withDirection(1), arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_),
                ElementsAre(kNoPppoe, "err fwIptables: pppoe interface is empty"));
}

TEST_F(AdapterTest, VpnHasOneMatchForEachInterfaceInListOrderAndBothDirections) {
    platform_.pppoeInterface = "ppp0";
    platform_.interfaces = {"tun3", "eth0", "ppp0", "ppp2", "tun1"};

    EXPECT_THAT(matchesOf("vpn", 1), ElementsAre("-i tun3", "-i ppp2", "-i tun1"));
    EXPECT_THAT(matchesOf("vpn", 0), ElementsAre("-o tun3", "-o ppp2", "-o tun1"));
}

TEST_F(AdapterTest, VpnWithoutInterfaceIsNotEnabledAndMatchesAnInterfaceOfThatName) {
    platform_.interfaces = {"eth0"};

    EXPECT_FALSE(translator_.adapterIsEnabled("vpn"));
    EXPECT_THAT(matchesOf("vpn", 1), ElementsAre("-i vpn"));
    EXPECT_THAT(matchesOf("vpn", 0), ElementsAre("-o vpn"));
}

TEST_F(AdapterTest, VpnFailsWhenTheInterfacesCannotBeListed) {
    platform_.interfacesResult = -7;
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(translator_.adapterToIptablesArg("vpn", withDirection(1), arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_), ElementsAre(kQueryFailed, kEnumFailed, kVpnFailed));
}

TEST_F(AdapterTest, InterfaceMatchIsOnlyForADocumentWithoutOne) {
    platform_.interfaces = {"eth0"};
    Json::Value arg = emptyArgument();
    arg["adapter"].append("-i earlier");

    EXPECT_TRUE(translator_.adapterToIptablesArg("eth0", withDirection(1), arg));
    EXPECT_THAT(texts(arg["adapter"]), ElementsAre("-i earlier"));
    EXPECT_TRUE(translator_.adapterToIptablesArg("vpn", withDirection(1), arg));
    EXPECT_THAT(texts(arg["adapter"]), ElementsAre("-i earlier"));
    EXPECT_TRUE(translator_.adapterToIptablesArg("global", withDirection(1), arg));
    EXPECT_THAT(texts(arg["adapter"]), ElementsAre("-i earlier", ""));
}

}  // namespace
