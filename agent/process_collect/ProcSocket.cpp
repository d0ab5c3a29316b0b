#include "agent/process_collect/ProcSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <span>

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "modules/ProcsMessage.h"

namespace Engine {

namespace {

// The kernel answers at once, from the context of the request.
constexpr std::chrono::milliseconds ACK_DEADLINE{3000};

constexpr std::size_t BATCH_SIZE = 128;

// A process event takes 76 bytes.
constexpr std::size_t MAX_DATAGRAM_BYTES = 256;

// A request that also says which events are wanted: struct proc_input of include/uapi/linux/cn_proc.h
// since Linux 6.6. Older kernels ignore a request of this length.
struct FilteredRequest {
    std::uint32_t operation;
    std::uint32_t eventKinds;
};

std::uint32_t ToMask(ProcSocket::Kinds kinds) {
    constexpr std::uint32_t FORKS_AND_EXITS = proc_event::PROC_EVENT_FORK | proc_event::PROC_EVENT_EXIT;
    switch (kinds) {
    case ProcSocket::Kinds::Execs:
        return proc_event::PROC_EVENT_EXEC;
    case ProcSocket::Kinds::ForksAndExits:
        return FORKS_AND_EXITS;
    case ProcSocket::Kinds::All:
        break;
    }
    return FORKS_AND_EXITS | proc_event::PROC_EVENT_EXEC;
}

std::string Describe(const char* what, int error) {
    return std::string(what) + ": " + std::strerror(error);
}

} // namespace

// The memory that recvmmsg(2) fills. Before every call the lengths that the one before has changed are
// reset; the pointers never change.
struct ProcSocket::Batch {
    std::array<std::array<std::byte, MAX_DATAGRAM_BYTES>, BATCH_SIZE> datagrams;
    std::array<sockaddr_nl, BATCH_SIZE> senders;
    std::array<iovec, BATCH_SIZE> places;
    std::array<mmsghdr, BATCH_SIZE> headers;
    std::size_t used = BATCH_SIZE;

    Batch() {
        for (std::size_t i = 0; i < BATCH_SIZE; ++i) {
            places[i] = {datagrams[i].data(), datagrams[i].size()};
        }
    }

