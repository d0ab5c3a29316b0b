#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "framework/Counters.h"
#include "framework/Scope.h"
#include "sdk/ProcStat.h"
#include "tests/unit/agent/process_collect/Receiver.h"

using namespace TestSupport;
using Engine::ProcConnector;
using Engine::ProcsRealTask;
using Kinds = std::vector<unsigned int>;

namespace {

// The real task on the real kernel, and one subscriber.
class ProcsRealTaskTest : public testing::Test {
protected:
    void SetUp() override {
        auto connector = std::make_unique<ProcConnector>();
        std::string problem;
        if (geteuid() != 0) {
            GTEST_SKIP() << "the proc connector needs root";
        }
        ASSERT_TRUE(connector->Open(problem)) << problem;
        mCollector.Start(new ProcsRealTask(std::move(connector)));
        mReceiver = mSubscriber.Start(new Receiver);
        ASSERT_TRUE(AwaitLive(*mReceiver));
    }

    void TearDown() override {
        if (mReceiver) {
            mReceiver->handling.Open();
        }
        Framework::Scope::SetCgroup("");
    }

    // From here on the receiver's thread stands still and messages wait in its queue.
    void HoldUpReceiver() {
        mReceiver->handling.Close();
        ChildProcess::Spawn({"/bin/true"}).Wait();
        ASSERT_TRUE(WaitFor([this] { return mReceiver->handling.HoldsSomebody(); }));
    }

    bool AwaitExitOf(int pid) const {
        return WaitFor([&] { return mReceiver->WasTold(3, pid); });
    }

    // Runs the program to its end and returns what was told of it.
    Kinds KindsOfARunOf(const std::vector<std::string>& words) const {
        ChildProcess child = ChildProcess::Spawn(words);
        const int pid = child.Pid();
        child.Wait();
        EXPECT_TRUE(AwaitExitOf(pid));
        return mReceiver->KindsOf(pid);
    }

    Framework::Engine mEngine; // tasks find each other through it
    TaskHolder mCollector{"test_collector"};
    TaskHolder mSubscriber{"test_subscriber"};
    Poco::AutoPtr<Receiver> mReceiver;
};

std::uint64_t Count(const std::string& counter) {
    return Framework::Counters::Of(counter).Get();
}

bool IsStopped(int pid) {
    constexpr char STOPPED = 'T';
    SDK::ProcStat stat;
    return SDK::ProcStat::Read(pid, stat) == 0 && stat.state == STOPPED;
}

} // namespace

// On a machine that lets the child wait between its fork and its exec for longer than a fork is held
// the fork is told as well; so several starts are looked at.
TEST_F(ProcsRealTaskTest, AProgramStartIsOneExecAndNoFork) {
    EXPECT_TRUE(WaitFor([this] { return KindsOfARunOf({"/bin/true"}) == Kinds{1, 3}; }));
}

TEST_F(ProcsRealTaskTest, AnExecNamesTheParent) {
    const ChildProcess child = ChildProcess::Spawn({"/bin/sleep", "1000"});
    ASSERT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, child.Pid()); }));
    EXPECT_EQ(mReceiver->EventsOf(child.Pid()).back().parentPid, getpid());
}

TEST_F(ProcsRealTaskTest, AForkWithoutExecIsOneForkThatNamesTheParent) {
    const ChildProcess child = ChildProcess::Fork([] { pause(); });
    ASSERT_TRUE(WaitFor([&] { return mReceiver->WasTold(2, child.Pid()); }));
    EXPECT_TRUE(AwaitLive(*mReceiver));
    const std::vector<Receiver::Event> events = mReceiver->EventsOf(child.Pid());
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].parentPid, getpid());
}

TEST_F(ProcsRealTaskTest, AForkThatEndsAtOnceIsForkThenExit) {
    ChildProcess child = ChildProcess::Fork([] { _exit(0); });
    const int pid = child.Pid();
    child.Wait();
    ASSERT_TRUE(AwaitExitOf(pid));
    EXPECT_EQ(mReceiver->KindsOf(pid), (Kinds{2, 3}));
}

