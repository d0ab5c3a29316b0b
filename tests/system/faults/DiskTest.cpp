#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "support/ScopedProcess.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/StateFiles.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::TempMount;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr const char* CANNOT_STORE_REPORTS = "reports cannot be stored and are kept in memory";
constexpr const char* CAN_STORE_REPORTS = "reports can be stored again";
constexpr const char* CANNOT_STORE_LIST = "the local list cannot be stored in [";
constexpr const char* CAN_STORE_LIST = "the local list is stored again in [";
constexpr const char* LOG_WAS_CUT = "records are missing here: the log could not be written";

// A disk (ext4 in a file) of the test's own that can fail: it is read-only from then on, also to who has its files
// open for writing.
class FailingDisk {
public:
    FailingDisk() {
        Do("truncate -s 16M " + Image() + " && mkfs.ext4 -q " + Image());
        fs::create_directory(Path());
        Mount();
    }
    ~FailingDisk() { umount2(Path().c_str(), MNT_DETACH); }
    FailingDisk(const FailingDisk&) = delete;
    FailingDisk& operator=(const FailingDisk&) = delete;

    // Why there can be none here; empty when there can.
    static std::string WhyNot() {
        const bool tools = std::system("command -v mkfs.ext4 >/dev/null && losetup -f >/dev/null 2>&1") == 0;
        return tools ? TestSupport::WhyNoMount() : "no mkfs.ext4 or no loop device";
    }

    std::string Path() const { return mDir / "mount"; }

    // What the test wrote itself is on the disk.
    void Sync() const { Do("sync --file-system " + Path()); }

    // As after an error of the device: mount(8), ext4(5), "abort".
    void Fail() const { Do("mount -o remount,abort " + Path()); }

    // While nobody has a file open.
    void Repair() const {
        Do("umount " + Path());
        Mount();
    }

private:
    std::string Image() const { return mDir / "image"; }
    void Mount() const { Do("mount -o loop " + Image() + " " + Path()); }

    static void Do(const std::string& command) {
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("failed: " + command);
        }
    }

    TestSupport::TempDir mDir;
};

// An agent one or more of whose folders lie on small disks of the test's own.
class Disk : public testing::Test {
protected:
    // Has the folders lie together on a disk of that size.
    const TempMount& Move(const std::vector<std::string>& folders, const std::string& size) {
        disks.push_back(std::make_unique<TempMount>(size));
        MoveTo(disks.back()->Path(), folders);
        return *disks.back();
    }

    void MoveTo(const std::string& disk, const std::vector<std::string>& folders) const {
        for (const std::string& folder : folders) {
            const std::string place = agent.Root() / folder;
            const std::string moved = disk + "/" + folder;
            fs::create_directory(moved);
            if (fs::exists(place)) {
                fs::copy(place, moved);
                fs::remove_all(place);
            }
            fs::create_directory_symlink(moved, place);
        }
    }

    struct Started {
        int pid;
        std::string path;
    };

    // A program that nobody knows has been started in the scope, and lives as long as this test.
    Started StartUnknown() {
        const std::string path = agent.MakeProgram("unknown-" + std::to_string(started.size()));
        started.push_back(std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{path, "600"}));
        return {started.back()->Pid(), path};
    }

    // Starts unknown programs, one after the other, until something is so; the last one.
    Started StartUntil(const std::function<bool()>& condition) {
        Started last = StartUnknown();
        EXPECT_TRUE(WaitFor([&] {
            constexpr std::chrono::milliseconds PATIENCE{300};
            const bool done = WaitFor(condition, PATIENCE);
            if (!done) {
                last = StartUnknown();
            }
            return done;
        }));
        return last;
    }

    std::int64_t Counter(const std::string& name) const { return agent.Status()["counters"][name].asInt64(); }

    // The agent has judged this many more than `before`, whether or not it can tell anybody.
    void ExpectJudged(std::int64_t before, int more) const {
        EXPECT_TRUE(WaitFor([&] { return Counter("events.judged") >= before + more; }));
    }

    bool IsStored(const std::string& program) const {
        return agent.Root().Read("conf/whitelist.data").find("\"" + program + "\"") != std::string::npos;
    }

    bool IsLearned(const std::string& program) const {
        const Json::Value list = agent.Trust("local");
        return std::any_of(list.begin(), list.end(),
                           [&](const Json::Value& entry) { return entry["path"] == program; });
    }

    // Each was reported, once.
    void ExpectAlerts() const {
        for (const auto& process : started) {
            agent.WaitForAlert(process->Pid());
            EXPECT_EQ(agent.AlertsOf(process->Pid()).size(), 1U);
        }
    }

    Agent agent;
    std::vector<std::unique_ptr<TempMount>> disks; // unmounted before the agent's root is removed
    std::vector<std::unique_ptr<ScopedProcess>> started;
};

