#include "FileAuditTest.h"
#include "unit/module_whitelist/shell/FakeClock.h"

namespace AuditTest {

namespace {

using ShellTest::FakeClock;

// How many entries must have been removed for their age before those that are rarely seen go too: more
// than this.
constexpr std::uint64_t ENOUGH_REMOVED = 33333;
constexpr std::uint64_t FULL = 100000;

class InodeCache : public FileAuditTest {
protected:
    // So many accesses, now, to each of `count` files of which nobody has heard before.
    void Access(std::uint64_t count, int times = 1) {
        for (std::uint64_t i = 0; i < count; ++i) {
            ++mLastInode;
            for (int j = 0; j < times; ++j) {
                ASSERT_NE(audit.GetInodeCacheEntry(mLastInode, "/file"), nullptr);
            }
        }
    }

    // Ends what the cache holds.
    std::uint64_t CountEntries() { return audit.DelInodeCountLess(EVERY_ENTRY); }

private:
    std::uint64_t mLastInode = 0;
};

} // namespace

// ---- Entries ---------------------------------------------------------------------------------------

TEST_F(InodeCache, AFileThatIsCaredForIsRememberedWithItsPath) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    const Engine::FileInodeNoCache* entry = audit.GetInodeCacheEntry(7, "/a/x.sh");
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(entry->cared);
    EXPECT_EQ(entry->path, "/a/x.sh");
    EXPECT_EQ(entry->hits, 1U);
    EXPECT_EQ(entry->lastAccess, FakeClock::Now());
}

TEST_F(InodeCache, AFileThatIsNotCaredForIsRememberedWithoutItsPath) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    const Engine::FileInodeNoCache* entry = audit.GetInodeCacheEntry(7, "/a/x.py");
    ASSERT_NE(entry, nullptr);
    EXPECT_FALSE(entry->cared);
    EXPECT_EQ(entry->path, "");
    EXPECT_EQ(entry->hits, 1U);
    EXPECT_EQ(entry->lastAccess, FakeClock::Now());
}

TEST_F(InodeCache, EachAccessCountsAndIsTheLatest) {
    audit.GetInodeCacheEntry(7, "/a");
    FakeClock::Advance(3);
    audit.GetInodeCacheEntry(7, "/a");
    FakeClock::Advance(4);
    const Engine::FileInodeNoCache* entry = audit.GetInodeCacheEntry(7, "/a");
    EXPECT_EQ(entry->hits, 3U);
    EXPECT_EQ(entry->lastAccess, FakeClock::Now());
}

TEST_F(InodeCache, TheFirstDecisionStaysWhateverTheFileIsCalledLater) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    audit.GetInodeCacheEntry(7, "/a/x.sh");
    audit.GetInodeCacheEntry(8, "/a/x.py");
    const Engine::FileInodeNoCache* cared = audit.GetInodeCacheEntry(7, "/b/y.py");
    EXPECT_TRUE(cared->cared);
    EXPECT_EQ(cared->path, "/a/x.sh");
    const Engine::FileInodeNoCache* notCared = audit.GetInodeCacheEntry(8, "/b/y.sh");
    EXPECT_FALSE(notCared->cared);
    EXPECT_EQ(notCared->path, "");
}

TEST_F(InodeCache, TheFirstDecisionOutlivesPolicyAndMode) {
    GivenScope(Engine::MOD_LEARN, {.exts = {"sh"}});
    audit.GetInodeCacheEntry(7, "/a/x.sh");
    GivenScope(Engine::MOD_DETECT, {.exts = {"py"}});
    const Engine::FileInodeNoCache* entry = audit.GetInodeCacheEntry(7, "/a/x.sh");
    EXPECT_TRUE(entry->cared);
    EXPECT_EQ(entry->hits, 2U);
}

TEST_F(InodeCache, AnUnknownInodeWithoutAPathIsRefusedAndNotRemembered) {
    EXPECT_EQ(audit.GetInodeCacheEntry(7, ""), nullptr);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "File Audit Get file path error inodeno[7]"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(CountEntries(), 0U);
}

TEST_F(InodeCache, TheGreatestInodeIsNamedWhole) {
    EXPECT_EQ(audit.GetInodeCacheEntry(std::numeric_limits<std::uint64_t>::max(), ""), nullptr);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "File Audit Get file path error inodeno[18446744073709551615]"));
}

