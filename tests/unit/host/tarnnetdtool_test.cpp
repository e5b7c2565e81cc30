/// The tool's decision over recorded link tables, and the program itself.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host_testing.h"
#include "ipv6Router.h"
#include "netLinks.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::uint32_t ipv4(const char* text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

host::NetLink link(int index, const char* name, const char* kind, bool up = true) {
    host::NetLink result;
    result.index = index;
    result.name = name;
    result.kind = kind;
    result.up = up;
    return result;
}

host::NetLink tunnel(int index, const char* name, int lower, const char* local, bool up = true,
                     std::uint8_t payload = 41) {
    host::NetLink result = link(index, name, "sit", up);
    result.lowerIndex = lower;
    result.tunnelLocal = ipv4(local);
    result.tunnelPayload = payload;
    return result;
}

// eth0 (2) with two addresses, ppp0 (3) and a tunnel (9) with one.
const std::vector<host::NetAddress>& addresses() {
    static const std::vector<host::NetAddress> table = {
        {1, ipv4("127.0.0.1")},     {2, ipv4("192.0.2.7")},   {2, ipv4("192.0.2.8")},
        {3, ipv4("198.51.100.20")}, {9, ipv4("203.0.113.9")},
    };
    return table;
}

struct RouterCase {
    const char* name;
    const char* interface;
    std::vector<host::NetLink> more;  ///< besides lo, eth0 and ppp0
    const char* router;
};

class RouterTest : public ::testing::TestWithParam<RouterCase> {};

TEST_P(RouterTest, IsExactlyThisLink) {
    const RouterCase& c = GetParam();
    std::vector<host::NetLink> links = {link(1, "lo", ""), link(2, "eth0", ""),
                                        link(3, "ppp0", "ppp")};
    links.insert(links.end(), c.more.begin(), c.more.end());
    EXPECT_EQ(host::ipv6RouterInterface(c.interface, links, addresses()), c.router);
}

const RouterCase kRouters[] = {
    {"NoTunnel", "eth0", {}, "eth0"},
    {"BoundToIt", "eth0", {tunnel(9, "he", 2, "0.0.0.0")}, "he"},
    {"FromItsAddress", "eth0", {tunnel(9, "he", 0, "192.0.2.7")}, "he"},
    {"FromItsSecondAddress", "eth0", {tunnel(9, "he", 0, "192.0.2.8")}, "he"},
    {"OverPppoe", "ppp0", {tunnel(9, "he", 0, "198.51.100.20")}, "he"},
    {"OverAnotherLink", "eth0", {tunnel(9, "he", 3, "198.51.100.20")}, "eth0"},
    {"FromAnyAddress", "eth0", {tunnel(9, "he", 0, "0.0.0.0")}, "eth0"},
    {"FallbackDevice", "eth0", {tunnel(9, "sit0", 2, "192.0.2.7")}, "eth0"},
    {"Down", "eth0", {tunnel(9, "he", 2, "192.0.2.7", false)}, "eth0"},
    {"CarriesIpv4", "eth0", {tunnel(9, "ipip", 2, "192.0.2.7", true, 4)}, "eth0"},
    {"CarriesAnything", "eth0", {tunnel(9, "any", 2, "192.0.2.7", true, 0)}, "any"},
    {"AnotherKindOfTunnel", "eth0", {link(9, "gre1", "gre")}, "eth0"},
    {"DownThenUp",
     "eth0",
     {tunnel(8, "old", 2, "0.0.0.0", false), tunnel(9, "new", 2, "0.0.0.0")},
     "new"},
    {"LowestIndex",
     "eth0",
     {tunnel(9, "later", 2, "0.0.0.0"), tunnel(8, "earlier", 2, "0.0.0.0")},
     "earlier"},
    {"BoundBeatsAddress",
     "eth0",
     {tunnel(8, "address", 0, "192.0.2.7"), tunnel(9, "bound", 2, "0.0.0.0")},
     "bound"},
    {"UnknownInterface", "eth7", {tunnel(9, "he", 0, "192.0.2.7")}, "eth7"},
    {"TunnelItself",
     "he",
     {tunnel(9, "he", 2, "203.0.113.9"), tunnel(10, "other", 0, "203.0.113.9")},
     "other"},
};
INSTANTIATE_TEST_SUITE_P(Cases, RouterTest, ::testing::ValuesIn(kRouters),
                         [](const auto& tested) { return std::string(tested.param.name); });

// ---- The program --------------------------------------------------------------------------------

struct Outcome {
    std::string output;
    int status = -1;
};

Outcome runTool(const std::string& arguments) {
    Outcome run;
    FILE* stream = popen((std::string(TARN_NETDTOOL) + " " + arguments).c_str(), "r");
    EXPECT_NE(stream, nullptr);
    if (stream != nullptr) {
        run.output = readAll(stream);
        const int status = pclose(stream);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return run;
}

TEST(NetdToolTest, PrintsTheBareNameOfAnInterfaceWithoutTunnel) {
    const Outcome run = runTool("--get-ipv6-router-interface lo 2>&1");
    EXPECT_EQ(run.output, "lo");
    EXPECT_EQ(run.status, 0);
}

TEST(NetdToolTest, AnswersForAnInterfaceThatDoesNotExist) {
    const Outcome run = runTool("--get-ipv6-router-interface no-such-interface-at-all 2>&1");
    EXPECT_EQ(run.output, "no-such-interface-at-all");
    EXPECT_EQ(run.status, 0);
}

TEST(NetdToolTest, ExplainsItself) {
    const Outcome run = runTool("--help");
    EXPECT_THAT(run.output, StartsWith("usage: tarnnetdtool "));
    EXPECT_THAT(run.output, HasSubstr("6in4"));
    EXPECT_EQ(run.status, 0);
}

TEST(NetdToolTest, RefusesWrongUsageWithStatus2AndNothingOnItsOutput) {
    for (const char* arguments :
         {"", "eth0", "--get-ipv6-router-interface", "--get-ipv6-router-interface ''",
          "--get-ipv6-router-interface eth0 eth1", "--help eth0", "--version"}) {
        const Outcome run = runTool(std::string(arguments) + " 2>/dev/null");
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_EQ(run.output, "") << arguments;
        EXPECT_THAT(runTool(std::string(arguments) + " 2>&1").output, StartsWith("usage: "));
    }
}

TEST(NetdToolTest, TellsWhenItsAnswerCannotBeWritten) {
    EXPECT_EQ(runTool("--get-ipv6-router-interface lo >/dev/full").status, 1);
}

}  // namespace
