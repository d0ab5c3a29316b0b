#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ScopedProcess.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// An agent, and a file system of the test's own with directories for it to watch.
class Directory : public testing::Test {
protected:
    // A directory on the file system, holding the file "file".
    std::string MakeFolder(const std::string& name) const {
        mount.Write(name + "/file", "content");
        return mount / name;
    }

    static PolicyOptions Watching(const std::vector<std::string>& dirs, const std::string& hash = "dirs-1") {
        PolicyOptions options;
        options.hash = hash;
        options.dirs = dirs;
        return options;
    }

    // Detection, the reader "known" trusted, marks on as many directories or mounts as said.
    void Detect(const PolicyOptions& options, int marks) {
        Agent::Learned learned;
        learned.programs = {known};
        agent.MakeDetecting(learned, options);
        agent.WaitForMarks(marks);
    }

    // Has a reader in the scope open the file, and keeps it there.
    ScopedProcess Read(const std::string& reader, const std::string& file) const {
        return ScopedProcess(agent.Scope().Path(), {reader, "-f", file});
    }

    // A reader that nobody knows is reported for this file; whatever happened before has been judged then.
    void ExpectReported(const std::string& file) {
        const ScopedProcess unknown = Read(agent.MakeReader("unknown-" + std::to_string(++counter)), file);
        EXPECT_EQ(agent.WaitForAlert(unknown.Pid())["process_info"]["process_pid"].asInt(), unknown.Pid());
    }

    bool IsLearned(const std::string& program) const {
        for (const Json::Value& entry : agent.Trust("local")) {
            if (entry["path"] == program) {
                return entry["hash"] == Sha256Of(program) && entry["type"] == 1;
            }
        }
        return false;
    }

    TestSupport::TempMount mount;
    Agent agent;
    const std::string known = agent.MakeReader("known");
    int counter = 0;
};

TEST_F(Directory, LearnsWhoReadsThereAndNobodyElse) {
    const std::string folder = MakeFolder("data");
    const std::string elsewhere = MakeFolder("elsewhere");
    agent.Start();
    agent.ApplyAndWatch(Watching({folder}));
    agent.WaitForMarks(1);
    EXPECT_EQ(agent.GetMode(), LEARNING);
    const std::string stranger = agent.MakeReader("stranger");
    const ScopedProcess outside = Read(stranger, elsewhere + "/file");
    const ScopedProcess reader = Read(known, folder + "/file");
    EXPECT_TRUE(WaitFor([&] { return IsLearned(known); }));
    EXPECT_FALSE(IsLearned(stranger));
    agent.Stop();
    EXPECT_NE(agent.Root().Read("conf/whitelist.data").find(known), std::string::npos);
}

TEST_F(Directory, AnUnknownReaderIsReportedAKnownOneIsNot) {
    const std::string folder = MakeFolder("data");
    Detect(Watching({folder}), 1);
    const ScopedProcess trusted = Read(known, folder + "/file");
    ScopedProcess unknown = Read(agent.MakeReader("unknown"), folder + "/file");
    const Json::Value process = agent.WaitForAlert(unknown.Pid())["process_info"];
    EXPECT_EQ(process["process_path"], agent.Work() / "programs/unknown");
    EXPECT_EQ(process["process_hash"], Sha256Of(agent.Work() / "programs/unknown"));
    EXPECT_EQ(process["block"], 0);
    EXPECT_TRUE(agent.AlertsOf(trusted.Pid()).empty());
    EXPECT_FALSE(unknown.Wait(std::chrono::milliseconds(0)));
}

