#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/sdk/AheadReader.h"
#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/MessageDigest.h"
#include "sdk/FileUtils.h"
#include "support/ChildProcess.h"
#include "support/TempRoot.h"

using SDK::AheadReader;
using TestSupport::ChildProcess;
using TestSupport::TempDir;

namespace {

constexpr uid_t NOBODY = 65534;

// No two parts alike, so that none can stand for another.
std::string MakeContent(std::size_t size) {
    std::string content;
    content.reserve(size + sizeof(std::uint64_t));
    std::mt19937_64 random(size);
    while (content.size() < size) {
        const std::uint64_t bytes = random();
        content.append(reinterpret_cast<const char*>(&bytes), sizeof bytes);
    }
    content.resize(size);
    return content;
}

std::string DigestOf(const std::string& content) {
    SDK::MessageDigest digest;
    EXPECT_TRUE(digest.Start("SHA256"));
    EXPECT_TRUE(digest.Update(content.data(), content.size()));
    return digest.Finish();
}

SDK::FileDescriptor Open(const std::string& path, int flags) {
    return SDK::FileDescriptor(open(path.c_str(), flags | O_CLOEXEC));
}

class AheadReaderTest : public testing::Test {
protected:
    // All that a reader gives, up to its end.
    std::string ReadAll(const std::string& content, std::uint64_t maxBytes) {
        const SDK::FileDescriptor file = Open(mDir.Write("file", content), O_RDONLY);
        AheadReader reader(file.Get(), maxBytes);
        std::string all;
        const char* data = nullptr;
        std::size_t length = 0;
        while (reader.Next(data, length) == 0 && length > 0) {
            all.append(data, length);
        }
        return all;
    }

    const TempDir mDir;
};

} // namespace

TEST_F(AheadReaderTest, GivesTheWholeFileInItsOrder) {
    for (const std::size_t size : {0U, 1U, 262144U, 262145U, 524288U, 5000017U}) {
        const std::string content = MakeContent(size);
        EXPECT_TRUE(ReadAll(content, UINT64_MAX) == content) << size;
    }
}

TEST_F(AheadReaderTest, GivesNoMoreThanTheLimit) {
    const std::string content = MakeContent(1000000);
    for (const std::size_t limit : {0U, 1U, 262144U, 600000U}) {
        EXPECT_TRUE(ReadAll(content, limit) == content.substr(0, limit)) << limit;
    }
}

TEST_F(AheadReaderTest, TellsWhyItCannotRead) {
    const SDK::FileDescriptor file = Open(mDir.Write("file", "x"), O_WRONLY);
    AheadReader reader(file.Get(), 1);
    const char* data = nullptr;
    std::size_t length = 1;
    EXPECT_EQ(reader.Next(data, length), EBADF);
    EXPECT_EQ(length, 0U);
}

TEST_F(AheadReaderTest, MayBeLeftWhereverItStands) {
    const SDK::FileDescriptor file = Open(mDir.Write("file", MakeContent(2000000)), O_RDONLY);
    for (int taken = 0; taken < 3; ++taken) {
        AheadReader reader(file.Get(), UINT64_MAX);
        const char* data = nullptr;
        std::size_t length = 0;
        for (int i = 0; i < taken; ++i) {
            EXPECT_EQ(reader.Next(data, length), 0);
        }
    }
}

TEST_F(AheadReaderTest, TheDigestOfALargeFileIsThatOfItsContent) {
    for (const std::size_t size : {AheadReader::WORTHWHILE_BYTES - 1, AheadReader::WORTHWHILE_BYTES,
                                   AheadReader::WORTHWHILE_BYTES + 1, 2 * AheadReader::WORTHWHILE_BYTES + 77}) {
        const std::string content = MakeContent(size);
        std::string digest;
        EXPECT_EQ(SDK::FileUtils::GetFileSha256(mDir.Write("file", content), digest, UINT64_MAX), 0);
        EXPECT_EQ(digest, DigestOf(content)) << size;
        const std::uint64_t limit = AheadReader::WORTHWHILE_BYTES;
        EXPECT_EQ(SDK::FileUtils::GetFileSha256(mDir / "file", digest, limit), 0);
        EXPECT_EQ(digest, DigestOf(content.substr(0, limit))) << size;
    }
}

TEST_F(AheadReaderTest, ALargeFileIsDigestedWhereNoThreadCanBeStarted) {
    const std::string content = MakeContent(AheadReader::WORTHWHILE_BYTES);
    const std::string path = mDir.Write("file", content);
    const std::string expected = DigestOf(content);
    std::filesystem::permissions(mDir.Path(), std::filesystem::perms(0755));
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    ChildProcess child = ChildProcess::Fork([&] {
        // The limit does not hold for root.
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(NOBODY) != 0) {
            _exit(2);
        }
        try {
            const SDK::FileDescriptor file = Open(path, O_RDONLY);
            const AheadReader reader(file.Get(), 1);
            _exit(3);
        } catch (const std::system_error&) {
            std::string digest;
            const int result = SDK::FileUtils::GetFileSha256(path, digest, UINT64_MAX);
            _exit(result == 0 && digest == expected ? 0 : 4);
        }
    });
    EXPECT_EQ(child.Wait(), 0);
}
