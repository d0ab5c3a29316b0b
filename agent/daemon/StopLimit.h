#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Daemon {

// Sees to it that the daemon ends: unless this is destroyed within the time, `giveUp` is called, on a thread
// of this object's own. That is for a module that hangs where nobody can take its thread away from it.
class StopLimit {
public:
    StopLimit(std::chrono::seconds limit, std::function<void()> giveUp);
    ~StopLimit();
    StopLimit(const StopLimit&) = delete;
    StopLimit& operator=(const StopLimit&) = delete;

private:
    std::mutex mMutex;
    std::condition_variable mEnded;
    bool mDone = false;
    std::thread mThread;
};

} // namespace Daemon
