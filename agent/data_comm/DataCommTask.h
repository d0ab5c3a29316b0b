#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "agent/data_comm/ReportStore.h"
#include "framework/Task.h"

namespace Engine {

// The task "data_comm_report_task": every report of the agent (Framework::DataMessage) comes here and
// is stored durably.
//
//   in the queue  ->  in the batch, in memory  ->  committed, counted as "reports.stored"
//
// What the queue holds is taken in batches, one transaction each. While a batch cannot be written
// (disk full, database locked) it is kept and tried again with growing pauses, and the queue fills up
// behind it; each failure counts as "reports.write_errors" and is logged at most once a minute, and the
// first success after it is logged, too. So the memory in use is bounded by one batch and the queue, whose overflow the
// framework counts.
//
// After the last Run, UnInit stores what the queue still holds. What cannot be written within a second
// then is given up, counted as "reports.given_up" and logged.
class DataCommTask : public Framework::Task {
public:
    static constexpr const char* NAME = "data_comm_report_task";
    static constexpr unsigned int QUEUE_CAPACITY = 10240;
    static constexpr int MAX_BATCH = 1024;

    explicit DataCommTask(const std::string& databasePath);

    // Opens the database, so that a damaged one is dealt with at the start. One that cannot be opened
    // now is tried again with every batch.
    bool Init() override;
    bool UnInit() override;

    int Run() override;

    // Takes a report into the batch, an alert with its line in the log (AlertLine.h). -1 for a message of another kind.
    int HandleMsg(const Framework::Message* message) override;

private:
    void StoreUntilStopped();
    void StoreRest();
    bool StoreBatch();
    void LogFailure(const std::string& reason);

    ReportStore mStore;
    std::vector<Report> mBatch; // used by HandleMsg, Run and UnInit, which never run at the same time
    bool mFailing = false;      // the last attempt failed; used by the same three
    std::chrono::steady_clock::time_point mNextFailureLog;
};

} // namespace Engine
