#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/Message.h"
#include "modules/FileNotifyWatchMessage.h"
#include "modules/IsolateTask.h"
#include "modules/ProcsFullTask.h"

namespace TestSupport {

// A base made a task that does nothing but run until it is stopped.
template <typename Base> class Idle : public Base {
public:
    explicit Idle(const std::string& name)
        : Base(name, "test_feature", Framework::TaskCondition::TaskType::Thread, 1024) {}

    int Run() override {
        while (this->state() != Poco::Task::TASK_CANCELLING) {
            this->GetEventWaiter().WaitAndHandleEvent(LONG_MS, 16);
        }
        return 0;
    }

private:
    // Longer than any test may last.
    static constexpr int LONG_MS = 3600 * 1000;
};

using IdleTask = Idle<Framework::Task>;

// The task "data_comm_report_task": keeps every report, as soon as it is sent, in the order of sending.
class ReportRecorder : public Idle<Framework::Task> {
public:
    struct Report {
        std::string type;
        std::string data;
    };

    ReportRecorder() : Idle("data_comm_report_task") {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto& report = dynamic_cast<const Framework::DataMessage&>(*message);
        const std::lock_guard<std::mutex> lock(mMutex);
        mReports.push_back({report.GetType(), report.GetData()});
        return true;
    }

    std::vector<Report> Reports() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mReports;
    }

    // The documents of the reports of that type.
    std::vector<std::string> Of(const std::string& type) const {
        std::vector<std::string> documents;
        for (const Report& report : Reports()) {
            if (report.type == type) {
                documents.push_back(report.data);
            }
        }
        return documents;
    }

    void Clear() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReports.clear();
    }

private:
    mutable std::mutex mMutex;
    std::vector<Report> mReports;
};

// The task "filenotify_task": keeps every watch request, as soon as it is sent, and marks nothing.
class WatchRecorder : public Idle<Framework::Task> {
public:
    using Request = std::shared_ptr<const Engine::FileNotifyWatchMessage>;

    WatchRecorder() : Idle("filenotify_task") {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.push_back(std::dynamic_pointer_cast<const Engine::FileNotifyWatchMessage>(message));
        return true;
    }

    // In the order of sending; null for what was no watch request.
    std::vector<Request> Requests() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mRequests;
    }

private:
    mutable std::mutex mMutex;
    std::vector<Request> mRequests;
};

// The task "procs_full_task" with a table of the test's making.
class FakeProcsFullTask : public Idle<Engine::ProcsFullTask> {
public:
    FakeProcsFullTask() : Idle("procs_full_task") {}

    ProcsMap GetProcsMap() const override {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mProcesses;
    }

    void Set(ProcsMap processes) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mProcesses = std::move(processes);
    }

private:
    mutable std::mutex mMutex;
    ProcsMap mProcesses;
};

// The task "isolate_task": does nothing to anybody, keeps what it was asked, answers as told.
class FakeIsolateTask : public Idle<Engine::IsolateTask> {
public:
    struct Call {
        int pid = 0;
        std::string path;
        bool kill = false;
        bool chmod = false;
        bool quarantine = false;
    };

    FakeIsolateTask() : Idle("isolate_task") {}

    bool Isolate(int pid, const std::string& path, bool& kill, bool& chmod, bool& quarantine) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back({pid, path, kill, chmod, quarantine});
        kill = kill && mKillWorks;
        chmod = chmod && mChmodWorks;
        return mKillWorks && mChmodWorks;
    }

    // What the next calls answer.
    void Answer(bool killWorks, bool chmodWorks) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mKillWorks = killWorks;
        mChmodWorks = chmodWorks;
    }

    std::vector<Call> Calls() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }

private:
    mutable std::mutex mMutex;
    std::vector<Call> mCalls;
    bool mKillWorks = true;
    bool mChmodWorks = true;
};

} // namespace TestSupport
