#include "tarnserviceconf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hostCall.h"
#include "host_testing.h"
#include "logged.h"
#include "needs.h"
#include "serviceCatalogue.h"
#include "tarncore.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kDefaults = "/usr/tarn/etc.defaults/services.d/";
const std::string kOwn = "/usr/tarn/etc/services.d/";

struct CatalogueFree {
    void operator()(TARNFW_SERVICE_LIST* list) const { TARNFwServiceFree(list); }
};
using Catalogue = std::unique_ptr<TARNFW_SERVICE_LIST, CatalogueFree>;

std::vector<std::string> texts(const TLIBCSZLIST* list) {
    std::vector<std::string> result;
    for (int i = 0; list != nullptr && i < list->nItem; ++i) {
        result.emplace_back(TLIBCSzListGet(list, i));
    }
    return result;
}

// A service as a file has it, on TCP at the other end's `port`.
std::string service(const std::string& name, const std::string& port) {
    return R"({"name": ")" + name + R"(", "title": "Title of )" + name +
           R"(", "dst": {"protocol": "tcp", "ports": [")" + port + R"("]}})";
}

class ServiceConfTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all(kDefaults);
        std::filesystem::remove_all(kOwn);
        clearCapturedLog();
    }

    int load() {
        TARNFW_SERVICE_LIST* list = nullptr;
        const int count = TARNFwServiceEnum(&list);
        catalogue_.reset(list);
        return count;
    }
    // The call fails, and neither gives a catalogue nor touches the caller's.
    bool isUnreadable() {
        auto* const before = reinterpret_cast<TARNFW_SERVICE_LIST*>(this);
        TARNFW_SERVICE_LIST* list = before;
        const int count = TARNFwServiceEnum(&list);
        EXPECT_EQ(TLIBCErrGet(), EIO);
        return count == -1 && list == before;
    }
    const TARNFW_SERVICE* find(const char* name) const {
        return TARNFWServiceFind(catalogue_.get(), name);
    }
    std::vector<std::string> dstPorts(const char* name) const {
        const TARNFW_SERVICE* record = find(name);
        return record == nullptr ? std::vector<std::string>{"no such service"}
                                 : texts(record->dstPorts);
    }

    Catalogue catalogue_;
};

TEST_F(ServiceConfTest, FillsARecordWithBothSides) {
    writeFile(kDefaults + "one.json",
              R"({"name": "odd", "title": "Odd service",
                  "dst": {"protocol": "tcp/udp", "ports": ["53", 6000, "6001-6010"]},
                  "src": {"protocol": "udp", "ports": ["1024-65535"]}})");
    ASSERT_EQ(load(), 1);
    const TARNFW_SERVICE* record = find("odd");
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->name, "odd");
    EXPECT_STREQ(record->title, "Odd service");
    EXPECT_EQ(record->dstProtocol, 3);
    EXPECT_THAT(texts(record->dstPorts), ElementsAre("53", "6000", "6001-6010"));
    EXPECT_EQ(record->srcProtocol, 2);
    EXPECT_THAT(texts(record->srcPorts), ElementsAre("1024-65535"));
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ServiceConfTest, LeavesASideThatIsNotGivenEmpty) {
    writeFile(kDefaults + "one.json", service("ssh", "22"));
    ASSERT_EQ(load(), 1);
    EXPECT_EQ(find("ssh")->srcProtocol, 0);
    EXPECT_EQ(find("ssh")->srcPorts, nullptr);
}

TEST_F(ServiceConfTest, KeepsAnEmptyTitleSoThatTheServiceIsUnusable) {
    writeFile(kDefaults + "one.json",
              R"([{"name": "a", "title": "", "dst": {"protocol": "tcp", "ports": ["1"]}},
                  {"name": "b"}])");
    ASSERT_EQ(load(), 2);
    // The usability flag is read as a number as well.
    int flag = -1;
    std::memcpy(&flag, find("a")->title, sizeof flag);
    EXPECT_EQ(flag, 0);
    EXPECT_STREQ(find("b")->title, "");
    EXPECT_EQ(find("b")->dstPorts, nullptr);
}

TEST_F(ServiceConfTest, NamesAndTitlesMayHave255Bytes) {
    const std::string longest(255, 'n');
    writeFile(kDefaults + "one.json",
              R"({"name": ")" + longest + R"(", "title": ")" + longest + R"("})");
    ASSERT_EQ(load(), 1);
    ASSERT_NE(find(longest.c_str()), nullptr);
    EXPECT_EQ(find(longest.c_str())->title, longest);
}

