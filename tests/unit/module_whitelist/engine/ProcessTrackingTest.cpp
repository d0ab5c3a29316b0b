#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

using TestSupport::ForeignProcess;

constexpr unsigned int EXEC = 1;
constexpr unsigned int FORK = 2;
constexpr unsigned int EXIT = 3;

class ProcessTrackingTest : public TrustEngineTest {
protected:
    ProcessTrackingTest() { engine.GetInterpreterName(); }

    std::string CopySleep(const std::string& name) const { return CopyProgram("/bin/sleep", name); }
    static std::int64_t SizeOf(const std::string& path) {
        return static_cast<std::int64_t>(std::filesystem::file_size(path));
    }

    void AddRow(int pid, const std::string& path) const {
        ProcessInfo row = Record(path, "hash of " + path);
        row.pid = pid;
        engine.AddToAllProcessMap(row);
    }
    bool HasRow(int pid) const { return engine.GetProcessInfoFromID(pid) != nullptr; }
    std::string PathOfRow(int pid) const {
        const ProcessInfo* row = engine.GetProcessInfoFromID(pid);
        return row == nullptr ? "<none>" : row->path;
    }
    std::string Increase() const {
        std::string out = "<none>";
        engine.GetIncreaseProcess(out);
        return out;
    }
};

} // namespace

// ---- Global mode: learning -------------------------------------------------------------------------

TEST_F(ProcessTrackingTest, AnExecutedProgramIsLearned) {
    Configure(Engine::MOD_LEARN);
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_EQ(
        log.Count(Message::PRIO_DEBUG, "add [" + program + "] hash [" + DigestOfFile(program) + "] to increament map"),
        1);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_EQ(Increase(), List({Entry(program, DigestOfFile(program), SizeOf(program), 0)}));
    const ProcessInfo learned = engine.CopyLocalTrust().at(program);
    // Of the process itself a trust list keeps nothing.
    EXPECT_EQ(learned.pid, 0);
    EXPECT_TRUE(learned.cmdline.empty());
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

TEST_F(ProcessTrackingTest, AProgramIsLearnedOnce) {
    Configure(Engine::MOD_LEARN);
    const std::string program = CopySleep("tool");
    const ForeignProcess first({.words = {program, "1000"}});
    const ForeignProcess second({.words = {program, "2000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, first.Pid(), 1));
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, second.Pid(), 1));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "Increament map size [1]"), 1);
    EXPECT_EQ(Increase(), List({Entry(program, DigestOfFile(program), SizeOf(program), 0)}));
    EXPECT_EQ(engine.CountLocalTrust(), 1U);
}

TEST_F(ProcessTrackingTest, OfAForkTheChildIsLearned) {
    Configure(Engine::MOD_LEARN);
    const std::string program = CopySleep("child");
    const ForeignProcess child({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(FORK, child.Pid(), child.ParentPid()));
    Increase();
    EXPECT_EQ(engine.CopyLocalTrust().size(), 1U);
    EXPECT_EQ(engine.CopyLocalTrust().count(program), 1U);
}

TEST_F(ProcessTrackingTest, AScriptIsLearnedInPlaceOfItsInterpreter) {
    Configure(Engine::MOD_LEARN);
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    const ForeignProcess process({.words = {CopyProgram("/bin/bash", "bash"), script, "argument"}});
    ASSERT_TRUE(process.AwaitLine());
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_EQ(Increase(), List({Entry(script, DigestOfFile(script), SizeOf(script), 2)}));
}

TEST_F(ProcessTrackingTest, EventsThatAreNeitherExecNorForkAreNobodys) {
    Configure(Engine::MOD_LEARN);
    for (const unsigned int kind : {0U, EXIT, 4U}) {
        EXPECT_FALSE(engine.OnProcessNotify(kind, getpid(), 1)) << kind;
    }
    EXPECT_EQ(Increase(), "<none>");
}

TEST_F(ProcessTrackingTest, AProcessThatIsGoneIsIgnored) {
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARN, Engine::MOD_DETECT}) {
        Configure(mode);
        log.Clear();
        EXPECT_FALSE(engine.OnProcessNotify(EXEC, NOBODY, 1));
        EXPECT_FALSE(engine.ProcessManageWithGlobalMod(NOBODY));
        EXPECT_TRUE(log.Records().empty());
    }
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

