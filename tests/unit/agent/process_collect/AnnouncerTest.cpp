#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "agent/process_collect/Announcer.h"
#include "framework/Counters.h"
#include "framework/Scope.h"
#include "tests/unit/agent/process_collect/StarvingReceiver.h"

using namespace TestSupport;
using Engine::Announcer;
using Engine::ProcEvent;
using Kinds = std::vector<unsigned int>;

namespace {

std::uint64_t NowNs() {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                      std::chrono::nanoseconds(1));
}

std::uint64_t Count(const std::string& counter) {
    return Framework::Counters::Of(counter).Get();
}

// Real processes in a scope of the test's own; the events about them are the test's.
class AnnouncerTest : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mGroup = std::make_unique<TempCgroup>();
        Framework::Scope::SetCgroup(mGroup->Name());
        mReceiver = mHolder.Start(new Receiver);
        SubscribeAll(*mReceiver);
    }

    void TearDown() override { Framework::Scope::SetCgroup(""); }

    void SubscribeAll(const Receiver& receiver) {
        for (unsigned int kind = 1; kind <= 3; ++kind) {
            mAnnouncer.Subscribe(kind, receiver.name(), receiver.GetInstanceId());
        }
    }

    ChildProcess ForkChild() const {
        return ChildProcess::ForkIn(*mGroup, [] { pause(); });
    }

    // Running its program when this returns, so that nothing about it changes any more.
    ChildProcess SpawnChild() const {
        ChildProcess child = ChildProcess::SpawnIn(*mGroup, {"/bin/sleep", "1000"});
        EXPECT_TRUE(WaitFor([&child] {
            SDK::ProcStat stat;
            return SDK::ProcStat::Read(child.Pid(), stat) == 0 && stat.HasExecuted() && stat.state == 'S';
        }));
        return child;
    }

    static ProcEvent Exec(const ChildProcess& child, std::uint64_t timestampNs) {
        return {1, child.Pid(), 0, timestampNs};
    }
    static ProcEvent Fork(const ChildProcess& child, std::uint64_t timestampNs) {
        return {2, child.Pid(), getpid(), timestampNs};
    }
    static ProcEvent Exit(int pid, std::uint64_t timestampNs) { return {3, pid, 0, timestampNs}; }

    // What the receiver was told of the process once everything in its queue has been handled.
    Kinds ToldOf(int pid) {
        mAnnouncer.WakeSubscribers();
        return ToldOf(*mReceiver, pid);
    }
    static Kinds ToldOf(const Receiver& receiver, int pid) {
        EXPECT_TRUE(WaitFor([&receiver] { return receiver.GetQueueDepth() == 0; }));
        std::size_t size = 0;
        do {
            size = receiver.Events().size();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        } while (receiver.Events().size() != size);
        return receiver.KindsOf(pid);
    }

    std::unique_ptr<TempCgroup> mGroup;
    Framework::Engine mEngine; // tasks find each other through it
    Announcer mAnnouncer;
    TaskHolder mHolder{"test_holder"};
    Poco::AutoPtr<Receiver> mReceiver;
};

} // namespace

TEST_F(AnnouncerTest, AnEventThatAComparisonAlreadyCoversIsNotToldAgain) {
    const ChildProcess started = SpawnChild();
    const ChildProcess forked = ForkChild();
    const std::uint64_t before = NowNs();
    mAnnouncer.Rescan();
    mAnnouncer.OnExec(Exec(started, before), 0);
    mAnnouncer.OnFork(Fork(forked, before));
    EXPECT_EQ(ToldOf(started.Pid()), Kinds{1});
    EXPECT_EQ(ToldOf(forked.Pid()), Kinds{1});
}

TEST_F(AnnouncerTest, AnExecAfterTheComparisonIsTold) {
    const ChildProcess started = SpawnChild();
    mAnnouncer.Rescan();
    mAnnouncer.OnExec(Exec(started, NowNs()), 0);
    EXPECT_EQ(ToldOf(started.Pid()), (Kinds{1, 1}));
}

TEST_F(AnnouncerTest, AComparisonTellsNothingOfWhatWasTold) {
    const ChildProcess started = SpawnChild();
    const ChildProcess forked = ForkChild();
    mAnnouncer.OnExec(Exec(started, NowNs()), 0);
    mAnnouncer.OnFork(Fork(forked, NowNs()));
    const std::uint64_t rescansBefore = Count("events.rescan");
    const std::uint64_t rescuedBefore = Count("events.rescued");
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), Kinds{1});
    EXPECT_EQ(ToldOf(forked.Pid()), Kinds{2});
    EXPECT_EQ(Count("events.rescued"), rescuedBefore);
    EXPECT_EQ(Count("events.rescan"), rescansBefore + 1);
}

