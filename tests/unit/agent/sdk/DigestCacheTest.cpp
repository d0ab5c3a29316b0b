#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/DigestCache.h"
#include "agent/sdk/FileDescriptor.h"
#include "sdk/FileUtils.h"
#include "support/TempMount.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using SDK::DigestCache;
using SDK::FileDescriptor;

constexpr std::uint64_t LIMIT = 1000;

// A folder, seen a second time through a mount such as those that are made for users.
class NosuidView {
public:
    explicit NosuidView(const std::string& folder) {
        if (mount(folder.c_str(), mPlace.Path().c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            mount(nullptr, mPlace.Path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID, nullptr) != 0) {
            throw std::runtime_error("no view of " + folder + " can be mounted");
        }
    }
    ~NosuidView() { umount2(mPlace.Path().c_str(), MNT_DETACH); }
    NosuidView(const NosuidView&) = delete;
    NosuidView& operator=(const NosuidView&) = delete;

    std::string operator/(const std::string& name) const { return mPlace / name; }

private:
    TestSupport::TempDir mPlace;
};

// A cache whose clock runs ahead of the kernel's, so that files which were just made count as settled; the
// "digest" of a file is its content.
class DigestCacheTest : public testing::Test {
protected:
    std::string Ask(const std::string& path, std::uint64_t maxBytes = LIMIT) { return Ask(cache, path, maxBytes); }

    std::string Ask(DigestCache& asked, const std::string& path, std::uint64_t maxBytes = LIMIT) {
        const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_TRUE(file.IsOpen()) << path;
        std::string digest = "untouched";
        const int result = asked.Get(
            file.Get(), maxBytes, [&](int fd, std::string& content) { return Read(fd, maxBytes, content); }, digest);
        EXPECT_EQ(result, 0);
        return digest;
    }

    int Read(int fd, std::uint64_t maxBytes, std::string& content) {
        ++computations;
        std::array<char, LIMIT> buffer{};
        const ssize_t count = pread(fd, buffer.data(), std::min<std::uint64_t>(maxBytes, buffer.size()), 0);
        content.assign(buffer.data(), static_cast<std::size_t>(count));
        if (afterReading) {
            afterReading();
        }
        return 0;
    }

    // Gives the file's times of access and change back, as "touch -d" would.
    static void RestoreTimes(const std::string& path, const struct stat& old) {
        const std::array<timespec, 2> times = {old.st_atim, old.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
    }

    static struct stat Stat(const std::string& path) {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info;
    }

    // Waits until the kernel gives another time stamp than the file has.
    static void AwaitNextTick(const std::string& path) {
        const struct stat info = Stat(path);
        const std::int64_t stamp = info.st_ctim.tv_sec * 1'000'000'000 + info.st_ctim.tv_nsec;
        ASSERT_TRUE(TestSupport::WaitFor([&] { return DigestCache::ReadFileClock() > stamp; }));
    }

    TestSupport::TempDir dir;
    std::atomic<int> computations{0};
    std::function<void()> afterReading;
    std::atomic<std::int64_t> aheadNs{2 * DigestCache::SETTLE_TIME_NS};
    DigestCache cache{DigestCache::MAX_ENTRIES, [this] { return DigestCache::ReadFileClock() + aheadNs; }};
};

TEST_F(DigestCacheTest, AFileThatHasNotChangedIsReadOnce) {
    const std::string path = dir.Write("file", "content");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Ask(path), "content");
    }
    EXPECT_EQ(computations, 1);
    EXPECT_EQ(cache.GetFigures().hits, 2U);
    EXPECT_EQ(cache.GetFigures().misses, 1U);
    EXPECT_EQ(cache.GetFigures().refused, 0U);
}

TEST_F(DigestCacheTest, ByItsPathOnlyWhatIsRememberedIsFound) {
    const std::string path = dir.Write("file", "content");
    std::string digest = "untouched";
    EXPECT_FALSE(cache.Find(path, LIMIT, digest));
    Ask(path);
    EXPECT_FALSE(cache.Find(path, LIMIT - 1, digest));
    EXPECT_FALSE(cache.Find(path + ".not", LIMIT, digest));
    EXPECT_EQ(digest, "untouched");
    EXPECT_TRUE(cache.Find(path, LIMIT, digest));
    EXPECT_EQ(digest, "content");
    AwaitNextTick(path);
    dir.Write("file", "CONTENT");
    EXPECT_FALSE(cache.Find(path, LIMIT, digest));
    EXPECT_EQ(computations, 1);
    EXPECT_EQ(cache.GetFigures().hits, 1u);
}

