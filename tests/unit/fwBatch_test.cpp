// Command documents in one transaction: their text for iptables-restore.

#include <ostream>
#include <string>

#include <json/json.h>

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
     "-A X -m comment --comment " + std::string(10238, 'c')},
};

class RestoreFaultTest : public RestoreTextTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(RestoreFaultTest, NoTextAndOneLineThatNamesIt) {
    Json::Value cmds = documentOf("-A INPUT_FIREWALL -j DROP");
    cmds["v4"]["eth0"].append(GetParam().line);
    EXPECT_EQ(restoreText(cmds), "");
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Adapter eth0: no line for iptables-restore: \"" +
                                      GetParam().logged + "\""));
    EXPECT_EQ(restoreText(cmds, "v6"), filterText(""));  // the other family is in order
}

INSTANTIATE_TEST_SUITE_P(Faults, RestoreFaultTest, ValuesIn(kFaultCases),
                         [](const auto& one) { return one.param.name; });

TEST_F(RestoreTextTest, LongestLine) {
    const std::string start = "-A X -m comment --comment ";
    const std::string line = start + std::string(10238 - start.size(), 'c');
    EXPECT_EQ(restoreText(documentOf(line)), filterText(line + "\n"));
}

}  // namespace
