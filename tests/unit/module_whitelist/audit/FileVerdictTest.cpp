#include <optional>

#include <gmock/gmock.h>

#include "FileAuditTest.h"
#include "support/ForeignProcess.h"

namespace AuditTest {

namespace {

using EngineTest::Entry;
using EngineTest::List;
using ::testing::IsEmpty;
using TestSupport::FakeIsolateTask;
using TestSupport::ForeignProcess;

const std::string LET_GO = "Credible process, let it go";

// A process that lives, with its record as the audit has it.
class FileVerdicts : public FileAuditTest {
protected:
    void Judge() { audit.FileLearnAndDetect(&info); }

    void GivenTrusted() const { ASSERT_TRUE(ParseLocal(List({Entry(program, info.hash, 1)}))); }

    Poco::AutoPtr<FakeIsolateTask> StartIsolateTask(bool killWorks, bool chmodWorks) {
        Poco::AutoPtr<FakeIsolateTask> isolate(new FakeIsolateTask);
        isolate->Answer(killWorks, chmodWorks);
        agent.Start(isolate);
        return isolate;
    }

    std::string Isolated(const std::string& result, const std::string& kill, const std::string& chmod) const {
        return "isolate file [" + program + "] ret :" + result + " kill :" + kill + " chmod :" + chmod;
    }

    // The block flag of the only report.
    std::optional<int> BlockReported() {
        const auto reports = agent.Reports().Reports();
        if (reports.size() != 1 || reports[0].type != "whitelist_4") {
            ADD_FAILURE() << reports.size() << " reports";
            return std::nullopt;
        }
        const Json::Value reported = EngineTest::Parse(reports[0].data)["process_info"];
        EXPECT_EQ(reported["process_pid"].asInt(), info.pid);
        EXPECT_EQ(reported["process_path"].asString(), program);
        EXPECT_EQ(reported["process_hash"].asString(), info.hash);
        return reported["block"].asInt();
    }

    const std::string program = CopyProgram("/bin/sleep", "stranger");
    const ForeignProcess process{{.words = {program, "1000"}}};
    ProcessInfo info = [this] {
        ProcessInfo record = Process(process.Pid(), program);
        record.hash = EngineTest::DigestOfFile(program);
        return record;
    }();
};

} // namespace

// ---- Learning --------------------------------------------------------------------------------------

TEST_F(FileVerdicts, LearningAddsTheProcessToTheLocalList) {
    GivenScope(Engine::MOD_LEARN, {.block = true});
    Judge();
    const auto local = engine.CopyLocalTrust();
    ASSERT_EQ(local.size(), 1U);
    EXPECT_EQ(local.at(program).hash, info.hash);
    EXPECT_EQ(local.at(program).type, info.type);
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
}

TEST_F(FileVerdicts, LearningKeepsWhatTheLocalListHolds) {
    GivenScope(Engine::MOD_LEARN);
    engine.UpdateLocalProcessInfo(EngineTest::Record(program, "older"));
    Judge();
    EXPECT_EQ(engine.CopyLocalTrust().at(program).hash, "older");
}

// ---- Trusted, or not in detection ------------------------------------------------------------------

TEST_F(FileVerdicts, ATrustedProcessIsLetGoInEveryModeButLearning) {
    GivenTrusted();
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
        GivenScope(mode, {.block = true});
        Judge();
        EXPECT_EQ(log.Count(Message::PRIO_DEBUG, LET_GO), 1) << mode;
        EXPECT_EQ(log.Records().size(), 1U) << mode;
    }
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
}

TEST_F(FileVerdicts, OutsideDetectionAStrangerIsLetGoUnderTheSameText) {
    const auto isolate = StartIsolateTask(true, true);
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARNED}) {
        GivenScope(mode, {.block = true});
        Judge();
        EXPECT_EQ(log.Count(Message::PRIO_DEBUG, LET_GO), 1) << mode;
        EXPECT_EQ(log.Records().size(), 1U) << mode;
    }
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
    EXPECT_THAT(isolate->Calls(), IsEmpty());
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(FileVerdicts, AProcessThatTheServerVouchesForIsAdoptedAlsoWhenStopped) {
    GivenScope(Engine::MOD_NONE);
    SyncServer(List({Entry(program, info.hash, 1)}));
    Judge();
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, LET_GO));
    EXPECT_TRUE(engine.CopyLocalTrust().contains(program));
    EXPECT_EQ(agent.Reports().Of("whitelist_3").size(), 1U);
}

// ---- Detection -------------------------------------------------------------------------------------

TEST_F(FileVerdicts, WithoutBlockingAStrangerIsReported) {
    const auto isolate = StartIsolateTask(true, true);
    GivenScope(Engine::MOD_DETECT, {.block = false});
    Judge();
    EXPECT_EQ(BlockReported(), 0);
    EXPECT_THAT(isolate->Calls(), IsEmpty());
    EXPECT_FALSE(log.Has(Message::PRIO_DEBUG, LET_GO));
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
}

TEST_F(FileVerdicts, WithoutTheIsolateTaskAStrangerIsNeitherIsolatedNorReported) {
    GivenScope(Engine::MOD_DETECT, {.block = true});
    Judge();
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "get isolate ptr failed"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
}

TEST_F(FileVerdicts, WithBlockingAStrangerIsIsolatedAndReported) {
    const auto isolate = StartIsolateTask(true, true);
    GivenScope(Engine::MOD_DETECT, {.block = true});
    Judge();
    ASSERT_EQ(isolate->Calls().size(), 1U);
    const FakeIsolateTask::Call call = isolate->Calls()[0];
    EXPECT_EQ(call.pid, process.Pid());
    EXPECT_EQ(call.path, program);
    EXPECT_TRUE(call.kill);
    EXPECT_TRUE(call.chmod);
    EXPECT_FALSE(call.quarantine);
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, Isolated("true", "true", "true")), 1);
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 1);
    EXPECT_EQ(BlockReported(), 1);
}

TEST_F(FileVerdicts, AnIsolationThatFailsIsReportedAsNone) {
    const auto isolate = StartIsolateTask(false, true);
    GivenScope(Engine::MOD_DETECT, {.block = true});
    Judge();
    EXPECT_EQ(isolate->Calls().size(), 1U);
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, Isolated("false", "false", "true")), 1);
    EXPECT_EQ(BlockReported(), 0);
}

TEST_F(FileVerdicts, AnImageThatStaysExecutableIsLoggedAsThat) {
    const auto isolate = StartIsolateTask(true, false);
    GivenScope(Engine::MOD_DETECT, {.block = true});
    Judge();
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, Isolated("false", "true", "false")), 1);
    EXPECT_EQ(BlockReported(), 0);
}

} // namespace AuditTest
