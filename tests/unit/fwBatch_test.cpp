// Apply mode "batch": the input of iptables-restore, the order of the runs, and what is restored
// when a tool fails.

#include <algorithm>
#include <csignal>
#include <map>

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <json/json.h>

#include "fake_restore.h"
#include "library_test.h"
#include "tarnfirewall/fwBatch.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

const std::string kFlushLines = "*filter\n-F INPUT_FIREWALL\n-F FORWARD_FIREWALL\n";

std::string filterText(const std::string& lines) {
    return kFlushLines + lines + "COMMIT\n";
}

// A document whose IPv4 lines are those of one adapter.
Json::Value documentOf(const std::string& line) {
    Json::Value cmds;
    cmds["v4"]["eth0"].append(line);
    return cmds;
}

class RestoreTextTest : public LibraryTest {
protected:
    std::string restoreText(const Json::Value& cmds, const std::string& family = "v4") {
        return FW::FW_BATCH().restoreText(cmds, family);
    }
};

TEST_F(RestoreTextTest, EmptyDocumentFlushesBothChains) {
    EXPECT_EQ(restoreText(Json::Value()), filterText(""));
    EXPECT_EQ(restoreText(Json::Value(), "v6"), filterText(""));
    EXPECT_EQ(restoreText(parseJson(R"({"v4": null, "v6": {}})"), "v6"), filterText(""));
    EXPECT_THAT(errors(), IsEmpty());
}

// A text without a family would flush the chains of the family that it is given to.
TEST_F(RestoreTextTest, OtherFamiliesHaveNoText) {
    for (const std::string family : {"", "V4", "v5\n"}) {
        EXPECT_EQ(restoreText(documentOf("-A X -j DROP"), family), "");
    }
    EXPECT_THAT(errors(), ElementsAre("fwBatch: There is no family \"\"",
                                      "fwBatch: There is no family \"V4\"",
                                      "fwBatch: There is no family \"v5?\""));
}

TEST_F(RestoreTextTest, FamiliesAreApart) {
    const Json::Value cmds = parseJson(R"({"v4": {"eth0": ["-A INPUT_FIREWALL -s 10.0.0.1"]},
                                           "v6": {"eth0": ["-A INPUT_FIREWALL -s fd00::1"]}})");
    EXPECT_EQ(restoreText(cmds, "v4"), filterText("-A INPUT_FIREWALL -s 10.0.0.1\n"));
    EXPECT_EQ(restoreText(cmds, "v6"), filterText("-A INPUT_FIREWALL -s fd00::1\n"));
}

TEST_F(RestoreTextTest, GlobalGoesFirstAndAdaptersByByteOrder) {
    const Json::Value cmds = parseJson(R"({"v4": {"eth1": ["-A X -i eth1", "-A X -i eth1 -j LOG"],
                                                  "Eth9": ["-A X -i Eth9"],
                                                  "global": ["-A X -i lo", "-A X -j ACCEPT"],
                                                  "zeta": ["-A X -i zeta"]}})");
    EXPECT_EQ(restoreText(cmds), filterText("-A X -i lo\n"
                                            "-A X -j ACCEPT\n"
                                            "-A X -i Eth9\n"
                                            "-A X -i eth1\n"
                                            "-A X -i eth1 -j LOG\n"
                                            "-A X -i zeta\n"));
}

TEST_F(RestoreTextTest, TablesAreGroupedFilterFirstThenAsTheyAppear) {
    const Json::Value cmds = parseJson(R"({"v4": {"global": ["-t nat -A POSTROUTING -o eth0",
                                                             "-A X -i lo",
                                                             "-t mangle -A PREROUTING -i eth0",
                                                             "-t filter -A X -j DROP",
                                                             "-t nat -A POSTROUTING -o eth1"]}})");
    EXPECT_EQ(restoreText(cmds), filterText("-A X -i lo\n-A X -j DROP\n") +
                                     "*nat\n"
                                     "-A POSTROUTING -o eth0\n"
                                     "-A POSTROUTING -o eth1\n"
                                     "COMMIT\n"
                                     "*mangle\n"
                                     "-A PREROUTING -i eth0\n"
                                     "COMMIT\n");
}

// ---- Words ----

struct WordCase {
    std::string name;
    std::string line;
    std::string text;
};

void PrintTo(const WordCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.line);
}

