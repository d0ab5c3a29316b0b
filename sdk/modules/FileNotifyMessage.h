#pragma once

#include <string>

#include "framework/Message.h"
#include "modules/AbstractMessageReceiver.h"

namespace Engine {

// One access to one file by one process, from the file-notification module to the watching task.
class FileNotifyMessage : public Framework::Message {
public:
    FileNotifyMessage(int pid, const std::string& path) : mPid(pid), mPath(path) {}

    int GetEventProcessId() const { return mPid; }
    const std::string& GetEventFilePath() const { return mPath; }

    void DeliverTo(AbstractMessageReceiver& receiver) const override { receiver.FileNotifyMessageAction(this); }

private:
    const int mPid;
    const std::string mPath;
};

} // namespace Engine