TEST_F(AnnouncerTest, AProgramThatWasDescribedIsNotToldAgainByAComparison) {
    const ChildProcess started = SpawnChild();
    mAnnouncer.OnExec(Exec(started, NowNs()), getpid());
    mAnnouncer.Describe();
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), Kinds{1});
}

TEST_F(AnnouncerTest, AProgramThatCouldNotBeDescribedForALossIsToldAgainByTheComparison) {
    const ChildProcess started = SpawnChild();
    mAnnouncer.OnExec(Exec(started, NowNs()), getpid());
    mAnnouncer.OnRead(false);
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), (Kinds{1, 1}));
}

// The loss may have been before the description and only be known by the reading that follows.
TEST_F(AnnouncerTest, ADescriptionIsDoubtedWhenTheNextReadingFindsALoss) {
    const ChildProcess started = SpawnChild();
    mAnnouncer.OnExec(Exec(started, NowNs()), getpid());
    mAnnouncer.Describe();
    mAnnouncer.OnRead(false);
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), (Kinds{1, 1}));
}

TEST_F(AnnouncerTest, ADescriptionThatTheNextReadingConfirmsIsNotDoubtedLater) {
    const ChildProcess started = SpawnChild();
    mAnnouncer.OnExec(Exec(started, NowNs()), getpid());
    mAnnouncer.Describe();
    mAnnouncer.OnRead(true);
    mAnnouncer.OnRead(false);
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), Kinds{1});
}

TEST_F(AnnouncerTest, AForkThatCouldNotBeLookedAtForWantOfDescriptorsIsToldAllTheSame) {
    const ChildProcess forked = ForkChild();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    mAnnouncer.OnFork(Fork(forked, NowNs()));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    mAnnouncer.WakeSubscribers();
    EXPECT_EQ(ToldOf(forked.Pid()), Kinds{2});
}

TEST_F(AnnouncerTest, AnExecWakesAtOnceAForkWhenSubscribersAreWoken) {
    const ChildProcess started = SpawnChild();
    const ChildProcess forked = ForkChild();
    mAnnouncer.OnFork(Fork(forked, NowNs()));
    EXPECT_EQ(mReceiver->GetQueueDepth(), 1u);
    mAnnouncer.WakeSubscribers();
    EXPECT_TRUE(WaitFor([&] { return mReceiver->WasTold(2, forked.Pid()); }));
    mAnnouncer.OnExec(Exec(started, NowNs()), getpid());
    EXPECT_TRUE(WaitFor([&] { return mReceiver->WasTold(1, started.Pid()); }));
}

TEST_F(AnnouncerTest, WhatWasThereAtTheStartIsNotToldAndItsOldEventsNeither) {
    const ChildProcess started = SpawnChild();
    const std::uint64_t before = NowNs();
    mAnnouncer.Fill();
    mAnnouncer.OnExec(Exec(started, before), 0);
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(started.Pid()), Kinds{});
}

TEST_F(AnnouncerTest, AnExitOfAnEarlierProcessOfThePidIsNotBelieved) {
    const ChildProcess child = SpawnChild();
    const std::uint64_t before = NowNs();
    mAnnouncer.Rescan();
    EXPECT_FALSE(mAnnouncer.OnExit(Exit(child.Pid(), before)));
    EXPECT_TRUE(mAnnouncer.OnExit(Exit(child.Pid(), NowNs())));
    EXPECT_EQ(ToldOf(child.Pid()), (Kinds{1, 3}));
}

TEST_F(AnnouncerTest, AnExitIsToldOnceAndOnlyOfAProcessThatIsKnown) {
    ChildProcess child = SpawnChild();
    const int pid = child.Pid();
    EXPECT_FALSE(mAnnouncer.OnExit(Exit(pid, NowNs())));
    mAnnouncer.OnExec(Exec(child, NowNs()), 0);
    child.End();
    mAnnouncer.Rescan();
    EXPECT_FALSE(mAnnouncer.OnExit(Exit(pid, NowNs())));
    EXPECT_EQ(ToldOf(pid), (Kinds{1, 3}));
}

