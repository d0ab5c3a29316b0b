#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <Poco/AutoPtr.h>

#include "agent/process_collect/ProcEvent.h"
#include "framework/Counters.h"
#include "framework/Task.h"
#include "modules/ProcsMessage.h"
#include "sdk/ProcStat.h"
#include "sdk/RwLock.h"

namespace Engine {

// Tells subscribers of processes, and knows who has been told of which.
//
// The table holds the live processes in scope, by pid. A process enters it, before anybody is told,
// when its fork or exec is announced, when a comparison with /proc finds it, or silently with Fill; it
// leaves it with its exit. For each subscriber to executions, a process in the table is in one of
// these states:
//
//   settled   it was there before the subscriber's first subscription, or its latest begin (fork or
//             exec) lies in or has passed through the queue of the subscriber's present instance
//   owed      its begin was refused by a full queue, or came while no instance of the subscriber ran, or could
//             not be judged for want of descriptors or memory; it is in `owed`, or its sequence number is above
//             what the last instance had handled
//
// What is owed is made good as kind 1: by Settle when the queue has room again, and by Subscribe, before
// anything else, when a new instance comes.
//
// To owe something takes memory. Where there is none the process is doubted instead, which takes none: the
// next comparison with /proc announces it once more, to everybody.
//
// An exec wakes those who are told of it at once. Of forks and exits they are told quietly, until somebody
// calls WakeSubscribers.
//
// Of a program that has been forked and executed just now /proc is asked later, in Describe: most that end at
// once have ended by then, and looking at a process costs whoever waits for its end.
//
// Thread-safe: one lock holds events, comparisons and subscriptions apart. It is held while /proc is
// read for one process, never for longer.
class Announcer {
public:
    // `wake` is called, on any thread and also after this is gone, when Settle has something to do that it had not
    // before.
    explicit Announcer(std::function<void()> wake = [] {});
    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;

    // Takes every live process in scope into the table without telling anybody.
    void Fill();

    // From now on the running task of that name and instance is told of events of `kind`. When an
    // earlier instance was told of executions, the new one is first told, as kind 1, of what is owed.
    void Subscribe(unsigned int kind, const std::string& name, std::uint64_t instance);

    // True while the process is in the table.
    bool Knows(int pid) const;

    // An exec in scope. `forkedBy` is the parent when the fork is known and was held back, else 0.
    void OnExec(const ProcEvent& event, int forkedBy);

    // A fork in scope that no exec has followed in time. When the child's exec is on its way
    // nevertheless, the fork counts as folded and nobody is told, but the child is in the table. Kernel threads are
    // nobody's business.
    void OnFork(const ProcEvent& event);

    // Wakes those who have been told of something quietly.
    void WakeSubscribers();

    // Notes, of programs that have begun since the last call and still run, by what later comparisons know
    // them.
    void Describe();

    // To be called after each reading of events. `isComplete` is false when events were lost, or not told: then it
    // is not known of what has been described since the reading before whether these are still the programs
    // that were announced, and the comparison announces them once more.
    void OnRead(bool isComplete);

    // An exit. False when the process is not in the table: out of scope, or told already.
    bool OnExit(const ProcEvent& event);

    // Compares the table with /proc after events were lost: a process in scope that is missing from
    // the table, or that has begun anew since its last announcement, is announced as kind 1; one that
    // is gone is announced as kind 3.
    void Rescan();

    // Doubts all that was announced, if what could not be judged could not be noted either. True then: a Rescan is
    // due.
    bool DoubtUnnoted();

    // Tells subscribers what they are owed, as far as their queues have room. True when some of it is what they
    // could not judge for want of descriptors or memory: they may well not be able to now.
    bool Settle();

    // True when something is owed to an instance that runs. Any thread, takes no lock.
    bool HasDebts() const { return mDebts.load(std::memory_order_acquire) || mStarved->HasAny(); }

private:
    struct Entry {
        // Which process, and which of its images: see SDK::ProcStat. 0 when that has not been looked at
        // yet, or it was gone too soon.
        std::uint64_t startTime = 0;
        std::uint64_t startStack = 0; // also 0 when the announcement is doubted
        // The number of its latest announcement; 0 for none.
        std::uint64_t sequence = 0;
        // When a comparison with /proc found it so (CLOCK_MONOTONIC): events that the kernel stamped
        // earlier tell nothing new. 0 for none.
        std::uint64_t coveredUntilNs = 0;
    };

