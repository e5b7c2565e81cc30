// The blocked checks: single behaviours by name, and the whole space of verdicts against a second
// evaluation, written for these tests only.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::ValuesIn;

namespace {

using Lines = std::vector<std::string>;
using Ports = std::vector<std::string>;
using Verdicts = std::map<std::string, int>;  // by adapter
using FW::FW_POLICY;
using FW::FWRULE;
using FW::PortCompareST;

// Verdicts, and the two of them that are policies too.
constexpr int kAllowed = 0;
constexpr int kBlocked = 1;
constexpr int kUndecided = 2;
constexpr int kMixed = 3;
constexpr int kAllowedForSome = 4;
constexpr int kBlockedForSome = 5;

// Codes of a rule's ipGroup: any address, and a single one.
constexpr int kAnybody = 5;
constexpr int kSomebody = 0;

constexpr int kDestination = 0;
constexpr int kSource = 1;
constexpr int kTcp = 1;
constexpr int kUdp = 2;
constexpr int kBoth = 3;

// ---- Rules as these tests write them ----

FWRULE allPorts(int policy, int ipGroup) {
    FWRULE made;
    made.policy = static_cast<FW_POLICY>(policy);
    made.ipGroup = ipGroup;
    made.portGroup = 3;
    return made;
}

FWRULE ports(int policy, int ipGroup, const Ports& portList, int protocol = kTcp,
             int direct = kDestination) {
    FWRULE made = allPorts(policy, ipGroup);
    made.portGroup = 1;
    made.protocol = protocol;
    made.portDirect = direct;
    made.portList = portList;
    return made;
}

FWRULE servicesRule(int policy, int ipGroup, const std::vector<std::string>& names, int portGroup,
                    int direct = kDestination) {
    FWRULE made = ports(policy, ipGroup, names, kBoth, direct);
    made.portGroup = portGroup;
    return made;
}

FWRULE disabled(FWRULE rule) {
    rule.enable = false;
    return rule;
}

FWRULE inPortGroup(FWRULE rule, int portGroup) {
    rule.portGroup = portGroup;
    return rule;
}

// A list of such rules does not decide.
const FWRULE kIdle = disabled(allPorts(kBlocked, kAnybody));

// ---- A profile, a question, and the second evaluation ----

struct Model {
    std::map<std::string, std::vector<FWRULE>> rules;  // none empty: files have no empty lists
    Verdicts policies;
    std::map<std::string, FakeService> services;
};

struct Range {
    long low;
    long high;
};

Range rangeOf(const std::string& text) {
    const auto dash = text.find('-');
    if (dash == std::string::npos) {
        const long port = std::strtol(text.c_str(), nullptr, 10);
        return {port, port};
    }
    return {std::strtol(text.substr(0, dash).c_str(), nullptr, 10),
            std::strtol(text.substr(dash + 1).c_str(), nullptr, 10)};
}

// What a rule is compared as: its own ports, or those of its services, entry by entry.
struct Side {
    int protocol;
    Ports ports;
};

bool comparesEqual(const Side& side, const FWRULE& rule, const PortCompareST& query) {
    const bool blocks = rule.policy == kBlocked;
    const bool eitherIsBoth = query.protocol == kBoth || side.protocol == kBoth;
    const bool protocolFits = blocks ? eitherIsBoth || side.protocol == query.protocol
                                     : side.protocol == kBoth || side.protocol == query.protocol;
    if (!protocolFits || rule.portDirect != query.portDirect) {
        return false;
    }
    const Range asked = rangeOf(query.port);
    for (const std::string& text : side.ports) {
        const Range own = rangeOf(text);
        const bool overlaps = own.high >= asked.low && own.low <= asked.high;
        const bool covers = own.low <= asked.low && own.high >= asked.high;
        if (blocks ? overlaps : covers) {
            return true;
        }
    }
    return false;
}

bool matches(const Model& model, const FWRULE& rule, const PortCompareST& query) {
    if (rule.portGroup == 3) {
        return true;
    }
    if (rule.portGroup == 1) {
        return comparesEqual({rule.protocol, rule.portList}, rule, query);
    }
    std::map<int, Ports> source;
    std::map<int, Ports> destination;
    for (const std::string& name : rule.portList) {
        const auto found = model.services.find(name);
        if (found == model.services.end() || found->second.title.empty()) {
            continue;
        }
        const FakeService& service = found->second;
        for (const std::string& port : service.srcPorts) {
            source[service.srcProtocol].push_back(port);
        }
        for (const std::string& port : service.dstPorts) {
            destination[service.dstProtocol].push_back(port);
        }
    }
    for (const auto* side : {&source, &destination}) {
        for (const auto& [protocol, list] : *side) {
            if (comparesEqual({protocol, list}, rule, query)) {
                return true;
            }
        }
    }
    return false;
}

struct Step {
    int verdict;
    bool stops;
};

Step stepForAnybody(int current, int policy) {
    switch (current) {
        case 0:
        case 1:
        case 2:
            return {policy, true};
        case 4:
            return {policy == 1 ? 4 : 0, true};
        case 5:
            return {policy == 0 ? 5 : policy == 1 ? 1 : 0, true};
        default:
            return {0, true};
    }
}

Step stepForSomebody(int current, int policy) {
    switch (current) {
        case 0:
        case 1:
        case 2:
            if (policy == current) {
                return {0, false};
            }
            return {policy == 0 ? 4 : policy == 1 ? 5 : 0, false};
        case 4:
            return policy == 0 ? Step{0, false} : Step{policy == 1 ? 3 : 0, true};
        case 5:
            return policy == 1 ? Step{0, false} : Step{policy == 0 ? 3 : 0, true};
        default:
            return {0, true};
    }
}

// A rule that matched: whose verdict it changed, its place, its policy, the verdict before and
// after, and whether it ended the list.
using RuleStep = std::tuple<std::string, int, int, int, int, bool>;
using RuleSteps = std::vector<RuleStep>;

void evaluateList(const Model& model, const std::string& key, const PortCompareST& query,
                  Verdicts& result, RuleSteps& steps) {
    bool blockingMatched = false;
    int position = 0;
    for (const FWRULE& rule : model.rules.at(key)) {
        ++position;
        if (!rule.enable || rule.portGroup < 0 || rule.portGroup > 3 ||
            !matches(model, rule, query)) {
            continue;
        }
        blockingMatched = blockingMatched || rule.policy == 1;
        const Step step = rule.ipGroup == 5 ? stepForAnybody(result[key], rule.policy)
                                            : stepForSomebody(result[key], rule.policy);
        steps.emplace_back(key, position, rule.policy, result[key], step.verdict, step.stops);
        result[key] = step.verdict;
        if (step.stops) {
            break;
        }
    }
    if (key == "global" && !blockingMatched && result[key] == 4) {
        result[key] = 2;
    }
}

// What an enabled firewall answers. Returns the rules that led there.
RuleSteps evaluate(const Model& model, const PortCompareST& query, const std::string& adapter,
                   Verdicts& result) {
    RuleSteps steps;
    result["global"] = 2;
    for (const auto& [name, policy] : model.policies) {
        if (adapter.empty() || adapter == name) {
            result[name] = policy;
        }
    }
    bool decided = false;
    if (model.rules.count("global") != 0) {
        evaluateList(model, "global", query, result, steps);
        const int global = result["global"];
        decided = global == 0 || global == 1 || global == 3;
        if (decided && !adapter.empty()) {
            result[adapter] = global;
        } else if (decided) {
            for (const auto& [name, policy] : model.policies) {
                result[name] = global;
            }
        }
    }
    if (!decided && !adapter.empty() && model.policies.count(adapter) == 0) {
        result[adapter] = 0;
        if (model.rules.count(adapter) == 0) {
            return steps;
        }
    }
    if (!decided) {
        for (const auto& [name, rules] : model.rules) {
            if (adapter.empty() || adapter == name) {
                evaluateList(model, name, query, result, steps);
            }
        }
    }
    for (auto& [name, verdict] : result) {
        if (verdict == 4 || verdict == 5) {
            verdict = 3;
        }
    }
    return steps;
}

// ---- The fixture ----

std::string joined(const Ports& texts) {
    std::string made;
    for (const std::string& text : texts) {
        made += (made.empty() ? "" : ",") + text;
    }
    return made;
}

std::string describe(const std::vector<FWRULE>& rules) {
    std::ostringstream out;
    for (const FWRULE& rule : rules) {
        out << (rule.enable ? " {policy " : " {off, policy ") << rule.policy << ", ipGroup "
            << rule.ipGroup << ", portGroup " << rule.portGroup << ", protocol " << rule.protocol
            << ", direction " << rule.portDirect << ", ports " << joined(rule.portList) << "}";
    }
    return out.str();
}

class BlockedTest : public LibraryTest {
protected:
    BlockedTest() { storeSettings(true, "home"); }

