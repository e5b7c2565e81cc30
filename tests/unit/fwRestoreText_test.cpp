// Parsing the output of the restore tools, and the lines that restore and repair. fwBatch_test
// tests the text of a command document.

#include "fwRestoreText.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

namespace {

using FW::RestoreLine;
using FW::RestoreText;
using FW::ToolError;
using ::testing::ValuesIn;

// ---- Refusals, as version 1.8.9 writes them ----

struct RefusalCase {
    std::string name;
    std::string errors;
    std::size_t line;
    std::string words;
};

void PrintTo(const RefusalCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.errors);
}

const RefusalCase kRefusals[] = {
    {"ParsedByNft",
     "iptables-restore v1.8.9 (nf_tables): host/network `300.1.1.1' not found\n"
     "Error occurred at line: 4\n"
     "Try `iptables-restore -h' or 'iptables-restore --help' for more information.\n",
     4, "iptables-restore v1.8.9 (nf_tables): host/network `300.1.1.1' not found"},
    {"ParsedByLegacy",
     "ip6tables-restore v1.8.9 (legacy): Couldn't load target `NOSUCH':No such file or "
     "directory\n\n"
     "Error occurred at line: 17\n"
     "Try `ip6tables-restore -h' or 'ip6tables-restore --help' for more information.\n",
     17,
     "ip6tables-restore v1.8.9 (legacy): Couldn't load target `NOSUCH':No such file or directory"},
    {"WithoutTheTool",
     "Bad argument `bad'\nError occurred at line: 12\nTry `iptables-restore -h'\n", 12,
     "Bad argument `bad'"},
    {"CommittedByNft",
     "iptables-restore v1.8.9 (nf_tables): \n"
     "line 4: RULE_APPEND failed (Invalid argument): rule in chain INPUT_FIREWALL\n",
     4,
     "iptables-restore v1.8.9 (nf_tables): line 4: RULE_APPEND failed (Invalid argument): rule in "
     "chain INPUT_FIREWALL"},
    {"OfSeveralTheFirst",
     "iptables-restore v1.8.9 (nf_tables): \n"
     "line 4: RULE_APPEND failed (Too many links): rule in chain INPUT_FIREWALL\n"
     "line 5: RULE_APPEND failed (Too many links): rule in chain INPUT_FIREWALL\n",
     4,
     "iptables-restore v1.8.9 (nf_tables): line 4: RULE_APPEND failed (Too many links): rule in "
     "chain INPUT_FIREWALL"},
    {"CommittedByLegacy", "iptables-restore: line 6 failed\n", 6,
     "iptables-restore: line 6 failed"},
    {"NoSuchChain", "iptables-restore: line 3 failed: No chain/target/match by that name.\n", 3,
     "iptables-restore: line 3 failed: No chain/target/match by that name."},
    {"LineInTheWordsOfOthers",
     "iptables-restore v1.8.9 (legacy): host/network `line 3 failed' not found\n"
     "Error occurred at line: 9\n",
     9, "iptables-restore v1.8.9 (legacy): host/network `line 3 failed' not found"},
    {"CutShort", "iptables-restore: COMMIT expected at line 20\n", 0,
     "iptables-restore: COMMIT expected at line 20"},
    {"NoLine", "Fatal: can't open lock file /run/xtables.lock: Read-only file system\n", 0,
     "Fatal: can't open lock file /run/xtables.lock: Read-only file system"},
    {"Nothing", "", 0, ""},
    {"ControlCharacters", "bad \x1b[31m\x7f name\tx\n", 0, "bad ?[31m? name?x"},
    {"Endless", std::string(5000, 'x'), 0, std::string(400, 'x')},
};