TEST_F(ProcsRealTaskTest, AnExitCarriesNoRecord) {
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    ASSERT_TRUE(AwaitExitOf(pid));
    EXPECT_EQ(mReceiver->EventsOf(pid).back().parentPid, -1);
}

TEST_F(ProcsRealTaskTest, EachOfManyQuickStartsIsToldAsExactlyOneExec) {
    constexpr int STARTS = 300;
    const std::map<std::string, std::uint64_t> before = Framework::Counters::Snapshot();
    std::vector<int> pids;
    for (int i = 0; i < STARTS; ++i) {
        ChildProcess child = ChildProcess::Spawn({"/bin/true"});
        pids.push_back(child.Pid());
        child.Wait();
    }
    ASSERT_TRUE(AwaitExitOf(pids.back()));
    int forksTold = 0;
    for (const int pid : pids) {
        Kinds kinds = mReceiver->KindsOf(pid);
        forksTold += static_cast<int>(std::erase(kinds, 2u));
        EXPECT_EQ(kinds, (Kinds{1, 3})) << pid;
    }
    // A start that was held up between fork and exec may be told as both; few are.
    EXPECT_LT(forksTold, STARTS / 2);
    EXPECT_EQ(Count("events.lost"), before.at("events.lost"));
    // An exit is counted just after it was told.
    for (const char* counter : {"events.exec", "events.fork", "events.exit"}) {
        EXPECT_TRUE(WaitFor([&] { return Count(counter) >= before.at(counter) + STARTS; })) << counter;
    }
    EXPECT_GE(Count("events.folded"), before.at("events.folded") + STARTS / 2);
}

TEST_F(ProcsRealTaskTest, TwoExecsOfOneProcessAreBothTold) {
    Kinds kinds = KindsOfARunOf({"/bin/sh", "-c", "exec /bin/true"});
    std::erase(kinds, 2u);
    EXPECT_EQ(kinds, (Kinds{1, 1, 3}));
}

TEST_F(ProcsRealTaskTest, ANewThreadIsNotTold) {
    std::atomic<int> thread{0};
    for (int i = 0; i < 20; ++i) {
        std::thread([&thread] { thread.store(static_cast<int>(syscall(SYS_gettid))); }).join();
        EXPECT_TRUE(mReceiver->EventsOf(thread.load()).empty());
    }
    ASSERT_TRUE(AwaitLive(*mReceiver));
    EXPECT_TRUE(mReceiver->EventsOf(thread.load()).empty());
    EXPECT_TRUE(mReceiver->EventsOf(getpid()).empty());
}

// The fork has waited in the queue while the child executed, so the exec behind it says all.
TEST_F(ProcsRealTaskTest, AForkThatWaitedInTheQueueUntilTheExecIsNotTold) {
    const Poco::AutoPtr<Receiver> observer = mSubscriber.Start(new Receiver(10240, "test_observer"));
    ASSERT_TRUE(AwaitLive(*observer));
    HoldUpReceiver();
    const std::uint64_t foldedBefore = Count("events.folded");
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    const ChildProcess child = ChildProcess::Fork([&] {
        char go = 0;
        if (read(gate[0], &go, 1) == 1) {
            execl("/bin/sleep", "sleep", "1000", nullptr);
        }
    });
    ASSERT_TRUE(WaitFor([&] { return observer->WasTold(2, child.Pid()); }));
    ASSERT_EQ(write(gate[1], "x", 1), 1);
    ASSERT_TRUE(WaitFor([&] { return observer->WasTold(1, child.Pid()); }));
    mReceiver->handling.Open();
    ASSERT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, child.Pid()); }));
    EXPECT_EQ(mReceiver->KindsOf(child.Pid()), Kinds{1});
    EXPECT_GT(Count("events.folded"), foldedBefore);
    close(gate[0]);
    close(gate[1]);
}

