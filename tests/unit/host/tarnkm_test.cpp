#include "tarnkm.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hostCall.h"
#include "host_testing.h"
#include "logged.h"
#include "moduleLedger.h"
#include "tarncore.h"

// Whether no lock can be given back.
namespace {
bool refuseUnlocking = false;
}

// In place of the C library's, for the platform as well.
extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (refuseUnlocking && command == F_OFD_SETLK &&
        static_cast<const struct flock*>(argument)->l_type == F_UNLCK) {
        errno = EIO;
        return -1;
    }
    static const auto real = reinterpret_cast<int (*)(int, int, ...)>(dlsym(RTLD_NEXT, "fcntl"));
    return real(fd, command, argument);
}

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using host::ModuleState;

const std::string kLedgerFile = "/run/tarn/iptables_modules.json";

// A kernel in a table: what it has, what needs what, what goes wrong, and what was done to it.
class RecordedKernel {
public:
    std::map<std::string, ModuleState> modules;  ///< one that is missing is unknown
    std::map<std::string, std::vector<std::string>> needs;
    std::map<std::string, int> insertErrors;
    std::map<std::string, int> removeErrors;
    std::vector<std::string> journal;

    host::ModuleKernel functions() {
        return {[this](const std::string& name) { return stateOf(name); },
                [this](const std::string& name) { return insert(name); },
                [this](const std::string& name) { return remove(name); }};
    }

    bool isPresent(const std::string& name) const { return stateOf(name) == ModuleState::Present; }

private:
    ModuleState stateOf(const std::string& name) const {
        const auto entry = modules.find(name);
        return entry == modules.end() ? ModuleState::Unknown : entry->second;
    }
    int insert(const std::string& name) {
        journal.push_back("insert " + name);
        if (insertErrors[name] != 0) {
            return insertErrors[name];
        }
        for (const std::string& needed : needs[name]) {
            modules[needed] = ModuleState::Present;
        }
        modules[name] = ModuleState::Present;
        return 0;
    }
    int remove(const std::string& name) {
        journal.push_back("remove " + name);
        if (removeErrors[name] != 0) {
            return removeErrors[name];
        }
        modules[name] = ModuleState::Absent;
        return 0;
    }
};

TEST(ModuleNameTest, IsWhatTheKernelCallsTheFile) {
    EXPECT_EQ(host::moduleName("xt_mac.ko"), "xt_mac");
    EXPECT_EQ(host::moduleName("nf-log-syslog.ko"), "nf_log_syslog");
    EXPECT_EQ(host::moduleName("xt_mac"), "xt_mac");
    EXPECT_EQ(host::moduleName("a.ko.ko"), "a.ko");
    EXPECT_EQ(host::moduleName(".ko"), "");
    EXPECT_EQ(host::moduleName(""), "");
}

// ---- Bookkeeping --------------------------------------------------------------------------------

class ModulesTest : public ::testing::Test {
protected:
    ModulesTest() {
        for (const char* name : {"x_tables", "ip_tables", "xt_mac", "xt_log"}) {
            kernel_.modules[name] = ModuleState::Absent;
        }
        clearCapturedLog();
    }
    int insert(const std::string& service, const std::vector<std::string>& files) {
        return host::insertModules(kernel_.functions(), service, files, ledger_);
    }
    int remove(const std::string& service, const std::vector<std::string>& files) {
        return host::removeModules(kernel_.functions(), service, files, ledger_);
    }

    RecordedKernel kernel_;
    host::ModuleLedger ledger_;
};

TEST_F(ModulesTest, InsertsInListOrder) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "x_tables.ko", "ip-tables.ko"}), 0);
    EXPECT_THAT(kernel_.journal,
                ElementsAre("insert xt_mac", "insert x_tables", "insert ip_tables"));
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ModulesTest, SkipsEmptyNames) {
    EXPECT_EQ(insert("firewall", {"", "xt_mac.ko", ".ko", ""}), 0);
    EXPECT_EQ(remove("firewall", {"", "xt_mac.ko", ""}), 0);
    EXPECT_THAT(kernel_.journal, ElementsAre("insert xt_mac", "remove xt_mac"));
}