    // The one behind the last that was received may have been begun.
    void Reset() {
        for (std::size_t i = 0; i < std::min(used + 1, BATCH_SIZE); ++i) {
            headers[i] = {};
            headers[i].msg_hdr.msg_name = &senders[i];
            headers[i].msg_hdr.msg_namelen = sizeof senders[i];
            headers[i].msg_hdr.msg_iov = &places[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }

    // Only the kernel has port 0; any process may send to a netlink socket.
    bool IsWholeAndFromKernel(std::size_t i) const {
        return headers[i].msg_hdr.msg_namelen == sizeof senders[i] && senders[i].nl_pid == 0 &&
               (headers[i].msg_hdr.msg_flags & MSG_TRUNC) == 0;
    }

    std::span<const std::byte> Datagram(std::size_t i) const { return {datagrams[i].data(), headers[i].msg_len}; }
};

ProcSocket::ProcSocket(Kinds kinds, int receiveBufferBytes)
    : mKinds(kinds), mReceiveBufferBytes(receiveBufferBytes), mBatch(std::make_unique<Batch>()) {}

ProcSocket::~ProcSocket() {
    if (mFd < 0) {
        return;
    }
    // Kernels before 6.6 go on producing events for a listener that only closed its socket.
    const std::uint32_t ignore = PROC_CN_MCAST_IGNORE;
    Send(&ignore, sizeof ignore, 0);
    close(mFd);
}

bool ProcSocket::Open(std::string& problem) {
    return OpenSocket(problem) && Listen(problem);
}

bool ProcSocket::OpenSocket(std::string& problem) {
    mFd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR);
    if (mFd < 0) {
        problem = Describe("the proc connector is not available here (it is in the initial network namespace)", errno);
        return false;
    }
    // Beyond net.core.rmem_max, which takes CAP_NET_ADMIN.
    if (setsockopt(mFd, SOL_SOCKET, SO_RCVBUFFORCE, &mReceiveBufferBytes, sizeof mReceiveBufferBytes) != 0) {
        problem = Describe("the receive buffer of the proc connector cannot be set (needs CAP_NET_ADMIN)", errno);
        return false;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        problem = Describe("the proc connector's events cannot be subscribed to (needs CAP_NET_ADMIN)", errno);
        return false;
    }
    return true;
}

// Asks for all events first, because only that request is acknowledged by every kernel; then narrows
// it, where the kernel can, to the kinds that are wanted. A filtered listener gets no answer: the
// kernel's filter takes the acknowledgement, an event of no kind, away as well.
bool ProcSocket::Listen(std::string& problem) {
    const std::uint32_t number = std::random_device{}();
    if (!RequestAll(number)) {
        problem = Describe("the proc connector takes no request", errno);
        return false;
    }
    int error = 0;
    if (!AwaitAck(number, error)) {
        problem = "the proc connector does not answer (the agent must run in the initial pid and user namespaces)";
        return false;
    }
    if (error != 0) {
        problem = Describe("the proc connector refuses to send events (needs CAP_NET_ADMIN)", error);
        return false;
    }
    const FilteredRequest narrow{PROC_CN_MCAST_LISTEN, ToMask(mKinds)};
    Send(&narrow, sizeof narrow, number);
    return true;
}

bool ProcSocket::RequestAll(std::uint32_t number) const {
    const std::uint32_t listen = PROC_CN_MCAST_LISTEN;
    return Send(&listen, sizeof listen, number);
}

// False when no answer came in time. Events that come before the answer are dropped; nobody has been
// promised them. Where the receive buffer ran over, the answer may have been lost with them: the
// request is repeated.
bool ProcSocket::AwaitAck(std::uint32_t request, int& error) {
    const auto deadline = std::chrono::steady_clock::now() + ACK_DEADLINE;
    for (;;) {
        const int count = Receive();
        if (count < 0 && errno == ENOBUFS) {
            RequestAll(request);
        }
        for (int i = 0; i < count; ++i) {
            const auto place = static_cast<std::size_t>(i);
            if (mBatch->IsWholeAndFromKernel(place) && DecodeProcAck(mBatch->Datagram(place), request, error)) {
                return true;
            }
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd waited{mFd, POLLIN, 0};
        poll(&waited, 1, static_cast<int>(left));
    }
}

ProcSocket::Outcome ProcSocket::Read(std::vector<ProcEvent>& events) {
    const int count = Receive();
    if (count < 0) {
        if (errno == ENOBUFS) {
            return Outcome::Overflow;
        }
        return errno == EAGAIN || errno == EINTR ? Outcome::Empty : Outcome::Failed;
    }
    const std::size_t before = events.size();
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        mGarbled += mBatch->IsWholeAndFromKernel(i) ? DecodeProcEvents(mBatch->Datagram(i), events) : 1;
    }
    const auto fresh = events.begin() + static_cast<std::ptrdiff_t>(before);
    events.erase(std::remove_if(fresh, events.end(), [this](const ProcEvent& event) { return !IsWanted(event); }),
                 events.end());
    return static_cast<std::size_t>(count) < BATCH_SIZE ? Outcome::Exhausted : Outcome::Events;
}

bool ProcSocket::IsWanted(const ProcEvent& event) const {
    return mKinds == Kinds::All || (mKinds == Kinds::Execs) == (event.kind == ProcsMessage::KIND_EXEC);
}

// How many datagrams the batch holds now; -1, with errno, when none could be read.
int ProcSocket::Receive() {
    mBatch->Reset();
    const int count = recvmmsg(mFd, mBatch->headers.data(), BATCH_SIZE, MSG_DONTWAIT, nullptr);
    mBatch->used = static_cast<std::size_t>(std::max(count, 0));
    return count;
}

bool ProcSocket::Send(const void* request, std::uint32_t size, std::uint32_t number) const {
    // One netlink message; each part is a multiple of NLMSG_ALIGNTO long.
    nlmsghdr netlink{};
    cn_msg connector{};
    netlink.nlmsg_len = static_cast<std::uint32_t>(sizeof netlink + sizeof connector) + size;
    netlink.nlmsg_type = NLMSG_DONE;
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.ack = number;
    connector.len = static_cast<std::uint16_t>(size);
    std::array<iovec, 3> parts{iovec{&netlink, sizeof netlink}, iovec{&connector, sizeof connector},
                               iovec{const_cast<void*>(request), size}};
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    return sendmsg(mFd, &message, 0) >= 0;
}

} // namespace Engine
