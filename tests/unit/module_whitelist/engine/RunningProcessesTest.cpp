#include <filesystem>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

using ProcsMap = Engine::ProcsFullTask::ProcsMap;

class RunningProcessesTest : public TrustEngineTest {
protected:
    RunningProcessesTest() : tool(root.Write("bin/tool", "the tool")) { engine.GetInterpreterName(); }

    static Engine::ProcsMessage::procInfo Process(int pid, const std::string& path) {
        Engine::ProcsMessage::procInfo process;
        process.pid = pid;
        process.ppid = 7;
        process.path = path;
        process.name = NameOf(path);
        process.cmdline = path + " --flag";
        return process;
    }
    void TellOf(const std::vector<Engine::ProcsMessage::procInfo>& processes) {
        ProcsMap map;
        for (const auto& process : processes) {
            map[process.pid] = process;
        }
        agent.Processes().Set(map);
    }

    // That many processes: one of the tool, the others of an image that cannot be read.
    void TellOfMany(int count) {
        ProcsMap map{{0, Process(0, tool)}};
        for (int pid = 1; pid < count; ++pid) {
            map[pid].pid = pid;
        }
        agent.Processes().Set(map);
    }

    const std::string tool;
};

} // namespace

TEST_F(RunningProcessesTest, InLearningModeBecomeTrusted) {
    Configure(Engine::MOD_LEARN);
    TellOf({Process(100001, tool), Process(100002, root / "missing")});
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(log.Count(Message::PRIO_TRACE, "ProcsMap size [2]"), 1);
    const auto local = engine.CopyLocalTrust();
    ASSERT_EQ(local.size(), 1U);
    EXPECT_EQ(local.at(tool).name, "tool");
    EXPECT_EQ(local.at(tool).hash, Digest("the tool"));
    // Of the process itself a trust list keeps nothing.
    EXPECT_EQ(local.at(tool).pid, 0);
    EXPECT_TRUE(local.at(tool).cmdline.empty());
    EXPECT_EQ(local.at(tool).type, 0);
    EXPECT_EQ(engine.GetProcessInfoFromID(100001), nullptr);
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

TEST_F(RunningProcessesTest, InLearningModeDoNotReplaceWhatTheListHolds) {
    Configure(Engine::MOD_LEARN);
    engine.UpdateLocalProcessInfo(Record(tool, "older"));
    TellOf({Process(100001, tool)});
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(engine.CopyLocalTrust().at(tool).hash, "older");
}

TEST_F(RunningProcessesTest, InLearningModeAreLearnedByTheirScript) {
    Configure(Engine::MOD_LEARN);
    const std::string bash = CopyProgram("/bin/bash", "bash");
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    const TestSupport::ForeignProcess process({.words = {bash, script}});
    ASSERT_TRUE(process.AwaitLine());
    auto entry = Process(process.Pid(), bash);
    entry.cmdline = bash + " " + script;
    TellOf({entry});
    EXPECT_TRUE(engine.InitTrustProcess());
    const auto local = engine.CopyLocalTrust();
    ASSERT_EQ(local.size(), 1U);
    EXPECT_EQ(local.at(script).type, 2);
    EXPECT_EQ(local.at(script).hash, DigestOfFile(script));
}

TEST_F(RunningProcessesTest, InOtherModesAreLeftAlone) {
    TellOf({Process(100001, tool)});
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
        Configure(mode);
        EXPECT_TRUE(engine.InitTrustProcess());
        EXPECT_EQ(engine.CountLocalTrust(), 0U) << mode;
        EXPECT_EQ(engine.GetProcessInfoFromID(100001), nullptr) << mode;
    }
}

TEST_F(RunningProcessesTest, InDirectoryModeFillTheTableWithTheirVerdicts) {
    Configure(Engine::MOD_LEARN, true);
    const std::string stranger = root.Write("bin/stranger", "unknown");
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(Digest("the tool"))})));
    TellOf({Process(100001, tool), Process(100002, stranger), Process(100003, root / "missing")});
    EXPECT_TRUE(engine.InitTrustProcess());
    const ProcessInfo trusted = *engine.GetProcessInfoFromID(100001);
    EXPECT_EQ(trusted.path, tool);
    EXPECT_EQ(trusted.ppid, 7);
    EXPECT_EQ(trusted.cmdline, tool + " --flag");
    EXPECT_TRUE(trusted.trusted);
    ASSERT_NE(engine.GetProcessInfoFromID(100002), nullptr);
    EXPECT_FALSE(engine.GetProcessInfoFromID(100002)->trusted);
    EXPECT_EQ(engine.GetProcessInfoFromID(100003), nullptr);
    EXPECT_EQ(engine.CopyLocalTrust().count(tool), 1U);
    EXPECT_EQ(engine.CopyLocalTrust().count(stranger), 0U);
    EXPECT_EQ(agent.Reports().Of("whitelist_3").size(), 1U);
}

