#include "framework/EventWaiter.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include "support/WaitFor.h"

using Framework::Event;
using Framework::EventWaiter;

namespace {

constexpr int LONG_MS = 3600 * 1000;

bool IsReadable(const Event& event) {
    pollfd waited{event.GetFd(), POLLIN, 0};
    return poll(&waited, 1, 0) == 1;
}

// True as soon as the condition holds; for waits too short to sleep.
template <typename Condition> bool SpinUntil(const Condition& condition) {
    constexpr int SPINS_BEFORE_YIELD = 1000;
    for (int spins = 0; !condition(); ++spins) {
        if (spins >= SPINS_BEFORE_YIELD) {
            std::this_thread::yield();
        }
    }
    return true;
}

// Handles messages that are only counted.
struct CountedQueue {
    std::atomic<int> waiting{0};

    int Handle(int max) {
        int handled = 0;
        while (handled < max && waiting.load() > 0) {
            waiting.fetch_sub(1);
            ++handled;
        }
        return handled;
    }
};

} // namespace

TEST(Event, IsLowAtFirst) {
    const Event event;
    EXPECT_FALSE(IsReadable(event));
}

TEST(Event, OneClearLowersAnySignals) {
    Event event;
    event.Signal();
    event.Signal();
    EXPECT_TRUE(IsReadable(event));
    event.Clear();
    EXPECT_FALSE(IsReadable(event));
}

TEST(Event, CanBeRaisedAgain) {
    Event event;
    for (int round = 0; round < 3; ++round) {
        event.Signal();
        EXPECT_TRUE(IsReadable(event));
        event.Clear();
        EXPECT_FALSE(IsReadable(event));
    }
}

TEST(Event, ASignalDuringAClearNeverLeavesItDeaf) {
    Event event;
    // Odd: the signaller's turn has begun. Even: it is over.
    std::atomic<int> turn{0};
    std::atomic<bool> end{false};
    std::thread signaller([&] {
        for (int next = 1; SpinUntil([&] { return turn == next || end; }) && !end; next += 2) {
            event.Signal();
            turn = next + 1;
        }
    });
    bool deaf = false;
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; !deaf && std::chrono::steady_clock::now() - start < std::chrono::seconds(2); ++round) {
        turn = 2 * round + 1;
        // Meets the signal at another moment each time.
        for (std::atomic<int> pause{round % 64}; pause > 0; --pause) {
        }
        event.Clear();
        SpinUntil([&] { return turn == 2 * round + 2; });
        event.Signal();
        deaf = !IsReadable(event);
        event.Clear();
    }
    end = true;
    signaller.join();
    EXPECT_FALSE(deaf);
}

TEST(EventWaiter, ReportsThatTheTimePassed) {
    Event event;
    EventWaiter waiter(event, [](int) {
        ADD_FAILURE() << "nothing was signalled";
        return 0;
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waiter.WaitAndHandleEvent(30, 10), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

TEST(EventWaiter, MessagesBeyondTheMaximumLeaveTheEventSignalled) {
    Event event;
    CountedQueue queue;
    EventWaiter waiter(event, [&](int max) { return queue.Handle(max); });
    queue.waiting = 5;
    event.Signal();
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 2), 2);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 2), 2);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 2), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 2), -1);
}

TEST(EventWaiter, AMessageThatComesWhileHandlingIsNotSleptOver) {
    Event event;
    int calls = 0;
    EventWaiter waiter(event, [&](int) {
        if (++calls == 1) {
            event.Signal();
        }
        return 1;
    });
    event.Signal();
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 10), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 10), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 10), -1);
}

TEST(EventWaiter, ACaughtSignalDoesNotEndTheWait) {
    struct sigaction ignored {};
    ignored.sa_handler = [](int) {};
    struct sigaction before {};
    sigaction(SIGUSR1, &ignored, &before);

    Event event;
    EventWaiter waiter(event, [](int) { return 3; });
    std::atomic<int> result{0};
    std::thread sleeper([&] { result = waiter.WaitAndHandleEvent(LONG_MS, 10); });
    for (int i = 0; i < 20; ++i) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    event.Signal();
    sleeper.join();
    EXPECT_EQ(result, 3);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(EventWaiter, NoWakeUpIsLostBetweenManySendersAndTheSleeper) {
    constexpr int SENDERS = 4;
    constexpr int MESSAGES = 20000;
    Event event;
    CountedQueue queue;
    EventWaiter waiter(event, [&](int max) { return queue.Handle(max); });

    std::vector<std::thread> senders;
    senders.reserve(SENDERS);
    for (int sender = 0; sender < SENDERS; ++sender) {
        senders.emplace_back([&] {
            for (int i = 0; i < MESSAGES; ++i) {
                queue.waiting.fetch_add(1);
                event.Signal();
            }
        });
    }
    const int deadlineMs = static_cast<int>(std::chrono::milliseconds(TestSupport::DEADLINE).count());
    int handled = 0;
    while (handled < SENDERS * MESSAGES) {
        const int result = waiter.WaitAndHandleEvent(deadlineMs, 7);
        if (result < 0) {
            break;
        }
        handled += result;
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(handled, SENDERS * MESSAGES);
}

TEST(EventWaiter, IdleWaitsGrowUntilAnEventSetsThemBack) {
    constexpr int FIRST_MS = 20;
    Event event;
    CountedQueue queue;
    EventWaiter waiter(event, [&](int max) { return queue.Handle(max); });
    const auto measure = [&] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(waiter.WaitAndHandleEvent(FIRST_MS, 10), -1);
        return std::chrono::steady_clock::now() - start;
    };
    for (int doubled = FIRST_MS; doubled < EventWaiter::MAX_IDLE_WAIT_MS; doubled *= 2) {
        EXPECT_GE(measure(), std::chrono::milliseconds(doubled));
    }
    const auto longest = measure();
    EXPECT_GE(longest, std::chrono::milliseconds(EventWaiter::MAX_IDLE_WAIT_MS));

    queue.waiting = 1;
    event.Signal();
    EXPECT_EQ(waiter.WaitAndHandleEvent(FIRST_MS, 10), 1);
    EXPECT_LT(measure(), longest);
}

TEST(EventWaiter, AWaitThatIsLongAlreadyIsNotStretched) {
    constexpr int LONG_ENOUGH_MS = EventWaiter::MAX_IDLE_WAIT_MS + 50;
    Event event;
    EventWaiter waiter(event, [](int) { return 0; });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waiter.WaitAndHandleEvent(LONG_ENOUGH_MS, 1), -1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(LONG_ENOUGH_MS, 1), -1);
    // Doubled, the second alone would have taken longer than this.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3 * LONG_ENOUGH_MS));
}
