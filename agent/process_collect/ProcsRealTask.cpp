#include "agent/process_collect/ProcsRealTask.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <utility>

#include <pthread.h>

#include "agent/process_collect/PollTimeout.h"
#include "framework/Engine.h"
#include "framework/Scope.h"
#include "modules/ProcsMessage.h"
#include "modules/ProcsRegistMessage.h"
#include "sdk/ModuleLog.h"
#include "sdk/Shortage.h"
#include "sdk/TimeUtils.h"

namespace Engine {

static SDK::ModuleLog moduleLog("process_collect");

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int QUEUE_CAPACITY = 1024;
constexpr int MAX_MESSAGES = 128;

// How long the task sleeps when nothing is due; a message or the stop wakes it.
constexpr int IDLE_WAIT_MS = 3600 * 1000;

// What is due after a loss is done at most this often: whoever overran a buffer or a queue is still
// busy, and a comparison with /proc costs most just then.
constexpr std::chrono::milliseconds CATCH_UP_INTERVAL{100};

constexpr std::chrono::seconds LOSS_LOG_INTERVAL{1};

// How long the reader waits after an error that it cannot explain, so as not to spin on it.
constexpr std::chrono::milliseconds ERROR_PAUSE{100};

// The same while there is a want of descriptors or memory, which looking again and again makes no better.
constexpr std::chrono::milliseconds SHORTAGE_INTERVAL{1000};

// New programs are looked at when none has started for so long, or when there are so many.
constexpr int DESCRIPTION_PAUSE_MS = 5;
constexpr std::ptrdiff_t MAX_UNDESCRIBED = 256;

// How long a parent may be held up between the event of its fork and the moves that follow.
constexpr std::uint64_t MAX_DOUBT_NS = 1'000'000'000;

// From a thread that may not know whether the task still is. Takes no memory: want of it may be what is due.
void WakeRunningTask() {
    if (Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask(ProcsRealTask::NAME)) {
        task->Wake();
    }
}

// Runs `body` on a thread of its own from construction on; on the way out `stop` makes it return.
class ScopedThread {
public:
    template <typename Body, typename Stop>
    ScopedThread(Body body, Stop stop) : mStop(std::move(stop)), mThread(std::move(body)) {}
    ~ScopedThread() {
        mStop();
        mThread.join();
    }
    ScopedThread(const ScopedThread&) = delete;
    ScopedThread& operator=(const ScopedThread&) = delete;

private:
    const std::function<void()> mStop;
    std::thread mThread;
};

} // namespace

ProcsRealTask::ProcsRealTask(std::unique_ptr<ProcConnector> connector)
    : Framework::Task(NAME, "process_collect", Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY),
      mConnector(std::move(connector)), mAnnouncer(WakeRunningTask), mExecs(Framework::Counters::Of("events.exec")),
      mForkCount(Framework::Counters::Of("events.fork")), mExits(Framework::Counters::Of("events.exit")),
      mLost(Framework::Counters::Of("events.lost")), mFolded(Framework::Counters::Of("events.folded")),
      mOverflows(Framework::Counters::Of("events.overflow")), mGarbled(Framework::Counters::Of("events.garbled")) {}

int ProcsRealTask::Run() {
    // The connector listens already, so a process is in /proc now or its events are still to come.
    const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
    CompareAfterThrowing([this] { mAnnouncer.Fill(); });
    if (SDK::Shortage::CountOfThread() != shortagesBefore) {
        mRescanDue.store(true);
    }
    const ScopedThread reader([this] { ReadUntilStopped(); },
                              [this] {
                                  mStopping.store(true);
                                  mStop.Signal();
                              });
    int waitMs = IDLE_WAIT_MS;
    while (state() != TASK_CANCELLING) {
        GetEventWaiter().WaitAndHandleEvent(waitMs, MAX_MESSAGES);
        waitMs = CatchUp();
    }
    return 0;
}

int ProcsRealTask::HandleMsg(const Framework::Message* message) {
    if (const auto* registration = dynamic_cast<const ProcsRegistMessage*>(message)) {
        const unsigned int kind = registration->GetKind();
        if (kind < ProcsMessage::KIND_EXEC || kind > ProcsMessage::KIND_EXIT) {
            moduleLog.Error("task [%s] asked for process events of kind %u, which there is not",
                            registration->GetSubscriberName(), kind);
            return -1;
        }
        mAnnouncer.Subscribe(kind, registration->GetSubscriberName(), registration->GetSubscriberInstance());
        return 0;
    }
    return Framework::Task::HandleMsg(message);
}