TEST_F(RunningProcessesTest, InDirectoryModeKeepTheirRowButTakeTheNewVerdict) {
    Configure(Engine::MOD_DETECT, true);
    ProcessInfo row = Record("/earlier", "hash");
    row.pid = 100001;
    engine.AddToAllProcessMap(row);
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(Digest("the tool"))})));
    TellOf({Process(100001, tool)});
    EXPECT_TRUE(engine.InitTrustProcess());
    ASSERT_NE(engine.GetProcessInfoFromID(100001), nullptr);
    EXPECT_EQ(engine.GetProcessInfoFromID(100001)->path, "/earlier");
    EXPECT_TRUE(engine.GetProcessInfoFromID(100001)->trusted);
}

TEST_F(RunningProcessesTest, AreHashedOnceAnImage) {
    Configure(Engine::MOD_DETECT, true);
    const std::string other = root.Write("bin/other", "the other");
    TellOf({Process(100001, tool), Process(100002, other), Process(100003, tool), Process(100004, other)});
    const std::uint64_t before = DigestsSoFar();
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(DigestsSoFar(), before + 2);
    EXPECT_EQ(engine.GetProcessInfoFromID(100003)->hash, Digest("the tool"));
    EXPECT_EQ(engine.GetProcessInfoFromID(100004)->hash, Digest("the other"));
}

TEST_F(RunningProcessesTest, InDirectoryModeAreHashedOnceAnImageAsWell) {
    Configure(Engine::MOD_DETECT, true);
    const std::string sleep = CopyProgram("/bin/sleep", "sleep");
    const TestSupport::ForeignProcess first({.words = {sleep, "1000"}});
    const TestSupport::ForeignProcess second({.words = {sleep, "1000"}});
    TellOf({Process(first.Pid(), sleep), Process(second.Pid(), sleep)});
    const std::uint64_t before = DigestsSoFar();
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(DigestsSoFar(), before + 1);
    for (const int pid : {first.Pid(), second.Pid()}) {
        EXPECT_EQ(engine.GetProcessInfoFromID(pid)->hash, DigestOfFile(sleep));
    }
}

TEST_F(RunningProcessesTest, InDirectoryModeTwoImagesUnderOnePathAreJudgedApart) {
    Configure(Engine::MOD_DETECT, true);
    const std::string path = CopyProgram("/bin/sleep", "program");
    const std::string sleepDigest = DigestOfFile(path);
    const TestSupport::ForeignProcess trusted({.words = {path, "1000"}});
    std::filesystem::rename(CopyProgram("/bin/tail", "other"), path);
    const TestSupport::ForeignProcess stranger({.words = {path, "-f", "/dev/null"}});
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(sleepDigest)})));
    TellOf({Process(trusted.Pid(), path), Process(stranger.Pid(), path)});
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(engine.GetProcessInfoFromID(trusted.Pid())->hash, sleepDigest);
    EXPECT_TRUE(engine.GetProcessInfoFromID(trusted.Pid())->trusted);
    EXPECT_EQ(engine.GetProcessInfoFromID(stranger.Pid())->hash, DigestOfFile(path));
    EXPECT_FALSE(engine.GetProcessInfoFromID(stranger.Pid())->trusted);
}

TEST_F(RunningProcessesTest, OneHundredThousandAreLookedAt) {
    Configure(Engine::MOD_LEARN);
    TellOfMany(100000);
    EXPECT_TRUE(engine.InitTrustProcess());
    EXPECT_EQ(log.Count(Message::PRIO_TRACE, "ProcsMap size [100000]"), 1);
    EXPECT_EQ(engine.CountLocalTrust(), 1U);
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

TEST_F(RunningProcessesTest, OneMoreIsTooMany) {
    Configure(Engine::MOD_LEARN);
    TellOfMany(100001);
    EXPECT_FALSE(engine.InitTrustProcess());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Module Cann't Start, due to process id size 100001"), 1);
    EXPECT_EQ(agent.Reports().Of("whitelist_5"), std::vector<std::string>{R"({"runerr":"Too Many Running Proc"})"});
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_TRUE(engine.Onstart());
}

// ---- The report of all processes -------------------------------------------------------------------

TEST_F(RunningProcessesTest, AreReportedWithDigestAndSizeOfNow) {
    TellOf({Process(2, tool), Process(1, root / "missing")});
    std::string out;
    EXPECT_TRUE(engine.GetAllProcess(out));
    EXPECT_EQ(out, List({Entry(root / "missing", "", 0), Entry(tool, Digest("the tool"), 8)}));
}

TEST_F(RunningProcessesTest, AreNotReportedWhenThereAreNone) {
    std::string out = "untouched";
    EXPECT_FALSE(engine.GetAllProcess(out));
    EXPECT_EQ(out, "untouched");
    ASSERT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(log.Records()[0].text, "proc map is empty");
}

TEST(WithoutProcessTableTest, RunningProcessesCannotBeReportedAndAreNone) {
    const TestSupport::TempRoot root;
    const TestSupport::LogRecorder log;
    std::string out = "untouched";
    EXPECT_FALSE(ProcessManager::Instance()->GetAllProcess(out));
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Get full proc failed"), 1);
    EXPECT_TRUE(ProcessManager::Instance()->InitTrustProcess());
    EXPECT_EQ(log.Count(Message::PRIO_TRACE, "ProcsMap size [0]"), 1);
}

} // namespace EngineTest
