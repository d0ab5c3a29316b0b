#include "framework/Task.h"

#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestTasks.h"
#include "framework/Counters.h"
#include "modules/AbstractMessageReceiver.h"
#include "modules/ProcsMessage.h"
#include "sdk/Shortage.h"
#include "support/AllocationCounter.h"
#include "support/LogRecorder.h"
#include "support/WaitFor.h"

using namespace FrameworkTest;
using Framework::Counters;
using Framework::Task;
using Framework::TaskCondition;
using testing::ElementsAre;
using TestSupport::LogRecorder;
using TestSupport::WaitFor;

namespace {

using Clock = std::chrono::steady_clock;

// How much a counter grew since the object was made.
class Growth {
public:
    explicit Growth(const std::string& name) : mCounter(Counters::Of(name)), mBefore(mCounter.Get()) {}
    std::uint64_t Now() const { return mCounter.Get() - mBefore; }

private:
    Framework::Counter& mCounter;
    const std::uint64_t mBefore;
};

class ReceiverTask : public Task, public Engine::AbstractMessageReceiver {
public:
    ReceiverTask() : Task("receiver", "test_feature", TaskCondition::TaskType::Thread, 16) {}
    int Run() override { return 0; }
    void ProcsMessageAction(int pid, unsigned int, std::shared_ptr<Engine::ProcsMessage::procInfo>) override {
        pids.push_back(pid);
    }
    std::vector<int> pids;
};

class InterceptingTask : public ScriptedTask {
public:
    using ScriptedTask::ScriptedTask;
    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const int number = dynamic_cast<const NumberMessage&>(*message).Number();
        if (number < 0) {
            taken = message;
            return true;
        }
        return false;
    }
    std::shared_ptr<Framework::Message> taken;
};

} // namespace

TEST(Task, KnowsWhatItWasConstructedWith) {
    const auto task = MakeTask("a_task", ScriptedTask::HandleMessagesUntilStopped, 5);
    EXPECT_EQ(task->name(), "a_task");
    EXPECT_EQ(task->GetFeatureName(), "test_feature");
    EXPECT_EQ(task->GetQueueCapacity(), 5U);
    EXPECT_EQ(task->GetQueueDepth(), 0U);
    EXPECT_EQ(task->GetLostCount(), 0U);
}

TEST(Task, TwoTasksOfOneNameHaveDifferentInstances) {
    EXPECT_NE(MakeTask("same")->GetInstanceId(), MakeTask("same")->GetInstanceId());
}

TEST(Task, InitAndUnInitSucceedByDefault) {
    auto task = MakeTask("task");
    EXPECT_TRUE(task->Init());
    EXPECT_TRUE(task->UnInit());
}

TEST(Task, WithoutAPeriodRunIsCalledOnceAndLastsUntilTheStop) {
    auto task = MakeTask("task");
    EXPECT_STREQ(task->GetStateName(), "idle");
    TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    EXPECT_STREQ(task->GetStateName(), "running");
    EXPECT_EQ(task->state(), Poco::Task::TASK_RUNNING);
    thread.Stop();
    EXPECT_EQ(task->runs, 1);
    EXPECT_STREQ(task->GetStateName(), "finished");
}

TEST(Task, ATaskThatWasAskedToStopIsStopping) {
    std::atomic<bool> mayEnd{false};
    auto task = MakeTask("task", [&](ScriptedTask&) {
        WaitFor([&] { return mayEnd.load(); });
        return 0;
    });
    TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    task->RequestStop();
    EXPECT_EQ(task->state(), Poco::Task::TASK_CANCELLING);
    EXPECT_TRUE(task->isCancelled());
    EXPECT_STREQ(task->GetStateName(), "stopping");
    mayEnd = true;
}

TEST(Task, AStopBeforeTheThreadBeginsHolds) {
    auto task = MakeTask("task");
    task->RequestStop();
    task->runTask();
    EXPECT_EQ(task->runs, 0);
    EXPECT_STREQ(task->GetStateName(), "finished");
}

TEST(Task, AStopBeforeTheThreadBeginsHoldsForAPeriodicTask) {
    auto task = MakeTask("task");
    task->GetCondition().SetPeriod(3600);
    task->RequestStop();
    task->runTask();
    EXPECT_EQ(task->runs, 0);
}