TEST_F(Directory, WithBlockingAnUnknownReaderIsKilledAndItsProgramMadeUnexecutable) {
    const std::string folder = MakeFolder("data");
    PolicyOptions options = Watching({folder});
    options.block = true;
    Detect(options, 1);
    ScopedProcess trusted = Read(known, folder + "/file");
    const std::string program = agent.MakeReader("unknown");
    ScopedProcess unknown = Read(program, folder + "/file");
    EXPECT_TRUE(unknown.Wait(DEADLINE));
    EXPECT_TRUE(unknown.WasKilled());
    EXPECT_EQ(agent.WaitForAlert(unknown.Pid())["process_info"]["block"], 1);
    struct stat file {};
    ASSERT_EQ(stat(program.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777U, 0400U);
    EXPECT_FALSE(trusted.Wait(std::chrono::milliseconds(0)));
    EXPECT_EQ(TestSupport::TempDir::ReadText(folder + "/file"), "content");
}

TEST_F(Directory, MarksOnDirectoriesSeeTheirOwnFilesOnly) {
    const std::string folder = MakeFolder("data");
    const std::string sub = MakeFolder("data/sub");
    const std::string sibling = MakeFolder("sibling");
    Detect(Watching({folder}), 2);
    EXPECT_EQ(agent.CountKernelMarks(), 2);
    const ScopedProcess beside = Read(agent.MakeReader("beside"), sibling + "/file");
    ExpectReported(sub + "/file");
    EXPECT_TRUE(agent.AlertsOf(beside.Pid()).empty());
}

TEST_F(Directory, AMountIsMarkedOnceAndTheDirectoryPrefixDecides) {
    const std::string folder = MakeFolder("data");
    MakeFolder("data/sub");
    const std::string sibling = MakeFolder("sibling");
    PolicyOptions options = Watching({folder});
    options.mountMod = true;
    Detect(options, 2);
    EXPECT_EQ(agent.CountKernelMarks(), 1);
    const ScopedProcess beside = Read(agent.MakeReader("beside"), sibling + "/file");
    ExpectReported(folder + "/sub/file");
    EXPECT_TRUE(agent.AlertsOf(beside.Pid()).empty());
    // A mount's mark also sees what was made since.
    ExpectReported(MakeFolder("data/later") + "/file");
}

TEST_F(Directory, OnlyTheConfiguredExtensionsCount) {
    const std::string folder = MakeFolder("data");
    const std::string cared = mount.Write("data/settings.conf", "content");
    const std::string other = mount.Write("data/settings.txt", "content");
    PolicyOptions options = Watching({folder});
    options.exts = {"conf", "key"};
    Detect(options, 1);
    const ScopedProcess beside = Read(agent.MakeReader("beside"), other);
    ExpectReported(cared);
    EXPECT_TRUE(agent.AlertsOf(beside.Pid()).empty());
}

TEST_F(Directory, AnAccessFromOutsideTheScopeDoesNothing) {
    const std::string folder = MakeFolder("data");
    PolicyOptions options = Watching({folder});
    options.block = true;
    Detect(options, 1);
    ScopedProcess outside("", {agent.MakeReader("outside"), "-f", folder + "/file"});
    ExpectReported(folder + "/file");
    EXPECT_TRUE(agent.AlertsOf(outside.Pid()).empty());
    EXPECT_FALSE(outside.Wait(std::chrono::milliseconds(0)));
    EXPECT_GE(agent.Status()["counters"]["files.unscoped"].asInt64(), 1);
}

TEST_F(Directory, AHundredDirectoriesAreWatched) {
    std::vector<std::string> folders;
    for (int i = 0; i < 100; ++i) {
        folders.push_back(MakeFolder("data-" + std::to_string(i)));
    }
    Detect(Watching(folders), 100);
    EXPECT_EQ(agent.CountKernelMarks(), 100);
    for (const std::string& folder : {folders[0], folders[50], folders[99]}) {
        ExpectReported(folder + "/file");
    }
}

TEST_F(Directory, ATreeOfEightThousandDirectoriesIsWatched) {
    const fs::path root = fs::path(mount.Path()) / "tree";
    for (int i = 0; i < 79; ++i) {
        for (int j = 0; j < 100; ++j) {
            fs::create_directories(root / std::to_string(i) / std::to_string(j));
        }
    }
    // The root, 79 below it, and 7,900 below those.
    constexpr int ALL = 1 + 79 + 7900;
    const std::string last = mount.Write("tree/78/99/file", "content");
    Detect(Watching({root.string()}), ALL);
    EXPECT_EQ(agent.CountKernelMarks(), ALL);
    ExpectReported(last);
    ExpectReported(mount.Write("tree/file", "content"));
    agent.ApplyAndWatch({});
    agent.WaitForMarks(0);
    EXPECT_EQ(agent.CountKernelMarks(), 0);
}

TEST_F(Directory, APolicyWithOtherDirectoriesReplacesTheMarks) {
    const std::string before = MakeFolder("before");
    const std::string after = MakeFolder("after");
    Detect(Watching({before}), 1);
    ExpectReported(before + "/file");
    agent.ApplyAndWatch(Watching({after, MakeFolder("also")}, "dirs-2"));
    agent.WaitForMarks(2);
    agent.WaitForMode(DETECTING);
    EXPECT_EQ(agent.CountKernelMarks(), 2);
    const ScopedProcess old = Read(agent.MakeReader("old"), before + "/file");
    ExpectReported(after + "/file");
    EXPECT_TRUE(agent.AlertsOf(old.Pid()).empty());
}

TEST_F(Directory, DetectionOutlivesAnOrderlyRestart) {
    const std::string folder = MakeFolder("data");
    Detect(Watching({folder}), 1);
    agent.Stop();
    EXPECT_NE(agent.Root().Read("conf/modwhitelist.ini").find("LearnMod=0"), std::string::npos);
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.WaitForMarks(1);
    ExpectReported(folder + "/file");
}

TEST_F(Directory, DetectionAndMarksAreBackAfterACrash) {
    const std::string folder = MakeFolder("data");
    Detect(Watching({folder}), 1);
    agent.Kill9();
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.WaitForMarks(1);
    EXPECT_EQ(agent.CountKernelMarks(), 1);
    ExpectReported(folder + "/file");
}

TEST_F(Directory, DetectionOutlivesTheChangeBetweenTheModes) {
    const std::string folder = MakeFolder("data");
    Detect(Watching({folder}), 1);
    agent.ApplyAndWatch({});
    agent.WaitForMode(DETECTING);
    agent.WaitForMarks(0);
    const ScopedProcess started(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    agent.WaitForAlert(started.Pid());
    agent.ApplyAndWatch(Watching({folder}, "dirs-2"));
    agent.WaitForMode(DETECTING);
    agent.WaitForMarks(1);
    ExpectReported(folder + "/file");
}

TEST_F(Directory, TheOperatorSeesMarksAndAccesses) {
    const std::string folder = MakeFolder("data");
    Detect(Watching({folder}), 1);
    ExpectReported(folder + "/file");
    const Json::Value files = agent.Status()["files"];
    EXPECT_EQ(files["marks"], 1);
    EXPECT_EQ(files["failed_marks"], 0);
    EXPECT_GE(files["read"].asInt64(), 1);
    EXPECT_GE(files["posted"].asInt64(), 1);
    EXPECT_EQ(files["overflow"], 0);
    EXPECT_EQ(files["lost"], 0);
    const Result shown = agent.Ctl({"status"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_NE(shown.out.find("1 marks, 0 failed"), std::string::npos) << shown.out;
}

} // namespace
} // namespace SystemTest
