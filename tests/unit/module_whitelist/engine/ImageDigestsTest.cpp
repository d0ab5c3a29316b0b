// The digests of the images of one table of processes, computed on two threads.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ImageDigests.h"
#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"
#include "support/WaitFor.h"

using namespace std::chrono_literals;

namespace EngineTest {

namespace {

using Engine::DigestsAhead;
using Engine::ImageDigests;
using ProcsMap = Engine::ProcsFullTask::ProcsMap;

class ImageDigestsTest : public TrustEngineTest {
protected:
    // How often anybody has asked for a digest since the test began.
    std::uint64_t CountDigests() const { return DigestsSoFar() - mBefore; }

    // Processes that do not exist, of images that do, in the order of the table.
    ProcsMap TableOf(const std::vector<std::string>& images) const {
        ProcsMap table;
        for (const std::string& image : images) {
            const int pid = NOBODY + static_cast<int>(table.size());
            table[pid].pid = pid;
            table[pid].path = image;
        }
        return table;
    }

    std::vector<std::string> WriteImages(int count) const {
        std::vector<std::string> images;
        for (int i = 0; i < count; ++i) {
            const std::string number = std::to_string(i);
            images.push_back(root.Write("bin/program-" + number, "program " + number));
        }
        return images;
    }

    ImageDigests mDigests;

private:
    const std::uint64_t mBefore = DigestsSoFar();
};

} // namespace

TEST_F(ImageDigestsTest, ThreadsThatAskForOneImageShareOneComputation) {
    const std::string image = root.Write("bin/program", std::string(8U << 20U, 'x'));
    std::vector<std::string> told(4);
    {
        std::vector<std::jthread> threads;
        for (std::string& digest : told) {
            threads.emplace_back([this, &image, &digest] { digest = mDigests.Of(image); });
        }
    }
    EXPECT_EQ(told, std::vector<std::string>(told.size(), DigestOfFile(image)));
    EXPECT_EQ(CountDigests(), 1U);
}

TEST_F(ImageDigestsTest, AnImageThatCannotBeReadHasNoneAndIsTriedOnce) {
    EXPECT_EQ(mDigests.Of(root / "missing"), "");
    root.Write("missing", "there now");
    EXPECT_EQ(mDigests.Of(root / "missing"), "");
}

TEST_F(ImageDigestsTest, WhatWasComputedAheadIsNotComputedAgain) {
    const std::vector<std::string> images = WriteImages(20);
    const ProcsMap table = TableOf(images);
    const DigestsAhead ahead(table, mDigests);
    ASSERT_TRUE(TestSupport::WaitFor([&] { return CountDigests() == images.size(); }));
    for (const std::string& image : images) {
        EXPECT_EQ(mDigests.Of(image), DigestOfFile(image));
    }
    EXPECT_EQ(CountDigests(), images.size());
}

TEST_F(ImageDigestsTest, EachImageIsComputedOnceWhoeverGetsToItFirst) {
    const std::vector<std::string> images = WriteImages(200);
    const ProcsMap table = TableOf(images);
    DigestsAhead ahead(table, mDigests);
    for (const auto& [pid, process] : table) {
        ahead.Pass(pid);
        EXPECT_EQ(mDigests.Of(process.path), DigestOfFile(process.path));
    }
    EXPECT_EQ(CountDigests(), images.size());
}

TEST_F(ImageDigestsTest, NothingIsComputedAheadOfATableOfOneImage) {
    const std::string image = root.Write("bin/program", "program");
    const ProcsMap table = TableOf({image, image, image});
    const DigestsAhead ahead(table, mDigests);
    EXPECT_FALSE(TestSupport::WaitFor([&] { return CountDigests() > 0; }, 50ms));
}

TEST_F(ImageDigestsTest, NothingIsComputedAheadBehindTheOwner) {
    const std::vector<std::string> images = WriteImages(20);
    const ProcsMap table = TableOf(images);
    DigestsAhead ahead(table, mDigests);
    ahead.Pass(table.rbegin()->first);
    // Whatever was begun before is at an end then.
    const std::uint64_t begun = CountDigests() + 1;
    EXPECT_FALSE(TestSupport::WaitFor([&] { return CountDigests() > begun; }, 50ms));
}

TEST_F(ImageDigestsTest, AheadInDirectoryModeIsReadWhatTheProcessesRun) {
    Configure(Engine::MOD_DETECT, true);
    const std::string first = CopyProgram("/bin/sleep", "first");
    const std::string second = CopyProgram("/bin/sleep", "second");
    const TestSupport::ForeignProcess one({.words = {first, "1000"}});
    const TestSupport::ForeignProcess two({.words = {second, "1000"}});
    const std::string digest = DigestOfFile(first);
    std::filesystem::rename(root.Write("other", "not what runs"), second);
    ProcsMap table;
    table[one.Pid()].path = first;
    table[two.Pid()].path = second;
    const DigestsAhead ahead(table, mDigests);
    ASSERT_TRUE(TestSupport::WaitFor([&] { return CountDigests() == 2; }));
    EXPECT_EQ(mDigests.FindRunning(one.Pid(), first), digest);
    EXPECT_EQ(mDigests.FindRunning(two.Pid(), second), digest);
}

} // namespace EngineTest
