#include "framework/Engine.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestModule.h"
#include "framework/Counters.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

using namespace FrameworkTest;
using Framework::Counters;
using Framework::Policy;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::LogRecorder;
using TestSupport::TempDir;
using TestSupport::WaitFor;

namespace {

SDK::ModuleLog moduleLog("engine_test");

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text, value), 0) << text;
    return value;
}

// An engine with one module. Its policy documents: {"feature_hash", "enabled", "tasks": [NAME…],
// "content"}; "refuse" (a text) refuses after the tasks were registered and logs the text if there is
// any, "complain" (a text) logs an error and accepts.
class EngineTest : public testing::Test {
protected:
    EngineTest() : engine(std::make_unique<Framework::Engine>()), module(new TestModule) {
        module->onPolicy = [this](const std::string& text, Policy*&) { return MakePolicy(text); };
        engine->AddModule(module);
        EXPECT_EQ(engine->InitModules(), 0);
    }

    Policy* MakePolicy(const std::string& text) {
        Json::Value document;
        if (SDK::JsonUtils::ParseJsonStr(text, document) != 0 || !document.isObject()) {
            return nullptr;
        }
        for (const Json::Value& name : document["tasks"]) {
            module->RegisterJournalTasks(journal, {name.asString()});
        }
        if (document.isMember("refuse")) {
            if (!document["refuse"].asString().empty()) {
                moduleLog.Error("%s", document["refuse"].asString());
                moduleLog.Warning("a warning is no reason");
                moduleLog.Error("second thoughts");
            }
            return nullptr;
        }
        if (document.isMember("complain")) {
            moduleLog.Error("%s", document["complain"].asString());
        }
        return new TestFeaturePolicy(document["feature_hash"].asString(), document["enabled"] != "no", &journal);
    }

    Framework::Engine::Outcome Deliver(const std::string& document) {
        return engine->DeliverPolicy(POLICY_KEY, document);
    }

    std::vector<std::string> RunningTasks() const {
        std::vector<std::string> names;
        const Json::Value status = engine->CollectStatus();
        for (const Json::Value& task : status["tasks"]) {
            names.push_back(task["name"].asString());
        }
        return names;
    }

    // What messages and tasks write to outlives the engine, which destroys the last of them.
    Journal journal;
    std::atomic<int> destroyed{0};
    std::unique_ptr<Framework::Engine> engine;
    // Owned by the engine.
    TestModule* const module;
};

} // namespace

TEST(EngineFindTask, FindsNothingWithoutAnEngine) {
    EXPECT_FALSE(Framework::Engine::FindTask("any"));
}

TEST_F(EngineTest, AnUnknownTaskIsNotFound) {
    EXPECT_FALSE(Framework::Engine::FindTask("any"));
}

TEST_F(EngineTest, ATaskIsFoundWhileItRuns) {
    ASSERT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    const Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask("a");
    ASSERT_TRUE(task);
    EXPECT_EQ(task->name(), "a");
}

TEST_F(EngineTest, TheEndOfTheEngineEndsTheTasks) {
    ASSERT_TRUE(Deliver(R"({"tasks": ["a", "b"]})").accepted);
    journal.Clear();
    engine.reset();
    EXPECT_TRUE(journal.Has("uninit a"));
    EXPECT_TRUE(journal.Has("uninit b"));
    EXPECT_TRUE(journal.Has("destroy policy "));
    EXPECT_FALSE(Framework::Engine::FindTask("a"));
}

TEST_F(EngineTest, AnEngineMayFollowAnother) {
    engine.reset();
    engine = std::make_unique<Framework::Engine>();
    auto* next = new TestModule("next");
    engine->AddModule(next);
    ASSERT_TRUE(next->RegisterTask(new JournalTask(journal, "a", "a"), true));
    EXPECT_TRUE(Framework::Engine::FindTask("a"));
}

TEST_F(EngineTest, AnAcceptedPolicyIsReportedAndShown) {
    const std::string document = R"({"feature_hash": "h1", "tasks": ["a"], "content": {"x": 1}})";
    const std::int64_t before = SDK::TimeUtils::GetCurrentTimestampS();
    const auto outcome = Deliver(document);
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "");
    EXPECT_THAT(outcome.notes, IsEmpty());
    const Json::Value policy = engine->GetPolicy(POLICY_KEY);
    EXPECT_EQ(policy["hash"], "h1");
    EXPECT_EQ(policy["enabled"], true);
    EXPECT_EQ(policy["document"], ParseJson(document));
    EXPECT_GE(policy["accepted_time"].asInt64(), before);
    EXPECT_LE(policy["accepted_time"].asInt64(), SDK::TimeUtils::GetCurrentTimestampS());
}

