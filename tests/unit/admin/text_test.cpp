#include "tarnfwadmin/text.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

TEST(PrintableTest, NothingThatATerminalObeysIsLeft) {
    const struct {
        const char* name;
        std::string text;
        const char* shown;
    } cases[] = {
        {"Ascii", "eth0 ~", "eth0 ~"},
        {"OtherLetters", "B\u00fcro \u65e5\u672c \U0001f525 \u00a0",
         "B\u00fcro \u65e5\u672c \U0001f525 \u00a0"},
        {"Escape", "\x1b]0;T\x07\x1b[31mR", "?]0;T??[31mR"},
        {"LineBreaksAndTab", "a\nb\rc\td", "a?b?c?d"},
        {"Nul", std::string("a\0b", 3), "a?b"},
        {"Delete", "a\x7f", "a?"},
        {"C1", "C\u009b31m\u0080\u009f", "C?31m??"},
        {"Override", "B\u202e\u202agnp", "B??gnp"},
        {"Isolates", "\u2066\u2069\u200e\u200f\u061c", "?????"},
        {"Separators", "a\u2028\u2029b", "a??b"},
        {"BareC1Byte",
         "a\x9b"
         "31m",
         "a?31m"},
        {"TruncatedAtTheEnd", "a\xe2\x80", "a??"},
        {"TruncatedInside",
         "\xe2\x80"
         "a",
         "??a"},
        {"LongerThanNeeded", "\xc0\x9b", "??"},
        {"LongEscape", "\xe0\x80\x9b", "???"},
        {"Surrogate", "\xed\xa0\x80", "???"},
        {"TooLarge", "\xf4\x90\x80\x80", "????"},
        {"NoLeadByte", "\xff\xfe", "??"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printable(c.text), c.shown) << c.name;
    }
}

TEST(PrintableJsonTest, HasEscapesForWhatATerminalObeys) {
    EXPECT_EQ(printableJson(
                  "{\n  \"B\u00fcro \\u001b\" : \"\u009b\u0080\x7f\u061c\u200e\u202e\u2066\"\n}"),
              "{\n  \"B\u00fcro \\u001b\" : "
              "\"\\u009b\\u0080\\u007f\\u061c\\u200e\\u202e\\u2066\"\n}");
    EXPECT_EQ(printableJson("\"a\x9b"
                            "b\""),
              "\"a\\ufffd"
              "b\"");
}

TEST(ShellWordTest, IsQuotedUnlessItIsPlain) {
    for (const char* const plain : {"home", "eth0.7", "10.0.0.0/8", "22-23,80", "--v4", "Büro"}) {
        EXPECT_EQ(shellWord(plain), plain);
    }
    EXPECT_EQ(shellWord(""), "''");
    EXPECT_EQ(shellWord("my home"), "'my home'");
    EXPECT_EQ(shellWord("it's"), "'it'\\''s'");
    for (const char* const special :
         {"a;b", "$HOME", "~", "*", "a\"b", "a\\b", "#1", "a&b", "!x"}) {
        EXPECT_EQ(shellWord(special), "'" + std::string(special) + "'");
    }
}

TEST(NearestTest, FindsTypingErrorsAndNothingElse) {
    const std::vector<std::string> known = {"enable", "disable", "profile", "preview"};
    EXPECT_EQ(nearest("enabel", known), "enable");
    EXPECT_EQ(nearest("profiel", known), "profile");
    EXPECT_EQ(nearest("dissable", known), "disable");
    EXPECT_EQ(nearest("prof", known), "profile");
    EXPECT_EQ(nearest("pr", known), "") << "two begin with it";
    EXPECT_EQ(nearest("firewall", known), "");
    EXPECT_EQ(nearest("", known), "");
    EXPECT_EQ(nearest("enable", {}), "");
}

TEST(NearestAdapterTest, AnotherNumberIsAnotherAdapter) {
    const std::vector<std::string> known = {"enp3s0", "eth0", "global", "pppoe"};
    EXPECT_EQ(nearestAdapter("eht0", known), "eth0");
    EXPECT_EQ(nearestAdapter("ethh0", known), "eth0");
    EXPECT_EQ(nearestAdapter("eth", known), "eth0") << "the number is missing";
    EXPECT_EQ(nearestAdapter("emp3s0", known), "enp3s0");
    EXPECT_EQ(nearestAdapter("gloabl", known), "global");
    for (const char* const other : {"eth1", "eth10", "eth0.7", "enp3s1", "enp13s0"}) {
        EXPECT_EQ(nearestAdapter(other, known), "") << other;
        EXPECT_NE(nearest(other, known), "") << other << ": similar, but for the number";
    }
}

}  // namespace
}  // namespace tarnfw
