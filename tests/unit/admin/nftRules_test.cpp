// Rules of nftables that change where packets go, in the words of iptables.
#include "kernel/nftRules.h"

#include <netinet/in.h>

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::ValuesIn;

template <typename Case>
std::string caseName(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

/// "tcp/22 from anywhere through eth0".
ForeignQuestion question(int port) {
    ForeignQuestion asked;
    asked.interfaces = {"eth0"};
    asked.protocol = IPPROTO_TCP;
    asked.ports = PortSpan{port, port};
    return asked;
}

// As nft 1.0.6 prints it.
constexpr char kOthers[] = R"(table inet others {
	set blocked {
		type ipv4_addr
	}

	map ports {
		type inet_service : ipv4_addr . inet_service
	}

	chain pre {
		type nat hook prerouting priority -100; policy accept;
		iifname "docker0" return
		fib daddr type 2 jump published
		tcp dport 8443 counter packets 0 bytes 0 redirect to :443 comment "a web server"
		iifname "eth0" ip saddr 10.0.0.0/8 udp dport { 53, 5353 } dnat ip to 172.17.0.2:5300
		ip6 daddr fd00::10 tcp dport 81 dnat ip6 to [fd00::2]:80
		tcp dport 7000-7010 dnat ip to 172.17.0.9
		ip saddr != 10.0.0.0/8 tcp dport 6000 redirect to :6001
		ct state 0x2,0x4 accept
		tcp dport vmap { 90 : jump mapped, 91 : goto mapped, 92 : drop }
		meta l4proto 6 th dport { 9000,
					  9001 } dnat ip to tcp dport map @ports
		ip daddr . tcp dport vmap @sockets
	}

	chain published {
		tcp dport 8080 dnat ip to 172.17.0.2:23
	}

	chain mapped {
		dnat ip to 172.17.0.3:90
	}

	chain elsewhere {
		tcp dport 4000 redirect
	}

	chain out {
		type nat hook output priority -100; policy accept;
		tcp dport 5000 dnat ip to 172.17.0.2:23
	}
}
)";

struct NftCase {
    const char* name;
    const char* family;
    int protocol;
    int port;
    std::set<std::string> told;  ///< target, chain, seen ports, certain, of each
};

void PrintTo(const NftCase& c, std::ostream* out) {
    *out << c.name;
}

// A map of verdicts is not looked up: its chains may be those of any TCP port over IPv4.
constexpr char kByVerdict[] = "172.17.0.3:90 FORWARD 90 maybe;";

const NftCase kNftCases[] = {
    {"ARedirection", "v4", IPPROTO_TCP, 8443, {"port 443 INPUT 443 certain;"}},
    {"OfIpv6AsWell", "v6", IPPROTO_TCP, 8443, {"port 443 INPUT 443 certain;"}},
    {"OfAnotherProtocol", "v4", IPPROTO_UDP, 8443, {}},
    {"InAChain", "v4", IPPROTO_TCP, 8080, {"172.17.0.2:23 FORWARD 23 certain;"}},
    {"OfIpv4Only", "v6", IPPROTO_TCP, 8080, {}},
    {"OfIpv6Only", "v6", IPPROTO_TCP, 81, {"[fd00::2]:80 FORWARD 80 maybe;"}},
    {"NotOfIpv4", "v4", IPPROTO_TCP, 81, {kByVerdict}},
    {"OfASet", "v4", IPPROTO_UDP, 5353, {"172.17.0.2:5300 FORWARD 5300 maybe;"}},
    {"OfARange", "v4", IPPROTO_TCP, 7005, {"172.17.0.9 FORWARD - certain;"}},
    {"NotOfSomeSenders", "v4", IPPROTO_TCP, 6000, {"port 6001 INPUT 6001 maybe;", kByVerdict}},
    {"ByAMapOfVerdicts", "v4", IPPROTO_TCP, 90, {kByVerdict}},
    {"ByAMapOfAddresses",
     "v4",
     IPPROTO_TCP,
     9001,
     {"an address of a map FORWARD - maybe;", kByVerdict}},
    {"ByAMapThatIsNotShown", "v4", IPPROTO_TCP, 4000, {"this machine INPUT - maybe;", kByVerdict}},
    {"OfTheMachineItself", "v4", IPPROTO_TCP, 5000, {kByVerdict}},
};

class NftRuleTest : public testing::TestWithParam<NftCase> {};

TEST_P(NftRuleTest, IsFollowed) {
    const NftCase& c = GetParam();
    const HookTable table = hookTableFrom(kOthers, {"inet", "others"}, c.family);
    ForeignQuestion asked = question(c.port);
    asked.protocol = c.protocol;
    std::set<std::string> told;
    for (const Redirection& found :
         ForeignRules(c.family, RuleListing(), std::vector<HookTable>{table}).redirections(asked)) {
        told.insert(found.target + (found.toThisMachine ? " INPUT " : " FORWARD ") +
                    (found.seenPorts ? portSpanText(*found.seenPorts) : "-") +
                    (found.certain ? " certain;" : " maybe;"));
    }
    EXPECT_EQ(told, c.told);
}

