#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/PresetDelivery.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr int EXIT_CANNOT_CREATE = 73;
constexpr int EXIT_BAD_SETTINGS = 78;

// What somebody who may write to a folder of the agent's puts there before it starts.
class Planted : public testing::Test {
protected:
    void PlantLink(const std::string& name, const std::string& target) const {
        fs::remove(agent.Root() / name);
        fs::create_directories(fs::path(agent.Root() / name).parent_path());
        fs::create_symlink(target, agent.Root() / name);
    }

    void PlantHardLink(const std::string& name, const std::string& target) const {
        fs::remove(agent.Root() / name);
        fs::create_directories(fs::path(agent.Root() / name).parent_path());
        fs::create_hard_link(target, agent.Root() / name);
    }

    void PlantFifo(const std::string& name) const {
        fs::remove(agent.Root() / name);
        fs::create_directories(fs::path(agent.Root() / name).parent_path());
        ASSERT_EQ(mkfifo((agent.Root() / name).c_str(), 0600), 0);
    }

    // Ends at once with that status, one line on standard error, and nothing changed.
    void ExpectRefused(int status, const std::string& part) {
        const Result result = agent.RunToTheEnd();
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_THAT(result.err, HasSubstr(part));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
    }

    static constexpr const char* VICTIM = "somebody's\n";

    Agent agent;
    const std::string victim = agent.Work().Write("victim", VICTIM);
};

TEST_F(Planted, ALogFileThatIsALinkAFifoOrSomebodyElsesIsNotWrittenTo) {
    PlantLink("log/corvalent.log", victim);
    ExpectRefused(EXIT_CANNOT_CREATE, "/log/corvalent.log]: Too many levels of symbolic links");
    PlantHardLink("log/corvalent.log", victim);
    ExpectRefused(EXIT_CANNOT_CREATE, "/log/corvalent.log]: Too many links");
    PlantFifo("log/corvalent.log");
    ExpectRefused(EXIT_CANNOT_CREATE, "cannot log to [");
    PlantLink("log/corvalent.log", "/dev/zero");
    ExpectRefused(EXIT_CANNOT_CREATE, "cannot log to [");
}

TEST_F(Planted, ALockFileThatIsALinkAFifoOrSomebodyElsesIsNotWrittenTo) {
    PlantLink("run/agent.lock", victim);
    ExpectRefused(EXIT_CANNOT_CREATE, "/run/agent.lock]: Too many levels of symbolic links");
    PlantHardLink("run/agent.lock", victim);
    ExpectRefused(EXIT_CANNOT_CREATE, "will not write to [" + agent.Root().Path() + "/run/agent.lock]: Too many links");
    PlantFifo("run/agent.lock");
    ExpectRefused(EXIT_CANNOT_CREATE, "will not write to [");
}

TEST_F(Planted, ALinkInTheSocketsPlaceIsReplacedByTheSocket) {
    PlantLink("run/agent.sock", victim);
    agent.Start();
    EXPECT_TRUE(fs::is_socket(fs::symlink_status(agent.Root() / "run/agent.sock")));
    EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
    PlantLink("run/agent.sock.gone", victim);
    agent.Stop();
    EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
}

TEST_F(Planted, StateThatIsALinkIsReplacedAndTheFileBehindItKept) {
    const std::vector<std::string> files = {"conf/whitelist.data", "conf/modwhitelist.ini", "conf/policy.json",
                                            "conf/desired.json", "conf/osPresetProcess.dat"};
    for (const std::string& file : files) {
        PlantLink(file, victim);
    }
    WebServer server;
    agent.Start();
    agent.ApplyAndWatch({});
    const ScopedProcess learned(agent.Scope().Path(), {agent.MakeProgram("learned"), "60"});
    SendPreset(agent, server, "whitelist_10002", "/usr/bin/true");
    // Withdraws the wish for detection, which is so written down.
    ASSERT_EQ(agent.Ctl({"learn", "reset"}).status, 0);
    for (const std::string& file : files) {
        EXPECT_TRUE(WaitFor([&] { return fs::is_regular_file(fs::symlink_status(agent.Root() / file)); })) << file;
    }
    agent.Stop();
    EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
}

TEST_F(Planted, AHistoryThatIsALinkOrSomebodyElsesIsNotWrittenToAndNothingIsLost) {
    const std::string history = agent.Root() / "data/reports.db";
    for (const int plant : {0, 1, 2}) {
        if (plant == 0) {
            PlantLink("data/reports.db", victim);
        } else if (plant == 1) {
            PlantHardLink("data/reports.db", victim);
        } else {
            PlantFifo("data/reports.db");
        }
        agent.WriteLearned({});
        agent.Start();
        EXPECT_TRUE(WaitFor([&] { return agent.CountInLog("is no file of the agent's own: ") > plant; })) << plant;
        EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
        fs::remove(history);
        agent.ApplyAndWatch({.hash = "policy-" + std::to_string(plant)});
        EXPECT_TRUE(WaitFor([&] { return fs::is_regular_file(fs::symlink_status(history)); })) << plant;
        agent.Stop();
        EXPECT_EQ(agent.Work().Read("victim"), VICTIM);
    }
}

TEST_F(Planted, AFifoOrEndlessDeviceInTheStateHoldsNobodyUp) {
    const std::vector<std::string> files = {
        "conf/whitelist.data",   "conf/arsserverproc.data", "conf/osPresetProcess.dat", "conf/servicePresetProcess.dat",
        "conf/modwhitelist.ini", "conf/policy.json",        "conf/desired.json"};
    for (const bool fifo : {true, false}) {
        for (const std::string& file : files) {
            if (fifo) {
                PlantFifo(file);
            } else {
                PlantLink(file, "/dev/zero");
            }
        }
        agent.Start();
        agent.ApplyAndWatch({.hash = fifo ? "fifo" : "device"});
        EXPECT_EQ(agent.GetMode(), LEARNING);
        agent.Stop();
    }
    PlantFifo("conf/agent.json");
    ExpectRefused(EXIT_BAD_SETTINGS, "/conf/agent.json: Invalid argument");
    PlantLink("conf/agent.json", "/dev/zero");
    ExpectRefused(EXIT_BAD_SETTINGS, "/conf/agent.json: Invalid argument");
}

TEST_F(Planted, FoldersThatOthersMayWriteToAreToldAtTheStart) {
    for (const char* folder : {"data", "log"}) {
        fs::create_directory(agent.Root() / folder);
    }
    fs::permissions(agent.Root() / "conf", fs::perms(0777));
    fs::permissions(agent.Root() / "log", fs::perms(0775));
    ASSERT_EQ(chown((agent.Root() / "data").c_str(), 65534, 65534), 0);
    agent.Start();
    const std::string root = agent.Root().Path();
    for (const std::string& line :
         {root + "/conf has mode 0777", root + "/log has mode 0775", root + "/data belongs to user 65534"}) {
        EXPECT_EQ(agent.CountInLog(" Error daemon Daemon.cpp:"), 3) << line;
        EXPECT_EQ(agent.CountInLog(line + ": others can change what the agent runs or believes\n"), 1) << line;
    }
    const Result doctor = agent.Ctl({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_THAT(doctor.out, HasSubstr("/conf has mode 0777: others can change"));
}

} // namespace
} // namespace SystemTest
