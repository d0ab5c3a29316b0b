#pragma once

#include <string>
#include <utility>

#include "framework/Message.h"
#include "modules/AbstractMessageReceiver.h"

namespace Engine {

// One access to one file by one process, from the file-notification module to the watching task.
//
// The path is the one by which the agent sees the file at the moment at which the event was read; a
// file that has been removed since carries the kernel's " (deleted)" behind it.
class FileNotifyMessage : public Framework::Message {
public:
    FileNotifyMessage(int pid, std::string path) : mPid(pid), mPath(std::move(path)) {}

    int GetEventProcessId() const { return mPid; }
    const std::string& GetEventFilePath() const { return mPath; }

    // Hands the access to FileNotifyMessageAction; it counts as "files.judged" afterwards.
    void DeliverTo(AbstractMessageReceiver& receiver) const override;

private:
    const int mPid;
    const std::string mPath;
};

} // namespace Engine
