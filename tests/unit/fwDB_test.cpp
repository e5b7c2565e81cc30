#include "tarnfirewall/fwDB.h"

#include <dlfcn.h>
#include <errno.h>
#include <glob.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "file_lock_testing.h"
#include "library_test.h"
#include "log_lines.h"

namespace fs = std::filesystem;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

// During its life, records what the store asks of the C library, and answers where set to.
class WatchedLibc {
public:
    WatchedLibc() { current() = this; }
    ~WatchedLibc() { current() = nullptr; }
    WatchedLibc(const WatchedLibc&) = delete;
    WatchedLibc& operator=(const WatchedLibc&) = delete;

    static WatchedLibc*& current() {
        static WatchedLibc* libc = nullptr;
        return libc;
    }

    // From now on time() answers `now`, and rand() the numbers one by one and the last one forever.
    void setClockAndRandoms(time_t now, std::vector<int> randoms) {
        now_ = now;
        randoms_ = std::move(randoms);
    }
    bool answersTime() const { return !randoms_.empty(); }
    time_t now() const { return now_; }
    int nextRandom() {
        const auto index = static_cast<std::size_t>(draws++);
        return index < randoms_.size() ? randoms_[index] : randoms_.back();
    }

    int draws = 0;
    int seeds = 0;

    int scans = 0;
    int openGlobs = 0;                  // results not yet freed
    int globResult = 0;                 // not 0: glob() answers it and does nothing
    std::string pattern;                // of the last scan
    int flags = 0;                      // of the last scan
    std::function<void(int)> scanDone;  // called with the number of each scan when it is over

    std::string undeletable;  // unlink() of this path fails

private:
    time_t now_ = 0;
    std::vector<int> randoms_;
};

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

time_t time(time_t* timer) noexcept {
    const WatchedLibc* libc = WatchedLibc::current();
    if (libc == nullptr || !libc->answersTime()) {
        return next<time_t(time_t*)>("time")(timer);
    }
    if (timer != nullptr) {
        *timer = libc->now();
    }
    return libc->now();
}

int rand() noexcept {
    WatchedLibc* libc = WatchedLibc::current();
    return libc != nullptr && libc->answersTime() ? libc->nextRandom() : next<int()>("rand")();
}

void srand(unsigned int seed) noexcept {
    if (WatchedLibc::current() != nullptr) {
        ++WatchedLibc::current()->seeds;
    }
    next<void(unsigned int)>("srand")(seed);
}

int glob(const char* __restrict pattern, int flags, int (*error)(const char*, int),
         glob_t* __restrict result) noexcept {
    WatchedLibc* libc = WatchedLibc::current();
    if (libc != nullptr) {
        ++libc->scans;
        libc->pattern = pattern;
        libc->flags = flags;
        if (libc->globResult != 0) {
            memset(result, 0, sizeof(*result));
            return libc->globResult;
        }
        ++libc->openGlobs;
    }
    return next<int(const char*, int, int (*)(const char*, int), glob_t*)>("glob")(pattern, flags,
                                                                                   error, result);
}

void globfree(glob_t* result) noexcept {
    next<void(glob_t*)>("globfree")(result);
    WatchedLibc* libc = WatchedLibc::current();
    if (libc != nullptr && libc->globResult == 0) {
        --libc->openGlobs;
        if (libc->scanDone) {
            libc->scanDone(libc->scans);
        }
    }
}

int unlink(const char* path) noexcept {
    const WatchedLibc* libc = WatchedLibc::current();
    if (libc != nullptr && libc->undeletable == path) {
        errno = EROFS;
        return -1;
    }
    return next<int(const char*)>("unlink")(path);
}

}  // extern "C"

namespace {

using LockError = boost::interprocess::interprocess_exception;
using Lines = std::vector<std::string>;

const std::string kNoFiles = "err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/";
const std::string kNoIndex = "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/";

std::string fileOf(const std::string& stem) {
    return kProfileDir + stem + ".json";
}

class StoreTest : public LibraryTest {
protected:
    Lines log() const { return logLines(platform_); }

    Json::Value meta() {
        Json::Value made;
        EXPECT_TRUE(store_.profileMetaCreate(made));
        return made;
    }

    WatchedLibc libc_;
    FW::TARNFW_JSON_DB store_;
};

FW::FWPROFILE profileWithRule(const std::string& name, const std::string& adapter) {
    FW::FWPROFILE profile;
    profile.name = name;
    profile.rules[adapter].resize(1);
    profile.rules[adapter][0].name = "rule of " + name;
    return profile;
}

// ---- profileMetaCreate ----

TEST_F(StoreTest, IndexMapsNamesToFileNamesWithoutExtension) {
    storeEmptyProfile("1700000042", "home");
    storeEmptyProfile("-17", "away");
    storeEmptyProfile("a.b", "dotted");
    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "1700000042"},
                                    "away": {"fileName": "-17"},
                                    "dotted": {"fileName": "a.b"}})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StoreTest, IndexIsMadeByOneGlobWhoseReadErrorsAreFatal) {
    storeEmptyProfile("1", "home");
    (void)meta();
    EXPECT_EQ(libc_.scans, 1);
    EXPECT_EQ(libc_.pattern, "/usr/tarn/etc/firewall.d/*.json");
    EXPECT_EQ(libc_.flags, GLOB_ERR);
    EXPECT_EQ(libc_.openGlobs, 0);
}

TEST_F(StoreTest, IndexIgnoresOtherFiles) {
    storeEmptyProfile("1", "home");
    storeSettings(false, "home");
    writeFile(kProfileDir + "2.json.tmp", R"({"name": "temporary"})");
    writeFile(kProfileDir + "3.txt", R"({"name": "text"})");
    writeFile(kProfileDir + ".4.json", R"({"name": "hidden"})");
    writeFile(kProfileDir + "directory/6.json", R"({"name": "below"})");
    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "1"}})"));
    EXPECT_THAT(log(), IsEmpty());
}

struct DocumentCase {
    const char* name;
    const char* document;
};

