#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>

namespace utils {

// Does one piece of work on a thread of its own, whenever it is asked to, so that who asks need not wait.
// It is done once for each request, in their order, as if who asks had done it. Thread-safe.
class BackgroundWork {
public:
    // Starts the thread; throws std::system_error when there can be none. The work must not throw.
    explicit BackgroundWork(std::function<void()> work);

    // Does what is still requested, then ends the thread.
    ~BackgroundWork();
    BackgroundWork(const BackgroundWork&) = delete;
    BackgroundWork& operator=(const BackgroundWork&) = delete;

    // The work is done once more, from its beginning after this call.
    void Request();

private:
    void Run();

    const std::function<void()> mWork;
    std::mutex mMutex; // guards what follows it
    std::condition_variable mChanged;
    std::size_t mRequests = 0; // not begun yet
    bool mEnding = false;
    std::thread mThread; // last, so that all it uses is there
};

} // namespace utils
