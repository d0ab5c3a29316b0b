#include "framework/Module.h"

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestModule.h"
#include "framework/Counters.h"
#include "framework/Engine.h"
#include "support/LogRecorder.h"
#include "support/WaitFor.h"

using namespace FrameworkTest;
using Framework::Counters;
using Framework::Policy;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::LogRecorder;
using TestSupport::WaitFor;

namespace {

// A module whose policy documents are names of tasks in one line ("a b"), and what it did.
class ModuleTest : public testing::Test {
protected:
    ModuleTest() : module(new TestModule) {
        module->onPolicy = [this](const std::string& document, Policy*&) { return MakePolicy(document); };
        module->Init();
    }
    ~ModuleTest() override {
        module->UnInit();
        delete current;
    }
    ModuleTest(const ModuleTest&) = delete;
    ModuleTest& operator=(const ModuleTest&) = delete;

    // The document is its own hash too.
    virtual Policy* MakePolicy(const std::string& document) {
        module->RegisterJournalTasks(journal, Words(document));
        return new TestFeaturePolicy(document, true, &journal);
    }

    static std::vector<std::string> Words(const std::string& text) {
        std::vector<std::string> words;
        std::istringstream stream(text);
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        return words;
    }

    bool Refresh(const std::string& document) { return module->RefreshPolicy(POLICY_KEY, document, document, current); }

    bool WaitUntilRunning(const std::string& label, int period = 1) {
        return WaitFor([&] { return journal.Has("run " + label + " period " + std::to_string(period)); });
    }

    // The journal without the tasks' own threads, whose entries come at any time.
    std::vector<std::string> FrameworkEntries() const {
        std::vector<std::string> entries = journal.Entries();
        std::erase_if(entries,
                      [](const std::string& entry) { return entry.starts_with("run ") || entry.starts_with("end "); });
        return entries;
    }

    Journal journal;
    Framework::Engine engine;
    Poco::AutoPtr<TestModule> module;
    Policy* current = nullptr;
};

std::vector<std::string> Names(const std::vector<Poco::AutoPtr<Framework::Task>>& tasks) {
    std::vector<std::string> names;
    names.reserve(tasks.size());
    for (const Poco::AutoPtr<Framework::Task>& task : tasks) {
        names.push_back(task->name());
    }
    return names;
}

} // namespace

TEST_F(ModuleTest, HasTheNameItWasConstructedWith) {
    EXPECT_STREQ(module->name(), "test_module");
}

TEST_F(ModuleTest, CallbacksComeAndGoWithTheirKeys) {
    EXPECT_TRUE(module->HasPolicy(POLICY_KEY));
    EXPECT_TRUE(module->HasTasklet(COMMAND_KEY));
    EXPECT_FALSE(module->HasPolicy(COMMAND_KEY));
    EXPECT_FALSE(module->HasTasklet(POLICY_KEY));
    EXPECT_THAT(module->ListPolicyKeys(), ElementsAre(POLICY_KEY));
    ASSERT_THAT(module->ListTasklets(), SizeIs(1));
    EXPECT_EQ(module->ListTasklets()[0].first, COMMAND_KEY);
    EXPECT_FALSE(module->ListTasklets()[0].second->IsLongAction());

    module->UnRegisterPolicyCallback(POLICY_KEY);
    module->UnRegisterTaskletCallback(COMMAND_KEY);
    module->UnRegisterTaskletCallback("never registered");
    EXPECT_FALSE(module->HasPolicy(POLICY_KEY));
    EXPECT_FALSE(module->HasTasklet(COMMAND_KEY));
}

TEST_F(ModuleTest, ALaterCallbackReplacesAndDestroysTheEarlier) {
    class NotedCallback : public Framework::AbstractTaskletCallback {
    public:
        NotedCallback(Journal& journal, int result) : mJournal(journal), mResult(result) {}
        ~NotedCallback() override { mJournal.Add("destroy " + std::to_string(mResult)); }
        int invoke(const std::string&) const override { return mResult; }
        bool IsLongAction() const override { return true; }

    private:
        Journal& mJournal;
        const int mResult;
    };
    module->RegisterTaskletCallback("key", new NotedCallback(journal, 1));
    module->RegisterTaskletCallback("key", new NotedCallback(journal, 2));
    EXPECT_THAT(journal.Entries(), ElementsAre("destroy 1"));
    int result = 0;
    EXPECT_TRUE(module->InvokeTasklet("key", "", result));
    EXPECT_EQ(result, 2);
    module->UnRegisterTaskletCallback("key");
    EXPECT_THAT(journal.Entries(), ElementsAre("destroy 1", "destroy 2"));
}

