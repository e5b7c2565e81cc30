// The country database: text forms, records, usable countries, and listing.

#include <dirent.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwGeoip.h"

namespace {

using FW::FW_GEOIP;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::ValuesIn;

using Texts = std::vector<std::string>;
using Words = std::vector<std::uint32_t>;

// The bytes of numbers as the host keeps them.
std::string nativeBytes(const Words& words) {
    std::string bytes(words.size() * sizeof(std::uint32_t), '\0');
    if (!words.empty()) {
        std::memcpy(&bytes[0], words.data(), bytes.size());
    }
    return bytes;
}

in6_addr addressOf(const std::array<std::uint32_t, 4>& words) {
    in6_addr address{};
    std::memcpy(&address, words.data(), sizeof(address));
    return address;
}

// Ranges as "begin-end"; an object with other members shows as its JSON text.
Texts rangesOf(const Json::Value& ranges) {
    Texts found;
    for (const Json::Value& range : ranges) {
        found.push_back(range.size() == 2 && range.isMember("ip_begin") && range.isMember("ip_end")
                            ? range["ip_begin"].asString() + "-" + range["ip_end"].asString()
                            : range.toStyledString());
    }
    return found;
}

std::size_t openDescriptors() {
    return filesIn("/proc/self/fd").size();
}

// During its life no more files can be opened.
class NoMoreFiles {
public:
    NoMoreFiles() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        const rlimit none = {0, before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoMoreFiles() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
    NoMoreFiles(const NoMoreFiles&) = delete;
    NoMoreFiles& operator=(const NoMoreFiles&) = delete;

private:
    rlimit before_{};
};

class GeoipTest : public LibraryTest {
protected:
    static void addFile(const std::string& name, const std::string& content) {
        writeFile(kGeoipDir + name, content);
    }

