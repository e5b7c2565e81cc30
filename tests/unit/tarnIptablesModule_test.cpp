// Kernel modules on behalf of services: reading the list file, inserting, removing, and the record
// of which service has loaded its own; with the four C functions over it.

#include <syslog.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/tarnIptablesModule.h"
#include "tarnfirewall/tarnfirewall_c.h"

namespace {

using FW::TARN_IPTABLES_MODULES;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;
using Lines = std::vector<std::string>;

const std::string kRecordLock = kLockDir + "iptables_serv_mod_list.lock";

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// "Failed to get key ..." for a key of the list file.
std::string missingKey(const std::string& key) {
    return "tarnIptablesModule: Failed to get key " + key + " from " + kModuleList;
}

// What one insertion or removal asks: `call` is "insmod" or "rmmod".
Lines changed(const std::string& call, const std::string& service, const std::string& modules) {
    return {call + " " + service + ": " + modules, "lock " + kRecordLock + " 1 30",
            "set " + kServiceRecord + " " + service + (call == "insmod" ? "=yes" : "=no"),
            "unlock 1000"};
}

class ModuleTest : public LibraryTest {
protected:
    ModuleTest() {
        setList("KERNEL_MODULES_CORE", "a.ko b.ko");
        setList("KERNEL_MODULES_COMMON", "c.ko");
        setList("IPV6_MODULES", "d.ko");
        setList("KERNEL_MODULES_NAT", "n.ko m.ko");
        platform_.failModInsertOf = "not in any list";
        platform_.failModRemoveOf = "not in any list";
    }

    void TearDown() override {
        EXPECT_EQ(platform_.openLists, 0);
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
    }

    void setList(const std::string& key, const std::string& value) {
        platform_.keyValues[kModuleList][key] = value;
    }

    void removeKey(const std::string& key) { platform_.keyValues[kModuleList].erase(key); }

    void setRecord(const std::string& service, const std::string& value) {
        platform_.keyValues[kServiceRecord][service] = value;
    }

    // "yes", "no", or empty when the service has no record.
    std::string recordOf(const std::string& service) const {
        const auto file = platform_.keyValues.find(kServiceRecord);
        if (file == platform_.keyValues.end() || file->second.count(service) == 0) {
            return "";
        }
        return file->second.at(service);
    }

    // The journal without the directory of the lock file, which is made on the way to a lock.
    Lines calls() const {
        Lines found = platform_.journal;
        found.erase(std::remove(found.begin(), found.end(), "mkdir " + kLockDir), found.end());
        return found;
    }
};

// ---- The list file ----

using ModuleListTest = ModuleTest;

TEST_F(ModuleListTest, CoreListIsCoreThenCommonThenIpv6) {
    Lines modules;
    EXPECT_TRUE(TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules));
    EXPECT_THAT(modules, ElementsAre("a.ko", "b.ko", "c.ko", "d.ko"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(ModuleListTest, EachMissingKeyOfTheCoreListIsAFailureThatNamesIt) {
    for (const std::string key : {"KERNEL_MODULES_CORE", "KERNEL_MODULES_COMMON", "IPV6_MODULES"}) {
        const auto complete = platform_.keyValues;
        removeKey(key);
        platform_.clearLog();
        Lines modules = {"kept.ko"};
        EXPECT_FALSE(TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules)) << key;
        EXPECT_THAT(errors(), ElementsAre(missingKey(key)));
        EXPECT_THAT(modules, ElementsAre("kept.ko"));
        platform_.keyValues = complete;
    }
}

TEST_F(ModuleListTest, ListFileThatCannotBeReadIsAFailureOfTheFirstKeyAlone) {
    platform_.getKeyResult = -1;
    Lines modules;
    EXPECT_FALSE(TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::natModuleLoad(modules));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesModListGet("ANY_KEY", modules));
    EXPECT_THAT(errors(), ElementsAre(missingKey("KERNEL_MODULES_CORE"),
                                      missingKey("KERNEL_MODULES_NAT"), missingKey("ANY_KEY")));
    EXPECT_THAT(modules, IsEmpty());
}

TEST_F(ModuleListTest, NatListIsItsOneKey) {
    Lines modules;
    EXPECT_TRUE(TARN_IPTABLES_MODULES::natModuleLoad(modules));
    EXPECT_THAT(modules, ElementsAre("n.ko", "m.ko"));
}

TEST_F(ModuleListTest, MissingNatKeyIsAFailure) {
    removeKey("KERNEL_MODULES_NAT");
    Lines modules;
    EXPECT_FALSE(TARN_IPTABLES_MODULES::natModuleLoad(modules));
    EXPECT_THAT(errors(), ElementsAre(missingKey("KERNEL_MODULES_NAT")));
}

TEST_F(ModuleListTest, AnyKeyCanBeRead) {
    setList("SOME_MODULES", "x.ko y.ko");
    Lines modules;
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesModListGet("SOME_MODULES", modules));
    EXPECT_THAT(modules, ElementsAre("x.ko", "y.ko"));
}

