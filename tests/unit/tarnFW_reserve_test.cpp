// Services in all profiles: reserving one, removing one, moving an adapter's rules, and updating
// the rules that name services from the catalogue.

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
#include <boost/interprocess/exceptions.hpp>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace fs = std::filesystem;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::ValuesIn;

namespace {

// Called once, with the next file that is renamed into its place, after that.
std::function<void()>& nextRename() {
    static std::function<void()> action;
    return action;
}

}  // namespace

extern "C" int rename(const char* from, const char* to) noexcept {
    const auto libc =
        reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
    const int result = libc(from, to);
    if (const auto action = std::exchange(nextRename(), nullptr)) {
        action();
    }
    return result;
}

namespace {

using Lines = std::vector<std::string>;
using FW::FW_POLICY;
using FW::FW_POLICY_ALLOW;
using FW::FW_POLICY_DENY;
using FW::FW_POLICY_NONE;
using FW::FWPROFILE;
using FW::FWRULE;

const Lines kNoIndex = {"err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/",
                        "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/"};

constexpr bool kOn = true;
constexpr bool kOff = false;
constexpr FW_POLICY kOddPolicy = static_cast<FW_POLICY>(7);  // files can hold any number

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// A rule with the fields that these operations read. The name identifies it; all the rest has
// values that a rule made by the library has not.
FWRULE rule(const std::string& name, int portGroup, int ipGroup, FW_POLICY policy, bool enable,
            const std::vector<std::string>& portList) {
    FWRULE made;
    made.enable = enable;
    made.adapterDirect = 0;
    made.policy = policy;
    made.blLog = true;
    made.labelList = {"label"};
    made.name = name;
    made.table = "mangle";
    made.chainList.insert("OTHER");
    made.ipDirect = 0;
    made.ipGroup = ipGroup;
    made.ipList = {"10.0.0.1"};
    made.portDirect = 1;
    made.portGroup = portGroup;
    made.protocol = 32;
    made.portList = portList;
    return made;
}

// A reserved rule that is in use.
FWRULE reserved(const std::string& name, FW_POLICY policy,
                const std::vector<std::string>& portList) {
    return rule(name, 2, 5, policy, kOn, portList);
}

// The rule that the library makes.
FWRULE service(FW_POLICY policy, const std::string& servName) {
    FWRULE made;
    made.policy = policy;
    made.name = "Service";
    made.ipType = 2;
    made.ipGroup = 5;
    made.portGroup = 2;
    made.protocol = 3;
    made.portList = {servName};
    return made;
}

FWRULE withProtocol(FWRULE changed, int protocol) {
    changed.protocol = protocol;
    return changed;
}

class ReserveTest : public LibraryTest {
protected:
    ReserveTest() {
        platform_.keyValues["/tmp/iptables_serv_mod_list"]["firewall"] = "yes";
        platform_.services["ssh"] = {"SSH", 1, {"22"}, 0, {}};
        storeSettings(false, "home");
    }

    void TearDown() override {
        EXPECT_EQ(platform_.openCatalogues, 0);
        EXPECT_EQ(platform_.openLists, 0);
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
    }

    Lines log() const { return logLines(platform_); }

    // Stores a profile that has rules on one adapter, and default policies for it and "global".
    void storeRules(const std::string& stem, const std::string& name, const std::string& adapter,
                    const std::vector<FWRULE>& rules) {
        FWPROFILE profile;
        profile.name = name;
        profile.rules[adapter] = rules;
        profile.adapterPolicyMap[adapter] = FW_POLICY_DENY;
        profile.adapterPolicyMap["global"] = FW_POLICY_NONE;
        storeProfile(stem, profile);
    }

    static Json::Value stored(const std::string& stem) {
        return storedJson(kProfileDir + stem + ".json");
    }

    // An adapter's rules as stored; null without any.
    static Json::Value storedRules(const std::string& stem, const std::string& adapter) {
        const Json::Value document = stored(stem);
        return document["rules"].isNull() ? Json::Value() : document["rules"][adapter];
    }

    // The same for rules in memory.
    static Json::Value asStored(const std::vector<FWRULE>& rules) {
        Json::Value document;
        FW::TARNFW_JSON_DB().ruleListToJson({{"adapter", rules}}, document);
        return document.isNull() ? Json::Value() : document["adapter"];
    }

    static Json::Value storedPolicies(const std::string& stem) {
        return stored(stem)["adapterPolicyMap"];
    }

    static void removeAllFiles() {
        for (const std::string& file : filesIn(kProfileDir)) {
            fs::remove(kProfileDir + file);
        }
    }

    static std::string blockWrite(const std::string& stem) {
        const std::string temporary = kProfileDir + stem + ".json.tmp";
        fs::create_directories(temporary);
        return "err utils: Failed to open json file " + temporary;
    }

    // Whether a reload has begun; it takes its lock first.
    bool reloaded() const { return !platform_.journalOf("lock " + kExecLock).empty(); }

    void expectNothingApplied() const {
        EXPECT_FALSE(reloaded());
        EXPECT_THAT(platform_.executed(), IsEmpty());
    }

