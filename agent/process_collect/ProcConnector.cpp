#include "agent/process_collect/ProcConnector.h"

#include <array>
#include <cerrno>
#include <cstdio>

#include <poll.h>
#include <sys/utsname.h>

#include "agent/process_collect/PollTimeout.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

using Kinds = ProcSocket::Kinds;

} // namespace

ProcConnector::ProcConnector(int receiveBufferBytes, Sockets sockets)
    : mFirst(sockets == Sockets::Two ? Kinds::Execs : Kinds::All, receiveBufferBytes),
      mSecond(sockets == Sockets::Two ? std::make_unique<ProcSocket>(Kinds::ForksAndExits, receiveBufferBytes)
                                      : nullptr) {}

// A filtered listener gets no answer, so the kernel cannot be asked whether it filters.
ProcConnector::Sockets ProcConnector::WhatTheKernelCan() {
    utsname kernel{};
    int major = 0;
    int minor = 0;
    const bool known = uname(&kernel) == 0 && std::sscanf(kernel.release, "%d.%d", &major, &minor) == 2;
    return known && (major > 6 || (major == 6 && minor >= 6)) ? Sockets::Two : Sockets::One;
}

bool ProcConnector::Open(std::string& problem) {
    return mFirst.Open(problem) && (!mSecond || mSecond->Open(problem));
}

void ProcConnector::Wait(int stopFd, int timeoutMs) {
    // poll(2) passes over the descriptor -1.
    std::array<pollfd, 3> waited{pollfd{mFirst.GetFd(), POLLIN, 0}, pollfd{stopFd, POLLIN, 0},
                                 pollfd{mSecond && !mGathering ? mSecond->GetFd() : -1, POLLIN, 0}};
    constexpr int GATHER_MS = static_cast<int>(GATHER_TIME.count());
    poll(waited.data(), waited.size(), mGathering ? ShorterTimeout(timeoutMs, GATHER_MS) : timeoutMs);
    if (waited[0].revents == 0 && waited[1].revents == 0 && waited[2].revents != 0) {
        waited[2].fd = -1;
        poll(waited.data(), waited.size(), ShorterTimeout(timeoutMs, GATHER_MS));
    }
}

ProcConnector::Outcome ProcConnector::Read(std::vector<ProcEvent>& events) {
    Outcome outcome;
    if (!mSecond) {
        ReadAll(mFirst, events, outcome);
        return outcome;
    }
    const std::uint64_t begunNs = SDK::TimeUtils::GetMonotonicNs();
    ReadAll(mFirst, mExecs, outcome);
    ReadAll(*mSecond, mOthers, outcome);
    mGathering = !mExecs.empty();
    mMerge.Merge(begunNs, mExecs, mOthers, events);
    mGathering = mGathering || mMerge.KeepsSome();
    return outcome;
}

// To the end, also behind an overflow.
void ProcConnector::ReadAll(ProcSocket& socket, std::vector<ProcEvent>& events, Outcome& outcome) {
    for (;;) {
        switch (socket.Read(events)) {
        case ProcSocket::Outcome::Events:
            break;
        case ProcSocket::Outcome::Overflow:
            ++outcome.overflows;
            break;
        case ProcSocket::Outcome::Failed:
            outcome.error = errno;
            return;
        case ProcSocket::Outcome::Exhausted:
        case ProcSocket::Outcome::Empty:
            return;
        }
    }
}

std::uint64_t ProcConnector::GetGarbledCount() const {
    return mFirst.GetGarbledCount() + (mSecond ? mSecond->GetGarbledCount() : 0);
}

} // namespace Engine
