// The functions for programs that do not use the classes: their arguments and results. Those
// about kernel modules are tested with the module loader.

#include "tarnfirewall/tarnfirewall_c.h"

#include <dlfcn.h>
#include <stdio.h>

#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "log_lines.h"

namespace fs = std::filesystem;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

namespace {

// Called once, with the path, when the next file has been renamed into its place.
std::function<void(const std::string&)>& fileWritten() {
    static std::function<void(const std::string&)> action;
    return action;
}

}  // namespace

extern "C" int rename(const char* from, const char* to) noexcept {
    const auto libc =
        reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
    const int result = libc(from, to);
    if (const auto action = std::exchange(fileWritten(), nullptr)) {
        action(to);
    }
    return result;
}

namespace {

using FW::FW_POLICY;
using FW::FWPROFILE;
using FW::FWRULE;
using Lines = std::vector<std::string>;

constexpr int kParameterError = 0x0D00;

const Lines kNoIndex = {"err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/",
                        "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/"};
const std::string kSettingsParseError = "err utils: Failed to parse Json value of " + kSettingsFile;

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

FWRULE rule(FW_POLICY policy, int ipGroup, int portGroup,
            const std::vector<std::string>& portList) {
    FWRULE made;
    made.policy = policy;
    made.ipGroup = ipGroup;
    made.portGroup = portGroup;
    made.portList = portList;
    return made;
}

// Two profiles, of which "home" is active, and a firewall that is enabled.
class CInterfaceTest : public LibraryTest {
protected:
    CInterfaceTest() {
        platform_.keyValues[kServiceRecord]["firewall"] = "yes";
        platform_.services = {{"ssh", {"SSH", 1, {"22"}, 0, {}}},
                              {"web", {"Web", 1, {"80", "443"}, 0, {}}},
                              {"dns", {"DNS", 2, {"53"}, 0, {}}},
                              {"nothing", {"Nothing", 1, {}, 0, {}}}};
        storeEmptyProfile("1", "home");
        storeEmptyProfile("2", "zoo");
        storeSettings(true, "home");
    }
    ~CInterfaceTest() override { fileWritten() = nullptr; }

    void TearDown() override {
        EXPECT_EQ(platform_.openCatalogues, 0);
        EXPECT_EQ(platform_.openLists, 0);
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
    }

    Lines log() const { return logLines(platform_); }

    void storeRules(const std::string& stem, const std::string& name,
                    const std::map<std::string, std::vector<FWRULE>>& rules,
                    FW_POLICY policy = FW::FW_POLICY_ALLOW) {
        FWPROFILE profile;
        profile.name = name;
        profile.rules = rules;
        for (const auto& [adapter, list] : rules) {
            profile.adapterPolicyMap[adapter] = policy;
        }
        profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
        storeProfile(stem, profile);
    }

    // "0: ssh,web" for a rule: its policy, and what it lists.
    static Lines storedRules(const std::string& stem, const std::string& adapter) {
        const Json::Value document = storedJson(kProfileDir + stem + ".json");
        Lines found;
        for (const Json::Value& stored : document["rules"].get(adapter, Json::Value())) {
            std::string line = std::to_string(stored["policy"].asInt()) + ":";
            for (const Json::Value& port : stored["portList"]) {
                line += (line.back() == ':' ? " " : ",") + port.asString();
            }
            found.push_back(line);
        }
        return found;
    }

    static void removeAllFiles() {
        for (const std::string& file : filesIn(kProfileDir)) {
            fs::remove(kProfileDir + file);
        }
    }

    static std::string blockWrite(const std::string& path) {
        fs::create_directories(path + ".tmp");
        return "err utils: Failed to open json file " + path + ".tmp";
    }

    bool reloaded() const { return !platform_.journalOf("lock " + kExecLock).empty(); }