TEST_F(ProcessTrackingTest, OnceLearnedAndBeforeDetectionEventsPassWithoutALook) {
    Configure(Engine::MOD_LEARNED);
    log.Clear();
    for (const unsigned int kind : {0U, EXEC, FORK, EXIT}) {
        EXPECT_TRUE(engine.OnProcessNotify(kind, NOBODY, 1)) << kind;
    }
    const ForeignProcess process({.words = {CopySleep("tool"), "1000"}});
    EXPECT_TRUE(engine.ProcessManageWithGlobalMod(process.Pid()));
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
    EXPECT_EQ(Increase(), "<none>");
}

TEST_F(ProcessTrackingTest, WhenStoppedNothingIsLearnedOrReported) {
    Configure(Engine::MOD_NONE);
    const ForeignProcess process({.words = {CopySleep("tool"), "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    EXPECT_FALSE(engine.OnProcessNotify(EXIT, process.Pid(), 1));
    EXPECT_EQ(Increase(), "<none>");
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

// ---- What was learned ------------------------------------------------------------------------------

TEST_F(ProcessTrackingTest, NothingLearnedLeavesTheTextUntouched) {
    std::string out = "untouched";
    EXPECT_FALSE(engine.GetIncreaseProcess(out));
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "increament map is empty"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(ProcessTrackingTest, WhatWasLearnedIsHandedOutByPathAndMovedToTheLocalList) {
    Configure(Engine::MOD_LEARN);
    const std::string b = CopySleep("b");
    const std::string a = CopySleep("a");
    const ForeignProcess first({.words = {b, "1000"}});
    const ForeignProcess second({.words = {a, "1000"}});
    engine.UpdateLocalProcessInfo(Record(b, "older"));
    engine.OnProcessNotify(EXEC, first.Pid(), 1);
    engine.OnProcessNotify(EXEC, second.Pid(), 1);
    EXPECT_EQ(Increase(), List({Entry(a, DigestOfFile(a), SizeOf(a), 0), Entry(b, DigestOfFile(b), SizeOf(b), 0)}));
    EXPECT_EQ(engine.CopyLocalTrust().size(), 2U);
    EXPECT_EQ(engine.CopyLocalTrust().at(b).hash, "older");
    EXPECT_EQ(root.Read("conf/whitelist.data"), "");
    EXPECT_EQ(Increase(), "<none>");
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(root.Read("conf/whitelist.data"),
              List({Entry(a, DigestOfFile(a), SizeOf(a), 0), Entry(b, "older", SizeOf(b), 1)}));
}

TEST_F(ProcessTrackingTest, TheIncreaseRecordChangesNothing) {
    for (const unsigned int kind : {0U, EXEC, FORK, EXIT}) {
        EXPECT_EQ(engine.OnIncProcessRecord(kind, getpid(), getppid()), 0) << kind;
    }
    EXPECT_EQ(Increase(), "<none>");
}

// ---- Directory mode --------------------------------------------------------------------------------

TEST_F(ProcessTrackingTest, InDirectoryModeEveryEventIsHandled) {
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARN, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
        Configure(mode, true);
        for (const unsigned int kind : {0U, EXEC, FORK, EXIT, 4U}) {
            EXPECT_TRUE(engine.OnProcessNotify(kind, NOBODY, NOBODY)) << kind;
        }
    }
    EXPECT_FALSE(HasRow(NOBODY));
}

TEST_F(ProcessTrackingTest, InDirectoryModeTheTableIsKeptWhateverTheModeOfWork) {
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARN, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
        Configure(mode, true);
        AddRow(getpid(), "/earlier");
        EXPECT_TRUE(engine.OnProcessNotify(EXEC, getpid(), getppid()));
        EXPECT_NE(PathOfRow(getpid()), "/earlier") << mode;
        EXPECT_TRUE(engine.OnProcessNotify(EXIT, getpid(), 0));
        EXPECT_TRUE(engine.GetProcessInfoFromID(getpid())->exited) << mode;
    }
    EXPECT_TRUE(agent.Reports().Of("whitelist_4").empty());
}

TEST_F(ProcessTrackingTest, AnExecutedProgramIsPutInTheTable) {
    Configure(Engine::MOD_LEARN, true);
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessNotify(EXEC, process.Pid(), 1));
    ASSERT_TRUE(HasRow(process.Pid()));
    const ProcessInfo row = *engine.GetProcessInfoFromID(process.Pid());
    EXPECT_EQ(row.pid, process.Pid());
    EXPECT_EQ(row.ppid, 0);
    EXPECT_EQ(row.path, program);
    EXPECT_EQ(row.name, "tool");
    EXPECT_FALSE(row.exited);
    EXPECT_EQ(Increase(), "<none>");
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(ProcessTrackingTest, AProgramThatIsTrustedIsAdoptedThoughItsRowSaysOtherwise) {
    Configure(Engine::MOD_DETECT, true);
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    SyncServer(List({Entry(script, "other", 1, 2)}));
    const ForeignProcess process({.words = {CopyProgram("/bin/bash", "bash"), script}});
    ASSERT_TRUE(process.AwaitLine());
    EXPECT_TRUE(engine.OnProcessCreate(process.Pid()));
    ASSERT_EQ(PathOfRow(process.Pid()), script);
    EXPECT_EQ(engine.GetProcessInfoFromID(process.Pid())->type, 2);
    EXPECT_FALSE(engine.GetProcessInfoFromID(process.Pid())->trusted);
    EXPECT_EQ(engine.CopyLocalTrust().count(script), 1U);
    EXPECT_EQ(agent.Reports().Of("whitelist_3").size(), 1U);
}

TEST_F(ProcessTrackingTest, AProgramThatIsGoneGetsNoRow) {
    EXPECT_TRUE(engine.OnProcessCreate(NOBODY));
    EXPECT_FALSE(HasRow(NOBODY));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ProcessTrackingTest, AForkInheritsItsParentsRecord) {
    Configure(Engine::MOD_DETECT, true);
    ProcessInfo parent = Record("/parent", "hash");
    parent.pid = NOBODY;
    parent.ppid = 5;
    parent.trusted = true;
    parent.cmdline = "parent --flag";
    engine.AddToAllProcessMap(parent);
    // The child has an image of its own, which nobody looks at.
    EXPECT_TRUE(engine.OnProcessNotify(FORK, getpid(), NOBODY));
    ASSERT_TRUE(HasRow(getpid()));
    const ProcessInfo child = *engine.GetProcessInfoFromID(getpid());
    EXPECT_EQ(child.pid, getpid());
    EXPECT_EQ(child.ppid, NOBODY);
    EXPECT_EQ(child.path, "/parent");
    EXPECT_EQ(child.hash, "hash");
    EXPECT_EQ(child.cmdline, "parent --flag");
    EXPECT_TRUE(child.trusted);
    EXPECT_EQ(engine.GetParentProcessInfo(child)->path, "/parent");
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY)->ppid, 5);
}

TEST_F(ProcessTrackingTest, AForkOfAnUnknownParentOrOfInitIsLookedAtItself) {
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.OnProcessFork(process.Pid(), NOBODY));
    EXPECT_EQ(PathOfRow(process.Pid()), program);
    EXPECT_EQ(engine.GetProcessInfoFromID(process.Pid())->ppid, 0);

    AddRow(1, "/sbin/init");
    AddRow(process.Pid(), "/earlier");
    EXPECT_TRUE(engine.OnProcessFork(process.Pid(), 1));
    EXPECT_EQ(PathOfRow(process.Pid()), program);
}

