#include "LocklessQueue.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t LAST_INDEX = std::numeric_limits<std::uint32_t>::max();
constexpr int NO_LIMIT = -1;

using Numbers = std::vector<int>;
using NumberQueue = SDK::LocklessQueue<int>;

// What a task's queue holds: messages by shared pointer.
using Message = std::shared_ptr<int>;
using MessageQueue = SDK::LocklessQueue<Message>;

struct QueueForm {
    std::uint32_t capacity = 4;
    bool singleProducer = false;
    bool singleConsumer = false;
    bool releaseOnDequeue = true;
    std::uint32_t startIndex = 0;
};

template <typename Queue> std::unique_ptr<Queue> Make(const QueueForm& form) {
    return std::make_unique<Queue>(form.capacity, form.singleProducer, form.singleConsumer, form.releaseOnDequeue,
                                   form.startIndex);
}

Numbers CountFrom(int first, int count) {
    Numbers numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

unsigned int Put(NumberQueue& queue, const Numbers& numbers) {
    return queue.EnqueueBulk(numbers, static_cast<int>(numbers.size()));
}

Numbers TakeAll(NumberQueue& queue) {
    Numbers taken;
    queue.DequeueBulk(taken, NO_LIMIT);
    return taken;
}

// Sends more numbers through the queue than it has slots, several times round, in uneven portions, and
// checks that each comes out once and in order.
void ExpectOrderThroughManyRounds(NumberQueue& queue) {
    const int portion = static_cast<int>(queue.GetCapacity() / 2 + 1);
    for (int next = 0; next < 50 * portion; next += portion) {
        ASSERT_EQ(Put(queue, CountFrom(next, portion)), static_cast<unsigned int>(portion));
        ASSERT_EQ(TakeAll(queue), CountFrom(next, portion));
    }
}

// --- Putting in and taking out

TEST(LocklessQueue, OneElementComesOutAsItWentIn) {
    NumberQueue queue(4);
    EXPECT_TRUE(queue.Enqueue(7));

    int taken = 0;
    EXPECT_TRUE(queue.Dequeue(taken));
    EXPECT_EQ(taken, 7);
}

TEST(LocklessQueue, ElementsComeOutOldestFirst) {
    NumberQueue queue(8);
    queue.Enqueue(1);
    Put(queue, {2, 3});
    queue.Enqueue(4);
    EXPECT_THAT(TakeAll(queue), ElementsAre(1, 2, 3, 4));
}

TEST(LocklessQueue, DequeueTakesTheOldestAndLeavesTheRest) {
    NumberQueue queue(4);
    Put(queue, {1, 2, 3});
    int taken = 0;
    EXPECT_TRUE(queue.Dequeue(taken));
    EXPECT_EQ(taken, 1);
    EXPECT_THAT(TakeAll(queue), ElementsAre(2, 3));
}

TEST(LocklessQueue, DequeueBulkTakesNoMoreThanTheMaximum) {
    NumberQueue queue(8);
    Put(queue, {1, 2, 3, 4, 5});
    Numbers taken;
    EXPECT_EQ(queue.DequeueBulk(taken, 3), 3U);
    EXPECT_THAT(taken, ElementsAre(1, 2, 3));
    EXPECT_THAT(TakeAll(queue), ElementsAre(4, 5));
}

TEST(LocklessQueue, DequeueBulkTakesWhatIsThereWhenTheMaximumIsMore) {
    NumberQueue queue(8);
    Put(queue, {1, 2});
    Numbers taken;
    EXPECT_EQ(queue.DequeueBulk(taken, 128), 2U);
    EXPECT_THAT(taken, ElementsAre(1, 2));
}

TEST(LocklessQueue, DequeueBulkAppendsBehindWhatTheVectorHolds) {
    NumberQueue queue(4);
    Put(queue, {3, 4});
    Numbers taken{1, 2};
    EXPECT_EQ(queue.DequeueBulk(taken, NO_LIMIT), 2U);
    EXPECT_THAT(taken, ElementsAre(1, 2, 3, 4));
}

TEST(LocklessQueue, AMaximumOfZeroTakesNothingAndChangesNothing) {
    NumberQueue queue(4);
    Put(queue, {1, 2});
    Numbers taken{9};
    EXPECT_EQ(queue.DequeueBulk(taken, 0), 0U);
    EXPECT_THAT(taken, ElementsAre(9));
    EXPECT_EQ(queue.GetDepth(), 2U);
    EXPECT_THAT(TakeAll(queue), ElementsAre(1, 2));
}

TEST(LocklessQueue, ANegativeMaximumIsNoLimit) {
    NumberQueue queue(8);
    Put(queue, CountFrom(1, 8));
    for (const int max : {-1, std::numeric_limits<int>::min()}) {
        Numbers taken;
        EXPECT_EQ(queue.DequeueBulk(taken, max), 8U);
        EXPECT_EQ(taken, CountFrom(1, 8));
        Put(queue, taken);
    }
}

TEST(LocklessQueue, EnqueueBulkTakesTheWholeVectorWhateverTheCountSays) {
    for (const int count : {0, 1, 3, 100, -1}) {
        NumberQueue queue(8);
        EXPECT_EQ(queue.EnqueueBulk({1, 2, 3}, count), 3U) << "count " << count;
        EXPECT_THAT(TakeAll(queue), ElementsAre(1, 2, 3)) << "count " << count;
    }
}

TEST(LocklessQueue, AnEmptyVectorPutsNothingIn) {
    NumberQueue queue(4);
    EXPECT_EQ(queue.EnqueueBulk({}, 5), 0U);
    EXPECT_EQ(queue.GetDepth(), 0U);
}

// --- Full and empty

TEST(LocklessQueue, TenItemsIntoRoomForThreeStoresTheFirstThree) {
    NumberQueue queue(8);
    Put(queue, CountFrom(1, 5));
    EXPECT_EQ(Put(queue, CountFrom(6, 10)), 3U);
    EXPECT_EQ(TakeAll(queue), CountFrom(1, 8));
}

TEST(LocklessQueue, AFullQueueRefusesAtOnceAndKeepsWhatItHas) {
    NumberQueue queue(4);
    Put(queue, {1, 2, 3, 4});
    EXPECT_FALSE(queue.Enqueue(5));
    EXPECT_EQ(Put(queue, {5, 6}), 0U);
    EXPECT_THAT(TakeAll(queue), ElementsAre(1, 2, 3, 4));
}

TEST(LocklessQueue, RoomComesBackWithEachElementTaken) {
    NumberQueue queue(2);
    Put(queue, {1, 2});
    int taken = 0;
    queue.Dequeue(taken);
    EXPECT_EQ(Put(queue, {3, 4}), 1U);
    EXPECT_THAT(TakeAll(queue), ElementsAre(2, 3));
}

TEST(LocklessQueue, AnEmptyQueueGivesNothingAndLeavesTheOutputUntouched) {
    NumberQueue queue(4);
    int element = 42;
    EXPECT_FALSE(queue.Dequeue(element));
    EXPECT_EQ(element, 42);

    Numbers taken{9};
    EXPECT_EQ(queue.DequeueBulk(taken, 4), 0U);
    EXPECT_THAT(taken, ElementsAre(9));
}

TEST(LocklessQueue, AQueueThatWasDrainedIsEmptyAgain) {
    NumberQueue queue(4);
    Put(queue, {1, 2, 3, 4});
    TakeAll(queue);
    int element = 42;
    EXPECT_FALSE(queue.Dequeue(element));
    EXPECT_EQ(element, 42);
    EXPECT_EQ(queue.GetDepth(), 0U);
}

TEST(LocklessQueue, AQueueWithoutStorageRefusesEveryOperation) {
    NumberQueue queue(0);
    EXPECT_FALSE(queue.Enqueue(1));
    EXPECT_EQ(Put(queue, {1, 2}), 0U);

    int element = 42;
    EXPECT_FALSE(queue.Dequeue(element));
    EXPECT_EQ(element, 42);

    Numbers taken{9};
    EXPECT_EQ(queue.DequeueBulk(taken, NO_LIMIT), 0U);
    EXPECT_THAT(taken, ElementsAre(9));
    EXPECT_EQ(queue.GetDepth(), 0U);
    EXPECT_EQ(queue.GetCapacity(), 0U);
}

// --- Capacity and slots

TEST(LocklessQueue, ACapacityThatIsNoPowerOfTwoIsKeptExactly) {
    NumberQueue queue(5);
    EXPECT_EQ(queue.GetCapacity(), 5U);
    EXPECT_EQ(Put(queue, CountFrom(1, 10)), 5U);
    EXPECT_FALSE(queue.Enqueue(6));
    EXPECT_EQ(TakeAll(queue), CountFrom(1, 5));
}

TEST(LocklessQueue, ACapacityThatIsNoPowerOfTwoKeepsOrderThroughManyRounds) {
    for (const std::uint32_t capacity : {3U, 5U, 6U, 7U, 100U}) {
        NumberQueue queue(capacity);
        ExpectOrderThroughManyRounds(queue);
    }
}

TEST(LocklessQueue, ACapacityOfOneHoldsOneElement) {
    NumberQueue queue(1);
    EXPECT_EQ(Put(queue, {1, 2}), 1U);
    EXPECT_FALSE(queue.Enqueue(2));
    EXPECT_THAT(TakeAll(queue), ElementsAre(1));
    EXPECT_TRUE(queue.Enqueue(2));
    EXPECT_THAT(TakeAll(queue), ElementsAre(2));
}

TEST(LocklessQueue, DepthCountsWhatWaits) {
    NumberQueue queue(5);
    EXPECT_EQ(queue.GetDepth(), 0U);
    Put(queue, {1, 2, 3});
    EXPECT_EQ(queue.GetDepth(), 3U);
    int taken = 0;
    queue.Dequeue(taken);
    EXPECT_EQ(queue.GetDepth(), 2U);
    Put(queue, CountFrom(4, 10));
    EXPECT_EQ(queue.GetDepth(), 5U);
}

// Every length of a range against every place where it may start: within the slots, up to their end,
// and across it.
TEST(LocklessQueue, ARangeThatCrossesTheEndOfTheSlotsKeepsOrder) {
    constexpr int SLOTS = 16;
    for (std::uint32_t firstSlot = 0; firstSlot < SLOTS; ++firstSlot) {
        for (int count = 1; count <= SLOTS; ++count) {
            const auto queue = Make<NumberQueue>({.capacity = SLOTS, .startIndex = firstSlot});
            ASSERT_EQ(Put(*queue, CountFrom(1, count)), static_cast<unsigned int>(count));
            ASSERT_EQ(TakeAll(*queue), CountFrom(1, count)) << count << " elements from slot " << firstSlot;
        }
    }
}

TEST(LocklessQueue, TwoRangesOneOfWhichCrossesTheEndKeepOrder) {
    const auto queue = Make<NumberQueue>({.capacity = 8, .startIndex = 5});
    Put(*queue, {1, 2});
    Put(*queue, {3, 4, 5, 6});
    Numbers taken;
    EXPECT_EQ(queue->DequeueBulk(taken, 1), 1U);
    EXPECT_EQ(queue->DequeueBulk(taken, 4), 4U);
    EXPECT_EQ(queue->DequeueBulk(taken, 4), 1U);
    EXPECT_EQ(taken, CountFrom(1, 6));
}

// --- Indices that run past the last 32-bit number

TEST(LocklessQueue, IndicesWrapPastTheLastNumberWithinOneRange) {
    for (std::uint32_t before = 0; before < 8; ++before) {
        const auto queue = Make<NumberQueue>({.capacity = 8, .startIndex = LAST_INDEX - before});
        EXPECT_EQ(Put(*queue, CountFrom(1, 10)), 8U);
        EXPECT_EQ(queue->GetDepth(), 8U);
        EXPECT_FALSE(queue->Enqueue(9));
        EXPECT_EQ(TakeAll(*queue), CountFrom(1, 8)) << "started " << before << " before the last index";
        EXPECT_EQ(queue->GetDepth(), 0U);
    }
}

TEST(LocklessQueue, IndicesWrapPastTheLastNumberElementByElement) {
    const auto queue = Make<NumberQueue>({.capacity = 3, .startIndex = LAST_INDEX - 5});
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(queue->Enqueue(i));
        int taken = -1;
        ASSERT_TRUE(queue->Dequeue(taken));
        ASSERT_EQ(taken, i);
        ASSERT_FALSE(queue->Dequeue(taken));
    }
}

