#include "ListOpinion.h"

#include "TrustEngineTest.h"

namespace EngineTest {

namespace {

using Engine::ListOpinion;
using Engine::TrustGroup;
using Engine::list_opinion::OnDigest;
using Engine::list_opinion::OnRecord;
using Reason = Engine::ListOpinion::Reason;
using Group = std::vector<ProcessInfo>;

constexpr int SCRIPT = Engine::MATCH_PATH;

void ExpectOpinion(const ListOpinion& opinion, Reason reason, const std::string& entryPath) {
    EXPECT_EQ(opinion.reason, reason);
    EXPECT_EQ(opinion.Vouches(), reason == Reason::VOUCHED_FOR);
    EXPECT_FALSE(opinion.presetEntry);
    ASSERT_TRUE(opinion.entry);
    EXPECT_EQ(opinion.entry->path, entryPath);
}

void ExpectUnknown(const ListOpinion& opinion) {
    EXPECT_EQ(opinion.reason, Reason::UNKNOWN);
    EXPECT_FALSE(opinion.Vouches());
    EXPECT_FALSE(opinion.entry);
    EXPECT_FALSE(opinion.presetEntry);
}

} // namespace

// ---- The local list's entry ------------------------------------------------------------------------

TEST(ListOpinionTest, ALocalEntryVouchesForItsDigestAlone) {
    const ProcessInfo entry = Record("/bin/tool", "aa");
    ExpectOpinion(OnRecord(entry, Record("/bin/tool", "aa")), Reason::VOUCHED_FOR, "/bin/tool");
    ExpectOpinion(OnRecord(entry, Record("/bin/tool", "ab")), Reason::OTHER_DIGEST, "/bin/tool");
    ExpectOpinion(OnRecord(entry, Record("/bin/tool", "a")), Reason::OTHER_DIGEST, "/bin/tool");
}

TEST(ListOpinionTest, ALocalEntryOfAnotherKindIsNoVoucherForAnImage) {
    ExpectOpinion(OnRecord(Record("/bin/tool", "aa", SCRIPT), Record("/bin/tool", "aa")), Reason::OTHER_KIND,
                  "/bin/tool");
    ExpectOpinion(OnRecord(Record("/bin/tool", "aa", 0), Record("/bin/tool", "aa", 0)), Reason::OTHER_KIND,
                  "/bin/tool");
}

TEST(ListOpinionTest, AnyLocalEntryOfItsPathVouchesForAScript) {
    ExpectOpinion(OnRecord(Record("/bin/tool", "aa", 1), Record("/bin/tool", "bb", SCRIPT)), Reason::VOUCHED_FOR,
                  "/bin/tool");
}

// ---- The server list's entries of a name -----------------------------------------------------------

TEST(ListOpinionTest, OneServerEntryOfTheRightKindAndDigestIsEnough) {
    const Group group = {Record("/1/tool", "aa", SCRIPT), Record("/2/tool", "bb"), Record("/3/tool", "aa"),
                         Record("/4/tool", "aa")};
    ExpectOpinion(OnRecord(group, Record("/bin/tool", "aa")), Reason::VOUCHED_FOR, "/3/tool");
}

TEST(ListOpinionTest, AScriptIsMatchedByTheServersPath) {
    const Group group = {Record("/1/tool", "aa", SCRIPT), Record("/2/tool", "aa", SCRIPT)};
    ExpectOpinion(OnRecord(group, Record("/2/tool", "bb", SCRIPT)), Reason::VOUCHED_FOR, "/2/tool");
    ExpectOpinion(OnRecord(group, Record("/3/tool", "aa", SCRIPT)), Reason::OTHER_PATH, "/1/tool");
}

TEST(ListOpinionTest, TheEntryThatComesNearestIsNamed) {
    const Group group = {Record("/1/tool", "aa", SCRIPT), Record("/2/tool", "bb"), Record("/3/tool", "cc")};
    ExpectOpinion(OnRecord(group, Record("/bin/tool", "aa")), Reason::OTHER_DIGEST, "/2/tool");
    ExpectOpinion(OnRecord({group.front()}, Record("/bin/tool", "aa")), Reason::OTHER_KIND, "/1/tool");
    ExpectUnknown(OnRecord(Group{}, Record("/bin/tool", "aa")));
}

// ---- A digest --------------------------------------------------------------------------------------

TEST(ListOpinionTest, ADigestIsComparedWhateverTheKind) {
    const ProcessInfo entry = Record("/bin/tool", "aa", SCRIPT);
    ExpectOpinion(OnDigest(entry, "aa"), Reason::VOUCHED_FOR, "/bin/tool");
    ExpectOpinion(OnDigest(entry, "bb"), Reason::OTHER_DIGEST, "/bin/tool");
    TrustGroup group;
    group.emplace_back(Record("/1/tool", "bb"));
    group.emplace_back(entry);
    ExpectOpinion(OnDigest(group, "aa"), Reason::VOUCHED_FOR, "/bin/tool");
    ExpectOpinion(OnDigest(group, "cc"), Reason::OTHER_DIGEST, "/1/tool");
    ExpectUnknown(OnDigest(TrustGroup{}, "aa"));
}

// ---- The lists of the engine -----------------------------------------------------------------------

namespace {

class AskedListTest : public TrustEngineTest {
protected:
    ListOpinion Ask(ProcessManager::TrustSource list, ProcessInfo info) const { return engine.AskList(list, info); }
};

} // namespace

TEST_F(AskedListTest, TheLocalListIsAskedByThePath) {
    engine.UpdateLocalProcessInfo(Record("/bin/tool", "aa"));
    ExpectOpinion(Ask(ProcessManager::SOURCE_LOCAL, Record("/bin/tool", "aa")), Reason::VOUCHED_FOR, "/bin/tool");
    ExpectUnknown(Ask(ProcessManager::SOURCE_LOCAL, Record("/usr/bin/tool", "aa")));
    ExpectOpinion(engine.AskList(ProcessManager::SOURCE_LOCAL, "bb", "/bin/tool"), Reason::OTHER_DIGEST, "/bin/tool");
    ExpectUnknown(engine.AskList(ProcessManager::SOURCE_LOCAL, "aa", "/usr/bin/tool"));
}

TEST_F(AskedListTest, TheServerListIsAskedByTheName) {
    SyncServer(List({Entry("/1/tool", "aa", 1)}));
    ExpectOpinion(Ask(ProcessManager::SOURCE_SERVER, Record("/bin/tool", "aa")), Reason::VOUCHED_FOR, "/1/tool");
    ExpectUnknown(Ask(ProcessManager::SOURCE_SERVER, Record("/1/other", "aa")));
    ExpectOpinion(engine.AskList(ProcessManager::SOURCE_SERVER, "bb", "/bin/tool"), Reason::OTHER_DIGEST, "/1/tool");
    ExpectUnknown(engine.AskList(ProcessManager::SOURCE_SERVER, "aa", "/1/other"));
}

TEST_F(AskedListTest, APresetListIsAskedByTheDigest) {
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry("aa", "tool")})));
    const ListOpinion opinion = Ask(ProcessManager::SOURCE_OS_PRESET, Record("/bin/anything", "aa"));
    EXPECT_TRUE(opinion.Vouches());
    ASSERT_TRUE(opinion.presetEntry);
    EXPECT_EQ(opinion.presetEntry->filename, "tool");
    EXPECT_TRUE(engine.AskList(ProcessManager::SOURCE_OS_PRESET, "aa", "/x").Vouches());
    ExpectUnknown(Ask(ProcessManager::SOURCE_SERVICE_PRESET, Record("/bin/tool", "aa")));
    ExpectUnknown(engine.AskList(ProcessManager::SOURCE_OS_PRESET, "bb", "/bin/tool"));
}

TEST_F(AskedListTest, APresetListNamesAFileByItsPathOrItsName) {
    ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List({PresetEntry("aa", "tool"), PresetEntry("bb", "/bin/other")})));
    const auto naming = [&](const std::string& path) {
        const auto entry = engine.FindPresetNaming(ProcessManager::SOURCE_SERVICE_PRESET, path);
        return entry ? entry->sha256 : "none";
    };
    EXPECT_EQ(naming("/anywhere/tool"), "aa");
    EXPECT_EQ(naming("/bin/other"), "bb");
    EXPECT_EQ(naming("/usr/bin/other"), "none");
    EXPECT_FALSE(engine.FindPresetNaming(ProcessManager::SOURCE_OS_PRESET, "/anywhere/tool"));
}

} // namespace EngineTest
