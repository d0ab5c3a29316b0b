#include "ctl/preset/Parallel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "ctl/Failure.h"
#include "ctl/Interrupts.h"

namespace Ctl::Preset {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{100};

// What the threads of one ForEach share.
class Crew {
public:
    Crew(std::size_t count, const std::function<void(std::size_t)>& work) : mCount(count), mWork(work) {}

    // A thread's whole life.
    void Work() {
        try {
            for (std::size_t i = mNext++; i < mCount && !mStopped && !Interrupts::AreThere(); i = mNext++) {
                mWork(i);
            }
        } catch (...) {
            Stop(std::current_exception());
        }
        const std::lock_guard<std::mutex> lock(mMutex);
        --mRunning;
        mEnded.notify_one();
    }

    // Called for each thread before it begins.
    void Enter() {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mRunning;
    }

    void Stop(const std::exception_ptr& reason) {
        mStopped = true;
        const std::lock_guard<std::mutex> lock(mMutex);
        if (!mReason) {
            mReason = reason;
        }
    }

    // True once all threads have ended.
    bool WaitForEnd() {
        std::unique_lock<std::mutex> lock(mMutex);
        return mEnded.wait_for(lock, LOOK_INTERVAL, [this] { return mRunning == 0; });
    }

    void ThrowReason() const {
        if (mReason) {
            std::rethrow_exception(mReason);
        }
    }

private:
    const std::size_t mCount;
    const std::function<void(std::size_t)>& mWork;
    std::atomic<std::size_t> mNext{0};
    std::atomic<bool> mStopped{false};
    std::mutex mMutex;
    std::condition_variable mEnded;
    unsigned mRunning = 0;
    std::exception_ptr mReason;
};

} // namespace

void ForEach(std::size_t count, unsigned threads, const std::function<void(std::size_t)>& work,
             const std::function<void()>& look) {
    Crew crew(count, work);
    {
        std::vector<std::jthread> members;
        try {
            for (unsigned i = 0; i < std::max(threads, 1U); ++i) {
                crew.Enter();
                members.emplace_back([&crew] { crew.Work(); });
            }
            while (!crew.WaitForEnd()) {
                look();
            }
        } catch (...) {
            crew.Stop(std::current_exception());
        }
    }
    crew.ThrowReason();
    ThrowIfInterrupted();
    look();
}

void ThrowIfInterrupted() {
    if (Interrupts::AreThere()) {
        throw Failure("interrupted, nothing was written");
    }
}

} // namespace Ctl::Preset
