#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempCgroup.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/StateFiles.h"
#include "system/Traffic.h"
#include "system/faults/Rounds.h"

namespace SystemTest {
namespace {

using Clock = std::chrono::steady_clock;
using testing::IsSubsetOf;
using TestSupport::WaitFor;

using std::chrono::milliseconds;

constexpr milliseconds LOOK_INTERVAL{3};
constexpr milliseconds TRAFFIC_PAUSE{4};

// Before this much of its life the module judges nothing, and before that much it stores nothing learned.
constexpr milliseconds JUDGING_BEGIN{500};
constexpr milliseconds STORING_BEGIN{1000};
constexpr milliseconds WORK_TIME{300};
constexpr const char* TRUSTED = "/usr/bin/sleep";
// Long enough to be looked at.
constexpr const char* SHORT_TIME = "0.02";

// What the operator has been shown of the history. Whatever was shown once has to be shown again, once and
// unchanged, however the daemon ended since.
class ShownHistory {
public:
    // Asks for what came since the last look.
    void LookOn(const Agent& agent) {
        for (const Json::Value& report : agent.ReportsAfter(mLast)) {
            const std::int64_t id = report["id"].asInt64();
            EXPECT_GT(id, mLast);
            mReports[id] = report;
            mLast = id;
        }
    }

    // Asks again for what was shown since the last time it was asked for again.
    void Review(const Agent& agent) {
        Compare(agent, mReviewed);
        mReviewed = mLast;
    }

    void ReviewAll(const Agent& agent) const { Compare(agent, 0); }

    std::size_t Count() const { return mReports.size(); }

    // The texts of one member of all documents of a type.
    std::vector<std::string> Texts(const std::string& type, const char* member) const {
        std::vector<std::string> texts;
        for (const auto& [id, report] : mReports) {
            if (report["type"] == type) {
                texts.push_back(SDK::JsonUtils::JsonToString(report["data"][member]));
            }
        }
        return texts;
    }

private:
    void Compare(const Agent& agent, std::int64_t after) const {
        while (after < mLast) {
            const std::vector<Json::Value> found = agent.ReportsAfter(after);
            if (found.empty()) {
                ADD_FAILURE() << "reports " << after + 1 << " to " << mLast << " are gone";
                return;
            }
            for (const Json::Value& report : found) {
                const std::int64_t id = report["id"].asInt64();
                const auto next = mReports.upper_bound(after);
                if (id <= mLast) {
                    ASSERT_NE(next, mReports.end());
                    ASSERT_EQ(next->first, id) << "a report is missing, or was put in between";
                    ASSERT_EQ(next->second, report);
                }
                after = id;
            }
        }
    }

    std::map<std::int64_t, Json::Value> mReports;
    std::int64_t mLast = 0;
    std::int64_t mReviewed = 0;
};

// An agent that is killed again and again, at any moment between its start and some time in which it works.
// It runs in a control group of its own, so that whatever it leaves running is found there.
class Crash : public testing::Test {
protected:
    Crash() { agent.SetLauncher({"/bin/sh", "-c", "echo 0 >" + home.Path() + R"(/cgroup.procs && exec "$@")", "sh"}); }

    // Kills it as often as asked for: two times of three while it starts, else while it does what it does from
    // `workBegin` after its start on; the last time at the end of that.
    void Repeat(int rounds, milliseconds workBegin) {
        agent.Kill9();
        const auto begin = Clock::now();
        agent.Start();
        const auto startTime = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
        agent.Kill9();
        for (int round = 1; round <= rounds && !HasFailure(); ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            const bool works = round == rounds || dice.Upto(2) == 0;
            const milliseconds working = round == rounds ? WORK_TIME : milliseconds(dice.Upto(WORK_TIME.count()));
            const milliseconds starting(dice.Upto(2 * startTime.count()));
            RunRound(works ? startTime + workBegin + working : starting);
        }
    }

    void RunRound(milliseconds lifetime) {
        const std::set<std::string> left = TemporariesLeft();
        const auto end = Clock::now() + lifetime;
        agent.Launch();
        for (bool ready = false; Clock::now() < end; std::this_thread::sleep_for(LOOK_INTERVAL)) {
            ASSERT_FALSE(agent.HasEnded()) << "the daemon does not start again";
            if (!ready && agent.IsReady()) {
                ready = true;
                ++readyRounds;
                history.Review(agent);
                for (const std::string& path : left) {
                    EXPECT_FALSE(std::filesystem::exists(path)) << path << " lies about for good";
                }
            }
            if (ready) {
                history.LookOn(agent);
            }
        }
        agent.Kill9();
        ExpectNothingBroken();
    }

    std::set<std::string> TemporariesLeft() const {
        std::set<std::string> paths;
        for (const std::string folder : {"conf/", "data/"}) {
            for (const std::string& name : NamesIn(agent.Root() / folder)) {
                if (IsTemporary(name)) {
                    paths.insert(agent.Root() / (folder + name));
                }
            }
        }
        return paths;
    }

    std::set<std::string> LastingNamesIn(const std::string& folder) const {
        std::set<std::string> names = NamesIn(agent.Root() / folder);
        std::erase_if(names, IsTemporary);
        return names;
    }

