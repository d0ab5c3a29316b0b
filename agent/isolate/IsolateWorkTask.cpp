#include "agent/isolate/IsolateWorkTask.h"

#include "agent/isolate/Isolator.h"
#include "framework/HandledEvent.h"
#include "sdk/ModuleLog.h"

namespace Engine {

static SDK::ModuleLog moduleLog("isolate");

namespace {

constexpr unsigned int QUEUE_CAPACITY = 16;
constexpr int IDLE_WAIT_MS = 3600 * 1000;

} // namespace

IsolateWorkTask::IsolateWorkTask()
    : IsolateTask(NAME, "isolate", Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY),
      mKilled(Framework::Counters::Of("isolate.killed")), mRefused(Framework::Counters::Of("isolate.refused")),
      mFailed(Framework::Counters::Of("isolate.failed")), mTimeToKill(SDK::Histograms::Of("kill")) {}

int IsolateWorkTask::Run() {
    while (state() != TASK_CANCELLING) {
        GetEventWaiter().WaitAndHandleEvent(IDLE_WAIT_MS, static_cast<int>(QUEUE_CAPACITY));
    }
    return 0;
}

bool IsolateWorkTask::Isolate(int pid, const std::string& path, bool& kill, bool& chmod, bool& quarantine) {
    const bool killWanted = kill;
    const bool chmodWanted = chmod;
    const bool quarantineWanted = quarantine;
    const IsolationResult result = Isolator::Isolate(pid, path, killWanted, chmodWanted);
    kill = result.killed;
    chmod = result.madeUnexecutable;
    quarantine = false;
    if (result.refused) {
        mRefused.Add();
        return false;
    }
    if (quarantineWanted) {
        moduleLog.Error("file [%s] was not moved away: there is no quarantine", path);
    }
    if (result.killed) {
        CountKill(result.killedNs);
    }
    const bool allDone = kill == killWanted && chmod == chmodWanted && !quarantineWanted;
    if (!allDone) {
        mFailed.Add();
    }
    // A process that is dead is isolated, whatever became of its file.
    return killWanted ? kill : allDone;
}

// The time first, so that whoever sees a kill counted sees its time.
void IsolateWorkTask::CountKill(std::uint64_t killedNs) {
    const std::uint64_t eventNs = Framework::HandledEvent::GetTimestampNs();
    if (eventNs != 0) {
        mTimeToKill.Record(killedNs > eventNs ? killedNs - eventNs : 0);
    }
    mKilled.Add();
}

} // namespace Engine
