#include "FullProcTask.h"

#include <string>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "framework/Message.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

constexpr unsigned int QUEUE_CAPACITY = 1024;

} // namespace

FullProcTask::FullProcTask()
    : Framework::Task(FULL_PROC_TASK, FEATURE_NAME, Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY) {}

bool FullProcTask::Init() {
    moduleLog.Information("full proc task Init");
    return Framework::Task::Init();
}

bool FullProcTask::UnInit() {
    // The process event task's text: the two are told apart by the record's source file.
    moduleLog.Debug("UnInit  process manager task");
    return Framework::Task::UnInit();
}

int FullProcTask::Run() {
    if (ConfigManager::Instance()->GetMod() != MOD_LEARN) {
        runCounter = 0;
        return 0;
    }
    const int period = GetCondition().GetTaskCondition();
    moduleLog.Information("full proc START");
    ++runCounter;
    // Equality on purpose: when the counter has passed the quotient, full reports rest until learning
    // begins anew.
    if (ConfigManager::Instance()->GetScanPeriodSeconds() / period == runCounter) {
        std::string all;
        ProcessManager::Instance()->GetAllProcess(all);
        SendReport(REPORT_FULL_LIST, all);
        runCounter = 0;
    }
    std::string learned;
    ProcessManager::Instance()->GetIncreaseProcess(learned);
    if (!learned.empty()) {
        SendReport(REPORT_NEW_PROCESSES, learned);
    }
    ProcessManager::Instance()->PersistencyLocalProcess();
    return 0;
}

void FullProcTask::SendReport(const char* type, const std::string& text) {
    SendDirectMsg(REPORT_TASK, new Framework::DataMessage(type, text));
}

} // namespace Engine
