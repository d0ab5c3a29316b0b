#include <cctype>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <set>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/writer.h>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

using TestSupport::FakeIsolateTask;
using TestSupport::ForeignProcess;

constexpr unsigned int EXEC = 1;
constexpr unsigned int FORK = 2;

std::set<std::string> Keys(const Json::Value& object) {
    const std::vector<std::string> names = object.getMemberNames();
    return {names.begin(), names.end()};
}

bool IsUuid(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
        if (isDash ? text[i] != '-' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) {
            return false;
        }
    }
    return text.size() == 36;
}

class DetectionTest : public TrustEngineTest {
protected:
    DetectionTest() : program(CopyProgram("/bin/sleep", "stranger")) {
        engine.GetInterpreterName();
        // For programs that run under another user.
        std::filesystem::permissions(root.Path(), std::filesystem::perms(0755));
        std::filesystem::permissions(program, std::filesystem::perms(0755));
    }

    // The alerts so far; every other report is unexpected.
    std::vector<Json::Value> Alerts() {
        std::vector<Json::Value> alerts;
        for (const auto& report : agent.Reports().Reports()) {
            EXPECT_EQ(report.type, "whitelist_4");
            alerts.push_back(Parse(report.data));
        }
        return alerts;
    }
    Json::Value OnlyAlert() {
        const std::vector<Json::Value> alerts = Alerts();
        EXPECT_EQ(alerts.size(), 1U);
        return alerts.empty() ? Json::Value() : alerts.front();
    }
    Json::Value AlertedProcess() { return OnlyAlert()["process_info"]; }

    // Fills the lists with 50 entries as they count for blocking: 20 local, 10 names that the server
    // lists twice each, 10 in either preset list.
    void FillListsToTheFloor() const {
        ASSERT_TRUE(ParseLocal(List(FillerEntries(20, "local"))));
        std::vector<std::string> server = FillerEntries(10, "server");
        const std::vector<std::string> again = server;
        server.insert(server.end(), again.begin(), again.end());
        SyncServer(List(server));
        std::vector<std::string> presets;
        for (int i = 0; i < 10; ++i) {
            presets.push_back(PresetEntry(Digest("preset" + std::to_string(i))));
        }
        ASSERT_TRUE(SyncPreset(OS_PRESET, List(presets)));
        ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List(presets)));
        ASSERT_EQ(engine.CountServerTrust(), 20U);
    }
    void FillListsAboveTheFloor() const {
        FillListsToTheFloor();
        engine.UpdateLocalProcessInfo(Record("/one/more", "hash"));
    }

    Poco::AutoPtr<FakeIsolateTask> StartIsolateTask() {
        Poco::AutoPtr<FakeIsolateTask> task(new FakeIsolateTask);
        agent.Start(task);
        return task;
    }

    std::string IsolateRecord(const char* result, const char* kill, const char* chmod) const {
        return "isolate file [" + program + "] ret :" + result + " kill :" + kill + " chmod :" + chmod;
    }

    const std::string program;
};

} // namespace

// ---- The alert -------------------------------------------------------------------------------------