TEST_F(AnnouncerTest, AForkWhoseChildHasExecutedIsFolded) {
    const ChildProcess child = SpawnChild();
    const std::uint64_t foldedBefore = Count("events.folded");
    mAnnouncer.OnFork(Fork(child, NowNs()));
    EXPECT_EQ(ToldOf(child.Pid()), Kinds{});
    EXPECT_EQ(Count("events.folded"), foldedBefore + 1);
}

TEST_F(AnnouncerTest, TheExecBehindAFoldedForkIsToldThoughTheProcessIsGoneByThen) {
    ChildProcess child = SpawnChild();
    const int pid = child.Pid();
    mAnnouncer.OnFork(Fork(child, NowNs()));
    EXPECT_TRUE(mAnnouncer.Knows(pid));
    const ProcEvent exec = Exec(child, NowNs());
    child.End();
    mAnnouncer.OnExec(exec, 0);
    EXPECT_EQ(ToldOf(pid), Kinds{1});
}

TEST_F(AnnouncerTest, TheExecBehindAFoldedForkIsToldByAComparisonWhenItIsLost) {
    const ChildProcess child = SpawnChild();
    mAnnouncer.OnFork(Fork(child, NowNs()));
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(child.Pid()), Kinds{1});
}

TEST_F(AnnouncerTest, AForkOfAKernelThreadIsNotTold) {
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(2, stat) != 0 || !stat.IsKernelThread()) {
        GTEST_SKIP() << "no kernel thread is visible here";
    }
    mAnnouncer.OnFork({2, 2, 0, NowNs()});
    EXPECT_EQ(ToldOf(2), Kinds{});
}

TEST_F(AnnouncerTest, AProcessThatIsGoneAlreadyIsToldInOrder) {
    ChildProcess child = SpawnChild();
    const int pid = child.Pid();
    child.End();
    mAnnouncer.OnFork({2, pid, getpid(), NowNs()});
    mAnnouncer.OnExec({1, pid, 0, NowNs()}, getpid());
    mAnnouncer.OnExit(Exit(pid, NowNs()));
    EXPECT_EQ(ToldOf(pid), (Kinds{2, 1, 3}));
    EXPECT_EQ(mReceiver->EventsOf(pid)[1].parentPid, getpid());
}

TEST_F(AnnouncerTest, WhatAFullQueueRefusedIsOwedUntilThereIsRoom) {
    Poco::AutoPtr<Receiver> small = mHolder.Start(new Receiver(1, "test_small"));
    SubscribeAll(*small);
    const std::uint64_t lostBefore = Count("events.lost");
    small->handling.Close();
    std::vector<ChildProcess> children;
    children.reserve(4);
    for (int i = 0; i < 4; ++i) {
        children.push_back(SpawnChild());
    }
    // The first is handled and stands still there, the second waits, two are refused.
    mAnnouncer.OnExec(Exec(children[0], NowNs()), 0);
    ASSERT_TRUE(WaitFor([&] { return small->WasTold(1, children[0].Pid()); }));
    for (int i = 1; i < 4; ++i) {
        mAnnouncer.OnExec(Exec(children[static_cast<std::size_t>(i)], NowNs()), 0);
    }
    EXPECT_EQ(Count("events.lost"), lostBefore + 2);
    EXPECT_TRUE(mAnnouncer.HasDebts());
    mAnnouncer.Settle();
    EXPECT_TRUE(mAnnouncer.HasDebts());
    small->handling.Open();
    EXPECT_TRUE(WaitFor([this] {
        mAnnouncer.Settle();
        return !mAnnouncer.HasDebts();
    }));
    for (const ChildProcess& child : children) {
        EXPECT_EQ(ToldOf(*small, child.Pid()), Kinds{1});
        EXPECT_EQ(ToldOf(child.Pid()), Kinds{1});
    }
    EXPECT_EQ(Count("events.lost"), lostBefore + 2);
}

