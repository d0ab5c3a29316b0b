#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/process_collect/ProcSocket.h"
#include "modules/ProcsMessage.h"
#include "support/ChildProcess.h"
#include "support/WaitFor.h"

using Engine::ProcEvent;
using Engine::ProcsMessage;
using Engine::ProcSocket;
using TestSupport::ChildProcess;

namespace {

constexpr int BUFFER_BYTES = 8 * 1024 * 1024;

class ProcSocketTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "the proc connector needs root";
        }
    }

    static void OpenIt(ProcSocket& socket) {
        std::string problem;
        ASSERT_TRUE(socket.Open(problem)) << problem;
    }

    // The kinds of what is told of a program that runs to its end; `last` is the last of them.
    static std::vector<unsigned int> KindsOfARun(ProcSocket& socket, unsigned int last) {
        ChildProcess child = ChildProcess::Spawn({"/bin/true"});
        const int pid = child.Pid();
        child.Wait();
        std::vector<unsigned int> kinds;
        TestSupport::WaitFor([&] {
            std::vector<ProcEvent> events;
            socket.Read(events);
            for (const ProcEvent& event : events) {
                if (event.pid == pid) {
                    kinds.push_back(event.kind);
                }
            }
            return !kinds.empty() && kinds.back() == last;
        });
        return kinds;
    }
};

} // namespace

TEST_F(ProcSocketTest, ExecsAloneCanBeHad) {
    ProcSocket socket(ProcSocket::Kinds::Execs, BUFFER_BYTES);
    OpenIt(socket);
    EXPECT_EQ(KindsOfARun(socket, ProcsMessage::KIND_EXEC), std::vector<unsigned int>{1});
}

TEST_F(ProcSocketTest, ForksAndExitsAloneCanBeHad) {
    ProcSocket socket(ProcSocket::Kinds::ForksAndExits, BUFFER_BYTES);
    OpenIt(socket);
    EXPECT_EQ(KindsOfARun(socket, ProcsMessage::KIND_EXIT), (std::vector<unsigned int>{2, 3}));
}

TEST_F(ProcSocketTest, NothingWaitingIsEmptyAndDoesNotBlock) {
    ProcSocket socket(ProcSocket::Kinds::All, BUFFER_BYTES);
    OpenIt(socket);
    std::vector<ProcEvent> events;
    EXPECT_TRUE(TestSupport::WaitFor([&] { return socket.Read(events) == ProcSocket::Outcome::Empty; }));
}

// Any process may send to a netlink socket; only port 0 is the kernel.
TEST_F(ProcSocketTest, AMessageFromAnotherProcessIsNotBelieved) {
    ProcSocket listener(ProcSocket::Kinds::All, BUFFER_BYTES);
    OpenIt(listener);
    sockaddr_nl target{};
    socklen_t size = sizeof target;
    ASSERT_EQ(getsockname(listener.GetFd(), reinterpret_cast<sockaddr*>(&target), &size), 0);
    target.nl_groups = 0;
    const int forger = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    ASSERT_GE(forger, 0);
    const char forged[76] = {};
    const ssize_t sent =
        sendto(forger, forged, sizeof forged, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    close(forger);
    ASSERT_EQ(sent, static_cast<ssize_t>(sizeof forged)) << std::strerror(errno);
    std::vector<ProcEvent> events;
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        listener.Read(events);
        return listener.GetGarbledCount() == 1;
    }));
}