TEST_F(ModuleTest, ACommandReachesItsCallbackWithItsText) {
    std::string received;
    module->onCommand = [&](const std::string& text) {
        received = text;
        return 5;
    };
    int result = 0;
    EXPECT_TRUE(module->InvokeTasklet(COMMAND_KEY, "the text", result));
    EXPECT_EQ(received, "the text");
    EXPECT_EQ(result, 5);
}

TEST_F(ModuleTest, ACommandWithoutACallbackIsNotInvoked) {
    int result = 77;
    EXPECT_FALSE(module->InvokeTasklet("unknown", "", result));
    EXPECT_EQ(result, 77);
}

TEST_F(ModuleTest, ANullCommandCallbackIsKeptAndRefuses) {
    module->RegisterTaskletCallback("null", nullptr);
    EXPECT_TRUE(module->HasTasklet("null"));
    int result = 0;
    EXPECT_TRUE(module->InvokeTasklet("null", "", result));
    EXPECT_EQ(result, -1);
}

TEST_F(ModuleTest, ACommandCallbackThatThrowsRefuses) {
    const LogRecorder log;
    const std::uint64_t before = Counters::Of("module.exceptions").Get();
    module->onCommand = [](const std::string&) -> int { throw std::runtime_error("broken"); };
    int result = 0;
    EXPECT_TRUE(module->InvokeTasklet(COMMAND_KEY, "", result));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(Counters::Of("module.exceptions").Get(), before + 1);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "module [test_module]: exception in the command callback: broken"));
}

TEST_F(ModuleTest, ACommandMayUnregisterItself) {
    module->onCommand = [&](const std::string&) {
        module->UnRegisterTaskletCallback(COMMAND_KEY);
        return 0;
    };
    int result = -1;
    EXPECT_TRUE(module->InvokeTasklet(COMMAND_KEY, "", result));
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(module->HasTasklet(COMMAND_KEY));
}

TEST_F(ModuleTest, ANullPolicyCallbackIsKeptAndRefuses) {
    module->RegisterPolicyCallback(POLICY_KEY, nullptr);
    EXPECT_TRUE(module->HasPolicy(POLICY_KEY));
    EXPECT_FALSE(Refresh("a"));
    EXPECT_EQ(current, nullptr);
}

TEST_F(ModuleTest, APolicyUnderAnUnknownKeyIsRefused) {
    EXPECT_FALSE(module->RefreshPolicy("unknown", "", "a", current));
    EXPECT_EQ(current, nullptr);
}

