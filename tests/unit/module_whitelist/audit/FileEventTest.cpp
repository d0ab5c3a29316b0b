#include <cstdint>
#include <ctime>
#include <filesystem>
#include <system_error>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileAuditTest.h"
#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"
#include "support/ForeignProcess.h"
#include "support/TempCgroup.h"
#include "support/WaitFor.h"
#include "unit/module_whitelist/shell/FakeClock.h"

namespace AuditTest {

namespace {

using ShellTest::FakeClock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TestSupport::ChildProcess;
using TestSupport::ForeignProcess;
using TestSupport::TempCgroup;
using TestSupport::WaitFor;

// One process, "/bin/accessor", that touches files.
class FileEvents : public FileAuditTest {
protected:
    FileEvents() {
        GivenScope(Engine::MOD_LEARN);
        GivenProcess(NOBODY, "/bin/accessor");
    }

    void Touch(const std::string& path) { audit.OnFileRecordMsg(NOBODY, path); }

    // The audit's record of the process.
    const ProcessInfo& Accessor() { return *audit.GetProcessInfo(NOBODY); }

    // What the log says of a check.
    static std::string Check(const std::string& path, const std::string& firstPath) {
        return "Get FaNotify proc [" + std::to_string(NOBODY) + "] inodeno[" + std::to_string(InodeOf(path)) +
               "] /bin/accessor --> file " + firstPath;
    }
    static std::string Check(const std::string& path) { return Check(path, path); }

    // The checks so far, oldest first.
    std::vector<std::string> Checks() const {
        std::vector<std::string> checks;
        for (const auto& record : log.Records()) {
            if (record.text.starts_with("Get FaNotify")) {
                EXPECT_EQ(record.priority, Message::PRIO_TRACE);
                checks.push_back(record.text);
            }
        }
        return checks;
    }

    static std::string StatFailed(const std::string& path, int error) {
        return "Get File [" + path + "] stat Failed , error :" + std::to_string(error);
    }

    bool IsLearned(const std::string& path) const { return engine.CopyLocalTrust().contains(path); }

    // The program under the number of the process, which is ended for it; it begins at another time.
    static ChildProcess TakeOver(ChildProcess& process, const TempCgroup& group, const std::string& program) {
        const int pid = process.Pid();
        SDK::ProcStat stat;
        EXPECT_EQ(SDK::ProcStat::Read(pid, stat), 0);
        EXPECT_TRUE(WaitFor([&stat] { return CountTicks() > stat.startTime; }));
        process.End();
        ChildProcess successor = ChildProcess::SpawnAs(pid, group, {program, "1000"});
        EXPECT_TRUE(WaitFor([&] {
            std::error_code error;
            return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error) == program;
        }));
        return successor;
    }

private:
    // Since the machine was started, in the unit of SDK::ProcStat.
    static std::uint64_t CountTicks() {
        timespec now{};
        clock_gettime(CLOCK_BOOTTIME, &now);
        const auto perSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
        return static_cast<std::uint64_t>(now.tv_sec) * perSecond +
               static_cast<std::uint64_t>(now.tv_nsec) * perSecond / 1'000'000'000U;
    }
};

} // namespace

// ---- What is ignored -------------------------------------------------------------------------------

TEST_F(FileEvents, OnceLearnedAndBeforeDetectionNothingIsDone) {
    GivenScope(Engine::MOD_LEARNED);
    Touch(files.Write("x", ""));
    Touch(files / "missing");
    audit.OnFileRecordMsg(NOBODY + 1, files / "x");
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_EQ(Accessor().fileEventCount, 0U);
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 0U);
}

