// Sessions of the store: what they skip, how changes of it fail or are interrupted, when a change
// whose rules are applied stays, and how long a session waits.
#include "tarnfwadmin/storeSession.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/process.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The flushes that fail, counted from 1: none from kNever on, or all from `first` to `last`.
constexpr int kNever = 1'000'000;

struct Flushes {
    int made = 0;
    int first = kNever;
    int last = kNever;
};

Flushes& flushes() {
    static Flushes all;
    return all;
}

const std::string kOther = std::string(kProfileDir) + "aa.json";

/// What is among the profiles besides "home".
struct FileCase {
    const char* name;
    std::function<void()> make;
    const char* reason;
};

std::ostream& operator<<(std::ostream& out, const FileCase& c) {
    return out << c.name;
}

const FileCase kFiles[] = {
    {"NamedPipe", [] { EXPECT_EQ(mkfifo(kOther.c_str(), 0600), 0); }, "is a named pipe"},
    {"LinkToADevice", [] { fs::create_symlink("/dev/zero", kOther); }, "is a link to a device"},
    {"LinkToItself", [] { fs::create_symlink("aa.json", kOther); }, "is a link that leads nowhere"},
    {"LinkToNothing", [] { fs::create_symlink("/no/file", kOther); },
     "is a link that leads nowhere"},
    {"Directory", [] { fs::create_directory(kOther); }, "is a directory"},
    {"LargeFile",
     [] {
         writeFile(kOther, "{}");
         fs::resize_file(kOther, 64 * 1024 * 1024 + 1);
     },
     "is larger than 64 MiB"},
};

}  // namespace
}  // namespace tarnfw

// Also called by the library, which is a shared object.
extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    tarnfw::Flushes& all = tarnfw::flushes();
    ++all.made;
    if (all.made >= all.first && all.made <= all.last) {
        errno = EIO;
        return -1;
    }
    using Function = int (*)(int);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fsync"))(fd);
}