TEST_F(DetectionTest, AnUntrustedProgramIsAlertedOnceWithAllThatIsKnownOfIt) {
    Configure(Engine::MOD_DETECT);
    const std::time_t before = std::time(nullptr);
    const ForeignProcess process({.words = {program, "1000"}, .uid = 12345, .gid = 23456});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    const Json::Value alert = OnlyAlert();

    EXPECT_EQ(Keys(alert),
              (std::set<std::string>{"event_id", "event_name", "event_classid", "occur_time", "event_category",
                                     "event_type", "serverity", "event_count", "attack_phase", "attack_tag",
                                     "confidence", "detect_module", "process_info"}));
    EXPECT_TRUE(IsUuid(alert["event_id"].asString())) << alert["event_id"];
    EXPECT_EQ(alert["event_name"], "white list alert process");
    EXPECT_EQ(alert["event_classid"], "whitelist_4");
    ASSERT_TRUE(alert["occur_time"].isInt64());
    EXPECT_GE(alert["occur_time"].asInt64(), before);
    EXPECT_LE(alert["occur_time"].asInt64(), std::time(nullptr));
    EXPECT_EQ(alert["event_category"], 1000);
    EXPECT_EQ(alert["event_type"], 1013);
    EXPECT_EQ(alert["serverity"], 2);
    EXPECT_EQ(alert["event_count"], 1);
    EXPECT_EQ(alert["attack_phase"], 6);
    EXPECT_EQ(alert["attack_tag"], 4);
    EXPECT_EQ(alert["confidence"], 60);
    EXPECT_EQ(alert["detect_module"], "module_whitelist");

    const Json::Value& info = alert["process_info"];
    EXPECT_EQ(Keys(info), (std::set<std::string>{"process_pid", "parent_process_pid", "process_uid", "process_euid",
                                                 "process_gid", "process_egid", "process_username", "process_path",
                                                 "process_cmdline", "process_start_time", "process_hash", "file_size",
                                                 "file_mtime", "file_ctime", "file_attr", "block"}));
    struct stat file {};
    ASSERT_EQ(stat(program.c_str(), &file), 0);
    EXPECT_EQ(info["process_pid"], process.Pid());
    EXPECT_EQ(info["parent_process_pid"], process.ParentPid());
    EXPECT_EQ(info["process_uid"], 12345);
    EXPECT_EQ(info["process_euid"], 12345);
    EXPECT_EQ(info["process_gid"], 23456);
    EXPECT_EQ(info["process_egid"], 23456);
    EXPECT_EQ(info["process_username"], "");
    EXPECT_EQ(info["process_path"], program);
    EXPECT_EQ(info["process_cmdline"], program + " 1000");
    ASSERT_TRUE(info["process_start_time"].isInt64());
    EXPECT_NEAR(static_cast<double>(info["process_start_time"].asInt64()), static_cast<double>(before), 60);
    EXPECT_EQ(info["process_hash"], DigestOfFile(program));
    EXPECT_EQ(info["file_size"].asInt64(), file.st_size);
    EXPECT_EQ(info["file_mtime"].asInt64(), file.st_mtime);
    EXPECT_EQ(info["file_ctime"].asInt64(), file.st_ctime);
    EXPECT_EQ(info["file_attr"], "755");
    EXPECT_EQ(info["block"], 0);
    EXPECT_EQ(CountUpTo(Message::PRIO_ERROR), 0);
}

TEST_F(DetectionTest, RealAndEffectiveIdsAreTold) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        const bool done =
            syscall(SYS_setresgid, 1001, 1002, 1002) == 0 && syscall(SYS_setresuid, 1003, 1004, 1004) == 0;
        static_cast<void>(write(ready[1], "x", done ? 1 : 0) < 0);
        close(ready[1]);
        for (;;) {
            pause();
        }
    }
    close(ready[1]);
    ASSERT_GT(pid, 0);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    engine.ReportSuspiciousProcess(false, ProcessInfo(pid));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    const Json::Value info = AlertedProcess();
    EXPECT_EQ(info["parent_process_pid"], getpid());
    EXPECT_EQ(info["process_gid"], 1001);
    EXPECT_EQ(info["process_egid"], 1002);
    EXPECT_EQ(info["process_uid"], 1003);
    EXPECT_EQ(info["process_euid"], 1004);
}

TEST_F(DetectionTest, TheUserIsThatOfTheRecordsParent) {
    ProcessInfo info(NOBODY);
    info.ppid = getpid();
    engine.ReportSuspiciousProcess(false, info);
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(AlertedProcess()["process_username"], user->pw_name);
}

TEST_F(DetectionTest, AnAlertOfADeletedImageHasNothingOfTheFile) {
    const ForeignProcess process({.words = {program, "1000"}});
    std::filesystem::remove(program);
    ProcessInfo info(process.Pid());
    info.path = program;
    engine.ReportSuspiciousProcess(true, info);
    const Json::Value alerted = AlertedProcess();
    EXPECT_EQ(Keys(alerted), (std::set<std::string>{"process_pid", "parent_process_pid", "process_uid", "process_euid",
                                                    "process_gid", "process_egid", "process_username", "process_path",
                                                    "process_cmdline", "process_start_time", "process_hash", "block"}));
    EXPECT_EQ(alerted["process_path"], program);
    EXPECT_EQ(alerted["process_hash"], "");
    EXPECT_EQ(alerted["block"], 1);
}