TEST_F(FileEvents, TheAgentItselfIsIgnored) {
    GivenProcess(getpid(), "/bin/agent");
    audit.OnFileRecordMsg(getpid(), files.Write("x", ""));
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_EQ(audit.GetProcessInfo(getpid())->fileEventCount, 0U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileEvents, OfAProcessThatNobodyKnowsAreDropped) {
    audit.OnFileRecordMsg(NOBODY + 1, files.Write("x", ""));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Can't Get Process info, by pass all opertaion"), 1);
    EXPECT_THAT(Checks(), IsEmpty());
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 0U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileEvents, OfAProcessThatWasTrustedAtItsStartAreIgnored) {
    ProcessInfo trusted = Process(NOBODY + 1, "/bin/trusted");
    trusted.trusted = true;
    trusted.type = Engine::MATCH_PATH;
    engine.AddToAllProcessMap(trusted);
    audit.OnFileRecordMsg(NOBODY + 1, files.Write("x", ""));
    audit.OnFileRecordMsg(NOBODY + 1, files / "missing");
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_EQ(audit.GetProcessInfo(NOBODY + 1)->fileEventCount, 0U);
    EXPECT_EQ(audit.GetProcessInfo(NOBODY + 1)->type, Engine::MATCH_PATH);
}

TEST_F(FileEvents, AProcessWithTheNumberOfATrustedOneThatHasEndedIsChecked) {
    if (const std::string reason = TestSupport::WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TempCgroup group;
    const std::string program = CopyProgram("/bin/sleep", "other");
    const std::string file = files.Write("x", "");
    ChildProcess trusted = ChildProcess::SpawnIn(group, {"/bin/sleep", "1000"});
    const int pid = trusted.Pid();
    ProcessInfo row = Process(pid, "/bin/sleep");
    row.trusted = true;
    engine.AddToAllProcessMap(row);
    audit.OnFileRecordMsg(pid, file);
    const ChildProcess other = TakeOver(trusted, group, program);
    audit.OnFileRecordMsg(pid, file);
    EXPECT_THAT(Checks(), IsEmpty());
    FakeClock::Advance(2);
    audit.OnFileRecordMsg(pid, file);
    EXPECT_EQ(Checks().size(), 1U);
    EXPECT_TRUE(IsLearned(program));
}

TEST_F(FileEvents, ATrustedProcessThatLivesStaysTrusted) {
    const ForeignProcess process({.words = {CopyProgram("/bin/sleep", "tool"), "1000"}});
    ProcessInfo row = Process(process.Pid(), "/bin/sleep");
    row.trusted = true;
    engine.AddToAllProcessMap(row);
    for (int i = 0; i < 3; ++i) {
        audit.OnFileRecordMsg(process.Pid(), files.Write("x", ""));
        FakeClock::Advance(2);
    }
    EXPECT_THAT(Checks(), IsEmpty());
    EXPECT_EQ(audit.GetProcessInfo(process.Pid())->path, "/bin/sleep");
}

// ---- The record ------------------------------------------------------------------------------------

TEST_F(FileEvents, AScriptIsMatchedByItsContentFromItsFirstEventOn) {
    ProcessInfo script = Process(NOBODY, "/bin/accessor");
    script.type = Engine::MATCH_PATH;
    engine.AddToAllProcessMap(script);
    ASSERT_EQ(Accessor().type, Engine::MATCH_PATH);
    Touch(files / "missing");
    EXPECT_EQ(Accessor().type, Engine::MATCH_HASH);
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY)->type, Engine::MATCH_PATH);
}

TEST_F(FileEvents, AProcessWithoutAPathKeepsItsKind) {
    ProcessInfo nameless(NOBODY + 1);
    nameless.type = Engine::MATCH_PATH;
    nameless.detailRetrieved = true;
    engine.AddToAllProcessMap(nameless);
    audit.OnFileRecordMsg(NOBODY + 1, files.Write("x", ""));
    EXPECT_EQ(audit.GetProcessInfo(NOBODY + 1)->type, Engine::MATCH_PATH);
    EXPECT_EQ(audit.GetProcessInfo(NOBODY + 1)->fileEventCount, 1U);
}

TEST_F(FileEvents, EveryEventOfAProcessIsCounted) {
    const std::string file = files.Write("x", "");
    Touch(file);
    Touch(file);
    Touch(files / "missing");
    Touch(files.Path());
    FakeClock::Advance(60);
    Touch(files / "missing");
    Touch(files.Path());
    EXPECT_EQ(Accessor().fileEventCount, 6U);
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY)->fileEventCount, 0U);
}

