// Enabling, disabling and applying with a runner that plays the library's part: what is run, in
// which order, and what an error says and leaves.
#include "tarnfwadmin/control.h"

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel_testing.h"
#include "tarnfwadmin/machine.h"

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kApplying[] = "Applying the rules of \"home\"";
constexpr char kSwitchingOff[] = "Switching the firewall off";
constexpr char kRestoring[] = "Restoring the rules that were in force";

// The listings that were asked for.
constexpr char kCalls[] = "/tmp/calls";
constexpr char kRule[] = "-A INPUT_FIREWALL -p tcp -m tcp --dport 22 -j ACCEPT\n";

class ControlTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        playPrograms(std::string("#!/bin/sh\necho \"$*\" >>") + kCalls + "\ncat " + kListing + "\n",
                     {"iptables", "ip6tables"});
        std::remove(kCalls);
    }

    static std::size_t listings() {
        const std::string calls = contentOf(kCalls);
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), '\n'));
    }

    /// The next operation does `operation` instead of its work.
    void next(std::function<bool()> operation) { operations_.push_back(std::move(operation)); }

    /// Runs `step` with a session of its own.
    void with(const std::function<void(Control&)>& step) {
        StoreSession session(StoreSession::Access::kChange);
        Control control(session,
                        [this](const std::string& what, const std::function<bool()>& /*work*/) {
                            run_.push_back(what);
                            if (operations_.empty()) {
                                ADD_FAILURE() << "unexpected: " << what;
                                return false;
                            }
                            const std::function<bool()> operation = std::move(operations_.front());
                            operations_.erase(operations_.begin());
                            return operation();
                        });
        step(control);
    }

    void enable() {
        with([this](Control& control) { control.enable(machine_); });
    }
    void apply() {
        with([](Control& control) { EXPECT_TRUE(control.apply()); });
    }

    static bool enabled() { return StoreSnapshot().firewallEnabled(); }

    std::vector<std::string> run_;  // what was run, in order
    Machine machine_;

private:
    std::vector<std::function<bool()>> operations_;
};

/// An operation that leaves the firewall enabled or disabled, and its result.
std::function<bool()> leaving(bool enabledAfter, bool result) {
    return [=] {
        writeSettings(enabledAfter);
        return result;
    };
}

// ---- enable() -----------------------------------------------------------------------------------

TEST_F(ControlTest, EnableAppliesTheActiveProfile) {
    next(leaving(true, true));
    with([this](Control& control) {
        control.enable(machine_);
        EXPECT_TRUE(control.session().snapshot().firewallEnabled());
    });
    EXPECT_THAT(run_, ElementsAre(kApplying));
}

TEST_F(ControlTest, EnableThatFailsDisablesAgain) {
    next(leaving(true, false));
    next(leaving(false, true));
    expectError(ErrorKind::kRefused, "the rules could not be applied; the firewall stays off",
                [this] { enable(); });
    EXPECT_THAT(run_, ElementsAre(kApplying, kRestoring));
    EXPECT_FALSE(enabled());
}

TEST_F(ControlTest, EnableThatWasUndoneByTheLibraryIsNotDisabledTwice) {
    next(leaving(false, false));
    expectError(ErrorKind::kRefused, "the rules could not be applied; the firewall stays off",
                [this] { enable(); });
    EXPECT_THAT(run_, ElementsAre(kApplying));
}

TEST_F(ControlTest, EnableThatFailsLeavesAnEnabledFirewallEnabled) {
    writeSettings(true);
    kernelHas(std::string(kChains) + kJumps + kRule);
    next(leaving(true, false));
    expectError(ErrorKind::kRefused,
                "the rules could not be applied; the kernel still has the old rules",
                [this] { enable(); });
    EXPECT_THAT(run_, ElementsAre(kApplying));
    EXPECT_TRUE(enabled());
}

TEST_F(ControlTest, WhatTheRunnerThrowsKeepsItsKind) {
    next([] {
        throw Error(ErrorKind::kBusy, "another one runs");
        return false;
    });
    expectError(ErrorKind::kBusy,
                "another one runs; the rules could not be applied; the firewall stays off",
                [this] { enable(); });
    next([] {
        throw std::runtime_error("no memory");
        return false;
    });
    expectError(ErrorKind::kSystem,
                "no memory; the rules could not be applied; the firewall stays off",
                [this] { enable(); });
    EXPECT_FALSE(enabled());
}