    FW::TARNFW_PROFILE profiles_;
};

// ---- profileAddServToReserve: one list ----

// Reserves a service on an adapter that has `before`.
struct InsertCase {
    const char* name;
    std::vector<FWRULE> before;
    const char* service;
    FW_POLICY policy;
    std::vector<FWRULE> after;
};

void PrintTo(const InsertCase& c, std::ostream* out) {
    *out << c.name;
}

const InsertCase kInserts[] = {
    // An enabled reserved rule of that policy at the head is extended; nothing else is touched.
    {"ExtendsTheHeadRule",
     {reserved("r", FW_POLICY_ALLOW, {"a"})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh"})}},
    {"ExtendsTheHeadRuleThatDenies",
     {reserved("r", FW_POLICY_DENY, {"b", "a"})},
     "ssh",
     FW_POLICY_DENY,
     {reserved("r", FW_POLICY_DENY, {"b", "a", "ssh"})}},
    {"ExtendsTheHeadRuleOfAnyPolicy",
     {reserved("r", kOddPolicy, {"a"})},
     "ssh",
     kOddPolicy,
     {reserved("r", kOddPolicy, {"a", "ssh"})}},
    {"ExtendsTheHeadRuleWithoutNames",
     {reserved("r", FW_POLICY_ALLOW, {})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"ssh"})}},
    {"SameAgainStaysOnce",
     {reserved("r", FW_POLICY_ALLOW, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"ssh"})}},
    {"PresentAmongOthersStaysWhereItIs",
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh", "b", "ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh", "b", "ssh"})}},
    {"NamesAreComparedExactly",
     {reserved("r", FW_POLICY_ALLOW, {"SSH", "ssh ", "ss"})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"SSH", "ssh ", "ss", "ssh"})}},
    {"EmptyNameIsAName",
     {reserved("r", FW_POLICY_ALLOW, {"a"})},
     "",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"a", ""})}},
    {"ExtendingLeavesRulesBehindTheHeadAlone",
     {reserved("r", FW_POLICY_ALLOW, {"a"}), reserved("s", FW_POLICY_DENY, {"ssh"}),
      rule("empty", 0, 5, FW_POLICY_ALLOW, kOn, {}), reserved("t", FW_POLICY_ALLOW, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh"}), reserved("s", FW_POLICY_DENY, {"ssh"}),
      rule("empty", 0, 5, FW_POLICY_ALLOW, kOn, {}), reserved("t", FW_POLICY_ALLOW, {"ssh"})}},

    // Any other head gets a new rule in front of it.
    {"EmptyListGetsTheRule", {}, "ssh", FW_POLICY_DENY, {service(FW_POLICY_DENY, "ssh")}},
    {"HeadThatListsServicesOfTheUserIsNotExtended",
     {rule("user", 0, 5, FW_POLICY_ALLOW, kOn, {"a"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("user", 0, 5, FW_POLICY_ALLOW, kOn, {"a"})}},
    {"HeadThatListsPortsIsNotExtended",
     {rule("user", 1, 5, FW_POLICY_ALLOW, kOn, {"22"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("user", 1, 5, FW_POLICY_ALLOW, kOn, {"22"})}},
    {"HeadForAllPortsIsNotExtended",
     {rule("user", 3, 5, FW_POLICY_ALLOW, kOn, {})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("user", 3, 5, FW_POLICY_ALLOW, kOn, {})}},
    {"HeadForSomeAddressesIsNotExtended",
     {rule("user", 2, 0, FW_POLICY_ALLOW, kOn, {"a"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("user", 2, 0, FW_POLICY_ALLOW, kOn, {"a"})}},
    {"ReservedRuleBehindTheHeadIsNotExtended",
     {rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"}), reserved("r", FW_POLICY_ALLOW, {"a"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"}),
      reserved("r", FW_POLICY_ALLOW, {"a"})}},
    {"DisabledHeadGetsANewRuleInFrontAndLosesTheService",
     {rule("r", 2, 5, FW_POLICY_ALLOW, kOff, {"a", "ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("r", 2, 5, FW_POLICY_ALLOW, kOff, {"a"})}},
    {"DisabledHeadThatBecomesEmptyIsReplaced",
     {rule("r", 2, 5, FW_POLICY_ALLOW, kOff, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh")}},
    {"OtherPolicyMovesTheServiceToANewHead",
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh", "b"})},
     "ssh",
     FW_POLICY_DENY,
     {service(FW_POLICY_DENY, "ssh"), reserved("r", FW_POLICY_ALLOW, {"a", "b"})}},
    {"OtherPolicyDropsTheOldRuleThatBecomesEmpty",
     {reserved("r", FW_POLICY_DENY, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh")}},
    {"AnyPolicyIsTaken",
     {reserved("r", FW_POLICY_ALLOW, {"a"})},
     "ssh",
     kOddPolicy,
     {service(kOddPolicy, "ssh"), reserved("r", FW_POLICY_ALLOW, {"a"})}},

    // A new rule removes the service from the reserved rules, and removes empty service rules.
    {"ServiceLeavesEveryReservedRuleWhateverItsStateAndPolicy",
     {reserved("deny", FW_POLICY_DENY, {"ssh", "a"}),
      rule("off", 2, 5, FW_POLICY_ALLOW, kOff, {"b", "ssh"}),
      rule("odd", 2, 5, kOddPolicy, kOn, {"c", "ssh", "d"}),
      reserved("allow", FW_POLICY_ALLOW, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), reserved("deny", FW_POLICY_DENY, {"a"}),
      rule("off", 2, 5, FW_POLICY_ALLOW, kOff, {"b"}),
      rule("odd", 2, 5, kOddPolicy, kOn, {"c", "d"})}},
    {"OnlyTheFirstOccurrenceLeavesARule",
     {reserved("r", FW_POLICY_DENY, {"a", "ssh", "b", "ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), reserved("r", FW_POLICY_DENY, {"a", "b", "ssh"})}},
    {"UserRulesThatNameTheServiceKeepIt",
     {rule("2/0", 2, 0, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("2/4", 2, 4, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("0/5", 0, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("1/5", 1, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("3/5", 3, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("6/5", 6, 5, FW_POLICY_ALLOW, kOn, {"ssh"})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("2/0", 2, 0, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("2/4", 2, 4, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("0/5", 0, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("1/5", 1, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("3/5", 3, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("6/5", 6, 5, FW_POLICY_ALLOW, kOn, {"ssh"})}},
    {"EveryServiceRuleWithoutNamesGoesAndNoOther",
     {rule("1/5", 1, 5, FW_POLICY_ALLOW, kOn, {}), rule("0/0", 0, 0, FW_POLICY_ALLOW, kOn, {}),
      rule("3/0", 3, 0, FW_POLICY_ALLOW, kOn, {}), rule("2/0", 2, 0, FW_POLICY_DENY, kOff, {}),
      rule("6/5", 6, 5, FW_POLICY_ALLOW, kOn, {}), rule("0/5", 0, 5, FW_POLICY_ALLOW, kOn, {}),
      rule("-2", -2, 5, FW_POLICY_ALLOW, kOn, {})},
     "ssh",
     FW_POLICY_ALLOW,
     {service(FW_POLICY_ALLOW, "ssh"), rule("1/5", 1, 5, FW_POLICY_ALLOW, kOn, {}),
      rule("3/0", 3, 0, FW_POLICY_ALLOW, kOn, {}), rule("6/5", 6, 5, FW_POLICY_ALLOW, kOn, {}),
      rule("-2", -2, 5, FW_POLICY_ALLOW, kOn, {})}},
};

class InsertTest : public ReserveTest, public ::testing::WithParamInterface<InsertCase> {};

TEST_P(InsertTest, LeavesTheseRules) {
    const InsertCase& c = GetParam();
    storeRules("1", "home", "eth0", c.before);
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", c.service, c.policy, false));
    EXPECT_EQ(storedRules("1", "eth0"), asStored(c.after));
    EXPECT_EQ(storedPolicies("1"), parseJson(R"({"eth0": 1, "global": 2})"));
    EXPECT_THAT(log(), IsEmpty());
    expectNothingApplied();
}

INSTANTIATE_TEST_SUITE_P(, InsertTest, ValuesIn(kInserts),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ReserveTest, NewRuleHasExactlyTheseValues) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_DENY, false));
    EXPECT_EQ(storedRules("1", "eth0"), parseJson(R"([{
        "ruleIndex": 0, "enable": true, "adapterDirect": 1, "policy": 1, "blLog": false,
        "labelList": [], "name": "Service", "table": "filter",
        "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"],
        "ipType": 2, "ipDirect": 1, "ipGroup": 5, "ipList": [],
        "portDirect": 0, "portGroup": 2, "protocol": 3, "portList": ["ssh"]}])"));
}

TEST_F(ReserveTest, ProfileWithoutAListForTheAdapterGetsOneWithTheReservedRuleAlone) {
    storeRules("1", "home", "eth1", {rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"})});
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, false));
    EXPECT_EQ(storedRules("1", "eth0"), asStored({service(FW_POLICY_ALLOW, "ssh")}));
    EXPECT_EQ(storedRules("1", "eth1"), asStored({rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"})}));
}

TEST_F(ReserveTest, NewListBringsTheStoresDefaultPolicyWithIt) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_DENY, false));
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, false));
    EXPECT_EQ(storedPolicies("1"), parseJson(R"({"eth0": 0, "global": 2})"));
}

TEST_F(ReserveTest, SecondServiceOfThatPolicyJoinsTheNewHead) {
    storeRules("1", "home", "eth0", {reserved("r", FW_POLICY_ALLOW, {"a", "ssh", "b"})});
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_DENY, false));
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ftp", FW_POLICY_DENY, false));
    FWRULE head = service(FW_POLICY_DENY, "ssh");
    head.portList.push_back("ftp");
    EXPECT_EQ(storedRules("1", "eth0"),
              asStored({head, reserved("r", FW_POLICY_ALLOW, {"a", "b"})}));
}

TEST_F(ReserveTest, ServiceMovesToDenyAndBack) {
    storeEmptyProfile("1", "home");
    for (const FW_POLICY policy : {FW_POLICY_ALLOW, FW_POLICY_DENY, FW_POLICY_ALLOW}) {
        SCOPED_TRACE(policy);
        EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", policy, false));
        EXPECT_EQ(storedRules("1", "global"), asStored({service(policy, "ssh")}));
    }
}

// The catalogue plays no part: names unknown to it are reserved as well.
TEST_F(ReserveTest, InsertingAsksForNoCatalogue) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "unknown", FW_POLICY_ALLOW, false));
    EXPECT_EQ(storedRules("1", "global"), asStored({service(FW_POLICY_ALLOW, "unknown")}));
    EXPECT_THAT(platform_.journalOf("services "), IsEmpty());
}

// ---- profileAddServToReserve: all profiles ----

TEST_F(ReserveTest, EveryProfileGetsTheServiceWhetherActiveOrNot) {
    storeRules("1", "home", "eth0", {reserved("r", FW_POLICY_ALLOW, {"a"})});
    storeRules("2", "away", "eth0", {rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"})});
    storeRules("3", "office", "eth1", {});
    EXPECT_TRUE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, false));
    EXPECT_EQ(storedRules("1", "eth0"), asStored({reserved("r", FW_POLICY_ALLOW, {"a", "ssh"})}));
    EXPECT_EQ(storedRules("2", "eth0"), asStored({service(FW_POLICY_ALLOW, "ssh"),
                                                  rule("user", 1, 0, FW_POLICY_DENY, kOn, {"1"})}));
    EXPECT_EQ(storedRules("3", "eth0"), asStored({service(FW_POLICY_ALLOW, "ssh")}));
    EXPECT_EQ(stored("3")["name"].asString(), "office");
    EXPECT_THAT(filesIn(kProfileDir),
                ElementsAre("1.json", "2.json", "3.json", "firewall_settings.json"));
}

TEST_F(ReserveTest, InsertWithoutProfileFilesIsAFailure) {
    removeAllFiles();
    EXPECT_FALSE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, true));
    EXPECT_EQ(log(), kNoIndex + Lines{"err tarnFW: Failed to profileEnum()"});
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
    expectNothingApplied();
}

TEST_F(ReserveTest, InsertStopsAtTheFirstProfileThatCannotBeWritten) {
    storeEmptyProfile("3", "a");
    storeEmptyProfile("1", "b");
    storeEmptyProfile("2", "c");
    const std::string failure = blockWrite("1");
    EXPECT_FALSE(profiles_.profileAddServToReserve("eth0", "ssh", FW_POLICY_ALLOW, true));
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: Failed to set profile"}));
    EXPECT_EQ(storedRules("3", "eth0"), asStored({service(FW_POLICY_ALLOW, "ssh")}));
    EXPECT_TRUE(storedRules("1", "eth0").isNull());
    EXPECT_TRUE(storedRules("2", "eth0").isNull());
    expectNothingApplied();
}

TEST_F(ReserveTest, InsertWithReloadAppliesTheActiveProfileAfterAllAreWritten) {
    platform_.interfaces = {"eth0"};
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "zoo");
    storeSettings(true, "home");
    bool bothWritten = false;
    platform_.onLock = [&](const std::string& path) {
        bothWritten = path == kExecLock && !storedRules("1", "global").isNull() &&
                      !storedRules("2", "global").isNull();
    };
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, true));
    EXPECT_TRUE(bothWritten);
    EXPECT_THAT(platform_.executedLines(), Contains(HasSubstr("--dport 22 -j DROP")));
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED "
                         "-j ACCEPT"));
    EXPECT_EQ(platform_.policyOf("INPUT"), "ACCEPT");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ReserveTest, InsertWithReloadOfADisabledFirewallSucceedsAndRunsNothing) {
    storeEmptyProfile("1", "home");
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, true));
    EXPECT_TRUE(reloaded());
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

TEST_F(ReserveTest, InsertWithReloadAsksForItEvenWithoutAnyProfile) {
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, true));
    EXPECT_TRUE(reloaded());
}

TEST_F(ReserveTest, InsertWithoutReloadAppliesNothing) {
    storeEmptyProfile("1", "home");
    storeSettings(true, "home");
    EXPECT_TRUE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, false));
    expectNothingApplied();
}

TEST_F(ReserveTest, InsertWhoseReloadFailsLeavesTheProfilesWritten) {
    storeEmptyProfile("1", "home");
    storeEmptyProfile("2", "away");
    platform_.lockResult = 0;
    EXPECT_FALSE(profiles_.profileAddServToReserve("global", "ssh", FW_POLICY_DENY, true));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock",
                                   "err tarnFW: Failed to firewall reload"));
    EXPECT_EQ(storedRules("1", "global"), asStored({service(FW_POLICY_DENY, "ssh")}));
    EXPECT_EQ(storedRules("2", "global"), asStored({service(FW_POLICY_DENY, "ssh")}));
}

// ---- profileRemoveServ ----

// Removes "ssh" from profiles that have `before`.
struct RemoveCase {
    const char* name;
    std::vector<FWRULE> before;
    std::vector<FWRULE> after;
};

void PrintTo(const RemoveCase& c, std::ostream* out) {
    *out << c.name;
}

const RemoveCase kRemovals[] = {
    {"NoRules", {}, {}},
    {"LastNameOfAReservedRuleTakesTheRuleAlong", {reserved("r", FW_POLICY_ALLOW, {"ssh"})}, {}},
    {"LastNameOfAUsersRuleTakesTheRuleAlong",
     {rule("0/0", 0, 0, FW_POLICY_DENY, kOff, {"ssh"}),
      rule("1/0", 1, 0, FW_POLICY_ALLOW, kOn, {"22"})},
     {rule("1/0", 1, 0, FW_POLICY_ALLOW, kOn, {"22"})}},
    {"OtherNamesStayInOrder",
     {reserved("r", FW_POLICY_ALLOW, {"b", "ssh", "a", "c"})},
     {reserved("r", FW_POLICY_ALLOW, {"b", "a", "c"})}},
    {"EveryServiceRuleOfAnyAddressStateAndPolicy",
     {rule("2/5", 2, 5, FW_POLICY_DENY, kOff, {"ssh", "a"}),
      rule("2/0", 2, 0, FW_POLICY_ALLOW, kOn, {"b", "ssh"}),
      rule("0/5", 0, 5, kOddPolicy, kOn, {"ssh"}),
      rule("0/3", 0, 3, FW_POLICY_ALLOW, kOn, {"ssh", "c"})},
     {rule("2/5", 2, 5, FW_POLICY_DENY, kOff, {"a"}),
      rule("2/0", 2, 0, FW_POLICY_ALLOW, kOn, {"b"}),
      rule("0/3", 0, 3, FW_POLICY_ALLOW, kOn, {"c"})}},
    {"OtherPortGroupsKeepTheText",
     {rule("1", 1, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("3", 3, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("4", 4, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("6", 6, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("-2", -2, 5, FW_POLICY_ALLOW, kOn, {"ssh"})},
     {rule("1", 1, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("3", 3, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("4", 4, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("6", 6, 5, FW_POLICY_ALLOW, kOn, {"ssh"}),
      rule("-2", -2, 5, FW_POLICY_ALLOW, kOn, {"ssh"})}},
    {"OnlyTheFirstOccurrenceOfARule",
     {reserved("r", FW_POLICY_ALLOW, {"ssh", "a", "ssh"}), reserved("s", FW_POLICY_DENY, {"ssh"})},
     {reserved("r", FW_POLICY_ALLOW, {"a", "ssh"})}},
    {"ServiceRulesWithoutNamesGoToo",
     {rule("0", 0, 0, FW_POLICY_ALLOW, kOn, {}), rule("1", 1, 0, FW_POLICY_ALLOW, kOn, {}),
      rule("2", 2, 5, FW_POLICY_ALLOW, kOn, {}), rule("3", 3, 0, FW_POLICY_ALLOW, kOn, {})},
     {rule("1", 1, 0, FW_POLICY_ALLOW, kOn, {}), rule("3", 3, 0, FW_POLICY_ALLOW, kOn, {})}},
    {"NamesAreComparedExactly",
     {reserved("r", FW_POLICY_ALLOW, {"SSH", "ssh2", "ss"})},
     {reserved("r", FW_POLICY_ALLOW, {"SSH", "ssh2", "ss"})}},
};

class RemoveTest : public ReserveTest, public ::testing::WithParamInterface<RemoveCase> {};

TEST_P(RemoveTest, LeavesTheseRulesOnEveryAdapterOfEveryProfile) {
    const RemoveCase& c = GetParam();
    for (const std::string stem : {"1", "2"}) {
        FWPROFILE profile;
        profile.name = "profile " + stem;
        for (const char* adapter : {"eth0", "global", "ppp0"}) {
            profile.rules[adapter] = c.before;
            profile.adapterPolicyMap[adapter] = FW_POLICY_NONE;
        }
        storeProfile(stem, profile);
    }
    EXPECT_TRUE(profiles_.profileRemoveServ("ssh"));
    for (const std::string stem : {"1", "2"}) {
        SCOPED_TRACE(stem);
        EXPECT_EQ(stored(stem)["name"].asString(), "profile " + stem);
        for (const char* adapter : {"eth0", "global", "ppp0"}) {
            EXPECT_EQ(storedRules(stem, adapter), asStored(c.after)) << adapter;
        }
        EXPECT_EQ(storedPolicies(stem), parseJson(R"({"eth0": 2, "global": 2, "ppp0": 2})"));
    }
    EXPECT_THAT(log(), IsEmpty());
    expectNothingApplied();
}

INSTANTIATE_TEST_SUITE_P(, RemoveTest, ValuesIn(kRemovals),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ReserveTest, RemovingAnUnknownServiceRewritesEveryProfileUnchanged) {
    for (const std::string stem : {"1", "2"}) {
        storeRules(
            stem, "profile " + stem, "eth0",
            {reserved("r", FW_POLICY_ALLOW, {"a"}), rule("user", 1, 0, FW_POLICY_DENY, kOn, {})});
    }
    for (const std::string stem : {"1", "2"}) {
        const Json::Value before = stored(stem);
        writeFile(kProfileDir + stem + ".json", Json::FastWriter().write(before));
        EXPECT_TRUE(profiles_.profileRemoveServ("ssh"));
        EXPECT_EQ(stored(stem), before);
        EXPECT_EQ(readFile(kProfileDir + stem + ".json"), Json::StyledWriter().write(before));
    }
}

// The store gives a default policy to every adapter that has a list, even an empty one.
TEST_F(ReserveTest, AdapterThatLosesItsLastRuleStaysWithADefaultPolicy) {
    FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"] = {reserved("r", FW_POLICY_ALLOW, {"ssh"})};
    storeProfile("1", profile);
    EXPECT_TRUE(profiles_.profileRemoveServ("ssh"));
    EXPECT_EQ(stored("1"), parseJson(R"({"name": "home", "rules": null,
                                         "adapterPolicyMap": {"eth0": 0, "global": 2}})"));
}

TEST_F(ReserveTest, RemovingFromTheActiveProfileMakesNoReload) {
    storeRules("1", "home", "eth0", {reserved("r", FW_POLICY_ALLOW, {"ssh"})});
    storeSettings(true, "home");
    EXPECT_TRUE(profiles_.profileRemoveServ("ssh"));
    expectNothingApplied();
}

TEST_F(ReserveTest, RemoveWithoutProfileFilesIsAFailure) {
    removeAllFiles();
    EXPECT_FALSE(profiles_.profileRemoveServ("ssh"));
    EXPECT_EQ(log(), kNoIndex + Lines{"err tarnFW: Failed to profileEnum()"});
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
}

TEST_F(ReserveTest, RemoveStopsAtTheFirstProfileThatCannotBeWritten) {
    for (const auto& [stem, name] :
         std::map<std::string, std::string>{{"3", "a"}, {"1", "b"}, {"2", "c"}}) {
        storeRules(stem, name, "eth0", {reserved("r", FW_POLICY_ALLOW, {"ssh", "x"})});
    }
    const std::string failure = blockWrite("1");
    EXPECT_FALSE(profiles_.profileRemoveServ("ssh"));
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: Failed to profile set [b]"}));
    EXPECT_EQ(storedRules("3", "eth0"), asStored({reserved("r", FW_POLICY_ALLOW, {"x"})}));
    for (const std::string stem : {"1", "2"}) {
        EXPECT_EQ(storedRules(stem, "eth0"),
                  asStored({reserved("r", FW_POLICY_ALLOW, {"ssh", "x"})}));
    }
}

// ---- profileChangeAdapter ----

const FWRULE kOldRule = rule("old", 1, 0, FW_POLICY_DENY, kOn, {"1"});
const FWRULE kOtherRule = rule("other", 2, 5, FW_POLICY_ALLOW, kOff, {"ssh"});
const FWRULE kNewRule = rule("new", 3, 4, FW_POLICY_ALLOW, kOn, {});

using Rules = std::map<std::string, std::vector<FWRULE>>;
using Policies = std::map<std::string, FW_POLICY>;

// Moves one adapter to another in the active profile, with a reload asked for.
struct MoveCase {
    const char* name;
    const char* from;
    const char* to;
    Rules rules;
    Policies policies;
    Rules rulesAfter;
    Policies policiesAfter;  // as stored
    bool reload;             // whether one is made
};

void PrintTo(const MoveCase& c, std::ostream* out) {
    *out << c.name;
}

const MoveCase kMoves[] = {
    {"RulesAndPolicyMove",
     "eth0",
     "eth1",
     {{"eth0", {kOldRule, kOtherRule}}},
     {{"eth0", FW_POLICY_DENY}},
     {{"eth1", {kOldRule, kOtherRule}}},
     {{"eth1", FW_POLICY_DENY}, {"global", FW_POLICY_NONE}},
     true},
    {"RulesAndPolicyOfTheNewNameAreReplaced",
     "eth0",
     "eth1",
     {{"eth0", {kOldRule}}, {"eth1", {kNewRule, kNewRule}}, {"eth2", {kOtherRule}}},
     {{"eth0", FW_POLICY_DENY}, {"eth1", FW_POLICY_ALLOW}, {"eth2", FW_POLICY_NONE}},
     {{"eth1", {kOldRule}}, {"eth2", {kOtherRule}}},
     {{"eth1", FW_POLICY_DENY}, {"eth2", FW_POLICY_NONE}, {"global", FW_POLICY_NONE}},
     true},
    {"PolicyAloneMovesAndTheNewNameKeepsItsRules",
     "eth0",
     "eth1",
     {{"eth1", {kNewRule}}},
     {{"eth0", kOddPolicy}, {"eth1", FW_POLICY_ALLOW}},
     {{"eth1", {kNewRule}}},
     {{"eth1", kOddPolicy}, {"global", FW_POLICY_NONE}},
     true},
    {"RulesAloneMoveAndTheNewNameKeepsItsPolicyWithoutAReload",
     "eth0",
     "eth1",
     {{"eth0", {kOldRule}}, {"eth1", {kNewRule}}},
     {{"eth1", FW_POLICY_DENY}},
     {{"eth1", {kOldRule}}},
     {{"eth1", FW_POLICY_DENY}, {"global", FW_POLICY_NONE}},
     false},
    {"RulesAloneMoveAndBringTheStoresDefaultPolicy",
     "eth0",
     "eth1",
     {{"eth0", {kOldRule}}},
     {},
     {{"eth1", {kOldRule}}},
     {{"eth1", FW_POLICY_ALLOW}, {"global", FW_POLICY_NONE}},
     false},
    {"UnknownNameChangesNothing",
     "eth0",
     "eth1",
     {{"eth1", {kNewRule}}, {"eth2", {kOtherRule}}},
     {{"eth1", FW_POLICY_DENY}, {"eth2", FW_POLICY_ALLOW}},
     {{"eth1", {kNewRule}}, {"eth2", {kOtherRule}}},
     {{"eth1", FW_POLICY_DENY}, {"eth2", FW_POLICY_ALLOW}, {"global", FW_POLICY_NONE}},
     false},
    {"NamesAreComparedExactly",
     "eth0",
     "eth1",
     {{"ETH0", {kOldRule}}, {"eth0.1", {kOtherRule}}},
     {{"ETH0", FW_POLICY_DENY}, {"eth0.1", FW_POLICY_DENY}},
     {{"ETH0", {kOldRule}}, {"eth0.1", {kOtherRule}}},
     {{"ETH0", FW_POLICY_DENY}, {"eth0.1", FW_POLICY_DENY}, {"global", FW_POLICY_NONE}},
     false},
    {"GlobalAsTheNewNameNeverGetsAPolicy",
     "eth0",
     "global",
     {{"eth0", {kOldRule}}, {"global", {kNewRule}}},
     {{"eth0", FW_POLICY_DENY}},
     {{"global", {kOldRule}}},
     {{"global", FW_POLICY_NONE}},
     true},
    {"GlobalAsTheOldNameKeepsItsPolicy",
     "global",
     "eth0",
     {{"global", {kOldRule}}},
     {{"global", FW_POLICY_NONE}, {"eth0", FW_POLICY_DENY}},
     {{"eth0", {kOldRule}}},
     {{"eth0", FW_POLICY_NONE}, {"global", FW_POLICY_NONE}},
     true},
    {"EqualNamesRemoveRulesAndPolicy",
     "eth0",
     "eth0",
     {{"eth0", {kOldRule}}, {"eth1", {kNewRule}}},
     {{"eth0", FW_POLICY_DENY}, {"eth1", FW_POLICY_DENY}},
     {{"eth1", {kNewRule}}},
     {{"eth1", FW_POLICY_DENY}, {"global", FW_POLICY_NONE}},
     true},
};

class MoveTest : public ReserveTest, public ::testing::WithParamInterface<MoveCase> {
protected:
    static FWPROFILE profile(const std::string& name, const Rules& rules,
                             const Policies& policies) {
        FWPROFILE made;
        made.name = name;
        made.rules = rules;
        made.adapterPolicyMap = policies;
        return made;
    }

    static Json::Value document(const FWPROFILE& profile) {
        Json::Value made;
        FW::TARNFW_JSON_DB().profileToJson(profile, made);
        return made;
    }
};

TEST_P(MoveTest, LeavesTheseRulesAndPoliciesInEveryProfile) {
    const MoveCase& c = GetParam();
    storeProfile("1", profile("home", c.rules, c.policies));
    storeProfile("2", profile("away", c.rules, c.policies));
    EXPECT_TRUE(profiles_.profileChangeAdapter(c.from, c.to, true));
    EXPECT_EQ(stored("1"), document(profile("home", c.rulesAfter, c.policiesAfter)));
    EXPECT_EQ(stored("2"), document(profile("away", c.rulesAfter, c.policiesAfter)));
    EXPECT_EQ(reloaded(), c.reload);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, MoveTest, ValuesIn(kMoves),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ReserveTest, ChangingAnUnknownAdapterRewritesEveryProfile) {
    storeRules("1", "home", "eth1", {kOldRule});
    const Json::Value before = stored("1");
    writeFile(kProfileDir + "1.json", Json::FastWriter().write(before));
    EXPECT_TRUE(profiles_.profileChangeAdapter("eth0", "eth2", false));
    EXPECT_EQ(readFile(kProfileDir + "1.json"), Json::StyledWriter().write(before));
}

TEST_F(ReserveTest, ChangedAdapterOfAnotherProfileMakesNoReload) {
    storeRules("1", "home", "eth1", {kOldRule});
    storeRules("2", "away", "eth0", {kOldRule});
    EXPECT_TRUE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_EQ(storedRules("2", "eth2"), asStored({kOldRule}));
    EXPECT_FALSE(reloaded());
}

// Whatever profiles come after it.
TEST_F(ReserveTest, ChangedAdapterOfTheActiveProfileIsRememberedToTheEnd) {
    storeRules("1", "home", "eth0", {kOldRule});
    storeRules("2", "zoo", "eth1", {kOldRule});
    EXPECT_TRUE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_TRUE(reloaded());
}

TEST_F(ReserveTest, ChangedAdapterIsAppliedAfterAllProfilesAreWritten) {
    platform_.interfaces = {"eth0", "eth2"};
    FWRULE allow;
    allow.ipGroup = 5;
    allow.portGroup = 1;
    allow.portList = {"22"};
    storeRules("1", "home", "eth0", {allow});
    storeRules("2", "zoo", "eth0", {allow});
    storeSettings(true, "home");
    bool bothWritten = false;
    platform_.onLock = [&](const std::string& path) {
        bothWritten = path == kExecLock && !storedRules("1", "eth2").isNull() &&
                      !storedRules("2", "eth2").isNull();
    };
    EXPECT_TRUE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_TRUE(bothWritten);
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -t filter -A INPUT_FIREWALL -i eth2 -p tcp --dport 22 "
                         "-j RETURN"));
    EXPECT_THAT(platform_.executedLines(), Not(Contains(HasSubstr("eth0"))));
    EXPECT_THAT(platform_.executedLines(),
                Contains("/sbin/iptables -A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED "
                         "-j ACCEPT"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ReserveTest, ChangedAdapterWithoutReloadAppliesNothing) {
    storeRules("1", "home", "eth0", {kOldRule});
    storeSettings(true, "home");
    EXPECT_TRUE(profiles_.profileChangeAdapter("eth0", "eth2", false));
    EXPECT_EQ(storedRules("1", "eth2"), asStored({kOldRule}));
    expectNothingApplied();
}

TEST_F(ReserveTest, ChangeWithoutProfileFilesIsAFailureBeforeTheSettingsAreRead) {
    removeAllFiles();
    EXPECT_FALSE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_EQ(log(), kNoIndex + Lines{"err tarnFW: Failed to profileEnum()"});
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
    expectNothingApplied();
}

TEST_F(ReserveTest, ChangeWithoutAnActiveProfileWritesNothing) {
    storeRules("1", "home", "eth0", {kOldRule});
    const std::string before = readFile(kProfileDir + "1.json");
    writeFile(kSettingsFile, R"({"status": true})");
    EXPECT_FALSE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: There are no key: profile in config",
                                   "err tarnFW: Failed to fwProfileConfigGet()"));
    EXPECT_EQ(readFile(kProfileDir + "1.json"), before);
    expectNothingApplied();
}

TEST_F(ReserveTest, ChangeStopsAtTheFirstProfileThatCannotBeWritten) {
    storeRules("3", "a", "eth0", {kOldRule});
    storeRules("1", "b", "eth0", {kOldRule});
    storeRules("2", "c", "eth0", {kOldRule});
    storeSettings(true, "a");
    const std::string failure = blockWrite("1");
    EXPECT_FALSE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: Failed to profile set [b]"}));
    EXPECT_EQ(storedRules("3", "eth2"), asStored({kOldRule}));
    EXPECT_EQ(storedRules("1", "eth0"), asStored({kOldRule}));
    EXPECT_EQ(storedRules("2", "eth0"), asStored({kOldRule}));
    expectNothingApplied();
}

TEST_F(ReserveTest, ChangeWhoseReloadFailsLeavesTheProfilesWritten) {
    storeRules("1", "home", "eth0", {kOldRule});
    platform_.lockResult = 0;
    EXPECT_FALSE(profiles_.profileChangeAdapter("eth0", "eth2", true));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: TIMEOUT: getting lock",
                                   "err tarnFW: Failed to reload firewall"));
    EXPECT_EQ(storedRules("1", "eth2"), asStored({kOldRule}));
}

// ---- fwUpdate ----

class UpdateTest : public ReserveTest {
protected:
    // Named for what the catalogue says of them; the source protocol is never looked at.
    UpdateTest() {
        platform_.services = {
            {"tcp", {"t", 1, {"1"}, 2, {"2"}}},    {"tcp2", {"t", 1, {}, 0, {}}},
            {"udp", {"u", 2, {"1"}, 1, {"2"}}},    {"both", {"b", 3, {"1"}, 1, {}}},
            {"icmp", {"i", 4, {"1"}, 2, {}}},      {"zero", {"z", 0, {}, 1, {"1"}}},
            {"negative", {"n", -1, {}, 0, {}}},    {"five", {"f", 5, {}, 0, {}}},
            {"unusable", {"", 1, {"1"}, 1, {"1"}}}};
    }

    bool update() { return FW::TARNFW().fwUpdate(); }
};

// A rule that names services, with protocol 32 before.
struct UpdateCase {
    const char* name;
    std::vector<std::string> before;
    std::vector<std::string> after;  // none: the rule is removed
    int protocol;
};

void PrintTo(const UpdateCase& c, std::ostream* out) {
    *out << c.name;
}

const UpdateCase kUpdates[] = {
    {"Tcp", {"tcp"}, {"tcp"}, 1},
    {"TwoOfTcp", {"tcp", "tcp2"}, {"tcp", "tcp2"}, 1},
    {"Udp", {"udp"}, {"udp"}, 2},
    {"TcpAndUdp", {"tcp", "udp"}, {"tcp", "udp"}, 3},
    {"UdpAndTcp", {"udp", "tcp"}, {"udp", "tcp"}, 3},
    {"RecordOfBothTellsNothing", {"both"}, {"both"}, 32},
    {"OtherProtocolsTellNothing",
     {"icmp", "zero", "negative", "five"},
     {"icmp", "zero", "negative", "five"},
     32},
    {"RecordOfBothAndTcp", {"both", "tcp"}, {"both", "tcp"}, 1},
    {"IcmpAndUdp", {"icmp", "udp"}, {"icmp", "udp"}, 2},
    {"UnknownNameGoes", {"tcp", "gone", "udp"}, {"tcp", "udp"}, 3},
    {"UnusableNameGoesAndItsProtocolWithIt", {"unusable", "udp"}, {"udp"}, 2},
    {"UnknownNameInFront", {"gone", "udp"}, {"udp"}, 2},
    {"UnknownNameAtTheEnd", {"udp", "gone"}, {"udp"}, 2},
    {"UnknownNamesInARow", {"gone", "lost", "unusable", "tcp", "gone", "gone"}, {"tcp"}, 1},
    {"RepeatedNamesStay", {"tcp", "udp", "tcp"}, {"tcp", "udp", "tcp"}, 3},
    {"NamesAreComparedExactly", {"TCP", "udp"}, {"udp"}, 2},
    {"EmptyNameIsUnknown", {"", "tcp"}, {"tcp"}, 1},
    {"OnlyUnknownNamesTakeTheRuleAlong", {"gone", "unusable"}, {}, 0},
    {"NoNamesTakeTheRuleAlong", {}, {}, 0},
};

class UpdatedRuleTest : public UpdateTest, public ::testing::WithParamInterface<UpdateCase> {};

TEST_P(UpdatedRuleTest, IsThisAfterwardsInBothPortGroups) {
    const UpdateCase& c = GetParam();
    std::vector<FWRULE> before;
    std::vector<FWRULE> after;
    for (const int portGroup : {0, 2}) {
        for (const int ipGroup : {0, 5}) {
            for (const bool enable : {kOn, kOff}) {
                before.push_back(rule("r", portGroup, ipGroup, FW_POLICY_DENY, enable, c.before));
                if (!c.after.empty()) {
                    after.push_back(
                        withProtocol(rule("r", portGroup, ipGroup, FW_POLICY_DENY, enable, c.after),
                                     c.protocol));
                }
            }
        }
    }
    storeRules("1", "home", "eth0", before);
    EXPECT_TRUE(update());
    EXPECT_EQ(storedRules("1", "eth0"), asStored(after));
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, UpdatedRuleTest, ValuesIn(kUpdates),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(UpdateTest, EveryProtocolIsSetAnewAndKeptOnlyWhenNothingTells) {
    for (const int protocol : {0, 1, 2, 3, 4}) {
        SCOPED_TRACE(protocol);
        const FWRULE both = withProtocol(rule("b", 2, 5, FW_POLICY_ALLOW, kOn, {"both"}), protocol);
        const FWRULE udp = withProtocol(rule("u", 2, 5, FW_POLICY_ALLOW, kOn, {"udp"}), protocol);
        storeRules("1", "home", "eth0", {both, udp});
        EXPECT_TRUE(update());
        EXPECT_EQ(storedRules("1", "eth0"), asStored({both, withProtocol(udp, 2)}));
    }
}

TEST_F(UpdateTest, FlagsOfOneRuleDoNotReachTheNext) {
    const FWRULE tcp = rule("t", 0, 0, FW_POLICY_ALLOW, kOn, {"tcp"});
    const FWRULE udp = rule("u", 0, 0, FW_POLICY_ALLOW, kOn, {"udp"});
    const FWRULE both = rule("b", 0, 0, FW_POLICY_ALLOW, kOn, {"both"});
    storeRules("1", "home", "eth0", {tcp, udp, both});
    EXPECT_TRUE(update());
    EXPECT_EQ(storedRules("1", "eth0"),
              asStored({withProtocol(tcp, 1), withProtocol(udp, 2), both}));
}

TEST_F(UpdateTest, RulesBehindAnErasedOneAreVisited) {
    const FWRULE gone = rule("g", 2, 5, FW_POLICY_ALLOW, kOn, {"gone"});
    const FWRULE mixed = rule("m", 2, 5, FW_POLICY_ALLOW, kOn, {"gone", "tcp"});
    storeRules("1", "home", "eth0", {gone, gone, mixed, gone, mixed, gone, gone});
    EXPECT_TRUE(update());
    const FWRULE updated = withProtocol(rule("m", 2, 5, FW_POLICY_ALLOW, kOn, {"tcp"}), 1);
    EXPECT_EQ(storedRules("1", "eth0"), asStored({updated, updated}));
}

TEST_F(UpdateTest, RulesThatNameNoServicesAreNotTouched) {
    std::vector<FWRULE> rules;
    for (const int portGroup : {1, 3, 4, 6, -2, -1}) {
        rules.push_back(rule("names", portGroup, 5, FW_POLICY_ALLOW, kOn, {"gone", "tcp"}));
        rules.push_back(rule("none", portGroup, 5, FW_POLICY_ALLOW, kOn, {}));
    }
    storeRules("1", "home", "eth0", rules);
    EXPECT_TRUE(update());
    EXPECT_EQ(storedRules("1", "eth0"), asStored(rules));
}

TEST_F(UpdateTest, EveryAdapterOfEveryProfileIsUpdatedWithOneCatalogue) {
    const FWRULE before = rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"gone", "udp"});
    const FWRULE after = withProtocol(rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"udp"}), 2);
    for (const std::string stem : {"1", "2"}) {
        FWPROFILE profile;
        profile.name = "profile " + stem;
        profile.rules = {{"eth0", {before}}, {"eth1", {before, before}}, {"global", {before}}};
        storeProfile(stem, profile);
    }
    EXPECT_TRUE(update());
    for (const std::string stem : {"1", "2"}) {
        SCOPED_TRACE(stem);
        EXPECT_EQ(storedRules(stem, "eth0"), asStored({after}));
        EXPECT_EQ(storedRules(stem, "eth1"), asStored({after, after}));
        EXPECT_EQ(storedRules(stem, "global"), asStored({after}));
        EXPECT_EQ(storedPolicies(stem), parseJson(R"({"eth0": 0, "eth1": 0, "global": 2})"));
    }
    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
}

TEST_F(UpdateTest, ProfileWithoutServicesIsRewritten) {
    storeRules("1", "home", "eth0", {kOldRule});
    const Json::Value before = stored("1");
    writeFile(kProfileDir + "1.json", Json::FastWriter().write(before));
    EXPECT_TRUE(update());
    EXPECT_EQ(readFile(kProfileDir + "1.json"), Json::StyledWriter().write(before));
}

TEST_F(UpdateTest, MakesNoReload) {
    storeRules("1", "home", "eth0", {rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"gone", "tcp"})});
    storeSettings(true, "home");
    EXPECT_TRUE(update());
    expectNothingApplied();
}

