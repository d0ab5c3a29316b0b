#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/fanotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/filenotify/FanotifyGroup.h"
#include "support/ChildProcess.h"
#include "support/TempMount.h"
#include "unit/agent/filenotify/KernelView.h"

using namespace TestSupport;
using Engine::FanotifyGroup;

namespace {

constexpr std::uint64_t OPENS_IN = FAN_OPEN | FAN_EVENT_ON_CHILD;
constexpr auto DIRECTORY = FanotifyGroup::Object::Directory;
constexpr auto MOUNT = FanotifyGroup::Object::Mount;

void OpenAll(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        const SDK::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(file.IsOpen()) << path;
    }
}

// A child opens each of the files; its process id when it has ended well.
int OpenAllInAChild(const std::vector<std::string>& paths) {
    ChildProcess child = ChildProcess::Fork([&paths] {
        for (const std::string& path : paths) {
            const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (file < 0) {
                _exit(1);
            }
            close(file);
        }
        _exit(0);
    });
    const int pid = child.Pid();
    EXPECT_EQ(child.Wait(), 0);
    return pid;
}

bool IsSameFile(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

// All that waits in the group's queue.
struct Total {
    std::size_t accesses = 0;
    std::size_t overflows = 0;
    std::size_t unreadable = 0;
};

Total ReadAll(const FanotifyGroup& group) {
    Total total;
    FanotifyGroup::Batch batch;
    do {
        EXPECT_EQ(group.Read(group.CountWaiting(), batch), 0);
        total.accesses += batch.accesses.size();
        total.overflows += batch.overflows;
        total.unreadable += batch.unreadable;
    } while (batch.Size() > 0);
    return total;
}

// No more than so many further descriptors can be opened while it lives.
class RoomForDescriptors {
public:
    explicit RoomForDescriptors(rlim_t count) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        const rlimit room{LowestFree() + count, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &room);
    }
    ~RoomForDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    RoomForDescriptors(const RoomForDescriptors&) = delete;
    RoomForDescriptors& operator=(const RoomForDescriptors&) = delete;

private:
    // The number that the next descriptor gets; the test keeps no gaps above it.
    static rlim_t LowestFree() {
        const SDK::FileDescriptor next(dup(STDERR_FILENO));
        return static_cast<rlim_t>(next.Get());
    }

    rlimit mBefore{};
};

// Goes on as a user of whom the kernel has counted no mark yet, with all that the superuser may.
bool BecomeAnotherUser() {
    constexpr uid_t UNUSED_UID = 0x7ffe0000;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (prctl(PR_SET_KEEPCAPS, 1) != 0 || syscall(SYS_setresuid, UNUSED_UID, UNUSED_UID, UNUSED_UID) != 0 ||
        syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    data[0].effective = data[0].permitted;
    data[1].effective = data[1].permitted;
    return syscall(SYS_capset, &header, data) == 0;
}

class FanotifyGroupTest : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string reason = WhyNoFanotify() + WhyNoMount(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mMount.emplace();
        std::string problem;
        ASSERT_TRUE(mGroup.Open(problem)) << problem;
    }

    void Mark(const std::string& folder) { ASSERT_EQ(mGroup.Mark(DIRECTORY, *mMount / folder, OPENS_IN), 0); }

    std::optional<TempMount> mMount;
    FanotifyGroup mGroup;
    FanotifyGroup::Batch mBatch;
};

} // namespace

TEST_F(FanotifyGroupTest, AnOpenIsReportedWithProcessMaskAndTheFileItself) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 1);
    Mark("watched");
    const int pid = OpenAllInAChild(files);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    ASSERT_EQ(mBatch.accesses.size(), 1U);
    const Engine::FileAccess& access = mBatch.accesses.front();
    EXPECT_EQ(access.pid, pid);
    EXPECT_EQ(access.mask, FAN_OPEN);
    EXPECT_TRUE(IsSameFile(access.file.Get(), files.front()));
    EXPECT_EQ(fcntl(access.file.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(mBatch.overflows, 0U);
    EXPECT_EQ(mBatch.unreadable, 0U);
}

TEST_F(FanotifyGroupTest, NothingWaitsAndTheBatchIsEmpty) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 1);
    Mark("watched");
    OpenAll(files);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    ASSERT_EQ(mBatch.Size(), 1U);
    EXPECT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(mBatch.Size(), 0U);
}