    void TearDown() override {
        EXPECT_EQ(platform_.openCatalogues, 0);
        EXPECT_THAT(platform_.executed(), IsEmpty());
    }

    Lines log() const { return logLines(platform_); }

    // Stores `model` as the active profile, in the few members that count, so that thousands of
    // rules are read quickly; the policies stay as they are, that of "global" as well.
    void store(const Model& model) {
        Json::Value document;
        document["name"] = "home";
        document["rules"] = Json::Value(Json::objectValue);
        document["adapterPolicyMap"] = Json::Value(Json::objectValue);
        for (const auto& [adapter, rules] : model.rules) {
            Json::Value& list = document["rules"][adapter] = Json::Value(Json::arrayValue);
            for (const FWRULE& rule : rules) {
                Json::Value made;
                made["enable"] = rule.enable;
                made["policy"] = rule.policy;
                made["ipGroup"] = rule.ipGroup;
                made["portGroup"] = rule.portGroup;
                made["portDirect"] = rule.portDirect;
                made["protocol"] = rule.protocol;
                for (const std::string& port : rule.portList) {
                    made["portList"].append(port);
                }
                list.append(made);
            }
        }
        for (const auto& [adapter, policy] : model.policies) {
            document["adapterPolicyMap"][adapter] = policy;
        }
        writeFile(kProfileDir + "1.json", Json::FastWriter().write(document));
        platform_.services = model.services;
    }

    // The library's answer, added to `before`; the call must succeed and log nothing. The answer
    // with its steps must be the same, and they must lead to it.
    Verdicts asked(const PortCompareST& query, const std::string& adapter,
                   const Verdicts& before = {}) {
        std::map<std::string, FW_POLICY> result = policies(before);
        EXPECT_TRUE(FW::TARNFW().fwPortIsBlocked(query, adapter, result));
        EXPECT_EQ(explained(query, adapter, before), (Verdicts{result.begin(), result.end()}));
        EXPECT_THAT(platform_.log(), IsEmpty());
        return {result.begin(), result.end()};
    }

    static std::map<std::string, FW_POLICY> policies(const Verdicts& verdicts) {
        std::map<std::string, FW_POLICY> made;
        for (const auto& [name, verdict] : verdicts) {
            made[name] = static_cast<FW_POLICY>(verdict);
        }
        return made;
    }

    // Asks for the steps, into steps_ and ruleSteps_, and follows them: what they leave must be the
    // answer.
    Verdicts explained(const PortCompareST& query, const std::string& adapter,
                       const Verdicts& before) {
        std::map<std::string, FW_POLICY> result = policies(before);
        steps_.clear();
        ruleSteps_.clear();
        EXPECT_TRUE(FW::TARNFW().fwPortExplain(query, adapter, result, steps_));
        Verdicts followed = before;
        for (const FW::FWVERDICTSTEP& step : steps_) {
            EXPECT_EQ(step.before, followed[step.adapter]) << step.adapter;
            followed[step.adapter] = step.after;
            const bool isRule = step.kind == FW::FW_VERDICT_STEP_RULE;
            EXPECT_EQ(step.position > 0, isRule);
            EXPECT_EQ(step.list, isRule ? step.adapter : "");
            if (isRule) {
                ruleSteps_.emplace_back(step.adapter, step.position, step.policy, step.before,
                                        step.after, step.last);
            }
        }
        const Verdicts found = {result.begin(), result.end()};
        if (!steps_.empty()) {  // a disabled firewall has an answer without reasons
            EXPECT_EQ(followed, found);
        }
        return found;
    }

    // Compares the library's answer on the stored `model` with the second evaluation's. Returns
    // false, after reporting the difference, when they differ.
    bool agrees(const Model& model, const PortCompareST& query, const std::string& adapter,
                const Verdicts& before = {}) {
        Verdicts expected = before;
        const RuleSteps expectedSteps = evaluate(model, query, adapter, expected);
        const Verdicts found = asked(query, adapter, before);
        EXPECT_EQ(ruleSteps_.size(), expectedSteps.size());
        const bool sameSteps = ruleSteps_ == expectedSteps;
        if (found == expected && sameSteps) {
            return true;
        }
        std::ostringstream out;
        out << (sameSteps ? "" : "other rules led there; ");
        out << "query " << query.port << ", protocol " << query.protocol << ", direction "
            << query.portDirect << ", adapter \"" << adapter << "\"\n";
        std::size_t told = 0;
        Verdicts all = expected;
        all.insert(found.begin(), found.end());
        for (const auto& [name, unused] : all) {
            const auto verdictIn = [&key = name](const Verdicts& verdicts) {
                const auto entry = verdicts.find(key);
                return entry == verdicts.end() ? std::string("none")
                                               : std::to_string(entry->second);
            };
            if (verdictIn(expected) == verdictIn(found) || ++told > 5) {
                continue;
            }
            out << name << ": " << verdictIn(found) << " instead of " << verdictIn(expected)
                << "; policy " << verdictIn(model.policies) << ", before " << verdictIn(before);
            if (model.rules.count(name) != 0) {
                out << ", rules" << describe(model.rules.at(name));
            }
            out << "\n";
        }
        if (model.rules.count("global") != 0) {
            out << "global rules" << describe(model.rules.at("global")) << "\n";
        }
        ADD_FAILURE() << out.str();
        return false;
    }

