#include <filesystem>

#include <unistd.h>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

class TrustDecisionTest : public TrustEngineTest {
protected:
    TrustDecisionTest() : tool(root.Write("bin/tool", "the tool")), digest(Digest("the tool")) {}

    // A record whose details are still to be looked up.
    static ProcessInfo Unread(const std::string& path, int type = Engine::MATCH_HASH) {
        ProcessInfo info;
        info.path = path;
        info.name = NameOf(path);
        info.type = type;
        return info;
    }

    void LearnLocally(const ProcessInfo& info) const { engine.UpdateLocalProcessInfo(info); }
    std::string LocalFile() const { return root.Read("conf/whitelist.data"); }
    std::string ToolEntry() const { return Entry(tool, digest, 8); }

    void ExpectAdoptedOnce() {
        EXPECT_EQ(engine.CopyLocalTrust().count(tool), 1U);
        EXPECT_EQ(NewProcessReports(), std::vector<std::string>{R"({"process_info":)" + ToolEntry() + "}"});
        EXPECT_EQ(LocalFile(), List({ToolEntry()}));
    }
    std::vector<std::string> NewProcessReports() { return agent.Reports().Of("whitelist_3"); }

    const std::string tool;
    const std::string digest;
};

} // namespace

// ---- The local list --------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, APathThatIsNotInTheMapIsNotTrustedAndNotLookedAt) {
    std::map<std::string, ProcessInfo> byPath{{tool + "2", Record(tool, digest)}};
    ProcessInfo info = Unread(tool);
    EXPECT_FALSE(engine.IsTrustProcessInMap(info, byPath));
    EXPECT_FALSE(info.detailRetrieved);
}

TEST_F(TrustDecisionTest, AScriptIsTrustedByItsPathAlone) {
    std::map<std::string, ProcessInfo> byPath{{tool, Record(tool, "another digest", 1)}};
    ProcessInfo info = Unread(tool, Engine::MATCH_PATH);
    EXPECT_TRUE(engine.IsTrustProcessInMap(info, byPath));
    EXPECT_FALSE(info.detailRetrieved);
}

TEST_F(TrustDecisionTest, AnImageIsTrustedByItsDigestWhichIsLookedUpWhereNeeded) {
    std::map<std::string, ProcessInfo> byPath{{tool, Record(tool, digest)}};
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcessInMap(info, byPath));
    EXPECT_TRUE(info.detailRetrieved);
    EXPECT_EQ(info.hash, digest);

    ProcessInfo known = Record(tool, "what the record says");
    EXPECT_FALSE(engine.IsTrustProcessInMap(known, byPath));
    EXPECT_EQ(known.hash, "what the record says");
    ProcessInfo shorter = Record(tool, digest.substr(0, 63));
    EXPECT_FALSE(engine.IsTrustProcessInMap(shorter, byPath));
}

TEST_F(TrustDecisionTest, AnImageIsNotTrustedByAnEntryOfAnotherType) {
    for (const int storedType : {0, 2}) {
        std::map<std::string, ProcessInfo> byPath{{tool, Record(tool, digest, storedType)}};
        ProcessInfo info = Unread(tool);
        EXPECT_FALSE(engine.IsTrustProcessInMap(info, byPath)) << storedType;
        EXPECT_TRUE(info.detailRetrieved) << storedType;
    }
}

TEST_F(TrustDecisionTest, ARecordWithoutATypeIsNotTrustedEvenByAnEntryWithoutOne) {
    std::map<std::string, ProcessInfo> byPath{{tool, Record(tool, digest, 0)}};
    ProcessInfo info = Record(tool, digest, 0);
    EXPECT_FALSE(engine.IsTrustProcessInMap(info, byPath));
}

TEST_F(TrustDecisionTest, TheLocalListKeepsTheEntryThatItHas) {
    LearnLocally(Record(tool, "first"));
    LearnLocally(Record(tool, "second"));
    EXPECT_EQ(engine.CopyLocalTrust().at(tool).hash, "first");
}

// ---- The server list -------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, TheServerListMatchesTheDigestOfAnImageOfThatName) {
    SyncServer(List({Entry("/1/tool", "other", 1), Entry("/2/tool", digest, 1)}));
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcessInGlobal(info));
    EXPECT_EQ(info.hash, digest);
    ProcessInfo renamed = Unread(tool);
    renamed.name = "renamed";
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(renamed));
    EXPECT_FALSE(renamed.detailRetrieved);
    ProcessInfo changed = Record(tool, "changed");
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(changed));
}

TEST_F(TrustDecisionTest, TheServerListMatchesThePathOfAScriptOfThatName) {
    SyncServer(List({Entry("/1/tool", digest, 1, 2), Entry(tool, "other", 1, 2)}));
    ProcessInfo info = Unread(tool, Engine::MATCH_PATH);
    EXPECT_TRUE(engine.IsTrustProcessInGlobal(info));
    EXPECT_TRUE(info.detailRetrieved);
    ProcessInfo elsewhere = Record("/3/tool", digest, Engine::MATCH_PATH);
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(elsewhere));
}