TEST(Task, APocoCancelBeforeAPocoRunHolds) {
    auto task = MakeTask("task");
    task->cancel();
    task->run();
    EXPECT_EQ(task->runs, 0);
}

TEST(Task, AStopEndsASleepAtOnceAndEveryLaterOne) {
    std::atomic<int> cancelledSleeps{0};
    auto task = MakeTask("task", [&](ScriptedTask& self) {
        for (int i = 0; i < 3; ++i) {
            cancelledSleeps += self.Sleep(ScriptedTask::LONG_MS) ? 1 : 0;
        }
        return 0;
    });
    TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    thread.Stop();
    EXPECT_EQ(cancelledSleeps, 3);
}

TEST(Task, AStopWakesATaskThatWaitsForMessages) {
    auto task = MakeTask("task", [](ScriptedTask& self) {
        self.Wait(ScriptedTask::LONG_MS, 16);
        return 0;
    });
    TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    thread.Stop();
    EXPECT_STREQ(task->GetStateName(), "finished");
}

TEST(Task, AStopEndsTheWaitForTheNextPeriodAtOnce) {
    auto task = MakeTask("task");
    task->GetCondition().SetPeriod(3600);
    TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->state() == Poco::Task::TASK_RUNNING; }));
    thread.Stop();
    EXPECT_EQ(task->runs, 0);
}

TEST(Task, TheFirstPeriodicRunComesAFullPeriodAfterTheStart) {
    std::atomic<std::int64_t> firstRunMs{-1};
    const Clock::time_point start = Clock::now();
    auto task = MakeTask("task", [&](ScriptedTask&) {
        std::int64_t none = -1;
        firstRunMs.compare_exchange_strong(
            none, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
        return 0;
    });
    task->GetCondition().SetPeriod(1);
    TaskThread thread(*task);
    // A second run proves that it is called once a period and not once.
    ASSERT_TRUE(WaitFor([&] { return task->runs >= 2; }));
    EXPECT_GE(firstRunMs, 990);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1990));
}

TEST(Task, ANonZeroResultOfRunIsLogged) {
    const LogRecorder log;
    auto task = MakeTask("task", [](ScriptedTask&) { return 7; });
    task->runTask();
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, "task [task]: Run returned 7"));
}

TEST(Task, WhatRunThrowsIsCaughtLoggedAndCounted) {
    const LogRecorder log;
    const Growth exceptions("task.exceptions");
    auto task = MakeTask("task", [](ScriptedTask&) -> int { throw std::runtime_error("broken"); });
    task->runTask();
    EXPECT_EQ(exceptions.Now(), 1U);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [task]: exception in Run: broken"));
    EXPECT_STREQ(task->GetStateName(), "finished");
}

TEST(Task, APeriodicTaskGoesOnAfterAnException) {
    auto task = MakeTask("task", [](ScriptedTask&) -> int { throw 5; });
    task->GetCondition().SetPeriod(1);
    TaskThread thread(*task);
    EXPECT_TRUE(WaitFor([&] { return task->runs >= 2; }));
}

TEST(Task, WhatAHandlerThrowsCostsOneMessageOnly) {
    const LogRecorder log;
    const Growth exceptions("task.exceptions");
    auto task = MakeTask("task");
    task->onMessage = [](int number) {
        if (number == 1) {
            throw std::runtime_error("one");
        }
        if (number == 2) {
            throw 2;
        }
    };
    for (int number = 0; number < 4; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
    }
    EXPECT_EQ(task->BulkConsumeMsg(10), 4);
    EXPECT_THAT(task->Numbers(), ElementsAre(0, 3));
    EXPECT_EQ(exceptions.Now(), 2U);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [task]: exception in HandleMsg: one"));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "task [task]: exception in HandleMsg: of an unknown type"));
}

TEST(Task, AMessageWakesTheTask) {
    auto task = MakeTask("task");
    const TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    ASSERT_TRUE(Enqueue(*task, 1));
    EXPECT_TRUE(WaitFor([&] { return task->Numbers() == std::vector<int>{1}; }));
}