TEST(LocklessQueue, AFullQueueStaysFullWhileItsIndicesWrap) {
    const auto queue = Make<NumberQueue>({.capacity = 4, .startIndex = LAST_INDEX - 6});
    Put(*queue, CountFrom(0, 4));
    for (int i = 0; i < 20; ++i) {
        ASSERT_FALSE(queue->Enqueue(-1));
        int taken = -1;
        ASSERT_TRUE(queue->Dequeue(taken));
        ASSERT_EQ(taken, i);
        ASSERT_EQ(Put(*queue, {i + 4, i + 5}), 1U);
    }
}

TEST(LocklessQueue, ACapacityThatIsNoPowerOfTwoWrapsPastTheLastNumber) {
    const auto queue = Make<NumberQueue>({.capacity = 5, .startIndex = LAST_INDEX - 40});
    ExpectOrderThroughManyRounds(*queue);
}

// --- One thread per side

void ExpectAllIsAsWithManyThreads(const QueueForm& form) {
    const auto queue = Make<NumberQueue>(form);
    EXPECT_EQ(Put(*queue, CountFrom(1, 10)), 5U);
    EXPECT_FALSE(queue->Enqueue(6));
    EXPECT_EQ(TakeAll(*queue), CountFrom(1, 5));
    int element = 42;
    EXPECT_FALSE(queue->Dequeue(element));
    EXPECT_EQ(element, 42);
    ExpectOrderThroughManyRounds(*queue);
}