TEST_F(ModuleListTest, MissingKeyOfAnyNameIsAFailure) {
    Lines modules;
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesModListGet("NO_MODULES", modules));
    EXPECT_THAT(errors(), ElementsAre(missingKey("NO_MODULES")));
}

struct SplitCase {
    std::string name;
    std::string value;
    Lines modules;
};

void PrintTo(const SplitCase& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.value);
}

class ModuleSplitTest : public ModuleTest, public ::testing::WithParamInterface<SplitCase> {};

TEST_P(ModuleSplitTest, AtEveryBlank) {
    setList("SOME_MODULES", GetParam().value);
    setList("KERNEL_MODULES_NAT", GetParam().value);
    Lines some = {"replaced.ko"};
    Lines nat = {"replaced.ko"};
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesModListGet("SOME_MODULES", some));
    EXPECT_TRUE(TARN_IPTABLES_MODULES::natModuleLoad(nat));
    EXPECT_EQ(some, GetParam().modules);
    EXPECT_EQ(nat, GetParam().modules);
}

const SplitCase kSplits[] = {
    {"NoBlankIsOneName", "a.ko", {"a.ko"}},
    {"SingleBlanks", "a.ko b.ko c.ko", {"a.ko", "b.ko", "c.ko"}},
    {"TwoBlanksHoldAnEmptyName", "a.ko  b.ko", {"a.ko", "", "b.ko"}},
    {"LeadingBlank", " a.ko", {"", "a.ko"}},
    {"TrailingBlank", "a.ko ", {"a.ko", ""}},
    {"TabIsNoSeparator", "a.ko\tb.ko", {"a.ko\tb.ko"}},
    {"EmptyValueIsOneEmptyName", "", {""}},
    {"LongestValue", std::string(4095, 'm'), {std::string(4095, 'm')}},
    // The buffer holds 4096 bytes, the terminating zero included.
    {"LongerValueIsCut", std::string(5000, 'm'), {std::string(4095, 'm')}},
};

INSTANTIATE_TEST_SUITE_P(Values, ModuleSplitTest, ValuesIn(kSplits),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(ModuleListTest, EachPartOfTheCoreListHasItsOwnBuffer) {
    setList("KERNEL_MODULES_CORE", std::string(4095, 'a'));
    setList("KERNEL_MODULES_COMMON", std::string(4095, 'c'));
    setList("IPV6_MODULES", "d.ko");
    Lines modules;
    EXPECT_TRUE(TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules));
    EXPECT_THAT(modules, ElementsAre(std::string(4095, 'a'), std::string(4095, 'c'), "d.ko"));
}

TEST_F(ModuleListTest, EmptyPartOfTheCoreListIsAnEmptyName) {
    setList("KERNEL_MODULES_COMMON", "");
    Lines modules;
    EXPECT_TRUE(TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules));
    EXPECT_THAT(modules, ElementsAre("a.ko", "b.ko", "", "d.ko"));
}

// ---- moduleInsert, moduleRemove: the same steps ----

struct Change {
    std::string name;
    bool (*run)(const std::string& service, const Lines& modules);
    std::string call;     ///< "insmod" as the fake platform notes it
    std::string failure;  ///< name of the platform's function in the message
    std::string value;    ///< what the service's record says afterwards
};

