#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/process_collect/ProcConnector.h"
#include "agent/process_collect/ProcsRealTask.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"
#include "modules/ProcsRegistMessage.h"
#include "sdk/Shortage.h"
#include "support/ChildProcess.h"
#include "support/TaskHolder.h"
#include "support/WaitFor.h"

namespace TestSupport {

// A gate that is open until it is closed.
class Gate {
public:
    void Close() { Set(false); }
    void Open() { Set(true); }
    void Pass() {
        std::unique_lock<std::mutex> lock(mMutex);
        ++mWaiting;
        mChanged.wait(lock, [this] { return mOpen; });
        --mWaiting;
    }
    // True while somebody stands before it.
    bool HoldsSomebody() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return !mOpen && mWaiting > 0;
    }

private:
    void Set(bool open) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mOpen = open;
        mChanged.notify_all();
    }

    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOpen = true;
    int mWaiting = 0;
};

// A task that subscribes to all three kinds of process event and writes down what it is told.
class Receiver : public Framework::Task, public Engine::AbstractMessageReceiver {
public:
    struct Event {
        unsigned int kind;
        int pid;
        int parentPid;
    };

    explicit Receiver(unsigned int capacity = 10240, const std::string& name = "test_receiver")
        : Framework::Task(name, "test", Framework::TaskCondition::TaskType::Thread, capacity) {}

    int Run() override {
        for (unsigned int kind = 1; kind <= 3; ++kind) {
            SendDirectMsg("procs_real_task", new Engine::ProcsRegistMessage(kind, this));
        }
        while (state() != TASK_CANCELLING) {
            GetEventWaiter().WaitAndHandleEvent(1000, 128);
        }
        return 0;
    }

    bool InterceptMsg(std::shared_ptr<Framework::Message>& /*message*/) override {
        senders.Pass();
        return false;
    }

    void ProcsMessageAction(int pid, unsigned int kind, std::shared_ptr<Engine::ProcsMessage::procInfo> info) override {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back({kind, pid, info ? info->ppid : -1});
        }
        if (kind == 1 && starvations.fetch_sub(1) > 0) {
            SDK::Shortage::Note(EMFILE);
        }
        handling.Pass();
    }

    std::vector<Event> Events() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }

    std::vector<Event> EventsOf(int pid) const {
        std::vector<Event> events = Events();
        std::erase_if(events, [pid](const Event& event) { return event.pid != pid; });
        return events;
    }

    // The kinds of what it was told of the process, in order.
    std::vector<unsigned int> KindsOf(int pid) const {
        std::vector<unsigned int> kinds;
        for (const Event& event : EventsOf(pid)) {
            kinds.push_back(event.kind);
        }
        return kinds;
    }

    bool WasTold(unsigned int kind, int pid) const {
        const std::vector<unsigned int> kinds = KindsOf(pid);
        return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
    }

    Gate senders;  // closed: whoever sends to this task is held up
    Gate handling; // closed: this task is held up after the next message

    // So many of the next executions are handled without a descriptor to look at the process.
    std::atomic<int> starvations{0};

private:
    mutable std::mutex mMutex;
    std::vector<Event> mEvents;
};

// A program start and its end that are told to the receiver prove that its subscriptions are in force
// and that all earlier events have been told.
inline bool AwaitLive(const Receiver& receiver) {
    return WaitFor([&receiver] {
        ChildProcess probe = ChildProcess::Spawn({"/bin/true"});
        const int pid = probe.Pid();
        probe.Wait();
        return WaitFor([&] { return receiver.WasTold(1, pid) && receiver.WasTold(3, pid); },
                       std::chrono::milliseconds(500));
    });
}

} // namespace TestSupport