TEST_F(ServiceConfTest, TheSecondDirectoryOverridesByName) {
    writeFile(kDefaults + "a.json", "[" + service("ssh", "22") + "," + service("http", "80") + "]");
    writeFile(kOwn + "own.json", service("ssh", "2222"));
    ASSERT_EQ(load(), 2);
    EXPECT_THAT(dstPorts("ssh"), ElementsAre("2222"));
    EXPECT_THAT(dstPorts("http"), ElementsAre("80"));
}

TEST_F(ServiceConfTest, TheLastFileInByteOrderWinsWithinADirectory) {
    writeFile(kDefaults + "b.json", service("ssh", "2"));
    writeFile(kDefaults + "a.json", service("ssh", "1"));
    writeFile(kDefaults + "Z.json", service("ssh", "0"));
    ASSERT_EQ(load(), 1);
    EXPECT_THAT(dstPorts("ssh"), ElementsAre("2"));
}

TEST_F(ServiceConfTest, AnInvalidServiceFailsTheWholeCatalogue) {
    writeFile(kDefaults + "a.json", service("ssh", "22"));
    writeFile(kOwn + "a.json", service("ssh", "70000"));
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(AllOf(HasSubstr(kOwn + "a.json"), HasSubstr("(ssh)"),
                                                   HasSubstr("70000"))));
}

TEST_F(ServiceConfTest, ABrokenFileFailsTheWholeCatalogueAndIsLoggedOnce) {
    writeFile(kDefaults + "a.json", service("a", "1"));
    writeFile(kDefaults + "b.json", R"([{"name": "b", )");
    writeFile(kDefaults + "c.json", service("c", "3"));
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(AllOf(HasSubstr(kDefaults + "b.json: not read: "), HasSubstr("Line 1"),
                                  ::testing::Not(HasSubstr("\n")))));
}

TEST_F(ServiceConfTest, EveryFileThatFailsTheCatalogueIsNamedInOneRun) {
    writeFile(kDefaults + "a.json", "[");
    writeFile(kDefaults + "b.json", service("b", "2"), 0664);
    writeFile(kOwn + "c.json", service("c", "x"));
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("a.json"), HasSubstr("b.json"), HasSubstr("c.json")));
}

TEST_F(ServiceConfTest, FilesOfOtherNamesAreNoPartOfIt) {
    for (const char* name : {"a.json~", "b.json.bak", ".c.json", "README", ".json"}) {
        writeFile(kDefaults + name, service("a", "1"));
    }
    EXPECT_EQ(load(), 0);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ServiceConfTest, WhatIsNoRegularFileFailsTheCatalogueAndIsNotWaitedFor) {
    std::filesystem::create_directories(kDefaults + "directory.json");
    ASSERT_EQ(mkfifo((kDefaults + "pipe.json").c_str(), 0600), 0);
    std::filesystem::create_symlink("z.json", kDefaults + "link.json");
    writeFile(kDefaults + "z.json", service("a", "1"));
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(
        logged(LOG_ERR),
        ElementsAre(HasSubstr("Refused " + kDefaults + "directory.json: it is no regular file"),
                    HasSubstr("Refused " + kDefaults + "link.json: it is a symbolic link"),
                    HasSubstr("Refused " + kDefaults + "pipe.json: it is no regular file")));
}

TEST_F(ServiceConfTest, FilesThatOthersMayHaveWrittenFailTheCatalogue) {
    TARN_NEEDS_OTHER_USERS();
    writeFile(kOwn + "foreign.json", service("foreign", "1"));
    ASSERT_EQ(chown((kOwn + "foreign.json").c_str(), 1000, 1000), 0);
    writeFile(kOwn + "group.json", service("group", "2"), 0664);
    writeFile(kOwn + "others.json", service("others", "3"), 0646);
    writeFile(kOwn + "shipped.json", service("shipped", "4"), 0644);
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("foreign.json: it belongs to user 1000"),
                            HasSubstr("group.json: group or others may write it (mode 0664)"),
                            HasSubstr("others.json: group or others may write it (mode 0646)")));
}

TEST_F(ServiceConfTest, AFileThatIsTooLargeFailsTheCatalogue) {
    writeFile(kOwn + "large.json", service("a", "1"));
    std::filesystem::resize_file(kOwn + "large.json", 16 * 1024 * 1024 + 1);
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("large.json: not read: File too large")));
}

TEST_F(ServiceConfTest, WithoutAnyServiceTheListIsUntouched) {
    auto* const before = reinterpret_cast<TARNFW_SERVICE_LIST*>(this);
    TARNFW_SERVICE_LIST* list = before;
    EXPECT_EQ(TARNFwServiceEnum(&list), 0);  // no directory
    writeFile(kDefaults + "a.json", "[]");
    EXPECT_EQ(TARNFwServiceEnum(&list), 0);
    EXPECT_EQ(list, before);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ServiceConfTest, ADirectoryThatCannotBeReadFailsTheCatalogue) {
    writeFile("/usr/tarn/etc.defaults/services.d", "no directory\n");
    writeFile(kOwn + "a.json", service("a", "1"));
    EXPECT_TRUE(isUnreadable());
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("/usr/tarn/etc.defaults/services.d: not read: ")));
    std::filesystem::remove("/usr/tarn/etc.defaults/services.d");
}