    // The tail of the log; more may come before it.
    Lines lastOfLog(std::size_t count) const {
        const Lines lines = log();
        return lines.size() < count
                   ? lines
                   : Lines(lines.end() - static_cast<std::ptrdiff_t>(count), lines.end());
    }
};

// ---- TARNFwRuleHup ----

using RuleHupTest = CInterfaceTest;

TEST_F(RuleHupTest, UpdatesEveryProfileAndAppliesTheActiveOne) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_ALLOW, 5, 2, {"gone", "dns"})}}});
    storeRules("2", "zoo", {{"eth0", {rule(FW::FW_POLICY_ALLOW, 5, 2, {"gone"})}}});
    bool bothUpdated = false;
    platform_.onLock = [&](const std::string& path) {
        bothUpdated = path == kExecLock && storedRules("1", "eth0") == Lines{"0: dns"} &&
                      storedRules("2", "eth0").empty();
    };
    EXPECT_EQ(TARNFwRuleHup(), 0);
    EXPECT_TRUE(bothUpdated);
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -t filter -A INPUT_FIREWALL -i eth0 -p udp --dport 53 "
                         "-j RETURN"));
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED "
                         "-j ACCEPT"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(RuleHupTest, FailedUpdateMakesNoReload) {
    platform_.servicesResult = 0;
    EXPECT_EQ(TARNFwRuleHup(), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: Failed to enum FW services"));
    EXPECT_FALSE(reloaded());
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

TEST_F(RuleHupTest, FailedReloadIsAFailureAndTheProfilesStayUpdated) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_ALLOW, 5, 2, {"gone", "dns"})}}});
    platform_.lockResult = 0;
    EXPECT_EQ(TARNFwRuleHup(), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock"));
    EXPECT_THAT(storedRules("1", "eth0"), ElementsAre("0: dns"));
}

TEST_F(RuleHupTest, DisabledFirewallIsUpdatedAndNothingRuns) {
    storeSettings(false, "home");
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_ALLOW, 5, 2, {"gone", "dns"})}}});
    EXPECT_EQ(TARNFwRuleHup(), 0);
    EXPECT_THAT(storedRules("1", "eth0"), ElementsAre("0: dns"));
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

// ---- TARNFwReset ----

using ResetTest = CInterfaceTest;

TEST_F(ResetTest, DisablesTheFirewall) {
    platform_.keyValues[kModuleList] = {{"KERNEL_MODULES_CORE", "a.ko"},
                                        {"KERNEL_MODULES_COMMON", "c.ko"},
                                        {"IPV6_MODULES", "d.ko"}};
    TARNFwReset();
    EXPECT_THAT(
        platform_.executedLines(),
        ElementsAre("/sbin/iptables -F INPUT_FIREWALL", "/sbin/ip6tables -F INPUT_FIREWALL",
                    "/sbin/iptables -F FORWARD_FIREWALL", "/sbin/ip6tables -F FORWARD_FIREWALL"));
    EXPECT_THAT(platform_.journalOf("rmmod "),
                ElementsAre("firewall: xt_mac.ko xt_geoip.ko compat_xtables.ko",
                            "firewall: d.ko c.ko a.ko"));
    EXPECT_THAT(platform_.journalOf("hook init "),
                ElementsAre("net net/firewall_disable", "net net/firewall_disable"));
    EXPECT_THAT(platform_.journalOf("hook set "), ElementsAre("RESULT=0", "RESULT=0"));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "home"})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ResetTest, FailureIsOnlyLogged) {
    platform_.keyValues[kServiceRecord]["firewall"] = "no";
    const std::string failure = blockWrite(kSettingsFile);
    TARNFwReset();
    EXPECT_THAT(log(), ElementsAre(failure, "err tarnFW: Falied to configSet()"));
    EXPECT_TRUE(storedSettings()["status"].asBool());
    EXPECT_EQ(platform_.errorCode, 0);
}

// ---- TLIBFwServRemoveRec ----

using RemoveRecTest = CInterfaceTest;

