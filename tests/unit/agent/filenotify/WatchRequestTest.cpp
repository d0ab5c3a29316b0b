// What requests do to the marks and to the watchers.

#include <filesystem>
#include <string>

#include <linux/capability.h>
#include <pthread.h>
#include <sys/syscall.h>

#include "unit/agent/filenotify/FileNotifyTest.h"

using namespace TestSupport;
using Poco::Message;

namespace {

class WatchRequestTest : public FileNotifyTest {};

// The calling thread may not do what the capability allows as long as it lives.
class WithoutSysAdmin {
public:
    WithoutSysAdmin() {
        syscall(SYS_capget, &mHeader, mBefore);
        __user_cap_data_struct data[2] = {mBefore[0], mBefore[1]};
        data[0].effective &= ~(1U << CAP_SYS_ADMIN);
        syscall(SYS_capset, &mHeader, data);
    }
    ~WithoutSysAdmin() { syscall(SYS_capset, &mHeader, mBefore); }
    WithoutSysAdmin(const WithoutSysAdmin&) = delete;
    WithoutSysAdmin& operator=(const WithoutSysAdmin&) = delete;

private:
    __user_cap_header_struct mHeader{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct mBefore[2]{};
};

// No thread can be started as long as it lives: each would get a stack that nobody can have.
class NoMoreThreads {
public:
    NoMoreThreads() {
        pthread_getattr_default_np(&mBefore);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~NoMoreThreads() {
        pthread_setattr_default_np(&mBefore);
        pthread_attr_destroy(&mBefore);
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

private:
    pthread_attr_t mBefore{};
};

} // namespace

TEST_F(WatchRequestTest, NothingIsAskedOfTheKernelUntilATaskWatches) {
    StartWatcher();
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
    Watch(MakeFolder("a"));
    EXPECT_EQ(ListGroups().size(), 1U);
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 1, 0)}));
}

TEST_F(WatchRequestTest, EachTaskHasItsOwnWatcher) {
    StartWatcher();
    const Poco::AutoPtr<WatchingTask> other = mWatcherHolder.Start(new WatchingTask("test_other_watcher"));
    Watch(MakeFolder("a"));
    Watch(MakeFolder("b"));
    Send(*other, *mMount / "a", Adding());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described("test_other_watcher", 1, 0), Described(WATCHER, 2, 0)}));
    EXPECT_EQ(ListGroups().size(), 2U);
}

TEST_F(WatchRequestTest, RemovingTheLastPathEndsTheWatcher) {
    StartWatcher();
    const std::size_t before = CountDescriptors();
    Watch(MakeFolder("a"));
    Watch(MakeFolder("b"));
    Unwatch(*mMount / "a");
    EXPECT_EQ(CountKernelMarks(), 1U);
    Unwatch(*mMount / "b");
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(WatchRequestTest, AfterTheLastPathAnotherCanBeWatched) {
    const std::string file = mMount->Write("a/x", "1");
    StartWatcher();
    Watch(*mMount / "a");
    Unwatch(*mMount / "a");
    Watch(*mMount / "a");
    mVisitor.Open(file);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
}

TEST_F(WatchRequestTest, RemovingWhatNobodyWatchesDoesNothing) {
    StartWatcher();
    Unwatch(MakeFolder("a"));
    EXPECT_TRUE(ListGroups().empty());
    Watch(*mMount / "a");
    Unwatch(MakeFolder("b"));
    EXPECT_EQ(CountKernelMarks(), 1U);
    EXPECT_EQ(mLog.CountAt(Message::PRIO_ERROR), 0);
}

TEST_F(WatchRequestTest, ARequestForNothingDoesNothing) {
    StartWatcher();
    Send(*mWatcher, MakeFolder("a"), {});
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->GetQueueDepth(), 0U);
}

TEST_F(WatchRequestTest, AMissingDirectoryIsLoggedWithTheReasonAndTheOthersStand) {
    const std::string file = mMount->Write("a/x", "1");
    StartWatcher();
    Watch(*mMount / "a");
    Watch(*mMount / "missing");
    EXPECT_TRUE(
        mLog.Has(Message::PRIO_ERROR, CannotWatch(*mMount / "missing", "it is gone (No such file or directory)")));
    EXPECT_EQ(mLog.CountAt(Message::PRIO_ERROR), 1);
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 1, 1)}));
    mVisitor.Open(file);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
}

TEST_F(WatchRequestTest, AFileSystemWithoutSupportIsLoggedWithTheReason) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const SDK::FileDescriptor reader(ends[0]);
    const SDK::FileDescriptor writer(ends[1]);
    const std::string path = "/proc/self/fd/" + std::to_string(reader.Get());
    StartWatcher();
    Send(*mWatcher, path, AddingMount());
    EXPECT_TRUE(
        mLog.Has(Message::PRIO_ERROR, CannotWatch(path, "its file system does not support it (Invalid argument)")));
}

