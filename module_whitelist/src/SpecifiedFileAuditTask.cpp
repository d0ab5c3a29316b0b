#include "SpecifiedFileAuditTask.h"

#include <memory>
#include <new>
#include <set>
#include <string>

#include <sys/fanotify.h>

#include "ConfigManager.h"
#include "SpecifiedFileAudit.h"
#include "modules/FileNotifyMessage.h"
#include "sdk/CpuThrottle.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);
SDK::CpuThrottle throttle("module_whitelist/src/SpecifiedFileAuditTask", SPECIFIED_FILE_AUDIT_TASK);

constexpr unsigned int QUEUE_CAPACITY = 1024;
constexpr int WAIT_MS = 1000;
constexpr int BATCH = 128;

const FileNotifyWatchMessage::EventMasks WATCHED_EVENTS = {FAN_OPEN, FAN_MODIFY, FAN_ONDIR};

} // namespace

SpecifiedFileAuditTask::SpecifiedFileAuditTask()
    : Framework::Task(SPECIFIED_FILE_AUDIT_TASK, FEATURE_NAME, Framework::TaskCondition::TaskType::Thread,
                      QUEUE_CAPACITY) {}

bool SpecifiedFileAuditTask::Init() {
    moduleLog.Debug("specified file audit task init");
    if (!SpecifiedFileAudit::Instance().Init(this)) {
        moduleLog.Error("Init FileAudit Failed");
        return false;
    }
    return Framework::Task::Init();
}

int SpecifiedFileAuditTask::Run() {
    moduleLog.Information("specified file audit task START");
    if (!FileNotifyWatchMark()) {
        moduleLog.Error("File Notify Watch Mark Failed");
    }
    while (state() != TASK_CANCELLING) {
        throttle.Check();
        if (GetEventWaiter().WaitAndHandleEvent(WAIT_MS, BATCH) == -1) {
            BulkConsumeMsg(BATCH);
        }
    }
    return 0;
}

bool SpecifiedFileAuditTask::UnInit() {
    moduleLog.Debug("UnInit specified file audit task");
    if (!FileNotifyWatchRemove()) {
        moduleLog.Error("remove file notify watch failed");
    }
    ConfigManager::Instance()->OnStop();
    return Framework::Task::UnInit();
}

bool SpecifiedFileAuditTask::FileNotifyWatchMark() {
    _FileNotifyOpt options;
    options.add = 1;
    options.mount = ConfigManager::Instance()->GetMountMod() ? 1 : 0;
    options.children = 1;
    return SendWatchRequests(options);
}

bool SpecifiedFileAuditTask::FileNotifyWatchRemove() {
    _FileNotifyOpt options;
    options.remove = 1;
    options.children = 1;
    return SendWatchRequests(options);
}

bool SpecifiedFileAuditTask::SendWatchRequests(const _FileNotifyOpt& options) {
    for (const std::string& path : ConfigManager::Instance()->GetExpandedDirs()) {
        std::unique_ptr<FileNotifyWatchMessage> request;
        try {
            request = std::make_unique<FileNotifyWatchMessage>(this, path, WATCHED_EVENTS, options);
        } catch (const std::bad_alloc&) {
            // For both kinds of request, as operators know it.
            moduleLog.Error("fanotify add mark error %s", path);
            return false;
        }
        SendDirectMsg(FILE_NOTIFY_TASK, request.release());
    }
    return true;
}

int SpecifiedFileAuditTask::FileNotifyMessageAction(const FileNotifyMessage* message) {
    if (message == nullptr) {
        return -1;
    }
    const std::string& path = message->GetEventFilePath();
    const int pid = message->GetEventProcessId();
    if (pid >= 1 && !path.empty()) {
        moduleLog.Debug("Process(%d) access file:(path:%s)", pid, path);
        SpecifiedFileAudit::Instance().OnFileRecordMsg(pid, path);
    } else {
        moduleLog.Error("MsgData(pid:%d,filepath:%s) is error in CheckSensitiveFile", pid, path);
    }
    return -1;
}

} // namespace Engine