TEST_F(RemoveRecTest, TakesTheServiceOutOfEveryProfileWithoutAReload) {
    const FWRULE both = rule(FW::FW_POLICY_ALLOW, 5, 2, {"ssh", "web"});
    storeRules("1", "home", {{"eth0", {both}}, {"global", {both}}});
    storeRules("2", "zoo", {{"eth0", {rule(FW::FW_POLICY_ALLOW, 0, 0, {"ssh"})}}});
    EXPECT_EQ(TLIBFwServRemoveRec("ssh"), 0);
    EXPECT_THAT(storedRules("1", "eth0"), ElementsAre("0: web"));
    EXPECT_THAT(storedRules("1", "global"), ElementsAre("0: web"));
    EXPECT_THAT(storedRules("2", "eth0"), IsEmpty());
    EXPECT_FALSE(reloaded());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(RemoveRecTest, UnknownServiceIsNoFailure) {
    EXPECT_EQ(TLIBFwServRemoveRec("unknown"), 0);
    EXPECT_EQ(TLIBFwServRemoveRec(""), 0);
}

TEST_F(RemoveRecTest, FailureLeavesTheErrorStateAlone) {
    const std::string failure = blockWrite(kProfileDir + "1.json");
    EXPECT_EQ(TLIBFwServRemoveRec("ssh"), -1);
    EXPECT_THAT(log(), ElementsAre(failure, "err fwDB: Failed to profileDbDump()",
                                   "err tarnFW: Failed to profile set [home]"));
    EXPECT_EQ(platform_.errorCode, 0);
    EXPECT_THAT(platform_.journalOf("error set "), IsEmpty());
}

// ---- TLIBFwChangeAdatper ----

using ChangeAdapterTest = CInterfaceTest;

TEST_F(ChangeAdapterTest, MovesTheFirstNameToTheSecond) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_DENY, 5, 1, {"22"})}}});
    storeRules("2", "zoo", {{"eth0", {rule(FW::FW_POLICY_DENY, 5, 1, {"23"})}}});
    EXPECT_EQ(TLIBFwChangeAdatper("eth0", "eth1", 0), 0);
    EXPECT_THAT(storedRules("1", "eth1"), ElementsAre("1: 22"));
    EXPECT_THAT(storedRules("1", "eth0"), IsEmpty());
    EXPECT_THAT(storedRules("2", "eth1"), ElementsAre("1: 23"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ChangeAdapterTest, FailureIsMinusOneAndLeavesTheErrorStateAlone) {
    writeFile(kSettingsFile, "{}");
    EXPECT_EQ(TLIBFwChangeAdatper("eth0", "eth1", 1), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: There are no key: profile in config",
                                   "err tarnFW: Failed to fwProfileConfigGet()"));
    EXPECT_THAT(platform_.journalOf("error set "), IsEmpty());
}

TEST_F(ChangeAdapterTest, FailedReloadIsMinusOne) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_DENY, 5, 1, {"22"})}}});
    platform_.lockResult = 0;
    EXPECT_EQ(TLIBFwChangeAdatper("eth0", "eth1", 1), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock",
                                   "err tarnFW: Failed to reload firewall"));
}

// Only 1 asks for a reload, here and when services are reserved.
class ReloadFlagTest : public CInterfaceTest, public ::testing::WithParamInterface<int> {};

TEST_P(ReloadFlagTest, OfAChangedAdapter) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_DENY, 5, 1, {"22"})}}});
    EXPECT_EQ(TLIBFwChangeAdatper("eth0", "eth1", GetParam()), 0);
    EXPECT_EQ(reloaded(), GetParam() == 1);
    EXPECT_THAT(storedRules("1", "eth1"), ElementsAre("1: 22"));
}

TEST_P(ReloadFlagTest, OfReservedServices) {
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh", 1, GetParam()), 0);
    EXPECT_EQ(reloaded(), GetParam() == 1);
    EXPECT_THAT(storedRules("1", "global"), ElementsAre("0: ssh"));
}