TEST_F(FanotifyGroupTest, OneReadTakesAtMostABatchAndTheNextTheRest) {
    constexpr std::size_t REST = 5;
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", FanotifyGroup::MAX_BATCH + REST);
    Mark("watched");
    OpenAll(files);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(mBatch.accesses.size(), FanotifyGroup::MAX_BATCH);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(mBatch.accesses.size(), REST);
}

TEST_F(FanotifyGroupTest, WhatWaitsIsCountedWithoutBeingTaken) {
    constexpr std::size_t COUNT = FanotifyGroup::MAX_BATCH + 5;
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", COUNT);
    Mark("watched");
    EXPECT_EQ(mGroup.CountWaiting(), 0U);
    OpenAll(files);
    EXPECT_EQ(mGroup.CountWaiting(), COUNT);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(mGroup.CountWaiting(), COUNT - FanotifyGroup::MAX_BATCH);
    EXPECT_EQ(ReadAll(mGroup).accesses, COUNT - FanotifyGroup::MAX_BATCH);
    EXPECT_EQ(mGroup.CountWaiting(), 0U);
}

TEST_F(FanotifyGroupTest, NoMoreIsReadThanTheCallerKnowsOf) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 10);
    Mark("watched");
    OpenAll(files);
    ASSERT_EQ(mGroup.Read(3, mBatch), 0);
    EXPECT_EQ(mBatch.accesses.size(), 3U);
    EXPECT_EQ(mGroup.CountWaiting(), 7U);
    ASSERT_EQ(mGroup.Read(0, mBatch), 0);
    EXPECT_EQ(mBatch.Size(), 0U);
    EXPECT_EQ(mGroup.CountWaiting(), 7U);
}

TEST_F(FanotifyGroupTest, ADescriptorOfOthersBetweenThoseOfABatchStaysOpen) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 6);
    Mark("watched");
    OpenAll(files);
    // The second lowest free number, so that it lies among those that the kernel gives next.
    SDK::FileDescriptor lowest(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const SDK::FileDescriptor others(open("/dev/null", O_RDONLY | O_CLOEXEC));
    lowest.Reset();
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    ASSERT_EQ(mBatch.accesses.size(), files.size());
    ASSERT_LT(mBatch.accesses.front().file.Get(), others.Get());
    ASSERT_GT(mBatch.accesses.back().file.Get(), others.Get());
    const std::size_t before = CountDescriptors();
    mBatch.Clear();
    EXPECT_EQ(CountDescriptors(), before - files.size());
    EXPECT_NE(fcntl(others.Get(), F_GETFD), -1);
}

TEST_F(FanotifyGroupTest, ABatchHoldsItsDescriptorsUntilItIsCleared) {
    constexpr std::size_t COUNT = 20;
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", COUNT);
    Mark("watched");
    const std::size_t before = CountDescriptors();
    OpenAll(files);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(CountDescriptors(), before + COUNT);
    mBatch.Clear();
    EXPECT_EQ(CountDescriptors(), before);
    OpenAll(files);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    ASSERT_EQ(mGroup.Read(mGroup.CountWaiting(), mBatch), 0);
    EXPECT_EQ(CountDescriptors(), before) << "the next read closes what the last one opened";
}

