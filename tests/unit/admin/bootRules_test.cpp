// What protects the machine at boot, with stand-ins for iptables that keep what they are to load;
// tests/kernel/scripts/boot_without_its_profile_is_not_open.sh has it in a kernel.
#include "tarnfwadmin/bootRules.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel_testing.h"
#include "tarnfwadmin/documentFile.h"

namespace tarnfw {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// The program that cannot list, a text that is refused, and what was loaded last.
constexpr char kUnlisted[] = "/tmp/unlisted";
constexpr char kRefused[] = "/tmp/refused";
constexpr char kLoaded4[] = "/tmp/loaded.iptables-restore";
constexpr char kLoaded6[] = "/tmp/loaded.ip6tables-restore";

constexpr char kStandIn[] = R"sh(#!/bin/sh
name=${0##*/}
case $name in
*-restore)
    input=$(cat; echo .)
    if [ -s /tmp/refused ] && printf '%s' "$input" | grep -q -- "$(cat /tmp/refused)"; then
        echo 'not taken' >&2
        exit 2
    fi
    printf '%s' "${input%.}" >"/tmp/loaded.$name"
    ;;
*)
    if grep -q -x -- "$name" /tmp/unlisted; then
        echo 'broken' >&2
        exit 3
    fi
    cat /tmp/listing
    ;;
esac
)sh";

constexpr char kMinimum4[] =
    "*filter\n"
    ":FORWARD_FIREWALL - [0:0]\n"
    ":INPUT_FIREWALL - [0:0]\n"
    "-A FORWARD_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
    "-A FORWARD_FIREWALL -j DROP\n"
    "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
    "-A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
    "-A INPUT_FIREWALL -p udp -m udp --sport 67 --dport 68 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s 10.0.0.0/8 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s 172.16.0.0/12 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s 192.168.0.0/16 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s 169.254.0.0/16 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -j DROP\n"
    "COMMIT\n";
constexpr char kMinimum6[] =
    "*filter\n"
    ":FORWARD_FIREWALL - [0:0]\n"
    ":INPUT_FIREWALL - [0:0]\n"
    "-A FORWARD_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
    "-A FORWARD_FIREWALL -j DROP\n"
    "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
    "-A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
    "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 133 -j ACCEPT\n"
    "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 134 -j ACCEPT\n"
    "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 135 -j ACCEPT\n"
    "-A INPUT_FIREWALL -p ipv6-icmp -m icmp6 --icmpv6-type 136 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s fe80::/10 -p udp -m udp --sport 547 --dport 546 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s fc00::/7 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -s fe80::/10 -p tcp -m tcp --dport 22 -j ACCEPT\n"
    "-A INPUT_FIREWALL -j DROP\n"
    "COMMIT\n";

constexpr char kClosed[] =
    "closed, except for established connections, loopback, neighbour discovery, DHCP, and SSH from "
    "private and link-local networks";

/// One rule that denies a port of its own in each family.
SavedRules lastGood() {
    FamilyRules v4;
    v4.chains["INPUT_FIREWALL"] = {"-A INPUT_FIREWALL -p tcp -m tcp --dport 4444 -j DROP"};
    FamilyRules v6;
    v6.chains["INPUT_FIREWALL"] = {"-A INPUT_FIREWALL -p tcp -m tcp --dport 6666 -j DROP"};
    return SavedRules({{"v4", v4}, {"v6", v6}});
}

class BootRulesTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        playPrograms(kStandIn, {"iptables", "ip6tables", "iptables-restore", "ip6tables-restore"});
        writeFile(kUnlisted, "");
        for (const char* const file : {kRefused, kLoaded4, kLoaded6, kLastGoodFile}) {
            std::remove(file);
        }
        forgetBootFailure();
    }
};

// ---- What is loaded -----------------------------------------------------------------------------

TEST_F(BootRulesTest, LastGoodRulesComeFirst) {
    storeLastGood(lastGood());
    EXPECT_EQ(protectMachine().inForce, "IPv4 and IPv6: the rules of the last successful reload");
    EXPECT_EQ(contentOf(kLoaded4), lastGood().restoreText("v4"));
    EXPECT_EQ(contentOf(kLoaded6), lastGood().restoreText("v6"));
}

TEST_F(BootRulesTest, WithoutThemTheMachineIsClosedButForTheMinimum) {
    EXPECT_EQ(protectMachine().inForce, std::string("IPv4 and IPv6: ") + kClosed);
    EXPECT_EQ(contentOf(kLoaded4), kMinimum4);
    EXPECT_EQ(contentOf(kLoaded6), kMinimum6);
}

