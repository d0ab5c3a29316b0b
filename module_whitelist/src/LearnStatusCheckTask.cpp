#include "LearnStatusCheckTask.h"

#include <unistd.h>

#include <json/value.h>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

constexpr unsigned int QUEUE_CAPACITY = 1024;
constexpr useconds_t TICK_US = 1000000;
constexpr std::int32_t STATUS_PERIOD_TICKS = 3600;
constexpr std::int32_t HOUSEKEEPING_PERIOD_TICKS = 600;

} // namespace

LearnStatusCheckTask::LearnStatusCheckTask()
    : Framework::Task(LEARN_STATUS_CHECK_TASK, FEATURE_NAME, Framework::TaskCondition::TaskType::Thread,
                      QUEUE_CAPACITY) {}

bool LearnStatusCheckTask::Init() {
    moduleLog.Debug("learn status check task init");
    return Framework::Task::Init();
}

bool LearnStatusCheckTask::UnInit() {
    moduleLog.Debug("UnInit learn status check task");
    return Framework::Task::UnInit();
}

int LearnStatusCheckTask::Run() {
    moduleLog.Information("learn status check task START");
    // The first turn reports.
    statusTicks = STATUS_PERIOD_TICKS;
    while (state() != TASK_CANCELLING) {
        if (statusTicks == STATUS_PERIOD_TICKS) {
            ConfigManager::Instance()->OnStarted();
            statusTicks = 0;
            ReportLearnStatus();
        }
        ++statusTicks;
        ++housekeepingTicks;
        if (housekeepingTicks == HOUSEKEEPING_PERIOD_TICKS) {
            KeepHouse();
            housekeepingTicks = 0;
        }
        usleep(TICK_US);
    }
    return 0;
}

void LearnStatusCheckTask::ReportLearnStatus() {
    Json::Value report(Json::objectValue);
    report["learn_stat"] = static_cast<Json::Int64>(ConfigManager::Instance()->GetMod());
    SendDirectMsg(REPORT_TASK, new Framework::DataMessage(REPORT_LEARN_STATUS, SDK::JsonUtils::JsonToString(report)));
}

void LearnStatusCheckTask::KeepHouse() {
    ProcessManager::Instance()->DelExitedAllProcess();
    if (ConfigManager::Instance()->GetMod() == MOD_LEARN) {
        ProcessManager::Instance()->HandleLearnProcessData();
    }
}

} // namespace Engine
