// Lists of rules compared line by line.
#include "tarnfwadmin/ruleDiff.h"

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfwadmin/packetFilter.h"

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A list of one-letter lines.
std::vector<std::string> lines(const std::string& letters) {
    std::vector<std::string> list;
    for (const char letter : letters) {
        list.emplace_back(1, letter);
    }
    return list;
}

std::string textOf(const std::vector<RuleEdit>& edits) {
    std::string text;
    for (const RuleEdit& edit : edits) {
        text += std::string(1, edit.mark) + edit.line + std::to_string(edit.position) + " ";
    }
    return text;
}

struct EditCase {
    const char* name;
    const char* wanted;
    const char* held;
    const char* edits;
};

std::ostream& operator<<(std::ostream& out, const EditCase& c) {
    return out << c.wanted << " and " << c.held;
}

class EditsTest : public testing::TestWithParam<EditCase> {};

TEST_P(EditsTest, AreThese) {
    const EditCase& c = GetParam();
    EXPECT_EQ(textOf(editsBetween(lines(c.wanted), lines(c.held))), c.edits);
}

const EditCase kEdits[] = {
    {"Same", "abc", "abc", " a1  b2  c3 "},
    {"Empty", "", "", ""},
    {"Inserted", "abc", "axbc", " a1 +x2  b3  c4 "},
    {"InsertedFirst", "ab", "xab", "+x1  a2  b3 "},
    {"Deleted", "abc", "ac", " a1 -b2  c2 "},
    {"DeletedLast", "abc", "ab", " a1  b2 -c3 "},
    {"Flushed", "abc", "", "-a1 -b2 -c3 "},
    {"Unwanted", "", "ab", "+a1 +b2 "},
    {"Replaced", "abc", "axc", " a1 -b2 +x2  c3 "},
    {"MovedDown", "abcd", "bcad", "-a1  b1  c2 +a3  d4 "},
    {"MovedUp", "abcd", "cabd", "+c1  a2  b3 -c3  d4 "},
    {"Twice", "aba", "abaa", " a1  b2  a3 +a4 "},
    {"NothingInCommon", "ab", "xy", "-a1 -b2 +x1 +y2 "},
};

INSTANTIATE_TEST_SUITE_P(RuleDiff, EditsTest, testing::ValuesIn(kEdits),
                         [](const auto& c) { return std::string(c.param.name); });

TEST(EditsBetween, LongListsThatShareNothingAreShownWhole) {
    const std::vector<std::string> wanted(5000, "a");
    const std::vector<std::string> held(5000, "b");
    const std::vector<RuleEdit> edits = editsBetween(wanted, held);
    ASSERT_EQ(edits.size(), 10000U);
    EXPECT_EQ(edits.front().mark, '-');
    EXPECT_EQ(edits.back().mark, '+');
    EXPECT_TRUE(hasDifferences(edits));
}

TEST(MissingFrom, CountsAndIgnoresTheOrder) {
    EXPECT_THAT(missingFrom(lines("abc"), lines("cxba")), IsEmpty());
    EXPECT_EQ(textOf(missingFrom(lines("aba"), lines("ab"))), "-a3 ");
    EXPECT_EQ(textOf(missingFrom(lines("ab"), {})), "-a1 -b2 ");
}

TEST(ListingFrom, KnowsPoliciesChainsAndRules) {
    const RuleListing listing = RuleListing::from(
        "-P INPUT ACCEPT\n-P FORWARD DROP\n-N X\n-N EMPTY\n-A INPUT -j X\n"
        "-A X -i lo -j ACCEPT\n-A X -j DROP\n");
    EXPECT_THAT(listing.policies,
                ElementsAre(std::make_pair("FORWARD", "DROP"), std::make_pair("INPUT", "ACCEPT")));
    EXPECT_THAT(listing.rulesOf("X"), ElementsAre("-A X -i lo -j ACCEPT", "-A X -j DROP"));
    EXPECT_THAT(listing.rulesOf("INPUT"), ElementsAre("-A INPUT -j X"));
    EXPECT_THAT(listing.rulesOf("EMPTY"), IsEmpty());
    EXPECT_TRUE(listing.has("EMPTY"));
    EXPECT_TRUE(listing.has("FORWARD"));
    EXPECT_FALSE(listing.has("NOWHERE"));
    EXPECT_THAT(listing.rulesOf("NOWHERE"), IsEmpty());
}

}  // namespace
}  // namespace tarnfw
