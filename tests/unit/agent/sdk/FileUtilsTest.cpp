#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/sdk/ReplacingFile.h"
#include "sdk/FileUtils.h"
#include "support/ChildProcess.h"
#include "support/TempRoot.h"

using SDK::FileUtils;
using TestSupport::ChildProcess;
using TestSupport::TempDir;

namespace {

constexpr std::uint64_t NO_LIMIT = UINT64_MAX;
constexpr std::uint64_t TEN_MEBIBYTES = 10485760;

constexpr const char* SHA256_OF_NOTHING = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* SHA256_OF_ABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* SHA256_OF_TEN_MEBIBYTES_OF_ZEROS =
    "e5b844cc57f57094ea4585e235f36c78c1cd222262bb89d53c94dcb4d6b3e55d";

long CountEntries(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

mode_t ModeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
}

std::string MakeFifo(const TempDir& dir) {
    std::string path = dir / "fifo";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
}

std::string MakeSparseFile(const TempDir& dir, std::int64_t size) {
    std::string path = dir.Write("sparse", "");
    EXPECT_EQ(truncate(path.c_str(), size), 0);
    return path;
}

// Lets no file of this process grow beyond the limit: writes fail with EFBIG then, as they would
// with ENOSPC on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &mBefore);
        const rlimit limited{bytes, mBefore.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &mBefore); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit mBefore{};
};

} // namespace

TEST(ReadFile, GivesTheWholeContent) {
    const TempDir dir;
    const std::string bytes("a\0b\n\xFF", 5);
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(dir.Write("file", bytes), content, 100), 0);
    EXPECT_EQ(content, bytes);
}

TEST(ReadFile, GivesAnEmptyTextForAnEmptyFile) {
    const TempDir dir;
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(dir.Write("file", ""), content, 0), 0);
    EXPECT_EQ(content, "");
}

TEST(ReadFile, ReadsFilesLargerThanItsBuffer) {
    const TempDir dir;
    std::string bytes;
    for (int i = 0; bytes.size() < 1000000; ++i) {
        bytes += std::to_string(i);
    }
    std::string content;
    EXPECT_EQ(FileUtils::ReadFile(dir.Write("file", bytes), content, NO_LIMIT), 0);
    EXPECT_EQ(content, bytes);
}

TEST(ReadFile, AFileAtTheLimitIsReadOneOverItIsRefused) {
    const TempDir dir;
    const std::string path = dir.Write("file", "12345");
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(path, content, 4), EFBIG);
    EXPECT_EQ(content, "before");
    EXPECT_EQ(FileUtils::ReadFile(path, content, 5), 0);
    EXPECT_EQ(content, "12345");
}

TEST(ReadFile, AFileThatHoldsMoreThanItsSizeSaysIsRefused) {
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/status", content, 10), EFBIG);
    EXPECT_EQ(content, "before");
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/status", content, 1000000), 0);
    EXPECT_EQ(content.rfind("Name:", 0), 0U);
}

TEST(ReadFile, FollowsLinks) {
    const TempDir dir;
    std::filesystem::create_symlink(dir.Write("file", "x"), dir / "link");
    std::string content;
    EXPECT_EQ(FileUtils::ReadFile(dir / "link", content, 10), 0);
    EXPECT_EQ(content, "x");
}

TEST(ReadFile, AMissingFileIsENOENT) {
    const TempDir dir;
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(dir / "missing", content, 10), ENOENT);
    EXPECT_EQ(FileUtils::ReadFile("", content, 10), ENOENT);
    EXPECT_EQ(content, "before");
}

TEST(ReadFile, ADirectoryIsEISDIR) {
    const TempDir dir;
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(dir.Path(), content, 10), EISDIR);
    EXPECT_EQ(content, "before");
}

TEST(ReadFile, WhatIsNoFileIsRefusedAndNeverWaitedFor) {
    const TempDir dir;
    std::string content = "before";
    EXPECT_EQ(FileUtils::ReadFile(MakeFifo(dir), content, 10), EINVAL);
    EXPECT_EQ(FileUtils::ReadFile("/dev/zero", content, 10), EINVAL);
    EXPECT_EQ(content, "before");
}