INSTANTIATE_TEST_SUITE_P(, NftRuleTest, ValuesIn(kNftCases), caseName<NftCase>);

TEST(NftTest, RulesAreNamedAsNftPrintsThem) {
    const HookTable table = hookTableFrom(kOthers, {"inet", "others"}, "v4");
    const auto found = ForeignRules("v4", RuleListing(), std::vector<HookTable>{table})
                           .redirections(question(8080));
    ASSERT_FALSE(found.empty());
    EXPECT_THAT(found[0].rules,
                ElementsAre("table inet others chain pre: fib daddr type 2 jump published",
                            "table inet others chain published: tcp dport 8080 dnat ip to "
                            "172.17.0.2:23"));
    const auto other = ForeignRules("v4", RuleListing(), std::vector<HookTable>{table})
                           .redirections(question(8443));
    ASSERT_FALSE(other.empty());
    EXPECT_THAT(other[0].rules,
                ElementsAre("table inet others chain pre: tcp dport 8443 redirect to :443 comment "
                            "\"a web server\""));
}

// ---- what drops ----

constexpr char kFilter[] = R"(table inet filter {
	chain in {
		type filter hook input priority 10; policy drop;
		ct state vmap { 0x1 : drop, 0x2 : accept, 0x4 : accept }
		ct state 0x1 drop
		iifname "lo" accept
		icmpv6 type { 133, 134 } accept
		tcp dport 22 accept
		tcp dport 80 counter packets 0 bytes 0 reject with tcp reset
		tcp dport vmap { 90 : drop, 91 : accept }
		tcp dport 92 limit rate 3/second drop
		udp dport vmap @others
	}

	chain pre {
		type filter hook prerouting priority -300; policy accept;
		tcp dport 23 drop
	}
}
)";

constexpr char kDevice[] = R"(table netdev early {
	chain in {
		type filter hook ingress devices = { "eth0", "eth1" } priority 0; policy accept;
		tcp dport 24 drop
	}
}
)";

constexpr char kSleeps[] = R"(table inet sleeps {
	flags dormant
	chain in {
		type filter hook input priority 0; policy drop;
	}
}
)";

std::string dropsOf(const char* text, const NftTable& table, Hook hook, int port,
                    int protocol = IPPROTO_TCP, const std::string& interface = "eth0") {
    ForeignQuestion asked = question(port);
    asked.protocol = protocol;
    asked.interfaces = {interface};
    std::string told;
    for (const ForeignDrop& drop :
         ForeignRules("v4", RuleListing(), std::vector<HookTable>{hookTableFrom(text, table, "v4")})
             .drops(hook, asked)) {
        told += (drop.certain ? "certain " : "maybe ") + rulesText(drop.rules) + "\n";
    }
    return told;
}

TEST(NftTest, NamesTheRulesAndPoliciesThatDrop) {
    const NftTable filter("inet", "filter");
    const std::string chain = "table inet filter chain in: ";
    EXPECT_EQ(dropsOf(kFilter, filter, Hook::kInput, 22), "");
    EXPECT_EQ(dropsOf(kFilter, filter, Hook::kInput, 80),
              "certain " + chain + "tcp dport 80 reject with tcp reset\n");
    EXPECT_EQ(dropsOf(kFilter, filter, Hook::kInput, 53, IPPROTO_UDP),
              "maybe " + chain + "udp dport vmap @others\nmaybe " + chain + "policy drop\n");
    EXPECT_EQ(dropsOf(kFilter, filter, Hook::kPrerouting, 23),
              "certain table inet filter chain pre: tcp dport 23 drop\n");
    EXPECT_EQ(dropsOf(kFilter, filter, Hook::kForward, 80), "");
}

TEST(NftTest, WhatAConditionDoesNotShowMayDrop) {
    const NftTable filter("inet", "filter");
    const std::string told = dropsOf(kFilter, filter, Hook::kInput, 92);
    EXPECT_NE(told.find("maybe table inet filter chain in: tcp dport 92 limit rate 3/second drop"),
              std::string::npos);
    EXPECT_EQ(told.find("certain"), std::string::npos);
}

TEST(NftTest, ADeviceDropsForItself) {
    const NftTable early("netdev", "early");
    EXPECT_EQ(dropsOf(kDevice, early, Hook::kPrerouting, 24),
              "certain table netdev early chain in: tcp dport 24 drop\n");
    EXPECT_EQ(dropsOf(kDevice, early, Hook::kPrerouting, 24, IPPROTO_TCP, "eth2"), "");
}

TEST(NftTest, ADormantTableDropsNothing) {
    EXPECT_EQ(dropsOf(kSleeps, {"inet", "sleeps"}, Hook::kInput, 22), "");
}

}  // namespace
}  // namespace tarnfw
