#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

constexpr const char* TASK_STARTED = "process manager task START";

// Starts an unknown program; the alert about it.
Json::Value AlertOfUnknown(const Agent& agent, const std::string& name) {
    const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram(name), "60"});
    return agent.WaitForAlert(unknown.Pid());
}

bool WasBlocked(const Json::Value& alert) {
    return alert["process_info"]["block"].asInt() == 1;
}

Json::Value PolicyShown(Agent& agent) {
    const Result shown = agent.Ctl({"policy", "show"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    Json::Value policy;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(shown.out, policy), 0) << shown.out;
    return policy;
}

TEST(PolicyTest, ThereIsNoneAtFirst) {
    Agent agent;
    agent.Start();
    EXPECT_TRUE(agent.Status()["policy"].isNull());
    const Result shown = agent.Ctl({"policy", "show"});
    EXPECT_EQ(shown.status, 1);
    EXPECT_EQ(shown.err, "corvalentctl: no policy has been accepted yet\n");
}

TEST(PolicyTest, AnAcceptedPolicyIsShownKeptAndInForceAfterARestart) {
    Agent agent;
    agent.Start();
    const Json::Value policy = MakePolicy({.learningDays = 3});
    const Result applied = agent.Apply(policy);
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(applied.out, "policy accepted\n");
    EXPECT_EQ(PolicyShown(agent), policy);
    EXPECT_EQ(agent.Root().Read("conf/policy.json"), SDK::JsonUtils::JsonToString(policy));
    agent.Stop();
    agent.StartWatching();

    EXPECT_EQ(PolicyShown(agent), policy);
    EXPECT_EQ(agent.Status()["policy"]["hash"].asString(), "policy-1");
    EXPECT_EQ(agent.Status()["learn_period_minutes"].asInt(), 3 * 1440);
}

TEST(PolicyTest, ASecondPolicyBringsItsSettingsAndDetectionGoesOn) {
    Agent agent;
    agent.MakeDetecting({}, {.block = false});
    EXPECT_FALSE(WasBlocked(AlertOfUnknown(agent, "before")));

    agent.ApplyAndWatch({.hash = "policy-2", .learningDays = 20, .block = true});
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_EQ(agent.Status()["learn_period_minutes"].asInt(), 20 * 1440);
    EXPECT_TRUE(WasBlocked(AlertOfUnknown(agent, "after")));

    agent.ApplyAndWatch({.hash = "policy-3", .learningDays = 20, .block = false});
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_FALSE(WasBlocked(AlertOfUnknown(agent, "at last")));
}

// Between two sets of tasks nobody listens: what begins meanwhile is made good.
TEST(PolicyTest, AProgramThatStartsWhileThePolicyIsReplacedIsJudgedOnce) {
    Agent agent;
    agent.MakeDetecting();
    const std::string program = agent.MakeProgram("meanwhile");
    EXPECT_EQ(agent.Apply(MakePolicy({.hash = "policy-2"})).status, 0);
    // The new tasks have just been started and subscribe half a second later.
    const ScopedProcess unknown(agent.Scope().Path(), {program, "60"});

    agent.WaitForAlert(unknown.Pid());
    agent.DrainEvents();
    EXPECT_EQ(agent.AlertsOf(unknown.Pid()).size(), 1U);
}

TEST(PolicyTest, ADeliveryWithTheHashInForceChangesNothing) {
    Agent agent;
    agent.MakeDetecting({}, {.hash = "same", .block = false});
    const std::string kept = agent.Root().Read("conf/policy.json");
    const int tasksStarted = agent.CountInLog(TASK_STARTED);

    const Result applied = agent.Apply(MakePolicy({.hash = "same", .block = true}));
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(agent.Root().Read("conf/policy.json"), kept);
    EXPECT_FALSE(WasBlocked(AlertOfUnknown(agent, "unknown")));
    EXPECT_EQ(agent.CountInLog(TASK_STARTED), tasksStarted);
    EXPECT_EQ(agent.Status()["counters"]["events.subscribed"].asInt(), 3);
}

struct Refusal {
    const char* what;
    std::string document;
    const char* reason;
};

std::vector<Refusal> Refusals() {
    Json::Value otherModule = MakePolicy({.hash = "other module"});
    otherModule["module_name"] = "antivirus_module";
    Json::Value noContent = MakePolicy({.hash = "no content"});
    noContent.removeMember("content");
    Json::Value otherFeature = MakePolicy({.hash = "other feature"});
    otherFeature["feature_name"] = "antivirus_feature";
    const auto text = [](const Json::Value& document) { return SDK::JsonUtils::JsonToString(document); };
    return {
        {"not JSON", "{\"module_name\": ", "Parse Policy Failed"},
        {"empty", "\n", "Parse Policy Failed"},
        {"another module's", text(otherModule), "does not belong to module_whitelist"},
        {"without content", text(noContent), "no \"content\" object"},
        {"another feature's", text(otherFeature), "unknown feature name"},
    };
}

TEST(PolicyTest, ARefusedPolicyLeavesTheInstalledOneInForceAndDetectionGoesOn) {
    Agent agent;
    agent.MakeDetecting();
    const std::string kept = agent.Root().Read("conf/policy.json");
    for (const Refusal& refusal : Refusals()) {
        SCOPED_TRACE(refusal.what);
        const Result applied = agent.Ctl({"policy", "apply", "-"}, refusal.document);
        EXPECT_EQ(applied.status, 1);
        EXPECT_EQ(applied.out, "");
        EXPECT_THAT(applied.err, StartsWith("corvalentctl: "));
        EXPECT_THAT(applied.err, HasSubstr(refusal.reason));
        EXPECT_EQ(std::count(applied.err.begin(), applied.err.end(), '\n'), 1) << applied.err;

        EXPECT_EQ(agent.Root().Read("conf/policy.json"), kept);
        EXPECT_EQ(agent.Status()["policy"]["hash"].asString(), "policy-1");
        EXPECT_EQ(agent.GetMode(), DETECTING);
        EXPECT_FALSE(WasBlocked(AlertOfUnknown(agent, refusal.what)));
    }
}

TEST(PolicyTest, ADisabledPolicyEndsDetectionUntilAnEnabledOneComes) {
    Agent agent;
    agent.MakeDetecting();
    const Result applied = agent.Apply(MakePolicy({.hash = "off", .enabled = "disabled"}));
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_FALSE(agent.Status()["policy"]["enabled"].asBool());
    EXPECT_NE(agent.GetMode(), DETECTING);
    for (const Json::Value& task : agent.Status()["tasks"]) {
        EXPECT_NE(task["name"].asString(), "process_manager_task");
    }
    const std::size_t alerts = agent.Alerts().size();
    {
        const ScopedProcess unseen(agent.Scope().Path(), {agent.MakeProgram("unseen"), "60"});
        const auto execs = [&] { return agent.Status()["events"]["exec"].asInt(); };
        EXPECT_TRUE(WaitFor([&] { return execs() >= 2; })); // this one's, behind that of the set-up
        EXPECT_EQ(agent.Alerts().size(), alerts);
    }
    agent.Stop();
    agent.Start();
    EXPECT_FALSE(agent.Status()["policy"]["enabled"].asBool());
    EXPECT_NE(agent.GetMode(), DETECTING);

    agent.ApplyAndWatch({.hash = "on"});
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_FALSE(WasBlocked(AlertOfUnknown(agent, "seen")));
}

} // namespace
} // namespace SystemTest
