// The documents of commands that change something, and of errors.
#include "cli/report.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/command.h"
#include "cli/output.h"

namespace tarnfw {
namespace {

using ::testing::HasSubstr;

Json::Value parsed(const std::string& text) {
    Json::Value document;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &document, &errors)) << text;
    return document;
}

/// A tool whose command "change" does `action`; runs it with these words. What it printed is in
/// `output` and `errors`.
class ReportTest : public ::testing::Test {
protected:
    void run(const std::vector<std::string>& words, const std::function<void()>& action) {
        Command tool("tool", "A tool");
        runReporting(tool.subcommand("change", "Change something"), report_, action);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        try {
            EXPECT_EQ(runCommandLine(tool, words), std::nullopt);
        } catch (...) {
            thrown_ = std::current_exception();
        }
        output_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
    }

    /// Says one line each way there is.
    void say() {
        std::cout << "Rule 1 of eth0\n" << std::flush;
        ASSERT_EQ(std::system("echo from a program"), 0);
        warn("not so good");
        ASSERT_EQ(std::system("echo 'iptables: hm' >&2"), 0);
        report_.setChanged();
        report_.setProfile("home");
        report_["rules"].append("one");
    }

    Report report_;
    std::exception_ptr thrown_;
    std::string output_;
    std::string errors_;
};

TEST_F(ReportTest, WithoutJsonItIsTextAtOnce) {
    run({"change"}, [this] { say(); });
    EXPECT_THAT(output_, HasSubstr("Rule 1 of eth0\n"));
    EXPECT_EQ(errors_, "tarnfw: not so good\niptables: hm\n");
}

TEST_F(ReportTest, WithJsonAllOfItIsOneDocument) {
    run({"change", "--json"}, [this] { say(); });
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(parsed(output_), parsed(R"({"changed": true, "applied": false, "profile": "home",
        "messages": ["Rule 1 of eth0", "from a program"],
        "warnings": ["not so good", "iptables: hm"], "rules": ["one"]})"));
}

TEST_F(ReportTest, NothingSaidIsEmptyLists) {
    run({"change", "--json"}, [] {});
    EXPECT_EQ(parsed(output_), parsed(R"({"changed": false, "applied": false, "profile": null,
        "messages": [], "warnings": []})"));
}

TEST_F(ReportTest, ACommandThatEndsWithAStatusHasItsDocument) {
    run({"change", "--json"}, [this] {
        report_.setApplied();
        endWith(kExitBlocked);
    });
    EXPECT_TRUE(parsed(output_)["applied"].asBool());
    EXPECT_THROW(std::rethrow_exception(thrown_), CommandEnded);
}

TEST_F(ReportTest, WhatAFailedCommandHasSaidGoesWithTheError) {
    run({"change", "--json"}, [] {
        std::cout << "Backup: here\n";
        warn("careful");
        throw Error(ErrorKind::kSystem, "it failed");
    });
    EXPECT_EQ(output_, "");
    EXPECT_THAT(errors_, HasSubstr("careful\n"));
    EXPECT_THAT(errors_, HasSubstr("Backup: here\n"));
    EXPECT_THROW(std::rethrow_exception(thrown_), Error);
}

TEST_F(ReportTest, ACommandThatGoesOnPrintsADocumentBeforeTheLast) {
    run({"change", "--json"}, [this] {
        std::cout << "begun\n";
        report_.printNow();
        std::cout << "ended\n";
        report_.setChanged();
    });
    const std::size_t end = output_.find("\n}\n") + 3;
    const Json::Value first = parsed(output_.substr(0, end));
    EXPECT_EQ(first["messages"][0], "begun");
    EXPECT_EQ(first["changed"], false);
    const Json::Value last = parsed(output_.substr(end));
    EXPECT_EQ(last["messages"].size(), 1U);
    EXPECT_EQ(last["messages"][0], "ended");
    EXPECT_EQ(last["changed"], true);
}