void PrintTo(const Change& c, std::ostream* out) {
    *out << c.name;
}

class ModuleChangeTest : public ModuleTest, public ::testing::WithParamInterface<Change> {
protected:
    bool run(const Lines& modules) { return GetParam().run("ssh", modules); }

    void failThePlatform(int result) {
        platform_.modInsertResult = result;
        platform_.modRemoveResult = result;
    }
};

TEST_P(ModuleChangeTest, ChangesTheKernelOutsideTheLockAndRecordsItInside) {
    EXPECT_TRUE(run({"x.ko", "y.ko", "z.ko"}));
    EXPECT_EQ(calls(), changed(GetParam().call, "ssh", "x.ko y.ko z.ko"));
    EXPECT_EQ(recordOf("ssh"), GetParam().value);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(ModuleChangeTest, PositiveResultOfThePlatformIsSuccess) {
    failThePlatform(1);
    EXPECT_TRUE(run({"x.ko"}));
    EXPECT_EQ(recordOf("ssh"), GetParam().value);
}

TEST_P(ModuleChangeTest, EmptyNamesReachThePlatform) {
    EXPECT_TRUE(run({"x.ko", "", "z.ko"}));
    EXPECT_EQ(calls(), changed(GetParam().call, "ssh", "x.ko  z.ko"));
}

TEST_P(ModuleChangeTest, ListWithoutModulesIsHandedOverToo) {
    EXPECT_TRUE(run({}));
    EXPECT_EQ(calls(), changed(GetParam().call, "ssh", ""));
}

TEST_P(ModuleChangeTest, ListThatCannotBeAllocatedIsAFailureWithThePlatformsError) {
    platform_.listAllocFails = true;
    EXPECT_FALSE(run({"x.ko"}));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(recordOf("ssh"), "");
    EXPECT_THAT(errors(),
                ElementsAre("tarnIptablesModule: Failed to allocate list[0x0200 szlist.c:31]"));
}

TEST_P(ModuleChangeTest, NameThatCannotBeAddedIsAFailureAndFreesTheList) {
    for (const int position : {0, 1, 2}) {
        platform_.listPushFailsAt = position;
        platform_.clearLog();
        EXPECT_FALSE(run({"x.ko", "y.ko", "z.ko"})) << position;
        EXPECT_EQ(platform_.openLists, 0) << position;
        EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to TLIBCSzListPush()"));
    }
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(recordOf("ssh"), "");
}

TEST_P(ModuleChangeTest, FailureOfThePlatformLeavesTheRecordAlone) {
    setRecord("ssh", "as before");
    failThePlatform(-1);
    EXPECT_FALSE(run({"x.ko"}));
    EXPECT_THAT(calls(), ElementsAre(GetParam().call + " ssh: x.ko"));
    EXPECT_EQ(recordOf("ssh"), "as before");
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to " + GetParam().failure));
}

TEST_P(ModuleChangeTest, RecordIsWrittenWithoutTheLockWhenThatCannotBeHad) {
    for (const int result : {0, -1, 2}) {  // 1 alone is success
        platform_.lockResult = result;
        platform_.clearLog();
        platform_.clearJournal();
        platform_.keyValues.erase(kServiceRecord);
        EXPECT_TRUE(run({"x.ko"})) << result;
        Lines unlocked = changed(GetParam().call, "ssh", "x.ko");
        unlocked.pop_back();
        EXPECT_EQ(calls(), unlocked) << result;
        EXPECT_EQ(recordOf("ssh"), GetParam().value) << result;
        EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to get lock [" + kRecordLock +
                                              "] error[Resource temporarily unavailable]",
                                          "tarnIptablesModule: Failed to get lock " + kRecordLock +
                                              " but still continue"));
    }
}

TEST_P(ModuleChangeTest, RecordThatCannotBeWrittenIsAFailureAndReleasesTheLock) {
    platform_.setKeyResult = -1;
    EXPECT_FALSE(run({"x.ko"}));
    EXPECT_EQ(calls(), changed(GetParam().call, "ssh", "x.ko"));
    // File and service are swapped.
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: failed to set key " + kServiceRecord +
                                      " to file ssh[0x0901 keyvalue.c:99]"));
}

