#include "exec/BareLoop.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr int RECEIVE_BUFFER_BYTES = 8 * 1024 * 1024;
constexpr timeval STOP_CHECK_INTERVAL{0, 20000};

// Asks for all kinds, in the form that every kernel understands.
constexpr std::uint32_t UNFILTERED = 0;

std::uint32_t ToMask(BareLoop::Kinds kinds) {
    const std::uint32_t execs = proc_event::PROC_EVENT_EXEC;
    return kinds == BareLoop::Kinds::Execs ? execs : execs | proc_event::PROC_EVENT_FORK | proc_event::PROC_EVENT_EXIT;
}

constexpr std::size_t HEADERS = sizeof(nlmsghdr) + sizeof(cn_msg);

} // namespace

BareLoop::BareLoop(OnExec onExec, Kinds kinds)
    : mOnExec(std::move(onExec)), mFd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR)) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (mFd < 0 ||
        setsockopt(mFd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES) != 0 ||
        setsockopt(mFd, SOL_SOCKET, SO_RCVTIMEO, &STOP_CHECK_INTERVAL, sizeof STOP_CHECK_INTERVAL) != 0 ||
        bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error(std::string("no proc connector: ") + std::strerror(errno));
    }
    // The first is understood by every kernel, the second by those that can filter.
    Listen(PROC_CN_MCAST_LISTEN, UNFILTERED);
    Listen(PROC_CN_MCAST_LISTEN, ToMask(kinds));
    mThread = std::thread([this] { Run(); });
}

BareLoop::~BareLoop() {
    mStopping.store(true);
    mThread.join();
    Listen(PROC_CN_MCAST_IGNORE, UNFILTERED);
    close(mFd);
}

void BareLoop::Listen(std::uint32_t operation, std::uint32_t eventKinds) const {
    // struct proc_input of include/uapi/linux/cn_proc.h since Linux 6.6, or the operation alone.
    const std::array<std::uint32_t, 2> content{operation, eventKinds};
    const std::size_t length = eventKinds != UNFILTERED ? sizeof content : sizeof operation;
    nlmsghdr netlink{};
    netlink.nlmsg_len = static_cast<std::uint32_t>(HEADERS + length);
    netlink.nlmsg_type = NLMSG_DONE;
    cn_msg connector{};
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.len = static_cast<std::uint16_t>(length);
    std::array<std::byte, HEADERS + sizeof content> request{};
    std::memcpy(request.data(), &netlink, sizeof netlink);
    std::memcpy(request.data() + sizeof netlink, &connector, sizeof connector);
    std::memcpy(request.data() + HEADERS, content.data(), length);
    static_cast<void>(send(mFd, request.data(), netlink.nlmsg_len, 0));
}

void BareLoop::Run() {
    std::array<std::byte, 256> datagram{};
    while (!mStopping.load(std::memory_order_relaxed)) {
        const ssize_t size = recv(mFd, datagram.data(), datagram.size(), 0);
        if (size < 0 && errno == ENOBUFS) {
            mOverflows.fetch_add(1);
        }
        if (size < static_cast<ssize_t>(HEADERS + sizeof(proc_event))) {
            continue;
        }
        proc_event event{};
        std::memcpy(&event, datagram.data() + HEADERS, sizeof event);
        if (event.what == proc_event::PROC_EVENT_EXEC) {
            mOnExec(event.event_data.exec.process_tgid, event.timestamp_ns);
        }
    }
}

SecondThread::SecondThread(std::function<void(int pid)> act) {
    if (pipe2(mPipe.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    mThread = std::thread([this, act = std::move(act)] {
        for (int pid = 0; read(mPipe[0], &pid, sizeof pid) == sizeof pid;) {
            act(pid);
        }
    });
}

SecondThread::~SecondThread() {
    close(mPipe[1]);
    mThread.join();
    close(mPipe[0]);
}

void SecondThread::Tell(int pid) const {
    static_cast<void>(write(mPipe[1], &pid, sizeof pid) < 0);
}

} // namespace Bench
