// The history of the store: what becomes an entry, what undoing gives back, what is never lost.
#include "tarnfwadmin/storeHistory.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/process.h"
#include "tarnfwadmin/storeDifference.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kHistory = std::string(kProfileDir) + ".history/";

const std::string kOther = std::string(kProfileDir) + "other.json";

class StoreHistoryTest : public StoreTest {
protected:
    /// One change of "home", to `port`.
    static void setPort(const std::string& port) {
        StoreSession session(StoreSession::Access::kChange);
        FW::FWPROFILE changed = session.snapshot().profile("home");
        changed.rules["global"][0].portList = {port};
        session.storeProfile(changed);
    }

    /// Profile "other", with a label of `bytes` bytes.
    static void writeOther(std::size_t bytes = 1) {
        Json::Value document = profile({rule()});
        document["name"] = "other";
        document["rules"]["global"][0]["labelList"].append(std::string(bytes, 'x'));
        writeDocument(kOther, document);
    }

    static std::vector<std::string> lines(std::size_t number) {
        const StoreChange change = StoreHistory().changeOf(number, StoreSnapshot());
        std::vector<std::string> lines;
        for (const StoreDifference& difference : storeDifferences(change.before, change.after)) {
            lines.push_back(difference.line());
        }
        return lines;
    }

    static void undo(std::size_t number) {
        StoreSession session(StoreSession::Access::kChange);
        session.replaceDocuments(StoreHistory().undoing(number, session.snapshot()));
    }
};

TEST_F(StoreHistoryTest, UndoingGivesBackEachByteAndMode) {
    ASSERT_EQ(chmod(kHomeFile.c_str(), 0640), 0);
    const std::string first = contentOf(kHomeFile);
    setPort("81");
    const std::string second = contentOf(kHomeFile);
    setPort("82");
    ASSERT_EQ(StoreHistory().entries().size(), 2U);
    EXPECT_THAT(StoreHistory().entry(1).documents, ElementsAre(kHomeFile));
    EXPECT_THAT(StoreHistory().entry(1).command, HasSubstr("storeHistory_test"));

    undo(2);
    EXPECT_EQ(contentOf(kHomeFile), first);
    EXPECT_EQ(fs::status(kHomeFile).permissions(), fs::perms(0640));
    undo(2);  // undoes the undoing, and the change to 82
    EXPECT_EQ(contentOf(kHomeFile), second);
    EXPECT_EQ(StoreHistory().entries().size(), 4U);
}

TEST_F(StoreHistoryTest, DeletedProfileComesBackAsItWas) {
    const std::string other = std::string(kProfileDir) + "other.json";
    Json::Value document = profile({rule()});
    document["name"] = "other";
    writeDocument(other, document);
    ASSERT_EQ(chmod(other.c_str(), 0604), 0);
    const std::string before = contentOf(other);
    {
        StoreSession session(StoreSession::Access::kChange);
        ASSERT_TRUE(session.deleteProfile("other"));
        EXPECT_THAT(session.takeNotes(), IsEmpty());
    }
    EXPECT_THAT(lines(1), ElementsAre("- profile \"other\" (1 rule)"));
    undo(1);
    EXPECT_EQ(contentOf(other), before);
    EXPECT_EQ(fs::status(other).permissions(), fs::perms(0604));
    EXPECT_THAT(lines(1), ElementsAre("+ profile \"other\" (1 rule)"));
}

TEST_F(StoreHistoryTest, NothingChangedIsNoEntry) {
    StoreSession session(StoreSession::Access::kChange);
    ASSERT_TRUE(session.change([] { return true; }));
    EXPECT_FALSE(session.change([] {
        writeFile(kHomeFile, "{}");
        return false;
    }));
    session.holdChange();
    session.setApplyMode(ApplyMode::kBatch);
    EXPECT_TRUE(session.undoChange());
    EXPECT_THAT(StoreHistory().entries(), IsEmpty());
    EXPECT_FALSE(fs::exists(std::string(kProfileDir) + ".change"));
}

