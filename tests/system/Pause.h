#pragma once

#include <csignal>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace SystemTest {

// Stops a child of the test's until it gets SIGCONT. Returns when each of its threads stands still, which the signal
// alone does not wait for: one of them might go on for some milliseconds.
inline void Pause(pid_t child) {
    ASSERT_EQ(kill(child, SIGSTOP), 0);
    siginfo_t stopped{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &stopped, WSTOPPED), 0);
    ASSERT_EQ(stopped.si_code, CLD_STOPPED);
}

} // namespace SystemTest