    static Texts read(const std::string& country, bool ipv6) {
        Json::Value ranges;
        EXPECT_TRUE(FW_GEOIP().countryIPGet(country, ipv6, ranges));
        return rangesOf(ranges);
    }
};

// ---- Text forms ----

struct Ipv4Case {
    std::string name;
    unsigned int address;
    std::string text;
};

std::ostream& operator<<(std::ostream& stream, const Ipv4Case& c) {
    return stream << c.name;
}

const Ipv4Case kIpv4[] = {
    {"Private", 0x0a000001, "10.0.0.1"},
    {"Zero", 0, "0.0.0.0"},
    {"Highest", 0xffffffff, "255.255.255.255"},
    {"FourDifferentBytes", 0x01020304, "1.2.3.4"},
    {"NoLeadingZeros", 0xc0a80a64, "192.168.10.100"},
};

class Ipv4TextTest : public GeoipTest, public ::testing::WithParamInterface<Ipv4Case> {};

TEST_P(Ipv4TextTest, HasTheBytesFromTheMostSignificantDown) {
    char buffer[64] = "";

    const int length = FW_GEOIP().Ipv4ToString(GetParam().address, buffer, sizeof(buffer));

    EXPECT_EQ(buffer, GetParam().text);
    EXPECT_EQ(length, static_cast<int>(GetParam().text.size()));
}

INSTANTIATE_TEST_SUITE_P(Addresses, Ipv4TextTest, ValuesIn(kIpv4),
                         [](const auto& tested) { return tested.param.name; });

struct Ipv6Case {
    std::string name;
    std::array<std::uint32_t, 4> words;
    std::string text;
};

std::ostream& operator<<(std::ostream& stream, const Ipv6Case& c) {
    return stream << c.name;
}

const Ipv6Case kIpv6[] = {
    {"One", {0, 0, 0, 1}, "0000:0000:0000:0000:0000:0000:0000:0001"},
    {"Zero", {0, 0, 0, 0}, "0000:0000:0000:0000:0000:0000:0000:0000"},
    {"Documentation", {0x20010db8, 0, 0, 1}, "2001:0db8:0000:0000:0000:0000:0000:0001"},
    {"SixteenDifferentBytes",
     {0x01234567, 0x89abcdef, 0xfedcba98, 0x76543210},
     "0123:4567:89ab:cdef:fedc:ba98:7654:3210"},
    {"Highest",
     {0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff},
     "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
};

class Ipv6TextTest : public GeoipTest, public ::testing::WithParamInterface<Ipv6Case> {};

TEST_P(Ipv6TextTest, HasEightFullGroupsInLowerCase) {
    in6_addr address = addressOf(GetParam().words);
    char buffer[64] = "";

    const int length = FW_GEOIP().Ipv6ToString(&address, buffer, sizeof(buffer));

    EXPECT_EQ(buffer, GetParam().text);
    EXPECT_EQ(length, 39);
}

INSTANTIATE_TEST_SUITE_P(Addresses, Ipv6TextTest, ValuesIn(kIpv6),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(GeoipTest, ShortBuffersAreCutAndTheWholeLengthIsReturned) {
    char buffer[64];
    std::memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(FW_GEOIP().Ipv4ToString(0x0a000001, buffer, 5), 8);
    EXPECT_STREQ(buffer, "10.0");
    EXPECT_EQ(buffer[5], '#');

    std::memset(buffer, '#', sizeof(buffer));
    in6_addr address = addressOf({0x20010db8, 0, 0, 1});
    EXPECT_EQ(FW_GEOIP().Ipv6ToString(&address, buffer, 10), 39);
    EXPECT_STREQ(buffer, "2001:0db8");
    EXPECT_EQ(buffer[10], '#');
}

TEST_F(GeoipTest, RangesGetBothEnds) {
    Json::Value range;
    FW_GEOIP().ParseV4(0x0a000000, 0x0affffff, range);
    EXPECT_EQ(range, parseJson(R"({"ip_begin": "10.0.0.0", "ip_end": "10.255.255.255"})"));

    in6_addr begin = addressOf({0x20010db8, 0, 0, 0});
    in6_addr end = addressOf({0x20010db8, 0xffffffff, 0xffffffff, 0xffffffff});
    FW_GEOIP().ParseV6(&begin, &end, range);
    EXPECT_EQ(range, parseJson(R"({"ip_begin": "2001:0db8:0000:0000:0000:0000:0000:0000",
                                   "ip_end": "2001:0db8:ffff:ffff:ffff:ffff:ffff:ffff"})"));
}

// ---- Reading a country ----

TEST_F(GeoipTest, NativeOrderNumbersBecomeARange) {
    addFile("CN.iv4", nativeBytes({0x0a000000, 0x0affffff}));

    EXPECT_THAT(read("CN", false), ElementsAre("10.0.0.0-10.255.255.255"));

    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(GeoipTest, Ipv6RecordsBecomeRanges) {
    addFile("CN.iv6", nativeBytes({0x20010db8, 0, 0, 0, 0x20010db8, 0, 0, 0xffff,  //
                                   0, 0, 0, 1, 0, 0, 0, 1}));

    EXPECT_THAT(read("CN", true), ElementsAre("2001:0db8:0000:0000:0000:0000:0000:0000-"
                                              "2001:0db8:0000:0000:0000:0000:0000:ffff",
                                              "0000:0000:0000:0000:0000:0000:0000:0001-"
                                              "0000:0000:0000:0000:0000:0000:0000:0001"));
}

TEST_F(GeoipTest, FamilyChoosesTheFile) {
    addFile("CN.iv4", nativeBytes({1, 2}));
    addFile("CN.iv6", nativeBytes({0, 0, 0, 3, 0, 0, 0, 4}));

    EXPECT_THAT(read("CN", false), ElementsAre("0.0.0.1-0.0.0.2"));
    EXPECT_THAT(read("CN", true), ElementsAre("0000:0000:0000:0000:0000:0000:0000:0003-"
                                              "0000:0000:0000:0000:0000:0000:0000:0004"));
}

TEST_F(GeoipTest, TwelveBytesAreTwoRangesTheSecondEndingAtZero) {
    addFile("CN.iv4", nativeBytes({0x0a000000, 0x0affffff, 0xc0a80001}));

    EXPECT_THAT(read("CN", false), ElementsAre("10.0.0.0-10.255.255.255", "192.168.0.1-0.0.0.0"));
}

TEST_F(GeoipTest, StartedNumberIsCompletedWithZeroBytes) {
    addFile("CN.iv4", nativeBytes({0xffffffff}).substr(0, 1));
    // One byte of the host's order: the least significant one first, or the most.
    const bool littleEndian = nativeBytes({1})[0] == 1;

    EXPECT_THAT(read("CN", false),
                ElementsAre(littleEndian ? "0.0.0.255-0.0.0.0" : "255.0.0.0-0.0.0.0"));
}

TEST_F(GeoipTest, PartialIpv6RecordIsCompletedWithZeroBytes) {
    addFile("CN.iv6", nativeBytes({0, 0, 0, 1, 0, 0, 0, 2, 0x20010db8, 7}));

    EXPECT_THAT(read("CN", true), ElementsAre("0000:0000:0000:0000:0000:0000:0000:0001-"
                                              "0000:0000:0000:0000:0000:0000:0000:0002",
                                              "2001:0db8:0000:0007:0000:0000:0000:0000-"
                                              "0000:0000:0000:0000:0000:0000:0000:0000"));
}

TEST_F(GeoipTest, RecordsAcrossChunksAreAllReadInOrder) {
    // 4096 bytes are 512 IPv4 records; what is left of a chunk must not show in the next one.
    for (const std::size_t numbers : {1023U, 1024U, 1025U, 1026U, 2048U, 2049U}) {
        Words words;
        Texts expected;
        for (std::uint32_t i = 0; i < numbers; ++i) {
            words.push_back(0x0a000001 + i);
        }
        const auto text = [&](std::size_t i) {
            char buffer[64] = "";
            (void)FW_GEOIP().Ipv4ToString(i < numbers ? words[i] : 0, buffer, sizeof(buffer));
            return std::string(buffer);
        };
        for (std::size_t i = 0; i < numbers; i += 2) {
            expected.push_back(text(i) + "-" + text(i + 1));
        }
        addFile("CN.iv4", nativeBytes(words));

        EXPECT_EQ(read("CN", false), expected) << numbers << " numbers";
    }
}

TEST_F(GeoipTest, Ipv6RecordsAcrossChunksAreAllReadInOrder) {
    // 4096 bytes are 128 IPv6 records; the 130th is half there.
    Words words;
    for (std::uint32_t i = 0; i < 129 * 8 + 4; ++i) {
        words.push_back(i % 4 == 3 ? i : 0);
    }
    addFile("CN.iv6", nativeBytes(words));

    const Texts ranges = read("CN", true);

    ASSERT_EQ(ranges.size(), 130U);
    EXPECT_EQ(ranges[127],  // words 1016 to 1023
              "0000:0000:0000:0000:0000:0000:0000:03fb-0000:0000:0000:0000:0000:0000:0000:03ff");
    EXPECT_EQ(ranges[128],
              "0000:0000:0000:0000:0000:0000:0000:0403-0000:0000:0000:0000:0000:0000:0000:0407");
    EXPECT_EQ(ranges[129],
              "0000:0000:0000:0000:0000:0000:0000:040b-0000:0000:0000:0000:0000:0000:0000:0000");
}

TEST_F(GeoipTest, EmptyFileIsReadAndAppendsNothing) {
    addFile("CN.iv4", "");
    Json::Value scratch = "untouched";
    Json::Value ranges;

    EXPECT_EQ(FW_GEOIP().geoipFileRead("CN", scratch, ranges, false), 0);

    EXPECT_TRUE(ranges.isNull());
    EXPECT_EQ(scratch, "untouched");
    EXPECT_TRUE(FW_GEOIP().countryIPGet("CN", false, ranges));
    EXPECT_TRUE(ranges.isNull());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(GeoipTest, ScratchIsClearedForEachRecordAndHoldsTheLastOne) {
    addFile("CN.iv4", nativeBytes({1, 2, 3, 4}));
    Json::Value scratch;
    scratch["old"] = true;
    Json::Value ranges;

    EXPECT_EQ(FW_GEOIP().geoipFileRead("CN", scratch, ranges, false), 0);

    EXPECT_EQ(scratch, parseJson(R"({"ip_begin": "0.0.0.3", "ip_end": "0.0.0.4"})"));
    EXPECT_EQ(ranges, parseJson(R"([{"ip_begin": "0.0.0.1", "ip_end": "0.0.0.2"},
                                    {"ip_begin": "0.0.0.3", "ip_end": "0.0.0.4"}])"));
}

TEST_F(GeoipTest, ScratchIsClearedForEachIpv6RecordToo) {
    addFile("CN.iv6", nativeBytes({0, 0, 0, 1, 0, 0, 0, 2}));
    Json::Value scratch;
    scratch["old"] = true;
    Json::Value ranges;

    EXPECT_EQ(FW_GEOIP().geoipFileRead("CN", scratch, ranges, true), 0);

    EXPECT_THAT(rangesOf(ranges), ElementsAre("0000:0000:0000:0000:0000:0000:0000:0001-"
                                              "0000:0000:0000:0000:0000:0000:0000:0002"));
    EXPECT_EQ(scratch, ranges[0]);
}

TEST_F(GeoipTest, RangesAreAppendedToWhatIsThere) {
    addFile("CN.iv4", nativeBytes({1, 2}));
    addFile("RU.iv4", nativeBytes({3, 4}));
    Json::Value ranges;

    EXPECT_TRUE(FW_GEOIP().countryIPGet("CN", false, ranges));
    EXPECT_TRUE(FW_GEOIP().countryIPGet("RU", false, ranges));

    EXPECT_THAT(rangesOf(ranges), ElementsAre("0.0.0.1-0.0.0.2", "0.0.0.3-0.0.0.4"));
}

TEST_F(GeoipTest, MissingFileIsLoggedWithItsPathAndALineFeed) {
    addFile("CN.iv4", nativeBytes({1, 2}));
    Json::Value scratch;
    Json::Value ranges;

    EXPECT_EQ(FW_GEOIP().geoipFileRead("XX", scratch, ranges, false), -1);
    EXPECT_EQ(FW_GEOIP().geoipFileRead("CN", scratch, ranges, true), -1);
    EXPECT_EQ(FW_GEOIP().geoipFileRead("cn", scratch, ranges, false), -1);

    EXPECT_TRUE(scratch.isNull());
    EXPECT_TRUE(ranges.isNull());
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwGeoip: Failed to open file /usr/share/xt_geoip/XX.iv4\n",
                            "err fwGeoip: Failed to open file /usr/share/xt_geoip/CN.iv6\n",
                            "err fwGeoip: Failed to open file /usr/share/xt_geoip/cn.iv4\n"));
}

TEST_F(GeoipTest, CountryWithoutFileFailsWithALineOfItsOwn) {
    Json::Value ranges;

    EXPECT_FALSE(FW_GEOIP().countryIPGet("XX", true, ranges));

    EXPECT_TRUE(ranges.isNull());
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwGeoip: Failed to open file /usr/share/xt_geoip/XX.iv6\n",
                            "err fwGeoip: Failed to read geoip database"));
}

TEST_F(GeoipTest, ReadErrorEndsTheReadingQuietly) {
    // A directory can be opened for reading, but reading it fails.
    ASSERT_EQ(mkdir((kGeoipDir + "CN.iv4").c_str(), 0755), 0);
    Json::Value scratch;
    Json::Value ranges;

    EXPECT_EQ(FW_GEOIP().geoipFileRead("CN", scratch, ranges, false), 0);

    EXPECT_TRUE(ranges.isNull());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- Usable countries ----

struct UsableCase {
    std::string name;
    Texts countries;
    bool ipv6;
    Texts before;
    Texts usable;
    Texts log;
};

std::ostream& operator<<(std::ostream& stream, const UsableCase& c) {
    return stream << c.name;
}

// The database: US.iv4 and CN.iv4 with a record, T7.iv4 one byte short, T8.iv4 and T8.iv6 exactly
// long enough, RU.iv6 with a record, E0.iv4 empty.
const UsableCase kUsable[] = {
    {"MissingCountryIsDropped", {"US", "XX"}, false, {}, {"US"}, {}},
    {"OrderIsKept", {"US", "CN", "T8"}, false, {}, {"US", "CN", "T8"}, {}},
    {"OtherOrderIsKept", {"T8", "XX", "CN", "US"}, false, {}, {"T8", "CN", "US"}, {}},
    {"DuplicatesAreKept", {"US", "US"}, false, {}, {"US", "US"}, {}},
    {"SevenBytesAreTooShort", {"T7", "E0"}, false, {}, {}, {}},
    {"EightBytesAreEnough", {"T8"}, false, {}, {"T8"}, {}},
    {"EightBytesAreEnoughForIpv6", {"T8"}, true, {}, {"T8"}, {}},
    {"FamiliesHaveTheirOwnFiles", {"US", "RU"}, true, {}, {"RU"}, {}},
    {"CaseMatters", {"us"}, false, {}, {}, {}},
    {"EmptyCodeHasNoFile", {""}, false, {}, {}, {}},
    {"EndlessCodeHasNoFile", {std::string(5000, 'U')}, false, {}, {}, {}},
    {"NoCountryIsLogged", {}, false, {}, {}, {"err fwGeoip: There are no country"}},
    {"NoCountryForIpv6IsLogged", {}, true, {}, {}, {"err fwGeoip: There are no country"}},
    {"ResultIsAppended", {"US"}, false, {"CN"}, {"CN", "US"}, {}},
    {"WhatIsThereCountsAsUsable", {"XX"}, false, {"CN"}, {"CN"}, {}},
};

class UsableTest : public GeoipTest, public ::testing::WithParamInterface<UsableCase> {
protected:
    UsableTest() {
        addFile("US.iv4", nativeBytes({1, 2}));
        addFile("CN.iv4", nativeBytes({1, 2, 3, 4}));
        addFile("RU.iv6", nativeBytes({1, 2, 3, 4, 5, 6, 7, 8}));
        addFile("T7.iv4", "1234567");
        addFile("T8.iv4", "12345678");
        addFile("T8.iv6", "12345678");
        addFile("E0.iv4", "");
    }
};

TEST_P(UsableTest, AreThoseWithAFileForTheFamily) {
    const UsableCase& c = GetParam();
    Texts usable = c.before;

    EXPECT_EQ(FW_GEOIP().geoipSanctify(c.countries, c.ipv6, usable), !c.usable.empty());

    EXPECT_EQ(usable, c.usable);
    EXPECT_EQ(logLines(platform_), c.log);
}

INSTANTIATE_TEST_SUITE_P(Lists, UsableTest, ValuesIn(kUsable),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(GeoipTest, NoCountryFailsWhateverIsThereAlready) {
    Texts usable = {"CN"};

    EXPECT_FALSE(FW_GEOIP().geoipSanctify({}, false, usable));

    EXPECT_THAT(usable, ElementsAre("CN"));
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwGeoip: There are no country"));
}

TEST_F(GeoipTest, LinksCountByTheFileBehindThem) {
    addFile("whole", "12345678");
    addFile("short", "1234567");
    ASSERT_EQ(symlink("whole", (kGeoipDir + "AA.iv4").c_str()), 0);
    ASSERT_EQ(symlink("short", (kGeoipDir + "BB.iv4").c_str()), 0);
    ASSERT_EQ(symlink("nowhere-but-long", (kGeoipDir + "CC.iv4").c_str()), 0);
    Texts usable;

    EXPECT_TRUE(FW_GEOIP().geoipSanctify({"AA", "BB", "CC"}, false, usable));

    EXPECT_THAT(usable, ElementsAre("AA"));
}

// ---- Listing ----

TEST_F(GeoipTest, CountriesAreTheFirstTwoCharactersOfIpv4FileNames) {
    for (const char* name : {"CN.iv4", "RU.iv4", "RU.iv6", "DE.iv6", "README", "us.IV4", "US.iv",
                             "GBR.iv4", "q.iv4"}) {
        addFile(name, "");
    }
    Texts countries;

    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_THAT(countries, UnorderedElementsAre("CN", "RU", "GB", "q."));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(GeoipTest, BackupOfAFileIsListedAsCountryBa) {
    addFile("backup.iv4.old", "");
    Texts countries;

    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_THAT(countries, ElementsAre("ba"));
}

TEST_F(GeoipTest, NameMayBeginWithTheEndingAndBeADirectory) {
    addFile(".iv4", "");
    ASSERT_EQ(mkdir((kGeoipDir + "zz.iv4").c_str(), 0755), 0);
    Texts countries;

    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_THAT(countries, UnorderedElementsAre(".i", "zz"));
}

TEST_F(GeoipTest, DuplicatesAreListedAgain) {
    addFile("CN.iv4", "");
    addFile("CN.iv4.bak", "");
    Texts countries = {"CN"};

    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_THAT(countries, ElementsAre("CN", "CN", "CN"));
}

TEST_F(GeoipTest, ListingFollowsTheDirectorysOrder) {
    for (const char* first : {"Q", "A", "Z", "M", "B"}) {
        for (const char* second : {"Y", "C", "X", "A"}) {
            addFile(std::string(first) + second + ".iv4", "");
        }
    }
    Texts inDirectoryOrder;
    DIR* directory = opendir(kGeoipDir.c_str());
    ASSERT_NE(directory, nullptr);
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            inDirectoryOrder.push_back(std::string(entry->d_name).substr(0, 2));
        }
    }
    closedir(directory);
    Texts countries;

    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_EQ(countries, inDirectoryOrder);
    EXPECT_EQ(countries.size(), 20U);
}

TEST_F(GeoipTest, EmptyDatabaseListsNothing) {
    Texts countries;
    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));
    EXPECT_THAT(countries, IsEmpty());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(GeoipTest, DirectoryThatCannotBeOpenedIsLogged) {
    addFile("CN.iv4", "");
    Texts countries = {"kept"};
    bool listed = true;
    {
        const NoMoreFiles limit;
        listed = FW_GEOIP().countryEnum(countries);
    }

    EXPECT_FALSE(listed);
    EXPECT_THAT(countries, ElementsAre("kept"));
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwGeoip: Failed to opendir /usr/share/xt_geoip/"));
}

// ---- What is left open ----

TEST_F(GeoipTest, NothingStaysOpen) {
    addFile("CN.iv4", nativeBytes({1, 2}));
    addFile("CN.iv6", nativeBytes({1, 2, 3}));
    const std::size_t before = openDescriptors();
    Json::Value ranges;
    Texts countries;

    EXPECT_TRUE(FW_GEOIP().countryIPGet("CN", false, ranges));
    EXPECT_TRUE(FW_GEOIP().countryIPGet("CN", true, ranges));
    EXPECT_FALSE(FW_GEOIP().countryIPGet("XX", true, ranges));
    EXPECT_TRUE(FW_GEOIP().countryEnum(countries));

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(GeoipTest, NothingStaysOpenWhenTheRangesAreNoArray) {
    addFile("CN.iv4", nativeBytes({1, 2}));
    addFile("CN.iv6", nativeBytes({0, 0, 0, 1, 0, 0, 0, 2}));
    const std::size_t before = openDescriptors();
    Json::Value ranges = "no array";

    EXPECT_THROW((void)FW_GEOIP().countryIPGet("CN", false, ranges), Json::Exception);
    EXPECT_THROW((void)FW_GEOIP().countryIPGet("CN", true, ranges), Json::Exception);

    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
