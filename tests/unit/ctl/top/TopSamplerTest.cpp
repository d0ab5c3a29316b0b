#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/Failure.h"
#include "ctl/top/TopSampler.h"
#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"

namespace {

using namespace Ctl::Top;
using testing::ElementsAre;
using testing::HasSubstr;

class TopSamplerTest : public testing::Test {
protected:
    TopSamplerTest() {
        SDK::JsonUtils::ParseJsonStr(R"({
            "mode": 3, "mode_name": "detecting", "desired_detect": true, "scope": "/can\nary", "version": "1.2",
            "pid": 4711, "uptime_seconds": 61, "learned_minutes": 17, "learn_period_minutes": 10080, "alerts": 5,
            "lists": {"local": 1, "server": 2, "os_preset": 3, "service_preset": 4},
            "events": {"exec": 10, "fork": 20, "exit": 30, "judged": 40, "lost": 0},
            "tasks": [{"name": "a_task", "depth": 1, "capacity": 16, "lost": 2}]})",
                                     status);
    }

    Json::Value Answer(const std::string& path) {
        if (away || (historyAway && path != "/status")) {
            throw Ctl::Failure("no daemon listens", Ctl::EXIT_NO_DAEMON);
        }
        if (path == "/status") {
            return status;
        }
        if (historyBroken) {
            throw Ctl::Failure("the history\ncannot be read");
        }
        questions.push_back(path);
        Json::Value answer;
        answer["reports"] = path.find("whitelist_4") != std::string::npos ? alerts : learned;
        return answer;
    }

    void Report(Json::Value& reports, const std::string& text) {
        Json::Value report;
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text, report), 0);
        reports.append(report);
    }

    void WriteStat(int ticks) const {
        // A name may hold blanks and brackets; utime and stime are the 14th and 15th field, rss the 24th.
        proc.Write("4711/stat", "4711 (a ) b) S 1 1 1 0 -1 4194560 0 0 0 0 " + std::to_string(ticks) +
                                    " 5 0 0 20 0 9 0 100 1000000 256 18446744073709551615 1 1 0\n");
    }

    TestSupport::TempDir proc;
    Json::Value status;
    Json::Value alerts{Json::arrayValue};
    Json::Value learned{Json::arrayValue};
    std::vector<std::string> questions; // about the history
    bool away = false;
    bool historyAway = false;
    bool historyBroken = false;
    TopSampler sampler{[this](const std::string& path) { return Answer(path); }, proc.Path() + "/"};
};

TEST_F(TopSamplerTest, TheViewHoldsWhatTheStatusSays) {
    const View view = sampler.Take(1);
    EXPECT_EQ(view.noAnswer, "");
    EXPECT_EQ(view.mode, 3);
    EXPECT_EQ(view.modeName, "detecting");
    EXPECT_TRUE(view.detectionWished);
    EXPECT_EQ(view.scope, "/can\\nary");
    EXPECT_EQ(view.agent, "1.2, pid 4711, up 1 min 1 s");
    EXPECT_EQ(view.learnedMinutes, 17);
    EXPECT_EQ(view.learnPeriodMinutes, 10080);
    EXPECT_EQ(view.alertCount, 5);
    EXPECT_EQ(view.local + view.server * 10 + view.osPreset * 100 + view.servicePreset * 1000, 4321);
    ASSERT_EQ(view.queues.size(), 1U);
    EXPECT_EQ(view.queues[0].task, "a_task");
    EXPECT_EQ(view.queues[0].depth, 1);
    EXPECT_EQ(view.queues[0].capacity, 16);
    EXPECT_EQ(view.queues[0].lost, 2);
    EXPECT_GT(view.time, 0);
}

TEST_F(TopSamplerTest, RatesAreWhatWasCountedBetweenTwoSamplesASecond) {
    EXPECT_FALSE(sampler.Take(10).rates.has_value());
    status["events"]["exec"] = 30;
    status["events"]["lost"] = 5;

    const View view = sampler.Take(12.5);

    ASSERT_TRUE(view.rates.has_value());
    EXPECT_DOUBLE_EQ(view.rates->exec, 8);
    EXPECT_DOUBLE_EQ(view.rates->fork, 0);
    EXPECT_DOUBLE_EQ(view.rates->lost, 2);
    EXPECT_EQ(view.lost, 5);
}

TEST_F(TopSamplerTest, AnotherDaemonBeginsWithoutRates) {
    sampler.Take(1);
    status["pid"] = 4712;
    EXPECT_FALSE(sampler.Take(2).rates.has_value());
    EXPECT_TRUE(sampler.Take(3).rates.has_value());
    EXPECT_FALSE(sampler.Take(3).rates.has_value()); // no time has passed
}

TEST_F(TopSamplerTest, UsageIsReadFromTheDaemonsProcess) {
    EXPECT_FALSE(sampler.Take(1).usage.has_value());
    WriteStat(100);
    View view = sampler.Take(2);
    ASSERT_TRUE(view.usage.has_value());
    EXPECT_EQ(view.usage->residentKib, 256 * (sysconf(_SC_PAGESIZE) / 1024));
    EXPECT_FALSE(view.usage->cpuPercent.has_value());

    WriteStat(static_cast<int>(100 + sysconf(_SC_CLK_TCK)));
    view = sampler.Take(4);
    ASSERT_TRUE(view.usage && view.usage->cpuPercent);
    EXPECT_DOUBLE_EQ(*view.usage->cpuPercent, 50);

    proc.Write("4711/stat", "4711 (short) S 1\n");
    EXPECT_FALSE(sampler.Take(5).usage.has_value());
}