TEST_F(ModuleTest, ATaskRegisteredOutsideADeliveryWaits) {
    module->RegisterJournalTasks(journal, {"a", "b"});
    EXPECT_THAT(Names(module->GetRegisteredTasks()), ElementsAre("a", "b"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(ModuleTest, NoTaskAtAllIsRefused) {
    EXPECT_FALSE(module->RegisterTask(nullptr, false));
    EXPECT_FALSE(module->RegisterTask(nullptr, true));
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
}

TEST_F(ModuleTest, ATaskThatNeedsNoPolicyStartsAtOnce) {
    EXPECT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("a"));
    EXPECT_TRUE(Framework::Engine::FindTask("a"));
    EXPECT_TRUE(WaitUntilRunning("a"));
}

TEST_F(ModuleTest, AnAcceptedPolicyStartsItsTasks) {
    EXPECT_TRUE(Refresh("a b"));
    EXPECT_TRUE(WaitUntilRunning("a"));
    EXPECT_TRUE(WaitUntilRunning("b"));
    EXPECT_THAT(FrameworkEntries(), ElementsAre("init a", "init b", "dispatch policy a b"));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("a", "b"));
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(dynamic_cast<Framework::FeaturePolicy&>(*current).GetPolicyKey(), POLICY_KEY);
}

TEST_F(ModuleTest, TasksStartWithTheConditionsOfTheirPolicy) {
    module->onPolicy = [this](const std::string&, Policy*&) {
        module->RegisterJournalTasks(journal, {"periodic", "plain"});
        auto* policy = new TestFeaturePolicy("hash", true);
        auto* child = new TestTaskPolicy("periodic");
        EXPECT_TRUE(child->Parse(R"({"period":3600})"));
        policy->Add(child);
        policy->Add(new TestTaskPolicy("no such task"));
        return policy;
    };
    ASSERT_TRUE(Refresh("any"));
    EXPECT_EQ(Framework::Engine::FindTask("periodic")->GetCondition().GetTaskCondition(), 3600);
    ASSERT_TRUE(WaitUntilRunning("plain"));
    // Its first run is an hour away.
    EXPECT_FALSE(journal.Has("run periodic period 3600"));
}

TEST_F(ModuleTest, ANewPolicyReplacesTheTasksLastStartedFirst) {
    ASSERT_TRUE(Refresh("a b c"));
    for (const char* label : {"a", "b", "c"}) {
        ASSERT_TRUE(WaitUntilRunning(label));
    }
    journal.Clear();
    ASSERT_TRUE(Refresh("d"));
    ASSERT_TRUE(WaitUntilRunning("d"));
    EXPECT_THAT(FrameworkEntries(), ElementsAre("uninit c", "destroy c", "uninit b", "destroy b", "uninit a",
                                                "destroy a", "init d", "dispatch policy d", "destroy policy a b c"));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("d"));
}

TEST_F(ModuleTest, EveryTaskHasEndedItsRunBeforeItsUnInit) {
    ASSERT_TRUE(Refresh("a b"));
    ASSERT_TRUE(WaitUntilRunning("a"));
    ASSERT_TRUE(WaitUntilRunning("b"));
    ASSERT_TRUE(Refresh("c"));
    const std::vector<std::string> entries = journal.Entries();
    for (const std::string label : {"a", "b"}) {
        const auto ended = std::find(entries.begin(), entries.end(), "end " + label);
        const auto unInited = std::find(entries.begin(), entries.end(), "uninit " + label);
        EXPECT_LT(ended, unInited) << label;
        EXPECT_NE(unInited, entries.end()) << label;
    }
}

TEST_F(ModuleTest, TheFirstRegistrationOfADeliveryEndsTheEarlierTasks) {
    ASSERT_TRUE(Refresh("a"));
    ASSERT_TRUE(WaitUntilRunning("a"));
    module->onPolicy = [this](const std::string&, Policy*&) {
        EXPECT_FALSE(journal.Has("uninit a"));
        module->RegisterJournalTasks(journal, {"b"});
        EXPECT_TRUE(journal.Has("destroy a"));
        module->RegisterJournalTasks(journal, {"c"});
        return new TestFeaturePolicy("second", true);
    };
    ASSERT_TRUE(Refresh("second"));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("b", "c"));
}

TEST_F(ModuleTest, TasksOfOtherFeaturesAreLeftAlone) {
    module->RegisterTask(new JournalTask(journal, "other", "other", "other_feature"), true);
    ASSERT_TRUE(Refresh("a"));
    ASSERT_TRUE(Refresh("b"));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("other", "b"));
    EXPECT_FALSE(journal.Has("uninit other"));
}

TEST_F(ModuleTest, TheSameHashChangesNothing) {
    ASSERT_TRUE(Refresh("a"));
    ASSERT_TRUE(WaitUntilRunning("a"));
    const Policy* const installed = current;
    journal.Clear();
    EXPECT_TRUE(module->RefreshPolicy(POLICY_KEY, "a", "b", current));
    EXPECT_EQ(current, installed);
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("a"));
}

