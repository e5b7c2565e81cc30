// Running command lines: splitting and its limits, command documents, and the fixed sets of lines.

#include <syslog.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "tarnfirewall/tarnFW.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::ValuesIn;
using Lines = std::vector<std::string>;

constexpr char kTooMany[] = "tarnFW: #Arguments exceeds limit";
constexpr char kEmptyOrTooLong[] = "tarnFW: cmd is empty or arguments exceeding limit";

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The first `count` of `lines`.
Lines firstOf(const Lines& lines, std::size_t count) {
    return {lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(count)};
}

// "Failed to execute ..." as cmdExec() and as its caller log it for one line that cannot be run.
Lines failedLine(const std::string& line) {
    return {"tarnFW: Failed to execute " + line.substr(0, line.find(' ')),
            "tarnFW: Failed to execute \"" + line + "\""};
}

// `count` words: a path and small arguments.
Lines words(std::size_t count) {
    Lines made = {"/sbin/x"};
    made.resize(count, "a");
    return made;
}

std::string joined(const Lines& parts, const std::string& separator = " ") {
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        text += (i == 0 ? "" : separator) + parts[i];
    }
    return text;
}

// A word that takes `bytes` bytes of the argument area, its terminating zero included.
std::string wordOf(std::size_t bytes) {
    return std::string(bytes - 1, 'w');
}

class CommandTest : public LibraryTest {
protected:
};

// ---- cmdExec: lines that run ----

struct LineCase {
    std::string name;
    std::string line;
    Lines runs;
};

void PrintTo(const LineCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.line);
}

class CmdExecRunsTest : public CommandTest, public ::testing::WithParamInterface<LineCase> {};

TEST_P(CmdExecRunsTest, ExactlyTheseArguments) {
    EXPECT_TRUE(FW::TARNFW().cmdExec(GetParam().line));
    EXPECT_THAT(platform_.executed(), ElementsAre(GetParam().runs));
    EXPECT_THAT(errors(), IsEmpty());
}

const LineCase kLines[] = {
    {"OneWord", "/sbin/iptables", {"/sbin/iptables"}},
    {"SingleBlanks", "/sbin/iptables -F X", {"/sbin/iptables", "-F", "X"}},
    {"TwoBlanksEach",
     "/sbin/iptables  -F  INPUT_FIREWALL",
     {"/sbin/iptables", "-F", "INPUT_FIREWALL"}},
    {"LongRunsOfBlanks", "/sbin/iptables     -F   X", {"/sbin/iptables", "-F", "X"}},
    {"LeadingBlank", " /sbin/iptables -F X", {"/sbin/iptables", "-F", "X"}},
    {"LeadingBlanks", "   /sbin/iptables -F X", {"/sbin/iptables", "-F", "X"}},
    {"TrailingBlank", "/sbin/iptables -F X ", {"/sbin/iptables", "-F", "X"}},
    {"TrailingBlanks", "/sbin/iptables -F X   ", {"/sbin/iptables", "-F", "X"}},
    {"TabIsNoSeparator", "/sbin/iptables -F\tX", {"/sbin/iptables", "-F\tX"}},
    {"LoneTabIsAWord", "/sbin/iptables \t X", {"/sbin/iptables", "\t", "X"}},
    {"LineFeedIsNoSeparator", "/sbin/iptables -F\nX\n", {"/sbin/iptables", "-F\nX\n"}},
    {"QuotesKeepNothingTogether",
     "/sbin/iptables \"a b\" 'c d'",
     {"/sbin/iptables", "\"a", "b\"", "'c", "d'"}},
    {"BackslashEscapesNothing", "/sbin/iptables a\\ b", {"/sbin/iptables", "a\\", "b"}},
    {"NoShellReadsTheLine",
     "/sbin/iptables $HOME;id|id>x *",
     {"/sbin/iptables", "$HOME;id|id>x", "*"}},
    {"ZeroByteEndsItsWordAlone", std::string("/sbin/x a\0b c", 13), {"/sbin/x", "a", "c"}},
    // The limits: 255 words, 1024 bytes.
    {"Words254", joined(words(254)), words(254)},
    {"Words255", joined(words(255)), words(255)},
    {"Words255AndATrailingBlank", joined(words(255)) + " ", words(255)},
    {"Words255BetweenRunsOfBlanks", "  " + joined(words(255), "  "), words(255)},
    {"Words254AndSuperfluousBlanks", joined(words(254)) + "   ", words(254)},
    {"Bytes1022", wordOf(1022), {wordOf(1022)}},
    {"Bytes1023", wordOf(1023), {wordOf(1023)}},
    {"Bytes1024", wordOf(1024), {wordOf(1024)}},
    {"Bytes1024InTwoWords", wordOf(1022) + " x", {wordOf(1022), "x"}},
    {"Bytes1024InManyWords", joined(Lines(63, wordOf(16))) + " " + wordOf(14) + " x",
     Lines(63, wordOf(16)) + Lines{wordOf(14), "x"}},
    {"Bytes1022AndSuperfluousBlanks", wordOf(1022) + "   ", {wordOf(1022)}},
    {"Bytes1023AndATrailingBlank", wordOf(1023) + " ", {wordOf(1023)}},
    {"Bytes1024AndATrailingBlank", wordOf(1024) + " ", {wordOf(1024)}},
    {"Bytes1024BehindRunsOfBlanks", "   " + wordOf(1022) + "   x", {wordOf(1022), "x"}},
};

