// The hooks around enabling and disabling: the platform calls, and the result when one of them
// fails.

#include <syslog.h>

#include <ostream>
#include <string>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwHook.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;
using Lines = std::vector<std::string>;

struct HookCase {
    std::string name;
    bool (*run)(FW::TarnFwHook&);
    std::string hook;    ///< "net/firewall_enable"
    std::string result;  ///< "RESULT" as the hook is told it
    std::string action;  ///< the platform's action code
};

void PrintTo(const HookCase& c, std::ostream* out) {
    *out << c.name;
}

class FwHookTest : public LibraryTest, public ::testing::WithParamInterface<HookCase> {
protected:
    bool run() {
        FW::TarnFwHook hook;
        return GetParam().run(hook);
    }

    // The four calls of one hook.
    Lines calls() const {
        return {"hook init net " + GetParam().hook, "hook set RESULT=" + GetParam().result,
                "hook action " + GetParam().action, "hook exit"};
    }
};

TEST_P(FwHookTest, OpensSetsRunsAndCloses) {
    EXPECT_TRUE(run());
    EXPECT_EQ(platform_.journal, calls());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(FwHookTest, ContextThatCannotBeOpenedIsClosedOnceAndSetsNothing) {
    platform_.hookInitResult = -1;
    EXPECT_FALSE(run());
    EXPECT_EQ(platform_.journal, (Lines{calls()[0], "hook exit"}));
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to init hook plugin"));
}

TEST_P(FwHookTest, HookThatCannotBeToldTheResultStillRuns) {
    platform_.hookSetResult = -1;
    EXPECT_TRUE(run());
    EXPECT_EQ(platform_.journal, calls());
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to set RESULT = " + GetParam().result));
}

TEST_P(FwHookTest, FailedActionIsAFailureAndClosesTheContext) {
    platform_.hookActionResult = -1;
    EXPECT_FALSE(run());
    EXPECT_EQ(platform_.journal, calls());
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to run hook: " + GetParam().hook));
}

TEST_P(FwHookTest, FailedSetAndFailedActionAreBothLogged) {
    platform_.hookSetResult = -1;
    platform_.hookActionResult = -1;
    EXPECT_FALSE(run());
    EXPECT_EQ(platform_.journal, calls());
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to set RESULT = " + GetParam().result,
                                      "fwHook: Failed to run hook: " + GetParam().hook));
}

TEST_P(FwHookTest, PositiveResultsOfThePlatformAreNoFailure) {
    platform_.hookInitResult = 1;
    platform_.hookSetResult = 1;
    platform_.hookActionResult = 1;
    EXPECT_TRUE(run());
    EXPECT_EQ(platform_.journal, calls());
    EXPECT_THAT(errors(), IsEmpty());
}

using Hook = FW::TarnFwHook;

const HookCase kHooks[] = {
    {"BeforeEnabling", [](Hook& hook) { return hook.RunFwEnablePreHook(); }, "net/firewall_enable",
     "0", "4"},
    {"AfterEnabling", [](Hook& hook) { return hook.RunFwEnablePostHook(true); },
     "net/firewall_enable", "0", "5"},
    {"AfterFailedEnabling", [](Hook& hook) { return hook.RunFwEnablePostHook(false); },
     "net/firewall_enable", "-1", "5"},
    {"BeforeDisabling", [](Hook& hook) { return hook.RunFwDisablePreHook(); },
     "net/firewall_disable", "0", "4"},
    {"AfterDisabling", [](Hook& hook) { return hook.RunFwDisablePostHook(true); },
     "net/firewall_disable", "0", "5"},
    {"AfterFailedDisabling", [](Hook& hook) { return hook.RunFwDisablePostHook(false); },
     "net/firewall_disable", "-1", "5"},
    {"AnyHookBefore",
     [](Hook& hook) { return hook.RunFwHook("net/some_hook", Hook::PreHook, true); },
     "net/some_hook", "0", "4"},
    {"AnyHookAfter",
     [](Hook& hook) { return hook.RunFwHook("net/some_hook", Hook::PostHook, true); },
     "net/some_hook", "0", "5"},
    {"AnyHookAfterAFailure",
     [](Hook& hook) { return hook.RunFwHook("net/some_hook", Hook::PostHook, false); },
     "net/some_hook", "-1", "5"},
};

INSTANTIATE_TEST_SUITE_P(Hooks, FwHookTest, ValuesIn(kHooks),
                         [](const auto& tested) { return tested.param.name; });

TEST(HookActionTest, ActionsHaveTheirDocumentedValues) {
    EXPECT_EQ(static_cast<int>(Hook::PreHook), 0);
    EXPECT_EQ(static_cast<int>(Hook::PostHook), 1);
}

}  // namespace