TEST_F(StoreHistoryTest, DocumentsOfTrialsAreNoEntry) {
    StoreSession session(StoreSession::Access::kChange);
    const FW::FWPROFILE test = session.snapshot().profile("home");
    ASSERT_TRUE(
        session.change([&] { return FW::TARNFW_PROFILE().CreateTestProfile("home", test); }));
    ASSERT_EQ(session.snapshot().testProfileNames().size(), 1U);
    ASSERT_TRUE(session.deleteProfile(session.snapshot().testProfileNames().front()));
    EXPECT_THAT(StoreHistory().entries(), IsEmpty());
}

TEST_F(StoreHistoryTest, StatusStaysAsItIs) {
    {
        StoreSession session(StoreSession::Access::kChange);
        session.setApplyMode(ApplyMode::kBatch);
        ASSERT_TRUE(session.change([] {
            Json::Value enabled;
            enabled["status"] = true;
            return FW::TARNFW().configSet(enabled);
        }));
    }
    ASSERT_EQ(StoreHistory().entries().size(), 1U);  // no undoing enables or disables
    EXPECT_THAT(lines(1), ElementsAre("~ apply mode: - -> batch"));
    undo(1);
    const StoreSnapshot store;
    EXPECT_TRUE(store.firewallEnabled());
    EXPECT_EQ(store.applyMode(), ApplyMode::kLines);
    EXPECT_THAT(lines(1), ElementsAre("~ apply mode: batch -> -"));
}

TEST_F(StoreHistoryTest, EnablingIsNoPartOfTheChangeThatWroteTheSettings) {
    ASSERT_EQ(unlink(kSettingsFile), 0);
    {
        StoreSession session(StoreSession::Access::kChange);
        session.setApplyMode(ApplyMode::kBatch);
    }
    Json::Value enabled;
    enabled["status"] = true;
    ASSERT_TRUE(FW::TARNFW().configSet(enabled));
    const std::vector<std::string> said = lines(1);
    EXPECT_THAT(said, testing::Contains("~ apply mode: - -> batch"));
    EXPECT_THAT(said, testing::Not(testing::Contains(HasSubstr("firewall: "))));
}

TEST_F(StoreHistoryTest, WithoutSettingsTheDefaultProfileIsTheActiveOne) {
    Json::Value defaults;
    FW::TARNFW().initJconfig(defaults);
    Json::Value document = profile({rule()});
    document["name"] = defaults["profile"];
    writeDocument(kOther, document);
    ASSERT_EQ(unlink(kSettingsFile), 0);
    {
        StoreSession session(StoreSession::Access::kChange);
        session.setApplyMode(ApplyMode::kBatch);
    }
    Json::Value other;
    other["profile"] = "home";
    ASSERT_TRUE(FW::TARNFW().configSet(other));
    const auto undone = StoreHistory().undoing(1, StoreSnapshot());
    ASSERT_FALSE(undone.at(kSettingsFile).text);
    ASSERT_EQ(unlink(kHomeFile.c_str()), 0);  // the active one now, not the one of then
    EXPECT_NO_THROW(requireUndoable(undone, StoreSnapshot()));
    writeDocument(kHomeFile, profile({rule()}));
    ASSERT_EQ(unlink(kOther.c_str()), 0);
    expectError(ErrorKind::kUnusable,
                "the active profile, \"" + defaults["profile"].asString() +
                    "\", would be gone; nothing was changed",
                [&] { requireUndoable(undone, StoreSnapshot()); });
}

TEST_F(StoreHistoryTest, DefaultsThatAreWrittenAreNoEntry) {
    ASSERT_EQ(unlink(kSettingsFile), 0);
    StoreSession session(StoreSession::Access::kChange);
    ASSERT_TRUE(session.change([] {
        Json::Value enabled;
        enabled["status"] = true;
        return FW::TARNFW().configSet(enabled);
    }));
    ASSERT_TRUE(fs::exists(kSettingsFile));
    EXPECT_THAT(StoreHistory().entries(), IsEmpty());
    EXPECT_THAT(session.takeNotes(), IsEmpty());
}