TEST(Task, AQuietMessageWaitsUntilTheTaskIsWoken) {
    auto task = MakeTask("task");
    const TaskThread thread(*task);
    ASSERT_TRUE(WaitFor([&] { return task->runs == 1; }));
    std::shared_ptr<Framework::Message> message = std::make_shared<NumberMessage>(1);
    ASSERT_TRUE(task->EnqueueMsgQuietly(message));
    EXPECT_EQ(task->GetQueueDepth(), 1U);
    task->Wake();
    EXPECT_TRUE(WaitFor([&] { return task->Numbers() == std::vector<int>{1}; }));
}

TEST(Task, MessagesAreHandledOnTheTasksThreadOnly) {
    auto task = MakeTask("task");
    std::atomic<std::thread::id> handler{};
    task->onMessage = [&](int) { handler = std::this_thread::get_id(); };
    const TaskThread thread(*task);
    ASSERT_TRUE(Enqueue(*task, 1));
    ASSERT_TRUE(WaitFor([&] { return task->Numbers().size() == 1; }));
    EXPECT_NE(handler.load(), std::thread::id());
    EXPECT_NE(handler.load(), std::this_thread::get_id());
}

TEST(Task, EachSendersMessagesKeepTheirOrder) {
    constexpr int SENDERS = 4;
    constexpr int MESSAGES = 5000;
    auto task = MakeTask("task", ScriptedTask::HandleMessagesUntilStopped, SENDERS * MESSAGES);
    const TaskThread thread(*task);
    std::vector<std::thread> senders;
    senders.reserve(SENDERS);
    for (int sender = 0; sender < SENDERS; ++sender) {
        senders.emplace_back([&task, sender] {
            for (int i = 0; i < MESSAGES; ++i) {
                EXPECT_TRUE(Enqueue(*task, sender * MESSAGES + i));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_TRUE(WaitFor([&] { return static_cast<int>(task->Numbers().size()) == SENDERS * MESSAGES; }));
    std::vector<int> next(SENDERS, 0);
    for (const int number : task->Numbers()) {
        EXPECT_EQ(number % MESSAGES, next[static_cast<std::size_t>(number / MESSAGES)]++);
    }
}

TEST(Task, AFullQueueRefusesCountsAndLogsOnce) {
    const LogRecorder log;
    const Growth lost("queue.lost");
    auto task = MakeTask("task", ScriptedTask::HandleMessagesUntilStopped, 4);
    for (int number = 0; number < 4; ++number) {
        EXPECT_TRUE(Enqueue(*task, number));
    }
    EXPECT_EQ(task->GetQueueDepth(), 4U);
    // The sender is this thread and nobody takes: were it made to wait, the test would not end.
    EXPECT_FALSE(Enqueue(*task, 4));
    EXPECT_FALSE(Enqueue(*task, 5));
    EXPECT_EQ(task->GetLostCount(), 2U);
    EXPECT_EQ(lost.Now(), 2U);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, "task [task]: the queue of 4 messages is full, 1 lost so far"));
    EXPECT_EQ(task->BulkConsumeMsg(10), 4);
    EXPECT_THAT(task->Numbers(), ElementsAre(0, 1, 2, 3));
    EXPECT_TRUE(Enqueue(*task, 6));
}

TEST(Task, LossesAreLoggedAtMostOnceASecond) {
    const LogRecorder log;
    auto task = MakeTask("task", ScriptedTask::HandleMessagesUntilStopped, 1);
    ASSERT_TRUE(Enqueue(*task, 0));
    const Clock::time_point start = Clock::now();
    while (Clock::now() - start < std::chrono::milliseconds(1500)) {
        EXPECT_FALSE(Enqueue(*task, 1));
    }
    const auto wholeSeconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
    const long records = log.CountAt(Poco::Message::PRIO_WARNING);
    EXPECT_GE(records, 2);
    EXPECT_LE(records, wholeSeconds + 1);
}

TEST(Task, AQueueWithoutCapacityRefusesEverything) {
    auto task = MakeTask("task", ScriptedTask::HandleMessagesUntilStopped, 0);
    EXPECT_FALSE(Enqueue(*task, 1));
    EXPECT_EQ(task->GetLostCount(), 1U);
}

TEST(Task, ANullMessageIsRefusedAndIsNoLoss) {
    auto task = MakeTask("task");
    std::shared_ptr<Framework::Message> none;
    EXPECT_FALSE(task->EnqueueMsg(none));
    EXPECT_EQ(task->GetQueueDepth(), 0U);
    EXPECT_EQ(task->GetLostCount(), 0U);
}

TEST(Task, NoMoreThanTheMaximumIsConsumed) {
    auto task = MakeTask("task");
    for (int number = 0; number < 5; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
    }
    EXPECT_EQ(task->BulkConsumeMsg(0), 0);
    EXPECT_EQ(task->BulkConsumeMsg(-1), 0);
    EXPECT_EQ(task->BulkConsumeMsg(2), 2);
    EXPECT_THAT(task->Numbers(), ElementsAre(0, 1));
    EXPECT_EQ(task->GetQueueDepth(), 3U);
    EXPECT_EQ(task->BulkConsumeMsg(10), 3);
    EXPECT_EQ(task->BulkConsumeMsg(10), 0);
}

TEST(Task, MessagesBeyondTheMaximumAreHandledWithoutANewSignal) {
    auto task = MakeTask("task");
    for (int number = 0; number < 5; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
    }
    EXPECT_EQ(task->Wait(0, 2), 2);
    EXPECT_EQ(task->Wait(0, 2), 2);
    EXPECT_EQ(task->Wait(0, 2), 1);
    EXPECT_EQ(task->Wait(0, 2), -1);
}

TEST(Task, MoreMessagesThanAreTakenOutAtOnceAreConsumedInOrder) {
    constexpr int MESSAGES = 300;
    auto task = MakeTask("task", ScriptedTask::HandleMessagesUntilStopped, MESSAGES);
    std::vector<int> sent;
    for (int number = 0; number < MESSAGES; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
        sent.push_back(number);
    }
    EXPECT_EQ(task->BulkConsumeMsg(299), 299);
    EXPECT_EQ(task->BulkConsumeMsg(MESSAGES), 1);
    EXPECT_EQ(task->Numbers(), sent);
}

TEST(Task, AHandlerMayConsumeItself) {
    auto task = MakeTask("task");
    task->onMessage = [&](int number) {
        if (number == 0) {
            EXPECT_EQ(task->BulkConsumeMsg(1), 1);
        }
    };
    for (int number = 0; number < 4; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
    }
    EXPECT_EQ(task->BulkConsumeMsg(2), 2);
    EXPECT_EQ(task->BulkConsumeMsg(2), 1);
    EXPECT_THAT(task->Numbers(), ElementsAre(2, 0, 1, 3));
}

// A handler that finds no memory costs its own message: those behind it are handled, in this bulk and later ones.
TEST(TaskWithoutMemory, GoesOnWithTheNextMessage) {
    auto task = MakeTask("task");
    std::vector<int> handled;
    handled.reserve(4);
    task->onMessage = [&](int number) {
        if (number == 1) {
            const std::vector<int> refused(1000);
        }
        handled.push_back(number);
        throw number; // before the task itself asks for memory
    };
    for (int number = 0; number < 4; ++number) {
        ASSERT_TRUE(Enqueue(*task, number));
    }
    const std::uint64_t shortagesBefore = SDK::Shortage::Count();
    {
        const TestSupport::NoMemory none;
        EXPECT_EQ(task->Wait(0, 2), 2);
        EXPECT_EQ(task->BulkConsumeMsg(16), 2);
    }
    EXPECT_THAT(handled, ElementsAre(0, 2, 3));
    EXPECT_GT(SDK::Shortage::Count(), shortagesBefore);
}

TEST(TaskWithoutMemory, RunsOn) {
    auto task = MakeTask("task");
    std::optional<TestSupport::NoMemory> none; // of the task's thread
    std::atomic<bool> begun{false};
    task->onMessage = [&](int number) {
        if (number == 0) {
            none.emplace();
            begun = true;
            throw std::bad_alloc();
        }
        none.reset();
    };
    const TaskThread thread(*task);
    ASSERT_TRUE(Enqueue(*task, 0));
    ASSERT_TRUE(WaitFor([&] { return begun.load(); }));
    ASSERT_TRUE(Enqueue(*task, 1));
    EXPECT_TRUE(WaitFor([&] { return task->Numbers() == std::vector<int>{1}; }));
}

TEST(Task, AnInterceptedMessageNeverReachesTheQueue) {
    const Poco::AutoPtr<InterceptingTask> held(new InterceptingTask("task"));
    auto task = held;
    EXPECT_TRUE(Enqueue(*task, -1));
    EXPECT_TRUE(Enqueue(*task, 1));
    EXPECT_TRUE(task->taken);
    EXPECT_EQ(task->GetQueueDepth(), 1U);
    EXPECT_EQ(task->BulkConsumeMsg(10), 1);
    EXPECT_THAT(task->Numbers(), ElementsAre(1));
}

TEST(Task, OfSeveralMessagesTheFirstOnesAreTakenAndTheRestAreLost) {
    Poco::AutoPtr<InterceptingTask> task(new InterceptingTask("task", ScriptedTask::HandleMessagesUntilStopped, 4));
    const Growth lost("queue.lost");
    std::vector<std::shared_ptr<Framework::Message>> messages;
    for (const int number : {1, -1, 2, 3, 4, 5, 6}) {
        messages.push_back(std::make_shared<NumberMessage>(number));
    }
    // Four in the queue, and the one that never gets there.
    EXPECT_EQ(task->EnqueueMsgs(messages), 5U);
    EXPECT_TRUE(task->taken);
    EXPECT_EQ(task->GetLostCount(), 2U);
    EXPECT_EQ(lost.Now(), 2U);
    EXPECT_EQ(task->Wait(0, 16), 4);
    EXPECT_THAT(task->Numbers(), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(task->EnqueueMsgs({}), 0U);
    EXPECT_EQ(task->Wait(0, 16), -1);
}

TEST(Task, TheDefaultHandlerDeliversToTheTasksOwnReceiver) {
    Poco::AutoPtr<ReceiverTask> task(new ReceiverTask);
    std::shared_ptr<Framework::Message> message = std::make_shared<Engine::ProcsMessage>(42, 3, nullptr);
    ASSERT_TRUE(task->EnqueueMsg(message));
    EXPECT_EQ(task->BulkConsumeMsg(1), 1);
    EXPECT_THAT(task->pids, ElementsAre(42));
    EXPECT_EQ(task->HandleMsg(message.get()), 0);
    EXPECT_EQ(task->HandleMsg(nullptr), -1);
}

TEST(Task, TheDefaultHandlerOfATaskThatReceivesNothingSaysSo) {
    class DeafTask : public Task {
    public:
        DeafTask() : Task("deaf", "test_feature", TaskCondition::TaskType::Thread, 1) {}
        int Run() override { return 0; }
    };
    Poco::AutoPtr<DeafTask> task(new DeafTask);
    const NumberMessage message(1);
    EXPECT_EQ(task->HandleMsg(&message), -1);
}

TEST(Task, AHandledMessageIsReleasedAtOnce) {
    std::atomic<int> destroyed{0};
    auto task = MakeTask("task");
    std::vector<int> destroyedBefore;
    task->onMessage = [&](int) { destroyedBefore.push_back(destroyed); };
    for (int number = 0; number < 3; ++number) {
        std::shared_ptr<Framework::Message> message = std::make_shared<NumberMessage>(number, &destroyed);
        ASSERT_TRUE(task->EnqueueMsg(message));
    }
    task->BulkConsumeMsg(3);
    EXPECT_THAT(destroyedBefore, ElementsAre(0, 1, 2));
    EXPECT_EQ(destroyed, 3);
}

TEST(Task, UnhandledMessagesAreReleasedWithTheTask) {
    std::atomic<int> destroyed{0};
    {
        auto task = MakeTask("task");
        std::shared_ptr<Framework::Message> message = std::make_shared<NumberMessage>(1, &destroyed);
        ASSERT_TRUE(task->EnqueueMsg(message));
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Task, ADirectMessageToNobodyIsDeletedAndCounted) {
    std::atomic<int> destroyed{0};
    const Growth undeliverable("messages.undeliverable");
    auto task = MakeTask("task");
    EXPECT_FALSE(task->SendDirectMsg("nobody", new NumberMessage(1, &destroyed)));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(undeliverable.Now(), 1U);
}
