#pragma once

#include <atomic>
#include <memory>
#include <new>
#include <optional>

#include "support/AllocationCounter.h"
#include "tests/unit/agent/process_collect/Receiver.h"

namespace TestSupport {

// A receiver whose thread runs out of memory.
class StarvingReceiver : public Receiver {
public:
    using Receiver::Receiver;

    void ProcsMessageAction(int pid, unsigned int kind, std::shared_ptr<Engine::ProcsMessage::procInfo> info) override {
        mNoMemory.reset();
        Receiver::ProcsMessageAction(pid, kind, info);
        if (kind == 1 && famines.fetch_sub(1) > 0) {
            mNoMemory.emplace();
            throw std::bad_alloc();
        }
    }

    // So many of the next executions are handled with no memory to be had, until the next event comes.
    std::atomic<int> famines{0};

private:
    std::optional<NoMemory> mNoMemory; // of the task's thread
};

} // namespace TestSupport