const WordCase kWordCases[] = {
    {"Plain", "-A X -s 10.0.0.1 -j DROP", "-A X -s 10.0.0.1 -j DROP"},
    {"RunsOfBlanks", "  -t  filter   -A X   -j DROP ", "-A X -j DROP"},
    {"TabBelongsToItsWord", "-A X\t-j DROP", "-A \"X\t-j\" DROP"},
    {"DoubleQuote", R"(-A X --comment a"b)", R"(-A X --comment "a\"b")"},
    {"BackslashAloneIsPlain", R"(-A X --comment a\b)", R"(-A X --comment a\b)"},
    {"BackslashAmongQuotes", R"(-A X --comment "\")", R"(-A X --comment "\"\\\"")"},
    {"SingleQuotesArePlain", "-A X --comment 'a'", "-A X --comment 'a'"},
    {"NumberSignIsPlain", "-A X --comment #1", "-A X --comment #1"},
    {"ZeroByteEndsTheWord", std::string("-A X -i eth0\0junk -j DROP", 26), "-A X -i eth0 -j DROP"},
    {"ZeroByteAloneIsAnEmptyWord", std::string("-A X --comment \0 -j DROP", 24),
     R"(-A X --comment "" -j DROP)"},
    {"LaterTableOptionStays", "-A X -m comment --comment -t -j DROP",
     "-A X -m comment --comment -t -j DROP"},
};

class RestoreWordsTest : public RestoreTextTest, public ::testing::WithParamInterface<WordCase> {};

TEST_P(RestoreWordsTest, AsTheSyntaxNeedsThem) {
    EXPECT_EQ(restoreText(documentOf(GetParam().line)), filterText(GetParam().text + "\n"));
    EXPECT_THAT(errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Words, RestoreWordsTest, ValuesIn(kWordCases),
                         [](const auto& one) { return one.param.name; });

// ---- Lines that cannot be written ----

struct FaultCase {
    std::string name;
    std::string line;
    std::string logged;
};

void PrintTo(const FaultCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.line);
}

const FaultCase kFaultCases[] = {
    {"Empty", "", ""},
    {"TableAlone", "-t filter", "-t filter"},
    {"NoChain", "-A", "-A"},
    {"NoAppending", "--policy INPUT DROP", "--policy INPUT DROP"},
    {"Flush", "-F INPUT_FIREWALL", "-F INPUT_FIREWALL"},
    {"EmptyTable", "-t  -A X -j DROP", "-t  -A X -j DROP"},
    {"TabInTable", "-t fil\tter -A X", "-t fil?ter -A X"},
    {"LineFeedInWord", "-A X -s 10.0.0.1\nCOMMIT\n*nat", "-A X -s 10.0.0.1?COMMIT?*nat"},
    {"LineFeedInTable", "-t filter\nCOMMIT -A X", "-t filter?COMMIT -A X"},
    {"TooLong", "-A X -m comment --comment " + std::string(10238, 'c'),
     "-A X -m comment --comment " + std::string(174, 'c') + "..."},
};

class RestoreFaultTest : public RestoreTextTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(RestoreFaultTest, NoTextAndOneLineThatNamesIt) {
    Json::Value cmds = documentOf("-A INPUT_FIREWALL -j DROP");
    cmds["v4"]["eth0"].append(GetParam().line);
    EXPECT_EQ(restoreText(cmds), "");
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Adapter eth0: no line for iptables-restore: \"" +
                                      GetParam().logged + "\""));
    EXPECT_EQ(restoreText(cmds, "v6"), filterText(""));  // the other family is valid
}

INSTANTIATE_TEST_SUITE_P(Faults, RestoreFaultTest, ValuesIn(kFaultCases),
                         [](const auto& one) { return one.param.name; });

TEST_F(RestoreTextTest, LongestLine) {
    const std::string start = "-A X -m comment --comment ";
    const std::string line = start + std::string(10238 - start.size(), 'c');
    EXPECT_EQ(restoreText(documentOf(line)), filterText(line + "\n"));
}

// ---- apply ----

constexpr char kReloadingRule[] =
    "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n";

const std::string kSaved =
    "*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n"
    ":FORWARD_FIREWALL - [0:0]\n:INPUT_FIREWALL - [0:0]\n"
    "[3:180] -A INPUT -j INPUT_FIREWALL\n"
    "[2:120] -A INPUT_FIREWALL -i old -j DROP\nCOMMIT\n";

