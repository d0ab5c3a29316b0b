#include "agent/daemon/StopLimit.h"

#include <utility>

namespace Daemon {

StopLimit::StopLimit(std::chrono::seconds limit, std::function<void()> giveUp)
    : mThread([this, limit, giveUp = std::move(giveUp)] {
          std::unique_lock<std::mutex> lock(mMutex);
          if (!mEnded.wait_for(lock, limit, [this] { return mDone; })) {
              giveUp();
          }
      }) {}

StopLimit::~StopLimit() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDone = true;
    }
    mEnded.notify_all();
    mThread.join();
}

} // namespace Daemon