TEST_P(ReloadFlagTest, OfNoServices) {
    EXPECT_EQ(TLIBFwRuleReserveServInsert(",", 1, GetParam()), 0);
    EXPECT_EQ(reloaded(), GetParam() == 1);
    EXPECT_THAT(storedRules("1", "global"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, ReloadFlagTest, ::testing::Values(0, 1, 2, 3, -1, 256, 257),
                         [](const auto& c) {
                             return c.param < 0 ? std::string("MinusOne") : std::to_string(c.param);
                         });

// ---- TLIBFwRuleReserveServInsert ----

using ReserveInsertTest = CInterfaceTest;

TEST_F(ReserveInsertTest, NullAndEmptyTextSetTheErrorStateAndLogNothing) {
    for (const char* names : {static_cast<const char*>(nullptr), ""}) {
        SCOPED_TRACE(names == nullptr ? "NULL" : names);
        platform_.errorCode = 0;
        platform_.errorFile = "platform.c";
        platform_.errorLine = 0;
        platform_.clearJournal();
        EXPECT_EQ(TLIBFwRuleReserveServInsert(names, 1, 1), -1);
        EXPECT_EQ(platform_.errorCode, kParameterError);
        EXPECT_EQ(platform_.errorFile, "tarnfirewall_c");
        EXPECT_GT(platform_.errorLine, 0);
        EXPECT_THAT(platform_.journal, ElementsAre("error set 0x0D00"));
        EXPECT_THAT(log(), IsEmpty());
    }
}

TEST_F(ReserveInsertTest, TwoNamesAreAllowedInTheGlobalListOfEveryProfileWithoutAReload) {
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh,web", 1, 0), 0);
    for (const std::string stem : {"1", "2"}) {
        EXPECT_THAT(storedRules(stem, "global"), ElementsAre("0: ssh,web"));
        EXPECT_THAT(storedJson(kProfileDir + stem + ".json")["rules"].getMemberNames(),
                    ElementsAre("global"));
    }
    EXPECT_FALSE(reloaded());
    EXPECT_THAT(log(), IsEmpty());
}

struct AllowCase {
    const char* name;
    int allow;
    const char* rule;
};

void PrintTo(const AllowCase& c, std::ostream* out) {
    *out << c.name;
}

const AllowCase kAllows[] = {
    {"Zero", 0, "1: ssh"},
    {"One", 1, "0: ssh"},
    {"Two", 2, "0: ssh"},
    {"Minus", -1, "0: ssh"},
    {"OneByteOfZero", 256, "0: ssh"},
};

class AllowFlagTest : public CInterfaceTest, public ::testing::WithParamInterface<AllowCase> {};

TEST_P(AllowFlagTest, GivesThePolicy) {
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh", GetParam().allow, 0), 0);
    EXPECT_THAT(storedRules("1", "global"), ElementsAre(GetParam().rule));
}

INSTANTIATE_TEST_SUITE_P(, AllowFlagTest, ValuesIn(kAllows),
                         [](const auto& c) { return std::string(c.param.name); });

struct SplitCase {
    const char* name;
    const char* names;
    Lines rules;  // in the global list
};

void PrintTo(const SplitCase& c, std::ostream* out) {
    *out << c.name;
}

const SplitCase kSplits[] = {
    {"OneName", "ssh", {"0: ssh"}},
    {"InTheirOrder", "web,dns,ssh", {"0: web,dns,ssh"}},
    {"OnlyCommas", ",,,", {}},
    {"EmptyNamesAreDropped", "ssh,,web", {"0: ssh,web"}},
    {"CommasAtBothEnds", ",ssh,web,", {"0: ssh,web"}},
    {"BlanksBelongToAName", " ssh , web", {"0:  ssh , web"}},
    {"ABlankIsAName", " ", {"0:  "}},
    {"OtherSeparatorsAreNone", "ssh;web dns", {"0: ssh;web dns"}},
    {"TwiceTheSame", "ssh,ssh", {"0: ssh"}},
    {"UnknownToTheCatalogue", "unknown", {"0: unknown"}},
};

class SplitTest : public CInterfaceTest, public ::testing::WithParamInterface<SplitCase> {};

TEST_P(SplitTest, ReservesTheseServices) {
    EXPECT_EQ(TLIBFwRuleReserveServInsert(GetParam().names, 1, 0), 0);
    EXPECT_EQ(storedRules("1", "global"), GetParam().rules);
    EXPECT_EQ(storedRules("2", "global"), GetParam().rules);
    EXPECT_THAT(platform_.journalOf("error set "), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, SplitTest, ValuesIn(kSplits),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ReserveInsertTest, ReloadIsMadeOnceAfterAllNames) {
    bool allReserved = false;
    platform_.onLock = [&](const std::string& path) {
        allReserved = path == kExecLock && storedRules("1", "global") == Lines{"0: ssh,web"} &&
                      storedRules("2", "global") == Lines{"0: ssh,web"};
    };
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh,web", 1, 1), 0);
    EXPECT_TRUE(allReserved);
    EXPECT_EQ(platform_.journalOf("lock " + kExecLock).size(), 1u);
    EXPECT_THAT(platform_.executedLines(), Contains(HasSubstr("--dports 22,80,443 -j RETURN")));
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED "
                         "-j ACCEPT"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ReserveInsertTest, FailedReloadIsLoggedAndTheServicesStayReserved) {
    platform_.lockResult = 0;
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh", 0, 1), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock",
                                   "err tarnfirewall_c: Failed to reload firewall"));
    EXPECT_THAT(storedRules("1", "global"), ElementsAre("1: ssh"));
    EXPECT_EQ(platform_.errorCode, 0);
}

TEST_F(ReserveInsertTest, FailedReloadOfNoServicesIsLoggedAsWell) {
    platform_.lockResult = 0;
    EXPECT_EQ(TLIBFwRuleReserveServInsert(",", 0, 1), -1);
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock",
                                   "err tarnfirewall_c: Failed to reload firewall"));
}

