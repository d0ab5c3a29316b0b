#include <algorithm>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "support/PolicyCases.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

bool HasRefusal(const std::string& jsonLines) {
    const std::vector<Json::Value> problems = ParseLines(jsonLines);
    return std::any_of(problems.begin(), problems.end(),
                       [](const Json::Value& problem) { return problem["refused"].asBool(); });
}

long CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

std::string Changed(const std::string& setting, const Json::Value& value) {
    Json::Value policy = TestSupport::GoodPolicy();
    policy["content"][setting] = value;
    return SDK::JsonUtils::JsonToString(policy);
}

const std::string GOOD = SDK::JsonUtils::JsonToString(TestSupport::GoodPolicy());

// ---- without a daemon

TEST(PolicyCheckTest, AGoodPolicyHasNoProblems) {
    Agent agent;
    for (const Result& checked :
         {agent.Ctl({"policy", "check", "-"}, GOOD),
          agent.Ctl({"policy", "check", "--strict", agent.Work().Write("policy.json", GOOD)})}) {
        EXPECT_EQ(checked.status, 0);
        EXPECT_EQ(checked.out, "no problems\n");
        EXPECT_EQ(checked.err, "");
    }
    const Result json = agent.Ctl({"policy", "check", "-", "--json"}, GOOD);
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out, "");
}

TEST(PolicyCheckTest, ErrorsArePrintedWithTheirPlacesAndAreStatusOne) {
    Agent agent;
    const std::string policy = Changed("full_proc_task", TestSupport::TaskWith(R"({"period": 0})"));
    const Result checked = agent.Ctl({"policy", "check", "-"}, policy);
    EXPECT_EQ(checked.status, 1);
    EXPECT_THAT(checked.out, StartsWith("error   /content/full_proc_task/task_condition/period: 0 is no integer"));
    EXPECT_EQ(checked.err, "corvalentctl: the policy [-] has 1 error, 1 danger, 0 warnings\n");

    const Result json = agent.Ctl({"policy", "check", "-", "--json"}, policy);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.err, checked.err);
    const std::vector<Json::Value> problems = ParseLines(json.out);
    ASSERT_EQ(problems.size(), 2U);
    EXPECT_EQ(problems[0]["severity"].asString(), "error");
    EXPECT_EQ(problems[0]["pointer"].asString(), "/content/full_proc_task/task_condition/period");
    EXPECT_THAT(problems[0]["reason"].asString(), HasSubstr("no integer of 1 or more"));
    EXPECT_FALSE(problems[0]["refused"].asBool());
    EXPECT_FALSE(problems[0].isMember("line"));
}

TEST(PolicyCheckTest, DangersAndWarningsFailOnlyWhenAskedTo) {
    Agent agent;
    const std::string policy = Changed("learning_days", 45);
    const Result checked = agent.Ctl({"policy", "check", "-"}, policy);
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out, "danger  /content/learning_days: 45 is out of range (1 to 30): it counts as 7\n"
                           "0 errors, 1 danger, 0 warnings\n");
    EXPECT_EQ(checked.err, "");

    const Result strict = agent.Ctl({"policy", "check", "-", "--strict"}, policy);
    EXPECT_EQ(strict.status, 1);
    EXPECT_EQ(strict.err, "corvalentctl: the policy [-] has 0 errors, 1 danger, 0 warnings\n");
    EXPECT_EQ(agent.Ctl({"policy", "check", "-", "--strict"}, Changed("dirs", 5)).status, 1);
    EXPECT_EQ(agent.Ctl({"policy", "check", "-"}, Changed("dirs", 5)).status, 0);
}

TEST(PolicyCheckTest, WhatIsNoJsonIsShownByLineAndColumnAlsoBehindComments) {
    Agent agent;
    const std::string policy = "{ // comment\n  // another\n  \"enabled\": \"enabled\" \"content\": {}\n}";
    const Result checked = agent.Ctl({"policy", "check", "-"}, policy);
    EXPECT_EQ(checked.status, 1);
    EXPECT_THAT(checked.out, StartsWith("error   the document, line 3, column 24: no JSON: Missing ','"));

    const std::vector<Json::Value> problems = ParseLines(agent.Ctl({"policy", "check", "-", "--json"}, policy).out);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0]["pointer"].asString(), "");
    EXPECT_EQ(problems[0]["line"].asInt(), 3);
    EXPECT_EQ(problems[0]["column"].asInt(), 24);
    EXPECT_TRUE(problems[0]["refused"].asBool());
}