constexpr std::uint32_t SOON_WRAPPING = LAST_INDEX - 40;

TEST(LocklessQueue, ASingleProducerFindsAllAsWithManyThreads) {
    ExpectAllIsAsWithManyThreads({.capacity = 5, .singleProducer = true, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueue, ASingleConsumerFindsAllAsWithManyThreads) {
    ExpectAllIsAsWithManyThreads({.capacity = 5, .singleConsumer = true, .startIndex = SOON_WRAPPING});
}

TEST(LocklessQueue, ASingleProducerAndASingleConsumerFindAllAsWithManyThreads) {
    ExpectAllIsAsWithManyThreads(
        {.capacity = 5, .singleProducer = true, .singleConsumer = true, .startIndex = SOON_WRAPPING});
}

// --- How long a message lives

TEST(LocklessQueueLifetime, TheQueueSharesTheMessageWithItsSender) {
    MessageQueue queue(4);
    const auto message = std::make_shared<int>(1);
    queue.Enqueue(message);
    EXPECT_EQ(message.use_count(), 2);
}

TEST(LocklessQueueLifetime, ARefusedMessageIsNotHeld) {
    MessageQueue queue(1);
    queue.Enqueue(std::make_shared<int>(1));
    const auto refused = std::make_shared<int>(2);
    EXPECT_FALSE(queue.Enqueue(refused));
    EXPECT_EQ(refused.use_count(), 1);
}

TEST(LocklessQueueLifetime, WithReleaseADequeuedMessageDiesWithItsConsumer) {
    const auto queue = Make<MessageQueue>({.releaseOnDequeue = true});
    queue->Enqueue(std::make_shared<int>(1));

    Message taken;
    ASSERT_TRUE(queue->Dequeue(taken));
    const std::weak_ptr<int> watched = taken;
    EXPECT_EQ(taken.use_count(), 1);
    taken.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueueLifetime, WithReleaseABulkOfDequeuedMessagesDiesWithItsConsumer) {
    const auto queue = Make<MessageQueue>({.capacity = 8, .releaseOnDequeue = true, .startIndex = 6});
    for (int i = 0; i < 8; ++i) {
        queue->Enqueue(std::make_shared<int>(i));
    }
    std::vector<Message> taken;
    ASSERT_EQ(queue->DequeueBulk(taken, NO_LIMIT), 8U);
    for (const Message& message : taken) {
        EXPECT_EQ(message.use_count(), 1) << *message;
    }
}

TEST(LocklessQueueLifetime, WithoutReleaseADequeuedMessageLivesUntilItsSlotIsWrittenAgain) {
    const auto queue = Make<MessageQueue>({.capacity = 2, .releaseOnDequeue = false});
    auto message = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = message;
    queue->Enqueue(message);
    message.reset();
    ASSERT_TRUE(queue->Dequeue(message));
    message.reset();
    EXPECT_FALSE(watched.expired());

    queue->Enqueue(std::make_shared<int>(2));
    EXPECT_FALSE(watched.expired()) << "the other slot was written";
    queue->Enqueue(std::make_shared<int>(3));
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueueLifetime, AMessageThatWasNeverTakenDiesWithTheQueue) {
    auto queue = Make<MessageQueue>({});
    auto message = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = message;
    queue->Enqueue(message);
    message.reset();
    EXPECT_FALSE(watched.expired());
    queue.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueueLifetime, ACopyLeftInASlotDiesWithTheQueue) {
    auto queue = Make<MessageQueue>({.releaseOnDequeue = false});
    Message message = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = message;
    queue->Enqueue(message);
    ASSERT_TRUE(queue->Dequeue(message));
    message.reset();
    EXPECT_FALSE(watched.expired());
    queue.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueueLifetime, DestructionReleasesTheSlotsFromTheLastToTheFirst) {
    Numbers released;
    auto queue = Make<MessageQueue>({.capacity = 4});
    for (int slot = 0; slot < 4; ++slot) {
        queue->Enqueue(Message(new int(slot), [&released](const int* number) {
            released.push_back(*number);
            delete number;
        }));
    }
    EXPECT_THAT(released, IsEmpty());
    queue.reset();
    EXPECT_THAT(released, ElementsAre(3, 2, 1, 0));
}

// The order is that of the slots, not of age: with the oldest element in the middle of the slots, the
// ring's last slot still comes first.
TEST(LocklessQueueLifetime, DestructionGoesBySlotNotByAge) {
    Numbers released;
    auto queue = Make<MessageQueue>({.capacity = 4, .startIndex = 2});
    for (const int slot : {2, 3, 0, 1}) {
        queue->Enqueue(Message(new int(slot), [&released](const int* number) {
            released.push_back(*number);
            delete number;
        }));
    }
    queue.reset();
    EXPECT_THAT(released, ElementsAre(3, 2, 1, 0));
}

// A message that was the last to refer to another one may be anything, also one whose end takes from this
// queue.
TEST(LocklessQueueLifetime, WhatTheOutputHeldBeforeMayUseTheQueueWhenItIsReleased) {
    MessageQueue queue(4);
    Message takenAtTheEnd;
    Message output(new int(0), [&](const int* number) {
        queue.Dequeue(takenAtTheEnd);
        delete number;
    });
    queue.Enqueue(std::make_shared<int>(1));
    queue.Enqueue(std::make_shared<int>(2));

    ASSERT_TRUE(queue.Dequeue(output));
    EXPECT_EQ(*output, 1);
    ASSERT_NE(takenAtTheEnd, nullptr);
    EXPECT_EQ(*takenAtTheEnd, 2);
}

// --- What a side remembers of the other

TEST(LocklessQueue, ABulkIsAsLargeAsWhatIsThereNotAsWhatWasSeenLast) {
    NumberQueue queue(8);
    Put(queue, {1, 2, 3});
    Numbers taken;
    EXPECT_EQ(queue.DequeueBulk(taken, 2), 2U);
    Put(queue, {4, 5});
    EXPECT_EQ(queue.DequeueBulk(taken, 3), 3U);
    EXPECT_EQ(taken, CountFrom(1, 5));
}

TEST(LocklessQueue, ABulkFillsTheRoomThatIsThereNotThatWasSeenLast) {
    NumberQueue queue(4);
    EXPECT_EQ(Put(queue, {1, 2, 3}), 3U);
    Numbers taken;
    EXPECT_EQ(queue.DequeueBulk(taken, 2), 2U);
    EXPECT_EQ(Put(queue, {4, 5, 6, 7}), 3U);
    EXPECT_EQ(TakeAll(queue), CountFrom(3, 4));
}

TEST(LocklessQueue, EveryRoomAndEveryPortionKeepOrderWhereverTheIndicesWrap) {
    for (std::uint32_t before = 0; before < 12; ++before) {
        for (const bool single : {false, true}) {
            const auto queue = Make<NumberQueue>(
                {.capacity = 5, .singleProducer = single, .singleConsumer = single, .startIndex = LAST_INDEX - before});
            ExpectOrderThroughManyRounds(*queue);
        }
    }
}

// --- A derived queue

// Puts nothing into the ring: it remembers what the bulk operations were asked, and answers as told.
class RecordingQueue : public MessageQueue {
public:
    explicit RecordingQueue(std::uint32_t capacity) : MessageQueue(capacity) {}

    unsigned int EnqueueBulk(const std::vector<Message>& elements, int /*count*/) override {
        enqueued = elements;
        return answer;
    }

    unsigned int DequeueBulk(std::vector<Message>& elements, int max) override {
        askedAtMost = max;
        vectorWasFresh = elements.empty();
        elements.push_back(given);
        return answer;
    }

    unsigned int answer = 1;
    Message given = std::make_shared<int>(5);
    std::vector<Message> enqueued;
    int askedAtMost = 0;
    bool vectorWasFresh = false;
};

TEST(DerivedLocklessQueue, EnqueueGoesThroughTheReplacedBulkOperation) {
    RecordingQueue queue(4);
    const auto message = std::make_shared<int>(1);
    EXPECT_TRUE(queue.Enqueue(message));
    EXPECT_THAT(queue.enqueued, ElementsAre(message));
    EXPECT_EQ(queue.GetDepth(), 0U);
}

TEST(DerivedLocklessQueue, EnqueueReturnsWhatTheReplacedBulkOperationTook) {
    RecordingQueue queue(4);
    queue.answer = 0;
    EXPECT_FALSE(queue.Enqueue(std::make_shared<int>(1)));
}

TEST(DerivedLocklessQueue, DequeueGoesThroughTheReplacedBulkOperation) {
    RecordingQueue queue(4);
    Message taken;
    EXPECT_TRUE(queue.Dequeue(taken));
    EXPECT_EQ(taken, queue.given);
    EXPECT_EQ(queue.askedAtMost, 1);
    EXPECT_TRUE(queue.vectorWasFresh);
}

TEST(DerivedLocklessQueue, DequeueLeavesTheOutputWhenTheReplacedBulkOperationTookNothing) {
    RecordingQueue queue(4);
    queue.answer = 0;
    const auto before = std::make_shared<int>(1);
    Message taken = before;
    EXPECT_FALSE(queue.Dequeue(taken));
    EXPECT_EQ(taken, before);
}

TEST(DerivedLocklessQueue, WithoutStorageTheBulkOperationsAreNotEvenAsked) {
    RecordingQueue queue(0);
    EXPECT_FALSE(queue.Enqueue(std::make_shared<int>(1)));
    EXPECT_THAT(queue.enqueued, IsEmpty());
    Message taken;
    EXPECT_FALSE(queue.Dequeue(taken));
    EXPECT_EQ(taken, nullptr);
    EXPECT_EQ(queue.askedAtMost, 0);
}

// Counts the bulk operations and leaves them as they are.
class CountingQueue : public NumberQueue {
public:
    using NumberQueue::NumberQueue;

    unsigned int EnqueueBulk(const std::vector<int>& elements, int count) override {
        ++bulksIn;
        return NumberQueue::EnqueueBulk(elements, count);
    }

    unsigned int DequeueBulk(std::vector<int>& elements, int max) override {
        ++bulksOut;
        return NumberQueue::DequeueBulk(elements, max);
    }

    int bulksIn = 0;
    int bulksOut = 0;
};

TEST(DerivedLocklessQueue, EverySingleElementGoesThroughTheBulkOperations) {
    CountingQueue queue(2);
    EXPECT_TRUE(queue.Enqueue(1));
    EXPECT_TRUE(queue.Enqueue(2));
    EXPECT_FALSE(queue.Enqueue(3));
    int taken = 0;
    EXPECT_TRUE(queue.Dequeue(taken));
    EXPECT_EQ(taken, 1);
    EXPECT_TRUE(queue.Dequeue(taken));
    EXPECT_EQ(taken, 2);
    EXPECT_FALSE(queue.Dequeue(taken));
    EXPECT_EQ(queue.bulksIn, 3);
    EXPECT_EQ(queue.bulksOut, 3);
}

TEST(DerivedLocklessQueue, IsDestroyedThroughItsBase) {
    const auto given = std::make_shared<int>(5);
    auto derived = std::make_unique<RecordingQueue>(4);
    derived->given = given;
    std::unique_ptr<MessageQueue> queue = std::move(derived);
    EXPECT_EQ(given.use_count(), 2);
    queue.reset();
    EXPECT_EQ(given.use_count(), 1);
}

// The copying operations are for derived queues that keep the ring and change how it is reserved.
class CopyingQueue : public NumberQueue {
public:
    using NumberQueue::_DequeueElements; // NOLINT(bugprone-reserved-identifier)
    using NumberQueue::_EnqueueElements; // NOLINT(bugprone-reserved-identifier)
    using NumberQueue::NumberQueue;
};

TEST(DerivedLocklessQueue, CopiesBetweenVectorAndSlotsFromAnyIndex) {
    for (const std::uint32_t index : {0U, 6U, 1000007U, LAST_INDEX - 2}) {
        CopyingQueue queue(8);
        queue._EnqueueElements(index, {1, 2, 3, 4, 5, 6, 7}, 6);
        Numbers taken{0};
        queue._DequeueElements(index, taken, 6);
        EXPECT_THAT(taken, ElementsAre(0, 1, 2, 3, 4, 5, 6)) << "index " << index;
    }
}

TEST(DerivedLocklessQueue, CopiedElementsLandInTheSlotsOfTheirIndices) {
    CopyingQueue queue(8, false, false, /*releaseOnDequeue=*/false);
    queue._EnqueueElements(LAST_INDEX - 1, {1, 2, 3, 4}, 4);
    Numbers firstTwoSlots;
    queue._DequeueElements(0, firstTwoSlots, 2);
    EXPECT_THAT(firstTwoSlots, ElementsAre(3, 4));
    Numbers lastTwoSlots;
    queue._DequeueElements(6, lastTwoSlots, 2);
    EXPECT_THAT(lastTwoSlots, ElementsAre(1, 2));
}

} // namespace