const std::string kPutBack =
    "*filter\n-F FORWARD_FIREWALL\n-F INPUT_FIREWALL\n"
    "[2:120] -A INPUT_FIREWALL -i old -j DROP\nCOMMIT\n";

// A save of the table with that many rules of interrupted reloads.
std::string savedWith(int reloads, const std::string& policies = ":INPUT DROP [0:0]\n") {
    std::string saved = "*filter\n" + policies +
                        ":FIREWALL_RELOADING - [0:0]\n:FORWARD_FIREWALL - [0:0]\n"
                        ":INPUT_FIREWALL - [0:0]\n";
    for (int i = 0; i < reloads; ++i) {
        saved += "[4:5] ";
        saved += kReloadingRule;
    }
    return saved + "COMMIT\n";
}

class ApplyTest : public LibraryTest {
protected:
    ApplyTest() {
        for (const std::string family : {"v4", "v6"}) {
            cmds_[family]["global"].append("-A INPUT_FIREWALL -i lo -j ACCEPT");
            cmds_[family]["eth0"].append("-t filter -A INPUT_FIREWALL -i eth0 -j DROP");
            tools_.setSaved(family, kSaved);
        }
    }

    void addSecondTable(const std::string& family) {
        cmds_[family]["eth0"].append("-t mangle -A INPUT -i eth0 -j ACCEPT");
        tools_.setSaved(family,
                        kSaved + "*mangle\n:INPUT ACCEPT [0:0]\n[1:1] -A INPUT -i old\nCOMMIT\n");
    }

    bool apply() { return FW::FW_BATCH().apply(cmds_); }

    std::string text(const std::string& repaired = "") const {
        return filterText("-A INPUT_FIREWALL -i lo -j ACCEPT\n-A INPUT_FIREWALL -i eth0 -j DROP\n" +
                          repaired);
    }

    FakeRestore tools_;
    Json::Value cmds_;
};

// A run of the fake iptables-restore.
FakeRestore::Run run(const std::string& name, const std::string& text, bool whole = true) {
    FakeRestore::Run made;
    made.name = name;
    made.text = text;
    made.whole = whole;
    return made;
}

TEST_F(ApplyTest, BothFamiliesIpv4First) {
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.runs(), ElementsAre(run("v4 commit", text()), run("v6 commit", text())));
    EXPECT_THAT(tools_.started(), ElementsAre("ip6tables-restore --noflush --wait 30 --verbose",
                                              "ip6tables-save --counters --table filter",
                                              "iptables-restore --noflush --wait 30 --verbose",
                                              "iptables-save --counters --table filter"));
    EXPECT_THAT(platform_.log(), IsEmpty());
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

TEST_F(ApplyTest, Ipv4RefusedAfterIpv6PutsBackBothFamilies) {
    tools_.setSaved("v4", savedWith(1, ""));  // so that IPv4 goes last
    tools_.refuse("v4 commit", "COMMIT", "four\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v6 commit", "v4 put back", "v6 put back"));
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/iptables-restore: four"));
}

TEST_F(ApplyTest, EmptyDocumentFlushesBothFamilies) {
    cmds_ = Json::Value();
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.runs(),
                ElementsAre(run("v4 commit", filterText("")), run("v6 commit", filterText(""))));
}

TEST_F(ApplyTest, LineThatCannotBeWrittenStartsNothing) {
    cmds_["v6"]["eth1"].append("-F INPUT_FIREWALL");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.started(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Adapter eth1: no line for iptables-restore: "
                                      "\"-F INPUT_FIREWALL\""));
}

// Where a tool fails, and its message.
struct RefusedCase {
    std::string name;
    std::string run;
    std::string line;
    std::string errors;
    std::string logged;
    std::vector<std::string> committed;
};

void PrintTo(const RefusedCase& c, std::ostream* out) {
    *out << c.name;
}

