// Tables, counts and texts, as they go into a file and to a terminal.
#include "cli/output.h"

#include <pty.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

std::string printed(const Table& table, std::size_t indent = 0) {
    testing::internal::CaptureStdout();
    table.print(indent);
    return testing::internal::GetCapturedStdout();
}

/// A terminal that standard output goes to, as long as it lives.
class Terminal {
public:
    explicit Terminal(int columns) {
        termios plain{};  // no line feed becomes two characters
        winsize size{};
        size.ws_col = static_cast<unsigned short>(columns);
        size.ws_row = 24;
        EXPECT_EQ(openpty(&master_, &slave_, nullptr, &plain, &size), 0);
        std::cout.flush();
        saved_ = dup(STDOUT_FILENO);
        dup2(slave_, STDOUT_FILENO);
    }
    ~Terminal() {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(slave_);
        close(master_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// What has been printed since; less than the terminal keeps.
    std::string text() const {
        constexpr std::size_t kMost = 4096;
        std::cout << "<end>" << std::flush;
        std::string all;
        while (all.find("<end>") == std::string::npos) {
            std::string part(kMost, '\0');
            const ssize_t bytes = read(master_, part.data(), part.size());
            if (bytes <= 0) {
                break;
            }
            all.append(part, 0, static_cast<std::size_t>(bytes));
        }
        return all.substr(0, all.find("<end>"));
    }

private:
    int master_ = -1;
    int slave_ = -1;
    int saved_ = -1;
};

std::string printedOn(int columns, const Table& table) {
    setenv("NO_COLOR", "1", 1);
    const Terminal terminal(columns);
    table.print();
    return terminal.text();
}

TEST(TableTest, ColumnsAreAsWideAsTheirWidestCell) {
    Table table({"Adapter", "Rules"});
    table.addRow({{"eth0"}, {"12"}});
    table.addRow({{"a-long-name"}, {"3"}});
    EXPECT_EQ(printed(table),
              "Adapter      Rules\n"
              "eth0         12\n"
              "a-long-name  3\n");
}

TEST(TableTest, NoLineEndsWithBlanks) {
    Table table;
    table.addRow({{"eth0"}, {""}, {""}});
    table.addRow({{""}, {"x"}, {""}});
    EXPECT_EQ(printed(table, 2), "  eth0\n        x\n");
}

TEST(TableTest, LettersOfSeveralBytesCountOnce) {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    Table table;
    table.addRow({{"B\xc3\xbcro"}, {"1"}});
    table.addRow({{"Buro"}, {"2"}});
    EXPECT_EQ(printed(table), "B\xc3\xbcro  1\nBuro  2\n");
}

TEST(TableTest, BytesThatAreNoTextNeverReachTheTerminal) {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    Table table;
    table.addRow({{"\xff\xfe"}, {"1"}});
    table.addRow({{"ab"}, {"2"}});
    EXPECT_EQ(printed(table), "??  1\nab  2\n");
}

TEST(TableTest, ControlCharactersNeverReachTheTerminal) {
    Table table;
    table.addRow({{"a\033[2Jb\n"}});
    EXPECT_EQ(printed(table), "a?[2Jb?\n");
}

TEST(TableTest, WithoutRowsThereIsOnlyTheHeading) {
    EXPECT_EQ(printed(Table({"Name"})), "Name\n");
    EXPECT_EQ(printed(Table()), "");
}

TEST(TableOnATerminalTest, AColumnIsCutBeforeOthersAreWrapped) {
    Table table({"Address", "Note"});
    table.addRow({{"fd00:1111:2222:3333:4444::20"}, {"open: not in the profile"}});
    table.cutFirst(0);
    EXPECT_EQ(printedOn(42, table),
              "Address           Note\n"
              "fd00:1111:2222:   open: not in the profile\n"
              "3333:4444::20\n");
}

TEST(TableOnATerminalTest, WrapsBetweenWordsAndBehindCommas) {
    Table table;
    table.addRow({{"eth0"}, {"192.168.1.10/24, 10.0.0.1/8"}, {"up"}});
    EXPECT_EQ(printedOn(30, table),
              "eth0  192.168.1.10/24,      up\n"
              "      10.0.0.1/8\n");
}

TEST(TableOnATerminalTest, CutsAWordThatIsTooLongBehindASign) {
    Table table;
    table.addRow({{"1"}, {"2001:db8:1:2:3:4:5:6-2001:db8:1:2:3:4:5:ffff"}, {"x"}});
    EXPECT_EQ(printedOn(30, table),
              "1  2001:db8:1:2:3:4:5:6-     x\n"
              "   2001:db8:1:2:3:4:5:ffff\n");
}

TEST(TableOnATerminalTest, CutsALongWordBeforeOtherColumnsGetNarrow) {
    Table table;
    table.addRow({{"service ssh,http,https,smb"}, {"from 2001:db8:1111:2222:3333:4444:5555:6666"}});
    EXPECT_EQ(printedOn(54, table),
              "service ssh,http,https,smb  from 2001:db8:1111:2222:\n"
              "                            3333:4444:5555:6666\n");
}

TEST(TableOnATerminalTest, CutsAWordWithoutSignsBetweenLetters) {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    Table table;
    table.addRow({{"1"},
                  {"\xc3\xa4\xc3\xb6\xc3\xbc\xc3\x9f"
                   "abcdefgh"}});
    EXPECT_EQ(printedOn(9, table),
              "1  \xc3\xa4\xc3\xb6\xc3\xbc\xc3\x9f"
              "ab\n   cdefgh\n");
}

TEST(TableOnATerminalTest, NoLineIsWiderThanTheTerminal) {
    Table table({"#", "Action", "What", "Address", "Notes"});
    table.addRow({{"10"},
                  {"allow"},
                  {"service container_registry,web_admin"},
                  {"from 2001:db8:1:2:3:4:5:6-2001:db8:1:2:3:4:5:ffff"},
                  {"a_name_without_any_blank_in_it, and one with"}});
    for (int columns = 30; columns <= 80; ++columns) {
        std::istringstream lines(printedOn(columns, table));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), static_cast<std::size_t>(columns)) << line;
            EXPECT_NE(line, "");
        }
    }
}

