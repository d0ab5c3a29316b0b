#pragma once

#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"
#include "modules/FileNotifyWatchMessage.h"

namespace Engine {

// The task "specified_file_audit_task": has the file-notification module watch the configured
// directories, and hands each access that it is told of to the file audit.
//
// Marks are placed when the task begins to run, on the directories as they are known then, and taken
// away when it ends; a policy with other directories brings another task. The audit itself
// (SpecifiedFileAudit) runs on this task's thread.
class SpecifiedFileAuditTask : public Framework::Task, public AbstractMessageReceiver {
public:
    SpecifiedFileAuditTask();

    bool Init() override;
    // Ends the watch and leaves the module stopped.
    bool UnInit() override;
    // Places the marks, then handles accesses until it is cancelled. Always 0.
    int Run() override;

    // Always -1.
    int FileNotifyMessageAction(const FileNotifyMessage* message) override;

    // Ask for a mark on each watched directory, or for the marks' end. False when a request could not
    // even be made; what becomes of a request is the file-notification module's to say.
    bool FileNotifyWatchMark();
    bool FileNotifyWatchRemove();

private:
    bool SendWatchRequests(const _FileNotifyOpt& options);
};

} // namespace Engine