TEST_F(ReportTest, WithoutJsonNothingIsPrintedBeforehand) {
    run({"change"}, [this] { report_.printNow(); });
    EXPECT_EQ(output_, "");
}

TEST_F(ReportTest, NobodyIsAskedWithJson) {
    bool asked = true;
    run({"change", "--json"}, [&] { asked = canAsk(); });
    EXPECT_FALSE(asked);
}

TEST(CapturedOutputTest, WhatNobodyTakesIsWritten) {
    testing::internal::CaptureStderr();
    {
        CapturedOutput errors(STDERR_FILENO);
        std::cerr << "tarnfw: first\n";
        EXPECT_EQ(errors.takeLines(), std::vector<std::string>{"first"});
        std::cerr << "second\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "second\n");
}

TEST(ErrorDocumentTest, HasKindPlaceAndRemedy) {
    const Error error(ErrorKind::kNotFound, "there is no service \"shh\"",
                      {"/etc/x.json", "rules.eth0[2].portList", RulePlace{"eth0", 3}},
                      Remedy::kListServices);
    EXPECT_EQ(parsed(errorDocument(error, {"a line of the log"}).toStyledString()),
              parsed(R"({"error": {
        "kind": "notFound", "message": "there is no service \"shh\"",
        "place": {"file": "/etc/x.json", "path": "rules.eth0[2].portList",
                  "adapter": "eth0", "position": 3},
        "remedy": "\"tarnfw services\" lists them"},
        "warnings": ["a line of the log"]})"));
}

TEST(ErrorDocumentTest, WhatIsNotKnownIsNull) {
    EXPECT_EQ(errorDocument(Error(ErrorKind::kBusy, "locked"), {}),
              parsed(R"({"error": {"kind": "busy", "message": "locked", "place": null,
                                   "remedy": null}, "warnings": []})"));
    EXPECT_EQ(errorDocument(Error(ErrorKind::kInvalid, "bad", {"", "", RulePlace{"eth0", 0}}),
                            {})["error"]["place"],
              parsed(R"({"file": null, "path": null, "adapter": "eth0", "position": null})"));
    EXPECT_EQ(errorDocument(std::runtime_error("odd"), {})["error"]["kind"].asString(), "system");
}

TEST(ErrorDocumentTest, EachKindHasItsName) {
    const auto nameOf = [](ErrorKind kind) {
        return errorDocument(Error(kind, "x"), {})["error"]["kind"].asString();
    };
    EXPECT_EQ(nameOf(ErrorKind::kSystem), "system");
    EXPECT_EQ(nameOf(ErrorKind::kInvalid), "invalid");
    EXPECT_EQ(nameOf(ErrorKind::kUnusable), "unusable");
    EXPECT_EQ(nameOf(ErrorKind::kRefused), "refused");
    EXPECT_EQ(nameOf(ErrorKind::kNoRights), "noRights");
    EXPECT_EQ(nameOf(ErrorKind::kDeclined), "declined");
}

TEST(UsageDocumentTest, TheSuggestionIsTheRemedy) {
    EXPECT_EQ(usageDocument("tarnfw: there is no command \"tarnfw stats\"\n"
                            "Did you mean \"tarnfw status\"?\n"
                            "\"tarnfw --help\" shows its usage.\n",
                            {}),
              parsed(R"({"error": {"kind": "usage",
                  "message": "there is no command \"tarnfw stats\"", "place": null,
                  "remedy": "Did you mean \"tarnfw status\"? \"tarnfw --help\" shows its usage."},
                  "warnings": []})"));
}

TEST(AsksForJsonTest, OnlyBeforeTheWordsThatAreNoOptions) {
    EXPECT_TRUE(asksForJson({"nonsense", "--json"}));
    EXPECT_FALSE(asksForJson({"status", "json"}));
    EXPECT_FALSE(asksForJson({"complete", "--", "status", "--json"}));
}

}  // namespace
}  // namespace tarnfw