const RefusedCase kRefusedCases[] = {
    {"ReadingIpv4",
     "v4 commit",
     "-A INPUT_FIREWALL -i eth0 -j DROP",
     "Bad argument `x'\nError occurred at line: 5\nTry `iptables-restore -h'\n",
     "/sbin/iptables-restore refused \"-t filter -A INPUT_FIREWALL -i eth0 -j DROP\" of adapter "
     "eth0: Bad argument `x'",
     {}},
    {"ReadingIpv6",
     "v6 commit",
     "-A INPUT_FIREWALL -i lo -j ACCEPT",
     "Bad argument `x'\nError occurred at line: 4\n",
     "/sbin/ip6tables-restore refused \"-t filter -A INPUT_FIREWALL -i lo -j ACCEPT\" of adapter "
     "global: Bad argument `x'",
     {}},
    {"NoChains",
     "v4 commit",
     "-F INPUT_FIREWALL",
     "iptables-restore: line 2 failed: No chain/target/match by that name.\n",
     "/sbin/iptables-restore refused \"-t filter -F INPUT_FIREWALL\" of adapter global: "
     "iptables-restore: line 2 failed: No chain/target/match by that name.",
     {}},
    {"CommittingIpv4",
     "v4 commit",
     "COMMIT",
     "iptables-restore v1 (nf_tables): \nline 5: RULE_APPEND failed (Invalid argument): rule\n",
     "/sbin/iptables-restore refused \"-t filter -A INPUT_FIREWALL -i eth0 -j DROP\" of adapter "
     "eth0: iptables-restore v1 (nf_tables): line 5: RULE_APPEND failed (Invalid argument): rule",
     {"v4 put back"}},
    {"CommittingIpv6WithoutALine",
     "v6 commit",
     "COMMIT",
     "ip6tables-restore: line 8 failed\n",
     "/sbin/ip6tables-restore refused \"-t filter COMMIT\" of all adapters: ip6tables-restore: "
     "line 8 failed",
     {"v4 commit", "v6 put back", "v4 put back"}},
    {"WithoutWords",
     "v6 commit",
     "COMMIT",
     "",
     "Failed to run /sbin/ip6tables-restore: status 1",
     {"v4 commit", "v6 put back", "v4 put back"}},
};

class ApplyRefusedTest : public ApplyTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(ApplyRefusedTest, EndsWithWhatWasThereAndOneLine) {
    tools_.refuse(GetParam().run, GetParam().line, GetParam().errors);
    EXPECT_FALSE(apply());
    EXPECT_EQ(tools_.committed(), GetParam().committed);
    EXPECT_THAT(errors(), ElementsAre("fwBatch: " + GetParam().logged));
}

INSTANTIATE_TEST_SUITE_P(Refused, ApplyRefusedTest, ValuesIn(kRefusedCases),
                         [](const auto& one) { return one.param.name; });

TEST_F(ApplyTest, PuttingBackIsAboutTheChangedChainsWithTheirCounters) {
    tools_.setSaved("v6", std::string(kSaved).replace(kSaved.find("old"), 3, "six"));
    tools_.refuse("v6 commit", "COMMIT", "");
    EXPECT_FALSE(apply());
    ASSERT_EQ(tools_.runs().size(), 4U);
    const std::string putBackV6 = std::string(kPutBack).replace(kPutBack.find("old"), 3, "six");
    EXPECT_EQ(tools_.runs()[2], run("v6 put back", putBackV6));
    EXPECT_EQ(tools_.runs().back(), run("v4 put back", kPutBack));
    EXPECT_EQ(tools_.runs().back().arguments, "--noflush --wait 30 --verbose --counters\n");
}

// A tool that is killed at its COMMIT may have committed.
TEST_F(ApplyTest, KilledAtItsCommitIsPutBackAsWell) {
    tools_.kill("v4 commit", "COMMIT");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 put back"));
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/iptables-restore: status 137"));
}

TEST_F(ApplyTest, Ipv6KilledAtItsCommitPutsBackBothFamilies) {
    tools_.kill("v6 commit", "COMMIT");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
}

// A chain that the text does not flush would have its lines twice if they were committed again.
TEST_F(ApplyTest, LinesOfOtherChainsArePutBackToo) {
    cmds_["v6"]["eth0"].append("-A INPUT -i eth0 -j ACCEPT");
    tools_.kill("v6 commit", "COMMIT");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
    EXPECT_EQ(tools_.runs()[2], run("v6 put back",
                                    "*filter\n-F INPUT\n-F FORWARD_FIREWALL\n-F INPUT_FIREWALL\n"
                                    "[3:180] -A INPUT -j INPUT_FIREWALL\n"
                                    "[2:120] -A INPUT_FIREWALL -i old -j DROP\nCOMMIT\n"));
}