TEST_F(ReserveInsertTest, FirstFailureEndsItWithoutAReload) {
    const std::string failure = blockWrite(kProfileDir + "1.json");
    EXPECT_EQ(TLIBFwRuleReserveServInsert("ssh,web", 1, 1), -1);
    EXPECT_THAT(log(), ElementsAre(failure, "err fwDB: Failed to profileDbDump()",
                                   "err tarnFW: Failed to set profile",
                                   "err tarnfirewall_c: Failed to assign serv [ssh]"));
    EXPECT_THAT(storedRules("2", "global"), IsEmpty());
    EXPECT_FALSE(reloaded());
    EXPECT_THAT(platform_.journalOf("error set "), IsEmpty());
}

TEST_F(ReserveInsertTest, NamesBeforeAFailureStayReserved) {
    fileWritten() = [](const std::string&) {
        // The second write is that of the first name into the last profile.
        fileWritten() = [](const std::string&) { (void)blockWrite(kProfileDir + "1.json"); };
    };
    EXPECT_EQ(TLIBFwRuleReserveServInsert("dns,web,ssh", 1, 1), -1);
    EXPECT_THAT(lastOfLog(2), ElementsAre("err tarnFW: Failed to set profile",
                                          "err tarnfirewall_c: Failed to assign serv [web]"));
    EXPECT_THAT(storedRules("1", "global"), ElementsAre("0: dns"));
    EXPECT_THAT(storedRules("2", "global"), ElementsAre("0: dns"));
    EXPECT_FALSE(reloaded());
}

// ---- TARNFwPortsCheckAllowByAdapter ----

class PortsCheckTest : public CInterfaceTest {
protected:
    // The adapter's verdict for "ssh" and "dns" becomes its default policy. "mixed": the policy
    // denies, and some addresses are allowed.
    void storeVerdicts(const std::map<std::string, std::string>& verdicts) {
        FWPROFILE profile;
        profile.name = "home";
        for (const auto& [adapter, verdict] : verdicts) {
            profile.adapterPolicyMap[adapter] =
                verdict == "allowed" ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
            if (verdict == "mixed") {
                profile.rules[adapter] = {rule(FW::FW_POLICY_ALLOW, 0, 3, {})};
            }
        }
        profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
        storeProfile("1", profile);
    }
};