const DocumentCase kNameless[] = {
    {"NoName", R"({"rules": null})"},
    {"EmptyObject", "{}"},
    {"NameIsANumber", R"({"name": 5})"},
    {"NameIsNull", R"({"name": null})"},
    {"NameIsAnObject", R"({"name": {"name": "x"}})"},
    {"NameIsAList", R"({"name": ["x"]})"},
    {"NameIsABoolean", R"({"name": true})"},
    {"EmptyList", "[]"},
    {"ListOfProfiles", R"([{"name": "x"}])"},
    {"Null", "null"},
    {"Number", "17"},
    {"Text", R"("name")"},
    {"Boolean", "true"},
};

class NamelessTest : public StoreTest, public ::testing::WithParamInterface<DocumentCase> {};

TEST_P(NamelessTest, IsSkippedSilently) {
    writeFile(fileOf("1"), GetParam().document);
    storeEmptyProfile("0", "before");
    storeEmptyProfile("2", "after");
    EXPECT_EQ(meta(), parseJson(R"({"before": {"fileName": "0"}, "after": {"fileName": "2"}})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(NamelessTest, AloneMakesAnIndexWithoutEntries) {
    writeFile(fileOf("1"), GetParam().document);
    EXPECT_EQ(meta().size(), 0u);
    EXPECT_FALSE(store_.profileExist("x"));
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, NamelessTest, ::testing::ValuesIn(kNameless),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(StoreTest, OnlyTheAnswerOneCountsAsExisting) {
    storeEmptyProfile("1", "home");
    for (const int answer : {-1, 2}) {
        platform_.existResult = answer;
        EXPECT_FALSE(FW::TARNFW_JSON_DB().profileExist("home")) << answer;
    }
    platform_.existResult = 1;
    EXPECT_TRUE(FW::TARNFW_JSON_DB().profileExist("home"));
}

TEST_F(StoreTest, DirectoryNamedLikeADocumentIsLoggedAndSkipped) {
    storeEmptyProfile("2", "home");
    ASSERT_EQ(mkdir((kProfileDir + "1.json").c_str(), 0755), 0);
    std::vector<std::string> names;
    EXPECT_TRUE(FW::TARNFW_JSON_DB().profileEnum(names));
    EXPECT_THAT(names, ElementsAre("home"));
    EXPECT_TRUE(loggedError("utils", "Failed to parse Json value of " + kProfileDir + "1.json"));
    EXPECT_TRUE(loggedError("fwDB", "Failed to load json from " + kProfileDir + "1.json"));
}

TEST_F(StoreTest, FilesThatCannotBeLoadedAreLoggedFromTheLastToTheFirstAndSkipped) {
    writeFile(fileOf("1"), "{\"name\": \"broken\"");
    storeEmptyProfile("2", "home");
    writeFile(fileOf("3"), "");

    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "2"}})"));

    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + fileOf("3"),
                                   "err fwDB: Failed to load json from " + fileOf("3"),
                                   "err utils: Failed to parse Json value of " + fileOf("1"),
                                   "err fwDB: Failed to load json from " + fileOf("1")));
}

TEST_F(StoreTest, FileNestedTooDeeplyDoesNotHideTheOthers) {
    writeFile(fileOf("1"), std::string(5000, '[') + std::string(5000, ']'));
    storeEmptyProfile("2", "home");
    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "2"}})"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + fileOf("1"),
                                   "err fwDB: Failed to load json from " + fileOf("1")));
}

TEST_F(StoreTest, OnlyBrokenFilesMakeAnIndexWithoutEntries) {
    writeFile(fileOf("1"), "{");
    EXPECT_EQ(meta().size(), 0u);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + fileOf("1"),
                                   "err fwDB: Failed to load json from " + fileOf("1")));
}

TEST_F(StoreTest, FileWhoseLockStaysTakenIsSkipped) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    const LockHolder holder(kLockDir + "2.json.lock");
    JumpingClock clock(kLockWait);
    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "1"}})"));
    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to get lock timeout",
                                   "err fwDB: Failed to load json from " + fileOf("2")));
}

TEST_F(StoreTest, OfTwoFilesWithOneNameTheOneThatSortsFirstIsUsed) {
    storeProfile("12", profileWithRule("home", "eth1"));
    storeProfile("2", profileWithRule("home", "eth2"));
    storeProfile("11", profileWithRule("home", "eth0"));

    EXPECT_EQ(meta(), parseJson(R"({"home": {"fileName": "11"}})"));
    EXPECT_EQ(store_.profilePathGet("home"), fileOf("11"));
    FW::FWPROFILE profile;
    ASSERT_TRUE(store_.profileGet("home", profile));
    EXPECT_EQ(profile.rules.count("eth0"), 1u);
}

TEST_F(StoreTest, DeletingTheFirstOfTwoFilesWithOneNameUncoversTheSecond) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "home");
    EXPECT_TRUE(store_.profileDelete("home"));
    EXPECT_EQ(store_.profilePathGet("home"), fileOf("2"));
}

TEST_F(StoreTest, LockFileThatCannotBeOpenedRaisesTheLockErrorAndFreesTheScan) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    fs::create_directories(kLockDir + "1.json.lock");
    const int descriptors = openDescriptors();
    Json::Value index;
    EXPECT_THROW((void)store_.profileMetaCreate(index), LockError);
    EXPECT_EQ(libc_.openGlobs, 0);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(lockIsFree(kLockDir + "2.json.lock"));
}

// ---- Without any "*.json" file ----

// An operation, its result, and everything that it logs when nothing matches.
struct EmptyStoreCase {
    const char* name;
    bool result;
    std::function<bool(FW::TARNFW_JSON_DB&)> run;
    Lines log;
};

