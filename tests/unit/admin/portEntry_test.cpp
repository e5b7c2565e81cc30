// Ports and ranges of ports from texts.
#include "tarnfwadmin/portEntry.h"

#include <string>

#include <gtest/gtest.h>

namespace {

constexpr const char* kNoPorts[] = {"",
                                    "-",
                                    "-1",
                                    "1-",
                                    "65536",
                                    "1-65536",
                                    "1-2-3",
                                    "x",
                                    "022",
                                    "22 ",
                                    " 22",
                                    "+22",
                                    "0x16",
                                    "ssh",
                                    "1:2",
                                    "0-01",
                                    "99999999999999999999"};

TEST(PortEntryTest, ReadsPortsAndRanges) {
    for (const std::string text : {"0", "22", "65535", "0-65535", "6000-6010"}) {
        const auto span = tarnfw::portSpanFrom(text);
        ASSERT_TRUE(span) << text;
        EXPECT_EQ(tarnfw::portSpanText(*span), text);
        EXPECT_EQ(tarnfw::portEntryError(text), "");
    }
    EXPECT_EQ(tarnfw::portSpanText(tarnfw::portSpanFrom("80-80").value()), "80");
}

TEST(PortEntryTest, ReadsNothingElse) {
    for (const std::string text : kNoPorts) {
        EXPECT_FALSE(tarnfw::portEndsFrom(text)) << text;
        EXPECT_FALSE(tarnfw::portSpanFrom(text)) << text;
        EXPECT_EQ(tarnfw::portEntryError(text).find('"' + text + "\" is not a "), 0) << text;
    }
}

TEST(PortEntryTest, RangeThatRunsBackwardsHasEndsOnly) {
    const auto ends = tarnfw::portEndsFrom("20-10");
    ASSERT_TRUE(ends);
    EXPECT_EQ(ends->first, 20);
    EXPECT_EQ(ends->last, 10);
    EXPECT_FALSE(tarnfw::portSpanFrom("20-10"));
    EXPECT_EQ(tarnfw::portEntryError("20-10"), "\"20-10\" is a range that runs backwards");
}

TEST(PortEntryTest, ReadsOnePort) {
    EXPECT_EQ(tarnfw::portFrom("22"), 22);
    EXPECT_FALSE(tarnfw::portFrom("22-22"));
}

TEST(PortEntryTest, CoversItselfAndWhatIsInside) {
    const tarnfw::PortSpan span{10, 20};
    EXPECT_TRUE(tarnfw::covers(span, span));
    EXPECT_TRUE(tarnfw::covers(span, {11, 19}));
    EXPECT_FALSE(tarnfw::covers(span, {9, 20}));
    EXPECT_FALSE(tarnfw::covers(span, {10, 21}));
}

}  // namespace