TEST_F(WatchRequestTest, TheWatchersOwnLimitIsLoggedOnceForEachPathBeyondIt) {
    StartWatcher();
    Engine::_FileNotifyOpt options = Adding();
    options.maxMarks = 2;
    for (const char* name : {"a", "b", "c"}) {
        Send(*mWatcher, MakeFolder(name), options);
    }
    EXPECT_TRUE(
        mLog.Has(Message::PRIO_ERROR, CannotWatch(*mMount / "c", "the watcher's own limit of marks is reached")));
    EXPECT_EQ(mLog.CountAt(Message::PRIO_ERROR), 1);
    EXPECT_EQ(CountKernelMarks(), 2U);
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 2, 1)}));
}

TEST_F(WatchRequestTest, WithoutTheCapabilityTheReasonIsLogged) {
    StartWatcher();
    const std::string folder = MakeFolder("a");
    {
        const WithoutSysAdmin unprivileged;
        Watch(folder);
    }
    EXPECT_TRUE(mLog.Has(Message::PRIO_ERROR, CannotWatch(folder, "fanotify is not available (it needs "
                                                                  "CAP_SYS_ADMIN): Operation not permitted")));
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 0, 1)}));
    Watch(folder);
    EXPECT_EQ(CountKernelMarks(), 1U);
}

TEST_F(WatchRequestTest, WithoutAThreadNothingIsLeftBehind) {
    StartWatcher();
    const std::string folder = MakeFolder("a");
    {
        const NoMoreThreads starved;
        Watch(folder);
    }
    EXPECT_EQ(mLog.CountAt(Message::PRIO_ERROR), 1);
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 0, 1)}));
    Unwatch(folder);
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
    Watch(folder);
    EXPECT_EQ(CountKernelMarks(), 1U);
}

TEST_F(WatchRequestTest, ANewTaskOfTheSameNameReplacesTheMarksOfTheOld) {
    const std::string before = mMount->Write("a/x", "1");
    const std::string now = mMount->Write("b/x", "1");
    StartWatcher();
    const Poco::AutoPtr<WatchingTask> old = mWatcher;
    Watch(*mMount / "a");
    ASSERT_TRUE(mWatcherHolder.End());
    StartWatcher();
    Watch(*mMount / "b");
    EXPECT_EQ(CountKernelMarks(), 1U);
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, 1, 0)}));
    mVisitor.Open(before);
    mVisitor.Open(now);
    ASSERT_TRUE(AwaitTold(mVisitor.Pid(), now));
    EXPECT_EQ(mWatcher->Accesses().size(), 1U);
    EXPECT_EQ(Counted("files.read"), 1U);
    Send(*old, *mMount / "b", Removing());
    EXPECT_EQ(CountKernelMarks(), 1U) << "the old task has no say any more";
}

TEST_F(WatchRequestTest, TheTasksEndTakesAllMarksAway) {
    StartWatcher();
    const std::size_t before = CountDescriptors();
    Watch(MakeFolder("a"));
    Watch(MakeFolder("b"));
    ASSERT_TRUE(mNotifyHolder.End());
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
    EXPECT_LE(CountDescriptors(), before);
}

TEST_F(WatchRequestTest, AfterTheTasksEndRequestsDoNothing) {
    StartWatcher();
    Watch(MakeFolder("a"));
    ASSERT_TRUE(mNotifyHolder.End());
    Watch(MakeFolder("b"));
    Unwatch(*mMount / "a");
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
    EXPECT_EQ(mLog.CountAt(Message::PRIO_ERROR), 0);
}

TEST_F(WatchRequestTest, ThousandsOfDirectoriesAreMarkedAndUnmarkedInOneGo) {
    constexpr std::size_t COUNT = 8000;
    StartWatcher();
    for (std::size_t i = 0; i < COUNT; ++i) {
        Watch(MakeFolder("d" + std::to_string(i)));
    }
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({Described(WATCHER, COUNT, 0)}));
    EXPECT_EQ(CountKernelMarks(), COUNT);
    const std::string file = mMount->Write("d" + std::to_string(COUNT - 1) + "/x", "1");
    mVisitor.Open(file);
    EXPECT_TRUE(AwaitTold(mVisitor.Pid(), file));
    for (std::size_t i = 0; i < COUNT; ++i) {
        Unwatch(*mMount / ("d" + std::to_string(i)));
    }
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(mNotify->DescribeWatchers(), ListOf({}));
}