class RefusalTest : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(RefusalTest, LineAndWords) {
    const ToolError error = FW::toolErrorFrom(GetParam().errors);
    EXPECT_EQ(error.line, GetParam().line);
    EXPECT_EQ(error.words, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Refusals, RefusalTest, ValuesIn(kRefusals),
                         [](const auto& one) { return one.param.name; });

// ---- From a line's number to its adapter ----

std::string described(const RestoreLine& line) {
    return line.table + "|" + line.adapter + "|" + line.command;
}

TEST(RestoreLineTest, NumbersAreThoseOfTheTextWithItsMark) {
    Json::Value family;
    family["eth0"].append("-A X -i eth0");
    family["eth0"].append("-t nat -A Y -o eth0");
    family["global"].append("-A X -i lo");
    RestoreText text(20000);
    RestoreLine invalid;
    ASSERT_TRUE(text.make(family, invalid));
    text.append("-P INPUT ACCEPT\n");

    const std::string expected[] = {
        "||",
        "filter|global|*filter",
        "filter|global|-F INPUT_FIREWALL",
        "filter|global|-F FORWARD_FIREWALL",
        "filter|global|-A X -i lo",
        "filter|eth0|-A X -i eth0",
        "filter||# examined",
        "filter||" + std::string(10237, '#'),
        "filter||" + std::string(10237, '#'),
        "filter||-P INPUT ACCEPT",
        "filter||COMMIT",
        "nat|eth0|*nat",
        "nat|eth0|-A Y -o eth0",
        "nat||COMMIT",
        "||",
    };
    for (std::size_t number = 0; number < std::size(expected); ++number) {
        EXPECT_EQ(described(text.lineAt(number)), expected[number]) << number;
    }
    EXPECT_EQ(text.mark(),
              "# examined\n" + std::string(10237, '#') + "\n" + std::string(10237, '#') + "\n");
    EXPECT_EQ(text.whole(),
              "*filter\n-F INPUT_FIREWALL\n-F FORWARD_FIREWALL\n-A X -i lo\n-A X -i eth0\n" +
                  text.mark() + "-P INPUT ACCEPT\nCOMMIT\n*nat\n-A Y -o eth0\nCOMMIT\n");
}

TEST(RestoreLineTest, NumberedTextTellsHowFarAToolCame) {
    Json::Value family;
    family["eth0"].append("-A X -i eth0");
    family["eth0"].append("-t nat -A Y -o eth0");
    RestoreText text(8192);
    RestoreLine invalid;
    ASSERT_TRUE(text.make(family, invalid));
    const std::string numbered = text.numbered();
    EXPECT_EQ(numbered,
              "# line 1\n*filter\n# line 2\n-F INPUT_FIREWALL\n# line 3\n-F FORWARD_FIREWALL\n"
              "# line 4\n-A X -i eth0\n# line 7\nCOMMIT\n"
              "# line 8\n*nat\n# line 9\n-A Y -o eth0\n# line 10\nCOMMIT\n");
    EXPECT_EQ(described(text.lineAt(9)), "nat|eth0|-A Y -o eth0");

    EXPECT_EQ(FW::numberReached(numbered), 10U);
    EXPECT_EQ(FW::numberReached("Usage\n# line 3\n# line 4\nUsage: # line 9\n"), 4U);
    EXPECT_EQ(FW::numberReached("Usage\n"), 0U);
}

TEST(ForLogTest, CutAndPrintable) {
    EXPECT_EQ(FW::forLog(""), "");
    EXPECT_EQ(FW::forLog("a\n\x1b\x7f\tb"), "a????b");
    EXPECT_EQ(FW::forLog(std::string(200, 'x')), std::string(200, 'x'));
    EXPECT_EQ(FW::forLog(std::string(201, 'x')), std::string(200, 'x') + "...");
}

// ---- Putting back ----

constexpr char kSaved[] =
    "# Generated by iptables-save v1.8.9 on Sat Nov 21 04:47:24 2026\n"
    "*nat\n"
    ":PREROUTING ACCEPT [1:2]\n"
    ":X - [0:0]\n"
    "[1:1] -A X -s 10.0.0.9/32 -j ACCEPT\n"
    "COMMIT\n"
    "*filter\n"
    ":INPUT DROP [12:720]\n"
    ":FORWARD ACCEPT [0:0]\n"
    ":OUTPUT ACCEPT [3:4]\n"
    ":X - [0:0]\n"
    ":XY - [0:0]\n"
    "[7:420] -A INPUT -j X\n"
    "[5:300] -A X -s 10.0.0.1/32 -m comment --comment \"a [1:2] -A X\" -j DROP\n"
    "[6:360] -A XY -j RETURN\n"
    "[0:0] -A X -j RETURN\n"
    "COMMIT\n"
    "# Completed on Sat Nov 21 04:47:24 2026\n";

FW::RestoreTable tableWith(const std::string& name, const std::string& chain) {
    FW::RestoreTable table;
    table.name = name;
    table.chains = {chain};
    return table;
}

TEST(PutBackTest, RulesOfTheChangedChainsWithTheirCounters) {
    EXPECT_EQ(FW::textToPutBack(tableWith("filter", "X"), kSaved, false),
              "*filter\n"
              "-F X\n"
              "[5:300] -A X -s 10.0.0.1/32 -m comment --comment \"a [1:2] -A X\" -j DROP\n"
              "[0:0] -A X -j RETURN\n"
              "COMMIT\n");
    EXPECT_EQ(FW::textToPutBack(tableWith("nat", "X"), kSaved, false),
              "*nat\n-F X\n[1:1] -A X -s 10.0.0.9/32 -j ACCEPT\nCOMMIT\n");
    EXPECT_EQ(FW::textToPutBack(tableWith("filter", "OUTPUT"), kSaved, false),
              "*filter\n-F OUTPUT\nCOMMIT\n");
}

TEST(PutBackTest, ChainThatWasNotThereIsLeftOut) {
    EXPECT_EQ(FW::textToPutBack(tableWith("filter", "NOWHERE"), kSaved, false),
              "*filter\nCOMMIT\n");
}

TEST(PutBackTest, PoliciesOfInputAndForwardOnRequest) {
    EXPECT_EQ(FW::textToPutBack(tableWith("filter", "XY"), kSaved, true),
              "*filter\n"
              "-P INPUT DROP\n"
              "-P FORWARD ACCEPT\n"
              "-F XY\n"
              "[6:360] -A XY -j RETURN\n"
              "COMMIT\n");
}

TEST(WholeSaveTest, TableFromItsNameToItsCommit) {
    const std::string saved = kSaved;
    EXPECT_TRUE(FW::isWholeSave(saved, "filter"));
    EXPECT_TRUE(FW::isWholeSave(saved, "nat"));
    EXPECT_TRUE(FW::isWholeSave("*raw\nCOMMIT\n", "raw"));
    EXPECT_FALSE(FW::isWholeSave("", "filter"));
    EXPECT_FALSE(FW::isWholeSave(saved, "raw"));
    EXPECT_FALSE(FW::isWholeSave(saved, "ilter"));
    // The COMMIT of another table does not count for this one.
    EXPECT_FALSE(FW::isWholeSave(saved.substr(0, saved.rfind("COMMIT")), "filter"));
}

// ---- Interrupted reloads ----

constexpr char kRule[] = "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";

TEST(InterruptedReloadTest, RulesAreCounted) {
    const std::string rule = kRule;
    EXPECT_EQ(FW::interruptedReloads(""), 0U);
    EXPECT_EQ(FW::interruptedReloads("-N FIREWALL_RELOADING\n" + rule), 1U);
    EXPECT_EQ(FW::interruptedReloads("-N FIREWALL_RELOADING\n" + rule + rule), 2U);
    EXPECT_EQ(FW::interruptedReloads("[1:2] " + rule + "[0:0] " + rule + "[0:0] " + rule), 3U);
}

TEST(InterruptedReloadTest, OtherRulesAreNotTheirs) {
    EXPECT_EQ(
        FW::interruptedReloads("-A FIREWALL_RELOADING -m state --state ESTABLISHED -j ACCEPT\n"
                               "-A FIREWALL_RELOADING -i lo -j ACCEPT\n"
                               "-A OTHER -m state --state RELATED,ESTABLISHED -j ACCEPT\n"),
        0U);
}

TEST(InterruptedReloadTest, MendingTakesOutEachRuleAndOpensThePolicies) {
    EXPECT_EQ(FW::linesToMend(0), "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n");
    EXPECT_EQ(FW::linesToMend(2),
              "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
              "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
              "-P INPUT ACCEPT\n"
              "-P FORWARD ACCEPT\n");
}

}  // namespace
