// A thread held up between its reservation and its commit, as one that the scheduler took off its core:
// it stays there as long as the test says.

#include "LocklessQueue.h"

#include "support/WaitFor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;

// Holds up the thread that copies the element, until it is let go.
class Gate {
public:
    void Pass() {
        mReached = true;
        while (!mOpen) {
            std::this_thread::yield();
        }
    }
    bool AwaitThread() const {
        return TestSupport::WaitFor([this] { return mReached.load(); });
    }
    void Open() { mOpen = true; }

private:
    std::atomic<bool> mReached{false};
    std::atomic<bool> mOpen{false};
};

// A number whose copying or moving by assignment, which is how it gets into and out of a slot, stops at
// the gate.
class Element {
public:
    Element() = default;
    explicit Element(int number, Gate* in = nullptr, Gate* out = nullptr) : mNumber(number), mIn(in), mOut(out) {}
    Element(const Element&) = default;
    Element(Element&& other) noexcept : mNumber(other.mNumber), mIn(other.mIn), mOut(other.mOut) {
        if (mOut != nullptr) {
            std::exchange(mOut, nullptr)->Pass();
        }
    }
    Element& operator=(const Element& other) {
        mNumber = other.mNumber;
        mOut = other.mOut;
        if (other.mIn != nullptr) {
            other.mIn->Pass();
        }
        return *this;
    }
    Element& operator=(Element&&) noexcept = default;
    ~Element() = default;

    int Number() const { return mNumber; }

private:
    int mNumber = 0;
    Gate* mIn = nullptr;
    Gate* mOut = nullptr;
};

constexpr std::uint32_t SOON_WRAPPING = std::numeric_limits<std::uint32_t>::max() - 1;

class LocklessQueueHoldUp : public ::testing::Test {
protected:
    std::vector<int> TakeAll() {
        std::vector<int> numbers;
        Element element;
        while (queue.Dequeue(element)) {
            numbers.push_back(element.Number());
        }
        return numbers;
    }

    std::future<bool> EnqueueElsewhere(const Element& element) {
        return std::async(std::launch::async, [this, element] { return queue.Enqueue(element); });
    }

    Gate gate;
    SDK::LocklessQueue<Element> queue{4, false, false, true, SOON_WRAPPING};
};

TEST_F(LocklessQueueHoldUp, WhatWasCommittedBeforeAHeldUpProducerCanBeTaken) {
    queue.Enqueue(Element(1));
    auto heldUp = EnqueueElsewhere(Element(2, &gate));
    ASSERT_TRUE(gate.AwaitThread());

    EXPECT_EQ(queue.GetDepth(), 1U);
    EXPECT_THAT(TakeAll(), ElementsAre(1));

    gate.Open();
    EXPECT_TRUE(heldUp.get());
    EXPECT_THAT(TakeAll(), ElementsAre(2));
}

TEST_F(LocklessQueueHoldUp, ProducersBehindAHeldUpOneCommitAfterIt) {
    auto heldUp = EnqueueElsewhere(Element(1, &gate));
    ASSERT_TRUE(gate.AwaitThread());
    Gate second;
    auto behind = EnqueueElsewhere(Element(2, &second));
    second.Open();
    ASSERT_TRUE(second.AwaitThread()) << "a held-up producer kept another one from reserving";

    EXPECT_THAT(TakeAll(), ElementsAre()) << "an element was seen before one that was reserved earlier";
    EXPECT_EQ(behind.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    gate.Open();
    EXPECT_TRUE(heldUp.get());
    EXPECT_TRUE(behind.get());
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2));
}

TEST_F(LocklessQueueHoldUp, AFullQueueRefusesAtOnceWhileAProducerIsHeldUp) {
    for (int i = 1; i <= 3; ++i) {
        queue.Enqueue(Element(i));
    }
    auto heldUp = EnqueueElsewhere(Element(4, &gate));
    ASSERT_TRUE(gate.AwaitThread());

    EXPECT_FALSE(queue.Enqueue(Element(5)));

    gate.Open();
    EXPECT_TRUE(heldUp.get());
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2, 3, 4));
}

TEST_F(LocklessQueueHoldUp, ProducersGoOnUntilTheQueueIsFullWhileAConsumerIsHeldUp) {
    queue.Enqueue(Element(1, nullptr, &gate));
    Element taken;
    auto heldUp = std::async(std::launch::async, [&] { return queue.Dequeue(taken); });
    ASSERT_TRUE(gate.AwaitThread());

    for (int i = 2; i <= 4; ++i) {
        EXPECT_TRUE(queue.Enqueue(Element(i)));
    }
    EXPECT_FALSE(queue.Enqueue(Element(5))) << "a slot was given out that is still being read";

    gate.Open();
    EXPECT_TRUE(heldUp.get());
    EXPECT_EQ(taken.Number(), 1);
    EXPECT_TRUE(queue.Enqueue(Element(5)));
    EXPECT_THAT(TakeAll(), ElementsAre(2, 3, 4, 5));
}

// An element whose every tenth copy into a slot costs the thread its time slice.
class Descheduling {
public:
    Descheduling() = default;
    Descheduling(std::size_t producer, int number) : mProducer(producer), mNumber(number) {}
    Descheduling(const Descheduling&) = default;
    Descheduling(Descheduling&&) noexcept = default;
    Descheduling& operator=(const Descheduling& other) {
        mProducer = other.mProducer;
        mNumber = other.mNumber;
        if (mNumber % 10 == 0) {
            std::this_thread::yield();
        }
        return *this;
    }
    Descheduling& operator=(Descheduling&&) noexcept = default;
    ~Descheduling() = default;

    std::size_t Producer() const { return mProducer; }
    int Number() const { return mNumber; }

private:
    std::size_t mProducer = 0;
    int mNumber = 0;
};

TEST(LocklessQueueHoldUpOfMany, ManyMoreProducersThanCoresKeepTheirOrder) {
    const std::size_t producers = 4 * std::max(1U, std::thread::hardware_concurrency());
    constexpr int ELEMENTS = 2000;
    SDK::LocklessQueue<Descheduling> queue(64, false, true, true, SOON_WRAPPING);
    std::vector<std::jthread> threads;
    for (std::size_t producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&queue, producer] {
            for (int number = 0; number < ELEMENTS;) {
                number += queue.Enqueue(Descheduling(producer, number)) ? 1 : 0;
            }
        });
    }

    std::vector<int> nextOf(producers, 0);
    std::size_t outOfOrder = 0;
    Descheduling taken;
    for (std::size_t left = producers * ELEMENTS; left > 0;) {
        if (queue.Dequeue(taken)) {
            outOfOrder += taken.Number() == nextOf[taken.Producer()]++ ? 0U : 1U;
            --left;
        } else {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_FALSE(queue.Dequeue(taken));
}

} // namespace
