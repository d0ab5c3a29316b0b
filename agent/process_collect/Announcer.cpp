#include "agent/process_collect/Announcer.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "agent/process_collect/ProcessList.h"
#include "framework/Engine.h"
#include "framework/Scope.h"
#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"

namespace Engine {

static SDK::ModuleLog moduleLog("process_collect");

namespace {

// Of a process that was found and not told of.
constexpr std::uint64_t WHEN_IS_NOT_KNOWN = 0;

// True unless the child of a fork has executed since: then the exec's own event covers the fork. The
// fork of a child that is gone already is still due; that of a child whose pid is another's is not. 0 stands for
// a child that could not be looked at when it was announced.
bool IsForkStillDue(int child, std::uint64_t childStartTime) {
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(child, stat) != 0) {
        return true;
    }
    return (childStartTime == 0 || stat.startTime == childStartTime) && !stat.HasExecuted();
}

bool HasRoom(const Framework::Task& task) {
    return task.GetQueueDepth() < task.GetQueueCapacity();
}

} // namespace

Announcer::Announcer(std::function<void()> wake)
    : mStarved(std::make_shared<Starved>(std::move(wake))), mLost(Framework::Counters::Of("events.lost")),
      mFolded(Framework::Counters::Of("events.folded")), mRescans(Framework::Counters::Of("events.rescan")),
      mRescued(Framework::Counters::Of("events.rescued")), mSubscribed(Framework::Counters::Of("events.subscribed")) {}

void Announcer::Fill() {
    for (const int pid : ListPids()) {
        if (Framework::Scope::Contains(pid)) {
            const SDK::WriteGuard guard(mLock);
            Examine(pid, false);
        }
    }
}

void Announcer::Subscribe(unsigned int kind, const std::string& name, std::uint64_t instance) {
    const SDK::WriteGuard guard(mLock);
    Subscriber& subscriber = mSubscribers[name];
    if (subscriber.instance != instance) {
        if (subscriber.Wants(ProcsMessage::KIND_EXEC)) {
            const std::uint64_t handled = subscriber.handled->load(std::memory_order_acquire);
            for (const auto& [pid, entry] : mTable) {
                if (entry.sequence > handled) {
                    subscriber.owed.insert(pid);
                }
            }
        }
        subscriber.instance = instance;
        subscriber.kinds = 0;
        subscriber.handled = std::make_shared<std::atomic<std::uint64_t>>(mSequence);
        SettleWith(name, subscriber);
    }
    subscriber.kinds |= 1U << kind;
    mSubscribed.Add();
    UpdateDebts();
}

bool Announcer::Knows(int pid) const {
    const SDK::ReadGuard guard(mLock);
    return mTable.contains(pid);
}

// A process that is gone already leaves `stat` as it is: it is announced all the same, its exit follows.
void Announcer::OnExec(const ProcEvent& event, int forkedBy) {
    const SDK::WriteGuard guard(mLock);
    if (IsCovered(event)) {
        return;
    }
    SDK::ProcStat stat;
    ProcEvent begin{ProcsMessage::KIND_EXEC, event.pid, forkedBy, event.timestampNs};
    if (forkedBy != 0) {
        AnnounceBegin(begin, Record(event.pid, stat));
        mUndescribed.push_back(event.pid);
        return;
    }
    SDK::ProcStat::Read(event.pid, stat);
    begin.parentPid = stat.ppid;
    AnnounceBegin(begin, Record(event.pid, stat));
}

void Announcer::OnFork(const ProcEvent& event) {
    const SDK::WriteGuard guard(mLock);
    if (IsCovered(event)) {
        return;
    }
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(event.pid, stat) == 0) {
        if (stat.IsKernelThread()) {
            return;
        }
        if (stat.HasExecuted()) {
            mFolded.Add();
            // Known to be in scope, should it be gone when the exec is read; not as what it executes, should the exec
            // be lost.
            Record(event.pid, stat).startStack = 0;
            return;
        }
    }
    AnnounceBegin(event, Record(event.pid, stat));
}

