#include <csignal>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/isolate/IsolateModule.h"
#include "agent/isolate/IsolateWorkTask.h"
#include "framework/Counters.h"
#include "framework/Engine.h"
#include "framework/HandledEvent.h"
#include "framework/Scope.h"
#include "sdk/Histogram.h"
#include "sdk/ProcStat.h"
#include "sdk/TimeUtils.h"
#include "support/ChildProcess.h"
#include "support/LogRecorder.h"
#include "support/TempCgroup.h"
#include "support/TempRoot.h"

using namespace TestSupport;
using Poco::Message;

namespace {

std::uint64_t Count(const std::string& counter) {
    return Framework::Counters::Of(counter).Get();
}

mode_t ModeOf(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

// What was asked for and what came of it.
struct Request {
    bool kill = true;
    bool chmod = true;
    bool quarantine = false;
    bool result = false;
};

// Whatever goes wrong in here, the scope keeps everything but the test's own children out of reach.
class IsolateTest : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mGroup = std::make_unique<TempCgroup>();
        Framework::Scope::SetCgroup(mGroup->Name());
        mImage = mDir / "image";
        CopyProgram(mImage);
    }

    void TearDown() override { Framework::Scope::SetCgroup(""); }

    static void CopyProgram(const std::string& path) {
        std::filesystem::copy_file("/bin/sleep", path);
        chmod(path.c_str(), 0755);
    }

    // Runs the image; it is running when this returns.
    ChildProcess StartImage() const {
        ChildProcess child = ChildProcess::SpawnIn(*mGroup, {mImage, "1000"});
        EXPECT_TRUE(WaitFor([&] {
            std::error_code error;
            return std::filesystem::read_symlink("/proc/" + std::to_string(child.Pid()) + "/exe", error) == mImage;
        }));
        return child;
    }

    Request Isolate(int pid, const std::string& path, Request request = {}) const {
        request.result = mTask->Isolate(pid, path, request.kill, request.chmod, request.quarantine);
        return request;
    }

    // The process is refused, for that reason and without any effect on the image.
    void ExpectRefusal(int pid, const std::string& reason) const {
        LogRecorder log;
        const std::uint64_t refusedBefore = Count("isolate.refused");
        const Request answer = Isolate(pid, mImage, {.quarantine = true});
        EXPECT_FALSE(answer.result);
        EXPECT_FALSE(answer.kill);
        EXPECT_FALSE(answer.chmod);
        EXPECT_FALSE(answer.quarantine);
        EXPECT_TRUE(log.Has(Message::PRIO_WARNING,
                            "process [" + std::to_string(pid) + "] [" + mImage + "] is not isolated: " + reason));
        EXPECT_EQ(log.Records().size(), 1u);
        EXPECT_EQ(Count("isolate.refused"), refusedBefore + 1);
        EXPECT_EQ(ModeOf(mImage), 0755u);
    }

    static void ExpectKilled(ChildProcess& child) {
        const int status = child.Wait();
        ASSERT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
    }

    TempDir mDir;
    std::unique_ptr<TempCgroup> mGroup;
    std::string mImage;
    mutable Poco::AutoPtr<Engine::IsolateWorkTask> mTask{new Engine::IsolateWorkTask};
};

} // namespace

TEST_F(IsolateTest, NumbersThatAreNoProcessAreRefused) {
    ExpectRefusal(0, "it is no process id");
    ExpectRefusal(-1, "it is no process id");
    ExpectRefusal(-getpid(), "it is no process id");
}

TEST_F(IsolateTest, TheInitProcessIsRefused) {
    ExpectRefusal(1, "it is the init process");
}

TEST_F(IsolateTest, AKernelThreadIsRefused) {
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(2, stat) != 0 || !stat.IsKernelThread()) {
        GTEST_SKIP() << "no kernel thread is visible here";
    }
    ExpectRefusal(2, "it is a kernel thread");
}

TEST_F(IsolateTest, TheAgentItselfIsRefused) {
    ExpectRefusal(getpid(), "it is the agent itself");
}

TEST_F(IsolateTest, EveryAncestorOfTheAgentIsRefused) {
    for (int ancestor = getppid(); ancestor > 1;) {
        ExpectRefusal(ancestor, "it is an ancestor of the agent");
        SDK::ProcStat stat;
        ASSERT_EQ(SDK::ProcStat::Read(ancestor, stat), 0);
        ancestor = stat.ppid;
    }
}

TEST_F(IsolateTest, AProcessOutsideTheScopeIsRefusedAndLives) {
    const ChildProcess outside = ChildProcess::Spawn({mImage, "1000"});
    ExpectRefusal(outside.Pid(), "it is outside the agent's scope");
    EXPECT_TRUE(outside.IsRunning());
}