TEST_F(BootRulesTest, TruncatedLastGoodRulesAreNotTrusted) {
    storeLastGood(lastGood());
    const std::string whole = contentOf(kLastGoodFile);
    const std::size_t end = whole.find_last_of('}');
    for (std::size_t length = 0; length <= end; ++length) {
        writeFile(kLastGoodFile, whole.substr(0, length));
        EXPECT_THROW((void)lastGoodRules(), Error) << whole.substr(0, length);
    }
    EXPECT_EQ(protectMachine().inForce, std::string("IPv4 and IPv6: ") + kClosed);
    EXPECT_EQ(contentOf(kLoaded4), kMinimum4);
    EXPECT_EQ(contentOf(kLoaded6), kMinimum6);
}

TEST_F(BootRulesTest, FamilyThatRefusesItsRulesIsClosed) {
    storeLastGood(lastGood());
    writeFile(kRefused, "dport 4444");
    EXPECT_EQ(protectMachine().inForce,
              std::string("IPv4: ") + kClosed + "; IPv6: the rules of the last successful reload");
    EXPECT_EQ(contentOf(kLoaded4), kMinimum4);
    EXPECT_EQ(contentOf(kLoaded6), lastGood().restoreText("v6"));
}

TEST_F(BootRulesTest, RulesThatAreThereStay) {
    storeLastGood(lastGood());
    kernelHas(std::string(kChains) + kJumps + "-A INPUT_FIREWALL -j DROP\n");
    EXPECT_EQ(protectMachine().inForce, "IPv4 and IPv6: the previous rules");
    EXPECT_NE(access(kLoaded4, F_OK), 0);
    EXPECT_NE(access(kLoaded6, F_OK), 0);
}

TEST_F(BootRulesTest, RulesThatPacketsDoNotMeetAreNamed) {
    kernelHas(kChains);
    EXPECT_THAT(protectMachine().inForce, StartsWith("IPv4 and IPv6: no rules that packets meet"));
    EXPECT_EQ(contentOf(kLoaded4), kMinimum4);
}

TEST_F(BootRulesTest, FamilyThatTakesNothingIsNamedAndTheOtherProtected) {
    writeFile(kRefused, "--dport 68");
    const Protection protection = protectMachine();
    EXPECT_EQ(protection.failure, "IPv4 is open: the rules could not be put back: IPv4: not taken");
    EXPECT_EQ(protection.inForce, std::string("IPv4: nothing, so it is open; IPv6: ") + kClosed);
    EXPECT_EQ(contentOf(kLoaded6), kMinimum6);
}

TEST_F(BootRulesTest, FamilyThatCannotBeListedIsNamedAndTheOtherProtected) {
    storeLastGood(lastGood());
    for (const bool first : {true, false}) {
        std::remove(kLoaded4);
        std::remove(kLoaded6);
        const std::string failing = first ? "iptables" : "ip6tables";
        writeFile(kUnlisted, failing + "\n");
        const Protection protection = protectMachine();
        EXPECT_EQ(protection.failure, "/sbin/" + failing + " cannot list the filter table: broken");
        const std::string unknown = "unknown, because its rules cannot be listed";
        const std::string good = "the rules of the last successful reload";
        EXPECT_EQ(protection.inForce,
                  "IPv4: " + (first ? unknown : good) + "; IPv6: " + (first ? good : unknown));
        EXPECT_NE(access(first ? kLoaded4 : kLoaded6, F_OK), 0);
        EXPECT_EQ(contentOf(first ? kLoaded6 : kLoaded4),
                  lastGood().restoreText(first ? "v6" : "v4"));
    }
}

TEST_F(BootRulesTest, SecondAttemptStillSaysWhatTheFirstHasLoaded) {
    storeLastGood(lastGood());
    writeFile(kRefused, "dport 6666\\|icmpv6-type");
    const Protection first = protectMachine();
    EXPECT_EQ(first.inForce,
              "IPv4: the rules of the last successful reload; IPv6: nothing, so it is open");
    kernelHas(std::string(kChains) + kJumps + "-A INPUT_FIREWALL -j DROP\n");
    EXPECT_THAT(protectMachine(first).inForce,
                StartsWith("IPv4: the rules of the last successful reload; "));
}

