#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/filenotify/FileNotifyTask.h"
#include "agent/sdk/FileDescriptor.h"
#include "framework/Counters.h"
#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"
#include "modules/FileNotifyMessage.h"
#include "modules/FileNotifyWatchMessage.h"
#include "support/AgentAround.h"
#include "support/ChildProcess.h"
#include "support/LogRecorder.h"
#include "support/TaskHolder.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"
#include "unit/agent/filenotify/KernelView.h"

namespace TestSupport {

// One access as a watching task is told of it.
struct Access {
    int pid = 0;
    std::string path;

    bool operator==(const Access&) const = default;
};

inline void PrintTo(const Access& access, std::ostream* out) {
    *out << access.pid << " " << access.path;
}

// A task that watches and writes down what it is told, unless it is made one that takes nothing from
// its queue.
class WatchingTask : public Framework::Task, public Engine::AbstractMessageReceiver {
public:
    enum class Appetite { All, None };

    explicit WatchingTask(const std::string& name = "test_watcher", unsigned int capacity = 1024,
                          Appetite appetite = Appetite::All)
        : Framework::Task(name, "test", Framework::TaskCondition::TaskType::Thread, capacity), mAppetite(appetite) {}

    int Run() override {
        while (!isCancelled()) {
            if (mAppetite == Appetite::All) {
                GetEventWaiter().WaitAndHandleEvent(1000, 128);
            } else {
                WaitFor([this] { return isCancelled(); });
            }
        }
        return 0;
    }

    int FileNotifyMessageAction(const Engine::FileNotifyMessage* message) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mAccesses.push_back({message->GetEventProcessId(), message->GetEventFilePath()});
        return 0;
    }

    // In the order of telling.
    std::vector<Access> Accesses() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mAccesses;
    }

    bool WasTold(const Access& access) const {
        const std::vector<Access> accesses = Accesses();
        return std::find(accesses.begin(), accesses.end(), access) != accesses.end();
    }

private:
    const Appetite mAppetite;
    mutable std::mutex mMutex;
    std::vector<Access> mAccesses;
};

// Another process, which accesses files when it is told to and lives as long as this object.
class Visitor {
public:
    Visitor() : mChild(ChildProcess::Fork(Body())) {}
    // A member of the group.
    explicit Visitor(const TempCgroup& group) : mChild(ChildProcess::ForkIn(group, Body())) {}

    int Pid() const { return mChild.Pid(); }

    // Opens and closes the file.
    void Open(const std::string& path) { Do('r', path); }
    // Opens it, writes a byte and closes it.
    void Write(const std::string& path) { Do('w', path); }

private:
    // Both ends of a connection that keeps messages apart.
    struct Line {
        Line() {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
                throw std::runtime_error("no socket pair");
            }
            ours.Reset(ends[0]);
            theirs.Reset(ends[1]);
        }

