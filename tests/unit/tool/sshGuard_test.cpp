// Whether a profile would lock out a person who is connected over SSH: the variable, the parent
// processes, the interface, and the messages.
#include "commands/sshGuard.h"

#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

using FW::FWPROFILE;
using FW::FWRULE;
using tarnfw::Interface;
using tarnfw::SshConnection;
using ::testing::ValuesIn;

template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

// ---- The variable ----

struct ValueCase {
    const char* name;
    const char* value;
    const char* read;  // "client server port zone"; empty: nothing
};

void PrintTo(const ValueCase& c, std::ostream* out) {
    *out << c.value;
}

const ValueCase kValues[] = {
    {"V4", "192.0.2.7 50022 192.0.2.1 22", "192.0.2.7 192.0.2.1 22 "},
    {"V6", "2001:db8::7 50022 2001:db8::1 2222", "2001:db8::7 2001:db8::1 2222 "},
    {"LinkLocal", "fe80::7%eth0 50022 fe80::1%eth0 22", "fe80::7 fe80::1 22 eth0"},
    {"ClientWithAZone", "fe80::7%eth0 50022 fe80::1 22", "fe80::7 fe80::1 22 eth0"},
    {"V4InV6Form", "::ffff:192.0.2.7 50022 ::ffff:192.0.2.1 22", "192.0.2.7 192.0.2.1 22 "},
    {"V4InV6FormOnOneSide", "::ffff:192.0.2.7 50022 192.0.2.1 22", "192.0.2.7 192.0.2.1 22 "},
    {"PortWithLeadingZeros", "192.0.2.7 050022 192.0.2.1 022", "192.0.2.7 192.0.2.1 22 "},
    {"PortZero", "192.0.2.7 50022 192.0.2.1 000", "192.0.2.7 192.0.2.1 0 "},
    {"Empty", "", ""},
    {"NoServer", "192.0.2.7 50022", ""},
    {"NoServerPort", "192.0.2.7 50022 192.0.2.1", ""},
    {"OneWordTooMany", "192.0.2.7 50022 192.0.2.1 22 23", ""},
    {"NoClientAddress", "client 50022 192.0.2.1 22", ""},
    {"NoServerAddress", "192.0.2.7 50022 server 22", ""},
    {"NoClientPort", "192.0.2.7 x 192.0.2.1 22", ""},
    {"PortTooHigh", "192.0.2.7 50022 192.0.2.1 65536", ""},
    {"PortRange", "192.0.2.7 50022 192.0.2.1 22-23", ""},
    {"TwoFamilies", "192.0.2.7 50022 2001:db8::1 22", ""},
    {"OfASocket", "UNKNOWN 65535 UNKNOWN 65535", ""},
};

std::string told(const std::optional<SshConnection>& connection) {
    return connection ? spelled(connection->client) + " " + spelled(connection->server) + " " +
                            std::to_string(connection->serverPort) + " " + connection->zone
                      : "";
}

class ValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(ValueTest, IsReadLikeThis) {
    EXPECT_EQ(told(tarnfw::sshConnectionFrom(GetParam().value)), GetParam().read);
}

INSTANTIATE_TEST_SUITE_P(, ValueTest, ValuesIn(kValues), caseName<ValueCase>);

// ---- The processes above ----

class ProcessesTest : public ::testing::Test {
protected:
    ProcessesTest() { fs::remove_all(kDirectory); }

    static void process(int number, int parent, const std::string& environment) {
        const fs::path directory = fs::path(kDirectory) / std::to_string(number);
        fs::create_directories(directory);
        std::ofstream(directory / "status")
            << "Name:\tPPid: 3\nState:\tS\nPid:\t" << number << "\nPPid:\t" << parent << "\n";
        std::ofstream(directory / "environ", std::ios::binary) << environment;
    }

    static std::string found(int from) {
        return told(tarnfw::sshConnectionAbove(from, kDirectory));
    }

    static constexpr char kDirectory[] = "/tmp/processes";
};

const std::string kZero(1, '\0');
const std::string kVariable = "SSH_CONNECTION=192.0.2.7 50022 192.0.2.1 22" + kZero;
const char* const kRead = "192.0.2.7 192.0.2.1 22 ";

TEST_F(ProcessesTest, TheProcessItselfComesFirst) {
    process(30, 20, "A=b" + kZero + kVariable + "C=d" + kZero);
    process(20, 1, "SSH_CONNECTION=192.0.2.9 50022 192.0.2.1 22" + kZero);
    EXPECT_EQ(found(30), kRead);
}