TEST_F(ApplyTest, KilledAtItsCommitWhileTheCallerIgnoresItsChildren) {
    tools_.kill("v6 commit", "COMMIT");
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    const bool applied = apply();
    (void)std::signal(SIGCHLD, before);
    EXPECT_FALSE(applied);
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/ip6tables-restore: it stopped "
                                      "before the end of its input"));
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
}

TEST_F(ApplyTest, FailureToPutBackIsLoggedToo) {
    tools_.refuse("v6 commit", "COMMIT", "six\n");
    tools_.refuse("v4 put back", "COMMIT", "four\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(errors(),
                ElementsAre("fwBatch: Failed to run /sbin/ip6tables-restore: six",
                            "fwBatch: Failed to put back the rules with /sbin/iptables-restore: "
                            "four"));
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back"));
}

// The tool's words end the message; a log that cuts long lines must not lose them.
TEST_F(ApplyTest, NamesAndLinesAreCutAndPrintableInTheLog) {
    const std::string start = "-A INPUT_FIREWALL -m comment --comment ";
    const std::string line = start + std::string(2000, 'c');
    cmds_["v4"]["e\n" + std::string(2000, 'e')].append("-t man\x1bgle " + line);
    tools_.refuse("v4 test", line, "Bad argument `x'\nError occurred at line: 10\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(errors(),
                ElementsAre("fwBatch: /sbin/iptables-restore refused \"-t man?gle " + start +
                            std::string(200 - start.size(), 'c') + "...\" of adapter e?" +
                            std::string(198, 'e') + "...: Bad argument `x'"));
}

// "-h" among a line's words makes the tool print its usage and end with success.
TEST_F(ApplyTest, EarlyEndWithSuccessIsAnError) {
    tools_.refuse("v6 commit", "-A INPUT_FIREWALL -i eth0 -j DROP", "", 0);
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/ip6tables-restore: it stopped "
                                      "before the end of its input"));
}

// The tool names no line: in a test run, its output shows how far it came.
TEST_F(ApplyTest, EarlyEndIsTracedToItsLine) {
    const std::string line = "-A INPUT_FIREWALL -i eth0 -j DROP";
    tools_.refuse("v6 commit", line, "", 0);
    tools_.refuse("v6 test", line, "", 0);
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(),
                ElementsAre("fwBatch: /sbin/ip6tables-restore refused \"-t filter " + line +
                            "\" of adapter eth0: it stopped before the end of its input"));
}

TEST_F(ApplyTest, EarlyEndAtTheCommitIsAnError) {
    tools_.refuse("v6 commit", "COMMIT", "", 0);
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
}

TEST_F(ApplyTest, CallerThatIgnoresItsChildren) {
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    const bool applied = apply();
    tools_.refuse("v6 commit", "COMMIT", "six\n");
    const bool refused = !apply();
    (void)std::signal(SIGCHLD, before);
    EXPECT_TRUE(applied);
    EXPECT_TRUE(refused);
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/ip6tables-restore: six"));
}

struct MissingCase {
    std::string name;
    std::string path;
};

class ApplyMissingTest : public ApplyTest, public ::testing::WithParamInterface<MissingCase> {};

TEST_P(ApplyMissingTest, CommitsNothing) {
    tools_.remove(GetParam().path);
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run " + GetParam().path +
                                      ": No such file or directory"));
}

const MissingCase kMissing[] = {{"SaveV4", "/sbin/iptables-save"},
                                {"SaveV6", "/sbin/ip6tables-save"},
                                {"RestoreV4", "/sbin/iptables-restore"},
                                {"RestoreV6", "/sbin/ip6tables-restore"}};
INSTANTIATE_TEST_SUITE_P(Missing, ApplyMissingTest, ValuesIn(kMissing),
                         [](const auto& one) { return one.param.name; });

TEST_F(ApplyTest, Ipv6WithoutProgramsIsLeftOut) {
    tools_.remove("/sbin/ip6tables-save");
    tools_.remove("/sbin/ip6tables-restore");
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit"));
    EXPECT_THAT(platform_.log(), IsEmpty());
}

TEST_F(ApplyTest, Ipv6ThatTheKernelLacksIsLeftOut) {
    tools_.failToSave("v6", "Cannot initialize: Address family not supported by protocol\n");
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit"));
    EXPECT_THAT(platform_.log(), IsEmpty());
}