TEST_F(IsolateTest, AProcessInTheScopeIsKilledAndItsImageMadeUnexecutable) {
    ChildProcess child = StartImage();
    const std::uint64_t killedBefore = Count("isolate.killed");
    const std::uint64_t failedBefore = Count("isolate.failed");
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.result);
    EXPECT_TRUE(answer.kill);
    EXPECT_TRUE(answer.chmod);
    ExpectKilled(child);
    EXPECT_EQ(ModeOf(mImage), 0400u);
    EXPECT_EQ(Count("isolate.killed"), killedBefore + 1);
    EXPECT_EQ(Count("isolate.failed"), failedBefore);
}

TEST_F(IsolateTest, AKillOnAccountOfAnEventIsTimedAndOnlyThat) {
    const auto timed = [] { return SDK::Histograms::Of("kill").Read().count; };
    const std::uint64_t before = timed();
    {
        ChildProcess child = StartImage();
        const Framework::HandledEvent event(SDK::TimeUtils::GetMonotonicNs());
        EXPECT_TRUE(Isolate(child.Pid(), mImage, {.chmod = false}).kill);
        ExpectKilled(child);
    }
    EXPECT_EQ(timed(), before + 1);
    ChildProcess child = StartImage();
    EXPECT_TRUE(Isolate(child.Pid(), mImage, {.chmod = false}).kill);
    ExpectKilled(child);
    EXPECT_EQ(timed(), before + 1);
}

TEST_F(IsolateTest, AProcessThatWasGivenThePidOfTheOneThatIsMeantIsNeverHit) {
    ChildProcess meant = StartImage();
    const int pid = meant.Pid();
    const Framework::HandledEvent event(0, pid);
    meant.End();
    const ChildProcess other = ChildProcess::SpawnAs(pid, *mGroup, {mImage, "1000"});
    ASSERT_EQ(other.Pid(), pid);
    const std::uint64_t failedBefore = Count("isolate.failed");
    LogRecorder log;
    const Request answer = Isolate(pid, mImage);
    EXPECT_FALSE(answer.result);
    EXPECT_FALSE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "process [" + std::to_string(pid) + "] [" + mImage +
                                                 "] could not be isolated: No such process"));
    EXPECT_EQ(Count("isolate.failed"), failedBefore + 1);
    EXPECT_TRUE(other.IsRunning());
    EXPECT_EQ(ModeOf(mImage), 0755u);
}

TEST_F(IsolateTest, AnEventAboutAProcessThatHadEndedHitsNobody) {
    ChildProcess meant = StartImage();
    const int pid = meant.Pid();
    meant.End();
    const Framework::HandledEvent event(0, pid);
    const ChildProcess other = ChildProcess::SpawnAs(pid, *mGroup, {mImage, "1000"});
    EXPECT_FALSE(Isolate(pid, mImage).kill);
    EXPECT_TRUE(other.IsRunning());
}

TEST_F(IsolateTest, AnEventAboutOneProcessKeepsNobodyFromIsolatingAnother) {
    ChildProcess meant = StartImage();
    ChildProcess other = StartImage();
    const Framework::HandledEvent event(0, meant.Pid());
    EXPECT_TRUE(Isolate(other.Pid(), mImage).kill);
    ExpectKilled(other);
    EXPECT_TRUE(Isolate(meant.Pid(), mImage).kill);
    ExpectKilled(meant);
}

TEST_F(IsolateTest, OnlyWhatIsAskedForIsDone) {
    ChildProcess child = StartImage();
    const Request nothing = Isolate(child.Pid(), mImage, {.kill = false, .chmod = false});
    EXPECT_TRUE(nothing.result);
    EXPECT_FALSE(nothing.kill);
    EXPECT_FALSE(nothing.chmod);
    EXPECT_TRUE(child.IsRunning());
    EXPECT_EQ(ModeOf(mImage), 0755u);

    const Request killOnly = Isolate(child.Pid(), mImage, {.chmod = false});
    EXPECT_TRUE(killOnly.result);
    EXPECT_FALSE(killOnly.chmod);
    ExpectKilled(child);
    EXPECT_EQ(ModeOf(mImage), 0755u);

    const ChildProcess second = StartImage();
    const Request chmodOnly = Isolate(second.Pid(), mImage, {.kill = false});
    EXPECT_TRUE(chmodOnly.result);
    EXPECT_FALSE(chmodOnly.kill);
    EXPECT_TRUE(second.IsRunning());
    EXPECT_EQ(ModeOf(mImage), 0400u);
}