TEST_F(ProcsRealTaskTest, OnlyProcessesInTheScopeAreTold) {
    if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TempCgroup group;
    Framework::Scope::SetCgroup(group.Name());
    ChildProcess outside = ChildProcess::Spawn({"/bin/true"});
    const int outsidePid = outside.Pid();
    outside.Wait();
    ChildProcess inside = ChildProcess::SpawnIn(group, {"/bin/sleep", "1000"});
    const int insidePid = inside.Pid();
    EXPECT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, insidePid); }));
    inside.End();
    EXPECT_TRUE(AwaitExitOf(insidePid));
    // Its fork is in the group from birth and dies with it.
    ChildProcess forking = ChildProcess::ForkIn(group, [] {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
        pause();
    });
    EXPECT_TRUE(WaitFor([&] {
        const std::vector<Receiver::Event> events = mReceiver->Events();
        return std::any_of(events.begin(), events.end(), [&](const Receiver::Event& event) {
            return event.kind == 2 && event.parentPid == forking.Pid();
        });
    }));
    forking.End();
    EXPECT_TRUE(mReceiver->EventsOf(outsidePid).empty());
}

TEST_F(ProcsRealTaskTest, AnUnknownKindIsRefusedAndDisturbsNothing) {
    mReceiver->SendDirectMsg(ProcsRealTask::NAME, new Engine::ProcsRegistMessage(0, mReceiver.get()));
    mReceiver->SendDirectMsg(ProcsRealTask::NAME, new Engine::ProcsRegistMessage(4, mReceiver.get()));
    mReceiver->SendDirectMsg(ProcsRealTask::NAME, new Engine::ProcsRegistMessage(0xffffffff, mReceiver.get()));
    EXPECT_TRUE(AwaitLive(*mReceiver));
}

TEST_F(ProcsRealTaskTest, ASecondSubscriptionToAKindChangesNothing) {
    mReceiver->SendDirectMsg(ProcsRealTask::NAME, new Engine::ProcsRegistMessage(1, mReceiver.get()));
    ASSERT_TRUE(AwaitLive(*mReceiver));
    Kinds kinds = KindsOfARunOf({"/bin/true"});
    std::erase(kinds, 2u);
    EXPECT_EQ(kinds, (Kinds{1, 3}));
}

// A subscriber's second instance is first told of what began while none ran.
TEST_F(ProcsRealTaskTest, WhatBeganDuringAGapIsToldFirstToTheNextInstance) {
    const Poco::AutoPtr<Receiver> observer = mCollector.Start(new Receiver(10240, "test_observer"));
    const ChildProcess before = ChildProcess::Spawn({"/bin/sleep", "1000"});
    ASSERT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, before.Pid()); }));
    ASSERT_TRUE(AwaitLive(*observer));

    ASSERT_TRUE(mSubscriber.End());
    const ChildProcess started = ChildProcess::Spawn({"/bin/sleep", "1000"});
    const ChildProcess forked = ChildProcess::Fork([] { pause(); });
    ChildProcess ended = ChildProcess::Spawn({"/bin/true"});
    const int endedPid = ended.Pid();
    ended.Wait();
    ASSERT_TRUE(WaitFor([&] {
        return observer->WasTold(1, started.Pid()) && observer->WasTold(2, forked.Pid()) &&
               observer->WasTold(3, endedPid);
    }));

    const Poco::AutoPtr<Receiver> next = mSubscriber.Start(new Receiver);
    ASSERT_TRUE(AwaitLive(*next));
    EXPECT_EQ(next->KindsOf(started.Pid()), Kinds{1});
    EXPECT_EQ(next->KindsOf(forked.Pid()), Kinds{1});
    EXPECT_TRUE(next->EventsOf(before.Pid()).empty());
    EXPECT_TRUE(next->EventsOf(endedPid).empty());
    EXPECT_TRUE(mReceiver->EventsOf(started.Pid()).empty());

    // Whatever else runs on the machine may begin in the gap as well: all of it comes as kind 1.
    const std::vector<Receiver::Event> events = next->Events();
    const auto lastOwed = std::find_if(events.begin(), events.end(), [&](const Receiver::Event& event) {
        return event.pid == std::max(started.Pid(), forked.Pid());
    });
    EXPECT_TRUE(std::all_of(events.begin(), lastOwed, [](const Receiver::Event& event) { return event.kind == 1; }));
    EXPECT_TRUE(observer->EventsOf(started.Pid()).size() == 1) << "another subscriber is not told again";
}