TEST_F(UpdateTest, WithoutProfileFilesItFailsBeforeTheCatalogueIsAskedFor) {
    removeAllFiles();
    EXPECT_FALSE(update());
    EXPECT_EQ(log(), kNoIndex + Lines{"err tarnFW: Failed to enum profiles to profile list"});
    EXPECT_THAT(platform_.journalOf("services "), IsEmpty());
}

TEST_F(UpdateTest, EmptyOrUnreadableCatalogueWritesNothing) {
    for (const int result : {0, -1}) {
        SCOPED_TRACE(result);
        platform_.clearLog();
        platform_.servicesResult = result;
        storeRules("1", "home", "eth0", {rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"gone"})});
        const std::string before = readFile(kProfileDir + "1.json");
        EXPECT_FALSE(update());
        EXPECT_THAT(log(), ElementsAre("err tarnFW: Failed to enum FW services"));
        EXPECT_EQ(readFile(kProfileDir + "1.json"), before);
    }
}

TEST_F(UpdateTest, StopsAtTheFirstProfileThatCannotBeWrittenAndFreesTheCatalogue) {
    const std::vector<FWRULE> before = {rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"gone", "tcp"})};
    storeRules("3", "a", "eth0", before);
    storeRules("1", "b", "eth0", before);
    storeRules("2", "c", "eth0", before);
    const std::string failure = blockWrite("1");
    EXPECT_FALSE(update());
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: Failed to set profile"}));
    EXPECT_EQ(storedRules("3", "eth0"),
              asStored({withProtocol(rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"tcp"}), 1)}));
    EXPECT_EQ(storedRules("1", "eth0"), asStored(before));
    EXPECT_EQ(storedRules("2", "eth0"), asStored(before));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(UpdateTest, LockFileThatCannotBeOpenedRaisesTheLockErrorAndFreesTheCatalogue) {
    const std::vector<FWRULE> before = {rule("r", 2, 5, FW_POLICY_ALLOW, kOn, {"gone", "tcp"})};
    storeRules("1", "a", "eth0", before);
    storeRules("2", "b", "eth0", before);
    nextRename() = [] {  // the first profile has just been written
        fs::remove(kLockDir + "2.json.lock");
        fs::create_directories(kLockDir + "2.json.lock");
    };
    EXPECT_THROW((void)update(), boost::interprocess::interprocess_exception);
    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
    EXPECT_NE(storedRules("1", "eth0"), asStored(before));
    EXPECT_EQ(storedRules("2", "eth0"), asStored(before));
}

}  // namespace
