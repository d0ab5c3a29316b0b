#include <algorithm>
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

TEST(OperatorTest, StatusTellsTheSameToPeopleAndToPrograms) {
    Agent agent;
    agent.MakeDetecting();
    const std::vector<Json::Value> values = ParseLines(agent.Ctl({"status", "--json"}).out);
    ASSERT_EQ(values.size(), 1U);
    const Json::Value& status = values.front();
    EXPECT_EQ(status["mode"].asInt(), DETECTING);
    EXPECT_EQ(status["learned_minutes"].asInt(), 43200);
    EXPECT_EQ(status["lists"]["local"].asInt(), 60);
    EXPECT_EQ(status["lists"]["server"].asInt(), 0);
    EXPECT_EQ(status["lists"]["os_preset"].asInt(), 0);
    EXPECT_EQ(status["lists"]["service_preset"].asInt(), 0);
    EXPECT_EQ(status["alerts"].asInt(), 1);
    EXPECT_GE(status["events"]["exec"].asInt(), 1);
    EXPECT_GE(status["events"]["judged"].asInt(), 1);
    EXPECT_EQ(status["events"]["lost"].asInt(), 0);
    EXPECT_TRUE(status["events"]["fork"].isIntegral());
    EXPECT_TRUE(status["events"]["exit"].isIntegral());
    EXPECT_EQ(status["policy"]["hash"].asString(), "policy-1");
    EXPECT_EQ(status["scope"].asString(), agent.Scope().Name());
    EXPECT_EQ(status["pid"].asInt(), agent.GetPid());
    for (const char* name : {"procs_real_task", "procs_full_task", "isolate_task", "data_comm_report_task",
                             "full_proc_task", "process_manager_task", "learn_status_check_task"}) {
        EXPECT_TRUE(std::any_of(status["tasks"].begin(), status["tasks"].end(), [&](const Json::Value& task) {
            return task["name"].asString() == name && task["depth"].isIntegral() && task["capacity"].asInt() > 0;
        })) << name;
    }

    const Result text = agent.Ctl({"status"});
    EXPECT_EQ(text.status, 0);
    EXPECT_THAT(text.out, ContainsRegex("mode +3 \\(detecting\\)\n"));
    EXPECT_THAT(text.out, HasSubstr("43200 of 10080 minutes"));
    EXPECT_THAT(text.out, HasSubstr("60 local, 0 server, 0 OS preset, 0 service preset"));
    EXPECT_THAT(text.out, HasSubstr(agent.Scope().Name()));
    EXPECT_THAT(text.out, ContainsRegex("process_manager_task +[a-z]+ +[0-9]+ +10240"));
    EXPECT_THAT(text.out, Not(HasSubstr("\033")));
}

TEST(OperatorTest, EachTrustListIsPrintedForPeopleAndForPrograms) {
    Agent agent;
    WebServer server;
    const std::string tool = agent.MakeProgram("tool");
    agent.MakeDetecting({.programs = {tool}}, {});
    Json::Value preset;
    preset["filename"] = "preset-file";
    preset["sha256"] = Sha256Of(tool);
    preset["os"] = "debian";
    preset["version"] = "12";
    const std::string document = MakeListDocument({preset});
    Json::Value command;
    command["url"] = server.Put("list", document);
    command["hash"] = Sha256Of(agent.Work().Write("document", document));
    for (const char* key : {"whitelist_10002", "whitelist_10003"}) {
        EXPECT_EQ(agent.Command(key, SDK::JsonUtils::JsonToString(command)).status, 0);
    }
    EXPECT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(tool)})).status, 0);

    const std::vector<Json::Value> local = ParseLines(agent.Ctl({"trust", "list", "--json"}).out);
    EXPECT_EQ(local.size(), 60U);
    EXPECT_THAT(local, testing::Contains(MakeEntry(tool)));
    EXPECT_EQ(agent.Ctl({"trust", "list", "--list", "local", "--json"}).out,
              agent.Ctl({"trust", "list", "--json"}).out);
    EXPECT_THAT(ParseLines(agent.Ctl({"trust", "list", "--list", "server", "--json"}).out),
                testing::ElementsAre(MakeEntry(tool)));
    EXPECT_THAT(ParseLines(agent.Ctl({"trust", "list", "--list", "os", "--json"}).out), testing::ElementsAre(preset));
    EXPECT_THAT(ParseLines(agent.Ctl({"trust", "list", "--list", "service", "--json"}).out),
                testing::ElementsAre(preset));

    for (const char* list : {"local", "server"}) {
        const Result text = agent.Ctl({"trust", "list", "--list", list});
        EXPECT_EQ(text.status, 0);
        EXPECT_THAT(text.out, testing::StartsWith("SHA-256"));
        EXPECT_THAT(text.out, ContainsRegex(Sha256Of(tool) + " +[0-9]+ +1 +tool +" + tool + "\n"));
    }
    for (const char* list : {"os", "service"}) {
        const Result text = agent.Ctl({"trust", "list", "--list", list});
        EXPECT_EQ(text.status, 0);
        EXPECT_THAT(text.out, ContainsRegex(Sha256Of(tool) + " +debian +12 +preset-file\n"));
    }
    EXPECT_EQ(agent.Ctl({"trust", "list", "--list", "other"}).status, 2);
}