TEST_F(Disk, WhenDataIsFullItJudgesOnTellsOnceAndStoresEveryReportWhenThereIsRoomAgain) {
    constexpr int MORE = 10;
    const TempMount& disk = Move({"data"}, "2m");
    agent.MakeDetecting();
    disk.Fill();
    StartUntil([&] { return Counter("reports.write_errors") > 0; });
    const std::int64_t judgedBefore = Counter("events.judged");
    for (int i = 0; i < MORE; ++i) {
        StartUnknown();
    }
    EXPECT_TRUE(WaitFor([&] { return Counter("events.judged") >= judgedBefore + MORE; }));
    EXPECT_TRUE(WaitFor([&] { return Counter("reports.write_errors") >= 3; }));
    EXPECT_EQ(agent.CountInLog(CANNOT_STORE_REPORTS), 1);
    EXPECT_THAT(agent.Ctl({"doctor"}).out, HasSubstr("attempts to store reports failed"));

    disk.MakeRoom();

    ExpectAlerts();
    EXPECT_EQ(agent.CountInLog(CANNOT_STORE_REPORTS), 1);
    EXPECT_EQ(agent.CountInLog(CAN_STORE_REPORTS), 1);
    agent.Stop();
}

TEST_F(Disk, WhenDataIsReadOnlyAtTheStartTheHistoryStandsAndReportsAreStoredWhenItCanBeWritten) {
    const TempMount& disk = Move({"data"}, "2m");
    agent.MakeDetecting();
    StartUnknown();
    ExpectAlerts();
    agent.Stop();
    disk.SetReadOnly(true);
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    StartUntil([&] { return Counter("reports.write_errors") >= 3; });
    EXPECT_EQ(agent.CountInLog(CANNOT_STORE_REPORTS), 1);

    disk.SetReadOnly(false);

    ExpectAlerts();
    EXPECT_EQ(agent.CountInLog(CAN_STORE_REPORTS), 1);
    agent.Stop();
}

TEST_F(Disk, WhenDataIsFullToTheEndTheStopIsOrderlyAndSaysHowManyReportsAreLost) {
    const TempMount& disk = Move({"data"}, "2m");
    agent.MakeDetecting();
    const std::size_t alertsBefore = agent.Alerts().size();
    disk.Fill();
    StartUntil([&] { return Counter("reports.write_errors") > 0; });

    agent.Stop();

    EXPECT_EQ(agent.CountInLog("reports could not be stored before the stop and are lost"), 1);
    disk.MakeRoom();
    agent.StartWatching();
    EXPECT_GE(agent.Alerts().size(), alertsBefore);
    EXPECT_EQ(agent.CountInLog("moved aside"), 0);
    agent.Stop();
}

