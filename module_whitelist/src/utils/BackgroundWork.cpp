#include "utils/BackgroundWork.h"

#include <utility>

namespace utils {

BackgroundWork::BackgroundWork(std::function<void()> work) : mWork(std::move(work)), mThread([this] { Run(); }) {}

BackgroundWork::~BackgroundWork() {
    {
        const std::lock_guard guard(mMutex);
        mEnding = true;
    }
    mChanged.notify_one();
    mThread.join();
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
        mChanged.wait(lock, [this] { return mRequests > 0 || mEnding; });
        if (mRequests == 0) {
            return;
        }
        --mRequests;
        lock.unlock();
        mWork();
        lock.lock();
    }
}

} // namespace utils