TEST_F(PortsCheckTest, AnswersForTheGivenAdapter) {
    storeVerdicts({{"eth0", "allowed"}, {"eth1", "blocked"}, {"eth2", "mixed"}});
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), 1);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth1", "ssh"), 0);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth2", "ssh"), 0);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("unknown", "ssh"), 1);
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

struct VerdictsCase {
    const char* name;
    std::map<std::string, std::string> verdicts;
    int result;
};

void PrintTo(const VerdictsCase& c, std::ostream* out) {
    *out << c.name;
}

const VerdictsCase kVerdicts[] = {
    {"NoAdapters", {}, 1},
    {"AllAllowed", {{"eth0", "allowed"}, {"eth1", "allowed"}, {"vpn", "allowed"}}, 1},
    {"FirstBlocked", {{"eth0", "blocked"}, {"eth1", "allowed"}, {"vpn", "allowed"}}, 0},
    {"LastBlocked", {{"eth0", "allowed"}, {"eth1", "allowed"}, {"vpn", "blocked"}}, 0},
    {"OneMixedAndAllOthersAllowed",
     {{"eth0", "allowed"}, {"eth1", "mixed"}, {"vpn", "allowed"}},
     0},
    {"AllBlocked", {{"eth0", "blocked"}, {"eth1", "blocked"}}, 0},
};

class AllAdaptersTest : public PortsCheckTest,
                        public ::testing::WithParamInterface<VerdictsCase> {};

TEST_P(AllAdaptersTest, AreAskedForWithNullAndWithTheEmptyName) {
    storeVerdicts(GetParam().verdicts);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"), GetParam().result);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("", "ssh"), GetParam().result);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, AllAdaptersTest, ValuesIn(kVerdicts),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(PortsCheckTest, OneBlockedPortOfTheServiceIsEnough) {
    storeRules("1", "home", {{"eth0", {rule(FW::FW_POLICY_DENY, 5, 1, {"443"})}}});
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "web"), 0);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), 1);
}

// An entry for "global" counts as every other does, and it is there whatever adapter is asked for.
TEST_F(PortsCheckTest, MixedGlobalVerdictBlocksAnAllowedAdapter) {
    storeRules("1", "home",
               {{"eth0", {rule(FW::FW_POLICY_ALLOW, 5, 3, {})}},
                {"global", {rule(FW::FW_POLICY_DENY, 0, 3, {})}}});
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), 0);
}

TEST_F(PortsCheckTest, DisabledFirewallAllowsTheGivenAdapterAndAll) {
    storeVerdicts({{"eth0", "blocked"}});
    storeSettings(false, "home");
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), 1);
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"), 1);
}

TEST_F(PortsCheckTest, ServiceWithoutPortsIsAllowed) {
    storeVerdicts({{"eth0", "blocked"}});
    for (const char* service : {"nothing", "unknown", ""}) {
        EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", service), 1) << service;
        EXPECT_EQ(TARNFwPortsCheckAllowByAdapter(nullptr, service), 1) << service;
    }
}

TEST_F(PortsCheckTest, NullServiceSetsTheErrorStateAndLogsWhatItReadsBack) {
    for (const char* adapter : {static_cast<const char*>(nullptr), "eth0"}) {
        platform_.clearLog();
        platform_.clearJournal();
        EXPECT_EQ(TARNFwPortsCheckAllowByAdapter(adapter, nullptr), -1);
        EXPECT_EQ(platform_.errorCode, kParameterError);
        EXPECT_EQ(platform_.errorFile, "tarnfirewall_c");
        EXPECT_GT(platform_.errorLine, 0);
        EXPECT_THAT(log(),
                    ElementsAre("err tarnfirewall_c: Bad parameters[0x0D00 " + platform_.errorFile +
                                ":" + std::to_string(platform_.errorLine) + "]"));
        EXPECT_THAT(platform_.journal, ElementsAre("error set 0x0D00"));
    }
}

TEST_F(PortsCheckTest, UnreadableCatalogueIsAnError) {
    platform_.servicesResult = 0;
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), -1);
    EXPECT_THAT(log(), ElementsAre("err fwIptables: Failed to enum services",
                                   "err tarnFW: Failed to servToPorts()",
                                   "err tarnfirewall_c: Failed to check ssh is block or not"));
    EXPECT_THAT(platform_.journalOf("error set "), IsEmpty());
}

