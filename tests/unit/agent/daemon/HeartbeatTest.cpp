#include "agent/daemon/Heartbeat.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "FakeWhitelist.h"
#include "ServiceManager.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using Daemon::Deliveries;
using Daemon::Heartbeat;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::WaitFor;

constexpr milliseconds OFTEN{20};
// Several signs would have come in that time.
constexpr milliseconds SEVERAL_INTERVALS{300};

class HeartbeatTest : public testing::Test {
protected:
    HeartbeatTest() {
        engine.AddModule(new TestSupport::FakeWhitelist(module), new TestSupport::FakeWhitelistInspector(module));
        EXPECT_EQ(engine.InitModules(), 0);
        deliveries = std::make_unique<Deliveries>(engine, root.Path() + "/conf/");
    }
    ~HeartbeatTest() override {
        Set(module->hangs, false);
        Set(module->commandHangs, false);
        deliveries->Stop();
        engine.UnInitModules();
    }

    static void Set(std::atomic<bool>& flag, bool value) {
        flag = value;
        flag.notify_all();
    }

    bool AwaitSign() const {
        return WaitFor([this] { return manager.Received().starts_with("WATCHDOG=1\n"); });
    }

    // Those that were sent before.
    void ForgetSigns() const {
        while (manager.Received() != "<nothing>") {
        }
    }

    bool IsSilent() const {
        return !WaitFor([this] { return manager.Received() != "<nothing>"; }, SEVERAL_INTERVALS);
    }

    TestSupport::TempRoot root;
    const TestSupport::ServiceManager manager{root / "notify"};
    TestSupport::FakeWhitelistStatePtr module = std::make_shared<TestSupport::FakeWhitelistState>();
    Framework::Engine engine;
    TestSupport::LogRecorder log;
    std::unique_ptr<Deliveries> deliveries;
};

TEST_F(HeartbeatTest, ASignOfLifeAndTheStateAreSentAgainAndAgain) {
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({OFTEN, true});
    std::string first;
    ASSERT_TRUE(WaitFor([&] { return (first = manager.Received()) != "<nothing>"; }));
    EXPECT_EQ(first,
              "WATCHDOG=1\nSTATUS=other, 17 of 10080 minutes; trusted: 5 local, 5 server, 5 OS preset, 5 service "
              "preset; 0 alerts");
    EXPECT_TRUE(AwaitSign());
    module->mode = 3;
    EXPECT_TRUE(WaitFor([&] { return manager.Received().starts_with("WATCHDOG=1\nSTATUS=detecting; trusted: "); }));
}

TEST_F(HeartbeatTest, WithoutAWatchdogOnlyTheStateIsSent) {
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({OFTEN, false});
    std::string first;
    ASSERT_TRUE(WaitFor([&] { return (first = manager.Received()) != "<nothing>"; }));
    EXPECT_THAT(first, StartsWith("STATUS=other, 17"));
}

TEST_F(HeartbeatTest, AModuleThatSaysItCannotAnswerIsAlive) {
    module->answers = false;
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({OFTEN, true});
    std::string first;
    ASSERT_TRUE(WaitFor([&] { return (first = manager.Received()) != "<nothing>"; }));
    EXPECT_THAT(first, StartsWith("WATCHDOG=1\nSTATUS=mode not known; "));
}

TEST_F(HeartbeatTest, AModuleThatHangsEndsTheSignsUntilItAnswersAgain) {
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({OFTEN, true});
    ASSERT_TRUE(AwaitSign());

    Set(module->hangs, true);
    ASSERT_TRUE(WaitFor([this] { return module->held > 0; }));
    ForgetSigns();
    EXPECT_TRUE(IsSilent());

    Set(module->hangs, false);
    EXPECT_TRUE(AwaitSign());
}