TEST_F(TrustDecisionTest, TheServerListDoesNotMatchAnotherType) {
    SyncServer(List({Entry(tool, digest, 1, 2), Entry(tool, digest, 1, 7)}));
    ProcessInfo image = Unread(tool);
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(image));
    EXPECT_FALSE(image.detailRetrieved);
    ProcessInfo unset = Record(tool, digest, 0);
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(unset));
    ProcessInfo unknown = Record(tool, digest, 7);
    EXPECT_FALSE(engine.IsTrustProcessInGlobal(unknown));
}

// ---- Preset lists ----------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, APresetEntryIsFoundByItsDigestAndCopiedOut) {
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(digest, "tool", "Debian", "12")})));
    auto preset = engine.CopyOsPreset();
    Engine::PresetProcessInfo found;
    found.os = "untouched";
    EXPECT_FALSE(engine.IsTrustPresetProcess(digest.substr(1), preset, found));
    EXPECT_EQ(found.os, "untouched");
    EXPECT_TRUE(engine.IsTrustPresetProcess(digest, preset, found));
    EXPECT_EQ(found.filename, "tool");
    EXPECT_EQ(found.sha256, digest);
    EXPECT_EQ(found.os, "Debian");
    EXPECT_EQ(found.version, "12");
}

// ---- IsTrustProcess --------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, WhatTheLocalListHoldsIsTrustedAndNothingElseHappens) {
    LearnLocally(Record(tool, digest));
    SyncServer(List({ToolEntry()}));
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(info));
    EXPECT_TRUE(agent.Reports().Reports().empty());
    EXPECT_EQ(LocalFile(), "");
}

TEST_F(TrustDecisionTest, WhatTheServerVouchesForIsAdoptedReportedAndPersistedOnce) {
    SyncServer(List({ToolEntry()}));
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(info));
    ExpectAdoptedOnce();
    ProcessInfo again = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(again));
    ExpectAdoptedOnce();
}

TEST_F(TrustDecisionTest, WhatAPresetListVouchesForIsAdoptedInEveryMode) {
    for (const char* preset : {OS_PRESET, SERVICE_PRESET}) {
        for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARN, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
            Configure(mode);
            root.Write("conf/whitelist.data", "");
            engine.Onstart();
            agent.Reports().Clear();
            ASSERT_TRUE(SyncPreset(preset, List({PresetEntry(digest)})));
            ProcessInfo info = Record(tool, digest);
            EXPECT_TRUE(engine.IsTrustProcess(info));
            ExpectAdoptedOnce();
            ASSERT_TRUE(SyncPreset(preset, List({})));
        }
    }
}

TEST_F(TrustDecisionTest, WhatWasAdoptedStaysTrustedWhenItsListChanges) {
    SyncServer(List({ToolEntry()}));
    ProcessInfo info = Unread(tool);
    ASSERT_TRUE(engine.IsTrustProcess(info));
    SyncServer(List({}));
    ProcessInfo again = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(again));
    engine.Onstart();
    ProcessInfo afterStart = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(afterStart));
}

TEST_F(TrustDecisionTest, AnAdoptionDoesNotReplaceAnEntryOfThePath) {
    LearnLocally(Record(tool, "older"));
    SyncServer(List({ToolEntry()}));
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(info));
    EXPECT_EQ(engine.CopyLocalTrust().at(tool).hash, "older");
    EXPECT_EQ(NewProcessReports().size(), 1U);
    EXPECT_EQ(LocalFile(), List({Entry(tool, "older", 8)}));
}

TEST_F(TrustDecisionTest, InDirectoryModeAnAdoptionIsReportedBeforeTheWholeList) {
    Configure(Engine::MOD_DETECT, true);
    SyncServer(List({ToolEntry()}));
    ProcessInfo info = Unread(tool);
    EXPECT_TRUE(engine.IsTrustProcess(info));
    const auto reports = agent.Reports().Reports();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].type, "whitelist_3");
    EXPECT_EQ(reports[1].type, "whitelist_2");
    EXPECT_EQ(reports[1].data, List({ToolEntry()}));
}

TEST_F(TrustDecisionTest, WhatNoListVouchesForIsNotTrustedAndLeavesNoTrace) {
    LearnLocally(Record("/other", digest));
    SyncServer(List({Entry(tool, digest, 1, 2)}));
    ProcessInfo info = Record(tool, digest);
    EXPECT_FALSE(engine.IsTrustProcess(info));
    EXPECT_EQ(engine.CountLocalTrust(), 1U);
    EXPECT_TRUE(agent.Reports().Reports().empty());
    EXPECT_EQ(LocalFile(), "");
}

TEST_F(TrustDecisionTest, TheServerListVouchesAlsoForAScriptOfItsPath) {
    SyncServer(List({Entry(tool, "other", 1, 2)}));
    ProcessInfo info = Record(tool, digest, Engine::MATCH_PATH);
    EXPECT_TRUE(engine.IsTrustProcess(info));
    EXPECT_EQ(engine.CopyLocalTrust().at(tool).type, 2);
}

