#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Task.h>

#include "LocklessQueue.h"
#include "framework/EventWaiter.h"
#include "framework/Message.h"
#include "framework/TaskCondition.h"

namespace Framework {

// A worker with a thread and a message queue of its own.
//
// Life: constructed by a module and handed to Module::RegisterTask, from where on the framework owns
// it → Init → Run, on the task's thread, as its condition says → cancelled → thread joined → UnInit →
// destroyed. Init and UnInit run on the framework's thread, never at the same time as Run.
//
// Any thread may send to a task; only the task's own thread takes from its queue.
//
// The queue is bounded. A full queue refuses the message, the loss is counted (GetLostCount) and
// logged at most once a second; the sender never waits.
class Task : public Poco::Task {
public:
    // `capacity` is the most messages that the queue holds at once.
    Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
         unsigned int capacity);
    ~Task() override;

    // The task's body as Poco knows it: calls Run as the condition says until the task is cancelled.
    void runTask() override;

    // Called once before the first Run. False: the task is not started.
    virtual bool Init();

    // Called once after the last Run, also when Init failed. Its result is only logged.
    virtual bool UnInit();

    // The work. Without a period it lasts until state() is TASK_CANCELLING; with one it is called
    // once a period. The result is only logged when it is not 0.
    virtual int Run() = 0;

    // Puts a message in the queue and wakes the task. False when the queue is full or the message is
    // null. Thread-safe.
    virtual bool EnqueueMsg(std::shared_ptr<Message>& message);

    // The same without waking the task, which takes the message out when it next wakes: the caller owes it a
    // Wake.
    bool EnqueueMsgQuietly(std::shared_ptr<Message>& message);
    void Wake() { mEvent.Signal(); }

    // EnqueueMsg with several messages, none of them null, in their order: the task is woken once. Returns how
    // many were taken, which are the first ones.
    std::size_t EnqueueMsgs(std::vector<std::shared_ptr<Message>> messages);

    // Called first thing by EnqueueMsg, on the sender's thread: true takes the message out of the
    // queue's hands, and so does an exception, which is logged and counted. The default takes none.
    virtual bool InterceptMsg(std::shared_ptr<Message>& message);

    // Handles one message on the task's thread. The default hands it to this task's
    // Engine::AbstractMessageReceiver base, if it has one. Returns 0 when it was handled.
    virtual int HandleMsg(const Message* message);

    // Handles at most `max` queued messages on the calling thread, which must be the task's own.
    // Returns how many. What a handler throws is caught, logged and counted. Needs no memory of its own.
    int BulkConsumeMsg(int max);

    // Sends to the running task of that name. Ownership of `message` passes to the framework whatever
    // the result; false when there is no such task or its queue is full (both counted). Thread-safe.
    bool SendDirectMsg(const std::string& taskName, Message* message);

    // Asks the task to end soon; returns at once. Also holds when the thread has not begun to run yet,
    // and wakes a task that sleeps or waits for messages. Thread-safe.
    void RequestStop();

    // The same; the way that Poco knows.
    void cancel() override { RequestStop(); }

    // These stand in for Poco's operations of the same names, which read a plain variable that other
    // threads write. Thread-safe.
    TaskState state() const;
    bool isCancelled() const { return mStopRequested.load(std::memory_order_acquire); }

    const std::string& GetFeatureName() const { return mFeatureName; }
    TaskCondition& GetCondition() { return mCondition; }

    // Differs between any two tasks of this process, also between two of one name.
    std::uint64_t GetInstanceId() const { return mInstanceId; }

    unsigned int GetQueueCapacity() const { return mCapacity; }
    // How many messages wait; a snapshot.
    unsigned int GetQueueDepth() const;
    // Messages refused because the queue was full.
    std::uint64_t GetLostCount() const { return mLost.load(std::memory_order_relaxed); }

    // What GetQueueDepth etc. call the state: "idle", "starting", "running", "stopping", "finished".
    const char* GetStateName() const;

protected:
    EventWaiter& GetEventWaiter() { return mWaiter; }

private:
    friend class RunningTasks;

    void MarkStarting() { mPhase.store(TASK_STARTING, std::memory_order_release); }
    void RunPeriodically();
    void RunGuarded();
    bool InterceptGuarded(std::shared_ptr<Message>& message);
    void HandleGuarded(const Message* message);
    int ConsumePortion(int max);
    bool PutInQueue(std::shared_ptr<Message>& message);
    void CountLosses(std::size_t count);

    const std::string mFeatureName;
    const std::uint64_t mInstanceId;
    const unsigned int mCapacity;
    SDK::LocklessQueue<std::shared_ptr<Message>> mQueue;
    TaskCondition mCondition;
    std::vector<std::shared_ptr<Message>> mPortion; // room for what is taken out of the queue; empty
    Event mEvent;
    EventWaiter mWaiter;
    // How far the task has come: idle, starting, running or finished. That it shall stop is a matter of
    // its own, so that no step forward can wipe it out.
    std::atomic<TaskState> mPhase{TASK_IDLE};
    std::atomic<bool> mStopRequested{false};
    std::atomic<std::uint64_t> mLost{0};
    // Steady clock, milliseconds; 0 for never.
    std::atomic<std::int64_t> mLastLossLoggedMs{0};
};

} // namespace Framework
