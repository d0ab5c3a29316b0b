#include <algorithm>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>
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

constexpr int SMALL_BUFFER_BYTES = 4096;
constexpr int NO_STOP = -1;
constexpr std::chrono::milliseconds FOR_EVER{60000};

// On this kernel, with the sockets that it allows and with the one that older ones do.
class ProcConnectorTest : public testing::TestWithParam<ProcConnector::Sockets> {
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

    // Reads until the kernel's dropping of events has been told.
    static bool AwaitOverflow(ProcConnector& connector) {
        std::vector<ProcEvent> events;
        return TestSupport::WaitFor([&] { return connector.Read(events).overflows > 0; });
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

TEST_P(ProcConnectorTest, AProgramStartIsForkExecExitInThatOrder) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
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

TEST_P(ProcConnectorTest, TheTimeOfAnEventIsOnTheMonotonicClock) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
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

TEST_P(ProcConnectorTest, AForkWithoutExecIsForkAndExit) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    ChildProcess child = ChildProcess::Fork([] { _exit(0); });
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(connector, pid)), (std::vector<unsigned int>{2, 3}));
}

TEST_P(ProcConnectorTest, ThreadsAreNotTold) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
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

TEST_P(ProcConnectorTest, AFullReceiveBufferIsToldOnceItIsReadAndEventsGoOn) {
    ProcConnector connector(SMALL_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    for (int i = 0; i < 100; ++i) {
        ChildProcess::Spawn({"/bin/true"}).Wait();
    }
    EXPECT_TRUE(AwaitOverflow(connector));
    // So small a buffer may run over again at any time; one event that comes through is enough.
    std::vector<ProcEvent> events;
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        ChildProcess::Spawn({"/bin/true"}).Wait();
        events.clear();
        connector.Read(events);
        return !events.empty();
    }));
}

TEST_P(ProcConnectorTest, TooManyForksAndExitsAloneAreToldToo) {
    ProcConnector connector(SMALL_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    for (int i = 0; i < 100; ++i) {
        ChildProcess::Fork([] { _exit(0); }).Wait();
    }
    EXPECT_TRUE(AwaitOverflow(connector));
}

TEST_P(ProcConnectorTest, TooManyExecsAloneAreToldToo) {
    ProcConnector connector(SMALL_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    // One process that executes itself so often.
    const std::string again = R"(test "$1" -gt 0 && exec sh -c "$0" "$0" $(($1 - 1)))";
    ChildProcess::Spawn({"/bin/sh", "-c", again, again, "100"}).Wait();
    EXPECT_TRUE(AwaitOverflow(connector));
}

TEST_P(ProcConnectorTest, AForkAndAnExitWithoutExecWakeWhoeverWaits) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    ChildProcess child = ChildProcess::Fork([] { _exit(0); });
    const int pid = child.Pid();
    std::vector<unsigned int> told;
    const auto begin = std::chrono::steady_clock::now();
    while (told.size() < 2 && std::chrono::steady_clock::now() - begin < FOR_EVER / 2) {
        connector.Wait(NO_STOP, static_cast<int>(FOR_EVER.count()));
        std::vector<ProcEvent> events;
        connector.Read(events);
        for (const ProcEvent& event : events) {
            if (event.pid == pid) {
                told.push_back(event.kind);
            }
        }
    }
    EXPECT_EQ(told, (std::vector<unsigned int>{2, 3}));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, FOR_EVER / 2);
    child.Wait();
}

TEST_P(ProcConnectorTest, AStopEndsTheWait) {
    ProcConnector connector(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    OpenIt(connector);
    int stop[2];
    ASSERT_EQ(pipe(stop), 0);
    ASSERT_EQ(write(stop[1], "x", 1), 1);
    const auto begin = std::chrono::steady_clock::now();
    connector.Wait(stop[0], static_cast<int>(FOR_EVER.count()));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, FOR_EVER / 2);
    close(stop[0]);
    close(stop[1]);
}

TEST_P(ProcConnectorTest, TwoListenersHearTheSame) {
    ProcConnector first(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    ProcConnector second(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    OpenIt(first);
    OpenIt(second);
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(first, pid)), (std::vector<unsigned int>{2, 1, 3}));
    EXPECT_EQ(Kinds(ReadLifeOf(second, pid)), (std::vector<unsigned int>{2, 1, 3}));
}

TEST_P(ProcConnectorTest, AListenerThatEndsLeavesTheOtherListening) {
    ProcConnector first(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
    OpenIt(first);
    {
        ProcConnector second(ProcConnector::RECEIVE_BUFFER_BYTES, GetParam());
        OpenIt(second);
    }
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    child.Wait();
    EXPECT_EQ(Kinds(ReadLifeOf(first, pid)), (std::vector<unsigned int>{2, 1, 3}));
}

INSTANTIATE_TEST_SUITE_P(Kernel, ProcConnectorTest,
                         testing::Values(ProcConnector::Sockets::One, ProcConnector::WhatTheKernelCan()),
                         [](const auto& parameter) { return parameter.index == 0 ? "WithoutFilter" : "AsItIs"; });
