#pragma once

#include <memory>

#include "modules/ProcsMessage.h"

namespace Engine {

class AssetMessage;
class FileNotifyMessage;
class FtraceMessage;

// What a task inherits, beside Framework::Task, to receive the messages of sibling modules: one
// operation for each kind, called on the task's thread. The defaults ignore the message.
class AbstractMessageReceiver {
public:
    // One file access. The result is not looked at; -1 by custom.
    virtual int FileNotifyMessageAction(const FileNotifyMessage* /*message*/) { return -1; }

    // One process event; see ProcsMessage.
    virtual void ProcsMessageAction(int /*pid*/, unsigned int /*kind*/,
                                    // NOLINTNEXTLINE(performance-unnecessary-value-param): it may be kept
                                    std::shared_ptr<ProcsMessage::procInfo> /*info*/) {}

    virtual void AssetMessageAction(const AssetMessage* /*message*/) {}

    virtual void FtraceMessageAction(const FtraceMessage* /*message*/) {}

    virtual ~AbstractMessageReceiver() = default;
};

} // namespace Engine