TEST_F(ProcessesTest, OneThatStartedItCountsAsWell) {
    process(30, 25, "A=b" + kZero);
    process(25, 40, "");  // a number above the child's: they start anew when they run out
    process(40, 1, kVariable);
    EXPECT_EQ(found(30), kRead);
}

TEST_F(ProcessesTest, OneOfAnotherBranchDoesNot) {
    process(30, 1, "");
    process(25, 1, kVariable);
    process(1, 0, "");
    EXPECT_EQ(found(30), "");
}

TEST_F(ProcessesTest, WhatCannotBeReadIsPassedOver) {
    process(30, 20, "SSH_CONNECTION=nonsense" + kZero);
    process(20, 1, "XSSH_CONNECTION=192.0.2.9 1 192.0.2.1 22" + kZero + kVariable);
    EXPECT_EQ(found(30), kRead);
}

TEST_F(ProcessesTest, AProcessThatHasGoneEndsTheSearch) {
    process(30, 20, "");
    EXPECT_EQ(found(30), "");
    EXPECT_EQ(found(0), "");
}

TEST_F(ProcessesTest, ACircleEnds) {
    process(30, 20, "");
    process(20, 30, "");
    EXPECT_EQ(found(30), "");
}

// ---- The interface ----

tarnfw::Address address(const std::string& text) {
    return tarnfw::addressFrom(text).value();
}

Interface interface(const std::string& name, const std::vector<std::string>& addresses) {
    Interface made;
    made.name = name;
    for (const std::string& text : addresses) {
        made.addresses.push_back(address(text));
    }
    return made;
}

SshConnection connection(const std::string& client, const std::string& server,
                         const std::string& zone = "") {
    return {address(client), address(server), 22, zone};
}

const std::vector<Interface> kInterfaces = {interface("eth0", {"192.0.2.1", "fe80::1"}),
                                            interface("eth1", {"198.51.100.1", "fe80::1"}),
                                            interface("lo", {"127.0.0.1", "::1"})};

struct EntranceCase {
    const char* name;
    SshConnection connection;
    std::vector<std::string> routes;
    std::vector<std::string> found;
};

void PrintTo(const EntranceCase& c, std::ostream* out) {
    *out << told(c.connection);
}

const EntranceCase kEntranceCases[] = {
    {"WithTheServersAddress", connection("203.0.113.7", "198.51.100.1"), {"eth1"}, {"eth1"}},
    {"AndThatOfAnotherRouteBack",
     connection("203.0.113.7", "198.51.100.1"),
     {"eth0"},
     {"eth1", "eth0"}},
    {"AndThoseOfPolicyRouting",
     connection("203.0.113.7", "198.51.100.1"),
     {"eth1", "ppp0"},
     {"eth1", "ppp0"}},
    {"WithoutARouteBack", connection("203.0.113.7", "198.51.100.1"), {}, {"eth1"}},
    {"OfTheZone", connection("fe80::7", "fe80::1", "eth0"), {"eth1"}, {"eth0"}},
    {"OfTheOtherZone", connection("fe80::7", "fe80::1", "eth1"), {}, {"eth1"}},
    {"OfTheZoneWhateverTheAddress", connection("fe80::7", "fe80::9", "eth1"), {}, {"eth1"}},
    {"OfNoZoneThatThereIs", connection("fe80::7", "fe80::1", "eth2"), {"eth0"}, {}},
    {"OfAnotherMachine", connection("203.0.113.7", "203.0.113.1"), {"eth0"}, {}},
    {"LoopbackAddress", connection("127.0.0.1", "127.0.0.1"), {"lo"}, {"lo"}},
    {"FromItselfToAnyOfItsAddresses", connection("198.51.100.1", "192.0.2.1"), {"lo"}, {"lo"}},
};

class EntrancesTest : public ::testing::TestWithParam<EntranceCase> {};

TEST_P(EntrancesTest, AreThese) {
    EXPECT_EQ(tarnfw::entrancesOf(GetParam().connection, kInterfaces, GetParam().routes),
              GetParam().found);
}

INSTANTIATE_TEST_SUITE_P(, EntrancesTest, ValuesIn(kEntranceCases), caseName<EntranceCase>);

// ---- The words ----

FWPROFILE denyingProfile() {
    FWPROFILE profile;
    profile.name = "home";
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    return profile;
}

const SshConnection kConnection = connection("203.0.113.7", "192.0.2.1");

std::string dropWarning(const FWPROFILE& profile, const std::string& interface) {
    return tarnfw::sshDropWarning(tarnfw::Meaning(profile), kConnection, interface);
}