bool Announcer::OnExit(const ProcEvent& event) {
    const SDK::WriteGuard guard(mLock);
    if (!mTable.contains(event.pid) || IsCovered(event)) {
        return false;
    }
    AnnounceExit(event.pid);
    return true;
}

void Announcer::WakeSubscribers() {
    const SDK::WriteGuard guard(mLock);
    for (auto& [name, subscriber] : mSubscribers) {
        if (!subscriber.wakeDue) {
            continue;
        }
        subscriber.wakeDue = false;
        if (Poco::AutoPtr<Framework::Task> task = FindRunning(name, subscriber.instance)) {
            task->Wake();
        }
    }
}

void Announcer::Describe() {
    std::vector<int> pids;
    {
        const SDK::WriteGuard guard(mLock);
        pids.swap(mUndescribed);
    }
    for (const int pid : pids) {
        const SDK::WriteGuard guard(mLock);
        const auto known = mTable.find(pid);
        SDK::ProcStat stat;
        if (known != mTable.end() && known->second.startTime == 0 && SDK::ProcStat::Read(pid, stat) == 0) {
            Record(pid, stat);
            mDescribed.push_back(pid);
        }
    }
}

void Announcer::OnRead(bool isComplete) {
    const SDK::WriteGuard guard(mLock);
    if (!isComplete) {
        for (const int pid : mDescribed) {
            if (const auto known = mTable.find(pid); known != mTable.end()) {
                known->second.startStack = 0;
            }
        }
        mUndescribed.clear();
    }
    mDescribed.clear();
}

void Announcer::Rescan() {
    mRescans.Add();
    EndDeparted();
    int rescued = 0;
    for (const int pid : ListPids()) {
        if (Framework::Scope::Contains(pid)) {
            const SDK::WriteGuard guard(mLock);
            rescued += Examine(pid, true) ? 1 : 0;
        }
    }
    WakeSubscribers();
    moduleLog.Information("compared with /proc after a loss of process events: %d processes had been missed", rescued);
}

bool Announcer::DoubtUnnoted() {
    if (!mStarved->TakeSomeLost()) {
        return false;
    }
    const SDK::WriteGuard guard(mLock);
    for (auto& [pid, entry] : mTable) {
        if (entry.sequence != 0) {
            entry.startStack = 0;
        }
    }
    return true;
}

bool Announcer::Settle() {
    const SDK::WriteGuard guard(mLock);
    const bool starved = TakeStarved();
    for (auto& [name, subscriber] : mSubscribers) {
        SettleWith(name, subscriber);
    }
    UpdateDebts();
    return starved;
}

// What a subscriber could not judge it is owed again. True when there was any.
bool Announcer::TakeStarved() {
    const std::vector<Starved::One> ones = mStarved->Take();
    try {
        for (const Starved::One& one : ones) {
            const auto subscriber = mSubscribers.find(one.subscriber);
            const auto known = mTable.find(one.pid);
            if (subscriber != mSubscribers.end() && known != mTable.end() && known->second.sequence == one.sequence) {
                subscriber->second.owed.insert(one.pid);
            }
        }
    } catch (const std::bad_alloc&) {
        mStarved->LoseSome();
        throw;
    }
    return !ones.empty();
}

// Called when memory was wanting a moment ago.
void Announcer::Starved::Add(const One& one) {
    try {
        const std::lock_guard<std::mutex> guard(mMutex);
        mOnes.push_back(one);
    } catch (const std::bad_alloc&) {
        LoseSome();
    }
    if (!mAny.exchange(true, std::memory_order_acq_rel)) {
        mWake();
    }
}

std::vector<Announcer::Starved::One> Announcer::Starved::Take() {
    const std::lock_guard<std::mutex> guard(mMutex);
    mAny.store(false, std::memory_order_release);
    return std::exchange(mOnes, {});
}