TEST_F(PortsCheckTest, UnreadableSettingsAreAnError) {
    writeFile(kSettingsFile, "{");
    EXPECT_EQ(TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"), -1);
    EXPECT_THAT(log(), ElementsAre(kSettingsParseError, "err tarnFW: Falied to configGet()",
                                   "err tarnFW: Failed to check firewall status",
                                   "err tarnFW: Failed to fwPortIsBlocked()",
                                   "err tarnfirewall_c: Failed to check ssh is block or not"));
}

// ---- Failures of the store, function by function ----

struct StoreFailureCase {
    const char* name;
    std::function<int()> call;
    Lines after;  // what follows the store's messages
};

void PrintTo(const StoreFailureCase& c, std::ostream* out) {
    *out << c.name;
}

const StoreFailureCase kStoreFailures[] = {
    {"RuleHup",
     [] { return TARNFwRuleHup(); },
     {"err tarnFW: Failed to enum profiles to profile list"}},
    {"ServRemoveRec",
     [] { return TLIBFwServRemoveRec("ssh"); },
     {"err tarnFW: Failed to profileEnum()"}},
    {"ChangeAdapter",
     [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); },
     {"err tarnFW: Failed to profileEnum()"}},
    {"ReserveServInsert",
     [] { return TLIBFwRuleReserveServInsert("ssh,web", 1, 1); },
     {"err tarnFW: Failed to profileEnum()", "err tarnfirewall_c: Failed to assign serv [ssh]"}},
};

class StoreFailureTest : public CInterfaceTest,
                         public ::testing::WithParamInterface<StoreFailureCase> {};

TEST_P(StoreFailureTest, IsMinusOneAndMakesNoReload) {
    removeAllFiles();
    EXPECT_EQ(GetParam().call(), -1);
    EXPECT_EQ(log(), kNoIndex + GetParam().after);
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_FALSE(reloaded());
}

INSTANTIATE_TEST_SUITE_P(, StoreFailureTest, ValuesIn(kStoreFailures),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- Exceptions ----

const StoreFailureCase kThrowing[] = {
    {"RuleHup", [] { return TARNFwRuleHup(); }, {}},
    {"ServRemoveRec", [] { return TLIBFwServRemoveRec("ssh"); }, {}},
    {"ChangeAdapter", [] { return TLIBFwChangeAdatper("eth0", "eth1", 1); }, {}},
    {"ReserveServInsert", [] { return TLIBFwRuleReserveServInsert("ssh,web", 1, 1); }, {}},
    {"PortsCheck", [] { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh"); }, {}},
};

class ThrowingTest : public CInterfaceTest, public ::testing::WithParamInterface<StoreFailureCase> {
protected:
    // Lock files that cannot be opened: the store raises the lock library's exception.
    void breakLockFiles() {
        for (const auto& entry : std::filesystem::directory_iterator(kProfileDir)) {
            const std::string lock = kLockDir + entry.path().filename().string() + ".lock";
            std::filesystem::remove(lock);
            std::filesystem::create_directories(lock);
        }
    }
    Lines unexpected() const {
        Lines found;
        for (const std::string& line : log()) {
            if (line.find("Unexpected failure: ") != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }
};

TEST_P(ThrowingTest, AnExceptionIsAFailureWithOneLine) {
    storeSettings(true, "home");
    breakLockFiles();
    EXPECT_EQ(GetParam().call(), -1);
    EXPECT_THAT(unexpected(),
                ElementsAre(::testing::StartsWith("err tarnfirewall_c: Unexpected failure: ")));
}

INSTANTIATE_TEST_SUITE_P(, ThrowingTest, ValuesIn(kThrowing),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ThrowingTest, ResettingLogsAnException) {
    storeSettings(true, "home");
    breakLockFiles();
    TARNFwReset();
    EXPECT_EQ(unexpected().size(), 1U);
}

}  // namespace