INSTANTIATE_TEST_SUITE_P(Lines, CmdExecRunsTest, ValuesIn(kLines),
                         [](const auto& tested) { return tested.param.name; });

// ---- cmdExec: lines that are refused ----

struct RefusedCase {
    std::string name;
    std::string line;
    std::string message;
};

void PrintTo(const RefusedCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.line);
}

class CmdExecRefusesTest : public CommandTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(CmdExecRefusesTest, AndRunsNothing) {
    EXPECT_FALSE(FW::TARNFW().cmdExec(GetParam().line));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre(GetParam().message));
}

const RefusedCase kRefused[] = {
    {"Empty", "", kEmptyOrTooLong},
    {"OneBlank", " ", kEmptyOrTooLong},
    {"OnlyBlanks", "     ", kEmptyOrTooLong},
    {"MoreBlanksThanWordsFit", std::string(3000, ' '), kEmptyOrTooLong},
    {"Words256", joined(words(256)), kTooMany},
    {"Words257", joined(words(257)), kTooMany},
    // The limit is looked at before an empty word is skipped.
    {"Words255AndASuperfluousBlank", joined(words(255)) + "  ", kTooMany},
    {"Words255AndASuperfluousBlankBeforeAWord", joined(words(255)) + "  x", kTooMany},
    {"Bytes1025", wordOf(1025), kEmptyOrTooLong},
    {"Bytes1025InTwoWords", wordOf(1022) + " xy", kEmptyOrTooLong},
    {"Bytes1025AndATrailingBlank", wordOf(1025) + " ", kEmptyOrTooLong},
    {"LastWordReachesFarBeyondTheArea", wordOf(1022) + " " + wordOf(5000), kEmptyOrTooLong},
    {"OneWordOfTenTimesTheArea", wordOf(10240), kEmptyOrTooLong},
    {"WordAfter1023Bytes", wordOf(1023) + " x", kTooMany},
    {"WordAfter1024Bytes", wordOf(1024) + " x", kTooMany},
    {"WordAfter1025Bytes", wordOf(1025) + " x", kTooMany},
    {"WordAfterOneThatReachedBeyondTheArea", wordOf(1001) + " " + wordOf(101) + " x", kTooMany},
    {"SuperfluousBlankAfter1023Bytes", wordOf(1023) + "  ", kTooMany},
    {"SuperfluousBlankAfter1024Bytes", wordOf(1024) + "  ", kTooMany},
    {"SuperfluousBlankAfter1025Bytes", wordOf(1025) + "  ", kTooMany},
};

INSTANTIATE_TEST_SUITE_P(Lines, CmdExecRefusesTest, ValuesIn(kRefused),
                         [](const auto& tested) { return tested.param.name; });

// ---- cmdExec: the outcome of the program ----

using CmdExecTest = CommandTest;