TEST_F(ApplyTest, Ipv6ThatFailsOtherwiseIsNot) {
    tools_.failToSave("v6", "Cannot initialize: Permission denied\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/ip6tables-save: Cannot "
                                      "initialize: Permission denied"));
}

// IPv4 must run: without it nothing is filtered.
TEST_F(ApplyTest, Ipv4IsNeverLeftOut) {
    tools_.failToSave("v4", "Cannot initialize: Address family not supported by protocol\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
}

TEST_F(ApplyTest, WhatCannotBeSavedIsNotReplaced) {
    for (const std::string saved : {"*filter\n:INPUT ACCEPT [0:0]\n", "*nat\nCOMMIT\n", ""}) {
        platform_.clearLog();
        tools_.setSaved("v6", saved);
        EXPECT_FALSE(apply());
        EXPECT_THAT(tools_.committed(), IsEmpty());
        EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/ip6tables-save: it stopped "
                                          "before the end of the table"))
            << saved;
    }
}

// ---- The caller's review ----

TEST_F(ApplyTest, ReviewSeesTheBatchBeforeAnythingChanges) {
    std::map<std::string, std::string> saved;
    EXPECT_TRUE(FW::FW_BATCH().applyReviewed(cmds_, [&](const FW::FWPENDINGBATCH& batch) {
        EXPECT_EQ(batch.commands, cmds_);
        EXPECT_THAT(tools_.committed(), IsEmpty());
        saved.insert(batch.saved.begin(), batch.saved.end());
        return true;
    }));
    EXPECT_EQ(saved, (std::map<std::string, std::string>{{"v4", kSaved}, {"v6", kSaved}}));
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 commit"));
}

TEST_F(ApplyTest, ReviewSeesOnlyTheFamiliesOfTheMachine) {
    tools_.failToSave("v6", "Cannot initialize: Address family not supported by protocol\n");
    EXPECT_TRUE(FW::FW_BATCH().applyReviewed(cmds_, [](const FW::FWPENDINGBATCH& batch) {
        return batch.saved.size() == 1 && batch.saved.count("v4") == 1;
    }));
}

TEST_F(ApplyTest, ReviewThatIsAgainstItLeavesEverything) {
    EXPECT_FALSE(
        FW::FW_BATCH().applyReviewed(cmds_, [](const FW::FWPENDINGBATCH&) { return false; }));
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(platform_.log(), IsEmpty());
}

TEST_F(ApplyTest, ReviewThatThrowsLeavesEverything) {
    EXPECT_THROW(
        (void)FW::FW_BATCH().applyReviewed(
            cmds_, [](const FW::FWPENDINGBATCH&) -> bool { throw std::runtime_error("no"); }),
        std::runtime_error);
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_TRUE(apply());  // the lock of iptables is free
}

TEST_F(ApplyTest, RefusedBatchIsNotReviewed) {
    tools_.refuse("v4 commit", "-A INPUT_FIREWALL -i eth0 -j DROP", "line 4 failed\n");
    EXPECT_FALSE(FW::FW_BATCH().applyReviewed(cmds_, [](const FW::FWPENDINGBATCH&) {
        ADD_FAILURE();
        return true;
    }));
}

// ---- More than one table, each a commit of its own ----

TEST_F(ApplyTest, SecondTableIsTestedAndSaved) {
    addSecondTable("v4");
    addSecondTable("v6");
    EXPECT_TRUE(apply());
    const std::string both = text() + "*mangle\n-A INPUT -i eth0 -j ACCEPT\nCOMMIT\n";
    const std::vector<FakeRestore::Run> runs = tools_.runs();
    ASSERT_EQ(runs.size(), 4U);
    EXPECT_THAT(std::vector<FakeRestore::Run>(runs.begin(), runs.begin() + 2),
                ::testing::UnorderedElementsAre(run("v4 test", both), run("v6 test", both)));
    EXPECT_EQ(runs[2], run("v4 commit", both));
    EXPECT_EQ(runs[3], run("v6 commit", both));
    EXPECT_THAT(tools_.started(),
                ::testing::IsSupersetOf({"ip6tables-save --counters --table filter",
                                         "ip6tables-save --counters --table mangle",
                                         "iptables-save --counters --table mangle"}));
}