TEST_F(StoreHistoryTest, OthersChangesAreSeen) {
    setPort("81");
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), IsEmpty());
    writeDocument(kHomeFile, profile({rule()}));  // without a session
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), ElementsAre(kHomeFile));
    setPort("82");
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), IsEmpty());
    EXPECT_THAT(StoreHistory().changedByOthers(2, StoreSnapshot()), ElementsAre(kHomeFile));
    // The library enables and disables for other programs; undoing does not touch that.
    {
        StoreSession session(StoreSession::Access::kChange);
        session.setApplyMode(ApplyMode::kBatch);
    }
    Json::Value enabled;
    enabled["status"] = true;
    ASSERT_TRUE(FW::TARNFW().configSet(enabled));
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), IsEmpty());
}

TEST_F(StoreHistoryTest, NoProfileIsThereTwiceAfterUndoing) {
    writeOther();
    {
        StoreSession session(StoreSession::Access::kChange);
        ASSERT_TRUE(session.deleteProfile("other"));
    }
    const StoreSnapshot deleted;
    EXPECT_NO_THROW(requireUndoable(StoreHistory().undoing(1, deleted), deleted));
    const std::string second = std::string(kProfileDir) + "second.json";
    writeFile(second, R"({"name": "other"})");  // without a session
    const StoreSnapshot store;
    expectError(ErrorKind::kUnusable,
                "profile \"other\" would be there twice, in " + second + " and " + kOther +
                    "; nothing was changed",
                [&] { requireUndoable(StoreHistory().undoing(1, store), store); });
}

TEST_F(StoreHistoryTest, ActiveProfileIsThereAfterUndoing) {
    writeOther();
    {
        StoreSession session(StoreSession::Access::kChange);
        ASSERT_TRUE(
            session.change([] { return FW::TARNFW_PROFILE().profileRename("other", "third"); }));
    }
    Json::Value settings;
    settings["profile"] = "third";
    writeDocument(kSettingsFile, settings);  // without a session
    const StoreSnapshot store;
    expectError(ErrorKind::kUnusable,
                "the active profile, \"third\", would be gone; nothing was changed",
                [&] { requireUndoable(StoreHistory().undoing(1, store), store); });
}

TEST_F(StoreHistoryTest, OldestGoAndOnlyRootMayLook) {
    for (std::size_t i = 0; i < kHistoryLength + 2; ++i) {
        setPort(std::to_string(100 + i));
    }
    EXPECT_EQ(StoreHistory().entries().size(), kHistoryLength);
    EXPECT_FALSE(fs::exists(kHistory + "2"));
    EXPECT_TRUE(fs::exists(kHistory + "3"));
    EXPECT_EQ(fs::status(kHistory).permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(kHistory + "3").permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(kHistory + "3/record").permissions(), fs::perms(0600));
    expectError(ErrorKind::kNotFound, "there is no change 51: 50 changes are kept",
                [] { (void)StoreHistory().entry(51); });
}

// ---- Deletions, and the room that the history takes ---------------------------------------------

TEST_F(StoreHistoryTest, DeletionNeedsNoOtherDocument) {
    const std::string unreadable = std::string(kProfileDir) + "zz.json";
    writeOther();
    const std::string before = contentOf(kOther);
    StoreSession session(StoreSession::Access::kChange);
    const FW::FWPROFILE test = session.snapshot().profile("home");
    ASSERT_TRUE(
        session.change([&] { return FW::TARNFW_PROFILE().CreateTestProfile("home", test); }));
    ASSERT_EQ(symlink("/proc/self/mem", unreadable.c_str()), 0);
    EXPECT_TRUE(session.deleteProfile(session.snapshot().testProfileNames().front()));
    EXPECT_TRUE(session.deleteProfile("other"));
    EXPECT_FALSE(fs::exists(kOther));
    EXPECT_FALSE(fs::exists(std::string(kProfileDir) + ".change"));
    EXPECT_THAT(session.takeNotes(), IsEmpty());
    ASSERT_EQ(unlink(unreadable.c_str()), 0);
    ASSERT_EQ(StoreHistory().entries().size(), 1U);
    session.replaceDocuments(StoreHistory().undoing(1, StoreSnapshot()));
    EXPECT_EQ(contentOf(kOther), before);
}