// This program's own file has not changed for a while.
TEST_F(DigestCacheTest, AFileWhoseDigestIsRememberedIsNotOpened) {
    const std::string path = std::filesystem::read_symlink("/proc/self/exe");
    std::string first;
    // Not while the file has just been built.
    const bool isRemembered = TestSupport::WaitFor([&] {
        const std::uint64_t refusedBefore = SDK::FileUtils::GetDigestFigures().refused;
        EXPECT_EQ(SDK::FileUtils::GetFileSha256(path, first, LIMIT), 0);
        return SDK::FileUtils::GetDigestFigures().refused == refusedBefore;
    });
    if (!isRemembered) {
        GTEST_SKIP() << "no digest is remembered of files on this file system";
    }
    const FileDescriptor watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.Get(), path.c_str(), IN_OPEN), 0);
    std::string second;
    ASSERT_EQ(SDK::FileUtils::GetFileSha256(path, second, LIMIT), 0);
    EXPECT_EQ(second, first);
    std::array<char, 4096> events{};
    EXPECT_EQ(read(watch.Get(), events.data(), events.size()), -1) << "it was opened";
}

TEST_F(DigestCacheTest, AnotherNameOfTheSameFileIsAHitOnceTheLinkIsKnown) {
    const std::string path = dir.Write("file", "content");
    std::filesystem::create_hard_link(path, dir / "other");
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(Ask(dir / "other"), "content");
    EXPECT_EQ(computations, 1);
}

TEST_F(DigestCacheTest, AnotherReadLimitIsAnotherDigest) {
    const std::string path = dir.Write("file", "content");
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(Ask(path, 3), "con");
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(computations, 2);
}

TEST_F(DigestCacheTest, ChangedContentOfTheSameSizeIsReadAgain) {
    const std::string path = dir.Write("file", "content");
    EXPECT_EQ(Ask(path), "content");
    AwaitNextTick(path);
    dir.Write("file", "CONTENT");
    EXPECT_EQ(Ask(path), "CONTENT");
}

TEST_F(DigestCacheTest, RestoredTimesDoNotHideAChange) {
    const std::string path = dir.Write("file", "content");
    const struct stat old = Stat(path);
    EXPECT_EQ(Ask(path), "content");
    AwaitNextTick(path);
    dir.Write("file", "CONTENT");
    RestoreTimes(path, old);
    ASSERT_EQ(Stat(path).st_mtim.tv_nsec, old.st_mtim.tv_nsec);
    EXPECT_EQ(Ask(path), "CONTENT");
}

TEST_F(DigestCacheTest, AnotherFileUnderTheSameNameIsReadEvenWithTheSameSizeAndTimes) {
    const std::string path = dir.Write("file", "content");
    const struct stat old = Stat(path);
    EXPECT_EQ(Ask(path), "content");
    dir.Write("new", "CONTENT");
    RestoreTimes(dir / "new", old);
    std::filesystem::rename(dir / "new", path);
    EXPECT_EQ(Ask(path), "CONTENT");
}

TEST_F(DigestCacheTest, AFileThatChangedJustNowIsNotRemembered) {
    aheadNs = 0;
    const std::string path = dir.Write("file", "content");
    EXPECT_EQ(Ask(path), "content");
    dir.Write("file", "CONTENT");
    EXPECT_EQ(Ask(path), "CONTENT");
    EXPECT_EQ(cache.GetFigures().refused, 2U);
}

TEST_F(DigestCacheTest, AFileIsRememberedFromTheSettleTimeOn) {
    const std::string path = dir.Write("file", "content");
    const struct stat info = Stat(path);
    const std::int64_t stamp = info.st_ctim.tv_sec * 1'000'000'000 + info.st_ctim.tv_nsec;
    std::int64_t now = stamp + DigestCache::SETTLE_TIME_NS - 1;
    DigestCache fixed(10, [&now] { return now; });
    Ask(fixed, path);
    EXPECT_EQ(fixed.GetFigures().refused, 1U);
    ++now;
    Ask(fixed, path);
    EXPECT_EQ(fixed.GetFigures().refused, 1U);
    Ask(fixed, path);
    EXPECT_EQ(fixed.GetFigures().hits, 1U);
}