TEST_F(ControlTest, EnableNeedsTheBase) {
    kernelHas(std::string(kChains) + kRule);
    const auto error = errorOf([this] { enable(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::kSystem);
    EXPECT_THAT(error->what(),
                StartsWith("the base filter is not set up (IPv4 lacks jumps INPUT -> "));
    EXPECT_THAT(run_, IsEmpty());
}

TEST_F(ControlTest, EnableNeedsAValidProfile) {
    bool asked = false;
    const auto enableAsking = [&] {
        with([&](Control& control) {
            control.enable(machine_, [&](const FW::FWPROFILE&) { asked = true; });
        });
    };
    writeDocument(kHomeFile, profile({rule(R"({"portList": ["x"]})")}));
    EXPECT_EQ(errorOf(enableAsking)->kind(), ErrorKind::kInvalid);
    Json::Value settings;
    settings["profile"] = "away";
    writeDocument(kSettingsFile, settings);
    EXPECT_EQ(errorOf(enableAsking)->kind(), ErrorKind::kNotFound);
    EXPECT_FALSE(asked);
    EXPECT_THAT(run_, IsEmpty());
}

TEST_F(ControlTest, ConfirmGetsTheProfileAndCanStop) {
    std::string asked;
    expectError(ErrorKind::kDeclined, "no", [&] {
        with([&](Control& control) {
            control.enable(machine_, [&](const FW::FWPROFILE& profile) {
                asked = profile.name;
                throw Error(ErrorKind::kDeclined, "no");
            });
        });
    });
    EXPECT_EQ(asked, "home");
    EXPECT_THAT(run_, IsEmpty());
    EXPECT_FALSE(enabled());
}

// ---- disable() ----------------------------------------------------------------------------------

TEST_F(ControlTest, DisableNeedsNoBase) {
    writeSettings(true);
    kernelHas("");
    next(leaving(false, true));
    with([](Control& control) {
        control.disable();
        EXPECT_FALSE(control.session().snapshot().firewallEnabled());
    });
    EXPECT_THAT(run_, ElementsAre(kSwitchingOff));
    EXPECT_EQ(listings(), 0U);
}

TEST_F(ControlTest, DisableThatFailsSaysSo) {
    writeSettings(true);
    next(leaving(true, false));
    expectError(ErrorKind::kSystem, "the firewall's settings cannot be written",
                [this] { with([](Control& control) { control.disable(); }); });
}

// ---- apply() ------------------------------------------------------------------------------------

TEST_F(ControlTest, ApplyDoesNothingWhileDisabled) {
    kernelHas("");
    with([](Control& control) { EXPECT_FALSE(control.apply()); });
    EXPECT_THAT(run_, IsEmpty());
    EXPECT_EQ(listings(), 0U);
}

TEST_F(ControlTest, ApplyRunsTheReload) {
    writeSettings(true);
    next(leaving(true, true));
    apply();
    EXPECT_THAT(run_, ElementsAre(kApplying));
}

TEST_F(ControlTest, ApplyThatFailsSaysWhatIsInForce) {
    struct {
        const char* rules;
        const char* state;
    } const cases[] = {
        {kRule, "the kernel still has the old rules"},
        {"", "no rules are in force; the machine is open"},
    };
    for (const auto& c : cases) {
        writeSettings(true);
        kernelHas(std::string(kChains) + kJumps + c.rules);
        next(leaving(true, false));
        expectError(ErrorKind::kRefused,
                    std::string("the active profile was not applied; ") + c.state,
                    [this] { apply(); });
    }
    EXPECT_THAT(run_, ElementsAre(kApplying, kApplying));
}

// Those of the other family can be put back.
TEST_F(ControlTest, ApplyThatFailsRestoresRulesThoughAFamilyCannotBeListed) {
    writeSettings(true);
    kernelHas(std::string(kChains) + kJumps + kRule);
    next([] {
        kernelHas(std::string(kChains) + kJumps);
        playPrograms(
            std::string("#!/bin/sh\ncase $0 in *ip6*) exit 1 ;; esac\ncat ") + kListing + "\n",
            {"ip6tables"});
        return false;
    });
    next(leaving(true, true));
    expectError(ErrorKind::kRefused,
                "the active profile was not applied; the old rules are in force again",
                [this] { apply(); });
    EXPECT_THAT(run_, ElementsAre(kApplying, kRestoring));
}

TEST_F(ControlTest, ApplyThatFailsRestoresRulesAndSettings) {
    writeSettings(true);
    kernelHas(std::string(kChains) + kJumps + kRule);
    next([] {
        kernelHas(std::string(kChains) + kJumps);
        writeSettings(false);
        return false;
    });
    next(leaving(true, true));
    expectError(ErrorKind::kRefused,
                "the active profile was not applied; the old rules are in force again",
                [this] { apply(); });
    EXPECT_THAT(run_, ElementsAre(kApplying, kRestoring));
    EXPECT_TRUE(enabled());
}

TEST_F(ControlTest, ApplyNeedsAProfileThatCanBeTranslated) {
    writeSettings(true);
    writeDocument(kHomeFile, profile({rule(R"({"policy": 7})")}));
    const auto error = errorOf([this] { apply(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::kInvalid);
    EXPECT_THAT(error->what(), testing::EndsWith("; nothing was changed"));
    EXPECT_THAT(run_, IsEmpty());
}

TEST_F(ControlTest, ApplyNeedsTheBase) {
    writeSettings(true);
    kernelHas(kChains);
    EXPECT_EQ(errorOf([this] { apply(); })->kind(), ErrorKind::kSystem);
    EXPECT_THAT(run_, IsEmpty());
}

TEST_F(ControlTest, TheBaseIsLookedAtOnce) {
    with([](Control& control) {
        control.requireBase();
        const std::size_t first = listings();
        EXPECT_GT(first, 0U);
        control.requireBase();
        EXPECT_EQ(listings(), first);
    });
}

TEST(RunHereTest, ReturnsAndThrowsAsTheWorkDoes) {
    EXPECT_TRUE(runHere("a work", [] { return true; }));
    EXPECT_FALSE(runHere("a work", [] { return false; }));
    EXPECT_THROW(runHere("a work", []() -> bool { throw std::runtime_error("no"); }),
                 std::runtime_error);
}

}  // namespace
}  // namespace tarnfw