TEST_F(ProcessTrackingTest, AForkWithoutAParentIsAnExitInDisguise) {
    Configure(Engine::MOD_DETECT, true);
    log.Clear();
    EXPECT_TRUE(engine.OnProcessNotify(FORK, getpid(), -1));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "PROCS_NATIVE_EXIT flag,not PROCS_NATIVE_FORK,skip it"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_FALSE(HasRow(getpid()));
}

TEST_F(ProcessTrackingTest, AnExitMarksTheRowAndTheNextCleanUpRemovesIt) {
    Configure(Engine::MOD_DETECT, true);
    AddRow(NOBODY, "/ended");
    AddRow(NOBODY + 1, "/running");
    EXPECT_TRUE(engine.OnProcessNotify(EXIT, NOBODY, 0));
    ASSERT_TRUE(HasRow(NOBODY));
    EXPECT_TRUE(engine.GetProcessInfoFromID(NOBODY)->exited);
    EXPECT_FALSE(engine.GetProcessInfoFromID(NOBODY + 1)->exited);
    engine.DelExitedAllProcess();
    EXPECT_FALSE(HasRow(NOBODY));
    EXPECT_TRUE(HasRow(NOBODY + 1));
}

TEST_F(ProcessTrackingTest, AnExitOfAnUnknownProcessChangesNothing) {
    AddRow(NOBODY, "/running");
    EXPECT_TRUE(engine.OnProcessExit(NOBODY + 1));
    engine.DelExitedAllProcess();
    EXPECT_TRUE(HasRow(NOBODY));
    EXPECT_FALSE(HasRow(NOBODY + 1));
}