TEST_F(HeartbeatTest, ADeliveryThatDoesNotEndEndsTheSignsAndIsLogged) {
    Heartbeat heartbeat(engine, *deliveries, milliseconds(50));
    heartbeat.Start({OFTEN, true});
    ASSERT_TRUE(AwaitSign());

    Set(module->commandHangs, true);
    auto delivery = std::async(std::launch::async, [this] { return deliveries->RunCommand("whitelist_10001", "x"); });
    ASSERT_TRUE(WaitFor([this] {
        return log.Has(Poco::Message::PRIO_ERROR,
                       "a delivery does not come to an end: no more signs of life for the service manager");
    }));
    ForgetSigns();
    EXPECT_TRUE(IsSilent());

    Set(module->commandHangs, false);
    EXPECT_TRUE(delivery.get().accepted);
    EXPECT_TRUE(AwaitSign());
}

TEST_F(HeartbeatTest, ADeliveryThatTakesItsTimeIsAlive) {
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({OFTEN, true});
    Set(module->commandHangs, true);
    auto delivery = std::async(std::launch::async, [this] { return deliveries->RunCommand("whitelist_10001", "x"); });
    ASSERT_TRUE(WaitFor([this] { return deliveries->GetTimeAtWork() > milliseconds(50); }));
    ForgetSigns();
    EXPECT_TRUE(AwaitSign());
    Set(module->commandHangs, false);
    EXPECT_TRUE(delivery.get().accepted);
    EXPECT_TRUE(WaitFor([this] { return deliveries->GetTimeAtWork() == milliseconds(0); }));
}

TEST_F(HeartbeatTest, AStopDoesNotWaitForTheNextSign) {
    Heartbeat heartbeat(engine, *deliveries);
    heartbeat.Start({std::chrono::hours(1), true});
    ASSERT_TRUE(AwaitSign());
    const auto begin = std::chrono::steady_clock::now();
    heartbeat.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, TestSupport::DEADLINE);
    heartbeat.Stop();
}

TEST_F(HeartbeatTest, AStopLeavesAThreadBehindThatAModuleDoesNotAnswer) {
    auto heartbeat = std::make_unique<Heartbeat>(engine, *deliveries);
    Set(module->hangs, true);
    heartbeat->Start({OFTEN, true});
    ASSERT_TRUE(WaitFor([this] { return module->held > 0; }));
    const auto begin = std::chrono::steady_clock::now();
    heartbeat.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "a module does not answer: the thread that asks it is left behind"));
    Set(module->hangs, false);
    EXPECT_TRUE(IsSilent());
}

class HeartbeatTimingTest : public testing::Test {
protected:
    ~HeartbeatTimingTest() override {
        for (const char* variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            unsetenv(variable);
        }
    }
    static void Expect(milliseconds interval, bool watchdog) {
        const auto timing = Heartbeat::ReadTiming();
        ASSERT_TRUE(timing);
        EXPECT_EQ(timing->interval, interval);
        EXPECT_EQ(timing->watchdog, watchdog);
    }
};

TEST_F(HeartbeatTimingTest, WithoutAServiceManagerThereIsNone) {
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_FALSE(Heartbeat::ReadTiming());
}

TEST_F(HeartbeatTimingTest, ASignIsDueTwiceInTheManagersTime) {
    setenv("NOTIFY_SOCKET", "/nowhere", 1);
    setenv("WATCHDOG_USEC", "30000000", 1);
    Expect(milliseconds(15000), true);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    Expect(milliseconds(15000), true);
}

TEST_F(HeartbeatTimingTest, ATimeOfNextToNothingDoesNotKeepTheAgentBusy) {
    setenv("NOTIFY_SOCKET", "/nowhere", 1);
    setenv("WATCHDOG_USEC", "1", 1);
    Expect(milliseconds(10), true);
}

TEST_F(HeartbeatTimingTest, AWatchdogForAnotherProcessOrNoneAtAllLeavesTheState) {
    setenv("NOTIFY_SOCKET", "/nowhere", 1);
    Expect(Heartbeat::STATUS_INTERVAL, false);
    for (const char* time : {"", "0", "-5", "30s", "99999999999999999999"}) {
        setenv("WATCHDOG_USEC", time, 1);
        Expect(Heartbeat::STATUS_INTERVAL, false);
    }
    setenv("WATCHDOG_USEC", "30000000", 1);
    for (const char* pid : {"1", "", "x"}) {
        setenv("WATCHDOG_PID", pid, 1);
        Expect(Heartbeat::STATUS_INTERVAL, false);
    }
}

} // namespace