TEST_F(ServiceConfTest, FindsEachOfThousands) {
    constexpr int kCount = 5000;
    std::string document = "[";
    for (int i = 0; i < kCount; ++i) {
        document += (i == 0 ? "" : ",") + service("s" + std::to_string(i), std::to_string(i));
    }
    writeFile(kDefaults + "many.json", document + "]");
    ASSERT_EQ(load(), kCount);
    for (int i = 0; i < kCount; ++i) {
        const std::string name = "s" + std::to_string(i);
        ASSERT_THAT(dstPorts(name.c_str()), ElementsAre(std::to_string(i)));
    }
    for (const char* name : {"", "s", "s5000", "t", "S1", "s1 "}) {
        EXPECT_EQ(find(name), nullptr) << name;
    }
}

TEST_F(ServiceConfTest, MissingArgumentsDoNoHarm) {
    EXPECT_LT(TARNFwServiceEnum(nullptr), 0);
    EXPECT_EQ(TLIBCErrGet(), host::kErrorBadParameter);
    EXPECT_EQ(TARNFWServiceFind(nullptr, "ssh"), nullptr);
    writeFile(kDefaults + "a.json", service("a", "1"));
    ASSERT_EQ(load(), 1);
    EXPECT_EQ(find(nullptr), nullptr);
    TARNFwServiceFree(nullptr);
}

// ---- Entries ------------------------------------------------------------------------------------

struct EntryCase {
    const char* name;
    const char* dst;                  ///< the member "dst" of a service
    int protocol;                     ///< 0: the service is invalid
    std::vector<std::string> result;  ///< the ports, or a part of the reason
};

class EntryTest : public ::testing::TestWithParam<EntryCase> {};

TEST_P(EntryTest, IsReadOrInvalidWithAReason) {
    const EntryCase& c = GetParam();
    host::Services services;
    std::vector<std::string> reports;
    const bool whole = host::readServices(
        std::string(R"([{"name": "first"}, {"name": "x", "title": "X", "dst": )") + c.dst +
            R"(}, {"name": "last"}])",
        services, [&](const std::string& text) { reports.push_back(text); });
    EXPECT_EQ(services.count("first"), 1u);
    EXPECT_EQ(services.count("last"), 1u);
    EXPECT_EQ(whole, c.protocol != 0);
    if (c.protocol != 0) {
        ASSERT_EQ(services.count("x"), 1u) << reports.front();
        EXPECT_EQ(services["x"].dst.protocol, c.protocol);
        EXPECT_EQ(services["x"].dst.ports, c.result);
        EXPECT_THAT(reports, IsEmpty());
    } else {
        EXPECT_EQ(services.count("x"), 0u);
        EXPECT_THAT(reports, ElementsAre(AllOf(HasSubstr("service 2 (x) is invalid: \"dst\": "),
                                               HasSubstr(c.result.front()))));
    }
}