TEST(SshRefusalTest, NamesTheDefaultPolicy) {
    EXPECT_EQ(dropWarning(denyingProfile(), "eth0"),
              "you are connected over SSH from 203.0.113.7 to port 22 on eth0, and profile "
              "\"home\" denies that (the default policy of eth0: deny); this connection stays, but "
              "you could not connect again");
}

TEST(SshRefusalTest, NamesTheRule) {
    FWPROFILE profile = denyingProfile();
    FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.portGroup = 1;
    rule.portList = {"22"};
    rule.ipGroup = 5;
    rule.name = "no\x1bshell";
    profile.rules["global"] = {rule};
    EXPECT_EQ(dropWarning(profile, "eth0"),
              "you are connected over SSH from 203.0.113.7 to port 22 on eth0, and profile "
              "\"home\" denies that (rule 1 of global: deny tcp 22 from anywhere (IPv4)  "
              "\"no?shell\"); this connection stays, but you could not connect again");
}

TEST(SshRefusalTest, IsEmptyWhereTheConnectionIsLetIn) {
    FWPROFILE profile = denyingProfile();
    FWRULE rule;
    rule.portGroup = 1;
    rule.portList = {"22"};
    rule.ipList = {"203.0.113.7"};
    profile.rules["eth0"] = {rule};
    EXPECT_EQ(dropWarning(profile, "eth0"), "");
    EXPECT_EQ(dropWarning(denyingProfile(), "eth1"), "");
    EXPECT_EQ(dropWarning(denyingProfile(), "lo"), "");

    // The server's own address counts, and any of the interface's names.
    rule.ipDirect = 0;
    rule.ipList = {"192.0.2.1"};
    rule.policy = FW::FW_POLICY_DENY;
    profile.rules["eth0"] = {rule};
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_ALLOW;
    EXPECT_NE(dropWarning(profile, "eth0"), "");
    profile.adapterPolicyMap["vpn"] = FW::FW_POLICY_DENY;
    EXPECT_NE(dropWarning(profile, "tun0"), "");
}

// The next connection has another port of its own, so a rule for this one's does not help.
TEST(SshRefusalTest, CountsOnAnyPortOfAClient) {
    FWPROFILE profile = denyingProfile();
    FWRULE rule;
    rule.portGroup = 1;
    rule.portDirect = 1;
    rule.portList = {"50022"};
    rule.ipGroup = 5;
    profile.rules["eth0"] = {rule};
    EXPECT_EQ(dropWarning(profile, "eth0"),
              "you are connected over SSH from 203.0.113.7 to port 22 on eth0, and profile "
              "\"home\" denies that from some ports (the default policy of eth0: deny); this "
              "connection stays, but you may be unable to connect again");
    profile.rules["eth0"].front().portList = {"1024-65535"};
    EXPECT_EQ(dropWarning(profile, "eth0"), "");
    profile.rules["eth0"].front().portList = {"53"};
    EXPECT_THAT(dropWarning(profile, "eth0"), ::testing::HasSubstr("denies that ("));
}

// A mask with too many gaps makes no list of addresses, but the client has one address.
TEST(SshRefusalTest, ComparesTheClientWithAMaskOfAnyForm) {
    FWPROFILE profile = denyingProfile();
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_ALLOW;
    FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.portGroup = 1;
    rule.portList = {"22"};
    rule.ipGroup = 1;
    rule.ipList = {"0.0.0.7", "0.0.0.255"};
    profile.rules["eth0"] = {rule};
    EXPECT_THAT(
        dropWarning(profile, "eth0"),
        ::testing::HasSubstr("(rule 1 of eth0: deny tcp 22 from 0.0.0.7/0.0.0.255 (IPv4))"));
    profile.rules["eth0"].front().ipList = {"0.0.0.8", "0.0.0.255"};
    EXPECT_EQ(dropWarning(profile, "eth0"), "");

    // Only that mask is let in.
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    profile.rules["eth0"].front().policy = FW::FW_POLICY_ALLOW;
    EXPECT_NE(dropWarning(profile, "eth0"), "");
    profile.rules["eth0"].front().ipList = {"0.0.0.7", "0.0.0.255"};
    EXPECT_EQ(dropWarning(profile, "eth0"), "");
}

TEST(SshRefusalTest, SaysWhatIsNotKnown) {
    FWPROFILE profile = denyingProfile();
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_ALLOW;
    FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.ipGroup = 1;
    rule.ipList = {"0.0.0.07", "0.0.0.255"};  // an octal number
    rule.portGroup = 3;
    profile.rules["eth0"] = {rule};
    EXPECT_THAT(dropWarning(profile, "eth0"),
                ::testing::HasSubstr("it is not known whether profile \"home\" denies that (rule 1 "
                                     "of eth0 is not counted: "));
}

}  // namespace