TEST_F(EngineTest, ThereIsNoPolicyBeforeTheFirst) {
    EXPECT_TRUE(engine->GetPolicy(POLICY_KEY).isNull());
    EXPECT_TRUE(engine->GetPolicy("unknown").isNull());
    EXPECT_FALSE(Deliver("refused").accepted);
    EXPECT_TRUE(engine->GetPolicy(POLICY_KEY).isNull());
}

TEST_F(EngineTest, ADisabledPolicyIsShownAsSuch) {
    ASSERT_TRUE(Deliver(R"({"feature_hash": "h1", "enabled": "no", "tasks": ["a"]})").accepted);
    EXPECT_EQ(engine->GetPolicy(POLICY_KEY)["enabled"], false);
    EXPECT_THAT(RunningTasks(), IsEmpty());
}

TEST_F(EngineTest, TheErrorsLoggedOnTheWayAreTheReason) {
    const auto outcome = Deliver(R"({"refuse": "the reason", "content": {}})");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "the reason; second thoughts");
    EXPECT_THAT(outcome.notes, IsEmpty());
}

TEST_F(EngineTest, ErrorsOfAnAcceptedPolicyAreNotes) {
    const auto outcome = Deliver(R"({"complain": "half of it is nonsense"})");
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "");
    EXPECT_THAT(outcome.notes, ElementsAre("half of it is nonsense"));
}

TEST_F(EngineTest, ARefusalWithoutAWordGetsAReason) {
    EXPECT_EQ(Deliver("no json").reason, "not a JSON object");
    EXPECT_EQ(Deliver("[]").reason, "not a JSON object");
    EXPECT_EQ(Deliver(R"({"refuse": ""})").reason, "no \"content\" object");
    EXPECT_EQ(Deliver(R"({"refuse": "", "content": 5})").reason, "no \"content\" object");
    EXPECT_EQ(Deliver(R"({"refuse": "", "content": {}})").reason, "refused by module test_module without a reason");
}

TEST_F(EngineTest, APolicyForNobodyIsRefused) {
    const auto outcome = engine->DeliverPolicy("unknown", "{}");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "no module takes policies under key unknown");
}

TEST_F(EngineTest, APolicyCallbackThatThrowsIsARefusalThatSaysSo) {
    module->onPolicy = [](const std::string&, Policy*&) -> Policy* { throw std::runtime_error("broken"); };
    const auto outcome = Deliver("{}");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.reason, HasSubstr("broken"));
}

TEST_F(EngineTest, ARefusedPolicyThatEndedTasksBringsTheInstalledOneBack) {
    const LogRecorder log;
    const std::string good = R"({"feature_hash": "good", "tasks": ["a", "b"]})";
    ASSERT_TRUE(Deliver(good).accepted);
    const Json::Value installed = engine->GetPolicy(POLICY_KEY);
    const std::uint64_t instance = Framework::Engine::FindTask("a")->GetInstanceId();
    journal.Clear();

    const auto outcome = Deliver(R"({"feature_hash": "bad", "tasks": ["c"], "refuse": "no"})");

    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "no; second thoughts");
    EXPECT_TRUE(journal.Has("destroy a"));
    EXPECT_FALSE(journal.Has("init c"));
    EXPECT_THAT(RunningTasks(), ElementsAre("a", "b"));
    EXPECT_NE(Framework::Engine::FindTask("a")->GetInstanceId(), instance);
    EXPECT_EQ(engine->GetPolicy(POLICY_KEY), installed);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING, "module [test_module]: a refused policy under key [10001] had "
                                                     "ended tasks, the installed one was delivered again"),
              1);
    EXPECT_TRUE(WaitFor([&] { return journal.Has("run a period 1") && journal.Has("run b period 1"); }));
}

