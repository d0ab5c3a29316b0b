// What a watching task is told, and what the counters say of the rest.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "framework/Scope.h"
#include "support/TempCgroup.h"
#include "unit/agent/filenotify/FileNotifyTest.h"

using namespace TestSupport;

namespace {

using Appetite = WatchingTask::Appetite;

// The agent's scope is limited to the group as long as it lives.
class LimitedScope {
public:
    explicit LimitedScope(const TempCgroup& group) { Framework::Scope::SetCgroup(group.Name()); }
    ~LimitedScope() { Framework::Scope::SetCgroup(""); }
    LimitedScope(const LimitedScope&) = delete;
    LimitedScope& operator=(const LimitedScope&) = delete;
};

void OpenOurselves(const std::string& path) {
    const SDK::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(file.IsOpen());
}

class WatchTest : public FileNotifyTest {
protected:
    // Each access is counted just after it was handed on.
    void ExpectAllAccountedFor() const {
        EXPECT_TRUE(WaitFor([this] { return Counted("files.read") == CountJudged(); }))
            << Counted("files.read") << " read, " << CountJudged() << " judged";
        EXPECT_TRUE(
            WaitFor([this] { return Counted("files.lost") == Counted("files.dropped") + Counted("files.overflow"); }));
    }

    // `descriptors`: how many this process had before.
    void ExpectNothingLostNorLeftOpen(std::size_t descriptors) const {
        EXPECT_EQ(Counted("files.lost"), 0U);
        EXPECT_TRUE(WaitFor([descriptors] { return CountDescriptors() == descriptors; }));
        ExpectAllAccountedFor();
    }

private:
    std::uint64_t CountJudged() const {
        return Counted("files.own") + Counted("files.unscoped") + Counted("files.posted") + Counted("files.dropped");
    }
};

} // namespace

TEST_F(WatchTest, AnAccessByAnotherProcessArrivesWithPathAndPid) {
    const std::string file = mMount->Write("a/x", "1");
    StartWatcher();
    Watch(*mMount / "a");
    mVisitor.Open(file);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    ExpectAllAccountedFor();
}

TEST_F(WatchTest, AFileThatAProgramReadsArrives) {
    const std::string file = mMount->Write("a/x", "");
    StartWatcher();
    Watch(*mMount / "a");
    ChildProcess reader = ChildProcess::Spawn({"/bin/cat", file});
    const int pid = reader.Pid();
    EXPECT_EQ(reader.Wait(), 0);
    EXPECT_TRUE(AwaitTold(pid, file));
}

TEST_F(WatchTest, TheAgentsOwnAccessesAreCountedAndNotTold) {
    const std::string file = mMount->Write("a/x", "1");
    const std::string after = mMount->Write("a/y", "1");
    StartWatcher();
    Watch(*mMount / "a");
    OpenOurselves(file);
    mVisitor.Open(after);
    ASSERT_TRUE(AwaitTold(mVisitor.Pid(), after));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(Counted("files.own"), 1U);
    ExpectAllAccountedFor();
}

TEST_F(WatchTest, OnlyProcessesInScopeAreTold) {
    if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TempCgroup group;
    Visitor inside(group);
    const LimitedScope scope(group);
    const std::string file = mMount->Write("a/x", "1");
    const std::string after = mMount->Write("a/y", "1");
    StartWatcher();
    Watch(*mMount / "a");
    mVisitor.Open(file);
    inside.Open(after);
    ASSERT_TRUE(AwaitTold(inside.Pid(), after));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(Counted("files.unscoped"), 1U);
    ExpectAllAccountedFor();
}

TEST_F(WatchTest, IgnoredProcessesAreCountedAsOwn) {
    Visitor other;
    const std::string file = mMount->Write("a/x", "1");
    const std::string after = mMount->Write("a/y", "1");
    StartWatcher();
    Engine::_FileNotifyOpt options = Adding();
    options.ignoredPids = {mVisitor.Pid()};
    Send(*mWatcher, *mMount / "a", options);
    mVisitor.Open(file);
    other.Open(after);
    ASSERT_TRUE(AwaitTold(other.Pid(), after));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(Counted("files.own"), 1U);
}

TEST_F(WatchTest, ADirectorySeesItsFilesAndNotThoseBelow) {
    const std::string below = mMount->Write("a/b/x", "1");
    const std::string file = mMount->Write("a/y", "1");
    StartWatcher();
    Watch(*mMount / "a");
    mVisitor.Open(below);
    mVisitor.Open(file);
    ASSERT_TRUE(AwaitTold(mVisitor.Pid(), file));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(Counted("files.read"), 1U);
}