TEST(ReadFile, DoesNotWakeAWriterThatWaitsAtAFifo) {
    const TempDir dir;
    const std::string path = MakeFifo(dir);
    std::string content;
    EXPECT_EQ(FileUtils::ReadFile(path, content, 10), EINVAL);
    // Opening for writing without waiting fails as long as nobody has the other end.
    EXPECT_EQ(open(path.c_str(), O_WRONLY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST(ReplaceFile, MakesANewFileThatOnlyItsOwnerCanRead) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(FileUtils::WriteFile(path, bytes, false), 0);
    EXPECT_EQ(dir.Read("file"), bytes);
    EXPECT_EQ(ModeOf(path), 0600U);
    EXPECT_EQ(CountEntries(dir.Path()), 1);
}

TEST(ReplaceFile, ReplacesAFileAndItsMode) {
    const TempDir dir;
    const std::string path = dir.Write("file", "a longer text than the new one");
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    EXPECT_EQ(FileUtils::WriteFile(path, "new", 2, false), 0);
    EXPECT_EQ(dir.Read("file"), "ne");
    EXPECT_EQ(ModeOf(path), 0600U);
    EXPECT_EQ(CountEntries(dir.Path()), 1);
}

TEST(ReplaceFile, WhoHasTheOldFileOpenKeepsIt) {
    const TempDir dir;
    const std::string path = dir.Write("file", "old");
    const int old = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(old, 0);
    EXPECT_EQ(FileUtils::WriteFile(path, "new", false), 0);
    char text[4] = {};
    EXPECT_EQ(read(old, text, 3), 3);
    EXPECT_STREQ(text, "old");
    close(old);
}

TEST(ReplaceFile, ANameInTheCurrentFolderNeedsNoSlash) {
    const TempDir dir;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    EXPECT_EQ(FileUtils::WriteFile("file", "text", false), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(dir.Read("file"), "text");
}

TEST(ReplaceFile, ANameOfTheGreatestLengthIsReplaced) {
    const TempDir dir;
    const std::string name(255, 'n');
    EXPECT_EQ(FileUtils::WriteFile(dir / name, "text", false), 0);
    EXPECT_EQ(dir.Read(name), "text");
}

TEST(ReplaceFile, AMissingFolderIsENOENT) {
    const TempDir dir;
    EXPECT_EQ(FileUtils::WriteFile(dir / "missing/file", "text", false), ENOENT);
    EXPECT_EQ(CountEntries(dir.Path()), 0);
}

TEST(ReplaceFile, ADirectoryIsNotReplacedAndNothingIsLeftBehind) {
    const TempDir dir;
    std::filesystem::create_directory(dir / "folder");
    EXPECT_NE(FileUtils::WriteFile(dir / "folder", "text", false), 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "folder"));
    EXPECT_EQ(CountEntries(dir.Path()), 1);
}

TEST(ReplaceFile, AWriteThatFailsHalfwayLeavesTheOldFileAndNothingElse) {
    const TempDir dir;
    const std::string path = dir.Write("file", "old");
    {
        const FileSizeLimit limit(100000);
        EXPECT_EQ(FileUtils::WriteFile(path, std::string(200000, 'x'), false), EFBIG);
    }
    EXPECT_EQ(dir.Read("file"), "old");
    EXPECT_EQ(CountEntries(dir.Path()), 1);
}

TEST(ReplaceFile, AReaderSeesTheOldFileOrTheNewOne) {
    const TempDir dir;
    const std::string path = dir.Write("file", std::string(300000, 'a'));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            EXPECT_EQ(FileUtils::WriteFile(path, std::string(300000, i % 2 == 0 ? 'b' : 'a'), false), 0);
        }
    });
    for (int i = 0; i < 200; ++i) {
        std::string content;
        ASSERT_EQ(FileUtils::ReadFile(path, content, NO_LIMIT), 0);
        ASSERT_EQ(content.size(), 300000U);
        ASSERT_EQ(content.find_first_not_of(content.front()), std::string::npos);
    }
    stop = true;
    writer.join();
}