// What lay in the queue of an instance that ended was told to nobody.
TEST_F(ProcsRealTaskTest, WhatAnInstanceLeftInItsQueueIsToldToTheNext) {
    const Poco::AutoPtr<Receiver> observer = mCollector.Start(new Receiver(10240, "test_observer"));
    ASSERT_TRUE(AwaitLive(*observer));
    HoldUpReceiver();
    const ChildProcess left = ChildProcess::Spawn({"/bin/sleep", "1000"});
    ASSERT_TRUE(WaitFor([&] { return observer->WasTold(1, left.Pid()); }));
    mReceiver->RequestStop();
    std::thread ender([this] { mSubscriber.End(); });
    mReceiver->handling.Open();
    ender.join();
    const bool toldToTheFirst = mReceiver->WasTold(1, left.Pid());

    const Poco::AutoPtr<Receiver> next = mSubscriber.Start(new Receiver);
    ASSERT_TRUE(AwaitLive(*next));
    EXPECT_EQ(next->KindsOf(left.Pid()), toldToTheFirst ? Kinds{} : Kinds{1});
}

TEST_F(ProcsRealTaskTest, ProcessesThatRanBeforeAreNotTold) {
    const ChildProcess child = ChildProcess::Spawn({"/bin/sleep", "1000"});
    ASSERT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, child.Pid()); }));
    const Poco::AutoPtr<Receiver> late = mSubscriber.Start(new Receiver(10240, "test_latecomer"));
    ASSERT_TRUE(AwaitLive(*late));
    EXPECT_TRUE(late->EventsOf(child.Pid()).empty());
    EXPECT_TRUE(late->EventsOf(getpid()).empty());
}

// Their group cannot be asked any more; that they were forked in it is known.
TEST(ProcsRealTaskBacklogTest, ProgramsThatAreGoneWhenTheirEventsAreReadCountWhereTheyWereForked) {
    if (const std::string reason = geteuid() != 0 ? "the proc connector needs root" : WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    constexpr int STARTS = 50;
    auto connector = std::make_unique<ProcConnector>();
    std::string problem;
    ASSERT_TRUE(connector->Open(problem)) << problem;
    const TempCgroup group;
    // In a process that is in the group, so that all of them are from birth; it stays, as a shell would.
    ChildProcess starter = ChildProcess::ForkIn(group, [] {
        for (int i = 0; i < STARTS; ++i) {
            ChildProcess::Spawn({"/bin/true"}).Wait();
        }
        raise(SIGSTOP);
    });
    ASSERT_TRUE(WaitFor([&] { return IsStopped(starter.Pid()); }));
    const std::uint64_t execs = Count("events.exec");
    const std::uint64_t forks = Count("events.fork");
    Framework::Scope::SetCgroup(group.Name());
    {
        const Framework::Engine engine;
        TaskHolder holder("test_collector");
        holder.Start(new ProcsRealTask(std::move(connector)));
        EXPECT_TRUE(WaitFor([&] { return Count("events.exec") >= execs + STARTS; }));
    }
    EXPECT_EQ(Count("events.exec"), execs + STARTS);
    // The starter is one more.
    EXPECT_EQ(Count("events.fork"), forks + STARTS + 1);
    Framework::Scope::SetCgroup("");
}

// Once out of three, so that a machine that is busy elsewhere does not decide.
TEST(ProcsRealTaskStopTest, StopsWellWithinASecond) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "the proc connector needs root";
    }
    const Framework::Engine engine;
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int attempt = 0; attempt < 3; ++attempt) {
        auto connector = std::make_unique<ProcConnector>();
        std::string problem;
        ASSERT_TRUE(connector->Open(problem)) << problem;
        TaskHolder holder("test_collector");
        holder.Start(new ProcsRealTask(std::move(connector)));
        const Poco::AutoPtr<Receiver> receiver = holder.Start(new Receiver);
        ASSERT_TRUE(AwaitLive(*receiver));
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(holder.End());
        shortest = std::min(shortest, std::chrono::steady_clock::now() - start);
    }
    EXPECT_LT(shortest, std::chrono::seconds(1));
}
