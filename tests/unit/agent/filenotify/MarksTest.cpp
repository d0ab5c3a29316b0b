#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include "agent/filenotify/FanotifyGroup.h"
#include "agent/filenotify/Marks.h"
#include "support/TempMount.h"
#include "unit/agent/filenotify/KernelView.h"

using namespace TestSupport;
using Engine::FanotifyGroup;
using Engine::Marks;

namespace {

constexpr auto DIRECTORY = FanotifyGroup::Object::Directory;
constexpr auto MOUNT = FanotifyGroup::Object::Mount;
constexpr std::uint64_t OPENS_IN = FAN_OPEN | FAN_EVENT_ON_CHILD;

class MarksTest : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string reason = WhyNoFanotify() + WhyNoMount(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mMount.emplace();
        std::string problem;
        ASSERT_TRUE(mGroup.Open(problem)) << problem;
    }

    std::string MakeFolder(const std::string& name) const {
        std::filesystem::create_directories(*mMount / name);
        return *mMount / name;
    }

    // The marks that the kernel has.
    std::size_t CountKernelMarks() const { return ListMarks(mGroup.GetFd()).size(); }

    // True when the opening of a new file in the folder is reported.
    bool IsWatched(const std::string& folder) {
        const std::string path = mMount->Write(folder + "/probe" + std::to_string(++mProbes), "");
        FanotifyGroup::Batch batch;
        EXPECT_EQ(mGroup.Read(mGroup.CountWaiting(), batch), 0);
        batch.Clear();
        const SDK::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(mGroup.Read(mGroup.CountWaiting(), batch), 0);
        return batch.accesses.size() == 1;
    }

    std::optional<TempMount> mMount;
    FanotifyGroup mGroup;
    Marks mMarks{mGroup};
    int mProbes = 0;
};

} // namespace

TEST_F(MarksTest, ADirectoryIsMarkedAndUnmarked) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    EXPECT_EQ(mMarks.Count(), 1U);
    EXPECT_EQ(CountKernelMarks(), 1U);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_EQ(mMarks.Count(), 0U);
    EXPECT_EQ(CountKernelMarks(), 0U);
    EXPECT_FALSE(IsWatched("a"));
}

TEST_F(MarksTest, PathsToOneDirectoryShareAMarkThatGoesWithTheLast) {
    const std::string folder = MakeFolder("a");
    const std::string link = *mMount / "link";
    std::filesystem::create_directory_symlink(folder, link);
    const std::vector<std::string> paths = {folder, folder + "/", link};
    for (const std::string& path : paths) {
        ASSERT_EQ(mMarks.Add(DIRECTORY, path, OPENS_IN), 0) << path;
    }
    EXPECT_EQ(mMarks.Count(), 3U);
    EXPECT_EQ(CountKernelMarks(), 1U);
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_EQ(mMarks.Remove(folder + "/"), 0);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_EQ(mMarks.Remove(link), 0);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, PathsOnOneMountShareAMarkThatGoesWithTheLast) {
    const std::string folder = MakeFolder("a/b");
    ASSERT_EQ(mMarks.Add(MOUNT, mMount->Path(), FAN_OPEN), 0);
    ASSERT_EQ(mMarks.Add(MOUNT, folder, FAN_OPEN), 0);
    EXPECT_EQ(mMarks.Count(), 2U);
    ASSERT_EQ(CountKernelMarks(), 1U);
    EXPECT_TRUE(ListMarks(mGroup.GetFd()).front().starts_with("fanotify mnt_id:"));
    EXPECT_EQ(mMarks.Remove(mMount->Path()), 0);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, ADirectoryAndTheMountItLiesOnAreTwoMarks) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    ASSERT_EQ(mMarks.Add(MOUNT, mMount->Path(), FAN_OPEN), 0);
    EXPECT_EQ(CountKernelMarks(), 2U);
    EXPECT_EQ(mMarks.Remove(folder), 0);
    ASSERT_EQ(CountKernelMarks(), 1U);
    EXPECT_TRUE(ListMarks(mGroup.GetFd()).front().starts_with("fanotify mnt_id:"));
}

TEST_F(MarksTest, PathsWithDifferentMasksLeaveNothingBehind) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, FAN_MODIFY | FAN_EVENT_ON_CHILD), 0);
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder + "/", OPENS_IN), 0);
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_EQ(mMarks.Remove(folder + "/"), 0);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, APathThatIsAddedTwiceIsOneMarkAndOneRemoveTakesItAway) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    EXPECT_EQ(mMarks.Count(), 1U);
    EXPECT_EQ(CountKernelMarks(), 1U);
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, AnUnknownPathIsLeftAlone) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    EXPECT_EQ(mMarks.Remove(folder + "/"), 0);
    EXPECT_EQ(mMarks.Remove(*mMount / "never"), 0);
    EXPECT_EQ(mMarks.Count(), 1U);
    EXPECT_TRUE(IsWatched("a"));
}

TEST_F(MarksTest, AMissingDirectoryIsRefusedAndNotRemembered) {
    EXPECT_EQ(mMarks.Add(DIRECTORY, *mMount / "missing", OPENS_IN), ENOENT);
    EXPECT_EQ(mMarks.Add(MOUNT, *mMount / "missing", FAN_OPEN), ENOENT);
    EXPECT_EQ(mMarks.Count(), 0U);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, ADirectoryThatWasRemovedIsForgottenWithAnError) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    std::filesystem::remove(folder);
    EXPECT_EQ(CountKernelMarks(), 0U);
    EXPECT_EQ(mMarks.Remove(folder), ENOENT);
    EXPECT_EQ(mMarks.Count(), 0U);
}

TEST_F(MarksTest, ADirectoryThatWasMadeAnewIsMarkedWhenItIsAskedForAgain) {
    const std::string folder = MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    std::filesystem::remove(folder);
    MakeFolder("a");
    ASSERT_EQ(mMarks.Add(DIRECTORY, folder, OPENS_IN), 0);
    EXPECT_EQ(mMarks.Count(), 1U);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_EQ(mMarks.Remove(folder), 0);
    EXPECT_EQ(CountKernelMarks(), 0U);
}

TEST_F(MarksTest, ALinkThatLeadsElsewhereNowDoesNotTakeAwayAnothersMark) {
    const std::string before = MakeFolder("before");
    const std::string now = MakeFolder("now");
    const std::string link = *mMount / "link";
    std::filesystem::create_directory_symlink(before, link);
    ASSERT_EQ(mMarks.Add(DIRECTORY, link, OPENS_IN), 0);
    ASSERT_EQ(mMarks.Add(DIRECTORY, now, OPENS_IN), 0);
    std::filesystem::remove(link);
    std::filesystem::create_directory_symlink(now, link);
    EXPECT_EQ(mMarks.Remove(link), ENOENT);
    EXPECT_EQ(mMarks.Count(), 1U);
    EXPECT_TRUE(IsWatched("now"));
}