        SDK::FileDescriptor ours;
        SDK::FileDescriptor theirs;
    };

    // Only what a signal handler may do: the test has threads.
    std::function<void()> Body() const {
        return [fd = mLine.theirs.Get()] {
            char order[4096];
            for (ssize_t length = 0; (length = recv(fd, order, sizeof(order) - 1, 0)) > 1;) {
                order[length] = '\0';
                const bool writes = order[0] == 'w';
                const int file = open(order + 1, (writes ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
                const bool done = file >= 0 && (!writes || write(file, "x", 1) == 1);
                close(file);
                static_cast<void>(send(fd, done ? "+" : "-", 1, 0) < 0);
            }
        };
    }

    void Do(char what, const std::string& path) {
        const std::string order = what + path;
        char answer = 0;
        if (send(mLine.ours.Get(), order.data(), order.size(), 0) < 0 || recv(mLine.ours.Get(), &answer, 1, 0) != 1 ||
            answer != '+') {
            throw std::runtime_error("the visitor cannot access " + path);
        }
    }

    Line mLine;
    ChildProcess mChild;
};

// A file-notification task in a real engine on the real kernel, a task that watches, a visitor, and a
// file system of the test's own, on which all that is watched lies.
class FileNotifyTest : public testing::Test {
protected:
    static constexpr const char* WATCHER = "test_watcher";

    void SetUp() override {
        if (const std::string reason = WhyNoFanotify() + WhyNoMount(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mMount = std::make_unique<TempMount>();
        mNotify = mNotifyHolder.Start(new Engine::FileNotifyTask);
    }

    void TearDown() override {
        mWatcherHolder.End();
        mNotifyHolder.End();
    }

    void StartWatcher(unsigned int capacity = 1024, WatchingTask::Appetite appetite = WatchingTask::Appetite::All) {
        mWatcher = mWatcherHolder.Start(new WatchingTask(WATCHER, capacity, appetite));
    }

    std::string MakeFolder(const std::string& name) const {
        std::filesystem::create_directories(*mMount / name);
        return *mMount / name;
    }

    static Engine::_FileNotifyOpt Adding() {
        Engine::_FileNotifyOpt options;
        options.add = 1;
        options.children = 1;
        return options;
    }

    static Engine::_FileNotifyOpt AddingMount() {
        Engine::_FileNotifyOpt options = Adding();
        options.mount = 1;
        return options;
    }

    static Engine::_FileNotifyOpt Removing() {
        Engine::_FileNotifyOpt options;
        options.remove = 1;
        return options;
    }

    static std::shared_ptr<Framework::Message> Request(const WatchingTask& watcher, const std::string& path,
                                                       const Engine::_FileNotifyOpt& options,
                                                       std::uint64_t mask = FAN_OPEN) {
        return std::make_shared<Engine::FileNotifyWatchMessage>(
            &watcher, path, Engine::FileNotifyWatchMessage::EventMasks{mask}, options);
    }

    void Send(const WatchingTask& watcher, const std::string& path, const Engine::_FileNotifyOpt& options,
              std::uint64_t mask = FAN_OPEN) {
        std::shared_ptr<Framework::Message> request = Request(watcher, path, options, mask);
        EXPECT_TRUE(mNotify->EnqueueMsg(request));
    }

    void Watch(const std::string& path) { Send(*mWatcher, path, Adding()); }
    void Unwatch(const std::string& path) { Send(*mWatcher, path, Removing()); }

    bool AwaitTold(int pid, const std::string& path) const {
        return WaitFor([&] { return mWatcher->WasTold({pid, path}); });
    }

    // What the counter has grown by since the test began.
    std::uint64_t Counted(const std::string& name) const {
        const auto before = mCountersBefore.find(name);
        return Framework::Counters::Of(name).Get() - (before == mCountersBefore.end() ? 0 : before->second);
    }

    bool AwaitCounted(const std::string& name, std::uint64_t count) const {
        return WaitFor([&] { return Counted(name) >= count; });
    }

    // What the task says of its watchers.
    static Json::Value Described(const std::string& task, std::size_t marks, std::size_t failedMarks) {
        Json::Value watcher(Json::objectValue);
        watcher["task"] = task;
        watcher["marks"] = Json::UInt64{marks};
        watcher["failed_marks"] = Json::UInt64{failedMarks};
        return watcher;
    }

    static Json::Value ListOf(const std::vector<Json::Value>& watchers) {
        Json::Value list(Json::arrayValue);
        for (const Json::Value& watcher : watchers) {
            list.append(watcher);
        }
        return list;
    }

    // The marks that the kernel has for the one group that there is.
    static std::size_t CountKernelMarks() {
        const std::vector<int> groups = ListGroups();
        EXPECT_EQ(groups.size(), 1U);
        return groups.empty() ? 0 : ListMarks(groups.front()).size();
    }

    static std::string CannotWatch(const std::string& path, const std::string& reason) {
        return "file accesses in [" + path + "] cannot be watched: " + reason;
    }

    const std::map<std::string, std::uint64_t> mCountersBefore = Framework::Counters::Snapshot();
    Visitor mVisitor; // before the first thread
    std::unique_ptr<TempMount> mMount;
    AgentAround mAgent;
    LogRecorder mLog;
    TaskHolder mNotifyHolder{"test_notify"};
    TaskHolder mWatcherHolder{"test_watching"};
    Poco::AutoPtr<Engine::FileNotifyTask> mNotify;
    Poco::AutoPtr<WatchingTask> mWatcher;
};

} // namespace TestSupport