const EmptyStoreCase kEmptyStore[] = {
    {"MetaCreate",
     false,
     [](FW::TARNFW_JSON_DB& store) {
         Json::Value index;
         return store.profileMetaCreate(index);
     },
     {kNoFiles}},
    {"PathGet",
     false,
     [](FW::TARNFW_JSON_DB& store) { return !store.profilePathGet("home").empty(); },
     {kNoFiles, kNoIndex}},
    {"DbLoad",
     false,
     [](FW::TARNFW_JSON_DB& store) {
         Json::Value document;
         return store.profileDbLoad("home", document);
     },
     {kNoFiles, kNoIndex, "err utils: File  does not exist"}},
    {"DbDump",
     false,
     [](FW::TARNFW_JSON_DB& store) { return store.profileDbDump("home", Json::Value()); },
     {kNoFiles, kNoIndex}},
    {"DbRemove",
     true,
     [](FW::TARNFW_JSON_DB& store) { return store.profileDbRemove("home"); },
     {kNoFiles, kNoIndex}},
    {"Delete",
     true,
     [](FW::TARNFW_JSON_DB& store) { return store.profileDelete("home"); },
     {kNoFiles, kNoIndex}},
    {"Exist",
     false,
     [](FW::TARNFW_JSON_DB& store) { return store.profileExist("home"); },
     {kNoFiles, kNoIndex}},
    {"EnumOfNames",
     false,
     [](FW::TARNFW_JSON_DB& store) {
         std::vector<std::string> names = {"present"};
         const bool result = store.profileEnum(names);
         EXPECT_THAT(names, ElementsAre("present"));
         return result;
     },
     {kNoFiles, kNoIndex}},
    {"EnumOfProfiles",
     false,
     [](FW::TARNFW_JSON_DB& store) {
         std::map<std::string, FW::FWPROFILE> profiles;
         const bool result = store.profileEnum(profiles);
         EXPECT_THAT(profiles, IsEmpty());
         return result;
     },
     {kNoFiles, kNoIndex}},
    {"Get",
     false,
     [](FW::TARNFW_JSON_DB& store) {
         FW::FWPROFILE profile;
         return store.profileGet("home", profile);
     },
     {kNoFiles, kNoIndex, "err fwDB: Failed to profileGet home due to not exist"}},
    {"Set",
     false,
     [](FW::TARNFW_JSON_DB& store) { return store.profileSet("home", FW::FWPROFILE()); },
     {kNoFiles, kNoIndex, "err fwDB: Failed to profileDbDump()"}},
    {"Create",
     false,
     [](FW::TARNFW_JSON_DB& store) { return store.profileCreate("home"); },
     {kNoFiles, kNoIndex, kNoFiles, kNoIndex, "err fwDB: Failed to profileDbDump()",
      "err fwDB: Failed to profileSet"}},
};

class EmptyStoreTest : public StoreTest, public ::testing::WithParamInterface<EmptyStoreCase> {};

TEST_P(EmptyStoreTest, FailsAndLeavesTheDirectoryEmpty) {
    EXPECT_EQ(GetParam().run(store_), GetParam().result);
    EXPECT_EQ(log(), GetParam().log);
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
}

TEST_P(EmptyStoreTest, FailsWithoutTheDirectory) {
    fs::remove_all(kProfileDir);
    EXPECT_EQ(GetParam().run(store_), GetParam().result);
    EXPECT_EQ(log(), GetParam().log);
    EXPECT_FALSE(fileExists(kProfileDir));
}

TEST_P(EmptyStoreTest, FailsWhenTheDirectoryCannotBeRead) {
    storeEmptyProfile("1", "home");
    libc_.globResult = GLOB_ABORTED;
    EXPECT_EQ(GetParam().run(store_), GetParam().result);
    EXPECT_EQ(log(), GetParam().log);
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json"));
}

INSTANTIATE_TEST_SUITE_P(, EmptyStoreTest, ::testing::ValuesIn(kEmptyStore),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- profilePathGet, profileDbLoad, profileExist ----

TEST_F(StoreTest, PathIsThatOfTheFileWithTheNameInside) {
    storeEmptyProfile("7", "home");
    EXPECT_EQ(store_.profilePathGet("home"), "/usr/tarn/etc/firewall.d/7.json");
    EXPECT_EQ(store_.profilePathGet("7"), "");
    EXPECT_EQ(store_.profilePathGet("Home"), "");
    EXPECT_EQ(store_.profilePathGet(""), "");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StoreTest, DbLoadReadsTheDocumentOfTheName) {
    writeFile(fileOf("7"), R"({"name": "home", "more": [1]})");
    Json::Value document;
    EXPECT_TRUE(store_.profileDbLoad("home", document));
    EXPECT_EQ(document, parseJson(R"({"name": "home", "more": [1]})"));
}

TEST_F(StoreTest, DbLoadOfAnUnknownNameIsThatOfAFileWithoutPath) {
    storeEmptyProfile("7", "home");
    Json::Value document;
    EXPECT_FALSE(store_.profileDbLoad("none", document));
    EXPECT_THAT(log(), ElementsAre("err utils: File  does not exist"));
}

TEST_F(StoreTest, ExistTellsNamesAndNotFileNames) {
    storeEmptyProfile("7", "home");
    EXPECT_TRUE(store_.profileExist("home"));
    EXPECT_FALSE(store_.profileExist("7"));
    EXPECT_FALSE(store_.profileExist("none"));
    EXPECT_THAT(log(), IsEmpty());
}

// ---- profilePathNameGen ----

struct StemCase {
    const char* name;
    time_t now;
    std::vector<int> randoms;
    const char* meta;
    std::string stem;
    int draws;
};

const StemCase kStems[] = {
    {"TimePlusRandom", 1700000000, {42}, R"({"a": {"fileName": "1"}})", "1700000042", 1},
    {"RandomPartIsBelow100", 1700000000, {12399}, R"({"a": {"fileName": "1"}})", "1700000099", 1},
    {"RandomPartOf100IsNone", 1700000000, {100}, R"({"a": {"fileName": "1"}})", "1700000000", 1},
    {"RedrawnOnCollision",
     1700000000,
     {42, 42, 7},
     R"({"a": {"fileName": "1700000042"}})",
     "1700000007",
     3},
    {"ComparedWithTheFirstEntry",
     1700000000,
     {1, 2},
     R"({"a": {"fileName": "1700000001"}, "b": {"fileName": "x"}, "c": {"fileName": "y"}})",
     "1700000002",
     2},
    {"ComparedWithTheLastEntry",
     1700000000,
     {1, 2},
     R"({"a": {"fileName": "x"}, "b": {"fileName": "y"}, "c": {"fileName": "1700000001"}})",
     "1700000002",
     2},
    {"ComparedWithEveryEntryAgain",
     1700000000,
     {3, 2, 1, 4},
     R"({"a": {"fileName": "1700000001"}, "b": {"fileName": "1700000002"},
         "c": {"fileName": "1700000003"}})",
     "1700000004",
     4},
    {"ProfileNamesDoNotCollide",
     1700000000,
     {42},
     R"({"1700000042": {"fileName": "1"}})",
     "1700000042",
     1},
    {"SumWrapsIn32Bits", 2147483647, {1}, R"({"a": {"fileName": "1"}})", "-2147483648", 1},
    {"LargestNumber", 2147483600, {47}, R"({"a": {"fileName": "1"}})", "2147483647", 1},
    {"TimeIsCutTo32Bits", 4294967296 + 5, {10}, R"({"a": {"fileName": "1"}})", "15", 1},
    {"NegativeTime", -50, {20}, R"({"a": {"fileName": "1"}})", "-30", 1},
    {"Zero", 0, {0}, R"({"a": {"fileName": "1"}})", "0", 1},
};