TEST_F(Disk, WhenConfIsFullItLearnsOnTellsOnceAndStoresTheListWhenThereIsRoomAgain) {
    const TempMount& disk = Move({"conf"}, "1m");
    agent.Start();
    agent.ApplyAndWatch({});
    const std::string before = StartUnknown().path;
    ASSERT_TRUE(WaitFor([&] { return IsStored(before); }));
    disk.Fill();
    const std::string during = StartUntil([&] { return agent.CountInLog(CANNOT_STORE_LIST) > 0; }).path;
    EXPECT_TRUE(WaitFor([&] { return IsLearned(during); }));
    EXPECT_TRUE(IsStored(before)) << agent.Root().Read("conf/whitelist.data");

    disk.MakeRoom();

    EXPECT_TRUE(WaitFor([&] { return IsStored(during); }));
    EXPECT_TRUE(WaitFor([&] { return agent.CountInLog(CAN_STORE_LIST) == 1; }));
    EXPECT_EQ(agent.CountInLog(CANNOT_STORE_LIST), 1);
    agent.Stop();
    ExpectWholeStateFiles(agent.Root());
}

TEST_F(Disk, WhenConfIsReadOnlyItDetectsOnAndKeepsTheWishAndThePolicyWhenItCanBeWritten) {
    const TempMount& disk = Move({"conf"}, "1m");
    agent.WriteLearned({});
    agent.Start();
    agent.ApplyAndWatch({});
    const std::string policyBefore = agent.Root().Read("conf/policy.json");
    disk.SetReadOnly(true);

    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    const Result applied = agent.Apply(MakePolicy({.hash = "policy-2"}));
    EXPECT_EQ(applied.status, 0);
    EXPECT_THAT(applied.out + applied.err, HasSubstr("could not be kept for the next start"));
    EXPECT_EQ(agent.CountInLog("the wish for detection is lost at the next stop unless"), 1);
    agent.WaitForMode(DETECTING);
    agent.WaitForAlert(StartUntil([&] { return !agent.Alerts().empty(); }).pid);
    EXPECT_EQ(agent.Root().Read("conf/policy.json"), policyBefore);
    EXPECT_THAT(agent.Ctl({"doctor"}).out, HasSubstr("mounted read-only"));

    disk.SetReadOnly(false);

    EXPECT_TRUE(WaitFor([&] { return agent.Root().Read("conf/desired.json") == "{\"detect\":true}\n"; }));
    EXPECT_TRUE(WaitFor([&] { return agent.Root().Read("conf/policy.json").find("policy-2") != std::string::npos; }));
    agent.Stop();
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.Stop();
}

TEST_F(Disk, WhenTheLogIsFullItDetectsOnSaysSoElsewhereAndCountsWhatIsMissing) {
    const TempMount& disk = Move({"log"}, "1m");
    agent.MakeDetecting();
    disk.Fill();
    StartUntil([&] { return Counter("log.lost") > 0; });
    ExpectAlerts();
    EXPECT_THAT(agent.Ctl({"doctor"}).out, HasSubstr("records could not be written to the log"));
    const std::string said = agent.GetErrors();
    EXPECT_EQ(said.find("cannot be written"), said.rfind("cannot be written"));
    EXPECT_THAT(said, HasSubstr("log/corvalent.log] cannot be written"));

    disk.MakeRoom();

    StartUntil([&] { return agent.CountInLog(LOG_WAS_CUT) > 0; });
    EXPECT_EQ(agent.CountInLog(LOG_WAS_CUT), 1);
    agent.Stop();
    EXPECT_EQ(agent.CountInLog("stopped, status 0"), 1);
}

TEST_F(Disk, WhenAllIsFullItJudgesOnAndNothingThatStoodThereIsLost) {
    const TempMount& disk = Move({"conf", "data", "log"}, "4m");
    agent.MakeDetecting();
    StartUnknown();
    ExpectAlerts();
    const std::string list = agent.Root().Read("conf/whitelist.data");
    disk.Fill();
    StartUntil([&] { return Counter("reports.write_errors") > 0 && Counter("log.lost") > 0; });
    EXPECT_EQ(agent.GetMode(), DETECTING);

    disk.MakeRoom();

    ExpectAlerts();
    EXPECT_EQ(agent.Root().Read("conf/whitelist.data"), list);
    agent.Stop();
    ExpectWholeStateFiles(agent.Root());
}

