#include "ProcessManagerTask.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "FakeGovernor.h"
#include "ProcessManager.h"
#include "modules/FileNotifyMessage.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using namespace Engine;
using ShellTest::FakeGovernor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TestSupport::WaitFor;

const std::string SOURCE = "module_whitelist/src/ProcessManagerTask";
constexpr int RUN_LOOP_LINE = 46;
constexpr int EVENT_LINE = 61;
const std::string FORK_WITHOUT_PARENT = "PROCS_NATIVE_EXIT flag,not PROCS_NATIVE_FORK,skip it";
const std::string ENGINE_STARTED = "ProcsMap size [0]";
// What the trust engine says when it stops while learning, with nothing to save.
const std::string ENGINE_STOPPED = "no need to persistence";
constexpr int NO_PARENT = -1;

SDK::ModuleLog journal("test_journal");

// Tells the logs of every subscription, so that they can be seen in their order with the task's records.
class LoggingEventSource : public TestSupport::Idle<Framework::Task> {
public:
    LoggingEventSource() : Idle("procs_real_task") {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto& subscription = dynamic_cast<const ProcsRegistMessage&>(*message);
        journal.Notice("%s subscribed to %?d", subscription.GetSubscriberName(), subscription.GetKind());
        return true;
    }
};

class EventTask : public ::testing::Test {
protected:
    // Every process in the table of live processes, so that the effect of an event can be looked up.
    static void GivenDirectoryMode() {
        ASSERT_TRUE(ConfigManager::Instance()->ParsePolicy(
            R"({"content": {"learning_days": 1, "dir_mod": true, "dirs": [], "exts": []}})"));
    }

    static std::shared_ptr<ProcsMessage::procInfo> Info(int pid, int ppid) {
        auto info = std::make_shared<ProcsMessage::procInfo>();
        info->pid = pid;
        info->ppid = ppid;
        return info;
    }

    void Send(int pid, unsigned int kind, const std::shared_ptr<ProcsMessage::procInfo>& info) {
        std::shared_ptr<Framework::Message> message = std::make_shared<ProcsMessage>(pid, kind, info);
        EXPECT_TRUE(task->EnqueueMsg(message));
    }

    // Whether the row of this process is there and marked as ended.
    static bool IsExited(int pid) {
        const ProcessInfo* row = ProcessManager::Instance()->GetProcessInfoFromID(pid);
        return row != nullptr && row->exited;
    }

    bool WaitForStart() {
        return WaitFor([&] { return log.Has(Poco::Message::PRIO_TRACE, ENGINE_STARTED); });
    }

    // Records with these texts, in order.
    std::vector<std::string> Selected(const std::vector<std::string>& texts) const {
        std::vector<std::string> selected;
        for (const auto& record : log.Records()) {
            if (std::find(texts.begin(), texts.end(), record.text) != texts.end()) {
                selected.push_back(record.text);
            }
        }
        return selected;
    }

    const int self = getpid();
    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<ProcessManagerTask> task{new ProcessManagerTask};
};

// ---- Life ------------------------------------------------------------------------------------------

TEST_F(EventTask, IsWhatTheFrameworkExpects) {
    EXPECT_EQ(task->name(), "process_manager_task");
    EXPECT_EQ(task->GetFeatureName(), "whitelist_feature");
    EXPECT_EQ(task->GetCondition().GetTaskType(), Framework::TaskCondition::TaskType::Thread);
    EXPECT_EQ(task->GetQueueCapacity(), 10240U);
}

TEST_F(EventTask, InitHandsItselfToTheTrustEngine) {
    EXPECT_TRUE(task->Init());
    ASSERT_EQ(log.Records().size(), 1U);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "process manager task Init"));
    EXPECT_EQ(log.Records()[0].file, "ProcessManagerTask.cpp");
    EXPECT_EQ(root.Read("conf/whitelist.data"), "");
    ProcessManager::Instance()->SendModRunErrorMessage("text");
    EXPECT_THAT(agent.Reports().Of("whitelist_5"), ElementsAre(R"({"runerr":"text"})"));
}