TEST_F(DigestCacheTest, AFileThatSomebodyHasOpenForWritingIsNotRemembered) {
    const std::string path = dir.Write("file", "content");
    {
        const FileDescriptor writer(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(Ask(path), "content");
        EXPECT_EQ(cache.GetFigures().refused, 1U);
    }
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(cache.GetFigures().hits, 1U);
}

TEST_F(DigestCacheTest, AStoreThroughASharedMappingThatLeavesTheTimesAloneIsSeen) {
    const std::string path = dir.Write("file", "content");
    FileDescriptor writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
    auto* mapping = static_cast<char*>(mmap(nullptr, LIMIT, PROT_READ | PROT_WRITE, MAP_SHARED, writer.Get(), 0));
    ASSERT_NE(mapping, MAP_FAILED);
    writer.Reset();
    mapping[0] = 'C'; // sets the times
    const struct stat before = Stat(path);
    EXPECT_EQ(Ask(path), "Content");
    mapping[1] = 'O'; // does not
    ASSERT_EQ(Stat(path).st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    EXPECT_EQ(Ask(path), "COntent");
    EXPECT_EQ(cache.GetFigures().hits, 0U);
    munmap(mapping, LIMIT);
}

// Its own memory is one that can be had without mounting a file system.
TEST_F(DigestCacheTest, AFileInMemoryIsNotRememberedForAStoreThroughAMappingLeavesItsTimesAlone) {
    const FileDescriptor memory(memfd_create("file", MFD_CLOEXEC));
    ASSERT_EQ(write(memory.Get(), "content", 7), 7);
    const std::string path = "/proc/self/fd/" + std::to_string(memory.Get());
    auto* mapping = static_cast<char*>(mmap(nullptr, LIMIT, PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0));
    ASSERT_NE(mapping, MAP_FAILED);
    ASSERT_EQ(mapping[0], 'c');
    const struct stat before = Stat(path);
    EXPECT_EQ(Ask(path), "content");
    mapping[0] = 'C';
    ASSERT_EQ(Stat(path).st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    EXPECT_EQ(Ask(path), "Content");
    munmap(mapping, LIMIT);
}

TEST_F(DigestCacheTest, AChangeWhileTheFileIsReadIsNotRemembered) {
    const std::string path = dir.Write("file", "content");
    AwaitNextTick(path);
    afterReading = [&] {
        afterReading = nullptr;
        dir.Write("file", "CONTENT");
    };
    EXPECT_EQ(Ask(path), "content");
    EXPECT_EQ(Ask(path), "CONTENT");
}

TEST_F(DigestCacheTest, NobodysOpenForWritingWaitsWhileTheFileIsRead) {
    const std::string path = dir.Write("file", "content");
    int opened = -1;
    afterReading = [&] { opened = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC); };
    Ask(path);
    const FileDescriptor writer(opened);
    EXPECT_TRUE(writer.IsOpen());
}

TEST_F(DigestCacheTest, AClockSetBackForgetsEverything) {
    const std::string path = dir.Write("file", "content");
    Ask(path);
    aheadNs -= 1'000'000'000;
    Ask(dir.Write("other", "content"));
    Ask(path);
    EXPECT_EQ(cache.GetFigures().hits, 0U);
    EXPECT_EQ(computations, 3);
}

TEST_F(DigestCacheTest, TheLeastRecentlyUsedGoesWhenThereAreTooMany) {
    DigestCache small(2, [] { return DigestCache::ReadFileClock() + 2 * DigestCache::SETTLE_TIME_NS; });
    const std::string a = dir.Write("a", "a");
    const std::string b = dir.Write("b", "b");
    Ask(small, a);
    Ask(small, b);
    Ask(small, a);                   // now b is the oldest
    Ask(small, dir.Write("c", "c")); // and goes
    EXPECT_EQ(Ask(small, a), "a");
    EXPECT_EQ(small.GetFigures().hits, 2U);
    EXPECT_EQ(Ask(small, b), "b");
    EXPECT_EQ(small.GetFigures().hits, 2U);
    EXPECT_EQ(small.GetFigures().misses, 4U);
}

TEST_F(DigestCacheTest, AFailureIsReturnedAndNotRemembered) {
    const std::string path = dir.Write("file", "content");
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string digest = "untouched";
    const auto fail = [](int /*fd*/, std::string& /*content*/) { return EIO; };
    EXPECT_EQ(cache.Get(file.Get(), LIMIT, fail, digest), EIO);
    EXPECT_EQ(digest, "untouched");
    EXPECT_EQ(Ask(path), "content");
}

TEST_F(DigestCacheTest, AThrowingComputationLeavesNobodyWaiting) {
    const std::string path = dir.Write("file", "content");
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string digest;
    const auto fail = [](int /*fd*/, std::string& /*content*/) -> int { throw std::bad_alloc(); };
    EXPECT_THROW(cache.Get(file.Get(), LIMIT, fail, digest), std::bad_alloc);
    EXPECT_EQ(Ask(path), "content");
}

TEST_F(DigestCacheTest, AFileSystemThatTheKernelDoesNotKeepIsNotBelieved) {
    // Nothing under /proc is a file with times of its own.
    EXPECT_FALSE(Ask("/proc/version").empty());
    EXPECT_FALSE(Ask("/proc/version").empty());
    EXPECT_EQ(computations, 2);
    EXPECT_EQ(cache.GetFigures().refused, 2U);
}

// They can exchange its blocks with those of another file, which moves no time.
TEST_F(DigestCacheTest, AFileThatOthersThanRootCanWriteToIsNotRemembered) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    constexpr uid_t NOBODY = 65534;
    const std::string path = dir.Write("file", "content");
    const auto isRemembered = [&] {
        Ask(path);
        const int before = computations;
        EXPECT_EQ(Ask(path), "content");
        return computations == before;
    };
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    EXPECT_TRUE(isRemembered());
    for (const mode_t mode : {0775, 0757, 0777}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_FALSE(isRemembered()) << std::oct << mode;
    }
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    ASSERT_EQ(chown(path.c_str(), NOBODY, 0), 0);
    EXPECT_FALSE(isRemembered());
    ASSERT_EQ(chown(path.c_str(), 0, NOBODY), 0);
    EXPECT_TRUE(isRemembered());
}

// The same file is remembered where it is mounted as root mounts it, and found there only.
TEST_F(DigestCacheTest, AFileOnAMountThatMayBeAUsersIsNeitherRememberedNorFound) {
    if (const std::string reason = TestSupport::WhyNoMount(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string roots = dir.Write("file", "content");
    const NosuidView users(dir.Path());
    EXPECT_EQ(Ask(users / "file"), "content");
    EXPECT_EQ(cache.GetFigures().refused, 1U);
    EXPECT_EQ(Ask(roots), "content");
    EXPECT_EQ(cache.GetFigures().refused, 1U);
    std::string digest;
    EXPECT_TRUE(cache.Find(roots, LIMIT, digest));
    EXPECT_FALSE(cache.Find(users / "file", LIMIT, digest));
    EXPECT_EQ(Ask(users / "file"), "content");
    EXPECT_EQ(computations, 3);
}

TEST_F(DigestCacheTest, ThreadsThatAskForOneFileAtATimeShareOneComputation) {
    const std::string path = dir.Write("file", "content");
    constexpr int THREADS = 8;
    std::atomic<int> asking{0};
    // The one that reads goes on when all the others have asked, or had the time to.
    afterReading = [&] { TestSupport::WaitFor([&] { return asking == THREADS; }); };
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            ++asking;
            right += Ask(path) == "content" ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, THREADS);
    EXPECT_EQ(computations, 1);
    EXPECT_EQ(cache.GetFigures().hits, static_cast<std::uint64_t>(THREADS - 1));
}

TEST_F(DigestCacheTest, WhoWaitedForADigestThatIsNotRememberedComputesItsOwn) {
    aheadNs = 0;
    const std::string path = dir.Write("file", "content");
    std::atomic<int> asking{0};
    afterReading = [&] { TestSupport::WaitFor([&] { return asking == 2; }); };
    std::thread other([&] {
        ++asking;
        EXPECT_EQ(Ask(path), "content");
    });
    ++asking;
    EXPECT_EQ(Ask(path), "content");
    other.join();
    EXPECT_EQ(computations, 2);
    EXPECT_EQ(cache.GetFigures().hits, 0U);
}

} // namespace
