#include "agent/data_comm/AlertSummary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "agent/data_comm/ReportStore.h"
#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"

namespace {

using Engine::AlertSummary;
using Engine::Report;
using Engine::ReportReader;
using Engine::ReportStore;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

struct Alert {
    std::string path = "/opt/tool";
    std::string hash = "aa";
    std::string user{};
    int uid = 0;
    int block = 0;
};

std::string Document(const Alert& alert) {
    Json::Value document;
    Json::Value& process = document["process_info"];
    process["process_path"] = alert.path;
    process["process_hash"] = alert.hash;
    process["process_username"] = alert.user;
    process["process_uid"] = alert.uid;
    process["block"] = alert.block;
    return SDK::JsonUtils::JsonToString(document);
}

Report Stored(std::int64_t time, const Alert& alert) {
    return {0, time, ReportStore::ALERT_TYPE, Document(alert)};
}

class AlertSummaryTest : public testing::Test {
protected:
    void Store(const std::vector<Report>& reports) {
        std::string reason;
        ASSERT_TRUE(store.Append(reports, reason)) << reason;
    }

    AlertSummary Summarise(std::optional<std::int64_t> since = std::nullopt) const {
        AlertSummary summary;
        std::string reason;
        EXPECT_TRUE(ReportReader(path).Summarise(since, summary, reason)) << reason;
        return summary;
    }

    // "PATH HASH COUNT FIRST LAST USER,USER" of each program.
    static std::vector<std::string> Lines(const AlertSummary& summary) {
        std::vector<std::string> lines;
        for (const Engine::SeenProgram& program : summary.programs) {
            std::string line = program.path + " " + program.hash;
            for (const std::int64_t number : {program.count, program.firstSeen, program.lastSeen}) {
                line += " " + std::to_string(number);
            }
            std::string separator = " ";
            for (const std::string& user : program.users) {
                line += separator + user;
                separator = ",";
            }
            lines.push_back(line);
        }
        return lines;
    }

    // Stores a row as no agent would write it.
    void Execute(const std::string& sql) {
        std::string reason;
        ASSERT_TRUE(store.Open(reason)) << reason;
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(database);
        sqlite3_close(database);
    }

    TestSupport::TempDir folder;
    const std::string path = folder / "reports.db";
    ReportStore store{path};
};

TEST_F(AlertSummaryTest, AlertsOfOnePathAndDigestAreOneProgram) {
    Store({Stored(30, {.user = "joe"}), Stored(10, {.user = "ann"}), Stored(20, {.user = "joe"}),
           Stored(40, {.hash = "bb"}), Stored(50, {.path = "/opt/other"}), Stored(60, {.path = "/opt/other"})});

    const AlertSummary summary = Summarise();

    EXPECT_THAT(Lines(summary),
                ElementsAre("/opt/tool aa 3 10 30 ann,joe", "/opt/other aa 2 50 60 0", "/opt/tool bb 1 40 40 0"));
    EXPECT_TRUE(summary.complete);
}

TEST_F(AlertSummaryTest, AnAlertThatNamesNobodyCountsForTheUserId) {
    Store({Stored(1, {.user = "joe", .uid = 5}), Stored(1, {.uid = 1000}), Stored(1, {.uid = 5}),
           Stored(1, {.uid = 1000})});

    EXPECT_THAT(Lines(Summarise()), ElementsAre("/opt/tool aa 4 1 1 1000,5,joe"));
}

TEST_F(AlertSummaryTest, WhatWasBlockedAndWhatIsNoAlertDoesNotCount) {
    Store({Stored(1, {.block = 1}), {0, 1, "whitelist_3", Document({})}, {0, 1, "whitelist_6", R"({"learn_stat":3})"}});

    EXPECT_THAT(Lines(Summarise()), IsEmpty());
}

TEST_F(AlertSummaryTest, OnlyWhatWasStoredSinceThenCounts) {
    Store({Stored(10, {}), Stored(20, {}), Stored(30, {})});

    EXPECT_THAT(Lines(Summarise(20)), ElementsAre("/opt/tool aa 2 20 30 0"));
    EXPECT_THAT(Lines(Summarise(31)), IsEmpty());
}

TEST_F(AlertSummaryTest, DamagedAndForeignRowsArePassedOver) {
    std::vector<Report> rows;
    for (const char* document :
         {"", "{", "null", "[]", "5", "\"x\"", "{\"process_info\":\"no\"}", "{\"process_info\":\"{\"}",
          R"({"process_info":[]})", R"({"process_info":{"block":"0","process_path":"/a"}})",
          R"({"process_info":{"block":0,"process_path":5}})", R"({"process_info":{"process_path":"/no-block"}})"}) {
        rows.push_back({0, 1, ReportStore::ALERT_TYPE, document});
    }
    rows.push_back({0, 1, ReportStore::ALERT_TYPE, std::string(5000, '[')});
    rows.push_back(Stored(7, {}));
    Store(rows);
    Execute("INSERT INTO reports(time, type, data) VALUES(1, 'whitelist_4', x'fffe')");
    Execute("INSERT INTO reports(time, type, data) VALUES('soon', 'whitelist_4', '" + Document({}) + "')");

    EXPECT_THAT(Lines(Summarise()), ElementsAre("/opt/tool aa 1 7 7 0"));
}

TEST_F(AlertSummaryTest, AnAlertWithoutADigestOrAUserIsAProgramToo) {
    Store({{0, 3, ReportStore::ALERT_TYPE, R"({"process_info":{"block":0,"process_path":"/a \n\"b"}})"}});

    EXPECT_THAT(Lines(Summarise()), ElementsAre("/a \n\"b  1 3 3"));
}

TEST_F(AlertSummaryTest, BytesThatAreNotUtf8AreKept) {
    Store({{0, 3, ReportStore::ALERT_TYPE,
            "{\"process_info\":{\"block\":0,\"process_path\":\"/\xff\xfe\",\"process_username\":\"\xff\"}}"}});

    EXPECT_THAT(Lines(Summarise()), ElementsAre("/\xff\xfe  1 3 3 \xff"));

    Store({{0, 3, ReportStore::ALERT_TYPE,
            R"({"process_info":{"block":0,"process_path":"/\udced\udcb3\udcbf","process_username":"\udcff"}})"}});
    EXPECT_THAT(Lines(Summarise()), UnorderedElementsAre("/\xff\xfe  1 3 3 \xff", "/\xed\xb3\xbf  1 3 3 \xff"));
}

TEST_F(AlertSummaryTest, ASummaryIsBoundedAndSaysSo) {
    std::vector<Report> reports;
    for (std::size_t i = 0; i < AlertSummary::MAX_PROGRAMS; ++i) {
        reports.push_back(Stored(1, {.hash = std::to_string(i)}));
    }
    Store(reports);
    EXPECT_TRUE(Summarise().complete);
    Store({Stored(1, {.path = "/seen/twice"}), Stored(1, {.path = "/seen/twice"})});

    const AlertSummary summary = Summarise();

    EXPECT_FALSE(summary.complete);
    EXPECT_EQ(summary.programs.size(), AlertSummary::MAX_PROGRAMS);
    EXPECT_EQ(summary.programs.front().path, "/seen/twice");
}

TEST_F(AlertSummaryTest, AHistoryThatIsNotThereIsAnError) {
    AlertSummary summary;
    std::string reason;
    EXPECT_FALSE(ReportReader(folder / "none.db").Summarise(std::nullopt, summary, reason));
    EXPECT_NE(reason, "");
}

} // namespace
