#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestModule.h"
#include "framework/Engine.h"
#include "support/WaitFor.h"

using namespace FrameworkTest;
using Framework::Policy;
using TestSupport::WaitFor;

namespace {

// Threads that do something over and over until the end of the scope.
class Crowd {
public:
    template <typename Action> void Add(const Action& action) {
        mThreads.emplace_back([this, action] {
            while (!mEnd.load()) {
                action();
            }
        });
    }

    ~Crowd() { End(); }

    void End() {
        mEnd = true;
        for (std::thread& thread : mThreads) {
            thread.join();
        }
        mThreads.clear();
    }

private:
    std::atomic<bool> mEnd{false};
    std::vector<std::thread> mThreads;
};

} // namespace

TEST(EngineStress, OthersFindSendToAndLookAtTasksThatComeAndGo) {
    constexpr int ROUNDS = 200;
    Framework::Engine engine;
    auto* module = new TestModule;
    engine.AddModule(module);
    ASSERT_EQ(engine.InitModules(), 0);
    module->onPolicy = [&](const std::string&, Policy*&) {
        for (const char* name : {"a", "b", "c"}) {
            module->RegisterTask(new ScriptedTask(name), false);
        }
        return new TestFeaturePolicy("", true);
    };

    std::atomic<std::uint64_t> found{0};
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> looks{0};
    std::atomic<int> made{0};
    std::atomic<int> destroyed{0};
    auto sender = MakeTask("sender");
    Crowd crowd;
    crowd.Add([&] {
        const Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask("b");
        if (task) {
            EXPECT_EQ(task->name(), "b");
            found.fetch_add(1);
        }
    });
    for (int thread = 0; thread < 2; ++thread) {
        crowd.Add([&] {
            made.fetch_add(1);
            if (sender->SendDirectMsg("c", new NumberMessage(1, &destroyed))) {
                sent.fetch_add(1);
            }
        });
    }
    crowd.Add([&] {
        EXPECT_LE(engine.CollectStatus()["tasks"].size(), 3U);
        looks.fetch_add(1);
    });

    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(engine.DeliverPolicy(POLICY_KEY, "{}").accepted);
    }
    // On a loaded machine the rounds may be over before the others came to anything.
    EXPECT_TRUE(WaitFor([&] { return found > 0 && sent > 0 && looks > 0; }));
    crowd.End();
    engine.UnInitModules();
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
    EXPECT_EQ(destroyed, made);
}

TEST(EngineStress, AStopAtAnyMomentOfTheStartEndsTheTask) {
    constexpr int ROUNDS = 500;
    Framework::Engine engine;
    auto* module = new TestModule;
    engine.AddModule(module);
    ASSERT_EQ(engine.InitModules(), 0);
    std::atomic<int> runs{0};
    module->onPolicy = [&](const std::string&, Policy*&) {
        module->RegisterTask(new ScriptedTask("sleeper",
                                              [&](ScriptedTask& task) {
                                                  ++runs;
                                                  task.Sleep(ScriptedTask::LONG_MS);
                                                  return 0;
                                              }),
                             false);
        return new TestFeaturePolicy("", true);
    };
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(engine.DeliverPolicy(POLICY_KEY, "{}").accepted);
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(round % 200);
        while (std::chrono::steady_clock::now() < until) {
        }
    }
    engine.UnInitModules();
    EXPECT_GT(runs, 0);
    EXPECT_LE(runs, ROUNDS);
}

TEST(EngineStress, EveryMessageIsHandledOrCountedAsLost) {
    constexpr int SENDERS = 4;
    constexpr int MESSAGES = 20000;
    Framework::Engine engine;
    auto* module = new TestModule;
    engine.AddModule(module);
    auto* receiver = new ScriptedTask("receiver", ScriptedTask::HandleMessagesUntilStopped, 64);
    std::atomic<std::uint64_t> handled{0};
    receiver->onMessage = [&](int) { handled.fetch_add(1); };
    ASSERT_TRUE(module->RegisterTask(receiver, true));
    std::atomic<std::uint64_t> accepted{0};
    std::vector<std::thread> senders;
    senders.reserve(SENDERS);
    for (int sender = 0; sender < SENDERS; ++sender) {
        senders.emplace_back([&] {
            for (int i = 0; i < MESSAGES; ++i) {
                accepted += Enqueue(*receiver, i) ? 1U : 0U;
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(WaitFor([&] { return handled == accepted; }));
    EXPECT_EQ(accepted + receiver->GetLostCount(), static_cast<std::uint64_t>(SENDERS) * MESSAGES);
    engine.UnInitModules();
}
