#include "framework/Scope.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/Pidfd.h"

using Framework::Scope;

namespace {

// Where the v2 hierarchy is mounted as a whole; empty when it is not.
std::string FindCgroupMount() {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // proc(5): ID, parent, device, root, mount point, …, "-", type, source, options.
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint, field;
        fields >> id >> parent >> device >> root >> mountPoint;
        while (fields >> field && field != "-") {
        }
        fields >> field;
        if (field == "cgroup2" && root == "/") {
            return mountPoint;
        }
    }
    return "";
}

// A control group of the test's own; its processes leave it before it goes.
class TestGroup {
public:
    TestGroup() : mMount(FindCgroupMount()), mName("/corvalent-scope-test-" + std::to_string(getpid())) {
        std::error_code error;
        mMade = !mMount.empty() && std::filesystem::create_directory(mMount + mName, error);
    }
    ~TestGroup() {
        if (mMade) {
            rmdir((mMount + mName + "/below").c_str());
            rmdir((mMount + mName).c_str());
        }
    }
    TestGroup(const TestGroup&) = delete;
    TestGroup& operator=(const TestGroup&) = delete;

    bool IsMade() const { return mMade; }
    const std::string& Name() const { return mName; }

    bool MakeBelow() const { return std::filesystem::create_directory(mMount + mName + "/below"); }

    // `group` as a group's name; "" for the root group.
    bool Move(pid_t pid, const std::string& group) const {
        std::ofstream file(mMount + group + "/cgroup.procs");
        file << pid << std::flush;
        return file.good();
    }

private:
    const std::string mMount;
    const std::string mName;
    bool mMade = false;
};

// A child that does nothing until it is ended.
class IdleChild {
public:
    IdleChild() : mPid(fork()) {
        if (mPid < 0) {
            throw std::runtime_error("cannot fork");
        }
        if (mPid == 0) {
            for (;;) {
                pause();
            }
        }
    }
    ~IdleChild() { End(); }
    IdleChild(const IdleChild&) = delete;
    IdleChild& operator=(const IdleChild&) = delete;

    void End() {
        if (!mEnded) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
            mEnded = true;
        }
    }
    pid_t Pid() const { return mPid; }

private:
    const pid_t mPid;
    bool mEnded = false;
};

class ScopeTest : public testing::Test {
protected:
    void TearDown() override { Scope::SetCgroup(""); }
};

} // namespace

TEST_F(ScopeTest, WithoutAGroupEverythingIsContained) {
    EXPECT_FALSE(Scope::IsLimited());
    EXPECT_EQ(Scope::GetCgroup(), "");
    EXPECT_TRUE(Scope::Contains(getpid()));
    EXPECT_TRUE(Scope::Contains(1));
    EXPECT_TRUE(Scope::ContainsCgroup("/any"));
    EXPECT_TRUE(Scope::ContainsCgroup(""));
}

TEST_F(ScopeTest, AGroupHoldsItselfAndWhatLiesBelow) {
    Scope::SetCgroup("/a");
    EXPECT_TRUE(Scope::IsLimited());
    EXPECT_EQ(Scope::GetCgroup(), "/a");
    EXPECT_TRUE(Scope::ContainsCgroup("/a"));
    EXPECT_TRUE(Scope::ContainsCgroup("/a/b"));
    EXPECT_TRUE(Scope::ContainsCgroup("/a/b/c"));
}

TEST_F(ScopeTest, AGroupDoesNotHoldItsNeighbours) {
    Scope::SetCgroup("/a");
    for (const char* group : {"/ab", "/", "", "/b", "/b/a", "/A", "a", "/../a", "/.."}) {
        EXPECT_FALSE(Scope::ContainsCgroup(group)) << group;
    }
}

TEST_F(ScopeTest, ATrailingSlashMakesNoDifference) {
    Scope::SetCgroup("/a/");
    EXPECT_EQ(Scope::GetCgroup(), "/a");
    EXPECT_TRUE(Scope::ContainsCgroup("/a"));
    EXPECT_FALSE(Scope::ContainsCgroup("/ab"));
}

TEST_F(ScopeTest, TheRootGroupHoldsAllOfItsNamespace) {
    Scope::SetCgroup("/");
    EXPECT_TRUE(Scope::ContainsCgroup("/"));
    EXPECT_TRUE(Scope::ContainsCgroup("/a"));
    EXPECT_FALSE(Scope::ContainsCgroup("/../a"));
    EXPECT_FALSE(Scope::ContainsCgroup(""));
}