const EntryCase kEntries[] = {
    {"Tcp", R"({"protocol": "tcp", "ports": ["80"]})", 1, {"80"}},
    {"Udp", R"({"protocol": "udp", "ports": ["80"]})", 2, {"80"}},
    {"Both", R"({"protocol": "tcp/udp", "ports": ["80"]})", 3, {"80"}},
    {"Code", R"({"protocol": 3, "ports": ["80"]})", 3, {"80"}},
    {"IgmpCode", R"({"protocol": 32})", 32, {"0"}},
    {"IcmpNeedsNoPorts", R"({"protocol": "icmp"})", 4, {"0"}},
    {"IcmpKeepsItsPorts", R"({"protocol": "icmp", "ports": ["8"]})", 4, {"8"}},
    {"Numbers", R"({"protocol": "tcp", "ports": [0, 65535]})", 1, {"0", "65535"}},
    {"LeadingZeros", R"({"protocol": "tcp", "ports": ["0080", "01-02"]})", 1, {"80", "1-2"}},
    {"RangeOfOne", R"({"protocol": "tcp", "ports": ["80-80"]})", 1, {"80-80"}},
    {"NoPorts", R"({"protocol": "tcp", "ports": []})", 1, {}},
    {"Comment", "/* web */ {\"protocol\": \"tcp\", // really\n \"ports\": [80]}", 1, {"80"}},

    {"NoObject", R"("tcp 80")", 0, {"no object"}},
    {"NoProtocol", R"({"ports": ["80"]})", 0, {"\"protocol\" is missing"}},
    {"UnknownProtocol", R"({"protocol": "sctp", "ports": ["80"]})", 0, {"unknown \"protocol\""}},
    {"UnknownCode", R"({"protocol": 6, "ports": ["80"]})", 0, {"unknown \"protocol\""}},
    {"PortsMissing", R"({"protocol": "tcp", "port": ["80"]})", 0, {"\"ports\" is missing"}},
    {"PortsNoArray", R"({"protocol": "tcp", "ports": "80"})", 0, {"\"ports\" is no array"}},
    {"TooHigh", R"({"protocol": "tcp", "ports": ["65536"]})", 0, {"\"65536\""}},
    {"NumberTooHigh", R"({"protocol": "tcp", "ports": [65536]})", 0, {"65535"}},
    {"Negative", R"({"protocol": "tcp", "ports": [-1]})", 0, {"number"}},
    {"Fraction", R"({"protocol": "tcp", "ports": [80.5]})", 0, {"number"}},
    {"Truth", R"({"protocol": "tcp", "ports": [true]})", 0, {"number"}},
    {"Backwards", R"({"protocol": "tcp", "ports": ["6010-6000"]})", 0, {"\"6010-6000\""}},
    {"HalfRange", R"({"protocol": "tcp", "ports": ["6000-"]})", 0, {"\"6000-\""}},
    {"TwoDashes", R"({"protocol": "tcp", "ports": ["1-2-3"]})", 0, {"\"1-2-3\""}},
    {"Blank", R"({"protocol": "tcp", "ports": [" 80"]})", 0, {"\" 80\""}},
    {"Name", R"({"protocol": "tcp", "ports": ["http"]})", 0, {"\"http\""}},
    {"Sign", R"({"protocol": "tcp", "ports": ["+80"]})", 0, {"\"+80\""}},
    {"Endless", R"({"protocol": "tcp", "ports": ["99999999999999999999"]})", 0, {"9999"}},
    {"Empty", R"({"protocol": "tcp", "ports": [""]})", 0, {"\"\""}},
    {"OneOfTwo", R"({"protocol": "tcp", "ports": ["80", "x"]})", 0, {"\"x\""}},
};
INSTANTIATE_TEST_SUITE_P(Cases, EntryTest, ::testing::ValuesIn(kEntries),
                         [](const auto& tested) { return std::string(tested.param.name); });

struct DocumentCase {
    const char* name;
    std::string document;
    const char* reason;
};

class DocumentTest : public ::testing::TestWithParam<DocumentCase> {};

TEST_P(DocumentTest, IsReportedOnceAndChangesNothing) {
    host::Services services;
    services["kept"].title = "Kept";
    std::vector<std::string> reports;
    EXPECT_FALSE(host::readServices(GetParam().document, services,
                                    [&](const std::string& text) { reports.push_back(text); }));
    EXPECT_EQ(services.size(), 1u);
    EXPECT_THAT(reports, ElementsAre(HasSubstr(GetParam().reason)));
}

const DocumentCase kDocuments[] = {
    {"Empty", "", "not read"},
    {"Words", "ssh 22", "not read"},
    {"Text", R"("ssh")", "neither a service nor an array"},
    {"Number", "22", "neither a service nor an array"},
    {"SomethingBehindIt", "{\"name\": \"a\"} {\"name\": \"b\"}", "not read"},
    {"SameMemberTwice", R"({"name": "a", "name": "b"})", "not read"},
    {"TooDeep", std::string(100000, '['), "not read"},
    {"EntryIsNoObject", "[22]", "service 1 is invalid: it is no object"},
    {"NoName", R"({"title": "T"})", "\"name\" is no text"},
    {"NameIsNoText", R"({"name": 5})", "\"name\" is no text"},
    {"EmptyName", R"({"name": ""})", "\"name\" is empty"},
    {"LongName", "{\"name\": \"" + std::string(256, 'n') + "\"}", "longer than 255"},
    {"NulInName", R"({"name": "a\u0000b"})",
     "(a?b) is invalid: \"name\" holds a control character"},
    {"LineBreakInName", R"({"name": "a\nb"})", "(a?b) is invalid: \"name\" holds a control"},
    {"LineBreakInTitle", R"({"name": "a", "title": "b\nc"})", "control character"},
    {"LongTitle", "{\"name\": \"a\", \"title\": \"" + std::string(256, 't') + "\"}",
     "longer than 255"},
    {"TitleIsNoText", R"({"name": "a", "title": true})", "\"title\" is no text"},
    {"BrokenSource", R"({"name": "a", "src": []})", "\"src\": it is no object"},
};
INSTANTIATE_TEST_SUITE_P(Cases, DocumentTest, ::testing::ValuesIn(kDocuments),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
