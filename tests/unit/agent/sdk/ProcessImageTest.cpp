#include "sdk/ProcessImage.h"

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include "sdk/FileUtils.h"
#include "sdk/ProcStat.h"
#include "sdk/ProcessUtils.h"
#include "support/ChildProcess.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using SDK::FileUtils;
using SDK::ProcessImage;
using SDK::ProcessUtils;
using TestSupport::ChildProcess;

constexpr std::uint64_t LIMIT = 10485760;

// A process whose image has gone, and another file in its place.
class ProcessImageTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(std::filesystem::canonical("/bin/sleep"), path);
        imageDigest = DigestAt(path);
        child = std::make_unique<ChildProcess>(Start(path));
        std::filesystem::remove(path);
        dir.Write("program", "another file");
        otherDigest = DigestAt(path);
    }

    static ChildProcess Start(const std::string& program) {
        ChildProcess started = ChildProcess::Spawn({program, "600"});
        EXPECT_TRUE(TestSupport::WaitFor([&] {
            SDK::ProcStat stat;
            return SDK::ProcStat::Read(started.Pid(), stat) == 0 && stat.HasExecuted();
        }));
        return started;
    }

    static std::string DigestAt(const std::string& file) {
        std::string digest;
        FileUtils::GetFileSha256(file, digest, LIMIT);
        return digest;
    }

    static std::string PathOf(int pid) {
        std::string image;
        ProcessUtils::GetProcessExePath(pid, image);
        return image;
    }

    TestSupport::TempDir dir;
    const std::string path = dir / "program";
    std::unique_ptr<ChildProcess> child;
    std::string imageDigest;
    std::string otherDigest;
};

TEST_F(ProcessImageTest, WhileItIsHeldItsPathStandsForTheImage) {
    {
        const ProcessImage image(child->Pid());
        EXPECT_EQ(PathOf(child->Pid()), path);
        EXPECT_EQ(DigestAt(path), imageDigest);
        EXPECT_EQ(DigestAt(path), imageDigest);
        std::string digest;
        EXPECT_EQ(FileUtils::GetFileHash(path, "SHA256", digest, LIMIT), 0);
        EXPECT_EQ(digest, imageDigest);
    }
    EXPECT_EQ(DigestAt(path), otherDigest);
}

TEST_F(ProcessImageTest, ARememberedDigestOfWhatLiesAtThePathIsNotTakenForThatOfTheImage) {
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/bin/ls", path);
    otherDigest = DigestAt(path);
    const std::uint64_t hits = FileUtils::GetDigestFigures().hits;
    ASSERT_EQ(DigestAt(path), otherDigest);
    ASSERT_EQ(FileUtils::GetDigestFigures().hits, hits + 1);

    const ProcessImage image(child->Pid());
    EXPECT_EQ(DigestAt(path), imageDigest);
}

TEST_F(ProcessImageTest, ItOutlivesTheProcess) {
    const int pid = child->Pid();
    const ProcessImage image(pid);
    child->End();
    EXPECT_EQ(PathOf(pid), path);
    EXPECT_EQ(DigestAt(path), imageDigest);
}

TEST_F(ProcessImageTest, OtherPathsOtherProcessesAndOtherThreadsAreNotConcerned) {
    const ProcessImage image(child->Pid());
    EXPECT_EQ(PathOf(getpid()), std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(DigestAt(dir.Write("third", "another file")), otherDigest);
    std::thread([&] { EXPECT_EQ(DigestAt(path), otherDigest); }).join();
}

TEST_F(ProcessImageTest, TheYoungestCountsUntilItEnds) {
    const ProcessImage outer(child->Pid());
    {
        const ProcessImage inner(getpid());
        EXPECT_EQ(DigestAt(path), otherDigest);
    }
    EXPECT_EQ(DigestAt(path), imageDigest);
}

TEST_F(ProcessImageTest, AProcessThatIsGoneHasNone) {
    const int pid = child->Pid();
    child->End();
    const ProcessImage image(pid);
    EXPECT_EQ(PathOf(pid), "");
    EXPECT_EQ(DigestAt(path), otherDigest);
}

TEST_F(ProcessImageTest, TheIdentityOfWhatRunsIsThatOfWhatIsHeld) {
    const ChildProcess another = Start("/bin/sleep");
    const ProcessImage image(child->Pid());
    const auto identity = ProcessImage::Identify(child->Pid());
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(image.GetIdentity(), identity);
    EXPECT_NE(ProcessImage::Identify(another.Pid()), identity);
    const int pid = child->Pid();
    child->End();
    EXPECT_FALSE(ProcessImage::Identify(pid).has_value());
    EXPECT_EQ(image.GetIdentity(), identity);
    EXPECT_FALSE(ProcessImage(pid).GetIdentity().has_value());
}

TEST_F(ProcessImageTest, WhatLiesAtThePathIsNotTakenForAnImageThatCannotBeOpened) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can take rights from itself for a while";
    }
    const std::string hidden = dir / "hidden";
    std::filesystem::copy_file(std::filesystem::canonical("/bin/sleep"), hidden);
    std::filesystem::permissions(hidden, std::filesystem::perms(0711));
    std::filesystem::permissions(dir.Path(), std::filesystem::perms(0755));
    const ChildProcess other = Start(hidden);
    std::filesystem::rename(dir.Write("readable", "another file"), hidden);
    constexpr uid_t OWNER_OF_NOTHING = 65534;
    setfsuid(OWNER_OF_NOTHING);
    {
        const ProcessImage image(other.Pid());
        EXPECT_EQ(PathOf(other.Pid()), hidden);
        EXPECT_EQ(DigestAt(hidden), "");
    }
    EXPECT_EQ(DigestAt(hidden), otherDigest);
    setfsuid(0);
}

TEST_F(ProcessImageTest, AnImageThatIsCalledLikeADeletedOneKeepsItsName) {
    const std::string odd = dir / "program (deleted)";
    std::filesystem::copy_file(std::filesystem::canonical("/bin/sleep"), odd);
    const ChildProcess other = Start(odd);
    const ProcessImage image(other.Pid());
    EXPECT_EQ(PathOf(other.Pid()), odd);
    EXPECT_EQ(DigestAt(odd), imageDigest);
}

TEST_F(ProcessImageTest, AnotherReadLimitIsKept) {
    const ProcessImage image(child->Pid());
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(path, digest, 4), 0);
    // How every program begins: EI_MAG0 to EI_MAG3 of elf(5).
    EXPECT_EQ(digest, DigestAt(dir.Write("beginning", "\177ELF")));
}

} // namespace