TEST_F(WatchTest, AMountSeesFilesInAllItsDirectories) {
    const std::string file = mMount->Write("x", "1");
    const std::string below = mMount->Write("a/b/y", "1");
    MakeFolder("c");
    StartWatcher();
    Send(*mWatcher, *mMount / "c", AddingMount());
    mVisitor.Open(file);
    mVisitor.Open(below);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), below));
}

TEST_F(WatchTest, AModificationIsReported) {
    const std::string file = mMount->Write("a/x", "1");
    const std::string changed = mMount->Write("a/y", "1");
    StartWatcher();
    Send(*mWatcher, *mMount / "a", Adding(), FAN_MODIFY);
    mVisitor.Open(file);
    mVisitor.Write(changed);
    ASSERT_TRUE(AwaitTold(mVisitor.Pid(), changed));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
}

TEST_F(WatchTest, ADeletedFileIsToldWithTheKernelsRemark) {
    const std::string file = mMount->Write("a/x", "1");
    const SDK::FileDescriptor kept(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::filesystem::remove(file);
    StartWatcher();
    Send(*mWatcher, *mMount / "a", AddingMount());
    mVisitor.Open("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(kept.Get()));
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file + " (deleted)"));
}

TEST_F(WatchTest, AStreamOfAccessesIsToldCompletelyAndLeavesNoDescriptor) {
    constexpr std::size_t COUNT = 3000;
    const std::vector<std::string> files = WriteFiles(*mMount, "a", COUNT);
    StartWatcher(2 * COUNT);
    Watch(*mMount / "a");
    const std::size_t before = CountDescriptors();
    for (const std::string& file : files) {
        mVisitor.Open(file);
    }
    ASSERT_TRUE(WaitFor([this] { return mWatcher->Accesses().size() >= COUNT; }));
    std::vector<std::string> told;
    for (const Access& access : mWatcher->Accesses()) {
        told.push_back(access.path);
    }
    EXPECT_EQ(told, files) << "in order, nothing twice";
    ExpectNothingLostNorLeftOpen(before);
}

// A program that opens files as fast as it can makes more wait than one batch.
TEST_F(WatchTest, ABurstOfManyBatchesIsToldCompletelyAndInOrder) {
    constexpr std::size_t COUNT = 10000;
    const std::vector<std::string> files = WriteFiles(*mMount, "a", COUNT);
    StartWatcher(2 * COUNT);
    Watch(*mMount / "a");
    const std::size_t before = CountDescriptors();
    ChildProcess opener = ChildProcess::Fork([&files] {
        for (const std::string& file : files) {
            close(open(file.c_str(), O_RDONLY | O_CLOEXEC));
        }
        _exit(0);
    });
    ASSERT_TRUE(WaitFor([this] { return mWatcher->Accesses().size() >= COUNT; }));
    std::vector<Access> expected;
    for (const std::string& file : files) {
        expected.push_back({opener.Pid(), file});
    }
    EXPECT_EQ(opener.Wait(), 0);
    EXPECT_TRUE(mWatcher->Accesses() == expected);
    ExpectNothingLostNorLeftOpen(before);
}

TEST_F(WatchTest, AFullQueueCountsTheLossAndLeavesNoDescriptor) {
    constexpr unsigned int CAPACITY = 16;
    constexpr std::size_t COUNT = 40;
    const std::vector<std::string> files = WriteFiles(*mMount, "a", COUNT);
    StartWatcher(CAPACITY, Appetite::None);
    Watch(*mMount / "a");
    const std::size_t before = CountDescriptors();
    for (const std::string& file : files) {
        mVisitor.Open(file);
    }
    ASSERT_TRUE(WaitFor([&] { return Counted("files.posted") + Counted("files.dropped") == COUNT; }));
    EXPECT_EQ(Counted("files.posted"), mWatcher->GetQueueDepth());
    EXPECT_LE(Counted("files.posted"), CAPACITY);
    EXPECT_GE(Counted("files.dropped"), COUNT - CAPACITY);
    EXPECT_EQ(mWatcher->GetLostCount(), Counted("files.dropped"));
    EXPECT_TRUE(WaitFor([before] { return CountDescriptors() == before; }));
    // Losses are counted before they are logged.
    const auto saysWhatWasLost = testing::Matches(testing::Contains(
        testing::Field(&LogRecorder::Record::text,
                       testing::MatchesRegex("file accesses were lost: so far [0-9]+ could not be handed on, and "
                                             "the kernel's queue ran over 0 times"))));
    EXPECT_TRUE(WaitFor([&] { return saysWhatWasLost(mLog.Records()); }));
    ExpectAllAccountedFor();
}