TEST_P(ModuleChangeTest, FailedReleaseIsLoggedAndNoFailure) {
    platform_.unlockResult = 0;
    EXPECT_TRUE(run({"x.ko"}));
    EXPECT_EQ(recordOf("ssh"), GetParam().value);
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to unlock mail config lock. "));
}

TEST_P(ModuleChangeTest, FailedWriteAndFailedReleaseAreBothLogged) {
    platform_.setKeyResult = -1;
    platform_.unlockResult = 0;
    EXPECT_FALSE(run({"x.ko"}));
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: failed to set key " + kServiceRecord +
                                          " to file ssh[0x0901 keyvalue.c:99]",
                                      "tarnIptablesModule: Failed to unlock mail config lock. "));
}

TEST_P(ModuleChangeTest, LockLiesInTmpWhenItsDirectoryCannotBeMade) {
    platform_.mkdirFails = true;
    EXPECT_TRUE(run({"x.ko"}));
    EXPECT_THAT(platform_.journalOf("lock "), ElementsAre("/tmp/iptables_serv_mod_list.lock 1 30"));
    EXPECT_EQ(recordOf("ssh"), GetParam().value);
}

TEST_P(ModuleChangeTest, SecondTimeDoesAllOfItAgain) {
    EXPECT_TRUE(run({"x.ko"}));
    EXPECT_TRUE(run({"x.ko"}));
    const Lines once = changed(GetParam().call, "ssh", "x.ko");
    EXPECT_EQ(calls(), once + once);
}

TEST_P(ModuleChangeTest, OtherServicesKeepTheirRecord) {
    setRecord("vpn", "as before");
    EXPECT_TRUE(run({"x.ko"}));
    EXPECT_EQ(recordOf("vpn"), "as before");
    EXPECT_EQ(recordOf("ssh"), GetParam().value);
}

struct LockBroke {};

TEST_P(ModuleChangeTest, ExceptionOnTheWayToTheRecordLeaksNoList) {
    platform_.onLock = [](const std::string&) { throw LockBroke(); };
    EXPECT_THROW(run({"x.ko"}), LockBroke);
    EXPECT_EQ(platform_.openLists, 0);
}

const Change kChanges[] = {
    {"Insert", TARN_IPTABLES_MODULES::moduleInsert, "insmod", "TLIBIptablesModInsert()", "yes"},
    {"Remove", TARN_IPTABLES_MODULES::moduleRemove, "rmmod", "TLIBIptablesModRemove()", "no"},
};

INSTANTIATE_TEST_SUITE_P(Changes, ModuleChangeTest, ValuesIn(kChanges),
                         [](const auto& tested) { return tested.param.name; });

// ---- isModuleLoad ----

using IsModuleLoadTest = ModuleTest;

TEST_F(IsModuleLoadTest, FalseWithoutARecordFile) {
    // Asking a file that is not there for a key would be an error of the platform.
    platform_.getKeyResult = -1;
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(IsModuleLoadTest, FalseForAnUnknownService) {
    setRecord("vpn", "yes");
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(IsModuleLoadTest, TrueForYesAlone) {
    for (const std::string value : {"no", "", "Yes", "YES", "yes ", " yes", "yess", "ye", "1"}) {
        setRecord("ssh", value);
        EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh")) << '"' << value << '"';
    }
    setRecord("ssh", "yes");
    EXPECT_TRUE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(IsModuleLoadTest, RecordThatCannotBeReadIsLoggedAndFalse) {
    setRecord("ssh", "yes");
    platform_.getKeyResult = -1;
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    // File and service are swapped.
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: failed to get key " + kServiceRecord +
                                      " from file ssh[0x0900 keyvalue.c:77]"));
}

TEST_F(IsModuleLoadTest, TakesNoLockAndChangesNothing) {
    setRecord("ssh", "yes");
    EXPECT_TRUE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(IsModuleLoadTest, FollowsInsertAndRemove) {
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_TRUE(TARN_IPTABLES_MODULES::moduleInsert("ssh", {"x.ko"}));
    EXPECT_TRUE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("vpn"));
    EXPECT_TRUE(TARN_IPTABLES_MODULES::moduleRemove("ssh", {"x.ko"}));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::isModuleLoad("ssh"));
}

