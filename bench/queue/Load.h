#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>

namespace Bench {

// What travels through the queues: as large as a small message of the agent, on cache lines of its own.
struct alignas(64) Message {
    std::uint64_t number = 0;
};

// The two kinds of handle. A plain pointer is copied for nothing; a shared pointer costs its count on
// both sides, and its count's cache line travels with it, whichever queue it goes through.
using Pointer = Message*;
using SharedPointer = std::shared_ptr<Message>;

struct Load {
    unsigned int producers = 1;
    unsigned int consumers = 1;
    std::size_t portion = 1;
    std::uint32_t capacity = 1024;
    std::chrono::milliseconds duration{100};
};

// Every thread waits in the same way when its queue is full or empty: a few looks, then its time slice is
// given up.
class Patience {
public:
    void Wait() {
        if (++mTries <= LOOKS_BEFORE_YIELD) {
            __builtin_ia32_pause();
        } else {
            std::this_thread::yield();
        }
    }
    void Reset() { mTries = 0; }

private:
    static constexpr int LOOKS_BEFORE_YIELD = 16;
    int mTries = 0;
};

template <typename Handle> Handle MakeHandle();
template <> inline Pointer MakeHandle<Pointer>() {
    return new Message; // lives as long as the program: a consumer may hold it at any time
}
template <> inline SharedPointer MakeHandle<SharedPointer>() {
    return std::make_shared<Message>();
}

// Spreads the threads of a run evenly over the cores. Left to the scheduler, a producer and its consumer
// share a core in one run and not in the next: half the work, or no work at all, for the caches.
inline void StayOnCore(unsigned int thread) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(thread % std::thread::hardware_concurrency(), &cores);
    sched_setaffinity(0, sizeof cores, &cores);
}

// What one producer sends again and again: so many messages that they are not those that the consumer
// has just let go, in portions made beforehand.
template <typename Handle> class Portions {
public:
    explicit Portions(std::size_t portion) {
        mPortions.resize(MESSAGES / portion);
        for (std::vector<Handle>& handles : mPortions) {
            for (std::size_t i = 0; i < portion; ++i) {
                handles.push_back(MakeHandle<Handle>());
            }
        }
    }
    std::vector<Handle>& Current() { return mPortions[mNext]; }
    void Next() { mNext = mNext + 1 == mPortions.size() ? 0 : mNext + 1; }

private:
    static constexpr std::size_t MESSAGES = 512;
    std::vector<std::vector<Handle>> mPortions;
    std::size_t mNext = 0;
};

// A producer's handles, portion after portion. Every producer goes on with what a full queue has refused of its
// portion, as whoever has something to send would, before it begins the next.
//
//   Offer()    what is to be offered now, never empty
//   Taken(n)   so many of it, from the front, are the queue's now
template <typename Handle> class Supply {
public:
    explicit Supply(std::size_t portion) : mPortions(portion) {}

    std::span<const Handle> Offer() { return std::span<const Handle>(mPortions.Current()).subspan(mTaken); }
    void Taken(std::size_t count) {
        mTaken += count;
        if (mTaken == mPortions.Current().size()) {
            mTaken = 0;
            mPortions.Next();
        }
    }

private:
    Portions<Handle> mPortions;
    std::size_t mTaken = 0;
};

// Runs the load on one queue and returns how many million elements a second came out of it.
//
//   Queue(load)                           makes a queue
//   Queue::Producer(queue, portion)       one thread's end; Put() offers a portion, returns how many went in
//   Queue::Consumer(queue, portion)       one thread's end; Take() returns how many came out and were let go
template <typename Queue> class Run {
public:
    explicit Run(const Load& load) : mLoad(load), mQueue(load) {}

    double MillionsPerSecond() {
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < mLoad.producers; ++i) {
            threads.emplace_back([this, i] {
                StayOnCore(i);
                Produce();
            });
        }
        for (unsigned int i = 0; i < mLoad.consumers; ++i) {
            threads.emplace_back([this, i] {
                StayOnCore(mLoad.producers + i);
                Consume();
            });
        }
        while (mReady.load() < threads.size()) {
            std::this_thread::yield();
        }
        const auto begin = std::chrono::steady_clock::now();
        mStarted.store(true);
        std::this_thread::sleep_for(mLoad.duration);
        mStopped.store(true);
        for (std::thread& thread : threads) {
            thread.join();
        }
        const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - begin;
        return static_cast<double>(mTaken.load()) / elapsed.count();
    }

private:
    void Produce() {
        typename Queue::Producer producer(mQueue, mLoad.portion);
        AwaitStart();
        Patience patience;
        while (!mStopped.load(std::memory_order_relaxed)) {
            if (producer.Put() == 0) {
                patience.Wait();
            } else {
                patience.Reset();
            }
        }
    }

    void Consume() {
        typename Queue::Consumer consumer(mQueue, mLoad.portion);
        AwaitStart();
        Patience patience;
        std::size_t taken = 0;
        while (!mStopped.load(std::memory_order_relaxed)) {
            const std::size_t count = consumer.Take();
            if (count == 0) {
                patience.Wait();
            } else {
                patience.Reset();
                taken += count;
            }
        }
        mTaken.fetch_add(taken);
    }

    void AwaitStart() {
        mReady.fetch_add(1);
        while (!mStarted.load()) {
            std::this_thread::yield();
        }
    }

    const Load mLoad;
    Queue mQueue;
    std::atomic<std::size_t> mReady{0};
    std::atomic<bool> mStarted{false};
    alignas(64) std::atomic<bool> mStopped{false};
    alignas(64) std::atomic<std::size_t> mTaken{0};
};

} // namespace Bench