TEST_F(EventTask, ATrustEngineThatCannotBeInitialisedIsLoggedAndTheTaskRuns) {
    SDK::PathUtils::SetInstallationPath("");
    agent.Start(task);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Init ProcessManager Failed"), 1);
    EXPECT_TRUE(WaitForStart());
    EXPECT_THAT(agent.Subscriptions().KindsOf("process_manager_task"), ElementsAre(1U, 2U, 3U));
}

TEST_F(EventTask, ATaskThatIsGoneIsNotReportedThrough) {
    EXPECT_TRUE(task->Init());
    task = nullptr;
    ProcessManager::Instance()->SendModRunErrorMessage("text");
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
}

TEST_F(EventTask, RunSubscribesInOrderThenStartsTheTrustEngine) {
    agent.Start(Poco::AutoPtr<Framework::Task>(new LoggingEventSource));
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    const std::vector<std::string> steps = {"process manager task Init",
                                            "process manager task START",
                                            "process_manager_task subscribed to 1",
                                            "process_manager_task subscribed to 2",
                                            "process_manager_task subscribed to 3",
                                            ENGINE_STARTED};
    EXPECT_EQ(Selected(steps), steps);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "process manager task START"));
    EXPECT_FALSE(log.Has(Poco::Message::PRIO_ERROR, "ProcessManager ON START ERROR"));
}

TEST_F(EventTask, RunHandlesAtMostFiveMessagesAheadOfTheSubscriptions) {
    GivenDirectoryMode();
    agent.Start(Poco::AutoPtr<Framework::Task>(new LoggingEventSource));
    EXPECT_TRUE(task->Init());
    for (int i = 0; i < 7; ++i) {
        Send(self, ProcsMessage::KIND_FORK, Info(self, NO_PARENT));
    }
    task->RequestStop();
    EXPECT_EQ(task->Run(), 0);
    EXPECT_EQ(task->GetQueueDepth(), 2U);
    std::vector<std::string> steps = {"process manager task START"};
    steps.insert(steps.end(), 5, FORK_WITHOUT_PARENT);
    steps.insert(steps.end(), {"process_manager_task subscribed to 1", "process_manager_task subscribed to 2",
                               "process_manager_task subscribed to 3", ENGINE_STARTED});
    EXPECT_EQ(Selected(steps), steps);
}

TEST_F(EventTask, ACancelBeforeTheSubscriptionsStillMakesThemOnceAndStartsTheEngine) {
    agent.Start(task);
    EXPECT_TRUE(WaitFor([&] { return log.Has(Poco::Message::PRIO_INFORMATION, "process manager task START"); }));
    task->RequestStop();
    EXPECT_TRUE(WaitFor([&] { return task->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_THAT(agent.Subscriptions().KindsOf("process_manager_task"), ElementsAre(1U, 2U, 3U));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_TRACE, ENGINE_STARTED), 1);
}

TEST_F(EventTask, RunEndsWhenItIsCancelled) {
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    EXPECT_NE(task->state(), Poco::Task::TASK_FINISHED);
    task->RequestStop();
    EXPECT_TRUE(WaitFor([&] { return task->state() == Poco::Task::TASK_FINISHED; }));
}

TEST_F(EventTask, UnInitLogsThenStopsTheTrustEngine) {
    EXPECT_TRUE(task->Init());
    log.Clear();
    EXPECT_TRUE(task->UnInit());
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].text, "UnInit  process manager task");
    EXPECT_EQ(records[0].priority, Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(records[0].file, "ProcessManagerTask.cpp");
    EXPECT_EQ(records[1].text, ENGINE_STOPPED);
}

// ---- Events ----------------------------------------------------------------------------------------

TEST_F(EventTask, EventsReachTheTrustEngineInTheirOrder) {
    GivenDirectoryMode();
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    Send(self, ProcsMessage::KIND_EXEC, Info(self, getppid()));
    Send(self, ProcsMessage::KIND_EXIT, nullptr);
    EXPECT_TRUE(WaitFor([&] { return IsExited(self); }));
    Send(self, ProcsMessage::KIND_EXEC, Info(self, getppid()));
    EXPECT_TRUE(WaitFor([&] { return !IsExited(self); }));
    EXPECT_EQ(task->GetQueueDepth(), 0U);
}