TEST_F(CmdExecTest, ProgramThatCannotBeRunIsAFailureThatNamesItsPath) {
    platform_.execResult = -1;
    EXPECT_FALSE(FW::TARNFW().cmdExec("  /sbin/iptables -F X"));
    EXPECT_THAT(platform_.executedLines(), ElementsAre("/sbin/iptables -F X"));
    EXPECT_THAT(errors(), ElementsAre("tarnFW: Failed to execute /sbin/iptables"));
}

// The message has the word itself; what prints it on a terminal sees to that.
TEST_F(CmdExecTest, PathIsLoggedUnchanged) {
    platform_.execResult = -1;
    EXPECT_FALSE(FW::TARNFW().cmdExec("/sbin/a\tb\x1b[31m\xe9\n -F X"));
    EXPECT_THAT(errors(), ElementsAre("tarnFW: Failed to execute /sbin/a\tb\x1b[31m\xe9\n"));
}

TEST_F(CmdExecTest, AnyOtherResultIsSuccess) {
    for (const int result : {0, 1, 2, 127, 255, -2}) {
        platform_.execResult = result;
        EXPECT_TRUE(FW::TARNFW().cmdExec("/sbin/iptables -F X")) << result;
    }
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(CmdExecTest, NothingOfOneLineReachesTheNext) {
    FW::TARNFW firewall;
    EXPECT_TRUE(firewall.cmdExec("/sbin/iptables -t filter -A INPUT_FIREWALL -j DROP"));
    EXPECT_TRUE(firewall.cmdExec("/sbin/ip6tables -F"));
    EXPECT_THAT(
        platform_.executedLines(),
        ElementsAre("/sbin/iptables -t filter -A INPUT_FIREWALL -j DROP", "/sbin/ip6tables -F"));
}

// ---- fwExec ----

using FwExecTest = CommandTest;

TEST_F(FwExecTest, DocumentWithoutAFamilySucceedsAndRunsNothing) {
    EXPECT_TRUE(FW::TARNFW().fwExec(Json::Value()));
    EXPECT_TRUE(FW::TARNFW().fwExec(Json::Value(Json::objectValue)));
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v5": {"global": ["-F X"]}})")));
    EXPECT_THAT(platform_.journal, IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwExecTest, FreshDocumentRunsNothing) {
    FW::TARNFW firewall;
    Json::Value document;
    ASSERT_TRUE(firewall.jIptablesCmdInit(document));
    EXPECT_TRUE(firewall.fwExec(document));
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(FwExecTest, Ipv4RunsBeforeIpv6AndGlobalBeforeTheAdapters) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({
        "v6": {"eth0": ["-A six eth0"], "global": ["-A six first", "-A six second"]},
        "v4": {"eth0": ["-A four eth0"], "global": ["-A four first", "-A four second"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -A four first", "/sbin/iptables -A four second",
                            "/sbin/iptables -A four eth0", "/sbin/ip6tables -A six first",
                            "/sbin/ip6tables -A six second", "/sbin/ip6tables -A six eth0"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwExecTest, GlobalRunsOnceAndBeforeNamesThatSortAheadOfIt) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(
        R"({"v4": {"eth0": ["-A eth0"], "global": ["-A global"], "wlan0": ["-A wlan0"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -A global", "/sbin/iptables -A eth0",
                            "/sbin/iptables -A wlan0"));
}

TEST_F(FwExecTest, FamilyWithoutGlobalRunsItsMembersInAscendingNameOrder) {
    EXPECT_TRUE(FW::TARNFW().fwExec(
        parseJson(R"({"v4": {"INPUT_FIREWALL": ["-F in"], "FORWARD_FIREWALL": ["-F forward"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -F forward", "/sbin/iptables -F in"));
}

TEST_F(FwExecTest, NamesAreOrderedByByte) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v4": {
        "eth2": ["-A eth2"], "eth10": ["-A eth10"], "eth1": ["-A eth1"], "Zeth": ["-A Zeth"],
        "\u00e9th": ["-A accented"]}})")));
    EXPECT_THAT(
        platform_.executedLines(),
        ElementsAre("/sbin/iptables -A Zeth", "/sbin/iptables -A eth1", "/sbin/iptables -A eth10",
                    "/sbin/iptables -A eth2", "/sbin/iptables -A accented"));
}

