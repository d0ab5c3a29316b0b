#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/process_collect/Announcer.h"
#include "agent/process_collect/ForkHold.h"
#include "agent/process_collect/ProcConnector.h"
#include "framework/Counters.h"
#include "framework/Task.h"

namespace Engine {

// The task "procs_real_task": process events from the kernel to whoever subscribed with a
// ProcsRegistMessage.
//
// Two threads:
//
//   reader   connector → scope → fork hold → Announcer. Reads on while others judge, so that the
//            kernel's buffer does not run over. Subscribers are woken for each exec, and otherwise once
//            for all that was read.
//   task     subscriptions; what the reader leaves to do after a loss: the comparison with /proc, and
//            what subscribers are owed. Sleeps otherwise.
//
// The reader lives as long as Run. Every event in scope is counted: "events.exec", "events.fork",
// "events.exit"; a loss in the kernel as one "events.lost" and one "events.overflow", a message that a
// full queue refused as one "events.lost"; undecodable messages as "events.garbled".
class ProcsRealTask : public Framework::Task {
public:
    static constexpr const char* NAME = "procs_real_task";

    // The connector is open.
    explicit ProcsRealTask(std::unique_ptr<ProcConnector> connector);

    int Run() override;
    int HandleMsg(const Framework::Message* message) override;

private:
    // Reader thread.
    void ReadUntilStopped();
    bool WaitForEvents();
    void ReadEvents();
    void HandleEvent(const ProcEvent& event);
    void HandleExec(const ProcEvent& event);
    void HandleFork(const ProcEvent& event);
    void HandleExit(const ProcEvent& event);
    void HoldNewForks();
    void HoldIfInScope(const ProcEvent& fork);
    void HoldFork(const ProcEvent& fork);
    std::optional<ProcEvent> TakeUncountedFork(int child);
    int GetTimeoutMs() const;
    void TellDueForks();
    void DescribeNewPrograms(bool isComplete);
    bool IsForkInScope(const ProcEvent& fork);
    void CountUnlessLookedAt(std::uint64_t shortagesBefore);
    void CountGarbled();
    void HandleOverflows(unsigned int count);

    // Task thread.
    int CatchUp();
    bool CatchUpNow();
    template <typename Work> void CompareAfterThrowing(const Work& work);

    // Only the reader thread uses these while it runs.
    const std::unique_ptr<ProcConnector> mConnector;
    ForkHold mForks;
    // Forks of the events just read, of which nobody has asked yet whether they are in scope: where the
    // child's exec has been read along with them, it is asked once for both.
    ForkHold mNewForks;
    // Forks of a parent in scope whose child was not there, asked for the first time: the kernel tells of a
    // fork before it puts the child into its parent's group. Asked again, for a while.
    ForkHold mDoubtfulForks;
    std::vector<ProcEvent> mEvents;
    std::ptrdiff_t mUndescribed = 0; // programs announced since the last Describe
    std::uint64_t mGarbledSeen = 0;
    std::chrono::steady_clock::time_point mLossLogged;

    Announcer mAnnouncer;
    Framework::Event mStop;
    std::atomic<bool> mStopping{false};
    std::atomic<bool> mRescanDue{false};
    // Task thread only.
    std::chrono::steady_clock::time_point mNextCatchUp;

    Framework::Counter& mExecs;
    Framework::Counter& mForkCount;
    Framework::Counter& mExits;
    Framework::Counter& mLost;
    Framework::Counter& mFolded;
    Framework::Counter& mOverflows;
    Framework::Counter& mGarbled;
};

} // namespace Engine