namespace tarnfw {
namespace {

class UnusableFileTest : public StoreTest, public testing::WithParamInterface<FileCase> {};

TEST_P(UnusableFileTest, IsSkippedAndNamedByEverySession) {
    GetParam().make();
    for (const auto access : {StoreSession::Access::kRead, StoreSession::Access::kChange}) {
        StoreSession session(access);
        EXPECT_THAT(session.takeNotes(),
                    ElementsAre(kOther + " " + GetParam().reason + ": skipped"));
        EXPECT_THAT(session.snapshot().profileNames(), ElementsAre("home"));
        EXPECT_THAT(session.snapshot().unreadable(), ElementsAre(kOther));
        EXPECT_NO_THROW(session.awaitDocumentLocks());
    }
}

TEST_P(UnusableFileTest, HoldsUpNoChangeAndStays) {
    GetParam().make();
    StoreSession session(StoreSession::Access::kChange);
    EXPECT_TRUE(
        session.changeMany([] { return FW::TARNFW_PROFILE().profileRename("home", "casa"); }));
    EXPECT_THAT(session.snapshot().profileNames(), ElementsAre("casa"));
    EXPECT_TRUE(fs::is_symlink(fs::symlink_status(kOther)) || fs::exists(kOther));
}

TEST_P(UnusableFileTest, StaysWhenAChangeIsUndone) {
    GetParam().make();
    StoreSession session(StoreSession::Access::kChange);
    {
        StoreTransaction transaction(session, StoreTransaction::Extent::kManyDocuments);
        EXPECT_TRUE(FW::TARNFW_PROFILE().profileRename("home", "casa"));
        EXPECT_TRUE(transaction.undo());
    }
    EXPECT_THAT(session.snapshot().profileNames(), ElementsAre("home"));
    EXPECT_TRUE(fs::is_symlink(fs::symlink_status(kOther)) || fs::exists(kOther));
}

INSTANTIATE_TEST_SUITE_P(Store, UnusableFileTest, testing::ValuesIn(kFiles),
                         [](const auto& c) { return std::string(c.param.name); });

using StoreSessionTest = StoreTest;

TEST_F(StoreSessionTest, ALinkToADocumentIsADocument) {
    const std::string target = std::string(kProfileDir) + "elsewhere";
    fs::rename(kHomeFile, target);
    fs::create_symlink(target, kHomeFile);
    StoreSession session(StoreSession::Access::kChange);
    EXPECT_THAT(session.takeNotes(), IsEmpty());
    const FW::FWPROFILE home = session.snapshot().profile("home");
    session.storeProfile(home);
    EXPECT_TRUE(session.snapshot().hasProfile("home"));
}

TEST_F(StoreSessionTest, FindsWhatAnInterruptedOperationOfTheLibraryHasLeft) {
    const auto found = [] {
        std::vector<std::string> texts;
        for (const Finding& finding : StoreSnapshot().findings()) {
            texts.push_back((finding.isError ? "error: " : "warning: ") + finding.text);
        }
        return texts;
    };
    EXPECT_THAT(found(), IsEmpty());
    const std::string file = kProfileDir + std::string("zz.json");
    fs::copy(kHomeFile, file);
    EXPECT_THAT(found(), ElementsAre("warning: " + file + " has the name of " + kHomeFile +
                                     ", \"home\", and is not used"));
    writeFile(file, R"({"name": ".test_home"})");
    EXPECT_THAT(found(), ElementsAre("warning: the test profile \".test_home\" belongs to a trial "
                                     "that is running or was interrupted, see \"tarnfw status\"; "
                                     "\"tarnfw try --cancel\" ends it and removes the profile"));
    writeFile(file, R"({"name": "ho)");
    EXPECT_THAT(found(), ElementsAre("warning: " + file + " cannot be read: it may be a profile"));
    fs::rename(file, file + ".tmp");
    EXPECT_THAT(found(), ElementsAre("warning: " + file +
                                     ".tmp is what an interrupted operation has left; it can be "
                                     "removed"));
    fs::remove(file + ".tmp");
    writeFile(kSettingsFile, R"({"profile": "casa", "status": true})");
    EXPECT_THAT(found(), ElementsAre("error: the settings name the profile \"casa\", which does "
                                     "not exist: no reload works"));
}

/// Stores some profiles, as the library does when it cannot read the others.
bool storeOnly(const std::vector<FW::FWPROFILE>& profiles) {
    for (const FW::FWPROFILE& profile : profiles) {
        if (!FW::TARNFW_PROFILE().profileSet(profile.name, profile)) {
            return false;
        }
    }
    return true;
}

TEST_F(StoreSessionTest, ChangeOfAllProfilesThatSkipsOneIsUndone) {
    for (const bool held : {false, true}) {
        writeFile(kOther, R"({"name": "other"})");
        const std::string home = contentOf(kHomeFile);
        const std::string other = contentOf(kOther);
        {
            StoreSession session(StoreSession::Access::kChange);
            const FW::FWPROFILE homeProfile = session.snapshot().profile("home");
            const FW::FWPROFILE otherProfile = session.snapshot().profile("other");
            if (held) {
                session.holdChange();
            }
            expectError(
                ErrorKind::kSystem, "profile \"home\" could not be read; nothing was changed",
                [&] { session.changeAllProfiles([&] { return storeOnly({otherProfile}); }); });
        }
        EXPECT_EQ(contentOf(kHomeFile), home);
        EXPECT_EQ(contentOf(kOther), other);
        EXPECT_FALSE(fs::exists(std::string(kProfileDir) + ".change"));
    }
}

TEST_F(StoreSessionTest, ChangeOfAllProfilesMayStoreThemAsTheyWere) {
    StoreSession session(StoreSession::Access::kChange);
    const FW::FWPROFILE home = session.snapshot().profile("home");
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(session.changeAllProfiles([&] { return storeOnly({home}); }));
    }
}

/// What is in the profile directory, by name; for a file its content.
std::map<std::string, std::string> contentOfStore() {
    std::map<std::string, std::string> contents;
    for (const fs::directory_entry& entry : fs::directory_iterator(kProfileDir)) {
        const std::string path = entry.path().string();
        contents[path] = entry.is_regular_file() ? contentOf(path) : "";
    }
    return contents;
}

TEST_F(StoreSessionTest, ProfileThatTheLibraryCannotReadIsNotStoredASecondTime) {
    writeFile(kOther, R"({"name": "other"})");
    const auto before = contentOfStore();
    for (const bool held : {false, true}) {
        {
            StoreSession session(StoreSession::Access::kChange);
            FW::FWPROFILE home = session.snapshot().profile("home");
            home.rules.clear();
            if (held) {
                session.holdChange();
            }
            FW::jsonFileLimit(contentOf(kOther).size());  // the document of "home" is larger
            expectError(ErrorKind::kSystem, "profile \"home\" cannot be written",
                        [&] { session.storeProfile(home); });
        }
        EXPECT_EQ(contentOfStore(), before);
    }
}

/// A change of one document; throws or returns false when it is not made.
struct ChangeCase {
    const char* name;
    std::function<bool(StoreSession& session)> make;
};

std::ostream& operator<<(std::ostream& out, const ChangeCase& c) {
    return out << c.name;
}

const ChangeCase kChanges[] = {
    {"OfAProfile",
     [](StoreSession& session) {
         FW::FWPROFILE home = session.snapshot().profile("home");
         home.rules.clear();
         session.storeProfile(home);
         return true;
     }},
    {"NewProfile",
     [](StoreSession& session) {
         FW::FWPROFILE casa = session.snapshot().profile("home");
         casa.name = "casa";
         session.storeProfile(casa);
         return true;
     }},
    {"OfTheApplyMode",
     [](StoreSession& session) {
         session.setApplyMode(ApplyMode::kBatch);
         return true;
     }},
    {"OfTheActiveProfile",
     [](StoreSession& session) {
         return session.change([] { return FW::TARNFW().fwProfileConfigSet("other", false); });
     }},
};

class FailedFlushTest : public StoreTest, public testing::WithParamInterface<ChangeCase> {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        writeFile(kOther, R"({"name": "other"})");
    }