TEST_F(FanotifyGroupTest, AGroupThatGoesWithUnreadEventsLeavesNoDescriptor) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 50);
    const std::size_t before = CountDescriptors();
    {
        FanotifyGroup group;
        std::string problem;
        ASSERT_TRUE(group.Open(problem)) << problem;
        ASSERT_EQ(group.Mark(DIRECTORY, *mMount / "watched", OPENS_IN), 0);
        OpenAll(files);
        EXPECT_EQ(CountDescriptors(), before + 1);
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(FanotifyGroupTest, AnOverflowIsCountedAndCostsNoDescriptor) {
    const std::size_t limit = FanotifyLimit("max_queued_events");
    if (limit > 100000) {
        GTEST_SKIP() << "fs.fanotify.max_queued_events is " << limit << ", too many to run over";
    }
    constexpr std::size_t SURPLUS = 500;
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", limit + SURPLUS);
    Mark("watched");
    const std::size_t before = CountDescriptors();
    OpenAllInAChild(files);
    const Total total = ReadAll(mGroup);
    EXPECT_EQ(total.overflows, 1U) << "one event stands for all that are gone";
    EXPECT_EQ(total.accesses, limit);
    EXPECT_EQ(total.unreadable, 0U);
    EXPECT_EQ(CountDescriptors(), before);
    OpenAll({files.front()});
    EXPECT_EQ(ReadAll(mGroup).accesses, 1U) << "the queue goes on";
}

// A kernel that cannot say which file it could not open ends the read there.
TEST_F(FanotifyGroupTest, OnAnOlderKernelAnUnreadableFileAmongOthersIsCountedToo) {
    FanotifyGroup group(FanotifyGroup::FileErrors::No);
    std::string problem;
    ASSERT_TRUE(group.Open(problem)) << problem;
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 6);
    ASSERT_EQ(group.Mark(DIRECTORY, *mMount / "watched", OPENS_IN), 0);
    const std::size_t before = CountDescriptors();
    OpenAll(files);
    {
        const RoomForDescriptors two(2);
        ASSERT_EQ(group.Read(group.CountWaiting(), mBatch), 0);
    }
    EXPECT_EQ(mBatch.accesses.size(), 2U);
    EXPECT_EQ(mBatch.unreadable, 4U);
    mBatch.Clear();
    EXPECT_EQ(CountDescriptors(), before);
    OpenAll(files);
    EXPECT_EQ(ReadAll(group).accesses, files.size());
}

// Opening a file that somebody holds a lease on waits, up to fs.lease-break-time seconds, until it is
// given up. The holder is the one whose access is reported.
TEST_F(FanotifyGroupTest, NoReadWaitsForALease) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 1);
    for (const auto fileErrors : {FanotifyGroup::FileErrors::IfPossible, FanotifyGroup::FileErrors::No}) {
        FanotifyGroup group(fileErrors);
        std::string problem;
        ASSERT_TRUE(group.Open(problem)) << problem;
        ASSERT_EQ(group.Mark(DIRECTORY, *mMount / "watched", OPENS_IN), 0);
        const SDK::FileDescriptor leased(open(files.front().c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(signal(SIGIO, SIG_IGN), SIG_DFL);
        ASSERT_EQ(fcntl(leased.Get(), F_SETLEASE, F_WRLCK), 0) << std::strerror(errno);
        ASSERT_EQ(group.Read(group.CountWaiting(), mBatch), 0);
        // Still held: the read did not outlast it.
        EXPECT_NE(fcntl(leased.Get(), F_GETLEASE), F_UNLCK);
        EXPECT_EQ(mBatch.unreadable, 1U);
        EXPECT_EQ(mBatch.Size(), 1U);
        fcntl(leased.Get(), F_SETLEASE, F_UNLCK);
        signal(SIGIO, SIG_DFL);
    }
}

TEST_F(FanotifyGroupTest, AFileThatCannotBeOpenedCountsAsUnreadableAndLaterOnesCome) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 3);
    Mark("watched");
    OpenAll(files);
    {
        const RoomForDescriptors starved(0);
        const Total total = ReadAll(mGroup);
        EXPECT_EQ(total.unreadable, files.size());
        EXPECT_EQ(total.accesses, 0U);
    }
    OpenAll(files);
    const Total total = ReadAll(mGroup);
    EXPECT_EQ(total.accesses, files.size());
    EXPECT_EQ(total.unreadable, 0U);
}

