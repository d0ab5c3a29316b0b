#pragma once

#include <string>

#include <Poco/Message.h>

namespace SDK {

// Where ModuleLog shows every record before it writes it, so that the agent can tell an operator
// what was logged while a request of his was worked on. Costs one read of a thread's own variable
// while nobody listens.
class LogTap {
public:
    // Shows one record of the calling thread. Never throws.
    static void Offer(Poco::Message::Priority priority, const std::string& text) noexcept;
};

} // namespace SDK