TEST_F(DetectionTest, OnlyThePermissionsOfTheFileAreTold) {
    const std::vector<std::pair<mode_t, std::string>> modes = {{04755, "755"}, {06644, "644"}, {0, "0"}, {01007, "7"}};
    for (const auto& [mode, text] : modes) {
        agent.Reports().Clear();
        ASSERT_EQ(chmod(program.c_str(), mode), 0);
        engine.ReportSuspiciousProcess(false, Record(program, "hash"));
        EXPECT_EQ(AlertedProcess()["file_attr"], text);
    }
}

TEST_F(DetectionTest, AProcessThatIsGoneIsStillAlerted) {
    ProcessInfo info = Record(program, "hash");
    info.pid = NOBODY;
    info.cmdline = "stranger 1000";
    engine.ReportSuspiciousProcess(false, info);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Get process status info failed, maybe it has dead"), 1);
    const Json::Value alerted = AlertedProcess();
    EXPECT_EQ(alerted["process_pid"], NOBODY);
    for (const char* key :
         {"parent_process_pid", "process_uid", "process_euid", "process_gid", "process_egid", "process_start_time"}) {
        EXPECT_EQ(alerted[key], 0) << key;
    }
    EXPECT_EQ(alerted["process_username"], "");
    EXPECT_EQ(alerted["process_path"], program);
    EXPECT_EQ(alerted["process_cmdline"], "stranger 1000");
    EXPECT_EQ(alerted["process_hash"], "hash");
    EXPECT_TRUE(alerted.isMember("file_size"));
}

TEST_F(DetectionTest, EveryAlertHasAnIdOfItsOwn) {
    Configure(Engine::MOD_DETECT);
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_TRUE(engine.OnProcessNotify(FORK, process.Pid(), 1));
    const std::vector<Json::Value> alerts = Alerts();
    ASSERT_EQ(alerts.size(), 2U);
    EXPECT_NE(alerts[0]["event_id"], alerts[1]["event_id"]);
    EXPECT_EQ(alerts[0]["event_count"], 1);
    EXPECT_EQ(alerts[1]["event_count"], 1);
}

TEST_F(DetectionTest, OfAnInterpreterTheScriptIsAlerted) {
    Configure(Engine::MOD_DETECT);
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    const ForeignProcess process({.words = {CopyProgram("/bin/bash", "bash"), script}});
    ASSERT_TRUE(process.AwaitLine());
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    const Json::Value alerted = AlertedProcess();
    EXPECT_EQ(alerted["process_path"], script);
    EXPECT_EQ(alerted["process_hash"], DigestOfFile(script));
    EXPECT_EQ(alerted["file_size"].asInt64(), static_cast<std::int64_t>(std::filesystem::file_size(script)));
}

TEST_F(DetectionTest, ATrustedProgramIsNotAlerted) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsAboveTheFloor();
    auto isolate = StartIsolateTask();
    engine.UpdateLocalProcessInfo(Record(program, DigestOfFile(program)));
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_TRUE(Alerts().empty());
    EXPECT_TRUE(isolate->Calls().empty());
}

// ---- Blocking --------------------------------------------------------------------------------------

TEST_F(DetectionTest, WithFiftyEntriesNothingIsBlocked) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsToTheFloor();
    auto isolate = StartIsolateTask();
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_TRUE(isolate->Calls().empty());
    EXPECT_EQ(AlertedProcess()["block"], 0);
}

