#include "framework/HandledEvent.h"

#include <cerrno>

#include <unistd.h>

#include "agent/sdk/Pidfd.h"
#include "sdk/Shortage.h"

namespace Framework {

namespace {

thread_local const HandledEvent* handled = nullptr;

} // namespace

HandledEvent::HandledEvent(std::uint64_t timestampNs, int pid) : mOuter(handled), mTimestampNs(timestampNs), mPid(pid) {
    if (mPid > 0) {
        mPidfd = SDK::OpenPidfd(mPid);
        mError = mPidfd < 0 ? SDK::Shortage::Note(errno) : 0;
    }
    handled = this;
}

HandledEvent::~HandledEvent() {
    handled = mOuter;
    if (mPidfd >= 0) {
        close(mPidfd);
    }
}

std::uint64_t HandledEvent::GetTimestampNs() {
    return handled == nullptr ? 0 : handled->mTimestampNs;
}

bool HandledEvent::IsAbout(int pid, int& pidfd, int& error) {
    if (handled == nullptr || pid <= 0 || handled->mPid != pid) {
        return false;
    }
    pidfd = handled->mPidfd;
    error = handled->mError;
    return true;
}

} // namespace Framework