TEST_F(ApplyTest, SecondTableRefusedInTheTest) {
    addSecondTable("v6");
    tools_.refuse("v6 test", "-A INPUT -i eth0 -j ACCEPT",
                  "Bad argument `x'\nError occurred at line: 10\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: /sbin/ip6tables-restore refused \"-t mangle -A "
                                      "INPUT -i eth0 -j ACCEPT\" of adapter eth0: Bad argument "
                                      "`x'"));
}

TEST_F(ApplyTest, SecondTableRefusedAtItsCommitPutsBackTheFirst) {
    addSecondTable("v4");
    tools_.refuse("v4 commit", "-A INPUT -i eth0 -j ACCEPT", "late\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 put back"));
    const std::vector<FakeRestore::Run> runs = tools_.runs();
    const auto putBack = std::find_if(runs.begin(), runs.end(), [](const FakeRestore::Run& one) {
        return one.name == "v4 put back";
    });
    ASSERT_NE(putBack, runs.end());
    EXPECT_EQ(putBack->text, kPutBack + "*mangle\n-F INPUT\n[1:1] -A INPUT -i old\nCOMMIT\n");
}

TEST_F(ApplyTest, SecondTableOfIpv6RefusedPutsBackBothFamilies) {
    addSecondTable("v6");
    tools_.refuse("v6 commit", "-A INPUT -i eth0 -j ACCEPT", "late\n");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
}

// ---- What an interrupted reload left ----

constexpr char kMended[] =
    "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
    "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n";

TEST_F(ApplyTest, InterruptedReloadIsMendedInTheSameTransaction) {
    tools_.setSaved("v4", savedWith(1));
    tools_.setSaved("v6", savedWith(2));
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.runs(),
                ElementsAre(run("v4 commit", text(kMended)),
                            run("v6 commit",
                                text("-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED "
                                     "-j ACCEPT\n" +
                                     std::string(kMended)))));
}

constexpr char kOpened[] = "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n";

// A reload that is killed between the policies of IPv6 and the rule after them leaves none there.
TEST_F(ApplyTest, SignOfIpv4OpensIpv6AsWell) {
    tools_.setSaved("v4", savedWith(1));
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.runs(),
                ElementsAre(run("v6 commit", text(kOpened)), run("v4 commit", text(kMended))));
}

TEST_F(ApplyTest, SignOfIpv6OpensIpv4AsWell) {
    tools_.setSaved("v6", savedWith(1));
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.runs(),
                ElementsAre(run("v4 commit", text(kOpened)), run("v6 commit", text(kMended))));
}

TEST_F(ApplyTest, RefusalPutsBackWhatWasMended) {
    const std::string rule = std::string("[4:5] ") + kReloadingRule;
    tools_.setSaved("v4", savedWith(1, ":INPUT DROP [1:1]\n:FORWARD DROP [0:0]\n"));
    tools_.setSaved("v6", savedWith(0, ":INPUT DROP [1:1]\n:FORWARD ACCEPT [0:0]\n"));
    tools_.refuse("v4 commit", "COMMIT", "four\n");
    EXPECT_FALSE(apply());
    const std::vector<FakeRestore::Run> runs = tools_.runs();
    ASSERT_EQ(runs.size(), 4U);
    EXPECT_EQ(runs[3], run("v6 put back",
                           "*filter\n-P INPUT DROP\n-P FORWARD ACCEPT\n-F FORWARD_FIREWALL\n"
                           "-F INPUT_FIREWALL\nCOMMIT\n"));
    EXPECT_EQ(runs[2], run("v4 put back",
                           "*filter\n-P INPUT DROP\n-P FORWARD DROP\n-F FIREWALL_RELOADING\n"
                           "-F FORWARD_FIREWALL\n-F INPUT_FIREWALL\n" +
                               rule + "COMMIT\n"));
}

// The sign must stay while the other family is closed without one.
TEST_F(ApplyTest, OnlySignGoesLast) {
    tools_.setSaved("v4", savedWith(1));
    EXPECT_TRUE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v6 commit", "v4 commit"));
}

TEST_F(ApplyTest, KilledWhileMendingPutsBackBothFamilies) {
    tools_.setSaved("v4", savedWith(1));
    tools_.setSaved("v6", savedWith(1));
    tools_.kill("v6 commit", "COMMIT");
    EXPECT_FALSE(apply());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 put back", "v4 put back"));
}

}  // namespace
