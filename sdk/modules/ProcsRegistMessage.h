#pragma once

#include <cstdint>
#include <string>

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

// Sent to the task "procs_real_task": the subscriber wants process events of `kind` (ProcsMessage).
//
// A subscription is never withdrawn; it ends with the subscribing task object. When a task of the
// same name subscribes to the kind again, it is first given, as kind 1, the processes that began
// after the earlier one received its last event.
class ProcsRegistMessage : public Framework::Message {
public:
    // The subscriber is remembered by name and instance, not by pointer.
    ProcsRegistMessage(unsigned int kind, Framework::Task* subscriber)
        : mKind(kind), mSubscriberName(subscriber->name()), mSubscriberInstance(subscriber->GetInstanceId()) {}

    unsigned int GetKind() const { return mKind; }
    const std::string& GetSubscriberName() const { return mSubscriberName; }
    std::uint64_t GetSubscriberInstance() const { return mSubscriberInstance; }

private:
    const unsigned int mKind;
    const std::string mSubscriberName;
    const std::uint64_t mSubscriberInstance;
};

} // namespace Engine
