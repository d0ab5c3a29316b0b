#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace SDK {

// A bounded lock-free ring of elements held by value; any number of producers and consumers.
//
// Four indices count up through all of 2^32 and wrap around freely; index i lives in slot i AND mask.
// They divide the ring:
//
//     consumer tail <= consumer head <= producer tail <= producer head <= consumer tail + capacity
//
//     [consumer tail, consumer head)   being copied out by consumers that reserved them
//     [consumer head, producer tail)   committed, waiting for a consumer
//     [producer tail, producer head)   being copied in by producers that reserved them
//     the rest                         free
//
// A thread reserves a range by moving the head of its side, copies, then commits by moving the tail
// of its side over its range. Commits happen in the order of the reservations: a thread waits for
// those that reserved before it. So a thread that is descheduled between reserving and committing
// holds up later threads of its own side, never the other side.
//
// Nothing blocks and nothing fails: a full queue takes fewer elements than offered, possibly none, an
// empty queue gives none; callers look at the count. The queue never grows.
template <typename T> class LocklessQueue {
public:
    // `capacity` is the most elements that the queue holds at once, at most 2^31; the number of slots is
    // the next power of two. 0 makes a queue without storage, which refuses everything.
    //
    // `singleProducer` / `singleConsumer` declare that one thread only is on that side; it then pays
    // for no compare-and-swap and never waits. With `releaseOnDequeue` a dequeued slot is reset at
    // once; without it the slot keeps its copy until it is written again. `startIndex` is where all
    // four indices begin.
    explicit LocklessQueue(std::uint32_t capacity, bool singleProducer = false, bool singleConsumer = false,
                           bool releaseOnDequeue = true, std::uint32_t startIndex = 0)
        : mProducerHead(startIndex), mProducerTail(startIndex), mConsumerHead(startIndex), mConsumerTail(startIndex),
          mSingleProducer(singleProducer), mSingleConsumer(singleConsumer),
          mSize(capacity == 0 ? 0 : std::bit_ceil(capacity)), mMask(mSize - 1), mCapacity(capacity),
          mReleaseOnDequeue(releaseOnDequeue), mSlots(mSize == 0 ? nullptr : new T[mSize]) {}

    // Releases the slots' values from the last slot to the first. No thread may use the queue any more.
    virtual ~LocklessQueue() = default;

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    // True when the element was taken.
    virtual bool Enqueue(const T& element) {
        if (!mSlots) {
            return false;
        }
        return EnqueueBulk(std::vector<T>{element}, 1) == 1;
    }

    // Takes as many of the elements as fit, from the front, and returns how many. The vector's size
    // decides; `count` is not looked at.
    virtual unsigned int EnqueueBulk(const std::vector<T>& elements, int /*count*/) {
        if (!mSlots) {
            return 0;
        }
        std::uint32_t start = 0;
        const std::uint32_t count =
            ReserveForProducing(static_cast<std::uint32_t>(std::min<std::size_t>(elements.size(), mCapacity)), start);
        if (count == 0) {
            return 0;
        }
        _EnqueueElements(start, elements, count);
        Commit(mProducerTail, start, count, mSingleProducer);
        return count;
    }

    // Takes the oldest element out. False, `element` untouched, when there is none.
    virtual bool Dequeue(T& element) {
        if (!mSlots) {
            return false;
        }
        std::vector<T> taken;
        if (DequeueBulk(taken, 1) != 1) {
            return false;
        }
        element = taken.front();
        return true;
    }

    // Appends up to `max` elements, oldest first, and returns how many. A negative `max` is no limit.
    virtual unsigned int DequeueBulk(std::vector<T>& elements, int max) {
        if (!mSlots) {
            return 0;
        }
        std::uint32_t start = 0;
        const std::uint32_t count = ReserveForConsuming(static_cast<std::uint32_t>(max), start);
        if (count == 0) {
            return 0;
        }
        _DequeueElements(start, elements, count);
        Commit(mConsumerTail, start, count, mSingleConsumer);
        return count;
    }

    // How many committed elements wait now. A snapshot: it may be out of date at once.
    std::uint32_t GetDepth() const {
        const std::uint32_t head = mConsumerHead.load(std::memory_order_acquire);
        const std::uint32_t depth = mProducerTail.load(std::memory_order_acquire) - head;
        return std::min(depth, mCapacity);
    }

    std::uint32_t GetCapacity() const { return mCapacity; }

protected:
    // Copy `count` elements between the vector's front (enqueue) or end (dequeue) and the slots from
    // index `start` on, going on at slot 0 behind the last one. The caller has reserved the range.
    // NOLINTNEXTLINE(bugprone-reserved-identifier)
    void _EnqueueElements(std::uint32_t start, const std::vector<T>& elements, std::uint32_t count) {
        const std::uint32_t slot = start & mMask;
        const std::uint32_t untilEnd = std::min(count, mSize - slot);
        ForEach(untilEnd, [&](std::uint32_t i) { mSlots[slot + i] = elements[i]; });
        ForEach(count - untilEnd, [&](std::uint32_t i) { mSlots[i] = elements[untilEnd + i]; });
    }

    // NOLINTNEXTLINE(bugprone-reserved-identifier)
    void _DequeueElements(std::uint32_t start, std::vector<T>& elements, std::uint32_t count) {
        const std::uint32_t slot = start & mMask;
        const std::uint32_t untilEnd = std::min(count, mSize - slot);
        elements.reserve(elements.size() + count);
        ForEach(untilEnd, [&](std::uint32_t i) { TakeSlot(slot + i, elements); });
        ForEach(count - untilEnd, [&](std::uint32_t i) { TakeSlot(i, elements); });
    }

private:
    // How often a thread looks again with a pause in between before it gives up its time slice: with
    // more threads than cores the one it waits for may not be running.
    static constexpr int SPINS_BEFORE_YIELD = 128;

    // Sets `start` to the first reserved index and returns how many of `wanted` were reserved.
    std::uint32_t ReserveForProducing(std::uint32_t wanted, std::uint32_t& start) {
        // Acquire, and before the consumer tail is read: it pairs with the release of the exchange
        // that wrote this head, so the tail read below is no older than the one that exchange was
        // computed from. An older tail would make the difference wrap and look like free space.
        std::uint32_t head = mProducerHead.load(std::memory_order_acquire);
        for (;;) {
            // Acquire: pairs with the release in Commit by the consumer that freed the slots, whose
            // reads of them are thereby over before they are written again.
            const std::uint32_t freeSpace = mConsumerTail.load(std::memory_order_acquire) + mCapacity - head;
            const std::uint32_t count = std::min(wanted, freeSpace);
            if (count == 0) {
                return 0;
            }
            if (Advance(mProducerHead, head, count, mSingleProducer)) {
                start = head;
                return count;
            }
        }
    }

    std::uint32_t ReserveForConsuming(std::uint32_t max, std::uint32_t& start) {
        // Acquire, for the same reason as on the producers' side.
        std::uint32_t head = mConsumerHead.load(std::memory_order_acquire);
        for (;;) {
            // Acquire: pairs with the release in Commit by the producer, which makes the elements in
            // the slots visible.
            const std::uint32_t available = mProducerTail.load(std::memory_order_acquire) - head;
            const std::uint32_t count = std::min(max, available);
            if (count == 0) {
                return 0;
            }
            if (Advance(mConsumerHead, head, count, mSingleConsumer)) {
                start = head;
                return count;
            }
        }
    }

    // Moves a head from `expected` by `count`. False, `expected` set to the present value, when
    // another thread was faster.
    static bool Advance(std::atomic<std::uint32_t>& head, std::uint32_t& expected, std::uint32_t count, bool single) {
        if (single) {
            // Nobody else writes this head. Release pairs with the acquire in GetDepth: who sees this
            // head must not go on to see a tail older than the one it was computed from.
            head.store(expected + count, std::memory_order_release);
            return true;
        }
        // A full barrier. Its release half pairs with the acquire load of the head above; on failure
        // the present value is acquired for the next round.
        return head.compare_exchange_strong(expected, expected + count, std::memory_order_seq_cst,
                                            std::memory_order_acquire);
    }

    // Moves a tail over the range once all ranges reserved before it have been committed.
    static void Commit(std::atomic<std::uint32_t>& tail, std::uint32_t start, std::uint32_t count, bool single) {
        if (!single) {
            // Acquire: what the earlier threads of this side did to their slots is passed on by the
            // release below to whoever reads the tail.
            for (int spins = 0; tail.load(std::memory_order_acquire) != start; ++spins) {
                if (spins < SPINS_BEFORE_YIELD) {
                    PauseCpu();
                } else {
                    std::this_thread::yield();
                }
            }
        }
        // Release: orders this thread's copies before the other side's acquire load of the tail.
        tail.store(start + count, std::memory_order_release);
    }

    void TakeSlot(std::uint32_t slot, std::vector<T>& elements) {
        elements.push_back(mSlots[slot]);
        if (mReleaseOnDequeue) {
            mSlots[slot] = T();
        }
    }

    // Calls `copy` for 0 … count-1, four at a time, then the remainder.
    template <typename Copy> static void ForEach(std::uint32_t count, const Copy& copy) {
        std::uint32_t i = 0;
        for (; i + 4 <= count; i += 4) {
            copy(i);
            copy(i + 1);
            copy(i + 2);
            copy(i + 3);
        }
        for (; i < count; ++i) {
            copy(i);
        }
    }

    static void PauseCpu() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    std::atomic<std::uint32_t> mProducerHead;
    std::atomic<std::uint32_t> mProducerTail;
    std::atomic<std::uint32_t> mConsumerHead;
    std::atomic<std::uint32_t> mConsumerTail;
    const bool mSingleProducer;
    const bool mSingleConsumer;
    const std::uint32_t mSize;
    const std::uint32_t mMask;
    const std::uint32_t mCapacity;
    const bool mReleaseOnDequeue;
    const std::unique_ptr<T[]> mSlots;
};

} // namespace SDK
