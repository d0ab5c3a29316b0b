#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <typeinfo>
#include <utility>
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
// Beside its head each side remembers how far the head may go: the tail of the other side when last
// looked at, which may have moved on since, but never back. Only a thread that wants more than that looks
// again. Heads and tails have cache lines of their own, so that as long as there is room on the one side
// and something to take on the other, producers and consumers pass on no lines but those of the slots.
//
// Nothing blocks and nothing fails: a full queue takes fewer elements than offered, possibly none, an
// empty queue gives none; callers look at the count. The queue never grows. Only the vector that elements are
// taken into may find no memory to grow; the queue is then as it was. Copying an element must not throw.
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
        : mProducers{{Reach(startIndex, startIndex + capacity).Both()}, {startIndex}},
          mConsumers{{Reach(startIndex, startIndex).Both()}, {startIndex}}, mSingleProducer(singleProducer),
          mSingleConsumer(singleConsumer), mSize(capacity == 0 ? 0 : std::bit_ceil(capacity)), mMask(mSize - 1),
          mCapacity(capacity), mReleaseOnDequeue(releaseOnDequeue), mSlots(mSize == 0 ? nullptr : new T[mSize]) {}

    // Releases the slots' values from the last slot to the first. No thread may use the queue any more.
    virtual ~LocklessQueue() = default;

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    // True when the element was taken. Allocates nothing, unless the queue is of a derived class: then the
    // element goes through EnqueueBulk, which may have been replaced, in a vector of its own.
    virtual bool Enqueue(const T& element) {
        if (!mSlots) {
            return false;
        }
        if (IsNotDerived()) {
            return EnqueueOne(element);
        }
        return EnqueueBulk(std::vector<T>{element}, 1) == 1;
    }

    // Takes as many of the elements as fit, from the front, and returns how many. The vector's size
    // decides; `count` is not looked at.
    virtual unsigned int EnqueueBulk(const std::vector<T>& elements, int /*count*/) {
        if (!mSlots) {
            return 0;
        }
        Reach reached;
        const std::uint32_t count =
            ReserveForProducing(static_cast<std::uint32_t>(std::min<std::size_t>(elements.size(), mCapacity)), reached);
        if (count != 0) {
            _EnqueueElements(reached.Head() - count, elements, count);
            Commit(mProducers.tail, reached.Head() - count, count, mSingleProducer);
        }
        return count;
    }

    // Takes the oldest element out. False, `element` untouched, when there is none. Allocates nothing, unless
    // the queue is of a derived class, as with Enqueue.
    virtual bool Dequeue(T& element) {
        if (!mSlots) {
            return false;
        }
        if (IsNotDerived()) {
            return DequeueOne(element);
        }
        std::vector<T> taken;
        if (DequeueBulk(taken, 1) != 1) {
            return false;
        }
        element = std::move(taken.front());
        return true;
    }

    // Appends up to `max` elements, oldest first, and returns how many. A negative `max` is no limit. Allocates
    // nothing when the vector has room for `max` more; throws std::bad_alloc, nothing taken, when it cannot grow.
    virtual unsigned int DequeueBulk(std::vector<T>& elements, int max) {
        if (!mSlots) {
            return 0;
        }
        Reach reached;
        const std::uint32_t wanted = MakeRoom(elements, static_cast<std::uint32_t>(max));
        const std::uint32_t count = ReserveForConsuming(wanted, reached);
        if (count != 0) {
            _DequeueElements(reached.Head() - count, elements, count);
            Commit(mConsumers.tail, reached.Head() - count, count, mSingleConsumer);
        }
        return count;
    }

    // How many committed elements wait now. A snapshot: it may be out of date at once.
    std::uint32_t GetDepth() const {
        // Acquire, and before the producer tail is read: it pairs with the release that wrote this head, so
        // the tail read below is no older than the limit that the head kept to.
        const std::uint32_t head = Reach(mConsumers.reach.load(std::memory_order_acquire)).Head();
        const std::uint32_t depth = mProducers.tail.load(std::memory_order_acquire) - head;
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
        FetchSlots(slot, untilEnd);
        FetchSlots(0, count - untilEnd);
        const auto from = elements.begin();
        CopyIn(from, &mSlots[slot], untilEnd);
        CopyIn(from + untilEnd, &mSlots[0], count - untilEnd);
    }

    // NOLINTNEXTLINE(bugprone-reserved-identifier)
    void _DequeueElements(std::uint32_t start, std::vector<T>& elements, std::uint32_t count) {
        const std::uint32_t slot = start & mMask;
        const std::uint32_t untilEnd = std::min(count, mSize - slot);
        FetchSlots(slot, untilEnd);
        FetchSlots(0, count - untilEnd);
        const std::size_t before = elements.size();
        elements.resize(before + count);
        const auto to = elements.begin() + static_cast<std::ptrdiff_t>(before);
        TakeOut(&mSlots[slot], to, untilEnd);
        TakeOut(&mSlots[0], to + untilEnd, count - untilEnd);
    }