    /// Makes the change; whether it reports success.
    static bool made() {
        StoreSession session(StoreSession::Access::kChange);
        try {
            return GetParam().make(session);
        } catch (const Error& error) {
            message() = error.what();
            return false;
        }
    }

    static std::string& message() {
        static std::string text;
        return text;
    }
};

TEST_P(FailedFlushTest, IsAFailureThatLeavesTheDocumentsAsTheyWere) {
    const auto before = contentOfStore();
    int failed = 0;
    for (;; ++failed) {
        flushes() = {0, failed + 1, failed + 1};
        const bool isMade = made();
        if (flushes().made <= failed) {
            EXPECT_TRUE(isMade);
            break;
        }
        EXPECT_FALSE(isMade) << "flush " << failed + 1;
        EXPECT_EQ(contentOfStore(), before) << "flush " << failed + 1;
    }
    EXPECT_EQ(failed, 2);  // of the document, and of its directory
    EXPECT_NE(contentOfStore(), before);
}

TEST_P(FailedFlushTest, SaysSoWhereTheOldDocumentCannotBeFlushedEither) {
    const auto before = contentOfStore();
    flushes() = {0, 2, kNever};
    EXPECT_FALSE(made());
    EXPECT_EQ(message(),
              "the change failed. The documents are as before, but that could not be flushed to "
              "the disk: a power failure may bring the change back");
    flushes() = {};
    const StoreSession next(StoreSession::Access::kChange);
    EXPECT_EQ(contentOfStore(), before);
}