class StemTest : public StoreTest, public ::testing::WithParamInterface<StemCase> {};

TEST_P(StemTest, IsANumberThatNoEntryUses) {
    const StemCase& c = GetParam();
    libc_.setClockAndRandoms(c.now, c.randoms);
    EXPECT_EQ(store_.profilePathNameGen(parseJson(c.meta)), c.stem);
    EXPECT_EQ(libc_.draws, c.draws);
    EXPECT_EQ(libc_.seeds, 0);
}

INSTANTIATE_TEST_SUITE_P(, StemTest, ::testing::ValuesIn(kStems),
                         [](const auto& c) { return std::string(c.param.name); });

// How `code` ends when it may use one second of processor time: its exit code 0, or -SIGPROF.
int outcomeInOneSecond(const std::function<void()>& code) {
    OtherProcess process([&code](OtherProcess&) {
        signal(SIGPROF, SIG_DFL);
        const struct itimerval oneSecond = {{0, 0}, {1, 0}};
        if (setitimer(ITIMER_PROF, &oneSecond, nullptr) != 0) {
            return 1;
        }
        code();
        return 0;
    });
    return process.join();
}

TEST_F(StoreTest, StemIsNeverAcceptedWithoutAnEntryToCompareWith) {
    EXPECT_EQ(outcomeInOneSecond(
                  [this] { (void)store_.profilePathNameGen(Json::Value(Json::objectValue)); }),
              -SIGPROF);
    EXPECT_EQ(outcomeInOneSecond([this] {
                  (void)store_.profilePathNameGen(parseJson(R"({"a": {"fileName": "1"}})"));
              }),
              0);
}

TEST_F(StoreTest, CreateNeverReturnsWhenTheOnlyFileHasNoName) {
    writeFile(fileOf("1"), "{}");
    EXPECT_EQ(outcomeInOneSecond([this] { (void)store_.profileCreate("home"); }), -SIGPROF);
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json"));

    storeEmptyProfile("2", "other");
    EXPECT_EQ(outcomeInOneSecond([this] { (void)store_.profileCreate("home"); }), 0);
    EXPECT_TRUE(store_.profileExist("home"));
}

TEST_F(StoreTest, CreateNeverReturnsWhenOnlyTheSettingsAreThere) {
    storeSettings(false, "default");
    EXPECT_EQ(outcomeInOneSecond([this] { (void)store_.profileCreate("home"); }), -SIGPROF);
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("firewall_settings.json"));
}

// ---- profileDbDump ----

TEST_F(StoreTest, DbDumpOfAKnownNameReplacesItsFile) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    const Json::Value document = parseJson(R"({"name": "home", "x": 1})");
    EXPECT_TRUE(store_.profileDbDump("home", document));
    EXPECT_EQ(readFile(fileOf("1")), Json::StyledWriter().write(document));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "2.json"));
    EXPECT_EQ(libc_.draws, 0);
}

TEST_F(StoreTest, DbDumpOfANewNameMakesANumberedFileBesideTheOthers) {
    storeEmptyProfile("1700000005", "away");
    libc_.setClockAndRandoms(1700000000, {5, 6});
    const Json::Value document = parseJson(R"({"name": "home"})");
    EXPECT_TRUE(store_.profileDbDump("home", document));
    EXPECT_EQ(readFile(fileOf("1700000006")), Json::StyledWriter().write(document));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1700000005.json", "1700000006.json"));
}

// The generator looks only at profiles, so any other file can be overwritten.
TEST_F(StoreTest, DbDumpDoesNotSeeAFileThatHoldsNoProfile) {
    storeEmptyProfile("1", "away");
    writeFile(fileOf("1700000005"), "{}");
    libc_.setClockAndRandoms(1700000000, {5, 6});
    EXPECT_TRUE(store_.profileDbDump("home", parseJson(R"({"name": "home"})")));
    EXPECT_EQ(store_.profilePathGet("home"), fileOf("1700000005"));
}

TEST_F(StoreTest, DbDumpThatCannotBeWrittenFails) {
    storeEmptyProfile("1", "home");
    const std::string before = readFile(fileOf("1"));
    fs::create_directories(fileOf("1") + ".tmp");
    EXPECT_FALSE(store_.profileDbDump("home", Json::Value()));
    EXPECT_EQ(readFile(fileOf("1")), before);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + fileOf("1") + ".tmp"));
}

// ---- profileDbRemove, profileDelete ----

using Remove = bool (FW::TARNFW_JSON_DB::*)(const std::string&);

struct RemoveCase {
    const char* name;
    Remove run;
};

const RemoveCase kRemoves[] = {
    {"DbRemove", &FW::TARNFW_JSON_DB::profileDbRemove},
    {"Delete", &FW::TARNFW_JSON_DB::profileDelete},
};

class RemoveTest : public StoreTest, public ::testing::WithParamInterface<RemoveCase> {
protected:
    bool remove(const std::string& name) { return (store_.*GetParam().run)(name); }
};

