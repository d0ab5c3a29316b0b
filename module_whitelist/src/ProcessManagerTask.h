#pragma once

#include <memory>
#include <string>

#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"
#include "modules/WhiteListProcessInfo.h"

namespace Engine {

// The task "process_manager_task": carries process events from the process-collection module to the
// trust engine, one at a time and in the order of their arrival, and answers other parts of the agent
// whether an executable is white-listed.
//
// It starts the trust engine when it begins to run and stops it when it ends.
class ProcessManagerTask : public Framework::Task, public AbstractMessageReceiver, public WhiteListProcessInfo {
public:
    ProcessManagerTask();
    ~ProcessManagerTask() override;

    bool Init() override;
    bool UnInit() override;
    // Subscribes to executed, forked and exited processes, then handles them until it is cancelled.
    // Always 0.
    int Run() override;

    void ProcsMessageAction(int pid, unsigned int kind, std::shared_ptr<ProcsMessage::procInfo> info) override;

    bool IsWhiteListProcess(const std::string& hash, const std::string& path, int& result) override;
};

} // namespace Engine