TEST_F(StoreHistoryTest, DeletionMakesRoomOnADiskThatIsNearlyFull) {
    constexpr std::size_t kPage = 4096;
    constexpr std::size_t kLabel = 5 * kPage - kPage / 2;  // a document of five pages
    ASSERT_EQ(mount("small", kProfileDir, "tmpfs", 0, "size=128k"), 0);
    writeDocument(kHomeFile, profile({rule()}));
    writeSettings(false);
    writeOther(kLabel);
    const auto freeBytes = [] {
        struct statvfs disk {};
        EXPECT_EQ(statvfs(kProfileDir, &disk), 0);
        return disk.f_bfree * disk.f_frsize;
    };
    writeFile(std::string(kProfileDir) + "filler", std::string(freeBytes() - 6 * kPage, 'x'));
    const auto before = freeBytes();  // for the copy and its record
    ASSERT_EQ(before, 6 * kPage);
    StoreSession session(StoreSession::Access::kChange);
    ASSERT_TRUE(session.deleteProfile("other"));
    EXPECT_EQ(freeBytes(), before + 4 * kPage);  // without that of the record
    EXPECT_THAT(session.takeNotes(), ElementsAre(HasSubstr("or the disk is nearly full")));
    EXPECT_FALSE(StoreHistory().entry(1).undoable);
}

TEST_F(StoreHistoryTest, ChangeThatIsTooLargeIsNoReasonToUndoAnOlderOne) {
    constexpr off_t kTooMuch = 64 * 1024 * 1024;
    setPort("81");
    {
        StoreSession session(StoreSession::Access::kChange);
        ASSERT_TRUE(session.change([] {
            const std::string copy = std::string(kProfileDir) + ".change/home.json";
            const Descriptor file(open(copy.c_str(), O_WRONLY | O_CLOEXEC));
            EXPECT_EQ(fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, kTooMuch), 0);
            writeDocument(kHomeFile, profile({rule()}));
            return true;
        }));
        EXPECT_THAT(session.takeNotes(), ElementsAre(HasSubstr("it is too large, or the disk")));
    }
    EXPECT_FALSE(fs::exists(kHistory + "2/home.json"));
    const std::string kept = contentOf(kHomeFile);
    setPort("82");
    const StoreHistory history;
    const StoreSnapshot store;
    ASSERT_EQ(history.entries().size(), 3U);  // the oldest is kept as well
    EXPECT_FALSE(history.entry(2).undoable);
    EXPECT_TRUE(history.entry(3).undoable);
    EXPECT_THAT(lines(2), IsEmpty());
    EXPECT_THAT(lines(3), IsEmpty());  // what the change after it has found is lost
    for (const std::size_t number : {2U, 3U}) {
        const std::optional<Error> error = errorOf([&] { (void)history.undoing(number, store); });
        ASSERT_TRUE(error) << number;
        EXPECT_EQ(error->kind(), ErrorKind::kUnusable);
        EXPECT_THAT(error->what(), HasSubstr("change 2 ("));
    }
    undo(1);
    EXPECT_EQ(contentOf(kHomeFile), kept);
}

TEST_F(StoreHistoryTest, EntryThatIsRemovedMeanwhileIsSaidToBe) {
    setPort("81");
    const StoreHistory history;
    fs::remove_all(kHistory + "1");
    expectError(ErrorKind::kNotFound, "change 1 is no longer kept",
                [&] { (void)history.changeOf(1, StoreSnapshot()); });
}