Announcer::Entry& Announcer::Record(int pid, const SDK::ProcStat& stat) {
    Entry& entry = mTable[pid];
    entry.startTime = stat.startTime;
    entry.startStack = stat.startStack;
    return entry;
}

bool Announcer::IsCovered(const ProcEvent& event) const {
    const auto known = mTable.find(event.pid);
    return known != mTable.end() && event.timestampNs <= known->second.coveredUntilNs;
}

// Takes the process into the table as it is now, unless it is there just so already. True when the
// table did not have it so.
bool Announcer::Examine(int pid, bool announce) {
    const std::uint64_t nowNs = SDK::TimeUtils::GetMonotonicNs();
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(pid, stat) != 0 || stat.IsKernelThread() || stat.HasEnded()) {
        return false;
    }
    const auto known = mTable.find(pid);
    if (known != mTable.end() && known->second.startTime == stat.startTime &&
        known->second.startStack == stat.startStack) {
        return false;
    }
    Entry& entry = Record(pid, stat);
    entry.coveredUntilNs = nowNs;
    if (announce) {
        mRescued.Add();
        AnnounceBegin({ProcsMessage::KIND_EXEC, pid, stat.ppid, WHEN_IS_NOT_KNOWN}, entry);
    }
    return true;
}

// What throws on the way leaves the process doubted: somebody may not have been told.
void Announcer::AnnounceBegin(const ProcEvent& begin, Entry& entry) {
    entry.sequence = ++mSequence;
    const std::uint64_t startStack = std::exchange(entry.startStack, 0);
    TellOfBegin(begin);
    entry.startStack = startStack;
}

void Announcer::TellOfBegin(const ProcEvent& begin) {
    for (auto& [name, subscriber] : mSubscribers) {
        if (!subscriber.Wants(begin.kind)) {
            continue;
        }
        const Delivery delivery = Post(name, subscriber, begin);
        if (delivery == Delivery::Done) {
            subscriber.owed.erase(begin.pid);
        } else if (delivery == Delivery::QueueFull) {
            mLost.Add();
            if (subscriber.Wants(ProcsMessage::KIND_EXEC)) {
                subscriber.owed.insert(begin.pid);
                mDebts.store(true, std::memory_order_release);
            }
        }
    }
}

void Announcer::AnnounceExit(int pid) {
    for (auto& [name, subscriber] : mSubscribers) {
        subscriber.owed.erase(pid);
        if (subscriber.Wants(ProcsMessage::KIND_EXIT) &&
            Post(name, subscriber, {ProcsMessage::KIND_EXIT, pid}) == Delivery::QueueFull) {
            mLost.Add();
        }
    }
    // Last, so that a comparison finds what could not be told for want of memory.
    mTable.erase(pid);
}

// True when the pid has gone to another process since the entry was made.
bool Announcer::IsAnother(const Entry& entry, const SDK::ProcStat& stat) {
    return entry.startTime != 0 && entry.startTime != stat.startTime;
}

// Whether the entry's process is not there any more, going by what reading its state gave.
bool Announcer::HasDeparted(const Entry& entry, int error, const SDK::ProcStat& stat) {
    return error == 0 ? stat.HasEnded() || IsAnother(entry, stat) : SDK::ProcStat::IsGone(error);
}

// Announces the exit of every process in the table that does not run any more.
void Announcer::EndDeparted() {
    std::vector<int> pids;
    {
        const SDK::ReadGuard guard(mLock);
        for (const auto& [pid, entry] : mTable) {
            pids.push_back(pid);
        }
    }
    for (const int pid : pids) {
        const SDK::WriteGuard guard(mLock);
        const auto known = mTable.find(pid);
        SDK::ProcStat stat;
        const int error = SDK::ProcStat::Read(pid, stat);
        if (known != mTable.end() && HasDeparted(known->second, error, stat)) {
            AnnounceExit(pid);
        }
    }
}

