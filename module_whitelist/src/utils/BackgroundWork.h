#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace utils {

// Does one piece of work on a thread of its own, whenever it is asked to, so that who asks need not wait.
// Requests that come while the work is under way are met by doing it once more. Thread-safe.
class BackgroundWork {
public:
    // Starts the thread; throws std::system_error when there can be none. The work must not throw.
    explicit BackgroundWork(std::function<void()> work);

    // Meets what was requested, then ends the thread.
    ~BackgroundWork();
    BackgroundWork(const BackgroundWork&) = delete;
    BackgroundWork& operator=(const BackgroundWork&) = delete;

    // The work is done from its beginning after this call.
    void Request();

private:
    void Run();

    const std::function<void()> mWork;
    std::mutex mMutex; // guards the two flags
    std::condition_variable mChanged;
    bool mRequested = false;
    bool mEnding = false;
    std::thread mThread; // last, so that all it uses is there
};

} // namespace utils