TEST_F(InodeCache, AKnownInodeNeedsNoPath) {
    audit.GetInodeCacheEntry(7, "/a");
    const Engine::FileInodeNoCache* entry = audit.GetInodeCacheEntry(7, "");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->path, "/a");
    EXPECT_EQ(entry->hits, 2U);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 0);
}

// ---- Removal by count ------------------------------------------------------------------------------

TEST_F(InodeCache, EntriesSeenLessOftenAreRemovedAndCounted) {
    Access(2, 1);
    Access(3, 2);
    Access(4, 3);
    EXPECT_EQ(audit.DelInodeCountLess(3), 5U);
    EXPECT_EQ(audit.DelInodeCountLess(3), 0U);
    EXPECT_EQ(audit.DelInodeCountLess(4), 4U);
}

TEST_F(InodeCache, NoEntryIsSeenLessThanOnce) {
    Access(2);
    EXPECT_EQ(audit.DelInodeCountLess(0), 0U);
    EXPECT_EQ(audit.DelInodeCountLess(1), 0U);
    EXPECT_EQ(CountEntries(), 2U);
}

// ---- Making room -----------------------------------------------------------------------------------

TEST_F(InodeCache, BelowOneHundredThousandEntriesNoneIsRemoved) {
    Access(FULL - 1);
    FakeClock::Advance(3600);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL - 1);
}

TEST_F(InodeCache, OfOneHundredThousandThoseThatAreOldAreRemoved) {
    Access(10);
    FakeClock::Advance(1);
    Access(FULL - 10);
    // The first are 31 seconds old, the others 30.
    FakeClock::Advance(30);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL - 10);
}

TEST_F(InodeCache, OneHundredThousandYoungEntriesStay) {
    Access(FULL);
    FakeClock::Advance(29);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL);
}

TEST_F(InodeCache, MayGrowBeyondItsSizeWithFilesThatAreInUse) {
    Access(FULL);
    audit.CheckAndDelInodeCache();
    Access(5);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL + 5);
}

TEST_F(InodeCache, AnAccessMakesAnOldEntryYoung) {
    // Seen so often that its age alone could remove it.
    Access(1, 6);
    Access(FULL - 1);
    FakeClock::Advance(31);
    audit.GetInodeCacheEntry(1, "/file");
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), 1U);
}

TEST_F(InodeCache, WhereAThirdWasRemovedTheRarelySeenStay) {
    Access(ENOUGH_REMOVED);
    FakeClock::Advance(31);
    Access(FULL - ENOUGH_REMOVED);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL - ENOUGH_REMOVED);
}

TEST_F(InodeCache, WhereMoreWasRemovedThoseSeenLessThanSevenTimesGoToo) {
    Access(ENOUGH_REMOVED + 1, 1);
    FakeClock::Advance(31);
    Access(2, 8);
    Access(3, 7);
    Access(4, 6);
    Access(5, 5);
    Access(6, 4);
    Access(FULL - ENOUGH_REMOVED - 21, 1);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), 5U);
}

TEST_F(InodeCache, ThoseMadeWhileTheClockWasBehindAreYoungInTheirTime) {
    Access(FULL);
    audit.CheckAndDelInodeCache();
    FakeClock::Advance(-3600);
    Access(10);
    FakeClock::Advance(30);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL + 10);
}

TEST_F(InodeCache, ThoseMadeWhileTheClockWasBehindGoFirst) {
    Access(FULL);
    audit.CheckAndDelInodeCache();
    FakeClock::Advance(-3600);
    Access(10);
    FakeClock::Advance(31);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL);
}

TEST_F(InodeCache, WhatWasYoungAtOneScanIsOldAtALaterOne) {
    Access(10);
    FakeClock::Advance(31);
    Access(10);
    FakeClock::Advance(1);
    Access(FULL - 10);
    audit.CheckAndDelInodeCache();
    FakeClock::Advance(30);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(CountEntries(), FULL - 10);
}

TEST_F(InodeCache, AnOldEntryIsRemovedHoweverOftenItWasSeen) {
    Access(1, 100);
    FakeClock::Advance(31);
    Access(FULL - 1);
    audit.CheckAndDelInodeCache();
    EXPECT_EQ(audit.DelInodeCountLess(100), FULL - 1);
    EXPECT_EQ(CountEntries(), 0U);
}

} // namespace AuditTest
