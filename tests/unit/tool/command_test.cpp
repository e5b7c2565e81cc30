#include "cli/command.h"

#include <gtest/gtest.h>

namespace {

using tarnfw::Error;
using tarnfw::ErrorKind;
using tarnfw::Remedy;

TEST(ExitStatusOfTest, UnknownHasItsOwn) {
    using tarnfw::exitStatusOf;
    EXPECT_EQ(exitStatusOf(ErrorKind::kNotFound), 5);
    EXPECT_EQ(exitStatusOf(ErrorKind::kInvalid), 3);
    EXPECT_EQ(exitStatusOf(ErrorKind::kNoRights), 4);
    EXPECT_EQ(exitStatusOf(ErrorKind::kUnusable), 1);
    EXPECT_EQ(exitStatusOf(ErrorKind::kSystem), 1);
}

TEST(MessageOfTest, EndsWithTheRemedyInTheWordsOfTheTool) {
    const auto messageWith = [](Remedy remedy) {
        return tarnfw::messageOf(Error(ErrorKind::kSystem, "it failed", {}, remedy));
    };
    EXPECT_EQ(messageWith(Remedy::kNone), "it failed");
    EXPECT_EQ(messageWith(Remedy::kListServices), "it failed (\"tarnfw services\" lists them)");
    EXPECT_EQ(messageWith(Remedy::kCheckFiles), "it failed (\"tarnfw check FILE\" shows why)");
    EXPECT_EQ(messageWith(Remedy::kSetUpBase), "it failed; \"tarnfw base up\" writes a first one");
    EXPECT_EQ(messageWith(Remedy::kGiveAdapterApart), "it failed; did you mean \"--adapter\"?");
}

}  // namespace