TEST_F(TopSamplerTest, TheLatestAlertsAndLearnedProgramsComeNewestFirstAndEscaped) {
    Report(alerts, R"({"time": 100, "data": {"occur_time": 99, "process_info": {"block": 1, "process_pid": 7,
                       "process_username": "joe", "process_path": "/tmp/\u001b[31mevil"}}})");
    Report(alerts, R"({"time": 90, "data": {"process_info": {"process_username": ""}}})");
    Report(learned, R"({"time": 80, "data": {"process_info": [{"path": "/bin/a"}, {"path": "/bin/\nb"}]}})");
    Report(learned, R"({"time": 70, "data": {"process_info": "none"}})");

    const View view = sampler.Take(1);

    ASSERT_EQ(view.alerts.size(), 2U);
    EXPECT_EQ(view.alerts[0].time, 99);
    EXPECT_TRUE(view.alerts[0].blocked);
    EXPECT_EQ(view.alerts[0].pid, "7");
    EXPECT_EQ(view.alerts[0].user, "joe");
    EXPECT_EQ(view.alerts[0].path, "/tmp/\\x1b[31mevil");
    EXPECT_EQ(view.alerts[1].time, 90);
    EXPECT_FALSE(view.alerts[1].blocked);
    EXPECT_EQ(view.alerts[1].user, "-");
    ASSERT_EQ(view.learned.size(), 2U);
    EXPECT_EQ(view.learned[0].path, "/bin/\\nb");
    EXPECT_EQ(view.learned[1].path, "/bin/a");
    EXPECT_EQ(view.learned[1].time, 80);
}

TEST_F(TopSamplerTest, OnlyWhatIsNewIsAskedForAndStandsBeforeWhatIsKnown) {
    Report(alerts, R"({"id": 7, "data": {"process_info": {"process_path": "/old"}}})");
    Report(learned, R"({"id": 8, "data": {"process_info": [{"path": "/bin/old"}]}})");
    sampler.Take(1);
    EXPECT_THAT(questions, ElementsAre("/reports?newest_first&after=0&limit=50&type=whitelist_4",
                                       "/reports?newest_first&after=0&limit=10&type=whitelist_3"));
    questions.clear();
    alerts.clear();
    learned.clear();
    Report(alerts, R"({"id": 9, "data": {"process_info": {"process_path": "/new"}}})");

    const View view = sampler.Take(2);

    EXPECT_THAT(questions, ElementsAre("/reports?newest_first&after=7&limit=50&type=whitelist_4",
                                       "/reports?newest_first&after=8&limit=10&type=whitelist_3"));
    ASSERT_EQ(view.alerts.size(), 2U);
    EXPECT_EQ(view.alerts[0].path, "/new");
    EXPECT_EQ(view.alerts[1].path, "/old");
    ASSERT_EQ(view.learned.size(), 1U);

    status["pid"] = 4712;
    alerts.clear();
    questions.clear();
    EXPECT_TRUE(sampler.Take(3).alerts.empty()); // another daemon, and maybe another history
    EXPECT_THAT(questions.front(), HasSubstr("after=0&"));
}

TEST_F(TopSamplerTest, NoMoreIsKeptThanAnyScreenShows) {
    std::string processes;
    for (int i = 0; i < 200; ++i) {
        processes += std::string(i == 0 ? "" : ",") + R"({"path": "/bin/)" + std::to_string(i) + R"("})";
    }
    Report(learned, R"({"id": 1, "data": {"process_info": [)" + processes + "]}}");
    sampler.Take(1);
    const View view = sampler.Take(2);
    ASSERT_EQ(view.learned.size(), 50U);
    EXPECT_EQ(view.learned[0].path, "/bin/199");
}

TEST_F(TopSamplerTest, ADaemonThatWasNeverThereIsAFailure) {
    away = true;
    EXPECT_THROW(sampler.Take(1), Ctl::Failure);
}

TEST_F(TopSamplerTest, ADaemonThatGoesAwayLeavesTheLastViewAndComesBackWithoutRates) {
    sampler.Take(1);
    away = true;
    const View gone = sampler.Take(2);
    EXPECT_EQ(gone.noAnswer, "no daemon listens");
    EXPECT_EQ(gone.modeName, "detecting");

    away = false;
    const View back = sampler.Take(3);
    EXPECT_EQ(back.noAnswer, "");
    EXPECT_FALSE(back.rates.has_value());
}

TEST_F(TopSamplerTest, ADaemonThatGoesAwayBetweenTwoQuestionsIsAway) {
    sampler.Take(1);
    historyAway = true;
    EXPECT_EQ(sampler.Take(2).noAnswer, "no daemon listens");
}

TEST_F(TopSamplerTest, AHistoryThatCannotBeReadIsSaidAndTheRestIsShown) {
    historyBroken = true;
    const View view = sampler.Take(1);
    EXPECT_EQ(view.noAnswer, "");
    EXPECT_EQ(view.historyProblem, "the history\\ncannot be read");
    EXPECT_EQ(view.local, 1);
}

TEST_F(TopSamplerTest, AnAnswerOfAnotherFormIsShownAsFarAsItGoes) {
    status = Json::Value(Json::arrayValue);
    alerts = Json::Value("none");
    const View view = sampler.Take(1);
    EXPECT_EQ(view.mode, -1);
    EXPECT_EQ(view.modeName, "not known");
    EXPECT_TRUE(view.queues.empty());
}

} // namespace
