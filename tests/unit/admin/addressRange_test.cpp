// Addresses, networks and ranges as rules have them.
#include "tarnfwadmin/addressRange.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

std::string textOf(const std::optional<AddressRange>& range) {
    return range ? spelled(range->first) + "-" + spelled(range->last) : "none";
}

struct NetworkCase {
    const char* address;
    const char* mask;
    const char* range;
};

std::ostream& operator<<(std::ostream& out, const NetworkCase& c) {
    return out << c.address << "/" << c.mask;
}

class NetworkTest : public testing::TestWithParam<NetworkCase> {};

TEST_P(NetworkTest, HasTheseEnds) {
    const NetworkCase& c = GetParam();
    EXPECT_EQ(textOf(networkFrom(c.address, c.mask)), c.range);
}

INSTANTIATE_TEST_SUITE_P(
    AddressRange, NetworkTest,
    testing::Values(NetworkCase{"192.168.1.77", "24", "192.168.1.0-192.168.1.255"},
                    NetworkCase{"192.168.1.0", "255.255.255.0", "192.168.1.0-192.168.1.255"},
                    NetworkCase{"10.1.2.3", "255.255.240.0", "10.1.0.0-10.1.15.255"},
                    NetworkCase{"10.1.2.3", "32", "10.1.2.3-10.1.2.3"},
                    NetworkCase{"10.1.2.3", "0", "0.0.0.0-255.255.255.255"},
                    NetworkCase{"10.1.2.3", "0.0.0.0", "0.0.0.0-255.255.255.255"},
                    NetworkCase{"10.1.2.3", "33", "none"},
                    NetworkCase{"10.1.2.3", "255.0.255.0", "none"},
                    NetworkCase{"10.1.2.3", "0.0.0.255", "none"},
                    NetworkCase{"10.1.2.3", "", "none"}, NetworkCase{"10.1.2.3", "-1", "none"},
                    NetworkCase{"10.1.2.3", "+8", "none"}, NetworkCase{"10.1.2", "24", "none"},
                    NetworkCase{"2001:db8::5", "127", "2001:db8::4-2001:db8::5"},
                    NetworkCase{"2001:db8::5", "128", "2001:db8::5-2001:db8::5"},
                    NetworkCase{"2001:db8::5", "129", "none"},
                    NetworkCase{"2001:db8::5",
                                "ffff:ffff::", "2001:db8::-2001:db8:ffff:ffff:ffff:ffff:ffff:ffff"},
                    NetworkCase{"2001:db8::5", "ffff:0:ffff::", "none"},
                    NetworkCase{"2001:db8::5", "255.0.0.0", "none"}));

TEST(AddressFromTest, TakesWholeAddressesOnly) {
    for (const char* const text : {"10.0.0.1", "0.0.0.0", "::", "2001:db8::1", "::ffff:10.0.0.1"}) {
        EXPECT_TRUE(addressFrom(text)) << text;
    }
    for (const char* const text : {"", " ", "10.0.0", "10.0.0.256", "10.0.0.1 ", "010.0.0.1/8",
                                   "fe80::1%lo", "2001:db8:::1", "localhost"}) {
        EXPECT_FALSE(addressFrom(text)) << text;
    }
}

TEST(SpelledTest, IsTheShortestSpelling) {
    EXPECT_EQ(spelled(*addressFrom("10.0.0.1")), "10.0.0.1");
    EXPECT_EQ(spelled(*addressFrom("2001:0DB8:0:0:0:0:0:1")), "2001:db8::1");
    EXPECT_EQ(spelled(*addressFrom("0:0::0")), "::");
    EXPECT_EQ(spelled(*addressFrom("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")),
              "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(SpelledTest, ARangeIsANetworkWhereItCanBe) {
    const auto range = [](const char* first, const char* last) {
        return spelled(*rangeFrom(first, last));
    };
    EXPECT_EQ(range("10.0.0.5", "10.0.0.5"), "10.0.0.5");
    EXPECT_EQ(range("10.0.0.4", "10.0.0.5"), "10.0.0.4/31");
    EXPECT_EQ(range("10.0.0.5", "10.0.0.6"), "10.0.0.5-10.0.0.6");
    EXPECT_EQ(range("10.0.0.0", "10.0.0.254"), "10.0.0.0-10.0.0.254");
    EXPECT_EQ(range("172.16.0.0", "172.31.255.255"), "172.16.0.0/12");
    EXPECT_EQ(spelled(wholeFamily(false)), "0.0.0.0/0");
    EXPECT_EQ(spelled(wholeFamily(true)), "::/0");
    EXPECT_EQ(range("fe80::", "febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff"), "fe80::/10");
    EXPECT_EQ(range("2001:db8::1", "2001:db8::2"), "2001:db8::1-2001:db8::2");
}

TEST(RangeFromTest, NeedsOneFamilyAndAscendingEnds) {
    EXPECT_EQ(textOf(rangeFrom("10.0.0.5", "10.0.0.9")), "10.0.0.5-10.0.0.9");
    EXPECT_EQ(textOf(rangeFrom("10.0.0.5", "10.0.0.5")), "10.0.0.5-10.0.0.5");
    EXPECT_EQ(textOf(rangeFrom("10.0.0.9", "10.0.0.5")), "none");
    EXPECT_EQ(textOf(rangeFrom("9.0.0.0", "10.0.0.0")), "9.0.0.0-10.0.0.0");
    EXPECT_EQ(textOf(rangeFrom("10.0.0.5", "2001:db8::1")), "none");
    EXPECT_EQ(textOf(rangeFrom("10.0.0.5", "")), "none");
}

TEST(AddressRangeTest, ContainsItsEndsAndNothingOfTheOtherFamily) {
    const AddressRange range = *rangeFrom("10.0.0.5", "10.0.0.9");
    EXPECT_TRUE(range.contains(*addressFrom("10.0.0.5")));
    EXPECT_TRUE(range.contains(*addressFrom("10.0.0.9")));
    EXPECT_FALSE(range.contains(*addressFrom("10.0.0.10")));
    EXPECT_FALSE(range.contains(*addressFrom("10.0.0.4")));
    EXPECT_FALSE(range.contains(*addressFrom("::10.0.0.7")));
    EXPECT_TRUE(range.contains(*rangeFrom("10.0.0.6", "10.0.0.9")));
    EXPECT_FALSE(range.contains(*rangeFrom("10.0.0.6", "10.0.0.11")));
    EXPECT_TRUE(wholeFamily(false).contains(range));
    EXPECT_FALSE(wholeFamily(true).contains(range));
    EXPECT_TRUE(wholeFamily(true).contains(*networkFrom("2001:db8::", "32")));
}

}  // namespace
}  // namespace tarnfw