TEST_F(WatchTest, TheStopDoesNotWaitForATaskThatTakesNothing) {
    const std::vector<std::string> files = WriteFiles(*mMount, "a", 200);
    StartWatcher(16, Appetite::None);
    Watch(*mMount / "a");
    for (const std::string& file : files) {
        mVisitor.Open(file);
    }
    EXPECT_TRUE(mNotifyHolder.End());
    EXPECT_TRUE(ListGroups().empty());
    ExpectAllAccountedFor();
}

// A stop finds the reader filling a batch in most of these turns.
TEST_F(WatchTest, AStopInTheMiddleOfABurstEndsBothThreads) {
    const std::vector<std::string> files = WriteFiles(*mMount, "a", 2000);
    StartWatcher();
    const ChildProcess opener = ChildProcess::Fork([&files] {
        for (std::size_t i = 0;; i = (i + 1) % files.size()) {
            close(open(files[i].c_str(), O_RDONLY | O_CLOEXEC));
        }
    });
    for (int turn = 0; turn < 30; ++turn) {
        const std::uint64_t before = Counted("files.read");
        Watch(*mMount / "a");
        EXPECT_TRUE(AwaitCounted("files.read", before + 1));
        Unwatch(*mMount / "a");
        EXPECT_TRUE(ListGroups().empty());
    }
    ExpectAllAccountedFor();
}

TEST_F(WatchTest, AWatchingTaskThatIsGoneIsToldNothing) {
    const std::string file = mMount->Write("a/x", "1");
    StartWatcher();
    Watch(*mMount / "a");
    ASSERT_TRUE(mWatcherHolder.End());
    for (const std::uint64_t count : {1U, 2U, 3U}) {
        mVisitor.Open(file);
        EXPECT_TRUE(AwaitCounted("files.dropped", count));
        ExpectAllAccountedFor();
    }
    EXPECT_EQ(Counted("files.posted"), 0U);
    EXPECT_TRUE(mWatcher->Accesses().empty());
}

TEST_F(WatchTest, AnotherTaskOfTheSameNameIsNotToldWhatTheFirstWatches) {
    const std::string file = mMount->Write("a/x", "1");
    StartWatcher();
    Watch(*mMount / "a");
    ASSERT_TRUE(mWatcherHolder.End());
    StartWatcher();
    mVisitor.Open(file);
    EXPECT_TRUE(AwaitCounted("files.dropped", 1));
    EXPECT_TRUE(mWatcher->Accesses().empty());
}

TEST_F(WatchTest, TwoTasksAreToldIndependently) {
    const std::string file = mMount->Write("a/x", "1");
    const std::string others = mMount->Write("b/x", "1");
    const Poco::AutoPtr<WatchingTask> other = mWatcherHolder.Start(new WatchingTask("test_other_watcher"));
    StartWatcher();
    Watch(*mMount / "a");
    Send(*other, *mMount / "b", Adding());
    mVisitor.Open(file);
    mVisitor.Open(others);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
    EXPECT_TRUE(WaitFor([&] { return other->WasTold({mVisitor.Pid(), others}); }));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(other->Accesses().size(), 1U);
}

TEST_F(WatchTest, EveryAccessIsInExactlyOneCounter) {
    if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TempCgroup group;
    Visitor inside(group);
    const LimitedScope scope(group);
    const std::vector<std::string> files = WriteFiles(*mMount, "a", 30);
    StartWatcher();
    Watch(*mMount / "a");
    for (std::size_t i = 0; i < 10; ++i) {
        OpenOurselves(files[i]);
        mVisitor.Open(files[10 + i]);
        inside.Open(files[20 + i]);
    }
    ASSERT_TRUE(AwaitTold(inside.Pid(), files.back()));
    ASSERT_TRUE(mWatcherHolder.End());
    inside.Open(files.front());
    ASSERT_TRUE(AwaitCounted("files.dropped", 1));
    EXPECT_EQ(Counted("files.read"), 31U);
    EXPECT_EQ(Counted("files.own"), 10U);
    EXPECT_EQ(Counted("files.unscoped"), 10U);
    EXPECT_EQ(Counted("files.posted"), 10U);
    EXPECT_EQ(Counted("files.dropped"), 1U);
    ExpectAllAccountedFor();
}