TEST_F(DetectionTest, WithOneEntryMoreInAnyListItIs) {
    auto isolate = StartIsolateTask();
    const ForeignProcess process({.words = {program, "1000"}});
    Configure(Engine::MOD_DETECT, false, true);
    const std::vector<std::string> fifty = FillerEntries(50, "server");
    std::vector<std::string> presets;
    for (int i = 0; i < 50; ++i) {
        presets.push_back(PresetEntry(Digest("preset" + std::to_string(i))));
    }
    // One in the server list beside fifty in another.
    SyncServer(List({Entry("/one/more", "hash", 1)}));
    for (const char* preset : {OS_PRESET, SERVICE_PRESET}) {
        ASSERT_TRUE(SyncPreset(preset, List(presets)));
        engine.OnProcessNotify(EXEC, process.Pid(), 1);
        ASSERT_TRUE(SyncPreset(preset, List({})));
    }
    EXPECT_EQ(isolate->Calls().size(), 2U);
    SyncServer(List(fifty));
    engine.OnProcessNotify(EXEC, process.Pid(), 1);
    EXPECT_EQ(isolate->Calls().size(), 2U);
    engine.UpdateLocalProcessInfo(Record("/one/more", "hash"));
    engine.OnProcessNotify(EXEC, process.Pid(), 1);
    EXPECT_EQ(isolate->Calls().size(), 3U);
}

TEST_F(DetectionTest, AnUntrustedProgramIsIsolatedAndAlertedAsBlocked) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsAboveTheFloor();
    auto isolate = StartIsolateTask();
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    const auto calls = isolate->Calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].pid, process.Pid());
    EXPECT_EQ(calls[0].path, program);
    EXPECT_TRUE(calls[0].kill);
    EXPECT_TRUE(calls[0].chmod);
    EXPECT_FALSE(calls[0].quarantine);
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, IsolateRecord("true", "true", "true")), 1);
    EXPECT_EQ(AlertedProcess()["block"], 1);
}

TEST_F(DetectionTest, AnIsolationThatFailsIsToldAndAlertedAsNotBlocked) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsAboveTheFloor();
    auto isolate = StartIsolateTask();
    const ForeignProcess process({.words = {program, "1000"}});
    isolate->Answer(true, false);
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, IsolateRecord("false", "true", "false")), 1);
    isolate->Answer(false, true);
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, IsolateRecord("false", "false", "true")), 1);
    const std::vector<Json::Value> alerts = Alerts();
    ASSERT_EQ(alerts.size(), 2U);
    EXPECT_EQ(alerts[0]["process_info"]["block"], 0);
    EXPECT_EQ(alerts[1]["process_info"]["block"], 0);
}

TEST_F(DetectionTest, WithoutAnIsolateTaskTheProgramIsOnlyAlerted) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsAboveTheFloor();
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "get isolate ptr failed"), 1);
    EXPECT_EQ(AlertedProcess()["block"], 0);
}

TEST_F(DetectionTest, APolicyThatDoesNotAskForItBlocksNothing) {
    Configure(Engine::MOD_DETECT, false, false);
    FillListsAboveTheFloor();
    auto isolate = StartIsolateTask();
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_TRUE(isolate->Calls().empty());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "get isolate ptr failed"), 0);
    EXPECT_EQ(AlertedProcess()["block"], 0);
}

TEST_F(DetectionTest, OfAnInterpreterTheScriptIsIsolated) {
    Configure(Engine::MOD_DETECT, false, true);
    FillListsAboveTheFloor();
    auto isolate = StartIsolateTask();
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    const ForeignProcess process({.words = {CopyProgram("/bin/bash", "bash"), script}});
    ASSERT_TRUE(process.AwaitLine());
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    ASSERT_EQ(isolate->Calls().size(), 1U);
    EXPECT_EQ(isolate->Calls()[0].path, script);
}

// ---- The other reports -----------------------------------------------------------------------------

TEST_F(DetectionTest, ANewTrustedProcessIsReportedAsAnObject) {
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(program));
    engine.ReportNewTrustProcess(Record(program, "hash", 2));
    EXPECT_EQ(agent.Reports().Of("whitelist_3"),
              std::vector<std::string>{R"({"process_info":)" + Entry(program, "hash", size, 2) + "}"});
}

TEST_F(DetectionTest, ARunErrorIsReportedAsItsText) {
    engine.SendModRunErrorMessage("a \"quoted\" text");
    EXPECT_EQ(agent.Reports().Of("whitelist_5"), std::vector<std::string>{R"({"runerr":"a \"quoted\" text"})"});
}

} // namespace EngineTest