TEST_F(AnnouncerTest, ADebtOfAnInstanceThatEndedGoesToTheNext) {
    TaskHolder holder("test_other_holder");
    Poco::AutoPtr<Receiver> small = holder.Start(new Receiver(1, "test_small"));
    SubscribeAll(*small);
    small->handling.Close();
    const ChildProcess handled = SpawnChild();
    const ChildProcess waiting = SpawnChild();
    const ChildProcess refused = SpawnChild();
    mAnnouncer.OnExec(Exec(handled, NowNs()), 0);
    ASSERT_TRUE(WaitFor([&] { return small->WasTold(1, handled.Pid()); }));
    mAnnouncer.OnExec(Exec(waiting, NowNs()), 0);
    mAnnouncer.OnExec(Exec(refused, NowNs()), 0);
    small->RequestStop();
    small->handling.Open();
    ASSERT_TRUE(holder.End());
    EXPECT_FALSE(small->WasTold(1, refused.Pid()));
    const bool waitingTold = small->WasTold(1, waiting.Pid());
    mAnnouncer.Settle();
    EXPECT_FALSE(mAnnouncer.HasDebts()) << "nobody runs who could be told";

    const Poco::AutoPtr<Receiver> next = holder.Start(new Receiver(16, "test_small"));
    SubscribeAll(*next);
    EXPECT_EQ(ToldOf(*next, refused.Pid()), Kinds{1});
    EXPECT_EQ(ToldOf(*next, waiting.Pid()), waitingTold ? Kinds{} : Kinds{1});
    EXPECT_EQ(ToldOf(*next, handled.Pid()), Kinds{});
    EXPECT_EQ(ToldOf(refused.Pid()), Kinds{1});
}

// Most subscribers take all kinds, but each is told only of what it asked for.
TEST_F(AnnouncerTest, OnlyTheKindsAskedForAreTold) {
    const Poco::AutoPtr<Receiver> exits = mHolder.Start(new Receiver(16, "test_exits"));
    mAnnouncer.Subscribe(3, exits->name(), exits->GetInstanceId());
    const ChildProcess child = SpawnChild();
    mAnnouncer.OnExec(Exec(child, NowNs()), 0);
    mAnnouncer.OnExit(Exit(child.Pid(), NowNs()));
    mAnnouncer.WakeSubscribers();
    EXPECT_EQ(ToldOf(*exits, child.Pid()), Kinds{3});
    EXPECT_EQ(ToldOf(child.Pid()), (Kinds{1, 3}));
}

using AnnouncerWithoutMemory = AnnouncerTest;

TEST_F(AnnouncerWithoutMemory, WhatCouldNotBeJudgedNorNotedIsToldAgainByAComparison) {
    Poco::AutoPtr<StarvingReceiver> starving = mHolder.Start(new StarvingReceiver(16, "test_starving"));
    SubscribeAll(*starving);
    const ChildProcess old = SpawnChild();
    mAnnouncer.Fill();
    const ChildProcess unjudged = SpawnChild();
    const std::uint64_t starvedBefore = Count("events.starved");
    starving->famines = 1;
    EXPECT_FALSE(mAnnouncer.DoubtUnnoted());
    mAnnouncer.OnExec(Exec(unjudged, NowNs()), 0);
    ASSERT_TRUE(WaitFor([&] { return Count("events.starved") == starvedBefore + 1; }));
    EXPECT_TRUE(mAnnouncer.HasDebts());
    EXPECT_TRUE(mAnnouncer.DoubtUnnoted());
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(*starving, unjudged.Pid()), (Kinds{1, 1}));
    EXPECT_EQ(ToldOf(*starving, old.Pid()), Kinds{});
    EXPECT_FALSE(mAnnouncer.DoubtUnnoted());
    mAnnouncer.Settle();
    EXPECT_FALSE(mAnnouncer.HasDebts());
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(*starving, unjudged.Pid()), (Kinds{1, 1}));
}

TEST_F(AnnouncerWithoutMemory, WhatCouldNotBeToldIsToldByAComparison) {
    const ChildProcess child = SpawnChild();
    const ProcEvent exec = Exec(child, NowNs());
    mAnnouncer.OnExec(exec, 0);
    {
        const NoMemory none;
        EXPECT_THROW(mAnnouncer.OnExec(exec, 0), std::bad_alloc);
    }
    EXPECT_EQ(ToldOf(child.Pid()), Kinds{1});
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(child.Pid()), (Kinds{1, 1}));
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(child.Pid()), (Kinds{1, 1}));
}

TEST_F(AnnouncerWithoutMemory, AnExitThatCouldNotBeToldIsToldByAComparison) {
    ChildProcess child = SpawnChild();
    const int pid = child.Pid();
    mAnnouncer.OnExec(Exec(child, NowNs()), 0);
    const ProcEvent exit = Exit(pid, NowNs());
    child.End();
    {
        const NoMemory none;
        EXPECT_THROW(mAnnouncer.OnExit(exit), std::bad_alloc);
    }
    mAnnouncer.Rescan();
    EXPECT_EQ(ToldOf(pid), (Kinds{1, 3}));
}