TEST_F(FanotifyGroupTest, AMarkOnAMissingDirectoryIsRefused) {
    EXPECT_EQ(mGroup.Mark(DIRECTORY, *mMount / "missing", OPENS_IN), ENOENT);
    EXPECT_EQ(mGroup.Mark(MOUNT, *mMount / "missing", FAN_OPEN), ENOENT);
    EXPECT_TRUE(ListMarks(mGroup.GetFd()).empty());
}

TEST_F(FanotifyGroupTest, AFileSystemWithoutSupportIsRefused) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const SDK::FileDescriptor reader(ends[0]);
    const SDK::FileDescriptor writer(ends[1]);
    const int error = mGroup.Mark(MOUNT, "/proc/self/fd/" + std::to_string(reader.Get()), FAN_OPEN);
    EXPECT_THAT(error, testing::AnyOf(EINVAL, EOPNOTSUPP, ENODEV, EXDEV));
}

TEST_F(FanotifyGroupTest, AnUnmarkedDirectoryIsSilent) {
    const std::vector<std::string> files = WriteFiles(*mMount, "watched", 1);
    Mark("watched");
    ASSERT_EQ(ListMarks(mGroup.GetFd()).size(), 1U);
    ASSERT_EQ(mGroup.Unmark(DIRECTORY, *mMount / "watched", OPENS_IN), 0);
    EXPECT_TRUE(ListMarks(mGroup.GetFd()).empty());
    OpenAll(files);
    EXPECT_EQ(ReadAll(mGroup).accesses, 0U);
    EXPECT_EQ(mGroup.Unmark(DIRECTORY, *mMount / "watched", OPENS_IN), ENOENT);
}

// A child under another user id, because the superuser's marks are one account for the whole machine.
TEST_F(FanotifyGroupTest, TheLimitOfMarksIsRefusedAndTheMarksBeforeItStand) {
    const std::size_t limit = FanotifyLimit("max_user_marks");
    if (limit > 300000) {
        GTEST_SKIP() << "fs.fanotify.max_user_marks is " << limit << ", too many to reach";
    }
    const std::vector<std::string> files = WriteFiles(*mMount, "d0", 1);
    enum Outcome { AS_EXPECTED, NOT_PREPARED, NO_DIRECTORY, TOO_EARLY, NOT_REFUSED, OTHER_ERROR, LOST_MARK };
    ChildProcess child = ChildProcess::Fork([&] {
        FanotifyGroup group;
        std::string problem;
        if (!BecomeAnotherUser() || !group.Open(problem)) {
            _exit(NOT_PREPARED);
        }
        int error = 0;
        std::size_t marked = 0;
        for (; marked <= limit && error == 0; marked += error == 0 ? 1 : 0) {
            const std::string path = *mMount / ("d" + std::to_string(marked));
            if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
                _exit(NO_DIRECTORY);
            }
            error = group.Mark(DIRECTORY, path, OPENS_IN);
        }
        if (error != ENOSPC) {
            _exit(error == 0 ? NOT_REFUSED : OTHER_ERROR);
        }
        OpenAll(files);
        _exit(marked < limit ? TOO_EARLY : ReadAll(group).accesses == 1 ? AS_EXPECTED : LOST_MARK);
    });
    const int status = child.Wait();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), AS_EXPECTED);
}

TEST_F(FanotifyGroupTest, WhoMayNotWatchIsToldWhy) {
    enum Outcome { AS_EXPECTED, NOT_PREPARED, ALLOWED, NO_REASON };
    ChildProcess child = ChildProcess::Fork([] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2]{};
        if (syscall(SYS_capset, &header, none) != 0) {
            _exit(NOT_PREPARED);
        }
        FanotifyGroup group;
        std::string problem;
        if (group.Open(problem)) {
            _exit(ALLOWED);
        }
        const std::string expected = "fanotify is not available (it needs CAP_SYS_ADMIN): Operation not permitted";
        _exit(problem == expected ? AS_EXPECTED : NO_REASON);
    });
    const int status = child.Wait();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), AS_EXPECTED);
}
