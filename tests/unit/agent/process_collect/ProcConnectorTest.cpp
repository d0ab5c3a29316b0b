#include <algorithm>
#include <csignal>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/process_collect/ProcConnector.h"
#include "modules/ProcsMessage.h"
#include "support/ChildProcess.h"
#include "support/WaitFor.h"

using Engine::ProcConnector;
using Engine::ProcEvent;
using Engine::ProcsMessage;
using TestSupport::ChildProcess;

namespace {

class ProcConnectorTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "the proc connector needs root";
        }
    }

    static void OpenIt(ProcConnector& connector) {
        std::string problem;
        ASSERT_TRUE(connector.Open(problem)) << problem;
    }

    // Reads until the process's exit has been told; all that was told of the process, in order.
    static std::vector<ProcEvent> ReadLifeOf(ProcConnector& connector, int pid) {
        std::vector<ProcEvent> life;
        TestSupport::WaitFor([&] {
            std::vector<ProcEvent> events;
            connector.Read(events);
            std::copy_if(events.begin(), events.end(), std::back_inserter(life),
                         [pid](const ProcEvent& event) { return event.pid == pid; });
            return !life.empty() && life.back().kind == ProcsMessage::KIND_EXIT;
        });
        return life;
    }

    static std::vector<unsigned int> Kinds(const std::vector<ProcEvent>& events) {
        std::vector<unsigned int> kinds;
        kinds.reserve(events.size());
        for (const ProcEvent& event : events) {
            kinds.push_back(event.kind);
        }
        return kinds;
    }
};

} // namespace

TEST_F(ProcConnectorTest, AProgramStartIsForkExecExitInThatOrder) {
    ProcConnector connector;
    OpenIt(connector);
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    const std::vector<ProcEvent> life = ReadLifeOf(connector, pid);
    ASSERT_EQ(Kinds(life), (std::vector<unsigned int>{2, 1, 3}));
    EXPECT_EQ(life[0].parentPid, getpid());
    EXPECT_LE(life[0].timestampNs, life[1].timestampNs);
    EXPECT_LE(life[1].timestampNs, life[2].timestampNs);
    EXPECT_EQ(connector.GetGarbledCount(), 0u);
}

TEST_F(ProcConnectorTest, TheTimeOfAnEventIsOnTheMonotonicClock) {
    ProcConnector connector;
    OpenIt(connector);
    const auto nowNs = [] {
        return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                          std::chrono::nanoseconds(1));
    };
    const std::uint64_t before = nowNs();
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    const std::uint64_t after = nowNs();
    for (const ProcEvent& event : ReadLifeOf(connector, pid)) {
        EXPECT_GE(event.timestampNs, before);
        EXPECT_LE(event.timestampNs, after);
    }
}

TEST_F(ProcConnectorTest, AForkWithoutExecIsForkAndExit) {
    ProcConnector connector;
    OpenIt(connector);
    ChildProcess child = ChildProcess::Fork([] { _exit(0); });
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(connector, pid)), (std::vector<unsigned int>{2, 3}));
}

TEST_F(ProcConnectorTest, ThreadsAreNotTold) {
    ProcConnector connector;
    OpenIt(connector);
    ChildProcess child = ChildProcess::Fork([] {
        for (int i = 0; i < 20; ++i) {
            std::thread([] {}).join();
        }
        _exit(0);
    });
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(connector, pid)), (std::vector<unsigned int>{2, 3}));
}

TEST_F(ProcConnectorTest, NothingWaitingIsEmptyAndDoesNotBlock) {
    ProcConnector connector;
    OpenIt(connector);
    std::vector<ProcEvent> events;
    EXPECT_TRUE(TestSupport::WaitFor([&] { return connector.Read(events) == ProcConnector::Outcome::Empty; }));
}

TEST_F(ProcConnectorTest, AFullReceiveBufferIsToldOnceItIsReadAndEventsGoOn) {
    ProcConnector connector(4096);
    OpenIt(connector);
    for (int i = 0; i < 100; ++i) {
        ChildProcess::Spawn({"/bin/true"}).Wait();
    }
    std::vector<ProcEvent> events;
    bool overflow = false;
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        const ProcConnector::Outcome outcome = connector.Read(events);
        overflow = overflow || outcome == ProcConnector::Outcome::Overflow;
        return overflow && outcome == ProcConnector::Outcome::Empty;
    }));
    // So small a buffer may run over again at any time; one event that comes through is enough.
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        ChildProcess::Spawn({"/bin/true"}).Wait();
        events.clear();
        connector.Read(events);
        return !events.empty();
    }));
}

// Any process may send to a netlink socket; only port 0 is the kernel.
TEST_F(ProcConnectorTest, AMessageFromAnotherProcessIsNotBelieved) {
    ProcConnector connector;
    OpenIt(connector);
    sockaddr_nl target{};
    socklen_t size = sizeof target;
    ASSERT_EQ(getsockname(connector.GetFd(), reinterpret_cast<sockaddr*>(&target), &size), 0);
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
        connector.Read(events);
        return connector.GetGarbledCount() == 1;
    }));
}

TEST_F(ProcConnectorTest, TwoListenersHearTheSame) {
    ProcConnector first;
    ProcConnector second;
    OpenIt(first);
    OpenIt(second);
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(first, pid)), (std::vector<unsigned int>{2, 1, 3}));
    EXPECT_EQ(Kinds(ReadLifeOf(second, pid)), (std::vector<unsigned int>{2, 1, 3}));
}

TEST_F(ProcConnectorTest, AListenerThatEndsLeavesTheOtherListening) {
    ProcConnector first;
    OpenIt(first);
    {
        ProcConnector second;
        OpenIt(second);
    }
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(first, pid)), (std::vector<unsigned int>{2, 1, 3}));
}