TEST_F(BootRulesTest, MinimumHasEveryPortOfSsh) {
    const std::string text = minimumRules({"v6"}, {"22", "2200-2210"}).restoreText("v6");
    for (const char* const network : {"fc00::/7", "fe80::/10"}) {
        for (const char* const port : {"22", "2200:2210"}) {
            EXPECT_THAT(text, HasSubstr(std::string("-A INPUT_FIREWALL -s ") + network +
                                        " -p tcp -m tcp --dport " + port + " -j ACCEPT\n"));
        }
    }
}

// ---- When ---------------------------------------------------------------------------------------

TEST_F(BootRulesTest, SettingsSayWhetherToProtect) {
    writeSettings(true);
    EXPECT_TRUE(mustProtect());
    writeSettings(false);
    EXPECT_FALSE(mustProtect());
    storeLastGood(lastGood());
    EXPECT_FALSE(mustProtect()) << "disabled";
}

TEST_F(BootRulesTest, SettingsThatSayNothingCountAsEnabledWithLastGoodRules) {
    writeFile(kSettingsFile, R"({"profile": "home"})");
    EXPECT_FALSE(mustProtect());
    std::remove(kSettingsFile);
    EXPECT_FALSE(mustProtect()) << "a fresh machine";
    storeLastGood(lastGood());
    EXPECT_TRUE(mustProtect());
    writeFile(kSettingsFile, R"({"profile": "home"})");
    EXPECT_TRUE(mustProtect());
}

TEST_F(BootRulesTest, LastGoodRulesThatCannotBeReadCountAsThere) {
    std::remove(kSettingsFile);
    ASSERT_EQ(symlink(kLastGoodFile, kLastGoodFile), 0);
    EXPECT_TRUE(mustProtect());
}

TEST_F(BootRulesTest, SettingsThatCannotBeReadCountAsEnabled) {
    for (const char* const text : {"", "{ \"status\" : tr", "[]", R"({"status": "yes"})"}) {
        writeFile(kSettingsFile, text);
        EXPECT_TRUE(mustProtect()) << text;
    }
    std::remove(kSettingsFile);
    ASSERT_EQ(symlink("/nowhere", kSettingsFile), 0);
    EXPECT_TRUE(mustProtect());
}

TEST_F(BootRulesTest, ForgottenLastGoodRulesAreGone) {
    storeLastGood(lastGood());
    EXPECT_EQ(*lastGoodRules(), lastGood());
    forgetLastGood();
    EXPECT_FALSE(lastGoodRules());
    EXPECT_NE(access(kLastGoodFile, F_OK), 0);
    forgetLastGood();  // none is no error
    EXPECT_EQ(protectMachine().inForce, std::string("IPv4 and IPv6: ") + kClosed);
}

// ---- The failure --------------------------------------------------------------------------------

TEST_F(BootRulesTest, FailureIsKnownAsLongAsTheKernelHasItsRules) {
    kernelHas(std::string(kChains) + kJumps + "-A INPUT_FIREWALL -j RETURN\n");
    storeBootFailure({"the profile is damaged", "IPv4: some rules"});
    const std::optional<BootFailure> failure = bootFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(textOf(*failure),
              "the active profile was not applied at boot: the profile is damaged. In force: IPv4: "
              "some rules");
    EXPECT_EQ(protectMachine().inForce, "IPv4: some rules");
    EXPECT_NE(access(kLoaded4, F_OK), 0);
    kernelHas(std::string(kChains) + kJumps + "-A INPUT_FIREWALL -j DROP\n");
    EXPECT_FALSE(bootFailure());
}

TEST_F(BootRulesTest, KnownFailureDoesNotKeepAnOpenMachineOpen) {
    storeBootFailure({"iptables is broken", "IPv4: nothing, so it is open"});
    ASSERT_TRUE(bootFailure());
    EXPECT_EQ(protectMachine().inForce, std::string("IPv4 and IPv6: ") + kClosed);
    EXPECT_EQ(contentOf(kLoaded4), kMinimum4);
}

TEST_F(BootRulesTest, FailureIsKnownWhileOneFamilyCannotBeListed) {
    kernelHas(std::string(kChains) + kJumps + "-A INPUT_FIREWALL -j RETURN\n");
    writeFile(kUnlisted, "ip6tables\n");
    storeBootFailure({"ip6tables is broken", "IPv4: some rules; IPv6: unknown"});
    EXPECT_TRUE(bootFailure());
    EXPECT_EQ(protectMachine().inForce, "IPv4: some rules; IPv6: unknown");
}

TEST_F(BootRulesTest, ForgottenFailureIsGone) {
    storeBootFailure({"a reason", "some rules"});
    forgetBootFailure();
    EXPECT_FALSE(bootFailure());
}

}  // namespace
}  // namespace tarnfw
