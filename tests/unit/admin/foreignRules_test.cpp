// Rules of other programs before the firewall's: which of them may accept the packets of a
// question, and which change where those go.
#include "tarnfwadmin/foreignRules.h"

#include <netinet/in.h>

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ValuesIn;

template <typename Case>
std::string caseName(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

/// A filter table with these rules of INPUT before the firewall's jumps, and these chains.
RuleListing filterWith(const std::string& before, const std::string& policy = "ACCEPT") {
    return RuleListing::from("-P INPUT " + policy + "\n-P FORWARD ACCEPT\n" +
                             "-N FIREWALL_RELOADING\n-N INPUT_FIREWALL\n-N FORWARD_FIREWALL\n" +
                             "-N OTHERS\n-N MORE\n" + before +
                             "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n"
                             "-A INPUT -s 10.9.9.9/32 -j ACCEPT\n"
                             "-A FORWARD -j FIREWALL_RELOADING\n-A FORWARD -j FORWARD_FIREWALL\n");
}

/// "tcp/22 from anywhere through eth0".
ForeignQuestion question(int port = 22) {
    ForeignQuestion asked;
    asked.interfaces = {"eth0"};
    asked.protocol = IPPROTO_TCP;
    asked.ports = PortSpan{port, port};
    return asked;
}

/// "certain", "maybe" or "none".
std::string found(const RuleListing& filter, const ForeignQuestion& asked,
                  const std::string& chain = "INPUT") {
    const std::vector<EarlyAccept> accepts =
        ForeignRules("v4", filter, RuleListing()).earlyAccepts(chain, asked);
    if (accepts.empty()) {
        return "none";
    }
    return accepts.front().certain ? "certain" : "maybe";
}

struct AcceptCase {
    const char* name;
    const char* before;
    const char* accepts;  ///< tcp/22 through eth0
};

void PrintTo(const AcceptCase& c, std::ostream* out) {
    *out << c.before;
}

const AcceptCase kAccepts[] = {
    {"Nothing", "", "none"},
    {"Everything", "-A INPUT -j ACCEPT\n", "certain"},
    {"ThePort", "-A INPUT -p tcp -m tcp --dport 22 -j ACCEPT\n", "certain"},
    {"AnotherPort", "-A INPUT -p tcp -m tcp --dport 23 -j ACCEPT\n", "none"},
    {"AnyPortBut", "-A INPUT -p tcp -m tcp ! --dport 22 -j ACCEPT\n", "none"},
    {"AnyPortButAnother", "-A INPUT -p tcp -m tcp ! --dport 23 -j ACCEPT\n", "certain"},
    {"SomePorts", "-A INPUT -p tcp -m multiport --dports 80,20:25 -j ACCEPT\n", "certain"},
    {"OtherPorts", "-A INPUT -p tcp -m multiport --dports 80,443 -j ACCEPT\n", "none"},
    {"AnotherProtocol", "-A INPUT -p udp -j ACCEPT\n", "none"},
    {"ProtocolByNumber", "-A INPUT -p 6 -j ACCEPT\n", "certain"},
    {"AnyProtocolBut", "-A INPUT ! -p tcp -j ACCEPT\n", "none"},
    {"TheInterface", "-A INPUT -i eth0 -j ACCEPT\n", "certain"},
    {"InterfacesLikeIt", "-A INPUT -i eth+ -j ACCEPT\n", "certain"},
    {"AnotherInterface", "-A INPUT -i eth1 -j ACCEPT\n", "none"},
    {"AnyInterfaceBut", "-A INPUT ! -i eth1 -j ACCEPT\n", "certain"},
    {"Loopback", "-A INPUT -i lo -j ACCEPT\n", "none"},
    {"SomeSenders", "-A INPUT -s 10.0.0.0/8 -j ACCEPT\n", "maybe"},
    {"AnOddMask", "-A INPUT -s 10.0.0.5/255.0.255.0 -j ACCEPT\n", "maybe"},
    {"SourcePort", "-A INPUT -p tcp -m tcp --sport 1024:65535 -j ACCEPT\n", "maybe"},
    {"Established", "-A INPUT -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT\n", "none"},
    {"New", "-A INPUT -m conntrack --ctstate NEW,ESTABLISHED -j ACCEPT\n", "maybe"},
    {"NotEstablished", "-A INPUT -m conntrack ! --ctstate ESTABLISHED -j ACCEPT\n", "maybe"},
    {"AnotherMatch", "-A INPUT -m set --match-set friends src -j ACCEPT\n", "maybe"},
    {"AComment", "-A INPUT -m comment --comment \"-p udp \\\"x\\\"\" -j ACCEPT\n", "certain"},
    {"Drops", "-A INPUT -j DROP\n-A INPUT -j ACCEPT\n", "none"},
    {"DropsSome", "-A INPUT -s 10.0.0.0/8 -j DROP\n-A INPUT -j ACCEPT\n", "maybe"},
    {"AcceptsSomeAndThenAll", "-A INPUT -j LOG --log-prefix \"in \"\n-A INPUT -j ACCEPT\n",
     "certain"},
    {"DropsAnotherPort", "-A INPUT -p tcp -m tcp --dport 23 -j DROP\n-A INPUT -j ACCEPT\n",
     "certain"},
    {"Logs", "-A INPUT -j LOG\n", "none"},
    {"Counts", "-A INPUT -p tcp\n", "none"},
    {"AProgramDecides", "-A INPUT -j NFQUEUE --queue-num 0\n", "maybe"},
    {"Returns", "-A INPUT -j RETURN\n", "certain"},
    {"AnOwnChain", "-A INPUT -s 10.0.0.1/32 -j INPUT_FIREWALL\n", "none"},
    {"AnotherChain", "-A INPUT -j OTHERS\n-A OTHERS -p tcp -m tcp --dport 22 -j ACCEPT\n",
     "certain"},
    {"AnotherChainForSome", "-A INPUT -s 10.0.0.1/32 -j OTHERS\n-A OTHERS -j ACCEPT\n", "maybe"},
    {"AChainThatOnlyDrops", "-A INPUT -j OTHERS\n-A OTHERS -s 10.0.0.1/32 -j DROP\n", "none"},
    {"AChainForAnotherPort", "-A INPUT -j OTHERS\n-A OTHERS -p udp -j ACCEPT\n", "none"},
    {"AChainThatReturns", "-A INPUT -j OTHERS\n-A OTHERS -j RETURN\n-A OTHERS -j ACCEPT\n", "none"},
    {"AChainOfAChain", "-A INPUT -j OTHERS\n-A OTHERS -j MORE\n-A MORE -j ACCEPT\n", "certain"},
    {"AChainThatDoesNotComeBack", "-A INPUT -g OTHERS\n-A OTHERS -p udp -j DROP\n", "certain"},
    {"AnEmptyChain", "-A INPUT -j OTHERS\n", "none"},
    {"InTheReloadingChain", "-A FIREWALL_RELOADING -p tcp -m tcp --dport 22 -j ACCEPT\n",
     "certain"},
    {"OfTheReloadItself", "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n",
     "none"},
    {"BeforeADropInTheReloadingChain",
     "-A FIREWALL_RELOADING -j OTHERS\n"
     "-A OTHERS -s 10.0.0.0/8 -j ACCEPT\n-A FIREWALL_RELOADING -j DROP\n",
     "maybe"},
};

class AcceptTest : public testing::TestWithParam<AcceptCase> {};

TEST_P(AcceptTest, IsSeenBeforeTheFirewall) {
    EXPECT_EQ(found(filterWith(GetParam().before), question()), GetParam().accepts);
}

INSTANTIATE_TEST_SUITE_P(, AcceptTest, ValuesIn(kAccepts), caseName<AcceptCase>);

TEST(ForeignRulesTest, APolicyThatDropsDoesNotAccept) {
    EXPECT_EQ(found(filterWith("-A INPUT -j RETURN\n", "DROP"), question()), "none");
}

TEST(ForeignRulesTest, APortAmongSeveralIsMaybe) {
    ForeignQuestion asked = question();
    asked.ports = PortSpan{20, 25};
    EXPECT_EQ(found(filterWith("-A INPUT -p tcp -m tcp --dport 22 -j ACCEPT\n"), asked), "maybe");
}

TEST(ForeignRulesTest, TheSenderDecides) {
    const RuleListing filter = filterWith("-A INPUT -s 10.0.0.0/8 -j ACCEPT\n");
    ForeignQuestion asked = question();
    asked.source = addressFrom("10.1.2.3");
    EXPECT_EQ(found(filter, asked), "certain");
    asked.source = addressFrom("192.0.2.1");
    EXPECT_EQ(found(filter, asked), "none");
}

TEST(ForeignRulesTest, TheWholeWayIsNamed) {
    const std::vector<EarlyAccept> accepts =
        ForeignRules("v4", filterWith("-A INPUT -i eth0 -j OTHERS\n-A OTHERS -j ACCEPT\n"),
                     RuleListing())
            .earlyAccepts("INPUT", question());
    ASSERT_THAT(accepts, SizeIs(1));
    EXPECT_THAT(accepts[0].rules, ElementsAre("-A INPUT -i eth0 -j OTHERS", "-A OTHERS -j ACCEPT"));
}

TEST(ForeignRulesTest, ARuleInTheReloadingChainIsGivenOnceWithItsChain) {
    const std::vector<EarlyAccept> accepts =
        ForeignRules("v4", filterWith("-A FIREWALL_RELOADING -s 10.0.0.0/8 -j ACCEPT\n"),
                     RuleListing())
            .anyEarlyAccepts();
    ASSERT_THAT(accepts, SizeIs(1));
    EXPECT_EQ(accepts[0].chain, "FIREWALL_RELOADING");
    EXPECT_THAT(accepts[0].rules, ElementsAre("-A FIREWALL_RELOADING -s 10.0.0.0/8 -j ACCEPT"));
}

TEST(ForeignRulesTest, WithoutTheJumpThereIsNoBefore) {
    const RuleListing filter = RuleListing::from("-P INPUT ACCEPT\n-A INPUT -j ACCEPT\n");
    EXPECT_THAT(ForeignRules("v4", filter, RuleListing()).anyEarlyAccepts(), IsEmpty());
}

TEST(ForeignRulesTest, EachRuleOfAContainerHostIsGivenOnce) {
    const RuleListing filter = filterWith(
        "-N DOCKER\n-N DOCKER-USER\n"
        "-A FORWARD -j DOCKER-USER\n-A DOCKER-USER -j RETURN\n"
        "-A FORWARD -o docker0 -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT\n"
        "-A FORWARD -o docker0 -j DOCKER\n"
        "-A DOCKER -d 172.17.0.2/32 ! -i docker0 -o docker0 -p tcp -m tcp --dport 80 -j ACCEPT\n"
        "-A DOCKER -d 172.17.0.3/32 ! -i docker0 -o docker0 -p tcp -m tcp --dport 81 -j ACCEPT\n"
        "-A FORWARD -i docker0 ! -o docker0 -j ACCEPT\n");
    std::vector<std::string> rules;
    for (const EarlyAccept& accept : ForeignRules("v4", filter, RuleListing()).anyEarlyAccepts()) {
        EXPECT_EQ(accept.chain, "FORWARD");
        rules.push_back(rulesText(accept.rules));
    }
    EXPECT_THAT(rules, ElementsAre("-A FORWARD -o docker0 -j DOCKER",
                                   "-A FORWARD -i docker0 ! -o docker0 -j ACCEPT"));
    EXPECT_EQ(found(filter, question(80), "FORWARD"), "maybe");
    EXPECT_EQ(found(filter, question(82), "FORWARD"), "none");
}

TEST(ForeignRulesTest, ChainsWithoutEndAreMaybe) {
    std::string rules = "-A INPUT -j C0\n";
    for (int i = 0; i < 40; ++i) {
        const std::string name = "C" + std::to_string(i);
        const std::string next = " -j C" + std::to_string(i + 1) + "\n";
        rules += "-N " + name + "\n";
        for (int twice = 0; twice < 2; ++twice) {
            rules += "-A " + name + " -s 10.0.0.0/8" + next;
        }
    }
    EXPECT_EQ(found(filterWith(rules), question()), "maybe");
}

// ---- what drops ----

/// A filter table whose INPUT has these rules after the firewall's jumps.
RuleListing filterThen(const std::string& after, const std::string& policy = "ACCEPT") {
    RuleListing filter = filterWith("", policy);
    filter.chains["INPUT"].pop_back();  // the rule for a friend
    const RuleListing more = RuleListing::from(after);
    for (const auto& [chain, rules] : more.chains) {
        filter.chains[chain].insert(filter.chains[chain].end(), rules.begin(), rules.end());
    }
    return filter;
}

/// "certain", "maybe" or "none", of tcp/22 through eth0 to this machine, which is 192.0.2.1.
std::string dropsIn(const RuleListing& filter, const std::vector<HookTable>& others = {},
                    Hook hook = Hook::kInput) {
    std::string told = "none";
    for (const ForeignDrop& drop :
         ForeignRules("v4", filter, others, {*addressFrom("192.0.2.1"), *addressFrom("127.0.0.1")})
             .drops(hook, question())) {
        told = drop.certain || told == "certain" ? "certain" : "maybe";
    }
    return told;
}

struct DropCase {
    const char* name;
    const char* rules;
    const char* drops;
};

void PrintTo(const DropCase& c, std::ostream* out) {
    *out << c.rules;
}

const DropCase kDrops[] = {
    {"Nothing", "", "none"},
    {"Everything", "-A INPUT -j DROP\n", "certain"},
    {"ThePort", "-A INPUT -p tcp -m tcp --dport 22 -j REJECT --reject-with tcp-reset\n", "certain"},
    {"AnotherPort", "-A INPUT -p tcp -m tcp --dport 23 -j DROP\n", "none"},
    {"AnotherProtocol", "-A INPUT -p udp -j DROP\n", "none"},
    {"AnotherInterface", "-A INPUT -i eth1 -j DROP\n", "none"},
    {"SomeSenders", "-A INPUT -s 10.0.0.0/8 -j DROP\n", "maybe"},
    {"AnUnknownMatch", "-A INPUT -m set --match-set foes src -j DROP\n", "maybe"},
    {"AProgramDecides", "-A INPUT -j NFQUEUE --queue-num 0\n", "maybe"},
    {"ToThisMachine", "-A INPUT -d 192.0.2.1/32 -j DROP\n", "certain"},
    {"ToOthers", "-A INPUT -d 172.17.0.2/32 -j DROP\n", "none"},
    {"InvalidPackets", "-A INPUT -m conntrack --ctstate INVALID -j DROP\n", "none"},
    {"NewPackets", "-A INPUT -m conntrack --ctstate NEW -j DROP\n", "maybe"},
    {"WithoutSyn", "-A INPUT -p tcp -m tcp ! --tcp-flags FIN,SYN,RST,ACK SYN -j DROP\n", "none"},
    {"WithSyn", "-A INPUT -p tcp -m tcp --tcp-flags FIN,SYN,RST,ACK SYN -j DROP\n", "certain"},
    {"WithoutFlags", "-A INPUT -p tcp -m tcp --tcp-flags ALL NONE -j DROP\n", "none"},
    {"AfterAnAccept", "-A INPUT -j ACCEPT\n-A INPUT -j DROP\n", "none"},
    {"AfterAnAcceptForSome", "-A INPUT -s 10.0.0.0/8 -j ACCEPT\n-A INPUT -j DROP\n", "maybe"},
    {"AfterADropForSome", "-A INPUT -s 10.0.0.0/8 -j DROP\n-A INPUT -j DROP\n", "certain"},
    {"InAChain", "-A INPUT -j OTHERS\n-A OTHERS -p tcp -j DROP\n", "certain"},
    {"AfterAReturn", "-A INPUT -j OTHERS\n-A OTHERS -j RETURN\n-A OTHERS -j DROP\n", "none"},
    {"InTheReloadingChain", "-A FIREWALL_RELOADING -p tcp -j DROP\n", "certain"},
    {"OfTheFirewallItself", "-A INPUT_FIREWALL -j DROP\n", "none"},
};

class DropTest : public testing::TestWithParam<DropCase> {};

TEST_P(DropTest, IsSeenBeforeAndAfterTheFirewall) {
    EXPECT_EQ(dropsIn(filterWith(GetParam().rules)), GetParam().drops);
    EXPECT_EQ(dropsIn(filterThen(GetParam().rules)), GetParam().drops);
}

INSTANTIATE_TEST_SUITE_P(, DropTest, ValuesIn(kDrops), caseName<DropCase>);

TEST(ForeignDropTest, APolicyDropsWhatNoRuleAccepts) {
    EXPECT_EQ(dropsIn(filterThen("", "DROP")), "certain");
    EXPECT_EQ(dropsIn(filterThen("-A INPUT -p tcp -m tcp --dport 22 -j ACCEPT\n", "DROP")), "none");
    EXPECT_EQ(dropsIn(filterThen("-A INPUT -s 10.0.0.0/8 -j ACCEPT\n", "DROP")), "maybe");
    const auto drops =
        ForeignRules("v4", filterThen("", "DROP"), RuleListing()).drops(Hook::kInput, question());
    ASSERT_THAT(drops, SizeIs(1));
    EXPECT_THAT(drops[0].rules, ElementsAre("-P INPUT DROP"));
}

/// A table of the other variant; its chains drop whatever the firewall's do.
HookTable legacyFilter(const std::string& rules) {
    return {RuleListing::from(rules),
            {{"INPUT", Hook::kInput}, {"FORWARD", Hook::kForward}},
            {},
            "iptables-legacy -t filter "};
}

TEST(ForeignDropTest, AnotherTableDropsThoughThisOneAccepts) {
    const RuleListing accepts = filterWith("-A INPUT -j ACCEPT\n");
    const HookTable other = legacyFilter("-P INPUT ACCEPT\n-A INPUT -p tcp -j DROP\n");
    EXPECT_EQ(dropsIn(accepts, {other}), "certain");
    EXPECT_EQ(dropsIn(accepts, {other}, Hook::kForward), "none");
    EXPECT_EQ(dropsIn(accepts, {legacyFilter("-P INPUT DROP\n")}), "certain");
    const auto drops = ForeignRules("v4", accepts, {other}, {}).drops(Hook::kInput, question());
    ASSERT_THAT(drops, SizeIs(1));
    EXPECT_THAT(drops[0].rules, ElementsAre("iptables-legacy -t filter -A INPUT -p tcp -j DROP"));
}

TEST(ForeignDropTest, RulesOfThisFirewallLeftInTheOtherVariantAreInForce) {
    EXPECT_EQ(dropsIn(filterWith(""), {legacyFilter("-P INPUT ACCEPT\n-A INPUT -j INPUT_FIREWALL\n"
                                                    "-A INPUT_FIREWALL -i eth0 -j DROP\n")}),
              "certain");
}

// ---- nat ----

struct RedirectionCase {
    const char* name;
    const char* rules;
    int port;
    const char* told;  ///< target, chain, seen ports, certain
};

void PrintTo(const RedirectionCase& c, std::ostream* out) {
    *out << c.rules;
}

constexpr char kDocker[] =
    "-A PREROUTING -m addrtype --dst-type LOCAL -j DOCKER\n"
    "-A DOCKER -i docker0 -j RETURN\n"
    "-A DOCKER ! -i docker0 -p tcp -m tcp --dport 8080 -j DNAT --to-destination 172.17.0.2:80\n";

const RedirectionCase kRedirections[] = {
    {"None", "", 80, ""},
    {"OfAContainer", kDocker, 8080, "172.17.0.2:80 FORWARD 80 certain"},
    {"OfAnotherPort", kDocker, 80, ""},
    {"ToTheSamePort", "-A PREROUTING -p tcp -m tcp --dport 80 -j DNAT --to-destination 10.0.0.1\n",
     80, "10.0.0.1 FORWARD - certain"},
    {"ToAPortOfTheMachine", "-A PREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 81\n",
     80, "port 81 INPUT 81 certain"},
    {"ToAnAddressOfTheMachine",
     "-A PREROUTING -p tcp -m tcp --dport 80 -j DNAT --to-destination 192.0.2.1:81\n", 80,
     "192.0.2.1:81 INPUT 81 certain"},
    {"ToV6", "-A PREROUTING -p tcp -m tcp --dport 80 -j DNAT --to-destination [fd00::1]:81\n", 80,
     "[fd00::1]:81 FORWARD 81 certain"},
    {"ToV6WithoutAPort",
     "-A PREROUTING -p tcp -m tcp --dport 80 -j DNAT --to-destination fd00::1\n", 80,
     "fd00::1 FORWARD - certain"},
    {"OfSomeSenders", "-A PREROUTING -s 10.0.0.0/8 -p tcp -j DNAT --to-destination 10.0.0.1:81\n",
     80, "10.0.0.1:81 FORWARD 81 maybe"},
    {"AfterAnExemption", "-A PREROUTING -i eth0 -j ACCEPT\n-A PREROUTING -j DNAT --to :81\n", 80,
     ""},
};

class RedirectionTest : public testing::TestWithParam<RedirectionCase> {};

TEST_P(RedirectionTest, IsNamed) {
    const RuleListing nat = RuleListing::from(std::string("-N DOCKER\n") + GetParam().rules);
    std::string told;
    for (const Redirection& found :
         ForeignRules("v4", RuleListing(), nat, {*addressFrom("192.0.2.1")})
             .redirections(question(GetParam().port))) {
        told += found.target + (found.toThisMachine ? " INPUT " : " FORWARD ") +
                (found.seenPorts ? portSpanText(*found.seenPorts) : "-") +
                (found.certain ? " certain" : " maybe");
    }
    EXPECT_EQ(told, GetParam().told);
}

INSTANTIATE_TEST_SUITE_P(, RedirectionTest, ValuesIn(kRedirections), caseName<RedirectionCase>);

TEST(RedirectionOfManyTest, NamesThePortsThatItIsFor) {
    ForeignQuestion asked = question();
    asked.ports = PortSpan{8000, 8100};
    const auto found =
        ForeignRules("v4", RuleListing(), RuleListing::from("-N DOCKER\n" + std::string(kDocker)))
            .redirections(asked);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(portSpanText(found[0].ports), "8080");
    EXPECT_FALSE(found[0].certain);
}

/// The nat table of the other variant of iptables.
HookTable tableOfLegacy(const std::string& rules) {
    return {RuleListing::from(rules),
            {{kNatEntrance, Hook::kPrerouting}},
            {},
            "iptables-legacy -t nat "};
}

TEST(RedirectionOfManyTest, NamesTheVariantOfIptables) {
    const auto found = ForeignRules("v4", RuleListing(),
                                    {{RuleListing(), {{kNatEntrance, Hook::kPrerouting}}, {}, ""},
                                     tableOfLegacy("-A PREROUTING -j REDIRECT --to-ports 23\n")})
                           .redirections(question());
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_THAT(found[0].rules, ElementsAre("iptables-legacy -t nat -A PREROUTING -j REDIRECT "
                                            "--to-ports 23"));
    EXPECT_TRUE(found[0].certain);
}

TEST(RedirectionOfManyTest, OfTwoTablesNeitherIsCertain) {
    const HookTable own{RuleListing::from("-A PREROUTING -j REDIRECT --to-ports 80\n"),
                        {{kNatEntrance, Hook::kPrerouting}},
                        {},
                        ""};
    const auto found =
        ForeignRules("v4", RuleListing(),
                     {own, tableOfLegacy("-A PREROUTING -j REDIRECT --to-ports 23\n")})
            .redirections(question());
    ASSERT_THAT(found, SizeIs(2));
    EXPECT_FALSE(found[0].certain);
    EXPECT_FALSE(found[1].certain);
}

}  // namespace
}  // namespace tarnfw
