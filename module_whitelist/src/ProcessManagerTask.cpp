#include "ProcessManagerTask.h"

#include "ProcessManager.h"
#include "modules/ProcsRegistMessage.h"
#include "sdk/CpuThrottle.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

// The two loops account for their CPU time separately, under line numbers that stay when the code
// moves: operators know them from the governor's trace.
constexpr const char* SOURCE = "module_whitelist/src/ProcessManagerTask";
constexpr int RUN_LOOP_LINE = 46;
constexpr int EVENT_LINE = 61;
SDK::CpuThrottle runThrottle(SOURCE, PROCESS_MANAGER_TASK);
SDK::CpuThrottle eventThrottle(SOURCE, MODULE_NAME);

constexpr unsigned int QUEUE_CAPACITY = 10240;
constexpr long START_DELAY_MS = 500;
constexpr int EARLY_MESSAGES = 5;
constexpr int WAIT_MS = 30;
constexpr int BATCH = 128;

constexpr int NO_PARENT = -1;

} // namespace

ProcessManagerTask::ProcessManagerTask()
    : Framework::Task(PROCESS_MANAGER_TASK, FEATURE_NAME, Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY) {}

ProcessManagerTask::~ProcessManagerTask() {
    ProcessManager::Instance()->ForgetTask(this);
}

bool ProcessManagerTask::Init() {
    moduleLog.Information("process manager task Init");
    if (!ProcessManager::Instance()->Init(static_cast<Framework::Task*>(this))) {
        moduleLog.Error("Init ProcessManager Failed");
    }
    return Framework::Task::Init();
}

int ProcessManagerTask::Run() {
    moduleLog.Information("process manager task START");
    sleep(START_DELAY_MS);
    BulkConsumeMsg(EARLY_MESSAGES);
    for (const unsigned int kind : {ProcsMessage::KIND_EXEC, ProcsMessage::KIND_FORK, ProcsMessage::KIND_EXIT}) {
        SendDirectMsg(PROCS_REAL_TASK, new ProcsRegistMessage(kind, this));
    }
    ProcessManager::Instance()->BeginBackgroundStoring();
    if (!ProcessManager::Instance()->Onstart()) {
        moduleLog.Error("ProcessManager ON START ERROR");
    }
    while (state() != TASK_CANCELLING) {
        runThrottle.Check(RUN_LOOP_LINE);
        if (GetEventWaiter().WaitAndHandleEvent(WAIT_MS, BATCH) == -1) {
            BulkConsumeMsg(BATCH);
        }
    }
    return 0;
}

bool ProcessManagerTask::UnInit() {
    moduleLog.Debug("UnInit  process manager task");
    ProcessManager::Instance()->EndBackgroundStoring();
    ProcessManager::Instance()->Onstop();
    return Framework::Task::UnInit();
}

void ProcessManagerTask::ProcsMessageAction(int pid, unsigned int kind, std::shared_ptr<ProcsMessage::procInfo> info) {
    eventThrottle.Check(EVENT_LINE);
    const int parentPid = kind == ProcsMessage::KIND_EXIT ? NO_PARENT : info->ppid;
    ProcessManager::Instance()->OnProcessNotify(kind, pid, parentPid);
}

bool ProcessManagerTask::IsWhiteListProcess(const std::string& hash, const std::string& path, int& result) {
    result = 0;
    return ProcessManager::Instance()->IsWhiteHash(hash, path, result);
}

} // namespace Engine
