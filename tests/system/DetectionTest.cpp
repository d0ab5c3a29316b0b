#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// The numbers behind a key of /proc/PID/status.
std::vector<int> ReadProcStatus(int pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key + ":", 0) == 0) {
            std::istringstream numbers(line.substr(key.size() + 1));
            return {std::istream_iterator<int>(numbers), std::istream_iterator<int>()};
        }
    }
    return {};
}

void ExpectInteger(const Json::Value& object, const char* key, std::int64_t value) {
    ASSERT_EQ(object[key].type(), Json::intValue) << key << ' ' << object[key].toStyledString();
    EXPECT_EQ(object[key].asInt64(), value) << key;
}

void ExpectText(const Json::Value& object, const char* key, const std::string& value) {
    ASSERT_EQ(object[key].type(), Json::stringValue) << key << ' ' << object[key].toStyledString();
    EXPECT_EQ(object[key].asString(), value) << key;
}

void ExpectTime(const Json::Value& object, const char* key, std::int64_t earliest, std::int64_t latest) {
    ASSERT_EQ(object[key].type(), Json::intValue) << key << ' ' << object[key].toStyledString();
    EXPECT_GE(object[key].asInt64(), earliest) << key;
    EXPECT_LE(object[key].asInt64(), latest) << key;
}

// What every alert says.
void ExpectEnvelope(const Json::Value& alert, std::int64_t before) {
    EXPECT_THAT(alert.getMemberNames(),
                ElementsAre("attack_phase", "attack_tag", "confidence", "detect_module", "event_category",
                            "event_classid", "event_count", "event_id", "event_name", "event_type", "occur_time",
                            "process_info", "serverity"));
    EXPECT_THAT(alert["event_id"].asString(),
                MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}"));
    ExpectText(alert, "event_name", "white list alert process");
    ExpectText(alert, "event_classid", "whitelist_4");
    ExpectText(alert, "detect_module", "module_whitelist");
    ExpectInteger(alert, "event_category", 1000);
    ExpectInteger(alert, "event_type", 1013);
    ExpectInteger(alert, "serverity", 2);
    ExpectInteger(alert, "event_count", 1);
    ExpectInteger(alert, "attack_phase", 6);
    ExpectInteger(alert, "attack_tag", 4);
    ExpectInteger(alert, "confidence", 60);
    ExpectTime(alert, "occur_time", before, std::time(nullptr));
}

void ExpectFileAttributes(const Json::Value& process, const std::string& path, const std::string& mode) {
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    ExpectText(process, "process_path", path);
    ExpectText(process, "process_hash", Sha256Of(path));
    ExpectInteger(process, "file_size", file.st_size);
    ExpectInteger(process, "file_mtime", file.st_mtime);
    ExpectInteger(process, "file_ctime", file.st_ctime);
    ExpectText(process, "file_attr", mode);
}

TEST(DetectionTest, AnAlertTellsTheProcessAndItsFile) {
    Agent agent;
    // So that other users may run what is in there.
    fs::permissions(agent.Work().Path(), fs::perms(0755));
    const std::string setpriv = fs::canonical("/usr/bin/setpriv").string();
    const std::string program = agent.MakeProgram("unknown");
    fs::permissions(program, fs::perms(02755));
    fs::last_write_time(program, fs::last_write_time(program) - std::chrono::hours(1000));
    agent.MakeDetecting({.programs = {setpriv}}, {});
    const std::time_t before = std::time(nullptr);
    const ScopedProcess process(agent.Scope().Path(), {setpriv, "--ruid=1001", "--euid=1002", "--rgid=1003",
                                                       "--egid=1004", "--clear-groups", program, "60", "61"});
    const Json::Value alert = agent.WaitForAlert(process.Pid());

    ExpectEnvelope(alert, before);
    const Json::Value& info = alert["process_info"];
    EXPECT_THAT(info.getMemberNames(),
                ElementsAre("block", "file_attr", "file_ctime", "file_mtime", "file_size", "parent_process_pid",
                            "process_cmdline", "process_egid", "process_euid", "process_gid", "process_hash",
                            "process_path", "process_pid", "process_start_time", "process_uid", "process_username"));
    ExpectInteger(info, "process_pid", process.Pid());
    ExpectInteger(info, "parent_process_pid", getpid());
    ExpectInteger(info, "process_uid", 1001);
    ExpectInteger(info, "process_euid", 1002);
    ExpectInteger(info, "process_gid", 1003);
    // Which one it is depends on whether the file system honours the file's set-group-id bit.
    ExpectInteger(info, "process_egid", ReadProcStatus(process.Pid(), "Gid").at(1));
    ExpectText(info, "process_cmdline", program + " 60 61");
    EXPECT_EQ(info["process_username"].type(), Json::stringValue);
    // The kernel counts the start in ticks since its own start, whose second is rounded.
    ExpectTime(info, "process_start_time", before - 2, std::time(nullptr) + 2);
    ExpectFileAttributes(info, program, "755");
    ExpectInteger(info, "block", 0);
}

