#include "agent/process_collect/ProcsScanTask.h"

#include <optional>
#include <utility>

#include "agent/process_collect/ProcessList.h"
#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/Pidfd.h"
#include "framework/Scope.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcStat.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

constexpr unsigned int QUEUE_CAPACITY = 16;
constexpr int IDLE_WAIT_MS = 3600 * 1000;
constexpr std::size_t MAX_CMDLINE_BYTES = 4096;

// False when the process is gone, or was found to be a kernel thread or to have ended.
bool FindParent(int pid, int& ppid) {
    const SDK::FileDescriptor process(SDK::OpenPidfd(pid));
    if (const std::optional<SDK::PidfdInfo> info = SDK::AskPidfd(process.Get())) {
        ppid = info->ppid;
        return true;
    }
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(pid, stat) != 0 || stat.IsKernelThread() || stat.HasEnded()) {
        return false;
    }
    ppid = stat.ppid;
    return true;
}

// False when there is no such process (any more), it has ended, or it has no image: a kernel thread. The image
// first: the kernel's own threads, often most of what runs, and processes that have ended have none.
bool Describe(int pid, ProcsMessage::procInfo& info) {
    if (SDK::ProcessUtils::GetProcessExePath(pid, info.path) != 0 || !FindParent(pid, info.ppid) ||
        SDK::ProcessUtils::GetProcessCmdline(pid, info.cmdline, MAX_CMDLINE_BYTES) != 0) {
        return false;
    }
    info.pid = pid;
    info.name = SDK::PathUtils::GetFileNameFromPath(info.path);
    return true;
}

} // namespace

ProcsScanTask::ProcsScanTask()
    : ProcsFullTask(NAME, "process_collect", Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY) {}

int ProcsScanTask::Run() {
    while (state() != TASK_CANCELLING) {
        GetEventWaiter().WaitAndHandleEvent(IDLE_WAIT_MS, static_cast<int>(QUEUE_CAPACITY));
    }
    return 0;
}

ProcsFullTask::ProcsMap ProcsScanTask::GetProcsMap() const {
    ProcsMap processes;
    for (const int pid : ListPids()) {
        ProcsMessage::procInfo info;
        if (Framework::Scope::Contains(pid) && Describe(pid, info)) {
            processes.emplace(pid, std::move(info));
        }
    }
    return processes;
}

} // namespace Engine