TEST(ReplaceFile, AWriterKilledAtAnyPointLeavesAWholeFile) {
    const TempDir dir;
    const std::string path = dir.Write("file", std::string(300000, 'a'));
    for (int round = 0; round < 20; ++round) {
        ChildProcess writer = ChildProcess::Fork([&] {
            for (int i = 0;; ++i) {
                FileUtils::WriteFile(path, std::string(300000, i % 2 == 0 ? 'b' : 'a'), false);
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(500 + 1700 * round));
        writer.End();
        const std::string content = dir.Read("file");
        ASSERT_EQ(content.size(), 300000U);
        ASSERT_EQ(content.find_first_not_of(content.front()), std::string::npos);
    }
}

TEST(AppendToFile, AddsAtTheEnd) {
    const TempDir dir;
    const std::string path = dir.Write("file", "one ");
    EXPECT_EQ(FileUtils::WriteFile(path, "two ", true), 0);
    EXPECT_EQ(FileUtils::WriteFile(path, "three!", 5, true), 0);
    EXPECT_EQ(dir.Read("file"), "one two three");
}

TEST(AppendToFile, MakesAMissingFileThatOnlyItsOwnerCanRead) {
    const TempDir dir;
    EXPECT_EQ(FileUtils::WriteFile(dir / "file", "text", true), 0);
    EXPECT_EQ(dir.Read("file"), "text");
    EXPECT_EQ(ModeOf(dir / "file"), 0600U);
}

TEST(AppendToFile, WhatIsNoFileIsRefusedAndNeverWaitedFor) {
    const TempDir dir;
    EXPECT_EQ(FileUtils::WriteFile(dir.Path(), "text", true), EISDIR);
    EXPECT_EQ(FileUtils::WriteFile(MakeFifo(dir), "text", true), EINVAL);
    EXPECT_EQ(FileUtils::WriteFile(dir / "missing/file", "text", true), ENOENT);
}

TEST(KeepAs, TheFileStaysUnderTheOtherNameWhenItIsReplaced) {
    const TempDir dir;
    const std::string path = dir.Write("file", "old");
    dir.Write("kept", "older");
    EXPECT_EQ(FileUtils::KeepAs(path, dir / "kept"), 0);
    // Once more changes nothing.
    EXPECT_EQ(FileUtils::KeepAs(path, dir / "kept"), 0);
    EXPECT_EQ(FileUtils::WriteFile(path, "new", false), 0);
    EXPECT_EQ(dir.Read("file"), "new");
    EXPECT_EQ(dir.Read("kept"), "old");
    EXPECT_EQ(CountEntries(dir.Path()), 2);
}

TEST(KeepAs, AMissingFileIsENOENTAndWhatIsKeptStays) {
    const TempDir dir;
    dir.Write("kept", "older");
    EXPECT_EQ(FileUtils::KeepAs(dir / "file", dir / "kept"), ENOENT);
    EXPECT_EQ(dir.Read("kept"), "older");
    EXPECT_EQ(CountEntries(dir.Path()), 1);
}

TEST(RemoveLeftovers, DeletesTheTemporaryFilesOfReplacingAndNothingElse) {
    const TempDir dir;
    dir.Write(".corvalent-abc123", "half a file");
    dir.Write(".corvalent-abc1234", "another's");
    dir.Write("corvalent-abc123", "another's");
    std::filesystem::create_directory(dir / ".corvalent-folder");
    SDK::ReplacingFile::RemoveLeftovers(dir.Path());
    EXPECT_EQ(dir.Read(".corvalent-abc123"), "<missing>");
    EXPECT_EQ(CountEntries(dir.Path()), 3);
    SDK::ReplacingFile::RemoveLeftovers(dir / "missing");
}

TEST(RemoveFile, DeletesFilesAndLinks) {
    const TempDir dir;
    const std::string path = dir.Write("file", "text");
    std::filesystem::create_symlink(path, dir / "link");
    EXPECT_EQ(FileUtils::RemoveFile(dir / "link"), 0);
    EXPECT_EQ(dir.Read("file"), "text");
    EXPECT_EQ(FileUtils::RemoveFile(path), 0);
    EXPECT_EQ(CountEntries(dir.Path()), 0);
}

TEST(RemoveFile, AMissingFileIsENOENTAndADirectoryStays) {
    const TempDir dir;
    std::filesystem::create_directory(dir / "folder");
    EXPECT_EQ(FileUtils::RemoveFile(dir / "missing"), ENOENT);
    EXPECT_NE(FileUtils::RemoveFile(dir / "folder"), 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "folder"));
}

TEST(IsFile, IsTrueForRegularFilesAndLinksToThem) {
    const TempDir dir;
    const std::string path = dir.Write("file", "");
    std::filesystem::create_symlink(path, dir / "link");
    std::filesystem::create_symlink(dir / "missing", dir / "dangling");
    EXPECT_TRUE(FileUtils::IsFile(path));
    EXPECT_TRUE(FileUtils::IsFile(dir / "link"));
    EXPECT_FALSE(FileUtils::IsFile(dir / "dangling"));
    EXPECT_FALSE(FileUtils::IsFile(dir.Path()));
    EXPECT_FALSE(FileUtils::IsFile(MakeFifo(dir)));
    EXPECT_FALSE(FileUtils::IsFile(""));
}

TEST(GetFileSize, IsTheSizeOfTheFile) {
    const TempDir dir;
    std::int64_t size = -1;
    EXPECT_EQ(FileUtils::GetFileSize(dir.Write("file", "12345"), size), 0);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(FileUtils::GetFileSize(MakeSparseFile(dir, 5368709120), size), 0);
    EXPECT_EQ(size, 5368709120);
}

TEST(GetFileSize, AFailureLeavesTheSizeUntouched) {
    const TempDir dir;
    std::int64_t size = 7;
    EXPECT_EQ(FileUtils::GetFileSize(dir / "missing", size), ENOENT);
    EXPECT_EQ(FileUtils::GetFileSize(dir.Path(), size), EISDIR);
    EXPECT_EQ(FileUtils::GetFileSize("/dev/null", size), EINVAL);
    EXPECT_EQ(size, 7);
}

TEST(FileDigest, OfKnownContents) {
    const TempDir dir;
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(dir.Write("empty", ""), digest, TEN_MEBIBYTES), 0);
    EXPECT_EQ(digest, SHA256_OF_NOTHING);
    EXPECT_EQ(FileUtils::GetFileSha256(dir.Write("abc", "abc"), digest, TEN_MEBIBYTES), 0);
    EXPECT_EQ(digest, SHA256_OF_ABC);
    // FIPS 180-4's million times "a".
    EXPECT_EQ(FileUtils::GetFileSha256(dir.Write("a", std::string(1000000, 'a')), digest, TEN_MEBIBYTES), 0);
    EXPECT_EQ(digest, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(FileDigest, CoversNoMoreThanTheLimit) {
    const TempDir dir;
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(dir.Write("file", "abcdef"), digest, 3), 0);
    EXPECT_EQ(digest, SHA256_OF_ABC);
    EXPECT_EQ(FileUtils::GetFileSha256(dir / "file", digest, 0), 0);
    EXPECT_EQ(digest, SHA256_OF_NOTHING);
}

TEST(FileDigest, OfAHugeSparseFileCostsNoMoreThanTheLimit) {
    const TempDir dir;
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(MakeSparseFile(dir, 1073741824), digest, TEN_MEBIBYTES), 0);
    EXPECT_EQ(digest, SHA256_OF_TEN_MEBIBYTES_OF_ZEROS);
}