TEST(DetectionTest, OneStartOfAnUnknownProgramIsOneAlertAndAKnownOneIsNone) {
    Agent agent;
    const std::string known = agent.MakeProgram("known");
    agent.MakeDetecting({.programs = {known}}, {});
    const ScopedProcess trusted(agent.Scope().Path(), {known, "60"});
    ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    const ScopedProcess again(agent.Scope().Path(), {agent.Work() / "programs/unknown", "60"});
    agent.DrainEvents();

    EXPECT_EQ(agent.AlertsOf(trusted.Pid()).size(), 0U);
    ASSERT_EQ(agent.AlertsOf(unknown.Pid()).size(), 1U);
    ASSERT_EQ(agent.AlertsOf(again.Pid()).size(), 1U);
    EXPECT_NE(agent.AlertsOf(unknown.Pid())[0]["event_id"], agent.AlertsOf(again.Pid())[0]["event_id"]);
    EXPECT_FALSE(unknown.HasEnded());
}

TEST(DetectionTest, EveryCopyThatAnUnknownProgramMakesOfItselfIsReported) {
    Agent agent;
    const std::string tool = agent.Work() / "forker";
    fs::copy_file(FORK_SLEEPERS, tool);
    agent.MakeDetecting();
    const ScopedProcess forker(agent.Scope().Path(), {tool, "3"});
    ASSERT_TRUE(WaitFor([&] { return agent.Scope().GetPids().size() == 4; }));
    const std::vector<int> pids = agent.Scope().GetPids();

    for (const int pid : pids) {
        EXPECT_EQ(agent.WaitForAlert(pid)["process_info"]["process_path"].asString(), tool);
    }
    agent.DrainEvents();
    for (const int pid : pids) {
        EXPECT_EQ(agent.AlertsOf(pid).size(), 1U) << pid;
    }
}

TEST(DetectionTest, InABurstEveryStartIsOneAlert) {
    constexpr std::size_t STARTS = 200;
    Agent agent;
    const std::string program = agent.MakeProgram("unknown");
    agent.MakeDetecting();
    const std::size_t alertsBefore = agent.Alerts().size();
    std::vector<std::unique_ptr<ScopedProcess>> processes;
    std::set<int> pids;
    for (std::size_t i = 0; i < STARTS; ++i) {
        processes.push_back(
            std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{program, "60"}));
        pids.insert(processes.back()->Pid());
    }
    ASSERT_TRUE(WaitFor([&] { return agent.Alerts().size() >= alertsBefore + STARTS; }));
    agent.DrainEvents();

    std::multiset<int> reported;
    std::set<std::string> eventIds;
    for (const Json::Value& alert : agent.Alerts()) {
        if (alert["process_info"]["process_path"].asString() == program) {
            reported.insert(alert["process_info"]["process_pid"].asInt());
            eventIds.insert(alert["event_id"].asString());
        }
    }
    EXPECT_EQ(reported, std::multiset<int>(pids.begin(), pids.end()));
    EXPECT_EQ(eventIds.size(), STARTS);
    EXPECT_EQ(agent.Status()["events"]["lost"].asInt(), 0);
}

TEST(DetectionTest, AThousandShortLivesAreSurvivedAndNoLossIsForgotten) {
    constexpr int STARTS = 1000;
    Agent agent;
    agent.MakeDetecting({.programs = {"/usr/bin/true"}}, {});
    const std::int64_t execsBefore = agent.Status()["events"]["exec"].asInt64();
    for (int i = 0; i < STARTS; ++i) {
        ScopedProcess process(agent.Scope().Path(), {"/usr/bin/true"});
        ASSERT_TRUE(process.Wait(TestSupport::DEADLINE));
    }
    agent.DrainEvents();

    const Json::Value status = agent.Status();
    EXPECT_EQ(status["mode"].asInt(), DETECTING);
    // Not all: of a process that is gone when its event is read nobody knows the group.
    EXPECT_GT(status["events"]["exec"].asInt64(), execsBefore);
    EXPECT_TRUE(status["events"]["lost"].asInt64() == 0 || status["counters"]["events.rescan"].asInt64() > 0);
    for (const Json::Value& alert : agent.Alerts()) {
        EXPECT_THAT(alert["process_info"]["process_path"].asString(), HasSubstr("/drain-"));
    }
}

} // namespace
} // namespace SystemTest
