#include "FullProcTask.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using namespace Engine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string FULL = "whitelist_2";
const std::string NEWS = "whitelist_3";
const std::string LOCAL_FILE = "conf/whitelist.data";
const std::string EMPTY_LIST = R"({"process_info":[]})";

class ReportTask : public ::testing::Test {
protected:
    ReportTask() { ProcessManager::Instance()->Init(static_cast<Framework::Task*>(task.get())); }
    ~ReportTask() override { ProcessManager::Instance()->ForgetTask(task.get()); }

    // While learning: the whole list is due every `scanPeriod` seconds, the task runs every `period`.
    void GivenPeriods(int scanPeriod, int period) {
        ASSERT_TRUE(ConfigManager::Instance()->ParsePolicy(
            (R"({"content": {"learning_days": 1, "scan_period_seconds": )" + std::to_string(scanPeriod) + "}}")
                .c_str()));
        ASSERT_EQ(ConfigManager::Instance()->GetMod(), MOD_LEARN);
        task->GetCondition().SetPeriod(period);
    }

    void GivenMod(std::int64_t mod) {
        root.Write("conf/modwhitelist.ini", "[Driver]\nLearnMod=" + std::to_string(mod) + "\n");
        ASSERT_TRUE(config.Init());
        config.GetLearnedModFromFile();
        ASSERT_EQ(config.GetMod(), mod);
    }

    // This very process is learned by an event.
    void GivenNews() { EXPECT_TRUE(ProcessManager::Instance()->OnProcessNotify(1, getpid(), getppid())); }

    void GivenRunning(const std::string& path) {
        ProcsMessage::procInfo process;
        process.pid = 4242;
        process.path = path;
        process.name = std::filesystem::path(path).filename();
        agent.Processes().Set({{process.pid, process}});
    }

    void Run(int times) {
        for (int i = 0; i < times; ++i) {
            EXPECT_EQ(task->Run(), 0);
        }
    }

    std::vector<std::string> ReportTypes() {
        std::vector<std::string> types;
        for (const auto& report : agent.Reports().Reports()) {
            types.push_back(report.type);
        }
        return types;
    }

    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<FullProcTask> task{new FullProcTask};
    ConfigManager& config = *ConfigManager::Instance();
};

TEST_F(ReportTask, IsWhatTheFrameworkExpects) {
    EXPECT_EQ(task->name(), "full_proc_task");
    EXPECT_EQ(task->GetFeatureName(), "whitelist_feature");
    EXPECT_EQ(task->GetCondition().GetTaskType(), Framework::TaskCondition::TaskType::Thread);
    EXPECT_EQ(task->GetQueueCapacity(), 1024U);
}

TEST_F(ReportTask, InitAndUnInitLog) {
    EXPECT_TRUE(task->Init());
    EXPECT_TRUE(task->UnInit());
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].text, "full proc task Init");
    EXPECT_EQ(records[0].priority, Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(records[1].text, "UnInit  process manager task");
    EXPECT_EQ(records[1].priority, Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(records[1].file, "FullProcTask.cpp");
}

TEST_F(ReportTask, TheTenthRunSendsTheWholeListThenTheNews) {
    GivenPeriods(600, 60);
    GivenRunning(root.Write("program", "#!"));
    Run(9);
    EXPECT_THAT(ReportTypes(), IsEmpty());
    GivenNews();
    Run(1);
    EXPECT_THAT(ReportTypes(), ElementsAre(FULL, NEWS));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_INFORMATION, "full proc START"), 10);
}

TEST_F(ReportTask, TheWholeListComesEveryTenthRun) {
    GivenPeriods(600, 60);
    Run(29);
    EXPECT_EQ(agent.Reports().Of(FULL).size(), 2U);
    Run(1);
    EXPECT_EQ(agent.Reports().Of(FULL).size(), 3U);
}

TEST_F(ReportTask, TheQuotientIsCutOff) {
    GivenPeriods(179, 60);
    Run(1);
    EXPECT_THAT(ReportTypes(), IsEmpty());
    Run(1);
    EXPECT_THAT(ReportTypes(), ElementsAre(FULL));
}