private:
    // How often a thread looks again with a pause in between before it gives up its time slice: with
    // more threads than cores the one it waits for may not be running. A pause is some 50 ns; a thread that
    // is running has committed before these are over.
    static constexpr int SPINS_BEFORE_COMMIT = 16;
    // The same for a thread that has reserved nothing yet: the sooner it steps aside, the fewer lines pass
    // between the cores. After so many yields it reserves behind the others all the same.
    static constexpr int SPINS_BEFORE_RESERVING = 4;
    static constexpr int YIELDS_BEFORE_RESERVING = 4;

    // How long a thread that goes element by element leaves the other side alone before it looks at that
    // side's tail: some 200 ns. Without, the faster side looks after every element, finds one more, and each
    // element costs several lines passed from core to core; now it finds several. A bulk has them anyway.
    static constexpr int PAUSES_BEFORE_LOOKING_FOR_ONE = 4;

    // Given, not asked of the compiler: the layout must not depend on what a module was compiled for.
    static constexpr std::size_t CACHE_LINE = 64;
    static constexpr std::uint32_t SLOTS_PER_LINE = std::max<std::uint32_t>(CACHE_LINE / sizeof(T), 1);
    // How far ahead of single elements lines are asked for: as far as an answer takes.
    static constexpr std::uint32_t LINES_AHEAD = 4;

    // A head, and the index that it may not pass, as far as its side knows. They change together, in one
    // exchange: of the two the limit would else be the older one now and then, their difference would
    // wrap, and look like room.
    //
    // Kept as one number, and taken apart with shifts: a compiler puts the halves of a structure together
    // in memory, and a processor reads such a whole back only when all that it wrote before has arrived,
    // the slots too.
    class Reach {
    public:
        Reach() = default;
        Reach(std::uint32_t head, std::uint32_t limit) : mBoth(std::uint64_t{limit} << 32U | head) {}
        explicit Reach(std::uint64_t both) : mBoth(both) {}
        std::uint32_t Head() const { return static_cast<std::uint32_t>(mBoth); }
        std::uint32_t Limit() const { return static_cast<std::uint32_t>(mBoth >> 32U); }
        std::uint64_t Both() const { return mBoth; }

    private:
        std::uint64_t mBoth = 0;
    };

    struct Side {
        alignas(CACHE_LINE) std::atomic<std::uint64_t> reach;
        alignas(CACHE_LINE) std::atomic<std::uint32_t> tail;
    };

    // Whether the bulk operations are certain to be those of this class, so that nobody can tell whether a
    // single element goes through them.
    bool IsNotDerived() const { return typeid(*this) == typeid(LocklessQueue); }

    bool EnqueueOne(const T& element) {
        Reach reached;
        if (ReserveForProducing(1, reached) == 0) {
            return false;
        }
        const std::uint32_t index = reached.Head() - 1;
        FetchSlotsAhead(reached);
        mSlots[index & mMask] = element;
        Commit(mProducers.tail, index, 1, mSingleProducer);
        return true;
    }

    bool DequeueOne(T& element) {
        Reach reached;
        if (ReserveForConsuming(1, reached) == 0) {
            return false;
        }
        const std::uint32_t index = reached.Head() - 1;
        FetchSlotsAhead(reached);
        // What `element` held before is released only after the commit: its destructor may run for long, or
        // use this queue.
        T taken = TakeOne(mSlots[index & mMask]);
        Commit(mConsumers.tail, index, 1, mSingleConsumer);
        element = std::move(taken);
        return true;
    }

    // Makes room in the vector for up to `wanted` elements, but for no more than wait now. Returns how many may be
    // reserved: what has been reserved must be committed, so nothing that can fail may come in between.
    std::uint32_t MakeRoom(std::vector<T>& elements, std::uint32_t wanted) const {
        const std::size_t size = elements.size();
        if (elements.capacity() - size >= wanted) {
            return wanted;
        }
        const std::uint32_t waiting = std::min(wanted, GetDepth());
        if (elements.capacity() - size < waiting) {
            // Twice as large at least: a vector that is appended to again and again is not moved each time.
            elements.reserve(size + std::max<std::size_t>(size, waiting));
        }
        return waiting;
    }

    std::uint32_t ReserveForProducing(std::uint32_t wanted, Reach& reached) {
        return Reserve(mProducers, mConsumers.tail, mCapacity, wanted, mSingleProducer, reached);
    }

    std::uint32_t ReserveForConsuming(std::uint32_t wanted, Reach& reached) {
        return Reserve(mConsumers, mProducers.tail, 0, wanted, mSingleConsumer, reached);
    }

    // Reserves up to `wanted` indices of one side, whose head may be `ahead` of the other side's tail. Returns
    // how many; they end at the head of `reached`, which is what the reach became.
    static std::uint32_t Reserve(Side& side, const std::atomic<std::uint32_t>& otherTail, std::uint32_t ahead,
                                 std::uint32_t wanted, bool single, Reach& reached) {
        // Acquire: pairs with the release of the exchange that wrote this reach, and through it with all
        // before. Whatever tail its limit came from was read before that, so what the other side did to
        // the slots up to the limit is over for this thread too, and the tail that this thread may read
        // below is no older than that one.
        std::uint64_t seen = side.reach.load(std::memory_order_acquire);
        bool mayWait = !single;
        for (;;) {
            const std::uint32_t head = Reach(seen).Head();
            std::uint32_t limit = Reach(seen).Limit();
            if (limit - head < wanted) {
                if (wanted == 1) {
                    Pause(PAUSES_BEFORE_LOOKING_FOR_ONE);
                }
                // Acquire: pairs with the release in Commit by the other side, whose copies into or out of
                // the slots are thereby over before this side uses them.
                limit = otherTail.load(std::memory_order_acquire) + ahead;
            }
            const std::uint32_t count = std::min(wanted, limit - head);
            if (count == 0) {
                return 0;
            }
            if (mayWait && WaitedForOthers(side.tail, head)) {
                mayWait = false;
                seen = side.reach.load(std::memory_order_acquire); // as above
                continue;
            }
            reached = Reach(head + count, limit);
            if (Advance(side.reach, seen, reached, single)) {
                return count;
            }
        }
    }

    // Moves a head. False, `expected` set to the present value, when another thread was faster.
    static bool Advance(std::atomic<std::uint64_t>& reach, std::uint64_t& expected, Reach next, bool single) {
        if (single) {
            // Nobody else writes this reach. Release pairs with the acquire in GetDepth: who sees this
            // head must not go on to see a tail older than the one it was computed from.
            reach.store(next.Both(), std::memory_order_release);
            return true;
        }
        // A full barrier. Its release half pairs with the acquire loads of the reach in Reserve and
        // GetDepth; on failure the present value is acquired for the next round.
        return reach.compare_exchange_strong(expected, next.Both(), std::memory_order_seq_cst,
                                             std::memory_order_acquire);
    }

    // Lets those that reserved before this thread commit before it reserves, for a bounded time. False, at
    // once, when there are none.
    //
    // A thread that is descheduled while it holds a reservation would else find all others of its side
    // queued up behind it when it runs again, each descheduled in turn because it waits for the one before.
    // And such a queue does not dissolve: whoever commits reserves again at its end, and from then on every
    // single element costs a switch of threads. Who waits here holds nothing that others wait for. That a
    // tail moves shows that its threads are running; it is then enough to wait in Commit.
    static bool WaitedForOthers(const std::atomic<std::uint32_t>& tail, std::uint32_t head) {
        // Relaxed, also below: it only decides when to try. What is done then rests on the loads in Reserve.
        const std::uint32_t seen = tail.load(std::memory_order_relaxed);
        if (seen == head) {
            return false;
        }
        for (int tries = 0; tries < SPINS_BEFORE_RESERVING + YIELDS_BEFORE_RESERVING; ++tries) {
            PauseOrYield(tries < SPINS_BEFORE_RESERVING);
            if (tail.load(std::memory_order_relaxed) != seen) {
                break;
            }
        }
        return true;
    }

    // Moves a tail over the range once all ranges reserved before it have been committed.
    static void Commit(std::atomic<std::uint32_t>& tail, std::uint32_t start, std::uint32_t count, bool single) {
        if (!single) {
            // Acquire: what the earlier threads of this side did to their slots is passed on by the
            // release below to whoever reads the tail.
            for (int spins = 0; tail.load(std::memory_order_acquire) != start;) {
                PauseOrYield(spins < SPINS_BEFORE_COMMIT);
                spins = std::min(spins + 1, SPINS_BEFORE_COMMIT);
            }
        }
        // Release: orders this thread's copies before the other side's acquire load of the tail.
        tail.store(start + count, std::memory_order_release);
    }

    using Elements = std::vector<T>;

    static void CopyIn(typename Elements::const_iterator from, T* slots, std::uint32_t count) {
        ForEach(count, [&](std::ptrdiff_t i) { slots[i] = from[i]; });
    }

    void TakeOut(T* slots, typename Elements::iterator to, std::uint32_t count) const {
        if (mReleaseOnDequeue) {
            ForEach(count, [&](std::ptrdiff_t i) { to[i] = std::exchange(slots[i], T()); });
        } else {
            ForEach(count, [&](std::ptrdiff_t i) { to[i] = slots[i]; });
        }
    }

    T TakeOne(T& slot) const { return mReleaseOnDequeue ? std::exchange(slot, T()) : slot; }

    // Asks for the slots' cache lines, to be written, all at once. The copies would ask for them one after
    // the other: an atomic count that goes up with each copy lets none begin before the one before is done.
    void FetchSlots(std::uint32_t slot, std::uint32_t count) const {
        for (std::size_t i = 0; i < count; i += SLOTS_PER_LINE) {
            FetchForWriting(&mSlots[slot + i]);
        }
        if (count != 0) {
            FetchForWriting(&mSlots[slot + count - 1]);
        }
    }

    // The same for single elements: asks for a line that will be wanted soon, unless the other side may
    // still be at it.
    void FetchSlotsAhead(Reach reached) const {
        constexpr std::uint32_t DISTANCE = LINES_AHEAD * SLOTS_PER_LINE;
        if (reached.Limit() - reached.Head() >= DISTANCE + SLOTS_PER_LINE) {
            FetchForWriting(&mSlots[(reached.Head() + DISTANCE) & mMask]);
        }
    }

    // Calls `copy` for 0 … count-1, four at a time, then the remainder.
    template <typename Copy> static void ForEach(std::ptrdiff_t count, const Copy& copy) {
        std::ptrdiff_t i = 0;
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

    static void FetchForWriting(const T* slot) {
#if defined(__x86_64__)
        // What __builtin_prefetch becomes on this processor, unless the compiler is told of a newer one,
        // fetches for reading: the line would be asked for a second time when it is written.
        asm volatile("prefetchw %0" : : "m"(*slot));
#else
        __builtin_prefetch(slot, 1);
#endif
    }

    static void PauseOrYield(bool pause) {
        if (pause) {
            PauseCpu();
        } else {
            std::this_thread::yield();
        }
    }

    static void Pause(int times) {
        for (int i = 0; i < times; ++i) {
            PauseCpu();
        }
    }

    static void PauseCpu() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    Side mProducers;
    Side mConsumers;
    // From here on nothing changes: these share a line with each other, and with none of the above.
    alignas(CACHE_LINE) const bool mSingleProducer;
    const bool mSingleConsumer;
    const std::uint32_t mSize;
    const std::uint32_t mMask;
    const std::uint32_t mCapacity;
    const bool mReleaseOnDequeue;
    const std::unique_ptr<T[]> mSlots;
};

} // namespace SDK