TEST_F(StoreHistoryTest, OldestGoWhereTheyTakeTooMuchRoom) {
    constexpr off_t kTooMuch = 64 * 1024 * 1024;
    setPort("81");
    setPort("82");
    {
        const std::string path = kHistory + "1/filler";
        const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(posix_fallocate(file.get(), 0, kTooMuch), 0);
    }
    setPort("83");
    EXPECT_FALSE(fs::exists(kHistory + "1"));
    EXPECT_EQ(StoreHistory().entries().size(), 2U);
}

// ---- Interruptions ------------------------------------------------------------------------------

/// A command that is killed in a change, once it has set the port if `port` is not empty.
void killChange(const std::string& port) {
    const pid_t child = startProcess("change", [port] {
        StoreSession session(StoreSession::Access::kChange);
        (void)session.change([&] {
            if (!port.empty()) {
                FW::FWPROFILE changed = session.snapshot().profile("home");
                changed.rules["global"][0].portList = {port};
                (void)FW::TARNFW_PROFILE().profileSet("home", changed);
            }
            _exit(0);
            return true;
        });
        return 0;
    });
    (void)waitStatusOf(child);
}

TEST_F(StoreHistoryTest, ChangeOfAKilledCommandIsAnEntryOnceItWasMade) {
    const std::string before = contentOf(kHomeFile);
    killChange("");
    { const StoreSession next(StoreSession::Access::kChange); }
    EXPECT_THAT(StoreHistory().entries(), IsEmpty());
    killChange("81");
    ASSERT_NE(contentOf(kHomeFile), before);
    { const StoreSession next(StoreSession::Access::kChange); }
    EXPECT_EQ(StoreHistory().entries().size(), 1U);
    undo(1);
    EXPECT_EQ(contentOf(kHomeFile), before);
}

TEST_F(StoreHistoryTest, CopiesThatAPowerFailureHasEmptiedAreNoEntry) {
    const std::string copies = std::string(kProfileDir) + ".change/";
    const std::string before = contentOf(kHomeFile);
    setPort("81");
    for (const char* const emptied : {"home.json", "firewall_settings.json"}) {
        killChange("");
        writeFile(copies + emptied, "");
        { const StoreSession next(StoreSession::Access::kChange); }
        EXPECT_FALSE(fs::exists(copies)) << emptied;
        EXPECT_EQ(StoreHistory().entries().size(), 1U) << emptied;
    }
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), IsEmpty());
    undo(1);
    EXPECT_EQ(contentOf(kHomeFile), before);
}

TEST_F(StoreHistoryTest, IncompleteEntryCountsAsMissing) {
    setPort("81");
    setPort("82");
    writeFile(kHistory + "2/home.json", "{}");
    ASSERT_EQ(StoreHistory().entries().size(), 1U);
    // What it did is then like a change by another program.
    EXPECT_THAT(StoreHistory().changedByOthers(1, StoreSnapshot()), ElementsAre(kHomeFile));
    writeFile(kHistory + "1/record", "");
    EXPECT_THAT(StoreHistory().entries(), IsEmpty());
    setPort("83");
    EXPECT_EQ(StoreHistory().entries().size(), 1U);
}

TEST_F(StoreHistoryTest, ChangeStaysWhenItCannotBeKept) {
    writeFile(std::string(kProfileDir) + ".history", "no directory");
    StoreSession session(StoreSession::Access::kChange);
    session.setApplyMode(ApplyMode::kBatch);
    EXPECT_EQ(StoreSnapshot().applyMode(), ApplyMode::kBatch);
    EXPECT_THAT(session.takeNotes(),
                ElementsAre(HasSubstr("\"tarnfw undo\" cannot undo this change")));
    EXPECT_FALSE(fs::exists(std::string(kProfileDir) + ".change"));
}

// ---- Differences --------------------------------------------------------------------------------

