#pragma once

#include <string>

namespace Engine {
class AbstractMessageReceiver;
}

namespace Framework {

// What travels through task queues. Immutable once it has been sent: one message may be in several
// queues at once, each holding a shared pointer to it.
class Message {
public:
    virtual ~Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Calls the receiver's operation for this kind of message, on the receiving task's thread. The
    // default is for messages that only the receiving task's own HandleMsg understands: it does
    // nothing.
    virtual void DeliverTo(::Engine::AbstractMessageReceiver& /*receiver*/) const {}

protected:
    Message() = default;
};

// A report to the management server: its type ("whitelist_4") and its JSON document.
// Sent to the task "data_comm_report_task".
class DataMessage : public Message {
public:
    DataMessage(const std::string& type, const std::string& data) : mType(type), mData(data) {}

    const std::string& GetType() const { return mType; }
    const std::string& GetData() const { return mData; }

private:
    const std::string mType;
    const std::string mData;
};

} // namespace Framework