TEST(PolicyCheckTest, WhatThePolicySaysCannotSteerTheTerminal) {
    Agent agent;
    const Result checked = agent.Ctl({"policy", "check", "-"}, R"({"\u001b[2J": 1, "module_name": "\u001b[2J"})");
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.out.find('\033'), std::string::npos);
    EXPECT_THAT(checked.out, HasSubstr("/\\x1b[2J: is no key of a policy"));
}

TEST(PolicyCheckTest, AFileThatCannotBeReadIsStatusOneAndNoneIsBadUsage) {
    Agent agent;
    const Result missing = agent.Ctl({"policy", "check", agent.Work() / "none.json"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_THAT(missing.err, HasSubstr("No such file"));
    EXPECT_EQ(CountLines(missing.err), 1);
    EXPECT_EQ(agent.Ctl({"policy", "check"}).status, 2);
}

TEST(PolicyCheckTest, AStartingPointIsPrintedOrWrittenToANewFile) {
    Agent agent;
    const Result printed = agent.Ctl({"policy", "init"});
    EXPECT_EQ(printed.status, 0);
    EXPECT_EQ(printed.err, "");
    EXPECT_THAT(printed.out, HasSubstr("\"full_proc_task\""));

    const std::string file = agent.Work() / "policy.json";
    const Result written = agent.Ctl({"policy", "init", "-o", file});
    EXPECT_EQ(written.status, 0);
    EXPECT_EQ(written.out, "");
    EXPECT_EQ(agent.Work().Read("policy.json"), printed.out);
    EXPECT_EQ(agent.Ctl({"policy", "check", "--strict", file}).status, 0);

    const Result directoryMode = agent.Ctl({"policy", "init", "--dir-mode"});
    EXPECT_EQ(directoryMode.status, 0);
    EXPECT_THAT(directoryMode.out, HasSubstr("\"specified_file_audit_task\""));
}

TEST(PolicyCheckTest, AStartingPointOverwritesNothing) {
    Agent agent;
    const std::string file = agent.Work().Write("policy.json", "mine");
    std::filesystem::create_symlink(agent.Work() / "nowhere", agent.Work() / "link");
    for (const std::string& taken : {file, agent.Work() / "link", agent.Work() / "no/folder", agent.Work().Path()}) {
        const Result refused = agent.Ctl({"policy", "init", "-o", taken});
        EXPECT_EQ(refused.status, 1) << taken;
        EXPECT_EQ(refused.out, "");
        EXPECT_THAT(refused.err, StartsWith("corvalentctl: cannot make [" + taken + "]: "));
        EXPECT_EQ(CountLines(refused.err), 1);
    }
    EXPECT_EQ(agent.Work().Read("policy.json"), "mine");
    EXPECT_FALSE(std::filesystem::exists(agent.Work() / "nowhere"));
}

// ---- with one

TEST(PolicyCheckTest, TheDaemonRefusesExactlyWhatTheCheckSaysItRefuses) {
    Agent agent;
    agent.Start();
    const std::string watched = agent.Work() / "watched";
    std::filesystem::create_directory(watched);
    // Switched off, so that no tasks have to be stopped from one to the next.
    for (const TestSupport::PolicyCase& policy : TestSupport::MakePolicyCases(watched, "disabled")) {
        SCOPED_TRACE(policy.what);
        const std::string file = agent.Work().Write("policy.json", policy.text);
        const Result checked = agent.Ctl({"policy", "check", file, "--json"});
        const Result applied = agent.Ctl({"policy", "apply", file});
        EXPECT_EQ(applied.status == 1, HasRefusal(checked.out)) << applied.err;
    }
}

TEST(PolicyCheckTest, TheDaemonAcceptsTheStartingPointsWithoutANote) {
    Agent agent;
    agent.Start();
    const std::string global = agent.Ctl({"policy", "init"}).out;
    std::string directories = agent.Ctl({"policy", "init", "--dir-mode"}).out;
    const std::string hash = "policy-1";
    directories.replace(directories.find(hash), hash.size(), "policy-2");
    // A host may have no such directory.
    const std::string directory = "/etc/ssl/private/";
    directories.replace(directories.find(directory), directory.size(), agent.Work().Path());
    for (const std::string& policy : {global, directories}) {
        const Result applied = agent.Ctl({"policy", "apply", "-"}, policy);
        EXPECT_EQ(applied.status, 0);
        EXPECT_EQ(applied.out, "policy accepted\n");
        EXPECT_EQ(applied.err, "");
    }
    EXPECT_EQ(agent.Status()["policy"]["hash"].asString(), "policy-2");
}

TEST(PolicyCheckTest, WithoutCommentsAPolicyIsDeliveredAsItIs) {
    Agent agent;
    agent.Start();
    const std::string spaced = "\n  " + GOOD + "\t\r\n\n";
    EXPECT_EQ(agent.Ctl({"policy", "apply", "-"}, spaced).status, 0);
    EXPECT_EQ(agent.Root().Read("conf/policy.json"), spaced);
}

} // namespace
} // namespace SystemTest