TEST_F(EngineTest, ARefusedPolicyThatEndedNothingChangesNothing) {
    ASSERT_TRUE(Deliver(R"({"feature_hash": "good", "tasks": ["a"]})").accepted);
    ASSERT_TRUE(WaitFor([&] { return journal.Has("run a period 1"); }));
    journal.Clear();
    EXPECT_FALSE(Deliver(R"({"feature_hash": "bad", "refuse": "no"})").accepted);
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(engine->GetPolicy(POLICY_KEY)["hash"], "good");
}

TEST_F(EngineTest, AnInstalledPolicyThatIsRefusedTheSecondTimeIsAnError) {
    const LogRecorder log;
    ASSERT_TRUE(Deliver(R"({"feature_hash": "good", "tasks": ["a"]})").accepted);
    module->onPolicy = [this](const std::string&, Policy*&) -> Policy* {
        module->RegisterJournalTasks(journal, {"b"});
        return nullptr;
    };
    EXPECT_FALSE(Deliver("{}").accepted);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR,
                        "module [test_module] refused its installed policy under key [10001]: its tasks stand still"));
    EXPECT_EQ(engine->GetPolicy(POLICY_KEY)["hash"], "good");
}

TEST_F(EngineTest, TheSameHashIsAcceptedAndChangesNothing) {
    const std::string document = R"({"feature_hash": "h1", "tasks": ["a"]})";
    ASSERT_TRUE(Deliver(document).accepted);
    const std::uint64_t instance = Framework::Engine::FindTask("a")->GetInstanceId();
    EXPECT_TRUE(Deliver(document).accepted);
    EXPECT_EQ(Framework::Engine::FindTask("a")->GetInstanceId(), instance);
    EXPECT_EQ(journal.Count("init a"), 1);
}

TEST_F(EngineTest, AnEmptyHashIsAppliedEachTime) {
    ASSERT_TRUE(Deliver(R"({"tasks": ["a"]})").accepted);
    ASSERT_TRUE(Deliver(R"({"tasks": ["a"]})").accepted);
    EXPECT_EQ(journal.Count("init a"), 2);
    EXPECT_THAT(RunningTasks(), ElementsAre("a"));
}

TEST_F(EngineTest, ACommandIsHandedOnAndItsResultReported) {
    std::string received;
    module->onCommand = [&](const std::string& text) {
        received = text;
        return 0;
    };
    const auto outcome = engine->DeliverCommand(COMMAND_KEY, "the text");
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "");
    EXPECT_EQ(received, "the text");
}

TEST_F(EngineTest, ACommandThatLoggedErrorsButWasDoneHasNotes) {
    module->onCommand = [](const std::string&) {
        moduleLog.Error("one entry was unreadable");
        return 0;
    };
    const auto outcome = engine->DeliverCommand(COMMAND_KEY, "text");
    EXPECT_TRUE(outcome.accepted);
    EXPECT_THAT(outcome.notes, ElementsAre("one entry was unreadable"));
}

TEST_F(EngineTest, ARefusedCommandHasAReason) {
    module->onCommand = [](const std::string& text) {
        if (text == "loud") {
            moduleLog.Error("I will not");
        }
        return -1;
    };
    EXPECT_FALSE(engine->DeliverCommand(COMMAND_KEY, "loud").accepted);
    EXPECT_EQ(engine->DeliverCommand(COMMAND_KEY, "loud").reason, "I will not");
    EXPECT_EQ(engine->DeliverCommand(COMMAND_KEY, "quiet").reason, "refused by module test_module without a reason");
    EXPECT_EQ(engine->DeliverCommand(COMMAND_KEY, "").reason,
              "refused by module test_module: the command came without a document");
}

TEST_F(EngineTest, ACommandForNobodyIsRefused) {
    const auto outcome = engine->DeliverCommand("unknown", "text");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "no module takes commands under key unknown");
}

TEST_F(EngineTest, ACommandThatThrowsIsRefused) {
    module->onCommand = [](const std::string&) -> int { throw std::runtime_error("broken"); };
    const auto outcome = engine->DeliverCommand(COMMAND_KEY, "text");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.reason, HasSubstr("broken"));
}

TEST_F(EngineTest, DeliveriesTakeTurns) {
    std::atomic<int> inside{0};
    std::atomic<int> collisions{0};
    module->onCommand = [&](const std::string&) {
        collisions += inside.fetch_add(1) == 0 ? 0 : 1;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        inside.fetch_sub(1);
        return 0;
    };
    constexpr int THREADS = 4;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_TRUE(engine->DeliverCommand(COMMAND_KEY, "text").accepted);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(collisions, 0);
}