TEST_F(ProcessTrackingTest, AReusedPidGetsTheNewRecordWhole) {
    ProcessInfo first = Record("/first", "hash");
    first.pid = NOBODY;
    first.exited = first.trusted = first.auditHit = true;
    first.fileEventCount = 3;
    EXPECT_TRUE(engine.AddToAllProcessMap(first));
    ProcessInfo second(NOBODY);
    second.path = "/second";
    EXPECT_FALSE(engine.AddToAllProcessMap(second));
    const ProcessInfo row = *engine.GetProcessInfoFromID(NOBODY);
    EXPECT_EQ(row.path, "/second");
    EXPECT_EQ(row.hash, "");
    EXPECT_FALSE(row.exited || row.trusted || row.auditHit || row.detailRetrieved);
    EXPECT_EQ(row.fileEventCount, 0U);
}

TEST_F(ProcessTrackingTest, ALookUpMakesARowOnlyWhenAskedTo) {
    const ForeignProcess process({.words = {CopySleep("tool"), "1000"}});
    EXPECT_EQ(engine.GetProcessInfoFromID(process.Pid()), nullptr);
    const ProcessInfo* made = engine.GetProcessInfoFromIDDefinite(process.Pid());
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->name, "tool");
    AddRow(process.Pid(), "/changed");
    EXPECT_EQ(engine.GetProcessInfoFromIDDefinite(process.Pid())->path, "/changed");
    EXPECT_EQ(engine.GetProcessInfoFromIDDefinite(NOBODY), nullptr);
}

TEST_F(ProcessTrackingTest, ARowThatWasLookedUpOutlivesItsRemoval) {
    AddRow(NOBODY, "/running");
    const ProcessInfo* found = engine.GetProcessInfoFromID(NOBODY);
    ASSERT_NE(found, nullptr);
    engine.OnProcessExit(NOBODY);
    engine.DelExitedAllProcess();
    EXPECT_EQ(found->path, "/running");
    EXPECT_FALSE(found->exited);
    EXPECT_EQ(engine.GetParentProcessInfo(*found), nullptr);
}