std::vector<std::string> between(const Json::Value& before, const Json::Value& after) {
    const auto text = [](const Json::Value& document) { return document.toStyledString(); };
    std::vector<std::string> lines;
    for (const StoreDifference& difference :
         storeDifferences({{kHomeFile, text(before)}}, {{kHomeFile, text(after)}})) {
        lines.push_back(difference.line());
    }
    return lines;
}

TEST_F(StoreHistoryTest, RulesAndPoliciesInWords) {
    const Json::Value first = profile({rule(), rule(R"({"portList": ["23"]})")});
    Json::Value second = profile({rule(R"({"labelList": ["x"]})"), rule(R"({"portList": ["23"]})"),
                                  rule(R"({"enable": false, "portList": ["24"]})")});
    second["adapterPolicyMap"]["eth7"] = 1;
    EXPECT_THAT(between(first, second),
                ElementsAre("home: + default policy of eth7: deny",
                            "home: - rule 1 of global: allow tcp 22 from anywhere",
                            "home: + rule 1 of global: allow tcp 22 from anywhere [x]",
                            "home: + rule 3 of global: [off] allow tcp 24 from anywhere"));
    Json::Value third = first;
    third["adapterPolicyMap"]["eth7"] = 0;
    third["adapterPolicyMap"]["global"] = 2;
    EXPECT_THAT(between(second, third),
                ElementsAre("home: ~ default policy of eth7: deny -> allow",
                            "home: - rule 1 of global: allow tcp 22 from anywhere [x]",
                            "home: + rule 1 of global: allow tcp 22 from anywhere",
                            "home: - rule 3 of global: [off] allow tcp 24 from anywhere"));
}

TEST_F(StoreHistoryTest, WhatAnUpdateOfServicesChangesIsToBeSeen) {
    const char kReserved[] =
        R"({"portGroup": 2, "ipGroup": 5, "portList": ["ftp"], "protocol": 3})";
    const char kUpdated[] = R"({"portGroup": 2, "ipGroup": 5, "portList": ["ftp"], "protocol": 1})";
    EXPECT_THAT(between(profile({rule(kReserved)}), profile({rule(kUpdated)})),
                ElementsAre("home: - rule 1 of global: allow service ftp from anywhere, reserved, "
                            "stored for tcp/udp",
                            "home: + rule 1 of global: allow service ftp from anywhere, "
                            "reserved, stored for tcp"));
}

TEST_F(StoreHistoryTest, SettingsInWords) {
    const auto between = [](const std::map<std::string, std::string>& before,
                            const std::map<std::string, std::string>& after) {
        std::vector<std::string> lines;
        for (const StoreDifference& difference : storeDifferences(before, after)) {
            lines.push_back(difference.line());
        }
        return lines;
    };
    const std::map<std::string, std::string> none;
    const std::map<std::string, std::string> disabled = {
        {kSettingsFile, R"({"profile": "home", "status": false})"}};
    const std::map<std::string, std::string> enabled = {
        {kSettingsFile, R"({"profile": "home", "status": true})"}};
    EXPECT_THAT(between(none, disabled), ElementsAre("~ active profile: - -> home"));
    EXPECT_THAT(between(disabled, none), ElementsAre("~ active profile: home -> -"));
    EXPECT_THAT(between(none, enabled),
                ElementsAre("~ active profile: - -> home", "~ firewall: disabled -> enabled"));
    EXPECT_THAT(between(enabled, disabled), ElementsAre("~ firewall: enabled -> disabled"));
}

TEST_F(StoreHistoryTest, NamesAndOtherFilesInWords) {
    const Json::Value first = profile({rule()});
    Json::Value renamed = first;
    renamed["name"] = "casa";
    EXPECT_THAT(between(first, renamed), ElementsAre("casa: ~ renamed, was \"home\""));
    EXPECT_THAT(between(first, Json::Value("no profile")),
                ElementsAre("- profile \"home\" (1 rule)",
                            "~ file " + kHomeFile + ", which is not a profile"));
    EXPECT_THAT(between(first, first), IsEmpty());
}

}  // namespace
}  // namespace tarnfw