TEST_F(EngineTest, AnswersOfAnInspectorAreHandedOn) {
    class Inspector : public Framework::ModuleInspector {
    public:
        Json::Value Ask(const Json::Value& request) override {
            if (request["query"] == "throw") {
                throw std::runtime_error("broken");
            }
            return request;
        }
    };
    engine->AddModule(new TestModule("asked_module"), new Inspector);
    Json::Value request;
    request["query"] = "echo";
    EXPECT_EQ(engine->Ask("asked_module", request), request);
    request["query"] = "throw";
    EXPECT_EQ(engine->Ask("asked_module", request)["error"], "module asked_module threw");
    EXPECT_EQ(engine->Ask("test_module", request)["error"], "module test_module cannot be asked");
    EXPECT_EQ(engine->Ask("no_module", request)["error"], "there is no module no_module");
}

TEST_F(EngineTest, TheStatusShowsAllTasksAndCounters) {
    auto* other = new TestModule("other");
    engine->AddModule(other);
    const auto sleepLong = [](ScriptedTask& task) {
        task.Sleep(ScriptedTask::LONG_MS);
        return 0;
    };
    auto full = MakeTask("full", sleepLong, 2);
    ASSERT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    ASSERT_TRUE(other->RegisterTask(full.duplicate(), true));
    for (int number = 0; number < 3; ++number) {
        Enqueue(*full, number);
    }
    Counters::Of("engine_test.counter").Add(9);
    ASSERT_TRUE(WaitFor([&] { return full->runs == 1; }));
    const Json::Value status = engine->CollectStatus();
    EXPECT_EQ(status["counters"]["engine_test.counter"], Json::UInt64(9));
    EXPECT_THAT(RunningTasks(), ElementsAre("a", "full"));
    EXPECT_EQ(SDK::JsonUtils::JsonToString(status["tasks"][1]),
              R"({"capacity":2,"depth":2,"lost":1,"name":"full","state":"running"})");
}

TEST_F(EngineTest, ModulesAreInitialisedInOrderAndUnInitialisedInReverse) {
    engine.reset();
    engine = std::make_unique<Framework::Engine>();
    for (const std::string name : {"first", "second"}) {
        auto* added = new TestModule(name);
        added->onInit = [this, name] {
            journal.Add("init " + name);
            return 0;
        };
        added->onUnInit = [this, name] { journal.Add("uninit " + name); };
        added->onDestroy = [this, name] { journal.Add("destroy " + name); };
        engine->AddModule(added);
    }
    EXPECT_EQ(engine->InitModules(), 0);
    engine->UnInitModules();
    EXPECT_THAT(journal.Entries(), ElementsAre("init first", "init second", "uninit second", "uninit first",
                                               "destroy second", "destroy first"));
    engine->UnInitModules();
    EXPECT_EQ(journal.Entries().size(), 6U);
}

TEST_F(EngineTest, InitStopsAtTheFirstModuleThatFails) {
    auto* failing = new TestModule("failing");
    failing->onInit = [] { return 77; };
    auto* next = new TestModule("next");
    next->onInit = [this] {
        journal.Add("init next");
        return 0;
    };
    engine->AddModule(failing);
    engine->AddModule(next);
    EXPECT_EQ(engine->InitModules(), 77);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(EngineTest, AnExceptionOfInitCountsAsASoftwareError) {
    const LogRecorder log;
    auto* throwing = new TestModule("throwing");
    throwing->onInit = []() -> int { throw std::runtime_error("broken"); };
    engine->AddModule(throwing);
    EXPECT_EQ(engine->InitModules(), 70);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "module [throwing]: exception in Init: broken"));
}

TEST_F(EngineTest, AnExceptionOfUnInitDoesNotKeepTheOthersFromEnding) {
    auto* throwing = new TestModule("throwing");
    throwing->onUnInit = [] { throw std::runtime_error("broken"); };
    engine->AddModule(throwing);
    ASSERT_TRUE(module->RegisterTask(new JournalTask(journal, "a", "a"), true));
    ASSERT_TRUE(throwing->RegisterTask(new JournalTask(journal, "b", "b"), true));
    engine->UnInitModules();
    EXPECT_TRUE(journal.Has("destroy a"));
    EXPECT_TRUE(journal.Has("destroy b"));
}

