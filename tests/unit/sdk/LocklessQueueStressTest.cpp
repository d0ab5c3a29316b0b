// Many threads on one queue, and every element followed by its identity: none may be lost, none may
// come out twice, and those of one producer come out in the order in which it put them in.
//
// The work is bounded by a number of elements. CORVALENT_STRESS_ELEMENTS in the environment sets how
// many each producer sends, for a longer run by hand; the same source is also built with the thread
// sanitizer and a smaller default.

#include "LocklessQueue.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#ifndef STRESS_ELEMENTS_PER_PRODUCER
#define STRESS_ELEMENTS_PER_PRODUCER 40000
#endif

namespace {

struct Scenario {
    std::uint32_t capacity = 0;
    int producers = 6;
    int consumers = 4;
    bool releaseOnDequeue = true;
    std::uint32_t startIndex = 0;
    // Declares each side that has one thread to be single.
    bool declareSingleSides = true;
};

// Counts how many of its kind are alive. Relaxed, so that the count orders nothing that the queue itself
// ought to order.
class Element {
public:
    Element(std::size_t producer, std::uint32_t sequence) : mProducer(producer), mSequence(sequence) {
        alive.fetch_add(1, std::memory_order_relaxed);
    }
    ~Element() { alive.fetch_sub(1, std::memory_order_relaxed); }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    std::size_t Producer() const { return mProducer; }
    std::uint32_t Sequence() const { return mSequence; }
    static std::int64_t Alive() { return alive.load(std::memory_order_relaxed); }

private:
    const std::size_t mProducer;
    const std::uint32_t mSequence;
    inline static std::atomic<std::int64_t> alive{0};
};

using Message = std::shared_ptr<const Element>;
using Queue = SDK::LocklessQueue<Message>;

constexpr std::size_t LARGEST_PORTION = 17;

std::uint32_t ElementsPerProducer() {
    const char* text = std::getenv("CORVALENT_STRESS_ELEMENTS");
    return text == nullptr ? STRESS_ELEMENTS_PER_PRODUCER : static_cast<std::uint32_t>(std::stoul(text));
}

// How often each element came out.
class Arrivals {
public:
    Arrivals(std::size_t producers, std::uint32_t elements)
        : mElements(elements), mCounts(producers * static_cast<std::size_t>(elements)) {}

    void Count(const Element& element) {
        mCounts[element.Producer() * mElements + element.Sequence()].fetch_add(1, std::memory_order_relaxed);
    }

    std::size_t Lost() const {
        return CountIf([](int count) { return count == 0; });
    }
    std::size_t Doubled() const {
        return CountIf([](int count) { return count > 1; });
    }

private:
    template <typename Predicate> std::size_t CountIf(Predicate predicate) const {
        std::size_t found = 0;
        for (const std::atomic<std::uint8_t>& count : mCounts) {
            found += predicate(count.load(std::memory_order_relaxed)) ? 1U : 0U;
        }
        return found;
    }

    const std::size_t mElements;
    std::vector<std::atomic<std::uint8_t>> mCounts;
};

// Sends 0 … elements-1 in order: alternately one by one and in portions, of which the queue may take
// only the front.
void Produce(Queue& queue, std::size_t producer, std::uint32_t elements) {
    std::mt19937 random(static_cast<unsigned int>(producer));
    std::uint32_t next = 0;
    while (next < elements) {
        const std::size_t portion = random() % 2 == 0 ? 1 : 1 + random() % LARGEST_PORTION;
        std::vector<Message> messages;
        for (std::uint32_t i = next; i < elements && messages.size() < portion; ++i) {
            messages.push_back(std::make_shared<const Element>(producer, i));
        }
        const std::uint32_t taken = messages.size() == 1
                                        ? static_cast<std::uint32_t>(queue.Enqueue(messages.front()))
                                        : queue.EnqueueBulk(messages, static_cast<int>(messages.size()));
        next += taken;
        if (taken == 0) {
            std::this_thread::yield();
        }
    }
}

// What one consumer finds wrong with what it was given.
struct Findings {
    std::size_t received = 0;
    std::size_t outOfOrder = 0;
    std::size_t notConsecutive = 0;
    std::size_t mostAtOnce = 0;
};

class Consumer {
public:
    Consumer(Queue& queue, int producers, unsigned int seed, Arrivals& arrivals)
        : mQueue(queue), mRandom(seed), mLastOf(static_cast<std::size_t>(producers), -1), mArrivals(arrivals) {}

    // Takes until the queue is empty after the producers have ended.
    void Run(const std::atomic<bool>& producersEnded) {
        for (;;) {
            const bool noMoreWillCome = producersEnded.load(std::memory_order_acquire);
            const std::vector<Message> taken = Take();
            mFindings.mostAtOnce = std::max(mFindings.mostAtOnce, taken.size());
            for (const Message& message : taken) {
                Check(message);
            }
            if (taken.empty() && noMoreWillCome) {
                return;
            }
            if (taken.empty()) {
                std::this_thread::yield();
            }
        }
    }