    const PortCompareST kQuery = {kDestination, kTcp, "100-200"};
    std::vector<FW::FWVERDICTSTEP> steps_;  // of the last question
    RuleSteps ruleSteps_;                   // those of them that are a rule's
};

std::string numbered(const std::string& prefix, std::size_t number) {
    return prefix + std::to_string(number);
}

// ---- Whether there is a verdict at all ----

TEST_F(BlockedTest, DisabledFirewallAllowsTheAdapterAndNothingElse) {
    storeSettings(false, "home");
    store({{{"global", {allPorts(kBlocked, kAnybody)}}}, {{"eth0", kBlocked}}, {}});
    EXPECT_THAT(asked(kQuery, "eth0"), ElementsAre(Pair("eth0", kAllowed)));
}

TEST_F(BlockedTest, DisabledFirewallAnswersNothingWithoutAnAdapter) {
    storeSettings(false, "home");
    store({{}, {{"eth0", kBlocked}}, {}});
    EXPECT_THAT(asked(kQuery, ""), IsEmpty());
}

TEST_F(BlockedTest, DisabledFirewallNeedsNoProfileAndLeavesOtherEntriesAlone) {
    storeSettings(false, "none");
    const Verdicts before = {{"eth0", kBlocked}, {"eth1", kAllowedForSome}};
    EXPECT_EQ(asked(kQuery, "", before), before);
    EXPECT_EQ(asked(kQuery, "eth0", before),
              (Verdicts{{"eth0", kAllowed}, {"eth1", kAllowedForSome}}));
}

TEST_F(BlockedTest, MissingSettingsAreThoseOfADisabledFirewall) {
    fs::remove(kSettingsFile);
    EXPECT_THAT(asked(kQuery, "eth0"), ElementsAre(Pair("eth0", kAllowed)));
}

struct FailureCase {
    const char* name;
    const char* settings;
    Lines log;
};

void PrintTo(const FailureCase& c, std::ostream* out) {
    *out << c.name;
}

const FailureCase kFailures[] = {
    {"UnreadableSettings",
     "{",
     {"err utils: Failed to parse Json value of " + kSettingsFile,
      "err tarnFW: Falied to configGet()", "err tarnFW: Failed to check firewall status"}},
    {"NoActiveProfile",
     R"({"status": true})",
     {"err tarnFW: There are no key: profile in config",
      "err tarnFW: Failed to fwProfileConfigGet()"}},
    {"MissingProfile",
     R"({"status": true, "profile": "away"})",
     {"err fwDB: Failed to profileGet away due to not exist",
      "err tarnFW: Failed to profileGet(away)"}},
};

class BlockedFailureTest : public BlockedTest, public ::testing::WithParamInterface<FailureCase> {
protected:
    BlockedFailureTest() {
        store({{}, {{"eth0", kBlocked}}, {{"ssh", {"SSH", kTcp, {"22", "23"}, 0, {}}}}});
        writeFile(kSettingsFile, GetParam().settings);
    }
};

TEST_P(BlockedFailureTest, FailsThePortCheckAndAddsNoVerdict) {
    for (const std::string adapter : {"eth0", ""}) {
        SCOPED_TRACE(adapter);
        platform_.clearLog();
        std::map<std::string, FW_POLICY> result = {{"eth1", FW::FW_POLICY_ALLOW_SOME}};
        EXPECT_FALSE(FW::TARNFW().fwPortIsBlocked(kQuery, adapter, result));
        EXPECT_EQ(log(), GetParam().log);
        EXPECT_THAT(result, ElementsAre(Pair("eth1", kAllowedForSome)));
    }
}

TEST_P(BlockedFailureTest, FailsTheExplanationAndAddsNoStep) {
    std::map<std::string, FW_POLICY> result;
    EXPECT_FALSE(FW::TARNFW().fwPortExplain(kQuery, "eth0", result, steps_));
    EXPECT_EQ(log(), GetParam().log);
    EXPECT_THAT(result, IsEmpty());
    EXPECT_THAT(steps_, IsEmpty());
}

TEST_P(BlockedFailureTest, FailsTheServiceCheckAtTheFirstPort) {
    std::map<std::string, FW_POLICY> result;
    EXPECT_FALSE(FW::TARNFW().fwServIsBlocked("ssh", "eth0", result));
    Lines expected = GetParam().log;
    expected.push_back("err tarnFW: Failed to fwPortIsBlocked()");
    EXPECT_EQ(log(), expected);
    EXPECT_THAT(result, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, BlockedFailureTest, ValuesIn(kFailures),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- Which adapters get an entry ----

TEST_F(BlockedTest, ProfileWithoutAGlobalListLeavesGlobalUndecided) {
    store({{{"eth0", {ports(kBlocked, kAnybody, {"150"})}}},
           {{"eth0", kAllowed}, {"eth1", kAllowed}, {"global", kUndecided}},
           {}});
    EXPECT_THAT(asked(kQuery, ""), ElementsAre(Pair("eth0", kBlocked), Pair("eth1", kAllowed),
                                               Pair("global", kUndecided)));
    EXPECT_THAT(asked(kQuery, "eth0"),
                ElementsAre(Pair("eth0", kBlocked), Pair("global", kUndecided)));
    EXPECT_THAT(asked(kQuery, "eth1"),
                ElementsAre(Pair("eth1", kAllowed), Pair("global", kUndecided)));
}

TEST_F(BlockedTest, EmptyProfileLeavesGlobalUndecided) {
    store({});
    EXPECT_THAT(asked(kQuery, ""), ElementsAre(Pair("global", kUndecided)));
}

TEST_F(BlockedTest, UnknownAdapterIsAllowed) {
    store({{}, {{"eth0", kBlocked}}, {}});
    EXPECT_THAT(asked(kQuery, "eth9"),
                ElementsAre(Pair("eth9", kAllowed), Pair("global", kUndecided)));
}

TEST_F(BlockedTest, AdapterWithRulesButNoDefaultPolicyStartsAllowed) {
    store({{{"eth0", {ports(kBlocked, kAnybody, {"300"})}},
            {"eth1", {ports(kBlocked, kSomebody, {"150"})}}},
           {},
           {}});
    EXPECT_THAT(asked(kQuery, "eth0"),
                ElementsAre(Pair("eth0", kAllowed), Pair("global", kUndecided)));
    EXPECT_THAT(asked(kQuery, "eth1"),
                ElementsAre(Pair("eth1", kMixed), Pair("global", kUndecided)));
}

TEST_F(BlockedTest, OfAllAdaptersAListWithoutPolicyHasAnEntryOnlyWhenARuleMatches) {
    store({{{"eth0", {ports(kBlocked, kAnybody, {"300"})}},
            {"eth1", {ports(kBlocked, kAnybody, {"150"})}},
            {"eth2", {kIdle}}},
           {{"eth3", kBlocked}},
           {}});
    EXPECT_THAT(asked(kQuery, ""), ElementsAre(Pair("eth1", kBlocked), Pair("eth3", kBlocked),
                                               Pair("global", kUndecided)));
}

TEST_F(BlockedTest, GlobalVerdictGoesToEveryAdapterWithAPolicyAndToNoOther) {
    store({{{"global", {allPorts(kBlocked, kAnybody)}}, {"eth1", {allPorts(kAllowed, kAnybody)}}},
           {{"eth0", kAllowed}, {"eth2", kUndecided}},
           {}});
    EXPECT_THAT(asked(kQuery, ""), ElementsAre(Pair("eth0", kBlocked), Pair("eth2", kBlocked),
                                               Pair("global", kBlocked)));
}

TEST_F(BlockedTest, GlobalVerdictGoesToTheGivenAdapterEvenIfTheProfileHasNone) {
    store({{{"global", {allPorts(kBlocked, kAnybody)}}}, {{"eth0", kAllowed}}, {}});
    EXPECT_THAT(asked(kQuery, "eth9"),
                ElementsAre(Pair("eth9", kBlocked), Pair("global", kBlocked)));
}

TEST_F(BlockedTest, EntriesThatTheCallerHadStayButInterimOnesBecomeMixed) {
    store({{}, {{"eth0", kAllowed}}, {}});
    EXPECT_EQ(asked(kQuery, "eth0",
                    {{"eth0", kBlocked}, {"global", kBlocked}, {"x", 4}, {"y", 5}, {"z", 1}}),
              (Verdicts{{"eth0", 0}, {"global", 2}, {"x", 3}, {"y", 3}, {"z", 1}}));
}

// With neither policy nor rules for the adapter there is nothing to evaluate, and so nothing to
// tidy up afterwards.
TEST_F(BlockedTest, UnknownAdapterLeavesInterimVerdictsAsTheyAre) {
    const FWRULE someBlocked = ports(kBlocked, kSomebody, {"150"});
    store({{{"global", {someBlocked}}}, {{"global", kUndecided}}, {}});
    EXPECT_EQ(asked(kQuery, "eth9", {{"x", kAllowedForSome}}),
              (Verdicts{{"eth9", kAllowed}, {"global", kBlockedForSome}, {"x", kAllowedForSome}}));
    EXPECT_EQ(asked(kQuery, "", {{"x", kAllowedForSome}}),
              (Verdicts{{"global", kAllowed}, {"x", kMixed}}));
}

// ---- The global list ----

TEST_F(BlockedTest, GlobalDenyForAnybodyDecidesEveryAdapterWhateverItsRules) {
    store({{{"global", {ports(kBlocked, kAnybody, {"100-200"})}},
            {"eth0", {allPorts(kAllowed, kAnybody)}},
            {"eth1", {ports(kAllowed, kSomebody, {"100-200"})}}},
           {{"eth0", kAllowed}, {"eth1", kAllowed}, {"eth2", kAllowed}, {"global", kUndecided}},
           {}});
    EXPECT_EQ(
        asked(kQuery, ""),
        (Verdicts{
            {"eth0", kBlocked}, {"eth1", kBlocked}, {"eth2", kBlocked}, {"global", kBlocked}}));
    for (const std::string adapter : {"eth0", "eth1", "eth2"}) {
        EXPECT_EQ(asked(kQuery, adapter), (Verdicts{{adapter, kBlocked}, {"global", kBlocked}}));
    }
}

TEST_F(BlockedTest, GlobalMixedVerdictDecidesEveryAdapter) {
    store({{{"global",
             {ports(kAllowed, kSomebody, {"100-200"}), ports(kBlocked, kSomebody, {"150"})}}},
           {{"eth0", kBlocked}},
           {}});
    EXPECT_EQ(asked(kQuery, ""), (Verdicts{{"eth0", kMixed}, {"global", kMixed}}));
    EXPECT_EQ(asked(kQuery, "eth0"), (Verdicts{{"eth0", kMixed}, {"global", kMixed}}));
}

TEST_F(BlockedTest, GlobalAllowForSomebodyAloneLeavesTheAdaptersToDecide) {
    store({{{"global", {ports(kAllowed, kSomebody, {"100-200"})}}},
           {{"eth0", kBlocked}, {"eth1", kAllowed}},
           {}});
    EXPECT_EQ(asked(kQuery, "eth0"), (Verdicts{{"eth0", kBlocked}, {"global", kUndecided}}));
    EXPECT_EQ(asked(kQuery, ""),
              (Verdicts{{"eth0", kBlocked}, {"eth1", kAllowed}, {"global", kUndecided}}));
}

TEST_F(BlockedTest, GlobalDenyForSomebodyAloneLeavesTheGivenAdapterToDecide) {
    store({{{"global", {ports(kBlocked, kSomebody, {"150"})}}},
           {{"eth0", kBlocked}, {"eth1", kAllowed}},
           {}});
    EXPECT_EQ(asked(kQuery, "eth0"), (Verdicts{{"eth0", kBlocked}, {"global", kMixed}}));
    EXPECT_EQ(asked(kQuery, "eth1"), (Verdicts{{"eth1", kAllowed}, {"global", kMixed}}));
}

// Asking about all adapters walks it a second time, from the verdict of the first.
TEST_F(BlockedTest, UndecidedGlobalListIsEvaluatedAgainWithAllAdapters) {
    store({{{"global", {ports(kBlocked, kSomebody, {"150"})}}}, {{"eth0", kBlocked}}, {}});
    EXPECT_EQ(asked(kQuery, ""), (Verdicts{{"eth0", kBlocked}, {"global", kAllowed}}));
}

TEST_F(BlockedTest, GlobalPolicyOfTheProfileIsLookedAtOnlyWithAGlobalList) {
    store({{}, {{"eth0", kBlocked}, {"global", kAllowed}}, {}});
    EXPECT_EQ(asked(kQuery, ""), (Verdicts{{"eth0", kBlocked}, {"global", kAllowed}}));
    store({{{"global", {kIdle}}}, {{"eth0", kBlocked}, {"global", kAllowed}}, {}});
    EXPECT_EQ(asked(kQuery, ""), (Verdicts{{"eth0", kAllowed}, {"global", kAllowed}}));
    EXPECT_EQ(asked(kQuery, "eth0"), (Verdicts{{"eth0", kBlocked}, {"global", kUndecided}}));
}

// ---- Port ranges, protocols, directions ----

struct MatchCase {
    const char* name;
    PortCompareST query;
    FWRULE rule;
    bool matches;
};

void PrintTo(const MatchCase& c, std::ostream* out) {
    *out << c.name;
}

const FWRULE kAllow100To200 = ports(kAllowed, kAnybody, {"100-200"});
const FWRULE kDeny100To200 = ports(kBlocked, kAnybody, {"100-200"});
const FWRULE kNone100To200 = ports(kUndecided, kAnybody, {"100-200"});

const MatchCase kMatches[] = {
    // Allowing takes a range that covers the query; blocking takes any overlap.
    {"AllowOfPartOfTheQuery", {0, kTcp, "150-250"}, kAllow100To200, false},
    {"DenyOfPartOfTheQuery", {0, kTcp, "150-250"}, kDeny100To200, true},
    {"NoTargetForPartOfTheQuery", {0, kTcp, "150-250"}, kNone100To200, false},
    {"AllowOfTheWholeQuery", {0, kTcp, "100-200"}, kAllow100To200, true},
    {"AllowOfMoreThanTheQuery", {0, kTcp, "101-199"}, kAllow100To200, true},
    {"NoTargetForMoreThanTheQuery", {0, kTcp, "101-199"}, kNone100To200, true},
    {"AllowEndsBeforeTheQueryDoes", {0, kTcp, "100-201"}, kAllow100To200, false},
    {"AllowBeginsAfterTheQueryDoes", {0, kTcp, "99-200"}, kAllow100To200, false},
    {"DenyWithinTheQuery", {0, kTcp, "1-65535"}, kDeny100To200, true},
    {"DenyAtTheLowEnd", {0, kTcp, "50-100"}, kDeny100To200, true},
    {"DenyAtTheHighEnd", {0, kTcp, "200-300"}, kDeny100To200, true},
    {"DenyBelowTheQuery", {0, kTcp, "201-300"}, kDeny100To200, false},
    {"DenyAboveTheQuery", {0, kTcp, "50-99"}, kDeny100To200, false},
    {"OnePort", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {"80"}), true},
    {"OnePortAsARange", {0, kTcp, "80-80"}, ports(kAllowed, kAnybody, {"80"}), true},
    {"OtherPort", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"81"}), false},
    {"AllowOfAnyEntry", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {"1", "90-99", "80"}), true},
    {"DenyOfAnyEntry", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"1", "75-85", "90"}), true},
    {"AllowOfTwoHalvesCoversNotTheWhole",
     {0, kTcp, "100-200"},
     ports(kAllowed, kAnybody, {"100-150", "151-200"}),
     false},
    {"AllowWithoutPorts", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {}), false},
    {"DenyWithoutPorts", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {}), false},

    // A text counts up to its first character that is not a digit.
    {"TextIsPortZero", {0, kTcp, "0"}, ports(kAllowed, kAnybody, {"http"}), true},
    {"EmptyTextIsPortZero", {0, kTcp, ""}, ports(kAllowed, kAnybody, {"0"}), true},
    {"TextBehindANumberIsDropped", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {"80/tcp"}), true},
    {"LeadingZeroIsNoOctal", {0, kTcp, "10"}, ports(kAllowed, kAnybody, {"010"}), true},
    {"HexadecimalIsPortZero", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"0x50"}), false},
    {"BlanksInFrontAreSkipped", {0, kTcp, " 80 - 90"}, ports(kAllowed, kAnybody, {"80-90"}), true},
    {"OnlyTheFirstDashSplits", {0, kTcp, "80-90"}, ports(kAllowed, kAnybody, {"80-90-70"}), true},
    {"MissingLowEndIsZero", {0, kTcp, "0-90"}, ports(kAllowed, kAnybody, {"-90"}), true},
    {"MissingHighEndIsZero", {0, kTcp, "80-90"}, ports(kBlocked, kAnybody, {"80-"}), false},
    {"ReversedRangeOverlapsNothing",
     {0, kTcp, "80-90"},
     ports(kBlocked, kAnybody, {"200-100"}),
     false},
    {"ReversedRangeWithinTheQueryOverlaps",
     {0, kTcp, "100-200"},
     ports(kBlocked, kAnybody, {"160-140"}),
     true},

    // Protocols: one of "both" on either side is enough to block, only the rule's is to allow.
    {"AllowTcpForTcp", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {"80"}, kTcp), true},
    {"AllowTcpForUdp", {0, kUdp, "80"}, ports(kAllowed, kAnybody, {"80"}, kTcp), false},
    {"AllowTcpForBoth", {0, kBoth, "80"}, ports(kAllowed, kAnybody, {"80"}, kTcp), false},
    {"AllowUdpForBoth", {0, kBoth, "80"}, ports(kAllowed, kAnybody, {"80"}, kUdp), false},
    {"AllowBothForTcp", {0, kTcp, "80"}, ports(kAllowed, kAnybody, {"80"}, kBoth), true},
    {"AllowBothForUdp", {0, kUdp, "80"}, ports(kAllowed, kAnybody, {"80"}, kBoth), true},
    {"AllowBothForBoth", {0, kBoth, "80"}, ports(kAllowed, kAnybody, {"80"}, kBoth), true},
    {"DenyTcpForUdp", {0, kUdp, "80"}, ports(kBlocked, kAnybody, {"80"}, kTcp), false},
    {"DenyUdpForTcp", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"80"}, kUdp), false},
    {"DenyTcpForTcp", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"80"}, kTcp), true},
    {"DenyTcpForBoth", {0, kBoth, "80"}, ports(kBlocked, kAnybody, {"80"}, kTcp), true},
    {"DenyUdpForBoth", {0, kBoth, "80"}, ports(kBlocked, kAnybody, {"80"}, kUdp), true},
    {"DenyBothForTcp", {0, kTcp, "80"}, ports(kBlocked, kAnybody, {"80"}, kBoth), true},
    {"DenyBothForUdp", {0, kUdp, "80"}, ports(kBlocked, kAnybody, {"80"}, kBoth), true},
    {"NoTargetTcpForBoth", {0, kBoth, "80"}, ports(kUndecided, kAnybody, {"80"}, kTcp), false},

    // Without equal directions nothing matches.
    {"AllowOfTheOtherDirection", {0, kTcp, "80"}, ports(kAllowed, 5, {"80"}, kBoth, 1), false},
    {"DenyOfTheOtherDirection", {1, kTcp, "80"}, ports(kBlocked, 5, {"80"}, kBoth, 0), false},
    {"AllowOfSourcePorts", {1, kTcp, "80"}, ports(kAllowed, 5, {"80"}, kTcp, 1), true},
    {"DenyOfSourcePorts", {1, kTcp, "80"}, ports(kBlocked, 5, {"80"}, kTcp, 1), true},

    // Other kinds of rules.
    {"AllPortsMatchAnything", {1, kUdp, "1-65535"}, allPorts(kAllowed, kAnybody), true},
    {"DisabledRule", {0, kTcp, "80"}, disabled(allPorts(kBlocked, kAnybody)), false},
    {"PortGroupAboveThree", {0, kTcp, "80"}, inPortGroup(allPorts(kBlocked, kAnybody), 4), false},
    {"NegativePortGroup", {0, kTcp, "80"}, inPortGroup(allPorts(kBlocked, kAnybody), -1), false},
};

