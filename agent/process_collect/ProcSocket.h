#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/process_collect/ProcEvent.h"

namespace Engine {

// One subscription to the kernel's proc connector: the only class that talks to it.
//
// It owns one descriptor, a netlink socket, from Open to the destructor, and nothing else. It must not
// know of subscribers, of the scope or of /proc: it says what the kernel said.
//
//     Open          socket → receive buffer → multicast group → "listen" → the kernel's answer
//     Read          up to a batch of datagrams → ProcEvents, copied out; nothing points into the buffers
//     GetFd         lent for poll(2), never closed by the borrower
//     ~ProcSocket   "ignore" → close
//
// What can go wrong, and what comes of it:
//
//     no right to listen (EPERM), other network namespace (EPROTONOSUPPORT), other pid or user
//     namespace (the kernel does not answer)       Open fails with one line that says so
//     the receive buffer ran over (ENOBUFS)        Read says Overflow; events are gone, how many is not
//                                                  known
//     a datagram that did not come from the kernel, or that cannot be decoded
//                                                  dropped; GetGarbledCount
//
// One thread at a time.
class ProcSocket {
public:
    // What it tells of. Linux 6.6 and later leave the other kinds out themselves, so that they wake nobody;
    // from an older kernel they come, and are dropped here.
    enum class Kinds {
        All,
        Execs,
        ForksAndExits,
    };

    ProcSocket(Kinds kinds, int receiveBufferBytes);
    ~ProcSocket();
    ProcSocket(const ProcSocket&) = delete;
    ProcSocket& operator=(const ProcSocket&) = delete;

    // Starts to listen. False, and `problem` says why in one line, when the agent may not or cannot;
    // the object is of no use then. Returns within a few seconds. Called once.
    bool Open(std::string& problem);

    // For poll(2): readable when Read has something to say. -1 when not open.
    int GetFd() const { return mFd; }

    enum class Outcome {
        Events,    // `events` may have grown; there may be more
        Exhausted, // the same, and nothing more waits
        Empty,     // nothing waits
        Overflow,  // the kernel dropped events since the last call
        Failed,    // errno says why
    };

    // Takes one batch of what waits and appends its events. Never blocks.
    Outcome Read(std::vector<ProcEvent>& events);

    // Messages that were dropped because they could not be believed or decoded.
    std::uint64_t GetGarbledCount() const { return mGarbled; }

private:
    struct Batch;

    bool OpenSocket(std::string& problem);
    bool Listen(std::string& problem);
    bool AwaitAck(std::uint32_t request, int& error);
    int Receive();
    bool RequestAll(std::uint32_t number) const;
    bool Send(const void* request, std::uint32_t size, std::uint32_t number) const;

    bool IsWanted(const ProcEvent& event) const;

    const Kinds mKinds;
    const int mReceiveBufferBytes;
    const std::unique_ptr<Batch> mBatch;
    int mFd = -1;
    std::uint64_t mGarbled = 0;
};

} // namespace Engine