TEST_P(RemoveTest, DeletesTheFileAndItsLockFileOnly) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    ASSERT_TRUE(store_.profileExist("home"));
    ASSERT_THAT(filesIn(kLockDir), ElementsAre("1.json.lock", "2.json.lock"));

    EXPECT_TRUE(remove("home"));

    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("2.json"));
    EXPECT_THAT(filesIn(kLockDir), ElementsAre("2.json.lock"));
    EXPECT_FALSE(store_.profileExist("home"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(RemoveTest, UnknownNameSucceedsAndDeletesNothing) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(remove("none"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json"));
    EXPECT_THAT(filesIn(kLockDir), ElementsAre("1.json.lock"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(RemoveTest, FileThatCannotBeDeletedStaysAndItsLockFileGoes) {
    storeEmptyProfile("1", "home");
    libc_.undeletable = fileOf("1");
    EXPECT_TRUE(remove("home"));
    EXPECT_TRUE(fileExists(fileOf("1")));
    EXPECT_THAT(filesIn(kLockDir), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(RemoveTest, LastProfileLeavesAnEmptyStore) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(remove("home"));
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
    EXPECT_FALSE(store_.profileExist("home"));
}

INSTANTIATE_TEST_SUITE_P(, RemoveTest, ::testing::ValuesIn(kRemoves),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- profileEnum, profileGet ----

TEST_F(StoreTest, NamesAreAppendedInOrder) {
    storeEmptyProfile("1", "work");
    storeEmptyProfile("2", "Home");
    storeEmptyProfile("3", "away");
    storeSettings(false, "work");
    std::vector<std::string> names = {"present", "away"};
    EXPECT_TRUE(store_.profileEnum(names));
    EXPECT_THAT(names, ElementsAre("present", "away", "Home", "away", "work"));
}

TEST_F(StoreTest, EnumLoadsEveryProfileAndReplacesEntriesOfItsNames) {
    storeProfile("1", profileWithRule("home", "eth0"));
    storeProfile("2", profileWithRule("away", "eth1"));
    std::map<std::string, FW::FWPROFILE> profiles;
    profiles["home"] = profileWithRule("stale", "wlan0");
    profiles["other"] = profileWithRule("other", "wlan0");

    EXPECT_TRUE(store_.profileEnum(profiles));

    ASSERT_EQ(profiles.size(), 3u);
    EXPECT_EQ(profiles["home"].name, "home");
    EXPECT_EQ(profiles["home"].rules.size(), 1u);
    EXPECT_EQ(profiles["home"].rules["eth0"].at(0).name, "rule of home");
    EXPECT_EQ(profiles["away"].rules["eth1"].at(0).name, "rule of away");
    EXPECT_EQ(profiles["other"].rules.count("wlan0"), 1u);
}

TEST_F(StoreTest, EnumStopsAtTheFirstProfileThatCannotBeLoadedAndKeepsThoseBefore) {
    storeEmptyProfile("1", "a");
    storeEmptyProfile("2", "b");
    storeEmptyProfile("3", "c");
    // The index is the first scan; each profile takes two more. "b" is deleted after its second.
    libc_.scanDone = [](int scan) {
        if (scan == 5) {
            fs::remove(fileOf("2"));
        }
    };
    std::map<std::string, FW::FWPROFILE> profiles;

    EXPECT_FALSE(store_.profileEnum(profiles));

    ASSERT_EQ(profiles.size(), 1u);
    EXPECT_EQ(profiles["a"].name, "a");
    EXPECT_THAT(log(), ElementsAre("err utils: File " + fileOf("2") + " does not exist",
                                   "err fwDB: Failed to profileDbLoad()",
                                   "err fwDB: Failed to profileDbLoad() []"));
}

TEST_F(StoreTest, GetAddsTheStoredProfileToTheRecord) {
    storeProfile("1", profileWithRule("home", "eth0"));
    FW::FWPROFILE profile = profileWithRule("present", "eth0");
    EXPECT_TRUE(store_.profileGet("home", profile));
    EXPECT_EQ(profile.name, "home");
    ASSERT_EQ(profile.rules["eth0"].size(), 2u);
    EXPECT_EQ(profile.rules["eth0"][0].name, "rule of present");
    EXPECT_EQ(profile.rules["eth0"][1].name, "rule of home");
}

TEST_F(StoreTest, GetOfAnUnknownNameFails) {
    storeEmptyProfile("1", "home");
    FW::FWPROFILE profile = profileWithRule("present", "eth0");
    EXPECT_FALSE(store_.profileGet("none", profile));
    EXPECT_THAT(log(), ElementsAre("err fwDB: Failed to profileGet none due to not exist"));
    EXPECT_EQ(profile.name, "present");
    EXPECT_EQ(profile.rules["eth0"].size(), 1u);
}

TEST_F(StoreTest, GetOfAProfileThatBreaksInBetweenFails) {
    storeEmptyProfile("1", "home");
    libc_.scanDone = [](int scan) {
        if (scan == 2) {
            writeFile(fileOf("1"), "{\"name\"");
        }
    };
    FW::FWPROFILE profile;
    EXPECT_FALSE(store_.profileGet("home", profile));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + fileOf("1"),
                                   "err fwDB: Failed to profileDbLoad()"));
}

// ---- Types that do not convert ----

const DocumentCase kMismatches[] = {
    {"PolicyOfAnAdapterIsText", R"({"name": "M 1", "adapterPolicyMap": {"eth0": "deny"}})"},
    {"EnableIsText", R"({"name": "M 1", "rules": {"eth0": [{}, {"enable": "yes"}]}})"},
    {"ProtocolIsText", R"({"name": "M 1", "rules": {"eth0": [{"protocol": "tcp"}]}})"},
    {"TableIsAnObject", R"({"name": "M 1", "rules": {"eth0": [{"table": {}}]}})"},
    {"AddressIsAnObject", R"({"name": "M 1", "rules": {"eth0": [{"ipList": [{}]}]}})"},
    {"IpTypeIsTooLarge", R"({"name": "M 1", "rules": {"eth0": [{"ipType": 99999999999}]}})"},
    {"RuleIsANumber", R"({"name": "M 1", "rules": {"eth0": [5]}})"},
};

class MismatchTest : public StoreTest, public ::testing::WithParamInterface<DocumentCase> {
protected:
    MismatchTest() {
        storeEmptyProfile("1", "A");
        writeFile(fileOf("2"), GetParam().document);
        storeEmptyProfile("3", "Z");
    }
};

TEST_P(MismatchTest, FailsTheGetWithOneLineThatNamesTheProfile) {
    FW::FWPROFILE profile = profileWithRule("present", "eth0");
    EXPECT_FALSE(store_.profileGet("M 1", profile));
    ASSERT_EQ(platform_.log().size(), 1u);
    EXPECT_EQ(platform_.log()[0].priority, LOG_ERR);
    EXPECT_EQ(platform_.log()[0].source, "fwDB");
    EXPECT_THAT(platform_.log()[0].text, HasSubstr("M 1"));
    EXPECT_EQ(profile.name, "present");
    EXPECT_EQ(profile.rules["eth0"].size(), 1u);
    EXPECT_THAT(profile.adapterPolicyMap, IsEmpty());
    EXPECT_EQ(readFile(fileOf("2")), GetParam().document);
}

TEST_P(MismatchTest, StopsTheEnumWithOneLineThatNamesTheProfile) {
    std::map<std::string, FW::FWPROFILE> profiles;
    EXPECT_FALSE(store_.profileEnum(profiles));
    ASSERT_EQ(profiles.size(), 1u);
    EXPECT_EQ(profiles.count("A"), 1u);
    ASSERT_EQ(platform_.log().size(), 2u);
    EXPECT_EQ(platform_.log()[0].priority, LOG_ERR);
    EXPECT_EQ(platform_.log()[0].source, "fwDB");
    EXPECT_THAT(platform_.log()[0].text, HasSubstr("M 1"));
    EXPECT_EQ(log()[1], "err fwDB: Failed to profileDbLoad() []");
}

TEST_P(MismatchTest, IsStillListedByName) {
    std::vector<std::string> names;
    EXPECT_TRUE(store_.profileEnum(names));
    EXPECT_THAT(names, ElementsAre("A", "M 1", "Z"));
    EXPECT_TRUE(store_.profileExist("M 1"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(MismatchTest, FailsTheRename) {
    EXPECT_FALSE(store_.profileRename("M 1", "new"));
    ASSERT_EQ(platform_.log().size(), 2u);
    EXPECT_EQ(log()[1], "err fwDB: Failed to get profile M 1");
    EXPECT_EQ(readFile(fileOf("2")), GetParam().document);
}

INSTANTIATE_TEST_SUITE_P(, MismatchTest, ::testing::ValuesIn(kMismatches),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- profileSet ----

TEST_F(StoreTest, SetFillsInPoliciesAndLeavesGlobalWithoutTarget) {
    storeEmptyProfile("1", "home");
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"].resize(1);
    profile.rules["eth1"];
    profile.rules["eth2"].resize(1);
    profile.rules["global"].resize(1);
    profile.adapterPolicyMap["eth2"] = FW::FW_POLICY_DENY;
    profile.adapterPolicyMap["global"] = FW::FW_POLICY_DENY;
    profile.adapterPolicyMap["vpn"] = FW::FW_POLICY_NONE;
    const FW::FWPROFILE before = profile;

    EXPECT_TRUE(store_.profileSet("home", profile));

    const Json::Value stored = storedJson(fileOf("1"));
    EXPECT_EQ(stored["adapterPolicyMap"],
              parseJson(R"({"eth0": 0, "eth1": 0, "eth2": 1, "global": 2, "vpn": 2})"));
    EXPECT_THAT(stored["rules"].getMemberNames(), ElementsAre("eth0", "eth2", "global"));
    EXPECT_EQ(profile.adapterPolicyMap, before.adapterPolicyMap);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StoreTest, SetGivesGlobalNoTargetHoweverItComes) {
    storeEmptyProfile("1", "home");
    FW::FWPROFILE withRules;
    withRules.name = "home";
    withRules.rules["global"].resize(1);
    FW::FWPROFILE allowing;
    allowing.name = "home";
    allowing.adapterPolicyMap["global"] = FW::FW_POLICY_ALLOW;
    FW::FWPROFILE without;
    without.name = "home";
    for (const FW::FWPROFILE& profile : {withRules, allowing, without}) {
        EXPECT_TRUE(store_.profileSet("home", profile));
        EXPECT_EQ(storedJson(fileOf("1"))["adapterPolicyMap"], parseJson(R"({"global": 2})"));
    }
}

TEST_F(StoreTest, SetReplacesTheWholeDocument) {
    writeFile(fileOf("1"), R"({"name": "home", "extra": 1, "rules": {"eth9": [{}]}})");
    EXPECT_TRUE(store_.profileSet("home", profileWithRule("home", "eth0")));
    const Json::Value stored = storedJson(fileOf("1"));
    EXPECT_THAT(stored.getMemberNames(), ElementsAre("adapterPolicyMap", "name", "rules"));
    EXPECT_THAT(stored["rules"].getMemberNames(), ElementsAre("eth0"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json"));
}

TEST_F(StoreTest, SetFindsTheFileByItsArgumentAndTheNameInTheRecord) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(store_.profileSet("home", profileWithRule("other", "eth0")));
    EXPECT_EQ(storedJson(fileOf("1"))["name"].asString(), "other");
    EXPECT_FALSE(store_.profileExist("home"));
    EXPECT_EQ(store_.profilePathGet("other"), fileOf("1"));
}

TEST_F(StoreTest, SetOfANewNameMakesANumberedFile) {
    storeEmptyProfile("1", "home");
    libc_.setClockAndRandoms(1700000000, {42});
    EXPECT_TRUE(store_.profileSet("new", profileWithRule("new", "eth0")));
    EXPECT_EQ(storedJson(fileOf("1700000042"))["name"].asString(), "new");
}

TEST_F(StoreTest, SetThatCannotBeWrittenFails) {
    storeEmptyProfile("1", "home");
    const std::string before = readFile(fileOf("1"));
    fs::create_directories(fileOf("1") + ".tmp");
    EXPECT_FALSE(store_.profileSet("home", profileWithRule("home", "eth0")));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + fileOf("1") + ".tmp",
                                   "err fwDB: Failed to profileDbDump()"));
    EXPECT_EQ(readFile(fileOf("1")), before);
}

// ---- profileCreate ----

TEST_F(StoreTest, CreateWritesAnEmptyProfile) {
    storeEmptyProfile("1", "home");
    libc_.setClockAndRandoms(1700000000, {42});
    EXPECT_TRUE(store_.profileCreate("office"));
    EXPECT_EQ(readFile(fileOf("1700000042")),
              "{\n"
              "   \"adapterPolicyMap\" : {\n"
              "      \"global\" : 2\n"
              "   },\n"
              "   \"name\" : \"office\",\n"
              "   \"rules\" : null\n"
              "}\n");
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "1700000042.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StoreTest, CreateOfATakenNameFails) {
    storeEmptyProfile("1", "home");
    const std::string before = readFile(fileOf("1"));
    EXPECT_FALSE(store_.profileCreate("home"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: The profile home already exist"));
    EXPECT_EQ(readFile(fileOf("1")), before);
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json"));
}

TEST_F(StoreTest, CreateThatCannotBeWrittenFails) {
    storeEmptyProfile("1", "home");
    libc_.setClockAndRandoms(1700000000, {42});
    const std::string temporary = fileOf("1700000042") + ".tmp";
    fs::create_directories(temporary);
    EXPECT_FALSE(store_.profileCreate("office"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + temporary,
                                   "err fwDB: Failed to profileDbDump()",
                                   "err fwDB: Failed to profileSet"));
    EXPECT_FALSE(store_.profileExist("office"));
}

class ProfileNameTest : public StoreTest, public ::testing::WithParamInterface<DocumentCase> {};

// The name is a text inside the file, whatever it looks like.
TEST_P(ProfileNameTest, LivesThroughTheWholeStore) {
    const std::string name = GetParam().document;
    storeEmptyProfile("1", "present");

    EXPECT_TRUE(store_.profileCreate(name));
    EXPECT_TRUE(store_.profileExist(name));
    FW::FWPROFILE profile;
    EXPECT_TRUE(store_.profileGet(name, profile));
    EXPECT_EQ(profile.name, name);
    std::vector<std::string> names;
    EXPECT_TRUE(store_.profileEnum(names));
    EXPECT_THAT(names, Contains(name));
    EXPECT_TRUE(store_.profileRename(name, "renamed"));
    EXPECT_TRUE(store_.profileRename("renamed", name));
    EXPECT_EQ(filesIn(kProfileDir).size(), 3u);  // with the settings
    EXPECT_TRUE(store_.profileDelete(name));
    EXPECT_FALSE(store_.profileExist(name));
    EXPECT_THAT(log(), IsEmpty());
}

const DocumentCase kProfileNames[] = {
    {"Empty", ""},
    {"Path", "../../etc/passwd"},
    {"Pattern", "*.json"},
    {"Quotes", "a \"b\" \\ 'c'"},
    {"ControlCharacters", "a\n\t\x01"},
    {"NotAscii", "\xe5\xae\xb6 \xf0\x9f\x94\xa5"},
    {"FormatDirectives", "%s%n%d"},
    {"JsonKeyOfTheIndex", "fileName"},
};

INSTANTIATE_TEST_SUITE_P(, ProfileNameTest, ::testing::ValuesIn(kProfileNames),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(StoreTest, FormatDirectivesInANameAreLoggedAsTheyAre) {
    storeEmptyProfile("1", "%s%n%d");
    EXPECT_FALSE(store_.profileCreate("%s%n%d"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: The profile %s%n%d already exist"));
}

// ---- profileRename ----

TEST_F(StoreTest, RenameKeepsTheFileAndItsContent) {
    storeProfile("1", profileWithRule("home", "eth0"));
    storeEmptyProfile("2", "away");
    storeSettings(true, "away");
    Json::Value expected = storedJson(fileOf("1"));
    expected["name"] = "house";

    EXPECT_TRUE(store_.profileRename("home", "house"));

    EXPECT_EQ(readFile(fileOf("1")), Json::StyledWriter().write(expected));
    EXPECT_FALSE(store_.profileExist("home"));
    EXPECT_EQ(store_.profilePathGet("house"), fileOf("1"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "2.json", "firewall_settings.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StoreTest, RenameOfTheActiveProfileIsFollowedByTheSettings) {
    storeEmptyProfile("1", "home");
    writeFile(kSettingsFile, R"({"status": true, "profile": "home", "unknown": 5})");
    EXPECT_TRUE(store_.profileRename("home", "house"));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "house", "unknown": 5})"));
}

TEST_F(StoreTest, RenameOfAnotherProfileLeavesTheSettingsFileAlone) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "Home");
    const std::string settings = R"({"status":true,"profile":"Home"})";
    writeFile(kSettingsFile, settings);
    EXPECT_TRUE(store_.profileRename("home", "house"));
    EXPECT_EQ(readFile(kSettingsFile), settings);
}

TEST_F(StoreTest, RenameWithoutSettingsWritesTheDefaultsOnTheWay) {
    storeEmptyProfile("1", "default");
    EXPECT_TRUE(store_.profileRename("default", "home"));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "home"})"));
}

TEST_F(StoreTest, RenameDoesNotNormalisePolicies) {
    writeFile(fileOf("1"), R"({"name": "home", "rules": {"eth0": [{}]},
                               "adapterPolicyMap": {"global": 1}})");
    writeFile(fileOf("2"), R"({"name": "away", "rules": {"eth0": [{}]}})");
    EXPECT_TRUE(store_.profileRename("home", "house"));
    EXPECT_TRUE(store_.profileRename("away", "outside"));
    EXPECT_EQ(storedJson(fileOf("1"))["adapterPolicyMap"], parseJson(R"({"global": 1})"));
    EXPECT_TRUE(storedJson(fileOf("2"))["adapterPolicyMap"].isNull());
    EXPECT_EQ(storedJson(fileOf("2"))["rules"]["eth0"].size(), 1u);
}

TEST_F(StoreTest, RenameToATakenNameFailsBeforeAnythingIsRead) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    const std::string before = readFile(fileOf("1"));
    EXPECT_FALSE(store_.profileRename("home", "away"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: profile away already exist"));
    EXPECT_EQ(readFile(fileOf("1")), before);
    EXPECT_FALSE(fileExists(kSettingsFile)) << "reading the settings would have made them";
    EXPECT_EQ(libc_.scans, 1);
}

TEST_F(StoreTest, RenameToItsOwnNameFails) {
    storeEmptyProfile("1", "home");
    EXPECT_FALSE(store_.profileRename("home", "home"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: profile home already exist"));
}

TEST_F(StoreTest, RenameWithUnreadableSettingsFails) {
    storeEmptyProfile("1", "home");
    const std::string before = readFile(fileOf("1"));
    writeFile(kSettingsFile, "{\"profile\":");
    EXPECT_FALSE(store_.profileRename("home", "house"));
    // The scan meets the settings file too; the message of the rename comes last.
    const Lines lines = log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "err fwDB: Falied to config.configGet()");
    EXPECT_THAT(lines, Not(Contains(HasSubstr("Failed to get profile"))));
    EXPECT_EQ(readFile(fileOf("1")), before);
    EXPECT_EQ(readFile(kSettingsFile), "{\"profile\":");
}

TEST_F(StoreTest, RenameOfAnUnknownProfileFails) {
    storeEmptyProfile("1", "home");
    storeSettings(true, "none");
    EXPECT_FALSE(store_.profileRename("none", "house"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: Failed to profileGet none due to not exist",
                                   "err fwDB: Failed to get profile none"));
    EXPECT_EQ(storedSettings()["profile"].asString(), "none");
    EXPECT_FALSE(store_.profileExist("house"));
}

// The index of the first check fails; reading the settings then makes the directory's first file.
TEST_F(StoreTest, RenameInAnEmptyDirectoryFailsAndLeavesTheDefaultSettings) {
    EXPECT_FALSE(store_.profileRename("home", "house"));
    EXPECT_THAT(log(), ElementsAre(kNoFiles, kNoIndex,
                                   "err fwDB: Failed to profileGet home due to not exist",
                                   "err fwDB: Failed to get profile home"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("firewall_settings.json"));
}

TEST_F(StoreTest, RenameThatCannotBeWrittenChangesNothing) {
    storeEmptyProfile("1", "home");
    storeSettings(true, "home");
    const std::string before = readFile(fileOf("1"));
    fs::create_directories(fileOf("1") + ".tmp");
    EXPECT_FALSE(store_.profileRename("home", "house"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + fileOf("1") + ".tmp",
                                   "err fwDB: Failed to jsonFileDump [house]"));
    EXPECT_EQ(readFile(fileOf("1")), before);
    EXPECT_EQ(storedSettings()["profile"].asString(), "home");
}

TEST_F(StoreTest, RenameLeavesTheNewNameInTheFileWhenTheSettingsCannotBeWritten) {
    storeEmptyProfile("1", "home");
    storeSettings(true, "home");
    fs::create_directories(kSettingsFile + ".tmp");
    EXPECT_FALSE(store_.profileRename("home", "house"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kSettingsFile + ".tmp",
                                   "err fwDB: Falied to config.configSet()"));
    EXPECT_EQ(storedJson(fileOf("1"))["name"].asString(), "house");
    EXPECT_EQ(storedSettings()["profile"].asString(), "home");
}

TEST_F(StoreTest, RenameWithSettingsThatNameNoProfileLeavesThemAlone) {
    storeEmptyProfile("1", "home");
    writeFile(kSettingsFile, R"({"status":true})");
    EXPECT_TRUE(store_.profileRename("home", "house"));
    EXPECT_EQ(readFile(kSettingsFile), R"({"status":true})");
}

// The settings are looked at when the file is already written.
TEST_F(StoreTest, RenameRaisesTheJsonErrorOfSettingsOfAnotherType) {
    storeEmptyProfile("1", "home");
    writeFile(kSettingsFile, R"({"profile":{}})");
    EXPECT_THROW((void)store_.profileRename("home", "house"), Json::Exception);
    EXPECT_EQ(store_.profilePathGet("house"), fileOf("1"));
    EXPECT_EQ(readFile(kSettingsFile), R"({"profile":{}})");
}

// ---- How often the directory is read ----

struct ScanCase {
    const char* name;
    int scans;
    std::function<bool(FW::TARNFW_JSON_DB&)> run;
};

const ScanCase kScans[] = {
    {"PathGet", 1, [](FW::TARNFW_JSON_DB& store) { return !store.profilePathGet("home").empty(); }},
    {"DbLoad", 1,
     [](FW::TARNFW_JSON_DB& store) {
         Json::Value document;
         return store.profileDbLoad("home", document);
     }},
    {"DbDumpOfAKnownName", 2,
     [](FW::TARNFW_JSON_DB& store) {
         return store.profileDbDump("home", parseJson(R"({"name": "home"})"));
     }},
    {"DbDumpOfANewName", 1,
     [](FW::TARNFW_JSON_DB& store) {
         return store.profileDbDump("new", parseJson(R"({"name": "new"})"));
     }},
    {"DbRemove", 1, [](FW::TARNFW_JSON_DB& store) { return store.profileDbRemove("home"); }},
    {"Delete", 1, [](FW::TARNFW_JSON_DB& store) { return store.profileDelete("home"); }},
    {"Exist", 1, [](FW::TARNFW_JSON_DB& store) { return store.profileExist("home"); }},
    {"EnumOfNames", 1,
     [](FW::TARNFW_JSON_DB& store) {
         std::vector<std::string> names;
         return store.profileEnum(names);
     }},
    {"EnumOfProfiles", 5,
     [](FW::TARNFW_JSON_DB& store) {
         std::map<std::string, FW::FWPROFILE> profiles;
         return store.profileEnum(profiles);
     }},
    {"Get", 2,
     [](FW::TARNFW_JSON_DB& store) {
         FW::FWPROFILE profile;
         return store.profileGet("home", profile);
     }},
    {"Set", 2,
     [](FW::TARNFW_JSON_DB& store) {
         return store.profileSet("home", profileWithRule("home", "eth0"));
     }},
    {"Create", 2, [](FW::TARNFW_JSON_DB& store) { return store.profileCreate("new"); }},
    {"Rename", 4, [](FW::TARNFW_JSON_DB& store) { return store.profileRename("home", "new"); }},
};

class ScanTest : public StoreTest, public ::testing::WithParamInterface<ScanCase> {};

TEST_P(ScanTest, ReadsTheDirectoryAnewForEachStepAndFreesEveryResult) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    const int descriptors = openDescriptors();
    EXPECT_TRUE(GetParam().run(store_));
    EXPECT_EQ(libc_.scans, GetParam().scans);
    EXPECT_EQ(libc_.openGlobs, 0);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, ScanTest, ::testing::ValuesIn(kScans),
                         [](const auto& c) { return std::string(c.param.name); });

}  // namespace