TEST(TableOnATerminalTest, StaysAsItIsWhereItFits) {
    Table table({"Adapter", "Rules"});
    table.addRow({{"eth0"}, {"12"}});
    EXPECT_EQ(printedOn(14, table), printed(table));
}

TEST(PaintedTest, NothingIsColouredInAFile) {
    EXPECT_EQ(painted("blocked", Paint::kBad), "blocked");
}

TEST(PaintedTest, ColoursOnATerminalThatHasSome) {
    unsetenv("NO_COLOR");
    setenv("TERM", "xterm", 1);
    const Terminal terminal(80);
    EXPECT_EQ(painted("blocked", Paint::kBad), "\033[31mblocked\033[0m");
    EXPECT_EQ(painted("eth0", Paint::kPlain), "eth0");
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(painted("blocked", Paint::kBad), "blocked");
    unsetenv("TERM");
    EXPECT_EQ(painted("blocked", Paint::kBad), "blocked");
}

TEST(PaintedTest, DoesNotColourWhereSomebodyDoesNotWantIt) {
    setenv("TERM", "xterm", 1);
    setenv("NO_COLOR", "1", 1);
    const Terminal terminal(80);
    EXPECT_EQ(painted("blocked", Paint::kBad), "blocked");
    setenv("NO_COLOR", "", 1);  // set, and empty: as not set
    EXPECT_EQ(painted("blocked", Paint::kBad), "\033[31mblocked\033[0m");
}

TEST(ProgressTest, NothingIsShownInAFile) {
    testing::internal::CaptureStderr();
    {
        const Progress whole("Applying the rules");
        Progress steps("Loading lines", 2);
        steps.step();
        steps.step();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(WarnTest, ALineOfTextInAFile) {
    testing::internal::CaptureStderr();
    warn("a\033[2Jb");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "tarnfw: a?[2Jb\n");
}

TEST(CountedTest, OneIsSingular) {
    EXPECT_EQ(counted(0, "rule"), "0 rules");
    EXPECT_EQ(counted(1, "rule"), "1 rule");
    EXPECT_EQ(counted(2, "rule"), "2 rules");
}

}  // namespace
}  // namespace tarnfw
