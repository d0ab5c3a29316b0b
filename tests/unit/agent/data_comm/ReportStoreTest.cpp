#include "agent/data_comm/ReportStore.h"

#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using Engine::Report;
using Engine::ReportCounts;
using Engine::ReportQuery;
using Engine::ReportReader;
using Engine::ReportStore;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::int64_t> Ids(const std::vector<Report>& reports) {
    std::vector<std::int64_t> ids;
    for (const Report& report : reports) {
        ids.push_back(report.id);
    }
    return ids;
}

std::vector<std::string> FilesBeside(const std::string& folder, const std::string& part) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().filename().string().find(part) != std::string::npos) {
            names.push_back(entry.path().filename().string());
        }
    }
    return names;
}

class ReportStoreTest : public testing::Test {
protected:
    void Store(const std::vector<Report>& reports) {
        std::string reason;
        ASSERT_TRUE(store.Append(reports, reason)) << reason;
    }

    std::vector<Report> Find(const ReportQuery& query) const {
        std::vector<Report> reports;
        std::string reason;
        EXPECT_TRUE(ReportReader(path).Find(query, reports, reason)) << reason;
        return reports;
    }

    ReportCounts Count() const {
        ReportCounts counts;
        std::string reason;
        EXPECT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
        return counts;
    }

    TestSupport::TempDir folder;
    const std::string path = folder / "reports.db";
    ReportStore store{path};
};

TEST_F(ReportStoreTest, WhatWasStoredReadsBackByteForByte) {
    const std::string bytes("a\0b\xff\n\"", 6);
    Store({{0, 1234, "whitelist_4", bytes}});

    const std::vector<Report> reports = Find({});
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].id, 1);
    EXPECT_EQ(reports[0].time, 1234);
    EXPECT_EQ(reports[0].type, "whitelist_4");
    EXPECT_EQ(reports[0].data, bytes);
}

TEST_F(ReportStoreTest, AQueryRestrictsByEachOfItsMembers) {
    Store({{0, 10, "a", "1"}, {0, 20, "b", "2"}, {0, 30, "a", "3"}, {0, 40, "a", "4"}});

    EXPECT_THAT(Ids(Find({})), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(Ids(Find({.type = "a"})), ElementsAre(1, 3, 4));
    EXPECT_THAT(Ids(Find({.since = 20})), ElementsAre(2, 3, 4));
    EXPECT_THAT(Ids(Find({.after = 2})), ElementsAre(3, 4));
    EXPECT_THAT(Ids(Find({.limit = 2})), ElementsAre(1, 2));
    EXPECT_THAT(Ids(Find({.limit = 2, .newestFirst = true})), ElementsAre(4, 3));
    EXPECT_THAT(Ids(Find({.type = "a", .since = 20, .after = 3, .limit = 9})), ElementsAre(4));
    EXPECT_THAT(Ids(Find({.limit = 0})), IsEmpty());
    EXPECT_THAT(Ids(Find({.type = "a' OR '1'='1"})), IsEmpty());
}

TEST_F(ReportStoreTest, AnAnswerHoldsNoMoreThanTheLimitOfReports) {
    Store(std::vector<Report>(ReportQuery::MAX_LIMIT + 5, {0, 1, "t", "{}"}));

    EXPECT_EQ(Find({.limit = 1000000}).size(), static_cast<std::size_t>(ReportQuery::MAX_LIMIT));
}

TEST_F(ReportStoreTest, AnAnswerIsCutShortOnceItsTextsAreTooLarge) {
    const std::string half(ReportReader::MAX_ANSWER_BYTES / 2 + 1, 'x');
    Store({{0, 1, "t", half}, {0, 1, "t", half}, {0, 1, "t", half}});

    EXPECT_THAT(Ids(Find({})), ElementsAre(1, 2));
    EXPECT_THAT(Ids(Find({.after = 2})), ElementsAre(3));
}

TEST_F(ReportStoreTest, AlertsAreCountedApart) {
    Store({{0, 1, "whitelist_4", "{}"}, {0, 1, "whitelist_6", "{}"}, {0, 1, "whitelist_4", "{}"}});

    EXPECT_EQ(Count().total, 3);
    EXPECT_EQ(Count().alerts, 2);
}

TEST_F(ReportStoreTest, ACountGoesOnFromAnEarlierOne) {
    Store({{0, 1, "whitelist_4", "{}"}, {0, 1, "whitelist_6", "{}"}});
    ReportCounts counts = Count();
    // Only what came after is looked at: what is known of before stays as it was told.
    counts.alerts += 100;
    Store({{0, 1, "whitelist_4", "{}"}, {0, 1, "whitelist_6", "{}"}, {0, 1, "whitelist_4", "{}"}});
    std::string reason;
    ASSERT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
    EXPECT_EQ(counts.total, 5);
    EXPECT_EQ(counts.alerts, 103);
    ASSERT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
    EXPECT_EQ(counts.total, 5) << "with nothing new";
}

TEST_F(ReportStoreTest, ACountBeginsAnewWhereReportsAreGone) {
    for (const char* removal : {"DELETE FROM reports WHERE id = 1", "DELETE FROM reports WHERE id = 4"}) {
        Store({{0, 1, "whitelist_4", "{}"}, {0, 1, "a", "{}"}, {0, 1, "a", "{}"}, {0, 1, "whitelist_4", "{}"}});
        ReportCounts counts = Count();
        ASSERT_EQ(counts.total, 4);
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, removal, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
        std::string reason;
        ASSERT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
        EXPECT_EQ(counts.total, 3) << removal;
        EXPECT_EQ(counts.alerts, 1) << removal;
        store.Close();
        std::filesystem::remove(path);
    }
}

TEST_F(ReportStoreTest, ACountBeginsAnewInANewFile) {
    Store({{0, 1, "whitelist_4", "{}"}});
    ReportCounts counts = Count();
    store.Close();
    std::filesystem::rename(path, path + ".aside");
    Store({{0, 1, "a", "{}"}, {0, 1, "a", "{}"}});
    std::string reason;
    ASSERT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
    EXPECT_EQ(counts.total, 2);
    EXPECT_EQ(counts.alerts, 0);
}

TEST_F(ReportStoreTest, AStoreOpenedAgainKeepsItsReportsAndGoesOnCounting) {
    Store({{0, 1, "a", "1"}});
    store.Close();
    Store({{0, 2, "b", "2"}});

    EXPECT_THAT(Ids(Find({})), ElementsAre(1, 2));
}

TEST_F(ReportStoreTest, ADatabaseThatWasRemovedMeanwhileIsBegunAnew) {
    Store({{0, 1, "a", "before"}});
    std::filesystem::remove(path);
    Store({{0, 2, "a", "after"}});

    const std::vector<Report> reports = Find({});
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports.front().data, "after");
}