// ---- The core list and the NAT list ----

using CoreModulesTest = ModuleTest;

TEST_F(CoreModulesTest, LoadedInListOrder) {
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesCoreModLoad("ssh"));
    EXPECT_EQ(calls(), changed("insmod", "ssh", "a.ko b.ko c.ko d.ko"));
    EXPECT_EQ(recordOf("ssh"), "yes");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(CoreModulesTest, UnloadedInReverseOrder) {
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesCoreModUnload("ssh"));
    EXPECT_EQ(calls(), changed("rmmod", "ssh", "d.ko c.ko b.ko a.ko"));
    EXPECT_EQ(recordOf("ssh"), "no");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(CoreModulesTest, DoubleBlankReachesThePlatformAsAnEmptyName) {
    setList("KERNEL_MODULES_CORE", "a.ko  b.ko");
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesCoreModLoad("ssh"));
    EXPECT_EQ(calls(), changed("insmod", "ssh", "a.ko  b.ko c.ko d.ko"));
}

TEST_F(CoreModulesTest, MissingIpv6KeyFailsEveryLoadAndUnloadBeforeAnythingChanges) {
    removeKey("IPV6_MODULES");
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesCoreModLoad("ssh"));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesCoreModUnload("ssh"));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModLoad("ssh"));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModUnload("ssh"));
    EXPECT_THAT(calls(), IsEmpty());
    const Lines failure = {missingKey("IPV6_MODULES"),
                           "tarnIptablesModule: Failed to coreCommonModuleLoad()"};
    EXPECT_EQ(errors(), failure + failure + failure + failure);
}

TEST_F(CoreModulesTest, FailedInsertIsLoggedWithServiceAndList) {
    platform_.failModInsertOf = "c.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesCoreModLoad("ssh"));
    EXPECT_EQ(recordOf("ssh"), "");
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                    "tarnIptablesModule: Failed to moduleInsert(ssh, a.ko b.ko c.ko d.ko)"));
}

TEST_F(CoreModulesTest, FailedRemoveIsLoggedWithServiceAndReversedList) {
    setRecord("ssh", "yes");
    platform_.failModRemoveOf = "c.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesCoreModUnload("ssh"));
    EXPECT_EQ(recordOf("ssh"), "yes");
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModRemove()",
                    "tarnIptablesModule: Failed to moduleRemove(ssh, d.ko c.ko b.ko a.ko)"));
}

using NatModulesTest = ModuleTest;

TEST_F(NatModulesTest, LoadedBehindTheCoreList) {
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesNATModLoad("vpn"));
    EXPECT_EQ(calls(), changed("insmod", "vpn", "a.ko b.ko c.ko d.ko") +
                           changed("insmod", "vpn", "n.ko m.ko"));
    EXPECT_EQ(recordOf("vpn"), "yes");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NatModulesTest, UnloadedBeforeTheCoreListEachReversed) {
    EXPECT_TRUE(TARN_IPTABLES_MODULES::iptablesNATModUnload("vpn"));
    EXPECT_EQ(calls(), changed("rmmod", "vpn", "m.ko n.ko") +
                           changed("rmmod", "vpn", "d.ko c.ko b.ko a.ko"));
    EXPECT_EQ(recordOf("vpn"), "no");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NatModulesTest, MissingNatKeyFailsBeforeAnythingChanges) {
    removeKey("KERNEL_MODULES_NAT");
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModLoad("vpn"));
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModUnload("vpn"));
    EXPECT_THAT(calls(), IsEmpty());
    const Lines failure = {missingKey("KERNEL_MODULES_NAT"),
                           "tarnIptablesModule: Failed to natModuleLoad()"};
    EXPECT_EQ(errors(), failure + failure);
}

TEST_F(NatModulesTest, FailedCoreInsertLeavesTheNatListAlone) {
    platform_.failModInsertOf = "a.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModLoad("vpn"));
    EXPECT_THAT(calls(), ElementsAre("insmod vpn: a.ko b.ko c.ko d.ko"));
    EXPECT_EQ(recordOf("vpn"), "");
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                    "tarnIptablesModule: Failed to moduleInsert(vpn, a.ko b.ko c.ko d.ko)"));
}