INSTANTIATE_TEST_SUITE_P(Store, FailedFlushTest, testing::ValuesIn(kChanges),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(StoreSessionTest, DeletionThatCannotBeFlushedIsAFailure) {
    writeFile(kOther, R"({"name": "other"})");
    StoreSession session(StoreSession::Access::kChange);
    flushes() = {0, 1, 1};
    expectError(ErrorKind::kSystem,
                "profile \"other\" is deleted, but a power failure may bring it back: that could "
                "not be flushed to the disk: Input/output error",
                [&] { session.deleteProfile("other"); });
}

// ---- A change whose rules are applied ----

const char kKept[] = "a change whose command was interrupted is kept: its rules had been applied";
const char kUndone[] = "an interrupted change was undone: all documents are as before it";
const char kUndoneRules[] =
    "an interrupted change was undone: all documents are as before it, but its rules may be in "
    "force; \"tarnfw reload\" applies those that are stored";

class AppliedChangeTest : public StoreTest {
protected:
    /// Stores another "home", in a change that the session holds.
    static void holdNewHome(StoreSession& session) {
        FW::FWPROFILE home = session.snapshot().profile("home");
        home.rules.clear();
        session.holdChange();
        session.storeProfile(home);
    }

    /// The same in a process that is killed in `apply` or after it.
    static void killedDuring(const std::function<void(StoreSession& session)>& apply) {
        const pid_t process = startProcess("a process", [&] {
            StoreSession session(StoreSession::Access::kChange);
            holdNewHome(session);
            apply(session);
            return raise(SIGKILL);
        });
        EXPECT_EQ(waitStatusOf(process).value_or(0) & 0x7f, SIGKILL);
    }

    static bool homeIsNew() { return StoreSnapshot().profile("home").rules.empty(); }

    /// What the next session says.
    static std::vector<std::string> notes() {
        std::vector<std::string> all;
        for (const auto access : {StoreSession::Access::kRead, StoreSession::Access::kChange}) {
            StoreSession session(access);
            for (const std::string& note : session.takeNotes()) {
                all.push_back(note);
            }
        }
        EXPECT_FALSE(fs::exists(std::string(kProfileDir) + ".change"));
        return all;
    }
};

TEST_F(AppliedChangeTest, IsUndoneWhenItIsInterruptedBefore) {
    killedDuring([](StoreSession& /*session*/) {});
    EXPECT_THAT(notes(), ElementsAre(kUndone));
    EXPECT_FALSE(homeIsNew());
}

TEST_F(AppliedChangeTest, StaysOpenWhileItsCopiesCannotBeLookedAt) {
    const std::string copies = std::string(kProfileDir) + ".change/";
    const std::string aside = std::string(kProfileDir) + ".aside";
    for (const char* const name : {"documents", "home.json", "applied"}) {
        killedDuring([](StoreSession& /*session*/) {});
        const std::string path = copies + name;
        const bool was = fs::exists(path);
        if (was) {
            fs::rename(path, aside);
        }
        fs::create_symlink(path, path);  // to itself
        EXPECT_EQ(errorOf([] { StoreSession session(StoreSession::Access::kChange); })->kind(),
                  ErrorKind::kSystem)
            << name;
        EXPECT_TRUE(homeIsNew()) << name;
        fs::remove(path);
        if (was) {
            fs::rename(aside, path);
        }
        EXPECT_THAT(notes(), ElementsAre(kUndone)) << name;
        EXPECT_FALSE(homeIsNew()) << name;
    }
}

TEST_F(AppliedChangeTest, IsUndoneAndSaidWhenItIsInterruptedMeanwhile) {
    killedDuring([](StoreSession& session) {
        (void)session.applyChange([] { return raise(SIGKILL) == 0; });
    });
    EXPECT_THAT(notes(), ElementsAre(kUndoneRules));
    EXPECT_FALSE(homeIsNew());
}

TEST_F(AppliedChangeTest, IsKeptWhenItIsInterruptedAfterwards) {
    killedDuring(
        [](StoreSession& session) { EXPECT_TRUE(session.applyChange([] { return true; })); });
    EXPECT_THAT(notes(), ElementsAre(kKept));
    EXPECT_TRUE(homeIsNew());
}

TEST_F(AppliedChangeTest, IsUndoneWhenTheOldRulesArePutBack) {
    killedDuring([](StoreSession& session) {
        EXPECT_TRUE(session.applyChange([] { return true; }));
        EXPECT_TRUE(session.applyChange([] { return true; }));
    });
    EXPECT_THAT(notes(), ElementsAre(kUndoneRules));
    EXPECT_FALSE(homeIsNew());
}

TEST_F(AppliedChangeTest, IsKeptWhenItWasAppliedAnew) {
    killedDuring([](StoreSession& session) {
        EXPECT_FALSE(session.applyChange([] { return false; }));
        session.applyAnew();
        EXPECT_TRUE(session.applyChange([] { return true; }));
    });
    EXPECT_THAT(notes(), ElementsAre(kKept));
    EXPECT_TRUE(homeIsNew());
}

TEST_F(AppliedChangeTest, IsNotAppliedWhenItsBeginningCannotBeRecorded) {
    {
        StoreSession session(StoreSession::Access::kChange);
        holdNewHome(session);
        bool applied = false;
        const std::string copies = std::string(kProfileDir) + ".change";
        ASSERT_EQ(mount(copies.c_str(), copies.c_str(), nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(
            mount(nullptr, copies.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
        expectError(
            ErrorKind::kSystem,
            "cannot create " + copies + "/applying: Read-only file system; nothing was applied",
            [&] { (void)session.applyChange([&] { return applied = true; }); });
        ASSERT_EQ(umount(copies.c_str()), 0);
        EXPECT_FALSE(applied);
        EXPECT_TRUE(session.undoChange());
    }
    EXPECT_THAT(notes(), IsEmpty());
    EXPECT_FALSE(homeIsNew());
}

TEST_F(AppliedChangeTest, IsToBeUndoneWhenItCannotBeFlushed) {
    for (int failed = 1; failed <= 2; ++failed) {  // of the profile directory, of the journal's
        {
            StoreSession session(StoreSession::Access::kChange);
            holdNewHome(session);
            flushes() = {0, failed, failed};
            expectError(ErrorKind::kSystem,
                        "the change could not be flushed to the disk: Input/output error",
                        [&] { (void)session.applyChange([] { return true; }); });
            EXPECT_TRUE(session.undoChange());
        }
        EXPECT_THAT(notes(), IsEmpty());
        EXPECT_FALSE(homeIsNew());
    }
}

TEST_F(AppliedChangeTest, StaysWhateverFailsAfterwards) {
    {
        StoreSession session(StoreSession::Access::kChange);
        holdNewHome(session);
        EXPECT_TRUE(session.applyChange([] { return true; }));
        flushes() = {0, 1, kNever};
        EXPECT_NO_THROW(session.keepChange());
        flushes() = {};
    }
    EXPECT_THAT(notes(), ElementsAre(kKept));
    EXPECT_TRUE(homeIsNew());
}

TEST_F(StoreSessionTest, RemovesWhatTheLibraryCouldNotRename) {
    const std::string left = kHomeFile + ".tmp";
    {
        StoreSession session(StoreSession::Access::kChange);
        EXPECT_FALSE(session.change([&] {
            writeFile(left, "{}");
            return false;
        }));
        EXPECT_FALSE(fs::exists(left));
        EXPECT_TRUE(session.snapshot().hasProfile("home"));
    }
    writeFile(left, "{}");
    const StoreSession reading(StoreSession::Access::kRead);
    EXPECT_TRUE(fs::exists(left));
    const StoreSession changing(StoreSession::Access::kChange);
    EXPECT_FALSE(fs::exists(left));
}

TEST_F(StoreSessionTest, LeavesWhatAnotherProgramIsWriting) {
    const std::string left = kHomeFile + ".tmp";
    writeFile(left, "{}");
    const Descriptor file(open(FW::getLockFile(kHomeFile).c_str(), O_RDWR | O_CLOEXEC));
    struct flock range {};
    range.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(file.get(), F_OFD_SETLK, &range), 0);
    const StoreSession session(StoreSession::Access::kChange);
    EXPECT_TRUE(fs::exists(left));
}

TEST_F(StoreSessionTest, SettledOneIsNotOpenedDuringAChange) {
    const LockTime brief(std::chrono::milliseconds(50));
    const auto openSettled = [&] {
        return errorOf([&] { StoreSession(StoreSession::Access::kSettled, brief); });
    };
    {
        const StoreSession changing(StoreSession::Access::kChange);
        const std::optional<Error> error = openSettled();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), ErrorKind::kBusy);
        EXPECT_FALSE(errorOf([&] { StoreSession(StoreSession::Access::kRead, brief); }));
    }
    EXPECT_FALSE(openSettled());
    const StoreSession settled(StoreSession::Access::kSettled);
    EXPECT_TRUE(errorOf([&] { StoreSession(StoreSession::Access::kChange, brief); }));
}

TEST_F(AppliedChangeTest, IsEndedByASettledSession) {
    killedDuring([](StoreSession& /*session*/) {});
    StoreSession session(StoreSession::Access::kSettled);
    EXPECT_THAT(session.takeNotes(), ElementsAre(kUndone));
    EXPECT_FALSE(homeIsNew());
}

TEST_F(StoreSessionTest, WaitsOnceForAllLocksOfDocumentsAndNamesOne) {
    StoreSession session(StoreSession::Access::kChange, LockTime(std::chrono::milliseconds(200)));
    const Pipe ready;
    const pid_t holder = startProcess("a process", [&] {
        for (const std::string& path : session.snapshot().documentPaths()) {
            const int file = open(FW::getLockFile(path).c_str(), O_RDWR);
            struct flock range {};
            range.l_type = F_WRLCK;
            (void)fcntl(file, F_SETLK, &range);
        }
        (void)writeText(ready.writeEnd.get(), "1");
        return pause();
    });
    char held = '0';
    ASSERT_EQ(read(ready.readEnd.get(), &held, 1), 1);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 2; ++i) {
        bool called = false;
        const auto error = errorOf([&] { session.changeMany([&] { return called = true; }); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), ErrorKind::kBusy);
        EXPECT_THAT(error->what(),
                    HasSubstr(".json.lock is locked by process " + std::to_string(holder) + " ("));
        EXPECT_FALSE(called);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    (void)kill(holder, SIGKILL);
    (void)waitStatusOf(holder);
}

}  // namespace
}  // namespace tarnfw
