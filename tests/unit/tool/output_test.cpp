// Tables, counts and texts, as they go into a file: how they look on a terminal is tested there.
#include "output.h"

#include <clocale>
#include <string>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

std::string printed(const Table& table, std::size_t indent = 0) {
    testing::internal::CaptureStdout();
    table.print(indent);
    return testing::internal::GetCapturedStdout();
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

TEST(TableTest, BytesThatAreNoTextAreKept) {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    Table table;
    table.addRow({{"\xff\xfe"}, {"1"}});
    table.addRow({{"ab"}, {"2"}});
    EXPECT_EQ(printed(table), "\xff\xfe  1\nab  2\n");
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

TEST(PaintedTest, NothingIsColouredInAFile) {
    EXPECT_EQ(painted("blocked", Paint::kBad), "blocked");
}

TEST(CountedTest, OneIsSingular) {
    EXPECT_EQ(counted(0, "rule"), "0 rules");
    EXPECT_EQ(counted(1, "rule"), "1 rule");
    EXPECT_EQ(counted(2, "rule"), "2 rules");
}

}  // namespace
}  // namespace tarnfw