TEST_F(NatModulesTest, FailedNatInsertLeavesTheCoreListInserted) {
    platform_.failModInsertOf = "m.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModLoad("vpn"));
    EXPECT_EQ(calls(),
              changed("insmod", "vpn", "a.ko b.ko c.ko d.ko") + Lines{"insmod vpn: n.ko m.ko"});
    EXPECT_EQ(recordOf("vpn"), "yes");
    EXPECT_THAT(errors(),
                ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                            "tarnIptablesModule: Failed to moduleInsert(vpn, n.ko m.ko)"));
}

TEST_F(NatModulesTest, FailedNatRemoveLeavesTheCoreListAlone) {
    setRecord("vpn", "yes");
    platform_.failModRemoveOf = "n.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModUnload("vpn"));
    EXPECT_THAT(calls(), ElementsAre("rmmod vpn: m.ko n.ko"));
    EXPECT_EQ(recordOf("vpn"), "yes");
    EXPECT_THAT(errors(),
                ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModRemove()",
                            "tarnIptablesModule: Failed to moduleRemove(vpn, m.ko n.ko)"));
}

TEST_F(NatModulesTest, FailedCoreRemoveLeavesTheNatListRemoved) {
    setRecord("vpn", "yes");
    platform_.failModRemoveOf = "d.ko";
    EXPECT_FALSE(TARN_IPTABLES_MODULES::iptablesNATModUnload("vpn"));
    EXPECT_EQ(calls(),
              changed("rmmod", "vpn", "m.ko n.ko") + Lines{"rmmod vpn: d.ko c.ko b.ko a.ko"});
    EXPECT_EQ(recordOf("vpn"), "no");
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModRemove()",
                    "tarnIptablesModule: Failed to moduleRemove(vpn, d.ko c.ko b.ko a.ko)"));
}

// ---- The C functions ----

struct ExportCase {
    std::string name;
    int (*run)(const char* service);
    Lines calls;  ///< on success, for the service "ssh"
};

void PrintTo(const ExportCase& c, std::ostream* out) {
    *out << c.name;
}

class ModuleExportTest : public ModuleTest, public ::testing::WithParamInterface<ExportCase> {};

TEST_P(ModuleExportTest, OneOnSuccess) {
    EXPECT_EQ(GetParam().run("ssh"), 1);
    EXPECT_EQ(calls(), GetParam().calls);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(ModuleExportTest, ZeroOnFailure) {
    platform_.modInsertResult = -1;
    platform_.modRemoveResult = -1;
    EXPECT_EQ(GetParam().run("ssh"), 0);
    EXPECT_THAT(calls(), ElementsAre(GetParam().calls[0]));
}

TEST_P(ModuleExportTest, AnExceptionIsZeroAndLogged) {
    platform_.onLock = [](const std::string&) { throw std::runtime_error("lost"); };
    EXPECT_EQ(GetParam().run("ssh"), 0);
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Unexpected failure: lost"));
}

TEST_P(ModuleExportTest, NullIsMinusOneAndLogged) {
    EXPECT_EQ(GetParam().run(nullptr), -1);
    EXPECT_THAT(platform_.journal, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: servName is NULL"));
}

const ExportCase kExports[] = {
    {"CoreLoad", TARNIptablesCodeModeLoad, changed("insmod", "ssh", "a.ko b.ko c.ko d.ko")},
    {"CoreUnload", TARNIptablesCoreModUnload, changed("rmmod", "ssh", "d.ko c.ko b.ko a.ko")},
    {"NatLoad", TARNIptablesNATModLoad,
     changed("insmod", "ssh", "a.ko b.ko c.ko d.ko") + changed("insmod", "ssh", "n.ko m.ko")},
    {"NatUnload", TARNIptablesNATModUnload,
     changed("rmmod", "ssh", "m.ko n.ko") + changed("rmmod", "ssh", "d.ko c.ko b.ko a.ko")},
};

INSTANTIATE_TEST_SUITE_P(Exports, ModuleExportTest, ValuesIn(kExports),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