TEST_F(ModuleTest, AnEmptyHashAlwaysApplies) {
    module->onPolicy = [this](const std::string& document, Policy*&) {
        module->RegisterJournalTasks(journal, {document});
        return new TestFeaturePolicy("", true);
    };
    ASSERT_TRUE(module->RefreshPolicy(POLICY_KEY, "", "a", current));
    const Policy* const installed = current;
    ASSERT_TRUE(module->RefreshPolicy(POLICY_KEY, "", "a", current));
    EXPECT_NE(current, installed);
    EXPECT_EQ(journal.Count("init a"), 2);
    EXPECT_EQ(journal.Count("uninit a"), 1);
}

TEST_F(ModuleTest, ADisabledPolicyIsInstalledButStartsNothing) {
    const LogRecorder log;
    module->onPolicy = [this](const std::string& document, Policy*&) {
        module->RegisterJournalTasks(journal, {"a", "b"});
        return new TestFeaturePolicy(document, false, &journal);
    };
    EXPECT_TRUE(Refresh("off"));
    EXPECT_NE(current, nullptr);
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_FALSE(journal.Has("init a"));
    EXPECT_FALSE(journal.Has("uninit a"));
    EXPECT_TRUE(journal.Has("destroy a"));
    EXPECT_TRUE(journal.Has("destroy b"));
    EXPECT_EQ(
        log.Count(Poco::Message::PRIO_INFORMATION, "policy [test_feature] is not enabled: 2 tasks are not started"), 1);
}

TEST_F(ModuleTest, ADisabledPolicyEndsTheTasksOfTheEarlierOne) {
    ASSERT_TRUE(Refresh("a"));
    module->onPolicy = [this](const std::string& document, Policy*&) {
        module->RegisterJournalTasks(journal, {"b"});
        return new TestFeaturePolicy(document, false);
    };
    ASSERT_TRUE(Refresh("off"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
}

TEST_F(ModuleTest, ARefusedPolicyLeavesTheInstalledOneAndDropsItsTasks) {
    ASSERT_TRUE(Refresh("a"));
    Policy* const installed = current;
    module->RegisterJournalTasks(journal, {"from before"});
    module->onPolicy = [this](const std::string&, Policy*& installedPolicy) -> Policy* {
        module->RegisterJournalTasks(journal, {"b", "c"});
        installedPolicy->SetSuperseded(true);
        return nullptr;
    };
    EXPECT_FALSE(Refresh("refused"));
    EXPECT_EQ(current, installed);
    EXPECT_FALSE(current->IsSuperseded());
    EXPECT_FALSE(journal.Has("init b"));
    EXPECT_FALSE(journal.Has("uninit b"));
    EXPECT_TRUE(journal.Has("destroy b"));
    EXPECT_TRUE(journal.Has("destroy c"));
    EXPECT_THAT(Names(module->GetRegisteredTasks()), ElementsAre("from before"));
}

TEST_F(ModuleTest, APolicyCallbackThatThrowsRefuses) {
    const LogRecorder log;
    module->onPolicy = [this](const std::string&, Policy*&) -> Policy* {
        module->RegisterJournalTasks(journal, {"a"});
        throw std::runtime_error("broken");
    };
    EXPECT_FALSE(Refresh("a"));
    EXPECT_EQ(current, nullptr);
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "module [test_module]: exception in the policy callback: broken"));
}

TEST_F(ModuleTest, ATaskWhoseInitFailsIsDestroyedAndTheOthersGoOn) {
    const LogRecorder log;
    const std::uint64_t before = Counters::Of("task.init_failures").Get();
    module->onPolicy = [this](const std::string& document, Policy*&) {
        module->RegisterJournalTasks(journal, {"a"});
        auto* failing = new JournalTask(journal, "failing", "failing");
        failing->initResult = false;
        module->RegisterTask(failing, false);
        auto* throwing = new JournalTask(journal, "throwing", "throwing");
        throwing->onInit = [] { throw std::runtime_error("broken"); };
        module->RegisterTask(throwing, false);
        module->RegisterJournalTasks(journal, {"b"});
        return new TestFeaturePolicy(document, true);
    };
    EXPECT_TRUE(Refresh("any"));
    EXPECT_TRUE(WaitUntilRunning("a"));
    EXPECT_TRUE(WaitUntilRunning("b"));
    EXPECT_THAT(Names(module->GetRunningTasks()), ElementsAre("a", "b"));
    EXPECT_TRUE(journal.Has("uninit failing"));
    EXPECT_TRUE(journal.Has("destroy failing"));
    EXPECT_TRUE(journal.Has("destroy throwing"));
    EXPECT_FALSE(Framework::Engine::FindTask("failing"));
    EXPECT_EQ(Counters::Of("task.init_failures").Get(), before + 2);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [failing]: Init failed, it is not started"));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [throwing]: exception in Init: broken"));
}