TEST_F(EventTask, AFloodOfEventsIsHandledWhole) {
    GivenDirectoryMode();
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    constexpr int FLOOD = 1000;
    for (int i = 0; i < FLOOD; ++i) {
        Send(self, ProcsMessage::KIND_FORK, Info(self, NO_PARENT));
    }
    EXPECT_TRUE(WaitFor([&] { return log.Count(Poco::Message::PRIO_INFORMATION, FORK_WITHOUT_PARENT) == FLOOD; }));
}

TEST_F(EventTask, AnExitIsDeliveredWithoutARecord) {
    GivenDirectoryMode();
    EXPECT_TRUE(task->Init());
    task->ProcsMessageAction(self, ProcsMessage::KIND_EXEC, Info(self, getppid()));
    EXPECT_FALSE(IsExited(self));
    task->ProcsMessageAction(self, ProcsMessage::KIND_EXIT, nullptr);
    EXPECT_TRUE(IsExited(self));
}

TEST_F(EventTask, AForkIsDeliveredWithTheParentOfItsRecord) {
    GivenDirectoryMode();
    EXPECT_TRUE(task->Init());
    task->ProcsMessageAction(self, ProcsMessage::KIND_EXEC, Info(self, getppid()));
    // The child is known by its parent alone: no such process needs to live.
    constexpr int CHILD = 0x3fffff;
    task->ProcsMessageAction(CHILD, ProcsMessage::KIND_FORK, Info(CHILD, self));
    const ProcessInfo* child = ProcessManager::Instance()->GetProcessInfoFromID(CHILD);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->ppid, self);
    task->ProcsMessageAction(CHILD, ProcsMessage::KIND_FORK, Info(CHILD, NO_PARENT));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_INFORMATION, FORK_WITHOUT_PARENT), 1);
}

TEST_F(EventTask, OtherMessagesAreIgnored) {
    EXPECT_TRUE(task->Init());
    log.Clear();
    EXPECT_EQ(task->FileNotifyMessageAction(nullptr), -1);
    task->AssetMessageAction(nullptr);
    task->FtraceMessageAction(nullptr);
    const FileNotifyMessage access(self, "/tmp/file");
    EXPECT_EQ(task->HandleMsg(&access), 0);
    EXPECT_THAT(log.Records(), IsEmpty());
}

// ---- The throttle ----------------------------------------------------------------------------------

TEST_F(EventTask, WithTheGovernorOffNobodyCountsTicks) {
    FakeGovernor::SetTick(1000000);
    GivenDirectoryMode();
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    Send(self, ProcsMessage::KIND_EXEC, Info(self, getppid()));
    EXPECT_TRUE(WaitFor([&] { return ProcessManager::Instance()->GetProcessInfoFromID(self) != nullptr; }));
    task->RequestStop();
    EXPECT_TRUE(WaitFor([&] { return task->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_EQ(FakeGovernor::CountReads(), 0U);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), IsEmpty());
}

class EventThrottle : public EventTask {
protected:
    // One event when so many ticks have been used.
    void EventAt(unsigned long tick) {
        FakeGovernor::SetTick(tick);
        task->ProcsMessageAction(self, ProcsMessage::KIND_EXIT, nullptr);
    }

    static FakeGovernor::Adjustment OfEvent(unsigned long now, unsigned long elapsed) {
        return {SOURCE, EVENT_LINE, "whitelist_module", now, elapsed};
    }
};

TEST_F(EventThrottle, AdjustsOnlyWhenMoreThanTheSuggestionWasUsedSinceTheLastAdjustment) {
    FakeGovernor::Enable(1000);
    EventAt(400);
    EventAt(1000);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), IsEmpty());
    EventAt(1001);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), ElementsAre(OfEvent(1001, 1001)));
    EventAt(1900);
    EventAt(2001);
    EXPECT_EQ(FakeGovernor::AllAdjustments().size(), 1U);
    EventAt(2500);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), ElementsAre(OfEvent(1001, 1001), OfEvent(2500, 1499)));
    EXPECT_EQ(FakeGovernor::CountReads(), 6U);
}