TEST_F(FileEvents, ACheckIsRememberedWithItsTime) {
    EXPECT_FALSE(Accessor().auditHit);
    Touch(files.Write("x", ""));
    EXPECT_TRUE(Accessor().auditHit);
    EXPECT_EQ(Accessor().auditHitTime, FakeClock::Now());
    EXPECT_FALSE(engine.GetProcessInfoFromID(NOBODY)->auditHit);
}

// ---- One check in two seconds ----------------------------------------------------------------------

TEST_F(FileEvents, OfTwoWithinTwoSecondsOnlyTheFirstIsChecked) {
    const std::string first = files.Write("first", "");
    const std::string second = files.Write("second", "");
    Touch(first);
    Touch(second);
    FakeClock::Advance(1);
    Touch(second);
    EXPECT_THAT(Checks(), ElementsAre(Check(first)));
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 1U);
}

TEST_F(FileEvents, AfterTwoSecondsTheNextIsChecked) {
    const std::string first = files.Write("first", "");
    const std::string second = files.Write("second", "");
    Touch(first);
    FakeClock::Advance(2);
    Touch(second);
    EXPECT_THAT(Checks(), ElementsAre(Check(first), Check(second)));
    EXPECT_EQ(Accessor().auditHitTime, FakeClock::Now());
}

TEST_F(FileEvents, AnEventThatIsNotCheckedDoesNotStartTheTwoSecondsAnew) {
    const std::string file = files.Write("x", "");
    Touch(file);
    FakeClock::Advance(1);
    Touch(file);
    FakeClock::Advance(1);
    Touch(file);
    EXPECT_THAT(Checks(), ElementsAre(Check(file), Check(file)));
}

TEST_F(FileEvents, OfTwoProcessesAreCheckedEachForItself) {
    GivenProcess(NOBODY + 1, "/bin/other");
    const std::string file = files.Write("x", "");
    Touch(file);
    audit.OnFileRecordMsg(NOBODY + 1, file);
    EXPECT_EQ(Checks().size(), 2U);
}

TEST_F(FileEvents, AFileThatIsNotCaredForDoesNotStartTheTwoSeconds) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    Touch(files.Write("x.py", ""));
    EXPECT_FALSE(Accessor().auditHit);
    EXPECT_EQ(Accessor().auditHitTime, 0);
    const std::string cared = files.Write("x.sh", "");
    Touch(cared);
    EXPECT_THAT(Checks(), ElementsAre(Check(cared)));
}

TEST_F(FileEvents, NeitherAMissingFileNorADirectoryStartsTheTwoSeconds) {
    Touch(files / "missing");
    Touch(files.Path());
    EXPECT_FALSE(Accessor().auditHit);
    const std::string file = files.Write("x", "");
    Touch(file);
    EXPECT_THAT(Checks(), ElementsAre(Check(file)));
}

TEST_F(FileEvents, WithinTheTwoSecondsTheFileIsNotEvenLookedAt) {
    Touch(files.Write("x", ""));
    log.Clear();
    Touch(files / "missing");
    EXPECT_THAT(log.Records(), IsEmpty());
}

// ---- The file --------------------------------------------------------------------------------------

TEST_F(FileEvents, OfAFileThatIsGoneAreDropped) {
    Touch(files / "missing");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, StatFailed(files / "missing", ENOENT)), 1);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 0U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileEvents, TheReasonWhyAFileCannotBeFoundIsLogged) {
    const std::string below = files.Write("x", "") + "/below";
    Touch(below);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, StatFailed(below, ENOTDIR)), 1);
}

TEST_F(FileEvents, WithoutAPathAreOfNoFile) {
    Touch("");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, StatFailed("", ENOENT)), 1);
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 0U);
}

TEST_F(FileEvents, OfADirectoryAreIgnored) {
    Touch(files.Path());
    std::filesystem::create_directory_symlink(files.Path(), files / "link");
    Touch(files / "link");
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 0U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileEvents, WithoutRulesEveryFileThatIsNoDirectoryIsCaredFor) {
    const std::string regular = files.Write("x", "");
    const std::string pipe = files / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string device = "/dev/null";
    for (const std::string& file : {regular, pipe, device}) {
        Touch(file);
        FakeClock::Advance(2);
    }
    EXPECT_THAT(Checks(), ElementsAre(Check(regular), Check(pipe), Check(device)));
}

