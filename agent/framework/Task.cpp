#include "framework/Task.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "agent/framework/Guard.h"
#include "framework/Counters.h"
#include "framework/Engine.h"
#include "modules/AbstractMessageReceiver.h"
#include "sdk/ModuleLog.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t LOSS_LOG_INTERVAL_MS = 1000;

// How many messages are taken out of the queue at once.
constexpr int PORTION = 128;

std::uint64_t NextInstanceId() {
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

} // namespace

Task::Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
           unsigned int capacity)
    : Poco::Task(taskName), mFeatureName(featureName), mInstanceId(NextInstanceId()), mCapacity(capacity),
      mQueue(capacity, false, true), mCondition(type),
      mWaiter(mEvent, [this](int max) { return BulkConsumeMsg(max); }) {
    mPortion.reserve(PORTION);
}

Task::~Task() = default;

void Task::runTask() {
    mPhase.store(TASK_RUNNING, std::memory_order_release);
    if (!isCancelled()) {
        if (mCondition.IsPeriodic()) {
            RunPeriodically();
        } else {
            RunGuarded();
        }
    }
    mPhase.store(TASK_FINISHED, std::memory_order_release);
}

bool Task::Init() {
    return true;
}

bool Task::UnInit() {
    return true;
}

bool Task::EnqueueMsg(std::shared_ptr<Message>& message) {
    if (!message) {
        return false;
    }
    if (InterceptGuarded(message)) {
        return true;
    }
    const bool taken = PutInQueue(message);
    if (taken) {
        mEvent.Signal();
    }
    return taken;
}

bool Task::EnqueueMsgQuietly(std::shared_ptr<Message>& message) {
    return message && (InterceptGuarded(message) || PutInQueue(message));
}

bool Task::PutInQueue(std::shared_ptr<Message>& message) {
    const bool taken = mQueue.Enqueue(message);
    if (!taken) {
        CountLosses(1);
    }
    return taken;
}

std::size_t Task::EnqueueMsgs(std::vector<std::shared_ptr<Message>> messages) {
    const std::size_t intercepted =
        std::erase_if(messages, [this](std::shared_ptr<Message>& message) { return InterceptGuarded(message); });
    if (messages.empty()) {
        return intercepted;
    }
    const std::size_t taken = mQueue.EnqueueBulk(messages, static_cast<int>(messages.size()));
    if (taken > 0) {
        mEvent.Signal();
    }
    const std::size_t lost = messages.size() - taken;
    if (lost > 0) {
        CountLosses(lost);
    }
    return intercepted + taken;
}

bool Task::InterceptMsg(std::shared_ptr<Message>& /*message*/) {
    return false;
}

int Task::HandleMsg(const Message* message) {
    auto* receiver = dynamic_cast<::Engine::AbstractMessageReceiver*>(this);
    if (receiver == nullptr || message == nullptr) {
        return -1;
    }
    message->DeliverTo(*receiver);
    return 0;
}

int Task::BulkConsumeMsg(int max) {
    int handled = 0;
    int taken = 0;
    do {
        taken = ConsumePortion(std::clamp(max - handled, 0, PORTION));
        handled += taken;
    } while (taken == PORTION);
    return handled;
}

// A handler that itself consumes finds the portion taken away, and an empty one in its place.
int Task::ConsumePortion(int max) {
    std::vector<std::shared_ptr<Message>> portion;
    portion.swap(mPortion);
    const unsigned int count = mQueue.DequeueBulk(portion, max);
    for (std::shared_ptr<Message>& message : portion) {
        HandleGuarded(message.get());
        message.reset();
    }
    portion.clear();
    portion.swap(mPortion);
    return static_cast<int>(count);
}

bool Task::SendDirectMsg(const std::string& taskName, Message* message) {
    static Counter& undeliverable = Counters::Of("messages.undeliverable");
    std::shared_ptr<Message> owned(message);
    Poco::AutoPtr<Task> receiver = Engine::FindTask(taskName);
    if (!receiver) {
        undeliverable.Add();
        moduleLog.Debug("task [%s]: no task [%s] runs that a message could be sent to", name(), taskName);
        return false;
    }
    return receiver->EnqueueMsg(owned);
}

void Task::RequestStop() {
    // Poco's cancel writes its state without a lock, so it is called once in a task's life; it is what
    // ends a sleep().
    if (!mStopRequested.exchange(true, std::memory_order_acq_rel)) {
        Poco::Task::cancel();
        mEvent.Signal();
    }
}

Task::TaskState Task::state() const {
    const TaskState phase = mPhase.load(std::memory_order_acquire);
    return phase != TASK_FINISHED && isCancelled() ? TASK_CANCELLING : phase;
}

unsigned int Task::GetQueueDepth() const {
    return mQueue.GetDepth();
}

const char* Task::GetStateName() const {
    switch (state()) {
    case TASK_STARTING:
        return "starting";
    case TASK_RUNNING:
        return "running";
    case TASK_CANCELLING:
        return "stopping";
    case TASK_FINISHED:
        return "finished";
    case TASK_IDLE:
        break;
    }
    return "idle";
}

// Runs are due at fixed distances from the start, however long each takes. When one takes longer than
// its period the runs that it ate up are left out: the next is due one period after its end.
void Task::RunPeriodically() {
    Clock::time_point due = Clock::now();
    for (;;) {
        const std::chrono::seconds period(mCondition.GetTaskCondition());
        const Clock::time_point now = Clock::now();
        due += period;
        if (due < now) {
            due = now + period;
        }
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(due - now);
        if (sleep(static_cast<long>(wait.count())) || isCancelled()) {
            return;
        }
        RunGuarded();
    }
}

void Task::RunGuarded() {
    CallGuarded("task", name(), "Run", [this] {
        const int result = Run();
        if (result != 0) {
            moduleLog.Warning("task [%s]: Run returned %d", name(), result);
        }
    });
}

// The sender is not to suffer for what the receiver throws.
bool Task::InterceptGuarded(std::shared_ptr<Message>& message) {
    bool taken = true;
    CallGuarded("task", name(), "InterceptMsg", [&] { taken = InterceptMsg(message); });
    return taken;
}

void Task::HandleGuarded(const Message* message) {
    CallGuarded("task", name(), "HandleMsg", [this, message] { HandleMsg(message); });
}

void Task::CountLosses(std::size_t count) {
    static Counter& allLost = Counters::Of("queue.lost");
    allLost.Add(count);
    const std::uint64_t lost = mLost.fetch_add(count, std::memory_order_relaxed) + count;
    const std::int64_t nowMs = NowMs();
    std::int64_t lastMs = mLastLossLoggedMs.load(std::memory_order_relaxed);
    const bool due = lastMs == 0 || nowMs - lastMs >= LOSS_LOG_INTERVAL_MS;
    // Of several senders that find the record due, one writes it.
    if (due && mLastLossLoggedMs.compare_exchange_strong(lastMs, nowMs, std::memory_order_relaxed)) {
        moduleLog.Warning("task [%s]: the queue of %u messages is full, %?d lost so far", name(), mCapacity, lost);
    }
}

} // namespace Framework