    struct Subscriber {
        std::uint64_t instance = 0;
        unsigned int kinds = 0; // bit K: kind K
        // The number of the last announcement that the instance took out of its queue; written on its
        // thread.
        std::shared_ptr<std::atomic<std::uint64_t>> handled;
        std::set<int> owed;
        bool wakeDue = false; // something was put in its queue quietly

        bool Wants(unsigned int kind) const { return (kinds >> kind & 1U) != 0; }
    };

    // Begins that were handled under a shortage (SDK::Shortage), until Settle makes them owed; or that there were
    // some, where there was no memory to note which. The messages share it with the Announcer, which they may outlive.
    class Starved {
    public:
        struct One {
            std::string subscriber;
            int pid;
            std::uint64_t sequence; // of the announcement
        };

        explicit Starved(std::function<void()> wake) : mWake(std::move(wake)) {}
        void Add(const One& one);
        void LoseSome() { mSomeLost.store(true, std::memory_order_release); }
        std::vector<One> Take();
        bool TakeSomeLost() { return mSomeLost.exchange(false, std::memory_order_acq_rel); }
        bool HasAny() const {
            return mAny.load(std::memory_order_acquire) || mSomeLost.load(std::memory_order_acquire);
        }

    private:
        const std::function<void()> mWake;
        std::mutex mMutex;
        std::vector<One> mOnes; // under mMutex
        std::atomic<bool> mAny{false};
        std::atomic<bool> mSomeLost{false};
    };

    enum class Delivery {
        Done,
        QueueFull,
        NotRunning,
    };

    Entry& Record(int pid, const SDK::ProcStat& stat) REQUIRES(mLock);
    bool IsCovered(const ProcEvent& event) const REQUIRES(mLock);
    bool Examine(int pid, bool announce) REQUIRES(mLock);
    void AnnounceBegin(const ProcEvent& begin, Entry& entry) REQUIRES(mLock);
    void TellOfBegin(const ProcEvent& begin) REQUIRES(mLock);
    void AnnounceExit(int pid) REQUIRES(mLock);
    void EndDeparted() EXCLUDES(mLock);
    bool TakeStarved() REQUIRES(mLock);
    void SettleWith(const std::string& name, Subscriber& subscriber) REQUIRES(mLock);
    bool SettleOne(const std::string& name, Subscriber& subscriber, int pid) REQUIRES(mLock);
    void UpdateDebts() REQUIRES(mLock);
    Delivery Post(const std::string& name, Subscriber& subscriber, const ProcEvent& event) REQUIRES(mLock);
    std::shared_ptr<Framework::Message> MakeMessage(const std::string& name, const Subscriber& subscriber,
                                                    const ProcEvent& event) REQUIRES(mLock);
    static bool IsAnother(const Entry& entry, const SDK::ProcStat& stat);
    static bool HasDeparted(const Entry& entry, int error, const SDK::ProcStat& stat);
    static Poco::AutoPtr<Framework::Task> FindRunning(const std::string& name, std::uint64_t instance);

    const std::shared_ptr<Starved> mStarved;

    Framework::Counter& mLost;
    Framework::Counter& mFolded;
    Framework::Counter& mRescans;
    Framework::Counter& mRescued;
    Framework::Counter& mSubscribed;

    mutable SDK::RwLock mLock;
    std::unordered_map<int, Entry> mTable GUARDED_BY(mLock);
    std::map<std::string, Subscriber> mSubscribers GUARDED_BY(mLock);
    std::vector<int> mUndescribed GUARDED_BY(mLock);
    std::vector<int> mDescribed GUARDED_BY(mLock); // since the last reading
    std::uint64_t mSequence GUARDED_BY(mLock) = 0;
    std::atomic<bool> mDebts{false};
};

} // namespace Engine