TEST_F(ScopeTest, TheLimitCanBeTakenAway) {
    Scope::SetCgroup("/a");
    Scope::SetCgroup("");
    EXPECT_FALSE(Scope::IsLimited());
    EXPECT_TRUE(Scope::ContainsCgroup("/b"));
}

TEST_F(ScopeTest, AProcessIsContainedWhileItIsInTheGroup) {
    const TestGroup group;
    if (!group.IsMade()) {
        GTEST_SKIP() << "no control group (v2) can be made here";
    }
    const IdleChild child;
    Scope::SetCgroup(group.Name());
    EXPECT_FALSE(Scope::Contains(child.Pid()));
    ASSERT_TRUE(group.Move(child.Pid(), group.Name()));
    EXPECT_TRUE(Scope::Contains(child.Pid()));
    EXPECT_FALSE(Scope::Contains(getpid()));
    ASSERT_TRUE(group.MakeBelow());
    ASSERT_TRUE(group.Move(child.Pid(), group.Name() + "/below"));
    EXPECT_TRUE(Scope::Contains(child.Pid()));
    ASSERT_TRUE(group.Move(child.Pid(), ""));
    EXPECT_FALSE(Scope::Contains(child.Pid()));
}

TEST_F(ScopeTest, AnotherLimitIsAskedOfTheSameGroupAnew) {
    const TestGroup group;
    if (!group.IsMade()) {
        GTEST_SKIP() << "no control group (v2) can be made here";
    }
    const IdleChild child;
    ASSERT_TRUE(group.Move(child.Pid(), group.Name()));
    Scope::SetCgroup(group.Name());
    EXPECT_TRUE(Scope::Contains(child.Pid()));
    EXPECT_TRUE(Scope::Contains(child.Pid()));
    Scope::SetCgroup(group.Name() + "/below");
    EXPECT_FALSE(Scope::Contains(child.Pid()));
}

TEST_F(ScopeTest, AProcessThatIsGoneIsNotContained) {
    const TestGroup group;
    if (!group.IsMade()) {
        GTEST_SKIP() << "no control group (v2) can be made here";
    }
    IdleChild child;
    Scope::SetCgroup(group.Name());
    ASSERT_TRUE(group.Move(child.Pid(), group.Name()));
    child.End();
    EXPECT_FALSE(Scope::Contains(child.Pid()));
}

TEST_F(ScopeTest, AProcessThatIsGoneIsContainedOnlyWithoutALimit) {
    IdleChild child;
    child.End();
    EXPECT_TRUE(Scope::Contains(child.Pid()));
    Scope::SetCgroup("/");
    EXPECT_FALSE(Scope::Contains(child.Pid()));
}

TEST_F(ScopeTest, OfAProcessThatIsGoneNobodyCanTellWithALimit) {
    IdleChild child;
    Scope::SetCgroup("/");
    EXPECT_EQ(Scope::Ask(child.Pid()), std::optional(Scope::Contains(child.Pid())));
    child.End();
    EXPECT_EQ(Scope::Ask(child.Pid()), std::nullopt);
    Scope::SetCgroup("");
    EXPECT_EQ(Scope::Ask(child.Pid()), std::optional(true));
}

TEST_F(ScopeTest, AHeldProcessIsAskedThroughItsDescriptor) {
    const TestGroup group;
    if (!group.IsMade()) {
        GTEST_SKIP() << "no control group (v2) can be made here";
    }
    IdleChild child;
    const SDK::FileDescriptor held(SDK::OpenPidfd(child.Pid()));
    ASSERT_TRUE(held.IsOpen());
    Scope::SetCgroup(group.Name());
    EXPECT_EQ(Scope::Ask(child.Pid(), held.Get()), std::optional(false));
    ASSERT_TRUE(group.Move(child.Pid(), group.Name()));
    EXPECT_EQ(Scope::Ask(child.Pid(), held.Get()), std::optional(true));
    child.End();
    EXPECT_EQ(Scope::Ask(child.Pid(), held.Get()), std::nullopt);
    Scope::SetCgroup("");
    EXPECT_EQ(Scope::Ask(child.Pid(), held.Get()), std::optional(true));
}

TEST_F(ScopeTest, WithoutADescriptorTheProcessIsAskedByItsNumber) {
    const TestGroup group;
    if (!group.IsMade()) {
        GTEST_SKIP() << "no control group (v2) can be made here";
    }
    const IdleChild child;
    ASSERT_TRUE(group.Move(child.Pid(), group.Name()));
    Scope::SetCgroup(group.Name());
    EXPECT_EQ(Scope::Ask(child.Pid(), -1), std::optional(true));
    EXPECT_EQ(Scope::Ask(getpid(), -1), std::optional(false));
}