TEST_F(ReportTask, TheWholeListNamesEveryRunningProcess) {
    GivenPeriods(60, 60);
    const std::string path = root.Write("program", "abc");
    GivenRunning(path);
    Run(1);
    EXPECT_THAT(
        agent.Reports().Of(FULL),
        ElementsAre(R"({"process_info":[{"hash":"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015)"
                    R"(ad","name":"program","path":")" +
                    path + R"(","size":3,"type":1}]})"));
}

TEST_F(ReportTask, TheWholeListIsSentEvenWhenItIsEmpty) {
    GivenPeriods(60, 60);
    Run(1);
    EXPECT_THAT(agent.Reports().Of(FULL), ElementsAre(""));
}

TEST_F(ReportTask, NewsAreSentOnceAndOnlyWhenThereAreAny) {
    GivenPeriods(6000, 60);
    Run(1);
    EXPECT_THAT(ReportTypes(), IsEmpty());
    GivenNews();
    Run(2);
    EXPECT_THAT(ReportTypes(), ElementsAre(NEWS));
    EXPECT_NE(agent.Reports().Of(NEWS).at(0).find(std::filesystem::read_symlink("/proc/self/exe").string()),
              std::string::npos);
}

TEST_F(ReportTask, EveryRunWritesTheLocalListWithTheNews) {
    GivenPeriods(6000, 60);
    Run(1);
    EXPECT_EQ(root.Read(LOCAL_FILE), EMPTY_LIST);
    std::filesystem::remove(root / LOCAL_FILE);
    Run(1);
    EXPECT_EQ(root.Read(LOCAL_FILE), EMPTY_LIST);
    // An empty file: what is on disk is never replaced by a list that knows nothing of it.
    root.Write(LOCAL_FILE, "");
    GivenNews();
    Run(1);
    EXPECT_EQ(root.Read(LOCAL_FILE), agent.Reports().Of(NEWS).at(0));
}

TEST_F(ReportTask, AFileThatCannotBeWrittenHoldsNothingUp) {
    GivenPeriods(60, 60);
    std::filesystem::remove_all(root / "conf");
    GivenNews();
    Run(1);
    EXPECT_THAT(ReportTypes(), ElementsAre(FULL, NEWS));
}

TEST_F(ReportTask, WithAScanPeriodBelowItsOwnTheWholeListIsNeverSent) {
    for (const int scanPeriod : {59, 0, -600}) {
        GivenPeriods(scanPeriod, 60);
        Run(30);
        EXPECT_THAT(ReportTypes(), IsEmpty()) << scanPeriod;
    }
}

TEST_F(ReportTask, LeavingLearningStartsTheCountAnew) {
    GivenPeriods(600, 60);
    Run(9);
    for (const std::int64_t mod : {MOD_NONE, MOD_LEARNED, MOD_DETECT}) {
        GivenMod(mod);
        Run(1);
        GivenPeriods(600, 60);
        Run(9);
        EXPECT_THAT(ReportTypes(), IsEmpty()) << mod;
    }
    Run(1);
    EXPECT_THAT(ReportTypes(), ElementsAre(FULL));
}

TEST_F(ReportTask, ACountBeyondTheQuotientRestsUntilLearningBeginsAnew) {
    GivenPeriods(600, 60);
    Run(5);
    GivenPeriods(180, 60);
    Run(30);
    EXPECT_THAT(ReportTypes(), IsEmpty());
    GivenMod(MOD_DETECT);
    Run(1);
    GivenPeriods(180, 60);
    Run(3);
    EXPECT_THAT(ReportTypes(), ElementsAre(FULL));
}

TEST_F(ReportTask, OutsideLearningARunDoesNothing) {
    GivenPeriods(60, 60);
    GivenNews();
    for (const std::int64_t mod : {MOD_NONE, MOD_LEARNED, MOD_DETECT}) {
        GivenMod(mod);
        std::filesystem::remove(root / LOCAL_FILE);
        log.Clear();
        Run(3);
        EXPECT_THAT(ReportTypes(), IsEmpty());
        EXPECT_EQ(root.Read(LOCAL_FILE), "<missing>");
        EXPECT_THAT(log.Records(), IsEmpty());
    }
}

TEST_F(ReportTask, TheFrameworkRunsItOncePerPeriod) {
    GivenPeriods(1, 1);
    agent.Start(task);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return agent.Reports().Of(FULL).size() == 2; }));
}

} // namespace