// Does what is due, unless that was done a moment ago. Returns how long the task may sleep.
int ProcsRealTask::CatchUp() {
    if (!mRescanDue.load() && !mAnnouncer.HasDebts()) {
        return IDLE_WAIT_MS;
    }
    const auto now = Clock::now();
    if (now >= mNextCatchUp) {
        bool isComplete = false;
        CompareAfterThrowing([&] { isComplete = CatchUpNow(); });
        mNextCatchUp = now + (isComplete ? CATCH_UP_INTERVAL : SHORTAGE_INTERVAL);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(mNextCatchUp - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 1));
}

// False when there was a want of descriptors or memory: not all of it could be done.
bool ProcsRealTask::CatchUpNow() {
    const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
    const bool doubted = mAnnouncer.DoubtUnnoted();
    if (mRescanDue.exchange(false) || doubted) {
        mAnnouncer.Rescan();
    }
    const bool starved = mAnnouncer.Settle();
    if (SDK::Shortage::CountOfThread() != shortagesBefore) {
        mRescanDue.store(true);
        return false;
    }
    return !starved && !doubted;
}

void ProcsRealTask::ReadUntilStopped() {
    pthread_setname_np(pthread_self(), "procs_reader");
    while (WaitForEvents()) {
        const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
        CompareAfterThrowing([this] {
            ReadEvents();
            HoldNewForks();
            TellDueForks();
        });
        if (SDK::Shortage::CountOfThread() != shortagesBefore) {
            mRescanDue.store(true);
        }
        CompareAfterThrowing([this] {
            mAnnouncer.WakeSubscribers();
            if (mRescanDue.load() || mAnnouncer.HasDebts()) {
                Wake();
            }
        });
    }
}

// Does the work. When it throws, for want of memory for example, whatever was not told because of that is found by a
// comparison.
template <typename Work> void ProcsRealTask::CompareAfterThrowing(const Work& work) {
    try {
        work();
        return;
    } catch (const std::exception& error) {
        moduleLog.Error("process events were dropped: %s", error.what());
    } catch (...) {
        moduleLog.Error("process events were dropped: an exception of an unknown type");
    }
    mAnnouncer.OnRead(false);
    mRescanDue.store(true);
}

// False when the reader is to stop.
bool ProcsRealTask::WaitForEvents() {
    mConnector->Wait(mStop.GetFd(), GetTimeoutMs());
    return !mStopping.load();
}

// How long until the reader has something to do without an event; -1 for ever.
int ProcsRealTask::GetTimeoutMs() const {
    const auto now = Clock::now();
    int timeoutMs = -1;
    for (const int each :
         {mForks.GetTimeoutMs(now), mDoubtfulForks.GetTimeoutMs(now), mUndescribed > 0 ? DESCRIPTION_PAUSE_MS : -1}) {
        timeoutMs = ShorterTimeout(timeoutMs, each);
    }
    return timeoutMs;
}

void ProcsRealTask::ReadEvents() {
    mEvents.clear();
    const ProcConnector::Outcome outcome = mConnector->Read(mEvents);
    mAnnouncer.OnRead(outcome.overflows == 0);
    CountGarbled();
    std::for_each(mEvents.begin(), mEvents.end(), [this](const ProcEvent& event) { HandleEvent(event); });
    DescribeNewPrograms(outcome.overflows == 0);
    // Behind what was read, so that the comparison has it.
    if (outcome.overflows > 0) {
        HandleOverflows(outcome.overflows);
    }
    if (outcome.error != 0) {
        moduleLog.Error("the proc connector cannot be read: %s", std::strerror(outcome.error));
        std::this_thread::sleep_for(ERROR_PAUSE);
    }
}

void ProcsRealTask::DescribeNewPrograms(bool isComplete) {
    const auto starts = std::count_if(mEvents.begin(), mEvents.end(),
                                      [](const ProcEvent& event) { return event.kind == ProcsMessage::KIND_EXEC; });
    mUndescribed += starts;
    if (!isComplete) {
        mAnnouncer.OnRead(false);
        mUndescribed = 0;
    } else if (mUndescribed >= MAX_UNDESCRIBED || (mUndescribed > 0 && starts == 0)) {
        mAnnouncer.Describe();
        mUndescribed = 0;
    }
}

void ProcsRealTask::HandleEvent(const ProcEvent& event) {
    switch (event.kind) {
    case ProcsMessage::KIND_EXEC:
        HandleExec(event);
        break;
    case ProcsMessage::KIND_FORK:
        HandleFork(event);
        break;
    default:
        HandleExit(event);
        break;
    }
}