// What stood there stands; what could not be written up to the stop is counted as lost.
TEST_F(Disk, WhenTheDiskFailsAtWorkItJudgesOnTellsItAndTheNextStartHasAllThatStoodThere) {
    if (const std::string reason = FailingDisk::WhyNot(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const FailingDisk disk;
    MoveTo(disk.Path(), {"conf", "data", "log"});
    agent.WriteLearned({});
    disk.Sync();
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    StartUntil([&] { return !agent.Alerts().empty(); });
    const std::vector<Json::Value> alerts = agent.Alerts();
    const std::string list = agent.Root().Read("conf/whitelist.data");
    disk.Fail();
    const std::int64_t judged = Counter("events.judged");
    StartUntil([&] { return Counter("reports.write_errors") >= 3 && Counter("log.lost") > 0; });
    EXPECT_TRUE(WaitFor([&] { return Counter("events.judged") > judged; }));
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_THAT(agent.GetErrors(), HasSubstr("log/corvalent.log] cannot be written"));
    EXPECT_THAT(agent.Ctl({"doctor"}).out, HasSubstr("attempts to store reports failed"));
    agent.Stop();
    EXPECT_THAT(agent.GetErrors(), HasSubstr(" reports could not be stored and are lost\n"));

    disk.Repair();

    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    EXPECT_THAT(agent.Alerts(), testing::ElementsAreArray(alerts));
    EXPECT_EQ(agent.Root().Read("conf/whitelist.data"), list);
    EXPECT_EQ(agent.CountInLog("moved aside"), 0);
    agent.Stop();
    ExpectWholeStateFiles(agent.Root());
}

// The files that stood on it were copied to another disk, which took its place.
TEST_F(Disk, WhenTheDiskOfDataFailsAtWorkAndIsReplacedTheReportsAreStoredOnTheOther) {
    if (const std::string reason = FailingDisk::WhyNot(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const FailingDisk disk;
    const TempMount other;
    MoveTo(disk.Path(), {"data"});
    agent.MakeDetecting();
    StartUnknown();
    ExpectAlerts();
    disk.Fail();
    StartUntil([&] { return Counter("reports.write_errors") > 0; });

    fs::copy(disk.Path() + "/data", other / "data");
    fs::remove(agent.Root() / "data");
    fs::create_directory_symlink(other / "data", agent.Root() / "data");

    ExpectAlerts();
    EXPECT_EQ(agent.CountInLog(CANNOT_STORE_REPORTS), 1);
    EXPECT_EQ(agent.CountInLog(CAN_STORE_REPORTS), 1);
    agent.Stop();
}

TEST_F(Disk, ALogThatCannotBeWrittenAtTheStartIsSaidInOneLineWithItsStatus) {
    const TempMount& disk = Move({"log"}, "1m");
    disk.SetReadOnly(true);
    const Result run = agent.RunToTheEnd();
    EXPECT_EQ(run.status, 73);
    EXPECT_THAT(run.err, HasSubstr("cannot log to [" + (agent.Root() / "log/corvalent.log") + "]: Read-only file"));
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

TEST_F(Disk, WithReadOnlyConfAResetOfLearningIsRefusedAndDetectionStaysWished) {
    const TempMount& disk = Move({"conf"}, "1m");
    agent.MakeDetecting();
    disk.SetReadOnly(true);
    const Result reset = agent.Ctl({"learn", "reset"});
    EXPECT_NE(reset.status, 0);
    EXPECT_NE(reset.err.find("learning was not reset"), std::string::npos) << reset.err;
    EXPECT_EQ(agent.GetMode(), DETECTING);
    disk.SetReadOnly(false);
    agent.Stop();
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.Stop();
}

TEST_F(Disk, WithReadOnlyConfItStartsFromWhatIsThere) {
    const TempMount& disk = Move({"conf"}, "1m");
    agent.MakeDetecting();
    agent.Stop();
    disk.SetReadOnly(true);
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    StartUnknown();
    ExpectAlerts();
    agent.Stop();
}

} // namespace
} // namespace SystemTest