    const Findings& Found() const { return mFindings; }

private:
    std::vector<Message> Take() {
        std::vector<Message> taken;
        switch (mRandom() % 3) {
        case 0: {
            Message message;
            if (mQueue.Dequeue(message)) {
                taken.push_back(std::move(message));
            }
            break;
        }
        case 1:
            mQueue.DequeueBulk(taken, static_cast<int>(1 + mRandom() % LARGEST_PORTION));
            break;
        default:
            mQueue.DequeueBulk(taken, -1);
        }
        return taken;
    }

    void Check(const Message& message) {
        ++mFindings.received;
        mArrivals.Count(*message);
        const std::int64_t sequence = message->Sequence();
        std::int64_t& last = mLastOf[message->Producer()];
        mFindings.outOfOrder += sequence <= last ? 1U : 0U;
        mFindings.notConsecutive += sequence != last + 1 ? 1U : 0U;
        last = sequence;
    }

    Queue& mQueue;
    std::mt19937 mRandom;
    std::vector<std::int64_t> mLastOf;
    Arrivals& mArrivals;
    Findings mFindings;
};

// Runs all producers and consumers at once, until all is sent and the queue is empty.
void RunThreads(Queue& queue, int producers, std::uint32_t elements, std::vector<Consumer>& consumers) {
    std::atomic<bool> producersEnded{false};
    std::vector<std::thread> consumerThreads;
    consumerThreads.reserve(consumers.size());
    for (Consumer& consumer : consumers) {
        consumerThreads.emplace_back([&] { consumer.Run(producersEnded); });
    }
    std::vector<std::thread> producerThreads;
    producerThreads.reserve(static_cast<std::size_t>(producers));
    for (int i = 0; i < producers; ++i) {
        producerThreads.emplace_back([&queue, i, elements] { Produce(queue, static_cast<std::size_t>(i), elements); });
    }
    for (std::thread& thread : producerThreads) {
        thread.join();
    }
    producersEnded.store(true, std::memory_order_release);
    for (std::thread& thread : consumerThreads) {
        thread.join();
    }
}

// Returns how many elements the consumers received together.
std::size_t CheckWhatConsumersFound(const std::vector<Consumer>& consumers, const Scenario& scenario) {
    std::size_t received = 0;
    for (const Consumer& consumer : consumers) {
        const Findings& found = consumer.Found();
        received += found.received;
        EXPECT_EQ(found.outOfOrder, 0U);
        EXPECT_LE(found.mostAtOnce, scenario.capacity);
        if (scenario.consumers == 1) {
            EXPECT_EQ(found.notConsecutive, 0U);
        }
    }
    return received;
}

void ExpectEachOnceAndInTheOrderOfItsProducer(const Scenario& scenario) {
    const std::uint32_t elements = ElementsPerProducer();
    Queue queue(scenario.capacity, scenario.declareSingleSides && scenario.producers == 1,
                scenario.declareSingleSides && scenario.consumers == 1, scenario.releaseOnDequeue, scenario.startIndex);

    Arrivals arrivals(static_cast<std::size_t>(scenario.producers), elements);
    std::vector<Consumer> consumers;
    consumers.reserve(static_cast<std::size_t>(scenario.consumers));
    for (int i = 0; i < scenario.consumers; ++i) {
        consumers.emplace_back(queue, scenario.producers, static_cast<unsigned int>(1000 + i), arrivals);
    }

    RunThreads(queue, scenario.producers, elements, consumers);

    EXPECT_EQ(arrivals.Lost(), 0U);
    EXPECT_EQ(arrivals.Doubled(), 0U);
    EXPECT_EQ(queue.GetDepth(), 0U);
    if (scenario.releaseOnDequeue) {
        EXPECT_EQ(Element::Alive(), 0);
    }
    EXPECT_EQ(CheckWhatConsumersFound(consumers, scenario), static_cast<std::size_t>(scenario.producers) * elements);
}

// So far before the last index that the indices wrap in the middle of even a small run.
constexpr std::uint32_t SOON_WRAPPING = std::numeric_limits<std::uint32_t>::max() - 500;

TEST(LocklessQueueStress, ManyToManyThroughOneSlot) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 1});
}

TEST(LocklessQueueStress, ManyToManyWithACapacityThatIsNoPowerOfTwo) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 7, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, ManyToManyThroughASmallQueue) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 16, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, ManyToManyThroughALargeQueue) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 1024, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, ManyToManyThroughSlotsThatKeepTheirCopies) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 16, .releaseOnDequeue = false});
}

TEST(LocklessQueueStress, ManyToOne) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 100, .consumers = 1, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, OneToMany) {
    ExpectEachOnceAndInTheOrderOfItsProducer({.capacity = 64, .producers = 1, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, OneToOne) {
    ExpectEachOnceAndInTheOrderOfItsProducer(
        {.capacity = 3, .producers = 1, .consumers = 1, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueueStress, OneToOneThatWasNotDeclaredSo) {
    ExpectEachOnceAndInTheOrderOfItsProducer(
        {.capacity = 16, .producers = 1, .consumers = 1, .startIndex = SOON_WRAPPING, .declareSingleSides = false});
}

} // namespace