TEST_F(EngineTest, NoModuleIsNotAdded) {
    engine->AddModule(nullptr);
    EXPECT_EQ(engine->InitModules(), 0);
}

TEST_F(EngineTest, ALibraryIsLoadedWithItsInspector) {
    std::string reason;
    ASSERT_TRUE(engine->LoadModule(LIBRARY_GOOD, reason)) << reason;
    EXPECT_EQ(engine->InitModules(), 0);
    Json::Value request;
    request["query"] = "mode";
    EXPECT_EQ(engine->Ask("good_module", request)["asked"], "mode");
}

TEST_F(EngineTest, AModuleIsLoadedOnceOnly) {
    std::string reason;
    ASSERT_TRUE(engine->LoadModule(LIBRARY_GOOD, reason));
    EXPECT_FALSE(engine->LoadModule(LIBRARY_GOOD, reason));
    EXPECT_EQ(reason, "a module of the name good_module is loaded already");
}

TEST_F(EngineTest, ABrokenInspectorFactoryCostsTheInspectorOnly) {
    std::string reason;
    EXPECT_TRUE(engine->LoadModule(LIBRARY_BROKEN_INSPECTOR, reason)) << reason;
    EXPECT_EQ(engine->Ask("module_with_broken_inspector", Json::objectValue)["error"],
              "module module_with_broken_inspector cannot be asked");
}

TEST_F(EngineTest, WhatIsNoModuleLibraryIsRefused) {
    const TempDir folder;
    const std::string text = folder.Write("libtext.so", "this is no library\n");
    const std::string missing = folder / "missing.so";
    struct Case {
        std::string path;
        std::string reason;
    };
    for (const Case& refused : std::vector<Case>{
             {"", "no path given"},
             {missing, missing},
             {text, text},
             {LIBRARY_NO_FACTORY, std::string(LIBRARY_NO_FACTORY) + " is no module: it exports no CreateModule"},
             {LIBRARY_NULL_FACTORY, std::string("CreateModule of ") + LIBRARY_NULL_FACTORY + " made no module"},
             {LIBRARY_THROWING_FACTORY, std::string("CreateModule of ") + LIBRARY_THROWING_FACTORY + " threw"},
         }) {
        const LogRecorder log;
        std::string reason;
        EXPECT_FALSE(engine->LoadModule(refused.path, reason)) << refused.path;
        EXPECT_THAT(reason, HasSubstr(refused.reason));
        EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "load module [" + refused.path + "] failed: " + reason));
    }
}

TEST_F(EngineTest, ADirectMessageReachesTheRunningTask) {
    auto* receiver = new ScriptedTask("receiver");
    ASSERT_TRUE(module->RegisterTask(receiver, true));
    auto sender = MakeTask("sender");
    EXPECT_TRUE(sender->SendDirectMsg("receiver", new NumberMessage(5, &destroyed)));
    EXPECT_TRUE(WaitFor([&] { return receiver->Numbers() == std::vector<int>{5} && destroyed == 1; }));
}

TEST_F(EngineTest, ADirectMessageToAFullQueueIsDeletedAndCounted) {
    auto* receiver = new ScriptedTask(
        "receiver",
        [](ScriptedTask& task) {
            task.Sleep(ScriptedTask::LONG_MS);
            return 0;
        },
        1);
    ASSERT_TRUE(module->RegisterTask(receiver, true));
    auto sender = MakeTask("sender");
    const std::uint64_t before = Counters::Of("queue.lost").Get();
    EXPECT_TRUE(sender->SendDirectMsg("receiver", new NumberMessage(1, &destroyed)));
    EXPECT_FALSE(sender->SendDirectMsg("receiver", new NumberMessage(2, &destroyed)));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(receiver->GetLostCount(), 1U);
    EXPECT_EQ(Counters::Of("queue.lost").Get(), before + 1);
}

TEST_F(EngineTest, ADirectMessageOfNothingIsRefused) {
    ASSERT_TRUE(module->RegisterTask(new ScriptedTask("receiver"), true));
    auto sender = MakeTask("sender");
    EXPECT_FALSE(sender->SendDirectMsg("receiver", nullptr));
}