void ProcsRealTask::HandleExec(const ProcEvent& event) {
    const std::optional<ProcEvent> newFork = TakeUncountedFork(event.pid);
    const std::optional<ProcEvent> fork = newFork ? newFork : mForks.Take(event.pid);
    const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
    // Of a process that is gone already it is still known whether it was in scope before.
    const std::optional<bool> inScope = newFork ? IsForkInScope(*newFork) : Framework::Scope::Ask(event.pid);
    if (!(inScope ? *inScope : fork || mAnnouncer.Knows(event.pid))) {
        CountUnlessLookedAt(shortagesBefore);
        return;
    }
    if (newFork) {
        mForkCount.Add();
    }
    if (fork) {
        mFolded.Add();
    }
    mExecs.Add();
    mAnnouncer.OnExec(event, fork ? fork->parentPid : 0);
}

// A child that is gone already was where its parent is, or was. A fork that is passed over though there was no
// descriptor to look with is lost.
bool ProcsRealTask::IsForkInScope(const ProcEvent& fork) {
    const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
    std::optional<bool> inScope = Framework::Scope::Ask(fork.pid);
    if (!inScope) {
        inScope = Framework::Scope::Ask(fork.parentPid);
    }
    if (!inScope) {
        inScope = mForks.Holds(fork.parentPid) || mAnnouncer.Knows(fork.parentPid);
    }
    if (!*inScope) {
        CountUnlessLookedAt(shortagesBefore);
    }
    return *inScope;
}

void ProcsRealTask::CountUnlessLookedAt(std::uint64_t shortagesBefore) {
    if (SDK::Shortage::CountOfThread() != shortagesBefore) {
        mLost.Add();
        mRescanDue.store(true);
    }
}

void ProcsRealTask::HandleFork(const ProcEvent& event) {
    mNewForks.Hold(event, Clock::now());
}

// The control group of a process that has ended can often not be asked any more: what has been
// announced, or is just held back, was in scope.
void ProcsRealTask::HandleExit(const ProcEvent& event) {
    if (const std::optional<ProcEvent> newFork = TakeUncountedFork(event.pid)) {
        if (IsForkInScope(*newFork)) {
            mForkCount.Add();
            mAnnouncer.OnFork(*newFork);
        }
    } else if (const std::optional<ProcEvent> fork = mForks.Take(event.pid)) {
        mAnnouncer.OnFork(*fork);
    }
    if (mAnnouncer.OnExit(event)) {
        mExits.Add();
    }
}

void ProcsRealTask::HoldNewForks() {
    for (const ProcEvent& fork : mNewForks.TakeAll()) {
        HoldIfInScope(fork);
    }
    for (const ProcEvent& fork : mDoubtfulForks.TakeDue(Clock::now())) {
        HoldIfInScope(fork);
    }
}

void ProcsRealTask::HoldIfInScope(const ProcEvent& fork) {
    if (IsForkInScope(fork)) {
        HoldFork(fork);
    } else if (SDK::TimeUtils::GetNsSince(fork.timestampNs) < MAX_DOUBT_NS &&
               Framework::Scope::Contains(fork.parentPid)) {
        mDoubtfulForks.Hold(fork, Clock::now());
    }
}

void ProcsRealTask::HoldFork(const ProcEvent& fork) {
    mForkCount.Add();
    mForks.Hold(fork, Clock::now());
}

std::optional<ProcEvent> ProcsRealTask::TakeUncountedFork(int child) {
    const std::optional<ProcEvent> fork = mNewForks.Take(child);
    return fork ? fork : mDoubtfulForks.Take(child);
}

void ProcsRealTask::TellDueForks() {
    for (const ProcEvent& fork : mForks.TakeDue(Clock::now())) {
        mAnnouncer.OnFork(fork);
    }
}

void ProcsRealTask::CountGarbled() {
    const std::uint64_t garbled = mConnector->GetGarbledCount();
    mGarbled.Add(garbled - mGarbledSeen);
    mGarbledSeen = garbled;
}

void ProcsRealTask::HandleOverflows(unsigned int count) {
    mOverflows.Add(count);
    mLost.Add(count);
    mRescanDue.store(true);
    const auto now = Clock::now();
    if (now - mLossLogged >= LOSS_LOG_INTERVAL) {
        mLossLogged = now;
        moduleLog.Warning("the kernel dropped process events because the receive buffer was full");
    }
}

} // namespace Engine