TEST_F(IsolateTest, QuarantineIsNeverDoneButTheRestIs) {
    ChildProcess child = StartImage();
    const std::uint64_t failedBefore = Count("isolate.failed");
    const Request answer = Isolate(child.Pid(), mImage, {.quarantine = true});
    EXPECT_TRUE(answer.result);
    EXPECT_TRUE(answer.kill);
    EXPECT_TRUE(answer.chmod);
    EXPECT_FALSE(answer.quarantine);
    ExpectKilled(child);
    EXPECT_EQ(Count("isolate.failed"), failedBefore + 1);
}

TEST_F(IsolateTest, ADeletedImageLeavesNothingToChange) {
    ChildProcess child = StartImage();
    ASSERT_EQ(unlink(mImage.c_str()), 0);
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.result);
    EXPECT_TRUE(answer.kill);
    EXPECT_TRUE(answer.chmod);
    ExpectKilled(child);
}

TEST_F(IsolateTest, AFileThatTookTheImagesPlaceIsLeftAsItIs) {
    ChildProcess child = StartImage();
    CopyProgram(mDir / "other");
    std::filesystem::rename(mDir / "other", mImage);
    LogRecorder log;
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.result);
    EXPECT_TRUE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    ExpectKilled(child);
    EXPECT_EQ(ModeOf(mImage), 0755u);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR,
                        "file [" + mImage + "] was left as it is: it is not the image that the process ran"));
}

TEST_F(IsolateTest, APathThatLeadsElsewhereThroughALinkIsLeftAsItIs) {
    CopyProgram(mDir / "other");
    ChildProcess child = StartImage();
    std::filesystem::rename(mImage, mDir / "moved");
    std::filesystem::create_symlink(mDir / "other", mImage);
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    EXPECT_EQ(ModeOf(mDir / "other"), 0755u);
}

TEST_F(IsolateTest, AnImageThatWasMovedAwayIsNotDone) {
    ChildProcess child = StartImage();
    std::filesystem::rename(mImage, mDir / "moved");
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    EXPECT_EQ(ModeOf(mDir / "moved"), 0755u);
}

TEST_F(IsolateTest, AnImageToWhichThePathLeadsThroughALinkIsLeftAsItIs) {
    ChildProcess child = StartImage();
    std::filesystem::create_symlink(mImage, mDir / "link");
    std::filesystem::create_directory_symlink(mDir.Path(), mDir / "folder");
    EXPECT_FALSE(Isolate(child.Pid(), mDir / "link", {.kill = false}).chmod);
    EXPECT_FALSE(Isolate(child.Pid(), mDir / "folder" + mImage.substr(mDir.Path().size()), {.kill = false}).chmod);
    EXPECT_EQ(ModeOf(mImage), 0755u);
}

TEST_F(IsolateTest, AnImageWithAnotherNameIsLeftAsItIs) {
    ChildProcess child = StartImage();
    std::filesystem::create_hard_link(mImage, mDir / "trusted");
    LogRecorder log;
    const Request answer = Isolate(child.Pid(), mImage);
    EXPECT_TRUE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    ExpectKilled(child);
    EXPECT_EQ(ModeOf(mDir / "trusted"), 0755u);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR,
                        "file [" + mImage + "] was left as it is: it has other names, which may be trusted"));
}

TEST_F(IsolateTest, AFolderIsLeftAsItIs) {
    const ChildProcess child = StartImage();
    const mode_t before = ModeOf(mDir.Path());
    const Request answer = Isolate(child.Pid(), mDir.Path(), {.kill = false});
    EXPECT_FALSE(answer.result);
    EXPECT_FALSE(answer.chmod);
    EXPECT_EQ(ModeOf(mDir.Path()), before);
}

TEST_F(IsolateTest, AProcessThatIsGoneIsAFailureThatTouchesNothing) {
    ChildProcess child = StartImage();
    const int pid = child.Pid();
    child.End();
    const std::uint64_t failedBefore = Count("isolate.failed");
    const Request answer = Isolate(pid, mImage);
    EXPECT_FALSE(answer.result);
    EXPECT_FALSE(answer.kill);
    EXPECT_FALSE(answer.chmod);
    EXPECT_EQ(ModeOf(mImage), 0755u);
    EXPECT_EQ(Count("isolate.failed"), failedBefore + 1);
}

TEST(IsolateModuleTest, TheTaskIsFoundFromInitToUnInit) {
    const Framework::Engine engine;
    Poco::AutoPtr<Engine::IsolateModule> module(new Engine::IsolateModule);
    ASSERT_EQ(module->Init(), 0);
    {
        Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask("isolate_task");
        ASSERT_TRUE(task);
        EXPECT_NE(dynamic_cast<Engine::IsolateTask*>(task.get()), nullptr);
    }
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_FALSE(Framework::Engine::FindTask("isolate_task"));
}
