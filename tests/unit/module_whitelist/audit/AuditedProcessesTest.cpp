#include "FileAuditTest.h"
#include "support/ForeignProcess.h"

namespace AuditTest {

namespace {

using TestSupport::ForeignProcess;

constexpr int FIRST_LIMIT = 10000;
const std::string CANNOT_GET = "Can't Get Process info, by pass all opertaion";

// Which records the audit holds shows in what it answers for a process that has become another
// meanwhile: its own copy, or a fresh one.
class AuditedProcesses : public FileAuditTest {
protected:
    // The audit meets `count` processes of which it has not heard before.
    void Meet(int count) {
        for (int i = 0; i < count; ++i) {
            const int pid = NOBODY + mMet;
            GivenProcess(pid, "/first");
            ASSERT_NE(audit.GetProcessInfo(pid), nullptr);
            ++mMet;
        }
    }

    // The process has ended, and that is not all that has changed.
    void End(int index) const {
        ProcessInfo changed = Process(NOBODY + index, "/second");
        changed.exited = true;
        engine.AddToAllProcessMap(changed);
    }
    void End(int from, int count) const {
        for (int i = 0; i < count; ++i) {
            End(from + i);
        }
    }

    // Whether the audit has still its own record of that process. Makes one if not.
    bool IsHeld(int index) {
        const ProcessInfo* info = audit.GetProcessInfo(NOBODY + index);
        return info != nullptr && info->path == "/first";
    }

private:
    int mMet = 0;
};

} // namespace

// ---- One record ------------------------------------------------------------------------------------

TEST_F(AuditedProcesses, AProcessThatNobodyKnowsIsLookedUpAndHashed) {
    const std::string program = CopyProgram("/bin/sleep", "tool");
    const ForeignProcess process({.words = {program, "1000"}});
    const ProcessInfo* info = audit.GetProcessInfo(process.Pid());
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->pid, process.Pid());
    EXPECT_EQ(info->path, program);
    EXPECT_EQ(info->name, "tool");
    EXPECT_EQ(info->hash, EngineTest::DigestOfFile(program));
    EXPECT_TRUE(info->detailRetrieved);
    EXPECT_FALSE(info->trusted || info->exited || info->auditHit);
    EXPECT_EQ(info->fileEventCount, 0U);
    EXPECT_EQ(info->auditHitTime, 0);
    EXPECT_NE(engine.GetProcessInfoFromID(process.Pid()), nullptr);
}

TEST_F(AuditedProcesses, AProcessThatTheTrustEngineKnowsIsCopiedAndHashed) {
    const std::string image = root.Write("bin/tool", "the tool");
    ProcessInfo row(NOBODY);
    row.path = image;
    row.trusted = true;
    engine.AddToAllProcessMap(row);
    const ProcessInfo* info = audit.GetProcessInfo(NOBODY);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->path, image);
    EXPECT_EQ(info->hash, EngineTest::Digest("the tool"));
    EXPECT_TRUE(info->trusted);
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY)->hash, "");
}

TEST_F(AuditedProcesses, AProcessThatIsGoneCannotBeLookedUp) {
    EXPECT_EQ(audit.GetProcessInfo(NOBODY), nullptr);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, CANNOT_GET), 1);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 1);
    // That nobody knew it is not remembered.
    GivenProcess(NOBODY, "/first");
    EXPECT_NE(audit.GetProcessInfo(NOBODY), nullptr);
}

TEST_F(AuditedProcesses, TheAuditsCopyDoesNotFollowTheTrustEnginesRow) {
    GivenProcess(NOBODY, "/first");
    ProcessInfo* own = audit.GetProcessInfo(NOBODY);
    ASSERT_NE(own, nullptr);
    own->fileEventCount = 5;
    End(0);
    const ProcessInfo* again = audit.GetProcessInfo(NOBODY);
    EXPECT_EQ(again, own);
    EXPECT_EQ(again->path, "/first");
    EXPECT_FALSE(again->exited);
    EXPECT_EQ(again->fileEventCount, 5U);
    EXPECT_EQ(engine.GetProcessInfoFromID(NOBODY)->fileEventCount, 0U);
}

TEST_F(AuditedProcesses, AHeldRecordIsNotLookedUpAgain) {
    Meet(1);
    End(0);
    engine.DelExitedAllProcess();
    log.Clear();
    EXPECT_TRUE(IsHeld(0));
    EXPECT_TRUE(log.Records().empty());
}

// ---- The size of the table -------------------------------------------------------------------------

TEST_F(AuditedProcesses, BelowTheLimitEndedProcessesStay) {
    Meet(FIRST_LIMIT - 1);
    End(0);
    audit.KeepSizeProcessIDMap();
    EXPECT_TRUE(IsHeld(0));
}

TEST_F(AuditedProcesses, AtTheLimitEndedAndUnknownProcessesGoAndLiveOnesStay) {
    Meet(FIRST_LIMIT);
    End(5);
    engine.DelExitedAllProcess();
    End(6);
    // This one lives on as another program.
    GivenProcess(NOBODY + 7, "/second");
    audit.KeepSizeProcessIDMap();
    EXPECT_EQ(audit.GetProcessInfo(NOBODY + 5), nullptr);
    EXPECT_FALSE(IsHeld(6));
    EXPECT_TRUE(IsHeld(7));
}

TEST_F(AuditedProcesses, AnyLookUpKeepsTheSize) {
    Meet(FIRST_LIMIT);
    End(0);
    EXPECT_TRUE(IsHeld(1));
    // With room again nothing more is removed.
    End(2);
    EXPECT_TRUE(IsHeld(2));
    EXPECT_FALSE(IsHeld(0));
}

TEST_F(AuditedProcesses, TheLimitGrowsByTenWhereAllLive) {
    Meet(FIRST_LIMIT);
    audit.KeepSizeProcessIDMap();
    End(0);
    Meet(9);
    audit.KeepSizeProcessIDMap();
    EXPECT_TRUE(IsHeld(0));
    Meet(1);
    audit.KeepSizeProcessIDMap();
    EXPECT_FALSE(IsHeld(0));
}

TEST_F(AuditedProcesses, WithRoomForNineTheLimitGrows) {
    Meet(FIRST_LIMIT);
    End(0, 9);
    audit.KeepSizeProcessIDMap();
    Meet(9);
    End(100);
    audit.KeepSizeProcessIDMap();
    EXPECT_TRUE(IsHeld(100));
}

TEST_F(AuditedProcesses, WithRoomForTenTheLimitStays) {
    Meet(FIRST_LIMIT);
    End(0, 10);
    audit.KeepSizeProcessIDMap();
    Meet(10);
    End(100);
    audit.KeepSizeProcessIDMap();
    EXPECT_FALSE(IsHeld(100));
}

} // namespace AuditTest
