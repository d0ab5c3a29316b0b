#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>

namespace utils {

// Does one piece of work on a thread of its own, whenever it is asked to, so that who asks need not wait.
// It is done once for each request, in their order, as if who asks had done it; only at the end, when somebody
// waits after all, once for all that are left. What fails is tried again, by what is given for that, once in
// `RETRY_INTERVAL` and a last time at the end. Thread-safe.
class BackgroundWork {
public:
    // Both return false when they failed, and must not throw. `Work` is told for how many requests it is done.
    using Work = std::function<bool(std::size_t requests)>;
    using Again = std::function<bool()>;
    static constexpr std::chrono::seconds RETRY_INTERVAL{2};

    // Starts the thread; throws std::system_error when there can be none.
    BackgroundWork(Work work, Again again);

    // Does what is still requested, then ends the thread.
    ~BackgroundWork();
    // Says so beforehand, without waiting. Nothing may be requested any more.
    void BeginEnd();
    BackgroundWork(const BackgroundWork&) = delete;
    BackgroundWork& operator=(const BackgroundWork&) = delete;

    // The work is done once more, from its beginning after this call.
    void Request();

private:
    void Run();
    bool AwaitRequest(std::unique_lock<std::mutex>& lock);

    const Work mWork;
    const Again mAgain;
    std::mutex mMutex; // guards what follows it
    std::condition_variable mChanged;
    std::size_t mRequests = 0; // not begun yet
    bool mEnding = false;
    bool mDone = true;   // false: what was done last failed, and was not made up for
    std::thread mThread; // last, so that all it uses is there
};

} // namespace utils