TEST(FileDigest, IsNamedAsOpenSslNamesIt) {
    const TempDir dir;
    const std::string path = dir.Write("file", "abc");
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileHash(path, "SHA256", digest, 100), 0);
    EXPECT_EQ(digest, SHA256_OF_ABC);
    EXPECT_EQ(FileUtils::GetFileHash(path, "SHA1", digest, 100), 0);
    EXPECT_EQ(digest, "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(FileUtils::GetFileHash(path, "MD5", digest, 100), 0);
    EXPECT_EQ(digest, "900150983cd24fb0d6963f7d28e17f72");
}

TEST(FileDigest, IsRememberedUnderEitherName) {
    const TempDir dir;
    const std::string path = dir.Write("file", "abc");
    const auto countAsked = [] {
        const SDK::DigestFigures figures = FileUtils::GetDigestFigures();
        return figures.hits + figures.misses;
    };
    const auto before = countAsked();
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(path, digest, 100), 0);
    EXPECT_EQ(FileUtils::GetFileHash(path, "SHA256", digest, 100), 0);
    EXPECT_EQ(countAsked(), before + 2);
    EXPECT_EQ(FileUtils::GetFileHash(path, "SHA1", digest, 100), 0);
    EXPECT_EQ(countAsked(), before + 2);
}

TEST(FileDigest, OfAnUnknownAlgorithmIsEINVAL) {
    const TempDir dir;
    const std::string path = dir.Write("file", "abc");
    for (const char* algorithm : {"SHA257", "", "RIPEMD-1000"}) {
        std::string digest = "before";
        EXPECT_EQ(FileUtils::GetFileHash(path, algorithm, digest, 100), EINVAL);
        EXPECT_EQ(digest, "");
    }
}

TEST(FileDigest, IsClearedOnFailure) {
    const TempDir dir;
    const auto fails = [](const std::string& path, int error) {
        std::string digest = "before";
        EXPECT_EQ(FileUtils::GetFileSha256(path, digest, 100), error) << path;
        EXPECT_EQ(digest, "") << path;
    };
    fails(dir / "missing", ENOENT);
    fails(dir.Path(), EISDIR);
    fails(MakeFifo(dir), EINVAL);
    fails("/dev/zero", EINVAL);
}

TEST(FileDigest, OfManyThreadsAtOnce) {
    const TempDir dir;
    const std::string path = dir.Write("file", "abc");
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                std::string digest;
                EXPECT_EQ(FileUtils::GetFileSha256(path, digest, 100), 0);
                EXPECT_EQ(digest, SHA256_OF_ABC);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(FileUtils, KeepsNoDescriptorOpen) {
    const TempDir dir;
    const std::string path = dir.Write("file", "abc");
    const long before = CountEntries("/proc/self/fd");
    std::string text;
    FileUtils::ReadFile(path, text, 1);
    FileUtils::ReadFile(path, text, 10);
    FileUtils::ReadFile(dir.Path(), text, 10);
    FileUtils::WriteFile(path, "x", false);
    FileUtils::WriteFile(dir.Path(), "x", false);
    FileUtils::WriteFile(path, "x", true);
    FileUtils::GetFileSha256(path, text, 10);
    EXPECT_EQ(CountEntries("/proc/self/fd"), before);
}