TEST_F(FwExecTest, OneFamilyAloneRunsWithItsOwnTool) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v6": {"global": ["-F six"]}})")));
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v4": {"global": ["-F four"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/ip6tables -F six", "/sbin/iptables -F four"));
}

TEST_F(FwExecTest, OtherMembersOfTheDocumentAreIgnored) {
    EXPECT_TRUE(
        FW::TARNFW().fwExec(parseJson(R"({"global": ["-F a"], "V4": {"global": ["-F b"]}, "note": 5,
                      "v4": {"global": ["-F c"]}})")));
    EXPECT_THAT(platform_.executedLines(), ElementsAre("/sbin/iptables -F c"));
}

TEST_F(FwExecTest, ValuesAreConvertedToText) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v4": {"eth0": [7, true], "global": null}})")));
    EXPECT_THAT(platform_.executedLines(), ElementsAre("/sbin/iptables 7", "/sbin/iptables true"));
}

TEST_F(FwExecTest, LinesOfAnAdapterRunInArrayOrder) {
    EXPECT_TRUE(
        FW::TARNFW().fwExec(parseJson(R"({"v4": {"eth0": ["-A z", "-A a", "-A z", "-A m"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -A z", "/sbin/iptables -A a", "/sbin/iptables -A z",
                            "/sbin/iptables -A m"));
}

TEST_F(FwExecTest, FailingIpv4LineStopsBeforeAnyIpv6Line) {
    platform_.failExec("/sbin/iptables -A eth0");
    EXPECT_FALSE(FW::TARNFW().fwExec(parseJson(R"({
        "v4": {"eth0": ["-A eth0 bad", "-A eth0 later"], "eth1": ["-A eth1"],
               "global": ["-A global"]},
        "v6": {"global": ["-A six"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -A global", "/sbin/iptables -A eth0 bad"));
    EXPECT_THAT(errors(), ElementsAreArray(failedLine("/sbin/iptables -A eth0 bad")));
}

TEST_F(FwExecTest, FailingGlobalLineStopsBeforeTheAdapters) {
    platform_.failExec("/sbin/ip6tables -A bad");
    EXPECT_FALSE(FW::TARNFW().fwExec(parseJson(R"({
        "v4": {"global": ["-A four"]},
        "v6": {"eth0": ["-A six"], "global": ["-A good", "-A bad", "-A later"]}})")));
    EXPECT_THAT(
        platform_.executedLines(),
        ElementsAre("/sbin/iptables -A four", "/sbin/ip6tables -A good", "/sbin/ip6tables -A bad"));
    EXPECT_THAT(errors(), ElementsAreArray(failedLine("/sbin/ip6tables -A bad")));
}

TEST_F(FwExecTest, RefusedLineStopsLikeOneThatFails) {
    Json::Value document;
    const std::string tooLong = "-A " + wordOf(1024);
    document["v4"]["global"].append(tooLong);
    document["v4"]["global"].append("-A later");
    EXPECT_FALSE(FW::TARNFW().fwExec(document));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(errors(),
                ElementsAre(kEmptyOrTooLong,
                            "tarnFW: Failed to execute \"/sbin/iptables " + tooLong + "\""));
}

TEST_F(FwExecTest, EmptyLineRunsTheToolAlone) {
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v4": {"global": [""]}})")));
    EXPECT_THAT(platform_.executed(), ElementsAre(Lines{"/sbin/iptables"}));
}

TEST_F(FwExecTest, ExitStatusOfALineDoesNotStop) {
    platform_.execResult = 1;
    EXPECT_TRUE(FW::TARNFW().fwExec(parseJson(R"({"v4": {"global": ["-A a", "-A b"]}})")));
    EXPECT_THAT(platform_.executedLines(),
                ElementsAre("/sbin/iptables -A a", "/sbin/iptables -A b"));
}

// ---- fwClear ----

const Lines kFlushes = {"/sbin/iptables -F INPUT_FIREWALL", "/sbin/ip6tables -F INPUT_FIREWALL",
                        "/sbin/iptables -F FORWARD_FIREWALL",
                        "/sbin/ip6tables -F FORWARD_FIREWALL"};

class FwClearTest : public CommandTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_F(FwClearTest, FlushesChainByChainInBothFamilies) {
    EXPECT_TRUE(FW::TARNFW().fwClear());
    EXPECT_EQ(platform_.executedLines(), kFlushes);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(FwClearTest, OneFailureIsReportedAndAllFourStillRun) {
    platform_.failExec(kFlushes[GetParam()]);
    EXPECT_FALSE(FW::TARNFW().fwClear());
    EXPECT_EQ(platform_.executedLines(), kFlushes);
    EXPECT_THAT(errors(), ElementsAreArray(failedLine(kFlushes[GetParam()])));
}

INSTANTIATE_TEST_SUITE_P(Flush, FwClearTest, ::testing::Range<std::size_t>(0, 4));

TEST_F(FwClearTest, EachOfFourFailuresIsLogged) {
    platform_.execResult = -1;
    EXPECT_FALSE(FW::TARNFW().fwClear());
    EXPECT_EQ(platform_.executedLines(), kFlushes);
    EXPECT_EQ(errors(), failedLine(kFlushes[0]) + failedLine(kFlushes[1]) +
                            failedLine(kFlushes[2]) + failedLine(kFlushes[3]));
}

// ---- fwDefaultDrop, fwDefaultAccept ----

const Lines kDrops = {
    "/sbin/iptables --policy INPUT DROP",
    "/sbin/iptables --policy FORWARD DROP",
    "/sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "/sbin/ip6tables --policy INPUT DROP",
    "/sbin/ip6tables --policy FORWARD DROP",
    "/sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
};
const Lines kAccepts = {
    "/sbin/iptables --policy INPUT ACCEPT",
    "/sbin/iptables --policy FORWARD ACCEPT",
    "/sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "/sbin/ip6tables --policy INPUT ACCEPT",
    "/sbin/ip6tables --policy FORWARD ACCEPT",
    "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
};

class FwDefaultPolicyTest : public CommandTest,
                            public ::testing::WithParamInterface<std::size_t> {};

TEST_F(FwDefaultPolicyTest, DropClosesBothFamiliesAndLetsEstablishedThrough) {
    EXPECT_TRUE(FW::TARNFW().fwDefaultDrop());
    EXPECT_EQ(platform_.executedLines(), kDrops);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwDefaultPolicyTest, AcceptTakesTheSixLinesBackInTheSameOrder) {
    EXPECT_TRUE(FW::TARNFW().fwDefaultAccept());
    EXPECT_EQ(platform_.executedLines(), kAccepts);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(FwDefaultPolicyTest, FailedDropStopsThereAndUndoesNothing) {
    platform_.failExec(kDrops[GetParam()]);
    EXPECT_FALSE(FW::TARNFW().fwDefaultDrop());
    EXPECT_EQ(platform_.executedLines(), firstOf(kDrops, GetParam() + 1));
    EXPECT_EQ(errors(), failedLine(kDrops[GetParam()]) +
                            Lines{"tarnFW: Failed to fwExec() to set default drop."});
}

TEST_P(FwDefaultPolicyTest, FailedAcceptStopsThere) {
    platform_.failExec(kAccepts[GetParam()]);
    EXPECT_FALSE(FW::TARNFW().fwDefaultAccept());
    EXPECT_EQ(platform_.executedLines(), firstOf(kAccepts, GetParam() + 1));
    EXPECT_EQ(errors(), failedLine(kAccepts[GetParam()]) +
                            Lines{"tarnFW: Failed to fwExec() to set default accept."});
}

INSTANTIATE_TEST_SUITE_P(Line, FwDefaultPolicyTest, ::testing::Range<std::size_t>(0, 6));

TEST_F(CommandTest, NoneOfTheseOperationsTakesALock) {
    FW::TARNFW firewall;
    EXPECT_TRUE(firewall.fwDefaultDrop());
    EXPECT_TRUE(firewall.fwClear());
    EXPECT_TRUE(firewall.fwExec(parseJson(R"({"v4": {"global": ["-F X"]}})")));
    EXPECT_TRUE(firewall.fwDefaultAccept());
    EXPECT_THAT(platform_.journalOf("lock "), IsEmpty());
    EXPECT_EQ(platform_.journalOf("exec ").size(), platform_.journal.size());
}

}  // namespace