void Announcer::SettleWith(const std::string& name, Subscriber& subscriber) {
    if (subscriber.owed.empty()) {
        return;
    }
    const Poco::AutoPtr<Framework::Task> task = FindRunning(name, subscriber.instance);
    while (task && !subscriber.owed.empty() && HasRoom(*task)) {
        const int pid = *subscriber.owed.begin();
        if (!SettleOne(name, subscriber, pid)) {
            return;
        }
        subscriber.owed.erase(pid);
    }
}

// False when the queue has filled up again, or the process cannot be looked at just now.
bool Announcer::SettleOne(const std::string& name, Subscriber& subscriber, int pid) {
    const auto known = mTable.find(pid);
    SDK::ProcStat stat;
    if (known == mTable.end()) {
        return true;
    }
    if (const int error = SDK::ProcStat::Read(pid, stat); error != 0 || stat.HasEnded()) {
        return error == 0 || SDK::ProcStat::IsGone(error);
    }
    // A number of its own: should the instance end before it takes this out of its queue, the next one
    // is owed it. Another subscriber that is between two instances just then is told twice, which is
    // better than never.
    known->second.sequence = ++mSequence;
    if (Post(name, subscriber, {ProcsMessage::KIND_EXEC, pid, stat.ppid, WHEN_IS_NOT_KNOWN}) != Delivery::Done) {
        return false;
    }
    mRescued.Add();
    return true;
}

void Announcer::UpdateDebts() {
    const bool debts = std::any_of(mSubscribers.begin(), mSubscribers.end(), [](const auto& named) {
        const auto& [name, subscriber] = named;
        return !subscriber.owed.empty() && FindRunning(name, subscriber.instance);
    });
    mDebts.store(debts, std::memory_order_release);
}

// Puts a message about the process, as the table has it, in the subscriber's queue.
Announcer::Delivery Announcer::Post(const std::string& name, Subscriber& subscriber, const ProcEvent& event) {
    Poco::AutoPtr<Framework::Task> task = FindRunning(name, subscriber.instance);
    if (!task) {
        return Delivery::NotRunning;
    }
    std::shared_ptr<Framework::Message> message = MakeMessage(name, subscriber, event);
    const bool wakes = event.kind == ProcsMessage::KIND_EXEC;
    if (!(wakes ? task->EnqueueMsg(message) : task->EnqueueMsgQuietly(message))) {
        return Delivery::QueueFull;
    }
    subscriber.wakeDue = !wakes;
    return Delivery::Done;
}

// On its way out of the queue the message notes that it was handled.
std::shared_ptr<Framework::Message> Announcer::MakeMessage(const std::string& name, const Subscriber& subscriber,
                                                           const ProcEvent& event) {
    std::shared_ptr<ProcsMessage::procInfo> info;
    std::uint64_t startTime = 0;
    if (event.kind != ProcsMessage::KIND_EXIT) {
        info = std::make_shared<ProcsMessage::procInfo>();
        info->pid = event.pid;
        info->ppid = event.parentPid;
        startTime = mTable[event.pid].startTime;
    }
    auto stillDue = [handled = subscriber.handled, sequence = mSequence, kind = event.kind, pid = event.pid,
                     startTime] {
        handled->store(sequence, std::memory_order_release);
        return kind != ProcsMessage::KIND_FORK || IsForkStillDue(pid, startTime);
    };
    auto starved = [all = mStarved, one = Starved::One{name, event.pid, mSequence}] { all->Add(one); };
    return std::make_shared<ProcsMessage>(event.pid, event.kind, std::move(info), std::move(stillDue),
                                          event.timestampNs, std::move(starved));
}

Poco::AutoPtr<Framework::Task> Announcer::FindRunning(const std::string& name, std::uint64_t instance) {
    Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask(name);
    if (task && task->GetInstanceId() != instance) {
        task = nullptr;
    }
    return task;
}

} // namespace Engine