TEST_F(ModuleTest, ATaskThatStartsAtOnceReportsAFailedInit) {
    auto* failing = new JournalTask(journal, "failing", "failing");
    failing->initResult = false;
    EXPECT_FALSE(module->RegisterTask(failing, true));
    EXPECT_TRUE(journal.Has("destroy failing"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

TEST_F(ModuleTest, WhatUnInitThrowsIsCaught) {
    const LogRecorder log;
    auto* task = new JournalTask(journal, "a", "a");
    task->onUnInit = [] { throw std::runtime_error("broken"); };
    ASSERT_TRUE(module->RegisterTask(task, true));
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_TRUE(journal.Has("destroy a"));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [a]: exception in UnInit: broken"));
}

TEST_F(ModuleTest, OfTwoTasksOfOneNameBothRunAndTheLaterIsFound) {
    module->onPolicy = [this](const std::string& document, Policy*&) {
        module->RegisterTask(new JournalTask(journal, "same", "first"), false);
        module->RegisterTask(new JournalTask(journal, "same", "second"), false);
        return new TestFeaturePolicy(document, true);
    };
    ASSERT_TRUE(Refresh("any"));
    EXPECT_TRUE(WaitUntilRunning("first"));
    EXPECT_TRUE(WaitUntilRunning("second"));
    const auto running = module->GetRunningTasks();
    ASSERT_THAT(running, SizeIs(2));
    EXPECT_EQ(Framework::Engine::FindTask("same")->GetInstanceId(), running[1]->GetInstanceId());
}

TEST_F(ModuleTest, AStoppingTaskIsFoundUntilItsUnInitIsOver) {
    bool found = false;
    auto* task = new JournalTask(journal, "a", "a");
    task->onUnInit = [&] { found = Framework::Engine::FindTask("a"); };
    ASSERT_TRUE(module->RegisterTask(task, true));
    module->UnInit();
    EXPECT_TRUE(found);
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
}

TEST_F(ModuleTest, AFoundTaskOutlivesItsEndAsAnObject) {
    ASSERT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    Poco::AutoPtr<Framework::Task> held = Framework::Engine::FindTask("a");
    module->UnInit();
    EXPECT_TRUE(journal.Has("uninit a"));
    EXPECT_FALSE(journal.Has("destroy a"));
    EXPECT_STREQ(held->GetStateName(), "finished");
    held.reset();
    EXPECT_TRUE(journal.Has("destroy a"));
}

TEST_F(ModuleTest, UnInitEndsTheTasksLastFirstAndDropsWhatWasRegistered) {
    ASSERT_TRUE(Refresh("a b"));
    module->RegisterJournalTasks(journal, {"waiting"});
    ASSERT_TRUE(WaitUntilRunning("a"));
    ASSERT_TRUE(WaitUntilRunning("b"));
    journal.Clear();
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_THAT(FrameworkEntries(), ElementsAre("uninit b", "destroy b", "uninit a", "destroy a", "destroy waiting"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
    EXPECT_THAT(module->ListPolicyKeys(), IsEmpty());
    EXPECT_THAT(module->ListTasklets(), IsEmpty());
}

TEST_F(ModuleTest, TheTasksAreAllAskedBeforeTheFirstIsWaitedFor) {
    // Each ends only when the other has been asked too.
    std::atomic<int> asked{0};
    const auto endTogether = [&](ScriptedTask& task) {
        while (task.state() != Poco::Task::TASK_CANCELLING) {
            task.Wait(ScriptedTask::LONG_MS, 16);
        }
        ++asked;
        return WaitFor([&] { return asked == 2; }, std::chrono::seconds(8)) ? 0 : 1;
    };
    auto first = MakeTask("a", endTogether);
    auto second = MakeTask("b", endTogether);
    ASSERT_TRUE(module->RegisterTask(first.duplicate(), true));
    ASSERT_TRUE(module->RegisterTask(second.duplicate(), true));
    ASSERT_TRUE(WaitFor([&] { return first->runs == 1 && second->runs == 1; }));
    const LogRecorder log;
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_WARNING), 0);
}

TEST_F(ModuleTest, ATaskThatDoesNotEndIsLeftBehind) {
    struct Shared {
        std::atomic<bool> running{false};
        std::atomic<bool> mayEnd{false};
        std::atomic<bool> ended{false};
        std::atomic<bool> unInited{false};
    };
    static Shared shared;
    class StubbornTask : public Framework::Task {
    public:
        StubbornTask() : Task("stubborn", "test_feature", Framework::TaskCondition::TaskType::Thread, 4) {}
        int Run() override {
            shared.running = true;
            WaitFor([] { return shared.mayEnd.load(); }, std::chrono::minutes(1));
            shared.ended = true;
            return 0;
        }
        bool UnInit() override {
            shared.unInited = true;
            return true;
        }
    };
    const LogRecorder log;
    const std::uint64_t before = Counters::Of("task.abandoned").Get();
    ASSERT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    ASSERT_TRUE(module->RegisterTask(new StubbornTask, true));
    ASSERT_TRUE(WaitFor([] { return shared.running.load(); }));
    EXPECT_NE(module->UnInit(), 0);
    EXPECT_FALSE(shared.unInited);
    EXPECT_FALSE(Framework::Engine::FindTask("stubborn"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_EQ(Counters::Of("task.abandoned").Get(), before + 1);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR,
                        "task [stubborn] did not end within 10 seconds after it was asked to: it is left behind"));
    // The tasks that did end were ended in order.
    EXPECT_TRUE(journal.Has("uninit a"));
    EXPECT_TRUE(journal.Has("destroy a"));
    shared.mayEnd = true;
    EXPECT_TRUE(WaitFor([] { return shared.ended.load(); }));
}

TEST_F(ModuleTest, AModuleThatIsReleasedWithoutUnInitEndsItsTasks) {
    Poco::AutoPtr<TestModule> other(new TestModule("other"));
    ASSERT_TRUE(other->RegisterTask(new JournalTask(journal, "a", "a"), true));
    other.reset();
    EXPECT_TRUE(journal.Has("uninit a"));
    EXPECT_TRUE(journal.Has("destroy a"));
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
}

TEST_F(ModuleTest, PocosSideOfTheLifeCallsInitAndUnInit) {
    class OpenModule : public TestModule {
    public:
        using TestModule::initialize;
        using TestModule::TestModule;
        using TestModule::uninitialize;
    };
    Poco::AutoPtr<OpenModule> other(new OpenModule("other"));
    bool unInited = false;
    other->onUnInit = [&] { unInited = true; };
    other->initialize(engine);
    EXPECT_TRUE(other->HasPolicy(POLICY_KEY));
    other->uninitialize();
    EXPECT_TRUE(unInited);
    EXPECT_FALSE(other->HasPolicy(POLICY_KEY));
}

TEST(ModuleWithoutAnEngine, RunsItsTasksButNobodyFindsThem) {
    Journal journal;
    Poco::AutoPtr<TestModule> module(new TestModule);
    module->onPolicy = [&](const std::string& document, Policy*&) {
        module->RegisterJournalTasks(journal, {"a"});
        return new TestFeaturePolicy(document, true);
    };
    module->Init();
    Policy* current = nullptr;
    ASSERT_TRUE(module->RefreshPolicy(POLICY_KEY, "hash", "hash", current));
    const std::unique_ptr<Policy> installed(current);
    EXPECT_TRUE(WaitFor([&] { return journal.Has("run a period 1"); }));
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
    EXPECT_EQ(module->UnInit(), 0);
}