TEST_F(FileEvents, OfAFileOutsideTheScopeAreDropped) {
    GivenScope(Engine::MOD_LEARN, {.dirs = {MakeDir("data")}, .mountMod = true});
    Touch(files.Write("x", ""));
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 1U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileEvents, ADotInADirectorysNameIsNoExtensionOfItsFiles) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"d"}});
    Touch(files.Write("a.d/file", ""));
    EXPECT_THAT(Checks(), IsEmpty());
    const std::string file = files.Write("a.d/file.d", "");
    Touch(file);
    EXPECT_THAT(Checks(), ElementsAre(Check(file)));
}

TEST_F(FileEvents, ASecondLinkInheritsTheDecisionAndIsLoggedByTheFirstPath) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    const std::string cared = files.Write("cared.sh", "");
    const std::string notCared = files.Write("not-cared.py", "");
    std::filesystem::create_hard_link(cared, files / "link.py");
    std::filesystem::create_hard_link(notCared, files / "link.sh");
    Touch(cared);
    FakeClock::Advance(2);
    Touch(files / "link.py");
    FakeClock::Advance(2);
    Touch(notCared);
    Touch(files / "link.sh");
    EXPECT_THAT(Checks(), ElementsAre(Check(cared), Check(cared)));
}

TEST_F(FileEvents, ARenamedFileInheritsTheDecisionAndIsLoggedByTheFirstPath) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    const std::string before = files.Write("before.sh", "");
    const std::string after = files / "after.py";
    const std::string check = Check(before);
    Touch(before);
    FakeClock::Advance(2);
    std::filesystem::rename(before, after);
    Touch(after);
    EXPECT_THAT(Checks(), ElementsAre(check, Check(after, before)));
    EXPECT_EQ(Checks()[0], Checks()[1]);
}

TEST_F(FileEvents, RoomIsMadeBeforeTheFileIsLookedUp) {
    constexpr std::uint64_t FULL = 100000;
    const std::string file = files.Write("x", "");
    const std::uint64_t beyond = InodeOf(file) + 1;
    for (std::uint64_t i = 0; i + 1 < FULL; ++i) {
        audit.GetInodeCacheEntry(beyond + i, "/file");
    }
    FakeClock::Advance(31);
    // This one fills the cache, which was not full when it came.
    Touch(file);
    EXPECT_EQ(audit.GetInodeCacheEntry(beyond, "/file")->hits, 2U);
    FakeClock::Advance(2);
    // This one comes to a full cache, and is in it afterwards.
    Touch(file);
    EXPECT_EQ(audit.DelInodeCountLess(EVERY_ENTRY), 1U);
}

// ---- From the event to the verdict -----------------------------------------------------------------

TEST_F(FileEvents, ACheckedProcessIsLearned) {
    Touch(files.Write("x", ""));
    EXPECT_TRUE(IsLearned("/bin/accessor"));
    EXPECT_EQ(engine.CopyLocalTrust().at("/bin/accessor").type, Engine::MATCH_HASH);
}

TEST_F(FileEvents, WhenStoppedACheckedStrangerIsLetGo) {
    GivenScope(Engine::MOD_NONE);
    const std::string file = files.Write("x", "");
    Touch(file);
    EXPECT_THAT(Checks(), ElementsAre(Check(file)));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "Credible process, let it go"), 1);
    EXPECT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
}

TEST_F(FileEvents, InDetectionACheckedStrangerIsReportedOnceInTwoSeconds) {
    GivenScope(Engine::MOD_DETECT);
    const std::string file = files.Write("x", "");
    Touch(file);
    Touch(file);
    EXPECT_EQ(agent.Reports().Of("whitelist_4").size(), 1U);
    FakeClock::Advance(2);
    Touch(file);
    EXPECT_EQ(agent.Reports().Of("whitelist_4").size(), 2U);
}

} // namespace AuditTest