// ---- IsWhiteHash -----------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, TheListsAreAskedInTheirOrder) {
    int source = 99;
    EXPECT_FALSE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 99);
    ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List({PresetEntry(digest)})));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 4);
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(digest)})));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 3);
    SyncServer(List({Entry("/1/tool", "other", 1), Entry("/2/tool", digest, 1)}));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 2);
    LearnLocally(Record(tool, digest));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 1);
}

TEST_F(TrustDecisionTest, ALocalEntryWithAnotherDigestLeavesTheWordToTheOtherLists) {
    int source = 99;
    LearnLocally(Record(tool, "other"));
    EXPECT_FALSE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 99);
    SyncServer(List({Entry("/1/tool", digest, 1)}));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_EQ(source, 2);
}

TEST_F(TrustDecisionTest, TheDigestLookUpIgnoresTypesAndAdoptsNothing) {
    int source = 0;
    SyncServer(List({Entry("/1/tool", digest, 1, 2)}));
    LearnLocally(Record("/2/script", digest, 2));
    EXPECT_TRUE(engine.IsWhiteHash(digest, tool, source));
    EXPECT_TRUE(engine.IsWhiteHash(digest, "/2/script", source));
    EXPECT_EQ(source, 1);
    EXPECT_EQ(engine.CountLocalTrust(), 1U);
    EXPECT_TRUE(agent.Reports().Reports().empty());
    EXPECT_EQ(LocalFile(), "");
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(TrustDecisionTest, APathWithoutASlashIsItsOwnName) {
    int source = 0;
    SyncServer(List({Entry("/1/tool", digest, 1)}));
    EXPECT_TRUE(engine.IsWhiteHash(digest, "tool", source));
    EXPECT_EQ(source, 2);
    EXPECT_FALSE(engine.IsWhiteHash(digest, "tool/", source));
}

// ---- ProcessVerify ---------------------------------------------------------------------------------

TEST_F(TrustDecisionTest, ARunningProgramThatNoListKnowsIsNotTrusted) {
    const std::string program = CopyProgram("/bin/sleep", "stranger");
    const TestSupport::ForeignProcess process({.words = {program, "1000"}});
    EXPECT_FALSE(engine.ProcessVerify(process.Pid()));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "process [stranger] [" + program + "] is not in white hash list"),
              1);
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 1);
}

TEST_F(TrustDecisionTest, ARunningProgramThatAListKnowsIsTrustedWithoutAWord) {
    const std::string program = CopyProgram("/bin/sleep", "known");
    const TestSupport::ForeignProcess process({.words = {program, "1000"}});
    ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List({PresetEntry(DigestOfFile(program))})));
    log.Clear();
    EXPECT_TRUE(engine.ProcessVerify(process.Pid()));
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
}

TEST_F(TrustDecisionTest, TheVerdictIsThatOfTheImageNotOfTheScriptItRuns) {
    const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
    LearnLocally(Record(script, DigestOfFile(script), 2));
    const TestSupport::ForeignProcess process({.words = {CopyProgram("/bin/bash", "bash"), script}});
    ASSERT_TRUE(process.AwaitLine());
    EXPECT_FALSE(engine.ProcessVerify(process.Pid()));
}

TEST_F(TrustDecisionTest, AProcessThatIsGoneIsLetGo) {
    TestSupport::ForeignProcess process({.words = {CopyProgram("/bin/sleep", "gone"), "1000"}});
    process.End();
    EXPECT_TRUE(engine.ProcessVerify(process.Pid()));
    EXPECT_TRUE(engine.ProcessVerify(-1));
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
}

TEST_F(TrustDecisionTest, TheAgentsOwnProcessesAreLetGo) {
    const TestSupport::ForeignProcess process({.words = {CopyProgram("/bin/sleep", "stranger"), "1000"}});
    EXPECT_TRUE(engine.ProcessVerify(getpid()));
    EXPECT_TRUE(engine.ProcessVerify(process.ParentPid()));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(TrustDecisionTest, AProcessWhoseImageCannotBeReadIsLetGo) {
    const std::string program = CopyProgram("/bin/sleep", "deleted");
    const TestSupport::ForeignProcess process({.words = {program, "1000"}});
    std::filesystem::remove(program);
    EXPECT_TRUE(engine.ProcessVerify(process.Pid()));
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
}

TEST_F(TrustDecisionTest, AnImageFileIsJudgedLikeAProcessOfIt) {
    Engine::ImageExamination looked;
    int source = 99;
    EXPECT_FALSE(engine.VerifyImage(tool, looked, source));
    EXPECT_EQ(looked.digest, digest);
    EXPECT_EQ(source, 99);
    LearnLocally(Record(tool, digest));
    EXPECT_TRUE(engine.VerifyImage(tool, looked, source));
    EXPECT_EQ(source, 1);
    EXPECT_TRUE(engine.VerifyImage(root / "missing", looked, source));
    EXPECT_EQ(looked.digest, "");
}

} // namespace EngineTest