class MatchTest : public BlockedTest, public ::testing::WithParamInterface<MatchCase> {};

// A rule for anybody sets the verdict to its policy, so each starts from another one.
TEST_P(MatchTest, DecidesWhetherTheRuleSetsTheVerdict) {
    const MatchCase& c = GetParam();
    const int defaultPolicy = c.rule.policy == kBlocked ? kAllowed : kBlocked;
    store({{{"eth0", {c.rule}}}, {{"eth0", defaultPolicy}}, {}});
    const int expected = c.matches ? static_cast<int>(c.rule.policy) : defaultPolicy;
    EXPECT_EQ(asked(c.query, "eth0")["eth0"], expected);
    EXPECT_EQ(asked(c.query, "")["eth0"], expected);
}

INSTANTIATE_TEST_SUITE_P(, MatchTest, ValuesIn(kMatches),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- Rules that name services ----

struct ServiceRuleCase {
    const char* name;
    PortCompareST query;
    int policy;
    int direct;
    std::vector<std::string> names;
    bool matches;
};

void PrintTo(const ServiceRuleCase& c, std::ostream* out) {
    *out << c.name;
}

const std::map<std::string, FakeService> kServices = {
    {"ssh", {"SSH", kTcp, {"22"}, 0, {}}},
    {"dns", {"DNS", kBoth, {"53"}, 0, {}}},
    {"ftp", {"FTP", kTcp, {"21", "20-25"}, kUdp, {"1000-2000"}}},
    {"nfs", {"NFS", kUdp, {"2049"}, kTcp, {"2049"}}},
    {"nothing", {"Nothing", kTcp, {}, kUdp, {}}},
    {"unusable", {"", kTcp, {"22"}, kTcp, {"22"}}},
};

const ServiceRuleCase kServiceRules[] = {
    {"AllowOfItsPort", {0, kTcp, "22"}, kAllowed, 0, {"ssh"}, true},
    {"AllowOfPartOfTheQuery", {0, kTcp, "22-23"}, kAllowed, 0, {"ssh"}, false},
    {"DenyOfPartOfTheQuery", {0, kTcp, "22-23"}, kBlocked, 0, {"ssh"}, true},
    {"TheServicesProtocolCountsNotTheRules", {0, kUdp, "22"}, kBlocked, 0, {"ssh"}, false},
    {"AllowOfOneProtocolForBoth", {0, kBoth, "22"}, kAllowed, 0, {"ssh"}, false},
    {"DenyOfOneProtocolForBoth", {0, kBoth, "22"}, kBlocked, 0, {"ssh"}, true},
    {"AllowOfBothProtocolsForBoth", {0, kBoth, "53"}, kAllowed, 0, {"dns"}, true},
    {"AnyServiceOfTheRule", {0, kUdp, "53"}, kAllowed, 0, {"ssh", "dns"}, true},
    {"AnyPortOfTheService", {0, kTcp, "24-25"}, kAllowed, 0, {"ftp"}, true},
    {"SourcePortsCountInTheRulesDirection", {0, kUdp, "1500"}, kAllowed, 0, {"ftp"}, true},
    {"DestinationPortsCountInTheRulesDirection", {1, kTcp, "21"}, kAllowed, 1, {"ftp"}, true},
    {"TheRulesDirectionHasToFit", {1, kTcp, "22"}, kBlocked, 0, {"ssh"}, false},
    {"PortsOfOneProtocolAreNoPortsOfTheOther", {0, kTcp, "1500"}, kBlocked, 0, {"ftp"}, false},
    {"BothSidesOfAService", {0, kTcp, "2049"}, kAllowed, 0, {"nfs"}, true},
    {"TwoSidesOfOneProtocolEachAreNotBoth", {0, kBoth, "2049"}, kAllowed, 0, {"nfs"}, false},
    {"UnknownService", {0, kTcp, "22"}, kBlocked, 0, {"unknown"}, false},
    {"UnusableService", {0, kTcp, "22"}, kBlocked, 0, {"unusable"}, false},
    {"UnknownServiceBesideAKnownOne", {0, kTcp, "22"}, kBlocked, 0, {"unknown", "ssh"}, true},
    {"ServiceWithoutPorts", {0, kBoth, "0-65535"}, kBlocked, 0, {"nothing"}, false},
    {"NoServices", {0, kBoth, "0-65535"}, kBlocked, 0, {}, false},
};

class ServiceRuleTest : public BlockedTest,
                        public ::testing::WithParamInterface<ServiceRuleCase> {};

TEST_P(ServiceRuleTest, MatchesInBothPortGroups) {
    const ServiceRuleCase& c = GetParam();
    for (const int portGroup : {0, 2}) {
        SCOPED_TRACE(portGroup);
        const int defaultPolicy = c.policy == kBlocked ? kAllowed : kBlocked;
        store({{{"eth0", {servicesRule(c.policy, kAnybody, c.names, portGroup, c.direct)}}},
               {{"eth0", defaultPolicy}},
               kServices});
        EXPECT_EQ(asked(c.query, "eth0")["eth0"], c.matches ? c.policy : defaultPolicy);
    }
}

INSTANTIATE_TEST_SUITE_P(, ServiceRuleTest, ValuesIn(kServiceRules),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(BlockedTest, CatalogueIsAskedForOnceAndOnlyForRulesThatNameServices) {
    const FWRULE ssh = servicesRule(kAllowed, kSomebody, {"ssh"}, 2);
    store({{{"eth0", {allPorts(kAllowed, kSomebody), ports(kAllowed, kSomebody, {"1"})}}},
           {{"eth0", kAllowed}},
           kServices});
    (void)asked(kQuery, "");
    EXPECT_THAT(platform_.journalOf("services "), IsEmpty());
    store({{{"eth0", {ssh, ssh}}, {"eth1", {ssh}}}, {{"eth0", kAllowed}}, kServices});
    std::map<std::string, FW_POLICY> result;
    EXPECT_TRUE(FW::TARNFW().fwPortIsBlocked(kQuery, "", result));
    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
}

TEST_F(BlockedTest, RuleWhoseServicesCannotBeResolvedIsLoggedAndIgnored) {
    const FWRULE ssh = servicesRule(kBlocked, kAnybody, {"ssh"}, 2);
    const FWRULE ports100 = ports(kUndecided, kAnybody, {"100-200"});
    for (const int answer : {0, -1}) {
        SCOPED_TRACE(answer);
        store({{{"eth0", {ssh, inPortGroup(ssh, 0), ports100, ssh}}},
               {{"eth0", kAllowed}},
               kServices});
        platform_.servicesResult = answer;
        platform_.clearLog();
        std::map<std::string, FW_POLICY> result;
        EXPECT_TRUE(FW::TARNFW().fwPortIsBlocked(kQuery, "eth0", result));
        EXPECT_THAT(result, ElementsAre(Pair("eth0", kUndecided), Pair("global", kUndecided)));
        EXPECT_THAT(log(), ElementsAre("err fwIptables: Failed to enum services",
                                       "err tarnFW: Failed to servToPorts()",
                                       "err fwIptables: Failed to enum services",
                                       "err tarnFW: Failed to servToPorts()"));
    }
}

TEST_F(BlockedTest, DisabledRuleAsksForNoServices) {
    store({{{"eth0", {disabled(servicesRule(kBlocked, kAnybody, {"ssh"}, 2))}}},
           {{"eth0", kAllowed}},
           kServices});
    platform_.servicesResult = 0;
    EXPECT_EQ(asked(kQuery, "eth0")["eth0"], kAllowed);
}

// ---- Verdicts of several rules ----

struct VerdictCase {
    const char* name;
    int policy;  // of the adapter
    std::vector<FWRULE> rules;
    int verdict;
};

void PrintTo(const VerdictCase& c, std::ostream* out) {
    *out << c.name;
}

const FWRULE kAllowAnybody = allPorts(kAllowed, kAnybody);
const FWRULE kDenyAnybody = allPorts(kBlocked, kAnybody);
const FWRULE kAllowSomebody = allPorts(kAllowed, kSomebody);
const FWRULE kDenySomebody = allPorts(kBlocked, kSomebody);
const FWRULE kNoTargetSomebody = allPorts(kUndecided, kSomebody);

const VerdictCase kVerdicts[] = {
    {"NoRulesLeaveTheDefaultPolicy", kBlocked, {}, kBlocked},
    {"FirstRuleForAnybodyDecides", kUndecided, {kDenyAnybody, kAllowAnybody}, kBlocked},
    {"AllowThenDenyForSomebodyIsMixed", kBlocked, {kAllowSomebody, kDenySomebody}, kMixed},
    {"DenyThenAllowForSomebodyIsMixed", kAllowed, {kDenySomebody, kAllowSomebody}, kMixed},
    {"AllowForSomebodyUnderDenyIsMixed", kBlocked, {kAllowSomebody}, kMixed},
    {"DenyForSomebodyUnderAllowIsMixed", kAllowed, {kDenySomebody}, kMixed},
    {"AllowForSomebodyUnderAllowIsAllowed", kAllowed, {kAllowSomebody}, kAllowed},
    {"DenyForSomebodyUnderDenyIsAllowed", kBlocked, {kDenySomebody}, kAllowed},
    {"AllowForSomebodyThenForAnybodyIsAllowed",
     kBlocked,
     {kAllowSomebody, kAllowAnybody},
     kAllowed},
    {"AllowForSomebodyThenDenyForAnybodyIsMixed", kBlocked, {kAllowSomebody, kDenyAnybody}, kMixed},
    {"DenyForSomebodyThenForAnybodyIsBlocked", kAllowed, {kDenySomebody, kDenyAnybody}, kBlocked},
    {"DenyForSomebodyThenAllowForAnybodyIsMixed", kAllowed, {kDenySomebody, kAllowAnybody}, kMixed},
    {"SecondAllowForSomebodyIsAllowed", kBlocked, {kAllowSomebody, kAllowSomebody}, kAllowed},
    {"SecondDenyForSomebodyIsAllowed", kAllowed, {kDenySomebody, kDenySomebody}, kAllowed},
    {"NoTargetForSomebodyIsAllowedAndGoesOn", kBlocked, {kNoTargetSomebody, kDenySomebody}, kMixed},
    {"MixedStopsTheWalk", kBlocked, {kAllowSomebody, kDenySomebody, kDenyAnybody}, kMixed},
};

class VerdictTest : public BlockedTest, public ::testing::WithParamInterface<VerdictCase> {};

TEST_P(VerdictTest, ComesFromTheRulesInTheirOrder) {
    const VerdictCase& c = GetParam();
    store({{{"eth0", c.rules}}, {{"eth0", c.policy}}, {}});
    EXPECT_EQ(asked(kQuery, "eth0")["eth0"], c.verdict);
    EXPECT_EQ(asked(kQuery, "")["eth0"], c.verdict);
}

INSTANTIATE_TEST_SUITE_P(, VerdictTest, ValuesIn(kVerdicts),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- The whole space ----

// A profile file can hold any number as a policy, so every verdict can be one that a walk starts
// from. 6 is any value above 5; for rules, 7 and -1 are any value that is not a policy.
const int kCurrentVerdicts[] = {0, 1, 2, 3, 4, 5, 6};
const int kRulePolicies[] = {0, 1, 2, 3, 4, 5, 7, -1};

// Against a query for 100-200: a range that covers it, one that overlaps it, one that does neither.
const char* const kRanges[] = {"50-250", "150-250", "300-400"};

class WholeSpaceTest : public BlockedTest {
protected:
    // Each of `lists` under each current verdict, on an adapter of its own.
    static Model oneAdapterEach(const std::vector<std::vector<FWRULE>>& lists) {
        Model model;
        for (const auto& list : lists) {
            for (const int current : kCurrentVerdicts) {
                const std::string adapter = numbered("a", model.rules.size());
                model.rules[adapter] = list;
                model.policies[adapter] = current;
            }
        }
        return model;
    }

    static std::vector<FWRULE> rulesOf(const std::vector<int>& policies) {
        std::vector<FWRULE> made;
        for (const int policy : policies) {
            for (const int ipGroup : {kAnybody, kSomebody}) {
                for (const char* range : kRanges) {
                    made.push_back(ports(policy, ipGroup, {range}));
                }
            }
        }
        return made;
    }

    static std::vector<std::vector<FWRULE>> pairsOf(const std::vector<FWRULE>& rules) {
        std::vector<std::vector<FWRULE>> pairs;
        for (const FWRULE& first : rules) {
            for (const FWRULE& second : rules) {
                pairs.push_back({first, second});
            }
        }
        return pairs;
    }
};

TEST_F(WholeSpaceTest, OneRuleOfEveryKindUnderEveryVerdict) {
    std::vector<std::vector<FWRULE>> lists;
    for (const int policy : kRulePolicies) {
        for (const int ipGroup : {0, 1, 2, 3, 4, kAnybody, 6}) {
            lists.push_back({allPorts(policy, ipGroup)});
        }
        for (const int ipGroup : {kSomebody, kAnybody}) {
            for (const char* range : kRanges) {
                for (const int protocol : {kTcp, kUdp, kBoth}) {
                    for (const int direct : {kDestination, kSource}) {
                        lists.push_back({ports(policy, ipGroup, {range}, protocol, direct)});
                    }
                }
            }
        }
    }
    const Model model = oneAdapterEach(lists);
    store(model);
    for (const int protocol : {kTcp, kUdp, kBoth}) {
        for (const int direct : {kDestination, kSource}) {
            EXPECT_TRUE(agrees(model, {direct, protocol, "100-200"}, ""));
        }
    }
}

TEST_F(WholeSpaceTest, EveryPairOfRulesUnderEveryVerdict) {
    const Model model = oneAdapterEach(pairsOf(rulesOf({0, 1, 2, 7})));
    ASSERT_EQ(model.rules.size(), 24u * 24u * 7u);
    store(model);
    EXPECT_TRUE(agrees(model, kQuery, ""));
}

// Rules that do not match for another reason than their range, between rules that do.
TEST_F(WholeSpaceTest, EveryPairOfRulesOfAllProtocolsAndDirections) {
    std::vector<FWRULE> rules;
    for (const int policy : {0, 1}) {
        for (const int ipGroup : {kAnybody, kSomebody}) {
            for (const int protocol : {kTcp, kBoth}) {
                for (const int direct : {kDestination, kSource}) {
                    rules.push_back(ports(policy, ipGroup, {"100-200"}, protocol, direct));
                }
            }
        }
    }
    const Model model = oneAdapterEach(pairsOf(rules));
    store(model);
    for (const int protocol : {kTcp, kUdp, kBoth}) {
        EXPECT_TRUE(agrees(model, {kSource, protocol, "150"}, ""));
    }
}

TEST_F(WholeSpaceTest, EveryThreeMatchingRulesUnderEveryVerdict) {
    std::vector<std::vector<FWRULE>> lists;
    for (const auto& pair : pairsOf({kAllowAnybody, kDenyAnybody, allPorts(2, kAnybody),
                                     kAllowSomebody, kDenySomebody, kNoTargetSomebody})) {
        for (const int policy : {0, 1, 2}) {
            for (const int ipGroup : {kAnybody, kSomebody}) {
                lists.push_back({pair[0], pair[1], allPorts(policy, ipGroup)});
            }
        }
    }
    const Model model = oneAdapterEach(lists);
    store(model);
    EXPECT_TRUE(agrees(model, kQuery, ""));
}

TEST_F(WholeSpaceTest, EveryPairOfRulesOnAGivenAdapter) {
    const auto pairs =
        pairsOf({kAllowAnybody, kDenyAnybody, allPorts(2, kAnybody), allPorts(7, kAnybody),
                 kAllowSomebody, kDenySomebody, kNoTargetSomebody, allPorts(7, kSomebody)});
    for (const auto& pair : pairs) {
        const Model model = oneAdapterEach({pair});
        store(model);
        for (const auto& [adapter, rules] : model.rules) {
            ASSERT_TRUE(agrees(model, kQuery, adapter));
        }
    }
}

// The global list starts undecided, and the adapter after it from every verdict.
TEST_F(WholeSpaceTest, EveryPairOfGlobalRules) {
    Model model = oneAdapterEach({{kAllowSomebody}});
    std::vector<FWRULE> rules = rulesOf({0, 1, 2});
    rules.push_back(allPorts(7, kAnybody));
    rules.push_back(allPorts(7, kSomebody));
    for (const auto& pair : pairsOf(rules)) {
        model.rules["global"] = pair;
        store(model);
        for (const std::string adapter : {"", "a0"}) {
            ASSERT_TRUE(agrees(model, kQuery, adapter));
        }
    }
}

// Asked about all adapters, or about itself, it starts from the default policy of the profile.
TEST_F(WholeSpaceTest, EveryPairOfGlobalRulesUnderEveryVerdict) {
    Model model = oneAdapterEach({{kDenySomebody}});
    model.rules["unlisted"] = {kDenySomebody};  // no default policy
    const auto pairs =
        pairsOf({kAllowAnybody, kDenyAnybody, allPorts(2, kAnybody), allPorts(7, kAnybody),
                 kAllowSomebody, kDenySomebody, kNoTargetSomebody, allPorts(7, kSomebody), kIdle});
    for (const auto& pair : pairs) {
        model.rules["global"] = pair;
        for (const int current : kCurrentVerdicts) {
            model.policies["global"] = current;
            store(model);
            ASSERT_TRUE(agrees(model, kQuery, ""));
            ASSERT_TRUE(agrees(model, kQuery, "global"));
        }
        model.policies.erase("global");
        store(model);
        for (const std::string adapter : {"", "global", "unlisted", "unknown"}) {
            ASSERT_TRUE(agrees(model, kQuery, adapter, {{"before", kAllowedForSome}}));
        }
    }
}

TEST_F(WholeSpaceTest, EveryRangeAgainstEveryRange) {
    const Ports texts = {"9",     "10",    "15",    "20",    "21",    "5-9",     "5-10",
                         "5-15",  "5-20",  "5-25",  "10-15", "10-20", "10-25",   "12-18",
                         "15-20", "15-25", "20-25", "21-25", "20-10", "0-65535", "10-",
                         "-20",   "",      "x",     "15x",   "1-2-30"};
    Model model;
    for (const std::string& text : texts) {
        for (const std::string& second : {std::string(), std::string("19-21")}) {
            for (const int policy : {0, 1, 2}) {
                const std::string adapter = numbered("a", model.rules.size());
                model.rules[adapter] = {ports(policy, kAnybody, {text})};
                if (!second.empty()) {
                    model.rules[adapter][0].portList.push_back(second);
                }
                model.policies[adapter] = policy == kBlocked ? kAllowed : kBlocked;
            }
        }
    }
    store(model);
    for (const std::string& text : texts) {
        EXPECT_TRUE(agrees(model, {kDestination, kTcp, text}, ""));
    }
}

TEST_F(WholeSpaceTest, EveryProtocolAgainstEveryProtocol) {
    Model model;
    for (const int policy : {0, 1, 2}) {
        for (const int protocol : {0, 1, 2, 3, 4, 32}) {
            for (const int direct : {kDestination, kSource}) {
                const std::string adapter = numbered("a", model.rules.size());
                model.rules[adapter] = {ports(policy, kAnybody, {"15"}, protocol, direct)};
                model.policies[adapter] = policy == kBlocked ? kAllowed : kBlocked;
            }
        }
    }
    store(model);
    for (const int protocol : {1, 2, 3}) {
        for (const int direct : {kDestination, kSource}) {
            EXPECT_TRUE(agrees(model, {direct, protocol, "15"}, ""));
        }
    }
}

// Everything at once, drawn from a generator that gives the same numbers everywhere.
TEST_F(WholeSpaceTest, DrawnProfiles) {
    std::mt19937 generator(20);
    const auto draw = [&](std::size_t count) { return generator() % count; };
    const Ports texts = {"10", "20", "10-20", "15-30", "5-15", "0-100", "40", "x", "20-"};
    const std::vector<std::string> names = {"ssh", "dns", "ftp", "nfs", "nothing", "unusable", "?"};
    const Ports asked = {"22", "53", "20-25", "10-20", "15", "1500", "2049"};
    const auto drawnRule = [&] {
        FWRULE rule = allPorts(static_cast<int>(draw(3)), draw(2) == 0 ? kAnybody : kSomebody);
        rule.enable = draw(8) != 0;
        rule.portGroup = static_cast<int>(draw(5));
        rule.portDirect = draw(4) == 0 ? kSource : kDestination;
        rule.protocol = static_cast<int>(draw(4));
        for (std::size_t count = draw(4); count > 0; --count) {
            rule.portList.push_back(rule.portGroup == 1 ? texts[draw(texts.size())]
                                                        : names[draw(names.size())]);
        }
        return rule;
    };
    for (int round = 0; round < 150; ++round) {
        Model model;
        model.services = kServices;
        for (const std::string adapter : {"eth0", "eth1", "eth2", "global", "pppoe", "vpn"}) {
            if (draw(3) != 0) {
                model.policies[adapter] = static_cast<int>(draw(3));
            }
            if (draw(3) != 0) {
                auto& rules = model.rules[adapter];
                rules.resize(1 + draw(6));
                for (FWRULE& rule : rules) {
                    rule = drawnRule();
                }
            }
        }
        store(model);
        const PortCompareST query = {static_cast<int>(draw(2)), static_cast<int>(draw(3)) + 1,
                                     asked[draw(asked.size())]};
        for (const std::string adapter : {"", "eth0", "eth2", "vpn", "global", "unknown"}) {
            ASSERT_TRUE(agrees(model, query, adapter, {{"eth1", 4}, {"global", 1}})) << round;
        }
    }
}

// ---- fwPortExplain: the steps that are no rule's, and their order ----

// Kind, adapter, policy, before, after, in words that a difference can be read from.
Lines told(const std::vector<FW::FWVERDICTSTEP>& steps) {
    const char* const kinds[] = {"default", "no default", "global",    "rule",
                                 "decided", "left",       "at the end"};
    Lines lines;
    for (const FW::FWVERDICTSTEP& step : steps) {
        std::ostringstream out;
        out << step.adapter << ": " << kinds[step.kind];
        if (step.kind == FW::FW_VERDICT_STEP_RULE) {
            out << " " << step.list << "/" << step.position << (step.last ? " last" : "");
        }
        out << ", policy " << step.policy << ", " << step.before << " to " << step.after;
        lines.push_back(out.str());
    }
    return lines;
}

TEST_F(BlockedTest, StepsOfADisabledFirewallAreNone) {
    storeSettings(false, "home");
    store({{}, {{"eth0", kBlocked}}, {}});
    (void)asked(kQuery, "eth0");
    EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(BlockedTest, StepsAreAddedToThoseThatTheCallerHas) {
    store({{}, {{"eth0", kBlocked}}, {}});
    steps_.resize(1);
    std::map<std::string, FW_POLICY> result;
    EXPECT_TRUE(FW::TARNFW().fwPortExplain(kQuery, "eth0", result, steps_));
    EXPECT_EQ(steps_.size(), 3u);
}

TEST_F(BlockedTest, StepsBeginWithTheDefaultPolicyAndEndMixed) {
    store({{{"global", {kAllowSomebody}},
            {"eth0", {kIdle, ports(kAllowed, kSomebody, {"1-300"}), disabled(kDenyAnybody)}}},
           {{"eth0", kBlocked}, {"eth1", kAllowed}},
           {}});
    (void)asked(kQuery, "eth0");
    EXPECT_THAT(
        told(steps_),
        ElementsAre("global: global, policy 2, 0 to 2", "eth0: default, policy 1, 0 to 1",
                    "global: rule global/1, policy 0, 2 to 4", "global: left, policy 2, 4 to 2",
                    "eth0: rule eth0/2, policy 0, 1 to 4", "eth0: at the end, policy 2, 4 to 3"));
}

TEST_F(BlockedTest, StepsTellWhatTheGlobalRulesHaveDecided) {
    store({{{"global", {kDenyAnybody, kAllowAnybody}}, {"eth0", {kAllowAnybody}}},
           {{"eth0", kAllowed}, {"eth1", kAllowed}},
           {}});
    (void)asked(kQuery, "");
    EXPECT_THAT(told(steps_),
                ElementsAre("global: global, policy 2, 0 to 2", "eth0: default, policy 0, 0 to 0",
                            "eth1: default, policy 0, 0 to 0",
                            "global: rule global/1 last, policy 1, 2 to 1",
                            "eth0: decided, policy 2, 0 to 1", "eth1: decided, policy 2, 0 to 1"));
}

TEST_F(BlockedTest, StepsTellThatThereIsNoDefaultPolicy) {
    store({{{"eth0", {kDenySomebody}}}, {}, {}});
    for (const std::string adapter : {"eth0", ""}) {
        (void)asked(kQuery, adapter);
        EXPECT_THAT(told(steps_), ElementsAre("global: global, policy 2, 0 to 2",
                                              "eth0: no default, policy 2, 0 to 0",
                                              "eth0: rule eth0/1, policy 1, 0 to 5",
                                              "eth0: at the end, policy 2, 5 to 3"));
    }
}

// ---- fwServIsBlocked ----

class ServiceBlockedTest : public BlockedTest {
protected:
    Verdicts check(const std::string& service, const std::string& adapter,
                   const Verdicts& before = {}) {
        std::map<std::string, FW_POLICY> result;
        for (const auto& [name, verdict] : before) {
            result[name] = static_cast<FW_POLICY>(verdict);
        }
        EXPECT_TRUE(FW::TARNFW().fwServIsBlocked(service, adapter, result));
        EXPECT_THAT(platform_.log(), IsEmpty());
        return {result.begin(), result.end()};
    }
};

TEST_F(ServiceBlockedTest, EveryAdapterHasItsOwnVerdict) {
    store({{{"eth0", {ports(kBlocked, kAnybody, {"80"}, kUdp)}},
            {"eth1", {ports(kBlocked, kAnybody, {"80"}, kTcp)}}},
           {{"eth0", kAllowed}, {"eth1", kAllowed}, {"eth2", kAllowed}},
           {{"web", {"Web", kTcp, {"80"}, 0, {}}}}});
    EXPECT_THAT(check("web", ""), ElementsAre(Pair("eth0", kAllowed), Pair("eth1", kBlocked),
                                              Pair("eth2", kAllowed), Pair("global", kAllowed)));
}

TEST_F(ServiceBlockedTest, TcpAllowedAndUdpBlockedIsBlocked) {
    FWRULE source = ports(kBlocked, kAnybody, {"53"}, kUdp, kSource);
    store({{{"eth0", {source}}, {"eth1", {ports(kBlocked, kAnybody, {"80"}, kTcp)}}},
           {{"eth0", kAllowed}, {"eth1", kAllowed}, {"eth2", kAllowed}},
           {{"two", {"Two", kTcp, {"80"}, kUdp, {"53"}}}}});
    EXPECT_EQ(check("two", "eth0")["eth0"], kBlocked);
    EXPECT_EQ(check("two", "eth1")["eth1"], kBlocked);
    EXPECT_EQ(check("two", "eth2")["eth2"], kAllowed);
}

TEST_F(ServiceBlockedTest, SourcePortsAreAskedWithDirectionOneAndDestinationPortsWithZero) {
    const std::map<std::string, FakeService> services = {{"s", {"S", 0, {}, kTcp, {"1000"}}},
                                                         {"d", {"D", kTcp, {"1000"}, 0, {}}}};
    store({{{"source", {ports(kBlocked, kAnybody, {"1000"}, kTcp, kSource)}},
            {"destination", {ports(kBlocked, kAnybody, {"1000"}, kTcp, kDestination)}}},
           {{"source", kAllowed}, {"destination", kAllowed}},
           services});
    EXPECT_EQ(check("s", ""), (Verdicts{{"source", 1}, {"destination", 0}, {"global", 0}}));
    EXPECT_EQ(check("d", ""), (Verdicts{{"source", 0}, {"destination", 1}, {"global", 0}}));
}

TEST_F(ServiceBlockedTest, EveryPortIsAskedForWithTheServicesProtocol) {
    const std::map<std::string, FakeService> services = {
        {"tcp", {"T", kTcp, {"1", "2", "30-39"}, 0, {}}},
        {"both", {"B", kBoth, {"1", "2", "30-39"}, 0, {}}}};
    const FWRULE allowTcp = ports(kAllowed, kAnybody, {"1-2", "30-39"}, kTcp);
    store({{{"all", {allowTcp}},
            {"few", {ports(kAllowed, kAnybody, {"1-2"}, kTcp)}},
            {"last", {ports(kBlocked, kAnybody, {"39"}, kTcp), allowTcp}}},
           {{"all", kBlocked}, {"few", kBlocked}, {"last", kBlocked}},
           services});
    EXPECT_EQ(check("tcp", ""), (Verdicts{{"all", 0}, {"few", 1}, {"last", 1}, {"global", 0}}));
    EXPECT_EQ(check("both", ""), (Verdicts{{"all", 1}, {"few", 1}, {"last", 1}, {"global", 0}}));
}

// Each port is asked with verdicts of its own: those of the port before do not count as interim.
TEST_F(ServiceBlockedTest, PortsDoNotInfluenceEachOther) {
    store({{{"eth0", {ports(kAllowed, kSomebody, {"1"})}}},
           {{"eth0", kAllowed}},
           {{"two", {"Two", kTcp, {"1", "1"}, 0, {}}}, {"one", {"One", kTcp, {"1"}, 0, {}}}}});
    EXPECT_EQ(check("two", "eth0"), check("one", "eth0"));
    store({{{"eth0", {ports(kAllowed, kSomebody, {"1"})}}},
           {{"eth0", kBlocked}},
           {{"two", {"Two", kTcp, {"1", "1"}, 0, {}}}}});
    EXPECT_EQ(check("two", "eth0")["eth0"], kMixed);
}

// New verdict by row, verdict before by column; severity is 1, 3, 0, then all others.
TEST_F(ServiceBlockedTest, TheMoreSevereVerdictStays) {
    const int fresh[] = {0, 1, 2, 3, 7};
    const int before[] = {-1, 0, 1, 2, 3, 4, 5, 7};  // -1: no entry
    const int merged[5][8] = {
        {0, 0, 1, 0, 3, 0, 0, 0},  // 0
        {1, 1, 1, 1, 1, 1, 1, 1},  // 1
        {0, 0, 1, 2, 3, 4, 5, 7},  // 2
        {3, 3, 1, 3, 3, 3, 3, 3},  // 3
        {0, 0, 1, 2, 3, 4, 5, 7},  // 7
    };
    Model model;
    model.services = {{"one", {"One", kTcp, {"1"}, 0, {}}}};
    Verdicts held;
    Verdicts expected = {{"global", 0}};
    for (std::size_t row = 0; row < 5; ++row) {
        for (std::size_t column = 0; column < 8; ++column) {
            const std::string adapter =
                std::to_string(fresh[row]) + " on " + std::to_string(before[column]);
            model.policies[adapter] = fresh[row];
            if (before[column] >= 0) {
                held[adapter] = before[column];
            }
            expected[adapter] = merged[row][column];
        }
    }
    store(model);
    EXPECT_EQ(check("one", "", held), expected);
}

TEST_F(ServiceBlockedTest, MixedOnOnePortAndBlockedOnAnotherIsBlockedInAnyOrder) {
    const std::vector<FWRULE> rules = {ports(kAllowed, kSomebody, {"1"}),
                                       ports(kBlocked, kAnybody, {"2"})};
    store({{{"eth0", rules}, {"eth1", {rules[0]}}},
           {{"eth0", kBlocked}, {"eth1", kBlocked}},
           {{"up", {"Up", kTcp, {"1", "2"}, 0, {}}}, {"down", {"Down", kTcp, {"2", "1"}, 0, {}}}}});
    EXPECT_EQ(check("up", "eth0")["eth0"], kBlocked);
    EXPECT_EQ(check("down", "eth0")["eth0"], kBlocked);
}

TEST_F(ServiceBlockedTest, UndecidedGlobalIsReportedAsAllowed) {
    store({{}, {{"eth0", kAllowed}}, {{"one", {"One", kTcp, {"1"}, 0, {}}}}});
    EXPECT_EQ(check("one", "eth0"), (Verdicts{{"eth0", kAllowed}, {"global", kAllowed}}));
    EXPECT_EQ(check("one", "eth0", {{"global", kUndecided}})["global"], kUndecided);
}

TEST_F(ServiceBlockedTest, DisabledFirewallAllowsTheAdapterAndNothingElse) {
    storeSettings(false, "home");
    store({{}, {{"eth0", kBlocked}}, {{"one", {"One", kTcp, {"1"}, 0, {}}}}});
    EXPECT_THAT(check("one", "eth0"), ElementsAre(Pair("eth0", kAllowed)));
    EXPECT_THAT(check("one", ""), IsEmpty());
}

TEST_F(ServiceBlockedTest, ServiceWithoutPortsLeavesTheResultAlone) {
    store({{}, {{"eth0", kBlocked}}, kServices});
    writeFile(kSettingsFile, "{");  // not read: there is nothing to ask
    for (const std::string service : {"nothing", "unusable", "unknown", ""}) {
        SCOPED_TRACE(service);
        EXPECT_THAT(check(service, "eth0"), IsEmpty());
        EXPECT_THAT(check(service, "", {{"eth0", 4}}), ElementsAre(Pair("eth0", 4)));
    }
}

TEST_F(ServiceBlockedTest, UnreadableCatalogueIsAFailure) {
    store({{}, {{"eth0", kBlocked}}, kServices});
    for (const int answer : {0, -1}) {
        SCOPED_TRACE(answer);
        platform_.servicesResult = answer;
        platform_.clearLog();
        std::map<std::string, FW_POLICY> result = {{"eth1", FW::FW_POLICY_DENY}};
        EXPECT_FALSE(FW::TARNFW().fwServIsBlocked("ssh", "eth0", result));
        EXPECT_THAT(log(), ElementsAre("err fwIptables: Failed to enum services",
                                       "err tarnFW: Failed to servToPorts()"));
        EXPECT_THAT(result, ElementsAre(Pair("eth1", kBlocked)));
    }
}

}  // namespace
