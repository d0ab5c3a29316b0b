#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>

#include "framework/Engine.h"
#include "framework/Module.h"
#include "modules/ProcsRegistMessage.h"
#include "support/FakeTasks.h"

namespace TestSupport {

// The task "procs_real_task": keeps every subscription, as soon as it is sent.
class SubscriptionRecorder : public Idle<Framework::Task> {
public:
    SubscriptionRecorder() : Idle("procs_real_task") {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto& subscription = dynamic_cast<const Engine::ProcsRegistMessage&>(*message);
        const std::lock_guard<std::mutex> lock(mMutex);
        mSubscriptions.push_back({subscription.GetSubscriberName(), subscription.GetKind()});
        return true;
    }

    // The kinds that a task of that name has subscribed to, in the order of sending.
    std::vector<unsigned int> KindsOf(const std::string& subscriber) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::vector<unsigned int> kinds;
        for (const Subscription& subscription : mSubscriptions) {
            if (subscription.subscriber == subscriber) {
                kinds.push_back(subscription.kind);
            }
        }
        return kinds;
    }

private:
    struct Subscription {
        std::string subscriber;
        unsigned int kind = 0;
    };

    mutable std::mutex mMutex;
    std::vector<Subscription> mSubscriptions;
};

// The agent around the module under test: a real engine in which the tasks that the module talks to
// run and record. The module itself is the test's to add (engine.AddModule), or stays out where only
// parts of it are looked at.
//
// A LogRecorder is made after it: an application that comes to life directs the logs to its own place.
class AgentAround {
public:
    AgentAround()
        : mSiblings(new Framework::Module("test_siblings")), mReports(new ReportRecorder),
          mSubscriptions(new SubscriptionRecorder), mProcesses(new FakeProcsFullTask) {
        engine.AddModule(mSiblings);
        Start(mReports);
        Start(mSubscriptions);
        Start(mProcesses);
    }
    AgentAround(const AgentAround&) = delete;
    AgentAround& operator=(const AgentAround&) = delete;

    ReportRecorder& Reports() { return *mReports; }
    SubscriptionRecorder& Subscriptions() { return *mSubscriptions; }
    FakeProcsFullTask& Processes() { return *mProcesses; }

    // Has the engine run the task; the caller keeps a share of it.
    void Start(const Poco::AutoPtr<Framework::Task>& task) {
        Poco::AutoPtr<Framework::Task> handedOver = task;
        mSiblings->RegisterTask(handedOver.duplicate(), true);
    }

    Framework::Engine engine;

private:
    Framework::Module* mSiblings; // the engine's
    Poco::AutoPtr<ReportRecorder> mReports;
    Poco::AutoPtr<SubscriptionRecorder> mSubscriptions;
    Poco::AutoPtr<FakeProcsFullTask> mProcesses;
};

} // namespace TestSupport