TEST_F(ModulesTest, AServiceThatInsertsTwiceCountsOnce) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    EXPECT_THAT(kernel_.journal, ElementsAre("insert xt_mac", "insert xt_log"));
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("xt_mac"));
    EXPECT_EQ(ledger_.count("xt_mac"), 0u);
}

TEST_F(ModulesTest, ANameThatIsListedTwiceIsInsertedOnceAndCounted) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "xt-mac.ko"}), 0);
    EXPECT_THAT(kernel_.journal, ElementsAre("insert xt_mac"));
    EXPECT_TRUE(ledger_["xt_mac"].inserted);
}

TEST_F(ModulesTest, AModuleLeavesWithItsLastService) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(insert("vpn", {"xt_mac.ko"}), 0);
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);
    EXPECT_TRUE(kernel_.isPresent("xt_mac"));
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);  // once more changes nothing
    EXPECT_TRUE(kernel_.isPresent("xt_mac"));
    EXPECT_EQ(remove("vpn", {"xt_mac.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("xt_mac"));
}

TEST_F(ModulesTest, RemovesInListOrder) {
    EXPECT_EQ(insert("firewall", {"x_tables.ko", "ip_tables.ko"}), 0);
    kernel_.journal.clear();
    EXPECT_EQ(remove("firewall", {"ip_tables.ko", "x_tables.ko"}), 0);
    EXPECT_THAT(kernel_.journal, ElementsAre("remove ip_tables", "remove x_tables"));
}

TEST_F(ModulesTest, WhatWasPresentBeforeStays) {
    kernel_.modules["xt_mac"] = ModuleState::Present;
    EXPECT_EQ(insert("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);
    EXPECT_THAT(kernel_.journal, IsEmpty());
    EXPECT_THAT(ledger_, IsEmpty());
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ModulesTest, ASecondServiceDoesNotMakeAnInsertedModuleAForeignOne) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(insert("vpn", {"xt_mac.ko"}), 0);  // finds it present
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(remove("vpn", {"xt_mac.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("xt_mac"));
}

TEST_F(ModulesTest, WhatIsBuiltInIsNeitherInsertedNorRemoved) {
    kernel_.modules["xt_mac"] = ModuleState::BuiltIn;
    EXPECT_EQ(insert("firewall", {"xt_mac.ko"}), 0);
    EXPECT_EQ(remove("firewall", {"xt_mac.ko"}), 0);
    EXPECT_THAT(kernel_.journal, IsEmpty());
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ModulesTest, UnknownModulesAreNoFailureAndLoggedTogether) {
    EXPECT_EQ(insert("firewall", {"xt_geoip.ko", "xt_mac.ko", "compat-xtables.ko"}), 0);
    EXPECT_THAT(kernel_.journal, ElementsAre("insert xt_mac"));
    EXPECT_THAT(logged(LOG_WARNING),
                ElementsAre(EndsWith(" does not have the modules: xt_geoip compat_xtables")));
    EXPECT_EQ(remove("firewall", {"xt_geoip.ko", "xt_mac.ko"}), 0);
    EXPECT_EQ(capturedLog().size(), 1u);
}

TEST_F(ModulesTest, AModuleThatCameAlongForAnotherLeavesAsWell) {
    kernel_.needs["ip_tables"] = {"x_tables"};
    EXPECT_EQ(insert("firewall", {"ip_tables.ko", "x_tables.ko"}), 0);
    EXPECT_EQ(remove("firewall", {"ip_tables.ko", "x_tables.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("ip_tables"));
    EXPECT_FALSE(kernel_.isPresent("x_tables"));
}

TEST_F(ModulesTest, AModuleThatWillNotLoadEndsTheInsertionAndWhatCameBeforeStays) {
    kernel_.insertErrors["xt_mac"] = ENOEXEC;
    EXPECT_EQ(insert("firewall", {"x_tables.ko", "xt_geoip.ko", "xt_mac.ko", "xt_log.ko"}),
              ENOEXEC);
    EXPECT_THAT(kernel_.journal, ElementsAre("insert x_tables", "insert xt_mac"));
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot load the module xt_mac")));
    EXPECT_EQ(logged(LOG_WARNING).size(), 1u);  // of xt_geoip

    // The counts are those of what is there: the next removal takes it out.
    EXPECT_EQ(ledger_.size(), 1u);
    EXPECT_EQ(remove("firewall", {"xt_log.ko", "xt_mac.ko", "x_tables.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("x_tables"));
    EXPECT_THAT(ledger_, IsEmpty());
}

class BusyTest : public ModulesTest, public ::testing::WithParamInterface<int> {};

TEST_P(BusyTest, AModuleInUseStaysUntilTheNextRemoval) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    kernel_.removeErrors["xt_mac"] = GetParam();
    EXPECT_EQ(remove("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    EXPECT_TRUE(kernel_.isPresent("xt_mac"));
    EXPECT_FALSE(kernel_.isPresent("xt_log"));
    EXPECT_THAT(logged(LOG_NOTICE), ElementsAre(HasSubstr("The module xt_mac is in use")));
    EXPECT_THAT(logged(LOG_ERR), IsEmpty());

    kernel_.removeErrors.clear();
    EXPECT_EQ(insert("vpn", {"xt_mac.ko"}), 0);
    EXPECT_EQ(remove("vpn", {"xt_mac.ko"}), 0);
    EXPECT_FALSE(kernel_.isPresent("xt_mac"));
}
INSTANTIATE_TEST_SUITE_P(Codes, BusyTest, ::testing::Values(EWOULDBLOCK, EBUSY));

TEST_F(ModulesTest, ARemovalThatFailsIsReportedAndTheOthersAreDone) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    kernel_.removeErrors["xt_mac"] = EPERM;
    EXPECT_EQ(remove("firewall", {"xt_mac.ko", "xt_log.ko"}), EPERM);
    EXPECT_FALSE(kernel_.isPresent("xt_log"));
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot remove the module xt_mac")));
    EXPECT_TRUE(ledger_["xt_mac"].inserted);
    EXPECT_THAT(ledger_["xt_mac"].services, IsEmpty());
}

TEST_F(ModulesTest, AModuleThatSomebodyElseRemovedIsForgotten) {
    EXPECT_EQ(insert("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    kernel_.modules["xt_mac"] = ModuleState::Absent;
    kernel_.removeErrors["xt_log"] = ENOENT;  // gone between the look and the removal
    EXPECT_EQ(remove("firewall", {"xt_mac.ko", "xt_log.ko"}), 0);
    EXPECT_THAT(ledger_, IsEmpty());
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ModulesTest, RemovingWhatWasNeverInsertedDoesNothing) {
    kernel_.modules["xt_mac"] = ModuleState::Present;
    EXPECT_EQ(remove("firewall", {"xt_mac.ko", "never_seen.ko"}), 0);
    EXPECT_THAT(kernel_.journal, IsEmpty());
}

// ---- The ledger's text --------------------------------------------------------------------------

TEST(LedgerTextTest, RoundTrips) {
    host::ModuleLedger ledger;
    ledger["xt_mac"].inserted = true;
    ledger["xt_mac"].services = {"firewall", "a \"quoted\" name", "\xc3\xa4"};
    ledger["x_tables"].services = {"firewall"};
    ledger["in_use"].inserted = true;
    const std::optional<host::ModuleLedger> read = host::parseLedger(host::ledgerText(ledger));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->size(), 3u);
    EXPECT_TRUE(read->at("xt_mac").inserted);
    EXPECT_EQ(read->at("xt_mac").services, ledger["xt_mac"].services);
    EXPECT_FALSE(read->at("x_tables").inserted);
    EXPECT_THAT(read->at("in_use").services, IsEmpty());
}

const std::vector<std::string>& damagedLedgers() {
    static const std::vector<std::string> texts = {
        "",
        "{",
        "[]",
        "22",
        "{} {}",
        R"({"xt_mac": 1})",
        R"({"xt_mac": {}})",
        R"({"xt_mac": {"inserted": 1, "services": []}})",
        R"({"xt_mac": {"inserted": true, "services": "firewall"}})",
        R"({"xt_mac": {"inserted": true, "services": [1]}})",
        std::string(50000, '['),
        std::string("\0\0\0\0", 4),
    };
    return texts;
}

TEST(LedgerTextTest, TellsADamagedTextFromALedger) {
    EXPECT_TRUE(host::parseLedger("{}"));
    for (const std::string& text : damagedLedgers()) {
        EXPECT_FALSE(host::parseLedger(text)) << text.substr(0, 100);
    }
}

// ---- The functions themselves, with modules that no kernel has ----------------------------------

struct ListFree {
    void operator()(PTLIBCSZLIST list) const { TLIBCSzListFree(list); }
};
using List = std::unique_ptr<TLIBCSZLIST, ListFree>;

List listOf(const std::vector<std::string>& names) {
    PTLIBCSZLIST list = TLIBCSzListAlloc(4, 0);
    for (const std::string& name : names) {
        EXPECT_GE(TLIBCSzListPush(&list, name.c_str()), 0);
    }
    return List(list);
}

class ModFunctionsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all("/run/tarn");
        clearCapturedLog();
    }
    static host::ModuleLedger stored() {
        const std::optional<host::ModuleLedger> ledger = host::parseLedger(readFile(kLedgerFile));
        EXPECT_TRUE(ledger);
        return ledger.value_or(host::ModuleLedger());
    }
};

TEST_F(ModFunctionsTest, UnknownModulesAreWarnedOfOnceACall) {
    const List modules = listOf({"tarn_no_such_a.ko", "", "tarn-no-such-b.ko"});
    EXPECT_EQ(TLIBIptablesModInsert("firewall", modules.get()), 0);
    EXPECT_THAT(logged(LOG_WARNING), ElementsAre(EndsWith("tarn_no_such_a tarn_no_such_b")));
    EXPECT_EQ(TLIBIptablesModRemove("firewall", modules.get()), 0);
    EXPECT_THAT(logged(LOG_ERR), IsEmpty());
    EXPECT_EQ(logged(LOG_WARNING).size(), 1u);
}

TEST_F(ModFunctionsTest, AnEmptyListIsNoFailure) {
    const List none = listOf({});
    EXPECT_EQ(TLIBIptablesModInsert("firewall", none.get()), 0);
    EXPECT_EQ(TLIBIptablesModRemove("firewall", none.get()), 0);
    EXPECT_THAT(logged(LOG_WARNING), IsEmpty());
}

TEST_F(ModFunctionsTest, RefusesMissingArguments) {
    const List none = listOf({});
    using Function = int (*)(const char*, PTLIBCSZLIST);
    for (const Function function : {TLIBIptablesModInsert, TLIBIptablesModRemove}) {
        for (const char* service : {static_cast<const char*>(nullptr), ""}) {
            TLIBCErrSetEx(0, "test", 0);
            EXPECT_LT(function(service, none.get()), 0);
            EXPECT_EQ(TLIBCErrGet(), host::kErrorBadParameter);
        }
        EXPECT_LT(function("firewall", nullptr), 0);
    }
}

TEST_F(ModFunctionsTest, KeepsTheLedgerInAFileThatOnlyItsOwnerReads) {
    writeFile(kLedgerFile,
              R"({"tarn_no_such": {"inserted": false, "services": ["firewall", "vpn"]}})");
    const List modules = listOf({"tarn-no-such.ko"});
    const Umask open(0);
    EXPECT_EQ(TLIBIptablesModRemove("firewall", modules.get()), 0);
    EXPECT_THAT(stored().at("tarn_no_such").services, UnorderedElementsAre("vpn"));
    EXPECT_EQ(modeOf(kLedgerFile), static_cast<mode_t>(S_IFREG | 0600));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/run/tarn"), {}), 2);  // the lock
    EXPECT_EQ(TLIBIptablesModRemove("vpn", modules.get()), 0);
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(ModFunctionsTest, MakesItsDirectoryReadableWhateverTheUmask) {
    const Umask closed(0777);
    EXPECT_EQ(TLIBIptablesModInsert("firewall", listOf({}).get()), 0);
    EXPECT_EQ(modeOf("/run/tarn"), static_cast<mode_t>(S_IFDIR | 0755));
}

TEST_F(ModFunctionsTest, ADamagedLedgerIsLoggedAndTakenAsEmpty) {
    const List modules = listOf({"tarn_no_such.ko"});
    for (const std::string& text : damagedLedgers()) {
        writeFile(kLedgerFile, text);
        clearCapturedLog();
        EXPECT_EQ(TLIBIptablesModRemove("firewall", modules.get()), 0);
        EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr(kLedgerFile + ": damaged")))
            << text.substr(0, 100);
    }
    // The file is whole again, so it is told once.
    clearCapturedLog();
    EXPECT_EQ(TLIBIptablesModRemove("firewall", modules.get()), 0);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ModFunctionsTest, ALedgerThatCannotBeWrittenIsAFailure) {
    writeFile(kLedgerFile, R"({"tarn_no_such": {"inserted": false, "services": ["firewall"]}})");
    // Its temporary file has no room; the lock needs none.
    writeFile("/run/tarn/iptables_modules.lock", "", 0600);
    const struct rlimit none = {0, RLIM_INFINITY};
    struct rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    const int result = TLIBIptablesModRemove("firewall", listOf({"tarn_no_such.ko"}).get());
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_LT(result, 0);
    EXPECT_EQ(TLIBCErrGet(), EFBIG);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr(kLedgerFile + ": not written: ")));
    EXPECT_THAT(stored().at("tarn_no_such").services, ElementsAre("firewall"));
}

TEST_F(ModFunctionsTest, ALedgerThatOthersMayHaveWrittenIsTakenAsEmpty) {
    writeFile(kLedgerFile, R"({"tarn_no_such": {"inserted": true, "services": ["vpn"]}})", 0666);
    EXPECT_EQ(TLIBIptablesModRemove("firewall", listOf({"tarn_no_such.ko"}).get()), 0);
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("Refused " + kLedgerFile + ": group or others may write it"),
                            HasSubstr(kLedgerFile + ": not read, taken as empty: ")));
    EXPECT_THAT(stored().at("tarn_no_such").services, ElementsAre("vpn"));  // nothing to write
}

TEST_F(ModFunctionsTest, ADirectoryThatCannotBeMadeIsAFailure) {
    writeFile("/run/tarn", "in the way");
    EXPECT_LT(TLIBIptablesModInsert("firewall", listOf({}).get()), 0);
    EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("/run/tarn: not made: ")));
}

TEST_F(ModFunctionsTest, ALockThatCannotBeTakenIsAFailure) {
    std::filesystem::create_directories("/run/tarn");
    std::filesystem::create_symlink("/run/elsewhere", "/run/tarn/iptables_modules.lock");
    EXPECT_LT(TLIBIptablesModInsert("firewall", listOf({}).get()), 0);
    EXPECT_EQ(TLIBCErrGet(), EAGAIN);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot open lock file"),
                                             HasSubstr(": no lock within 30 s")));
    EXPECT_FALSE(std::filesystem::exists("/run/elsewhere"));
}

TEST_F(ModFunctionsTest, ALockThatCannotBeGivenBackIsLogged) {
    refuseUnlocking = true;
    EXPECT_EQ(TLIBIptablesModInsert("firewall", listOf({}).get()), 0);
    refuseUnlocking = false;
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("/run/tarn/iptables_modules.lock: not unlocked")));
}

TEST_F(ModFunctionsTest, ServicesThatLetGoAtOnceDoNotLoseEachOthersChanges) {
    constexpr int kServices = 12;
    host::ModuleLedger ledger;
    for (int i = 0; i < kServices; ++i) {
        ledger["tarn_no_such"].services.insert("s" + std::to_string(i));
    }
    ledger["tarn_no_such"].services.insert("last");
    writeFile(kLedgerFile, host::ledgerText(ledger));
    const List modules = listOf({"tarn_no_such.ko"});
    std::vector<pid_t> children;
    children.reserve(kServices);
    for (int i = 0; i < kServices; ++i) {
        children.push_back(startChild([&] {
            const std::string service = "s" + std::to_string(i);
            return TLIBIptablesModRemove(service.c_str(), modules.get()) == 0 ? 0 : 1;
        }));
    }
    for (const pid_t child : children) {
        EXPECT_EQ(exitStatusOf(child), 0);
    }
    EXPECT_THAT(stored().at("tarn_no_such").services, ElementsAre("last"));
}

}  // namespace
