#include "agent/data_comm/DataCommTask.h"

#include <map>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "framework/Counters.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using Engine::DataCommTask;
using Engine::Report;
using Engine::ReportReader;
using Framework::Counters;
using Framework::DataMessage;
using Framework::Message;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;

class OtherMessage : public Message {};

// Holds the write lock of a database.
class DatabaseLock {
public:
    explicit DatabaseLock(const std::string& path) {
        EXPECT_EQ(sqlite3_open(path.c_str(), &mDatabase), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(mDatabase, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~DatabaseLock() { sqlite3_close(mDatabase); }
    DatabaseLock(const DatabaseLock&) = delete;
    DatabaseLock& operator=(const DatabaseLock&) = delete;

private:
    sqlite3* mDatabase = nullptr;
};

class DataCommTaskTest : public testing::Test {
protected:
    ~DataCommTaskTest() override { Stop(); }

    void Start() {
        ASSERT_TRUE(task->Init());
        thread = std::thread([this] { task->runTask(); });
    }

    // The end as the framework brings it about.
    void Stop() {
        if (thread.joinable()) {
            task->RequestStop();
            thread.join();
            task->UnInit();
        }
    }

    bool Send(const std::string& type, const std::string& data) {
        std::shared_ptr<Message> message = std::make_shared<DataMessage>(type, data);
        return task->EnqueueMsg(message);
    }

    std::vector<Report> Stored() const {
        std::vector<Report> reports;
        std::string reason;
        EXPECT_TRUE(ReportReader(path).Find({}, reports, reason)) << reason;
        return reports;
    }

    // How much the counter has grown in this test.
    std::uint64_t Counted(const std::string& name) const {
        const auto before = countersBefore.find(name);
        return Counters::Of(name).Get() - (before == countersBefore.end() ? 0 : before->second);
    }

    const std::map<std::string, std::uint64_t> countersBefore = Counters::Snapshot();
    TestSupport::LogRecorder log;
    TestSupport::TempDir folder;
    const std::string path = folder / "reports.db";
    Poco::AutoPtr<DataCommTask> task{new DataCommTask(path)};
    std::thread thread;
};

TEST_F(DataCommTaskTest, ReportsAreStoredInTheOrderInWhichTheyCame) {
    Start();
    constexpr int REPORTS = 3000;
    for (int i = 0; i < REPORTS; ++i) {
        ASSERT_TRUE(Send("whitelist_6", std::to_string(i)));
    }

    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.stored") == REPORTS; }));
    for (int from = 0; from < REPORTS; from += Engine::ReportQuery::MAX_LIMIT) {
        std::vector<Report> reports;
        std::string reason;
        ASSERT_TRUE(ReportReader(path).Find({.after = from}, reports, reason)) << reason;
        for (std::size_t i = 0; i < reports.size(); ++i) {
            ASSERT_EQ(reports[i].data, std::to_string(from + static_cast<int>(i)));
        }
    }
    EXPECT_EQ(Counted("reports.write_errors"), 0U);
}

TEST_F(DataCommTaskTest, AReportIsStampedWithTheTimeItWasTaken) {
    Start();
    const std::int64_t before = time(nullptr);
    Send("whitelist_4", "{}");
    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.stored") == 1; }));

    const std::vector<Report> reports = Stored();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_GE(reports[0].time, before);
    EXPECT_LE(reports[0].time, time(nullptr));
}

TEST_F(DataCommTaskTest, EveryAlertHasOneLineInTheLogAndOtherReportsHaveNone) {
    Start();
    Send("whitelist_4", R"({"event_id":"e-1","process_info":{"block":1,"process_path":"/a\nb %s"}})");
    Send("whitelist_3", R"({"process_info":{"process_path":"/c"}})");
    Send("whitelist_4", "no document");
    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.stored") == 3; }));

    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING,
                        "ALERT untrusted program \"/a\nb %s\" pid - user - sha256 - blocked event e-1 cmdline -"),
              1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING, "ALERT whose document cannot be read, 11 bytes"), 1);
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_WARNING), 2);
}

TEST_F(DataCommTaskTest, AMessageOfAnotherKindIsNotHandled) {
    EXPECT_EQ(task->HandleMsg(std::make_shared<OtherMessage>().get()), -1);
}

TEST_F(DataCommTaskTest, WhatTheQueueHoldsAtTheStopIsStored) {
    ASSERT_TRUE(task->Init());
    for (int i = 0; i < 2500; ++i) {
        ASSERT_TRUE(Send("whitelist_6", "{}"));
    }
    thread = std::thread([this] { task->runTask(); });
    Stop();

    EXPECT_EQ(Counted("reports.stored"), 2500U);
    Engine::ReportCounts counts;
    std::string reason;
    ASSERT_TRUE(ReportReader(path).Count(counts, reason)) << reason;
    EXPECT_EQ(counts.total, 2500);
}

TEST_F(DataCommTaskTest, WhatCannotBeWrittenIsKeptAndStoredOnceItCan) {
    Start();
    {
        const DatabaseLock lock(path);
        Send("whitelist_4", "1");
        ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.write_errors") >= 2; }));
        EXPECT_EQ(Counted("reports.stored"), 0U);
        Send("whitelist_4", "2");
    }

    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.stored") == 2; }));
    const std::vector<Report> reports = Stored();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].data, "1");
    EXPECT_EQ(reports[1].data, "2");
    // Several attempts failed within one minute.
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1);
}

TEST_F(DataCommTaskTest, AQueueThatFillsUpWhileNothingCanBeWrittenCountsItsLosses) {
    Start();
    const DatabaseLock lock(path);
    Send("whitelist_6", "{}");
    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.write_errors") >= 1; }));

    unsigned int taken = 0;
    while (Send("whitelist_6", "{}")) {
        ++taken;
    }
    EXPECT_EQ(taken, DataCommTask::QUEUE_CAPACITY);

    EXPECT_GE(task->GetLostCount(), 1U);
    EXPECT_EQ(task->GetQueueDepth(), DataCommTask::QUEUE_CAPACITY);
}

TEST_F(DataCommTaskTest, AStopGivesUpWhatCannotBeWrittenAndSaysHowMany) {
    Start();
    const DatabaseLock lock(path);
    Send("whitelist_6", "{}");
    Send("whitelist_6", "{}");
    Stop();

    EXPECT_EQ(Counted("reports.given_up"), 2U);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "2 reports could not be stored before the stop and are lost"));
}

TEST_F(DataCommTaskTest, ADatabaseThatCannotBeOpenedAtTheStartIsOpenedLater) {
    const std::string folderPath = folder / "later";
    task = new DataCommTask(folderPath + "/reports.db");
    Start();
    Send("whitelist_6", "{}");
    ASSERT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.write_errors") >= 1; }));

    std::filesystem::create_directory(folderPath);

    EXPECT_TRUE(TestSupport::WaitFor([this] { return Counted("reports.stored") == 1; }));
}

} // namespace