TEST(OperatorTest, AlertsArePrintedOldestFirstAndSinceATime) {
    Agent agent;
    agent.MakeDetecting();
    const ScopedProcess one(agent.Scope().Path(), {agent.MakeProgram("one"), "60"});
    agent.WaitForAlert(one.Pid());
    const ScopedProcess two(agent.Scope().Path(), {agent.MakeProgram("two"), "60"});
    agent.WaitForAlert(two.Pid());

    const std::vector<Json::Value> alerts = ParseLines(agent.Ctl({"alerts", "--json"}).out);
    ASSERT_EQ(alerts.size(), 3U);
    EXPECT_EQ(alerts[1]["data"]["process_info"]["process_pid"].asInt(), one.Pid());
    EXPECT_EQ(alerts[2]["data"]["process_info"]["process_pid"].asInt(), two.Pid());
    EXPECT_LT(alerts[1]["id"].asInt64(), alerts[2]["id"].asInt64());
    EXPECT_EQ(alerts[2]["type"].asString(), "whitelist_4");
    EXPECT_TRUE(alerts[2]["time"].isIntegral());

    const Result text = agent.Ctl({"alerts"});
    EXPECT_THAT(text.out,
                ContainsRegex(std::to_string(two.Pid()) + " +seen .*" + alerts[2]["data"]["event_id"].asString() +
                              " +" + agent.Work().Path() + "/programs/two\n"));
    EXPECT_EQ(ParseLines(agent.Ctl({"alerts", "--json", "--since", "1h"}).out).size(), 3U);
    EXPECT_EQ(agent.Ctl({"alerts", "--json", "--since", "4102444800"}).out, "");
    const std::vector<Json::Value> reports = ParseLines(agent.Ctl({"reports", "--json"}).out);
    EXPECT_GT(reports.size(), alerts.size());
    EXPECT_THAT(ParseLines(agent.Ctl({"reports", "--json", "--type", "whitelist_4"}).out),
                testing::ElementsAreArray(alerts));
}

TEST(OperatorTest, FollowedAlertsArePrintedAsTheyComeUntilInterrupted) {
    Agent agent;
    agent.MakeDetecting();
    Program follow({agent.Root() / "bin/corvalentctl", "--root", agent.Root().Path(), "alerts", "--follow", "--json"},
                   agent.Work() / "follow");
    const auto printed = [&] {
        const std::string text = follow.GetOutput();
        return ParseLines(text.substr(0, text.rfind('\n') + 1));
    };
    ASSERT_TRUE(WaitFor([&] { return printed().size() == 1; }));
    const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    ASSERT_TRUE(WaitFor([&] { return printed().size() == 2; }));
    EXPECT_EQ(printed()[1]["data"]["process_info"]["process_pid"].asInt(), unknown.Pid());
    EXPECT_FALSE(follow.HasEnded());

    follow.Signal(SIGINT);
    EXPECT_TRUE(follow.WaitForEnd(DEADLINE));
    EXPECT_EQ(follow.GetStatus(), 0);
    EXPECT_EQ(follow.GetErrors(), "");
    EXPECT_EQ(printed().size(), 2U);
}

TEST(OperatorTest, WithoutADaemonEveryVerbEndsWith69) {
    Agent agent;
    const std::vector<std::vector<std::string>> verbs = {
        {"status"},        {"policy", "show"}, {"policy", "apply", "-"},      {"learn", "reset"}, {"detect", "start"},
        {"trust", "list"}, {"alerts"},         {"command", "whitelist_10005"}};
    for (const auto& verb : verbs) {
        const Result result = agent.Ctl(verb);
        EXPECT_EQ(result.status, 69) << verb.front();
        EXPECT_THAT(result.err, testing::StartsWith("corvalentctl: no daemon listens on ["));
    }
}

TEST(OperatorTest, NobodyElseMayTalkToTheDaemonOrReadItsState) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_TRUE(WaitFor([&] { return !agent.Reports("whitelist_6").empty(); }));
    for (const char* name : {"run/agent.sock", "conf/modwhitelist.ini", "conf/policy.json", "conf/whitelist.data",
                             "conf/arsserverproc.data", "data/reports.db", "log/corvalent.log"}) {
        struct stat file {};
        ASSERT_EQ(stat((agent.Root() / name).c_str(), &file), 0) << name;
        EXPECT_EQ(file.st_mode & 077U, 0U) << name;
    }
}

} // namespace
} // namespace SystemTest