    void ExpectNothingBroken() {
        EXPECT_TRUE(WaitFor([&] { return home.GetPids().empty(); })) << "it left a process behind";
        ExpectWhole(agent.Root(), LastingNamesIn("conf"));
        EXPECT_THAT(LastingNamesIn("data"),
                    IsSubsetOf({"reports.db", "reports.db-wal", "reports.db-shm", "reports.db-journal", "running"}))
            << "the history was taken for a damaged one";
        const std::set<std::string> now = PathsInLocalList();
        EXPECT_THAT(learned, IsSubsetOf(now)) << "what was learned is forgotten";
        learned = now;
    }

    std::set<std::string> PathsInLocalList() const {
        std::set<std::string> paths;
        Json::Value document;
        SDK::JsonUtils::ParseJsonStr(agent.Root().Read("conf/whitelist.data"), document);
        for (const Json::Value& entry : document["process_info"]) {
            paths.insert(entry["path"].asString());
        }
        return paths;
    }

    // The agent works as ever, and everything that it ever showed is there.
    void ExpectAllThere() {
        agent.StartWatching();
        history.LookOn(agent);
        history.ReviewAll(agent);
        std::cout << readyRounds << " rounds became ready, " << history.Count() << " reports shown, " << learned.size()
                  << " programs in the list" << std::endl;
        EXPECT_GT(readyRounds, 0);
        EXPECT_GT(history.Count(), 0U);
        EXPECT_GE(agent.Reports("whitelist_6").size(), 1U);
        agent.Stop();
        ExpectWholeStateFiles(agent.Root());
    }

    Dice dice;
    TestSupport::TempMount mount;
    TestSupport::TempCgroup home;
    Agent agent;
    ShownHistory history;
    std::set<std::string> learned;
    int readyRounds = 0;
};

TEST_F(Crash, WhileItDetectsNothingThatWasShownIsLostAndEveryStateFileIsWhole) {
    constexpr int SHARE_PERCENT = 50;
    agent.MakeDetecting({.programs = {TRUSTED}}, {});

    {
        const Traffic traffic(agent.Scope().Path(), {{TRUSTED, SHORT_TIME}, {agent.MakeProgram("unknown"), SHORT_TIME}},
                              TRAFFIC_PAUSE);
        Repeat(CountRounds(SHARE_PERCENT), JUDGING_BEGIN);
    }

    ExpectAllThere();
    const std::vector<std::string> alerts = history.Texts("whitelist_4", "event_id");
    EXPECT_FALSE(alerts.empty());
    EXPECT_EQ(std::set<std::string>(alerts.begin(), alerts.end()).size(), alerts.size()) << "an alert is there twice";
}

// The list is written once a second, with what was learned since.
TEST_F(Crash, WhileItLearnsNothingThatWasShownIsLostAndEveryStateFileIsWhole) {
    constexpr int SHARE_PERCENT = 20;
    constexpr int PROGRAMS = 200;
    Traffic::Commands programs;
    for (int i = 0; i < PROGRAMS; ++i) {
        programs.push_back({agent.MakeProgram("learned-" + std::to_string(i)), SHORT_TIME});
    }
    agent.Start();
    agent.ApplyAndWatch({});

    {
        const Traffic traffic(agent.Scope().Path(), programs, TRAFFIC_PAUSE);
        Repeat(CountRounds(SHARE_PERCENT), STORING_BEGIN);
    }

    ExpectAllThere();
    EXPECT_FALSE(learned.empty());
}

// The readers are vouched for by the server: each is adopted, once, which writes the local list. The marks go
// with the process, as no other holds them; the next one places its own.
TEST_F(Crash, WhileItWatchesDirectoriesItsMarksGoAndComeAgain) {
    constexpr int SHARE_PERCENT = 30;
    constexpr int READERS = 100;
    const std::string file = mount.Write("data/file", "content");
    Traffic::Commands readings;
    std::vector<Json::Value> vouched;
    for (int i = 0; i < READERS; ++i) {
        const std::string reader = agent.MakeReader("vouched-" + std::to_string(i));
        vouched.push_back(MakeEntry(reader));
        readings.push_back({"/usr/bin/timeout", SHORT_TIME, reader, "-f", file});
    }
    agent.Root().Write("conf/arsserverproc.data", MakeListDocument(vouched));
    PolicyOptions options;
    options.dirs = {mount / "data"};
    agent.MakeDetecting({}, options);
    agent.WaitForMarks(1);

    {
        const Traffic traffic(agent.Scope().Path(), readings, TRAFFIC_PAUSE);
        Repeat(CountRounds(SHARE_PERCENT), JUDGING_BEGIN);
    }

    EXPECT_FALSE(history.Texts("whitelist_3", "process_info").empty());
    agent.Start();
    agent.WaitForMode(DETECTING);
    agent.WaitForMarks(1);
    EXPECT_EQ(agent.CountKernelMarks(), 1);
    agent.Kill9();
    ExpectAllThere();
}

} // namespace
} // namespace SystemTest