TEST_F(ProcessTrackingTest, RowsThatWereLookedUpStandSideBySide) {
    constexpr int ROWS = 64;
    std::vector<const ProcessInfo*> found;
    for (int row = 0; row < ROWS; ++row) {
        AddRow(NOBODY + row, "/row" + std::to_string(row));
        found.push_back(engine.GetProcessInfoFromID(NOBODY + row));
    }
    for (int row = 0; row < ROWS; ++row) {
        EXPECT_EQ(found[row]->path, "/row" + std::to_string(row));
    }
    AddRow(NOBODY + ROWS, "/one more");
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY + ROWS)->path, "/one more");
    EXPECT_EQ(found.back()->path, "/row63");
}

TEST_F(ProcessTrackingTest, LookingARowUpAgainShowsWhereItIsKnownWhatItHasBecome) {
    AddRow(NOBODY, "/before");
    const ProcessInfo* found = engine.GetProcessInfoFromID(NOBODY);
    AddRow(NOBODY, "/after");
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY), found);
    EXPECT_EQ(found->path, "/after");
}

// ---- Local isolation -------------------------------------------------------------------------------

TEST_F(ProcessTrackingTest, AnIsolatedProcessIsKilledAndItsImageCannotBeExecuted) {
    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        const std::string program = CopySleep(path == nullptr ? "null" : "empty");
        chmod(program.c_str(), 0755);
        ForeignProcess process({.words = {program, "1000"}});
        bool kill = false;
        bool chmod = false;
        EXPECT_TRUE(engine.ProcessIsolate(process.Pid(), path, "name", kill, chmod));
        EXPECT_TRUE(kill && chmod);
        EXPECT_EQ(process.Wait(), 128 + SIGKILL);
        struct stat status {};
        stat(program.c_str(), &status);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0400));
        EXPECT_EQ(
            log.Count(Message::PRIO_INFORMATION, "pid:" + std::to_string(process.Pid()) + " filepath:" + program +
                                                     " kill:true, iso:true mod:" + std::to_string(S_IFREG | 0755)),
            1);
    }
}

TEST_F(ProcessTrackingTest, AFileThatIsNamedIsIsolatedInPlaceOfTheImage) {
    const std::string program = CopySleep("tool");
    const std::string script = root.Write("script.sh", "");
    chmod(script.c_str(), 0750);
    ForeignProcess process({.words = {program, "1000"}});
    bool kill = false;
    bool chmod = false;
    EXPECT_TRUE(engine.ProcessIsolate(process.Pid(), script.c_str(), "name", kill, chmod));
    EXPECT_EQ(process.Wait(), 128 + SIGKILL);
    EXPECT_EQ(access(program.c_str(), X_OK), 0);
    EXPECT_NE(access(script.c_str(), X_OK), 0);
}

TEST_F(ProcessTrackingTest, AFileThatIsNotThereIsNotIsolatedButTheProcessIsKilled) {
    ForeignProcess process({.words = {CopySleep("tool"), "1000"}});
    bool kill = false;
    bool chmod = true;
    engine.ProcessIsolate(process.Pid(), (root / "missing").c_str(), "name", kill, chmod);
    EXPECT_TRUE(kill);
    EXPECT_FALSE(chmod);
    EXPECT_EQ(process.Wait(), 128 + SIGKILL);
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "pid:" + std::to_string(process.Pid()) +
                                                       " filepath:" + root / "missing" + " kill:true, iso:false mod:0"),
              1);
}

TEST_F(ProcessTrackingTest, AProcessThatIsGoneIsNotIsolated) {
    const std::string file = root.Write("file", "");
    chmod(file.c_str(), 0755);
    bool kill = true;
    bool chmod = true;
    EXPECT_FALSE(engine.ProcessIsolate(NOBODY, file.c_str(), "name", kill, chmod));
    EXPECT_TRUE(kill && chmod);
    EXPECT_EQ(access(file.c_str(), X_OK), 0);
    EXPECT_TRUE(log.Records().empty());
}

} // namespace EngineTest
