#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/process_collect/EventMerge.h"
#include "agent/process_collect/ProcEvent.h"
#include "agent/process_collect/ProcSocket.h"

namespace Engine {

// The kernel's process events in their order, with few wake-ups.
//
// A program start is three events: fork, exec, exit. Whoever is woken for each spends more on waking than on
// anything else. So where the kernel can tell them apart, execs come through one socket, which wakes the
// reader at once, and forks and exits through another, which is read along with the execs or, when none
// comes, after GATHER_TIME.
//
//     idle         any event wakes. A fork or exit alone leads to gathering
//     gathering    after such an event, and after execs: an exec wakes; else the time is waited for
//
// On a kernel that cannot (before 6.6) there is one socket for all.
//
// One thread at a time.
class ProcConnector {
public:
    // Several thousand events; the kernel accounts a multiple of their size against it. Of each socket.
    static constexpr int RECEIVE_BUFFER_BYTES = 8 * 1024 * 1024;

    // How long a fork or exit waits for an exec's company.
    static constexpr std::chrono::milliseconds GATHER_TIME{5};

    enum class Sockets {
        One,
        Two,
    };

    explicit ProcConnector(int receiveBufferBytes = RECEIVE_BUFFER_BYTES, Sockets sockets = WhatTheKernelCan());
    ProcConnector(const ProcConnector&) = delete;
    ProcConnector& operator=(const ProcConnector&) = delete;

    // Two from Linux 6.6 on.
    static Sockets WhatTheKernelCan();

    // See ProcSocket::Open.
    bool Open(std::string& problem);

    // Sleeps until Read should be called, until `stopFd` is readable, or until `timeoutMs` milliseconds have
    // passed; -1 for no end.
    void Wait(int stopFd, int timeoutMs);

    struct Outcome {
        unsigned int overflows = 0; // how often the kernel dropped events, since the last call
        int error = 0;              // an errno value; not 0: a socket could not be read
    };

    // Appends what waits, in the order in which it happened to each process. Never blocks.
    Outcome Read(std::vector<ProcEvent>& events);

    // Messages that were dropped because they could not be believed or decoded.
    std::uint64_t GetGarbledCount() const;

private:
    static void ReadAll(ProcSocket& socket, std::vector<ProcEvent>& events, Outcome& outcome);

    // The execs; without the other one, everything.
    ProcSocket mFirst;
    const std::unique_ptr<ProcSocket> mSecond; // forks and exits
    EventMerge mMerge;
    bool mGathering = false;
    std::vector<ProcEvent> mExecs;
    std::vector<ProcEvent> mOthers;
};

} // namespace Engine
