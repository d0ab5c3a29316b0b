#include "agent/data_comm/DataCommTask.h"

#include <algorithm>

#include <Poco/Thread.h>

#include "agent/data_comm/AlertLine.h"
#include "framework/Counters.h"
#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog("data_comm");

constexpr int WAIT_MS = 10000;
constexpr long FIRST_PAUSE_MS = 50;
constexpr long LONGEST_PAUSE_MS = 5000;
constexpr std::chrono::seconds LAST_ATTEMPTS{1};
constexpr std::chrono::minutes FAILURE_LOG_INTERVAL{1};

} // namespace

DataCommTask::DataCommTask(const std::string& databasePath)
    : Framework::Task(NAME, "data_comm", Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY),
      mStore(databasePath) {}

bool DataCommTask::Init() {
    std::string reason;
    if (!mStore.Open(reason)) {
        LogFailure(reason);
    }
    return Framework::Task::Init();
}

bool DataCommTask::UnInit() {
    StoreRest();
    mStore.Close();
    return Framework::Task::UnInit();
}

int DataCommTask::Run() {
    while (state() != TASK_CANCELLING) {
        GetEventWaiter().WaitAndHandleEvent(WAIT_MS, MAX_BATCH);
        StoreUntilStopped();
    }
    return 0;
}

int DataCommTask::HandleMsg(const Framework::Message* message) {
    const auto* report = dynamic_cast<const Framework::DataMessage*>(message);
    if (report == nullptr) {
        return -1;
    }
    if (report->GetType() == ReportStore::ALERT_TYPE) {
        moduleLog.Warning("%s", FormatAlertLine(report->GetData()));
    }
    mBatch.push_back({0, SDK::TimeUtils::GetCurrentTimestampS(), report->GetType(), report->GetData()});
    return 0;
}

void DataCommTask::StoreUntilStopped() {
    long pauseMs = FIRST_PAUSE_MS;
    while (!StoreBatch()) {
        // True when the task is being stopped.
        if (sleep(pauseMs)) {
            return;
        }
        pauseMs = std::min(pauseMs * 2, LONGEST_PAUSE_MS);
    }
}

void DataCommTask::StoreRest() {
    const auto end = std::chrono::steady_clock::now() + LAST_ATTEMPTS;
    do {
        BulkConsumeMsg(MAX_BATCH);
        while (!StoreBatch()) {
            if (std::chrono::steady_clock::now() >= end) {
                const std::size_t givenUp = mBatch.size() + GetQueueDepth();
                Framework::Counters::Of("reports.given_up").Add(givenUp);
                moduleLog.Error("%z reports could not be stored before the stop and are lost", givenUp);
                return;
            }
            Poco::Thread::sleep(FIRST_PAUSE_MS);
        }
    } while (GetQueueDepth() > 0);
}

bool DataCommTask::StoreBatch() {
    if (mBatch.empty()) {
        return true;
    }
    std::string reason;
    if (!mStore.Append(mBatch, reason)) {
        Framework::Counters::Of("reports.write_errors").Add();
        LogFailure(reason);
        return false;
    }
    Framework::Counters::Of("reports.stored").Add(mBatch.size());
    if (mFailing) {
        mFailing = false;
        moduleLog.Notice("reports can be stored again, none of those kept in memory is lost");
    }
    mBatch.clear();
    return true;
}

void DataCommTask::LogFailure(const std::string& reason) {
    mFailing = true;
    const auto now = std::chrono::steady_clock::now();
    if (now < mNextFailureLog) {
        return;
    }
    mNextFailureLog = now + FAILURE_LOG_INTERVAL;
    moduleLog.Error("reports cannot be stored and are kept in memory, next try soon: %s", reason);
}

} // namespace Engine
