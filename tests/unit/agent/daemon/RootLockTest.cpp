#include "agent/daemon/RootLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/TempRoot.h"

namespace {

using Daemon::RootLock;
using testing::HasSubstr;

class RootLockTest : public testing::Test {
protected:
    TestSupport::TempDir folder;
    const std::string path = folder / "agent.lock";
    std::string reason;
};

TEST_F(RootLockTest, ASecondHolderIsRefusedAndToldWhoHasIt) {
    RootLock first;
    RootLock second;

    EXPECT_EQ(first.Acquire(path, reason), RootLock::Result::HELD);
    EXPECT_EQ(folder.Read("agent.lock"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(second.Acquire(path, reason), RootLock::Result::TAKEN_BY_ANOTHER);
    EXPECT_THAT(reason, HasSubstr("pid " + std::to_string(getpid())));
}

TEST_F(RootLockTest, ALockThatWasLetGoIsFreeThoughTheFileStays) {
    folder.Write("agent.lock", "999999999 and more\n");
    { EXPECT_EQ(RootLock().Acquire(path, reason), RootLock::Result::HELD); }

    RootLock next;
    EXPECT_EQ(next.Acquire(path, reason), RootLock::Result::HELD);
    EXPECT_EQ(folder.Read("agent.lock"), std::to_string(getpid()) + "\n");
}

TEST_F(RootLockTest, AFileThatCannotBeMadeIsAFailure) {
    RootLock lock;

    EXPECT_EQ(lock.Acquire(folder / "none/agent.lock", reason), RootLock::Result::FAILED);
    EXPECT_THAT(reason, HasSubstr("No such file"));
}

TEST_F(RootLockTest, ALinkIsNotFollowed) {
    ASSERT_EQ(symlink((folder / "elsewhere").c_str(), path.c_str()), 0);
    RootLock lock;

    EXPECT_EQ(lock.Acquire(path, reason), RootLock::Result::FAILED);
    EXPECT_EQ(folder.Read("elsewhere"), "<missing>");
}

TEST_F(RootLockTest, AFileThatHasAnotherNameTooIsNotWrittenTo) {
    ASSERT_EQ(link(folder.Write("elsewhere", "somebody's").c_str(), path.c_str()), 0);
    RootLock lock;

    EXPECT_EQ(lock.Acquire(path, reason), RootLock::Result::FAILED);
    EXPECT_THAT(reason, HasSubstr("Too many links"));
    EXPECT_EQ(folder.Read("elsewhere"), "somebody's");
}

} // namespace
