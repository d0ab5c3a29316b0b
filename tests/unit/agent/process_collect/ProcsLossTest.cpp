#include <algorithm>

#include <gtest/gtest.h>
#include <unistd.h>

#include "framework/Counters.h"
#include "framework/Scope.h"
#include "tests/unit/agent/process_collect/StarvingReceiver.h"

using namespace TestSupport;
using Engine::ProcConnector;
using Engine::ProcsRealTask;

namespace {

std::uint64_t Count(const std::string& counter) {
    return Framework::Counters::Of(counter).Get();
}

// The counters at its construction.
struct Losses {
    std::uint64_t lost = Count("events.lost");
    std::uint64_t overflow = Count("events.overflow");
    std::uint64_t rescans = Count("events.rescan");
    std::uint64_t rescued = Count("events.rescued");
};

// Losses of both sorts, in a scope of the test's own so that nothing else on the machine is told.
class ProcsLossTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "the proc connector needs root";
        }
        if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mGroup = std::make_unique<TempCgroup>();
        Framework::Scope::SetCgroup(mGroup->Name());
    }

    void TearDown() override {
        if (mReceiver) {
            mReceiver->handling.Open();
            mReceiver->senders.Open();
        }
        mChildren.clear();
        mSubscriber.End();
        mCollector.End();
        Framework::Scope::SetCgroup("");
    }

    void Begin(int receiveBufferBytes, unsigned int queueCapacity) {
        ASSERT_NO_FATAL_FAILURE(Collect(receiveBufferBytes));
        mReceiver = mSubscriber.Start(new Receiver(queueCapacity));
        ASSERT_TRUE(AwaitSubscription());
    }

    void Collect(int receiveBufferBytes) {
        auto connector = std::make_unique<ProcConnector>(receiveBufferBytes);
        std::string problem;
        ASSERT_TRUE(connector->Open(problem)) << problem;
        mCollector.Start(new ProcsRealTask(std::move(connector)));
    }

    // A child that is told proves that the subscription is in force.
    bool AwaitSubscription() const {
        return WaitFor([this] {
            const ChildProcess child = ChildProcess::SpawnIn(*mGroup, {"/bin/sleep", "1000"});
            return WaitFor([&] { return mReceiver->WasTold(1, child.Pid()); }, std::chrono::milliseconds(500));
        });
    }

    void StartChildren(int count) {
        for (int i = 0; i < count; ++i) {
            mChildren.push_back(ChildProcess::SpawnIn(*mGroup, {"/bin/sleep", "1000"}));
        }
    }

    bool AwaitAllTold() const {
        return WaitFor([this] {
            return std::all_of(mChildren.begin(), mChildren.end(),
                               [this](const ChildProcess& child) { return mReceiver->WasTold(1, child.Pid()); });
        });
    }

    std::unique_ptr<TempCgroup> mGroup;
    Framework::Engine mEngine; // tasks find each other through it
    TaskHolder mCollector{"test_collector"};
    TaskHolder mSubscriber{"test_subscriber"};
    Poco::AutoPtr<Receiver> mReceiver;
    std::vector<ChildProcess> mChildren;
};

} // namespace

TEST_F(ProcsLossTest, AfterAFullQueueEveryLiveProcessIsToldAllTheSame) {
    ASSERT_NO_FATAL_FAILURE(Begin(ProcConnector::RECEIVE_BUFFER_BYTES, 4));
    const Losses before;
    mReceiver->handling.Close();
    StartChildren(20);
    ASSERT_TRUE(WaitFor([&] { return Losses().lost > before.lost; }));
    const std::vector<Receiver::Event> toldBefore = mReceiver->Events();
    EXPECT_LT(toldBefore.size(), 20u);
    mReceiver->handling.Open();
    EXPECT_TRUE(AwaitAllTold());
    const Losses after;
    EXPECT_GT(after.rescued, before.rescued);
    EXPECT_EQ(after.overflow, before.overflow);
}

TEST_F(ProcsLossTest, AProcessThatCouldNotBeJudgedForWantOfDescriptorsIsToldAgainUntilItCould) {
    ASSERT_NO_FATAL_FAILURE(Begin(ProcConnector::RECEIVE_BUFFER_BYTES, 1024));
    const std::uint64_t starvedBefore = Count("events.starved");
    mReceiver->starvations.store(2);
    StartChildren(1);
    const int pid = mChildren.front().Pid();
    ASSERT_TRUE(WaitFor([&] { return Count("events.starved") == starvedBefore + 2; }));
    EXPECT_TRUE(WaitFor([&] { return mReceiver->KindsOf(pid).size() == 3; }));
    EXPECT_EQ(mReceiver->KindsOf(pid), (std::vector<unsigned int>{1, 1, 1}));
    // A later one is told once, and the first one is not told again behind it.
    StartChildren(1);
    EXPECT_TRUE(AwaitAllTold());
    EXPECT_EQ(mReceiver->KindsOf(pid).size(), 3u);
}

// Nothing else happens here: it is the want of memory itself that wakes the task.
TEST_F(ProcsLossTest, AProcessThatCouldNotBeJudgedForWantOfMemoryIsToldAgainUntilItCould) {
    ASSERT_NO_FATAL_FAILURE(Collect(ProcConnector::RECEIVE_BUFFER_BYTES));
    Poco::AutoPtr<StarvingReceiver> starving = mSubscriber.Start(new StarvingReceiver(1024));
    mReceiver = starving;
    ASSERT_TRUE(AwaitSubscription());
    starving->famines = 2;
    StartChildren(1);
    const int pid = mChildren.front().Pid();
    EXPECT_TRUE(WaitFor([&] { return mReceiver->KindsOf(pid).size() == 3; }));
    EXPECT_EQ(mReceiver->KindsOf(pid), (std::vector<unsigned int>{1, 1, 1}));
}