TEST_F(EventThrottle, TakesTheDifferenceEitherWay) {
    FakeGovernor::Enable(1000);
    EventAt(5000);
    EventAt(4000);
    EventAt(3999);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), ElementsAre(OfEvent(5000, 5000), OfEvent(3999, 1001)));
}

TEST_F(EventThrottle, TheRunLoopHasACountOfItsOwn) {
    FakeGovernor::Enable(1000);
    EventAt(5000);
    agent.Start(task);
    EXPECT_TRUE(WaitFor([] { return !FakeGovernor::AdjustmentsAt(SOURCE, RUN_LOOP_LINE).empty(); }));
    EXPECT_THAT(FakeGovernor::AdjustmentsAt(SOURCE, RUN_LOOP_LINE),
                ElementsAre(FakeGovernor::Adjustment{SOURCE, RUN_LOOP_LINE, "process_manager_task", 5000, 5000}));
    // More turns with the same tick adjust nothing.
    const unsigned long reads = FakeGovernor::CountReads();
    EXPECT_TRUE(WaitFor([&] { return FakeGovernor::CountReads() >= reads + 3; }));
    EXPECT_EQ(FakeGovernor::AdjustmentsAt(SOURCE, RUN_LOOP_LINE).size(), 1U);
    FakeGovernor::SetTick(6001);
    EXPECT_TRUE(WaitFor([] { return FakeGovernor::AdjustmentsAt(SOURCE, RUN_LOOP_LINE).size() == 2; }));
    EXPECT_EQ(FakeGovernor::AdjustmentsAt(SOURCE, RUN_LOOP_LINE).at(1).elapsed, 1001U);
    EXPECT_THAT(FakeGovernor::AdjustmentsAt(SOURCE, EVENT_LINE), ElementsAre(OfEvent(5000, 5000)));
}

// ---- The question whether an executable is white-listed --------------------------------------------

class WhiteListQuestion : public EventTask {
protected:
    void GivenLocal(const std::string& path, const std::string& hash) {
        ProcessInfo info;
        info.path = path;
        info.hash = hash;
        ProcessManager::Instance()->UpdateLocalProcessInfo(info);
    }

    // Asks as another part of the agent does: by the task's name, through the interface.
    bool Ask(const std::string& hash, const std::string& path, int& result) {
        const Poco::AutoPtr<Framework::Task> found = Framework::Engine::FindTask("process_manager_task");
        auto* answerer = dynamic_cast<WhiteListProcessInfo*>(const_cast<Framework::Task*>(found.get()));
        if (answerer == nullptr) {
            ADD_FAILURE() << "nobody to ask";
            return false;
        }
        return answerer->IsWhiteListProcess(hash, path, result);
    }
};

TEST_F(WhiteListQuestion, IsAnsweredByTheTrustListsInTheirOrder) {
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    GivenLocal("/bin/local", "aaa");
    const std::string server =
        R"({"process_info": [{"name": "server", "path": "/x", "hash": "bbb", "size": 1, "type": 1}]})";
    ProcessManager::Instance()->SyncServerTrustProcess(server.data(), server.size());
    int result = 99;
    EXPECT_TRUE(Ask("aaa", "/bin/local", result));
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(Ask("bbb", "/anywhere/server", result));
    EXPECT_EQ(result, 2);
}

TEST_F(WhiteListQuestion, ThatNoListAnswersGivesZero) {
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    GivenLocal("/bin/local", "aaa");
    int result = 99;
    EXPECT_FALSE(Ask("other", "/bin/local", result));
    EXPECT_EQ(result, 0);
    result = 99;
    EXPECT_FALSE(Ask("/bin/local", "aaa", result));
    EXPECT_EQ(result, 0);
}

} // namespace