TEST_F(ReportStoreTest, ADatabaseThatWasMovedMeanwhileIsBegunAnewAndTheOldOneStaysWhole) {
    const std::string moved = folder / "moved.db";
    Store({{0, 1, "a", "before"}});
    std::filesystem::rename(path, moved);
    std::filesystem::rename(path + "-wal", moved + "-wal");
    Store({{0, 2, "a", "after"}});

    EXPECT_THAT(Ids(Find({})), ElementsAre(1));
    std::vector<Report> old;
    std::string reason;
    ASSERT_TRUE(ReportReader(moved).Find({}, old, reason)) << reason;
    ASSERT_EQ(old.size(), 1U);
    EXPECT_EQ(old.front().data, "before");
}

TEST_F(ReportStoreTest, WhatAppendAcknowledgedSurvivesThatTheProcessIsKilled) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ReportStore killed(path);
        std::string reason;
        const bool stored = killed.Append({{0, 1, "a", "1"}, {0, 2, "b", "2"}}, reason);
        if (stored) {
            raise(SIGKILL);
        }
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));

    EXPECT_THAT(Ids(Find({})), ElementsAre(1, 2));
}

TEST_F(ReportStoreTest, CommitsAreSyncedToTheDiskInWalMode) {
    Store({{0, 1, "a", "1"}});

    EXPECT_FALSE(FilesBeside(folder.Path(), "reports.db-wal").empty());
}

TEST_F(ReportStoreTest, AFileThatIsNoDatabaseIsMovedAsideAndANewOneBegun) {
    TestSupport::LogRecorder log;
    folder.Write("reports.db", std::string(8192, 'x'));

    Store({{0, 1, "a", "1"}});

    EXPECT_THAT(Ids(Find({})), ElementsAre(1));
    const std::vector<std::string> aside = FilesBeside(folder.Path(), "reports.db.corrupt-");
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_EQ(folder.Read(aside[0]), std::string(8192, 'x'));
    ASSERT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1);
    EXPECT_THAT(log.Records()[0].text, HasSubstr(aside[0]));
}

TEST_F(ReportStoreTest, ADatabaseWithADamagedPageIsMovedAside) {
    TestSupport::LogRecorder log;
    Store(std::vector<Report>(500, {0, 1, "type", std::string(100, 'd')}));
    store.Close();
    std::string bytes = folder.Read("reports.db");
    ASSERT_GT(bytes.size(), 40000U);
    std::fill(bytes.begin() + 4096, bytes.begin() + 36864, '\xee');
    folder.Write("reports.db", bytes);

    Store({{0, 1, "a", "1"}});

    EXPECT_EQ(Count().total, 1);
    EXPECT_EQ(FilesBeside(folder.Path(), "reports.db.corrupt-").size(), 1U);
}

TEST_F(ReportStoreTest, TwoDamagedDatabasesOfOneSecondAreBothKept) {
    TestSupport::LogRecorder log;
    for (int i = 0; i < 3; ++i) {
        folder.Write("reports.db", std::string(8192, 'x'));
        std::string reason;
        ASSERT_TRUE(store.Open(reason)) << reason;
        store.Close();
    }

    EXPECT_EQ(FilesBeside(folder.Path(), "reports.db.corrupt-").size(), 3U);
}

TEST_F(ReportStoreTest, ALockedDatabaseRefusesAndLaterTakesTheSameReports) {
    Store({{0, 1, "a", "1"}});
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);

    std::string reason;
    EXPECT_FALSE(store.Append({{0, 2, "b", "2"}}, reason));
    EXPECT_THAT(reason, HasSubstr("locked"));

    sqlite3_close(other);
    Store({{0, 2, "b", "2"}});
    EXPECT_THAT(Ids(Find({})), ElementsAre(1, 2));
}

TEST_F(ReportStoreTest, AFolderThatIsMissingIsARefusalWithAReason) {
    ReportStore nowhere(folder / "none/reports.db");
    std::string reason;

    EXPECT_FALSE(nowhere.Append({{0, 1, "a", "1"}}, reason));
    EXPECT_THAT(reason, HasSubstr("unable to open"));
}

TEST_F(ReportStoreTest, AReaderOfAMissingDatabaseSaysSoAndMakesNone) {
    std::vector<Report> reports;
    std::string reason;

    EXPECT_FALSE(ReportReader(path).Find({}, reports, reason));
    EXPECT_THAT(reason, HasSubstr("unable to open"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

} // namespace
