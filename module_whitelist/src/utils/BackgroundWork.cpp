#include "utils/BackgroundWork.h"

#include <algorithm>
#include <utility>

namespace utils {

BackgroundWork::BackgroundWork(Work work, Again again)
    : mWork(std::move(work)), mAgain(std::move(again)), mThread([this] { Run(); }) {}

BackgroundWork::~BackgroundWork() {
    BeginEnd();
    mThread.join();
}

void BackgroundWork::BeginEnd() {
    {
        const std::lock_guard guard(mMutex);
        mEnding = true;
    }
    mChanged.notify_one();
}

void BackgroundWork::Request() {
    {
        const std::lock_guard guard(mMutex);
        ++mRequests;
    }
    mChanged.notify_one();
}

void BackgroundWork::Run() {
    std::unique_lock lock(mMutex);
    for (;;) {
        const bool requested = AwaitRequest(lock);
        const bool ending = mEnding;
        if (!requested && mDone) {
            return;
        }
        const std::size_t requests = ending ? mRequests : std::min<std::size_t>(mRequests, 1);
        mRequests -= requests;
        lock.unlock();
        const bool done = requested ? mWork(requests) : mAgain();
        lock.lock();
        mDone = done;
        if (!requested && ending) {
            return;
        }
    }
}

// False when there is none: at the end, or when it is time to try again.
bool BackgroundWork::AwaitRequest(std::unique_lock<std::mutex>& lock) {
    const auto called = [this] { return mRequests > 0 || mEnding; };
    if (mDone) {
        mChanged.wait(lock, called);
    } else {
        mChanged.wait_for(lock, RETRY_INTERVAL, called);
    }
    return mRequests > 0;
}

} // namespace utils
