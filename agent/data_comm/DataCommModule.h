#pragma once

#include <mutex>
#include <string>

#include "agent/data_comm/ReportStore.h"
#include "framework/Module.h"
#include "framework/ModuleInspector.h"

namespace Engine {

// The module "data_comm_module": one task, DataCommTask, which runs from Init to UnInit whatever the
// policy says.
class DataCommModule : public Framework::Module {
public:
    static constexpr const char* NAME = "data_comm_module";

    DataCommModule();

    int Init() override;
};

// Answers questions about the history of reports.
//
//   {"query": "reports", "type"?, "since"?, "after"?, "limit"?, "newest_first"?}
//       -> {"reports": [{"id", "time", "type", "data"}]}
//   {"query": "count"}
//       -> {"total", "alerts"}
//   {"query": "alert_summary", "since"?}
//       -> {"programs": [{"path", "hash", "count", "first_seen", "last_seen", "users"}], "complete"}
//
// "since" is in seconds, "after" an id; "data" is the document as it was sent, a string when it is
// not a document. Every question opens a read connection, so that any number of threads may ask and
// a database that was replaced is never read from its old file.
class DataCommInspector : public Framework::ModuleInspector {
public:
    Json::Value Ask(const Json::Value& request) override;

private:
    Json::Value CountReports();

    std::mutex mMutex;
    ReportCounts mCounts; // under mMutex; of the latest question, which the next goes on from
};

// Where the history lies in this installation.
std::string GetReportsPath();

} // namespace Engine