TEST_F(ProcsLossTest, AProcessThatEndedWhileItWasOwedIsNotTold) {
    ASSERT_NO_FATAL_FAILURE(Begin(ProcConnector::RECEIVE_BUFFER_BYTES, 4));
    mReceiver->handling.Close();
    const std::uint64_t execsBefore = Count("events.exec");
    StartChildren(20);
    ASSERT_TRUE(WaitFor([&] { return Count("events.exec") >= execsBefore + 20; }));
    const std::uint64_t exitsBefore = Count("events.exit");
    std::vector<int> ended;
    while (mChildren.size() > 1) {
        ended.push_back(mChildren.back().Pid());
        mChildren.pop_back();
    }
    ASSERT_TRUE(WaitFor([&] { return Count("events.exit") >= exitsBefore + ended.size(); }));
    mReceiver->handling.Open();
    // One that starts now is told behind all that was owed.
    StartChildren(1);
    ASSERT_TRUE(AwaitAllTold());
    const auto told = std::count_if(ended.begin(), ended.end(), [this](int pid) { return mReceiver->WasTold(1, pid); });
    EXPECT_LT(told, static_cast<long>(ended.size()));
}

// The reader is held up at the subscriber's queue while the kernel's small buffer runs over.
TEST_F(ProcsLossTest, AfterAFullReceiveBufferEveryLiveProcessIsTold) {
    ASSERT_NO_FATAL_FAILURE(Begin(8192, 10240));
    const Losses before;
    mReceiver->senders.Close();
    StartChildren(60);
    mReceiver->senders.Open();
    EXPECT_TRUE(AwaitAllTold());
    const Losses after;
    EXPECT_GT(after.overflow, before.overflow);
    EXPECT_GT(after.lost, before.lost);
    EXPECT_GT(after.rescans, before.rescans);
    EXPECT_GT(after.rescued, before.rescued);
}

TEST_F(ProcsLossTest, AfterAFullReceiveBufferExitsAreToldToo) {
    ASSERT_NO_FATAL_FAILURE(Begin(8192, 10240));
    StartChildren(60);
    ASSERT_TRUE(AwaitAllTold());
    std::vector<int> pids;
    for (const ChildProcess& child : mChildren) {
        pids.push_back(child.Pid());
    }
    mReceiver->senders.Close();
    mChildren.clear();
    mReceiver->senders.Open();
    EXPECT_TRUE(WaitFor(
        [&] { return std::all_of(pids.begin(), pids.end(), [this](int pid) { return mReceiver->WasTold(3, pid); }); }));
    for (const int pid : pids) {
        const std::vector<unsigned int> kinds = mReceiver->KindsOf(pid);
        EXPECT_EQ(std::count(kinds.begin(), kinds.end(), 3u), 1) << pid;
    }
}

// A second loss while the first is being made good is made good as well.
TEST_F(ProcsLossTest, LossAfterLossIsMadeGood) {
    ASSERT_NO_FATAL_FAILURE(Begin(8192, 4));
    for (int round = 0; round < 5; ++round) {
        mReceiver->senders.Close();
        StartChildren(15);
        mReceiver->senders.Open();
    }
    EXPECT_TRUE(AwaitAllTold());
}

TEST_F(ProcsLossTest, AnExecThatWasLostIsToldAlthoughTheProcessWasKnown) {
    ASSERT_NO_FATAL_FAILURE(Begin(8192, 10240));
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    const ChildProcess child = ChildProcess::ForkIn(*mGroup, [&] {
        char go = 0;
        if (read(gate[0], &go, 1) == 1) {
            execl("/bin/sleep", "sleep", "1000", nullptr);
        }
    });
    // Its fork happened outside the group; a comparison, after a first loss, makes it known at the latest.
    const auto overrun = [this] {
        const std::uint64_t before = Count("events.overflow");
        return WaitFor([&] {
            mReceiver->senders.Close();
            StartChildren(30);
            mReceiver->senders.Open();
            return WaitFor([&] { return Count("events.overflow") > before; }, std::chrono::milliseconds(300));
        });
    };
    ASSERT_TRUE(overrun());
    ASSERT_TRUE(WaitFor([&] { return !mReceiver->EventsOf(child.Pid()).empty(); }));
    const std::size_t toldBefore = mReceiver->EventsOf(child.Pid()).size();
    mReceiver->senders.Close();
    StartChildren(60);
    ASSERT_EQ(write(gate[1], "x", 1), 1);
    ASSERT_TRUE(WaitFor([&] {
        SDK::ProcStat stat;
        return SDK::ProcStat::Read(child.Pid(), stat) == 0 && stat.HasExecuted();
    }));
    mReceiver->senders.Open();
    EXPECT_TRUE(WaitFor([&] { return mReceiver->EventsOf(child.Pid()).size() > toldBefore; }));
    EXPECT_EQ(mReceiver->EventsOf(child.Pid()).back().kind, 1u);
    close(gate[0]);
    close(gate[1]);
}
