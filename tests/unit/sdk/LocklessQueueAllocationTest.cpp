// What the queue allocates, counted by an operator new of this program's own.

#include "LocklessQueue.h"

#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include <gtest/gtest.h>

#include "support/AllocationCounter.h"

namespace {

using Message = std::shared_ptr<int>;
using MessageQueue = SDK::LocklessQueue<Message>;

template <typename Call> std::uint64_t CountAllocations(const Call& call) {
    const std::uint64_t before = TestSupport::AllocationsSoFar();
    call();
    return TestSupport::AllocationsSoFar() - before;
}

void ExpectNoAllocationForSingleElements(MessageQueue& queue) {
    const auto message = std::make_shared<int>(1);
    Message taken;
    EXPECT_EQ(CountAllocations([&] {
                  for (int i = 0; i < 100; ++i) {
                      ASSERT_TRUE(queue.Enqueue(message));
                      ASSERT_TRUE(queue.Enqueue(message));
                      ASSERT_TRUE(queue.Dequeue(taken));
                      ASSERT_TRUE(queue.Dequeue(taken));
                      ASSERT_FALSE(queue.Dequeue(taken));
                  }
              }),
              0U);
}

TEST(LocklessQueueAllocation, TheCounterSeesAnAllocation) {
    EXPECT_EQ(CountAllocations([] { const auto kept = std::make_unique<int>(1); }), 1U);
}

TEST(LocklessQueueAllocation, ASingleElementCostsNoneOnEitherSide) {
    MessageQueue queue(3);
    ExpectNoAllocationForSingleElements(queue);
}

TEST(LocklessQueueAllocation, ASingleElementCostsNoneWithOneThreadPerSide) {
    MessageQueue queue(3, /*singleProducer=*/true, /*singleConsumer=*/true);
    ExpectNoAllocationForSingleElements(queue);
}

TEST(LocklessQueueAllocation, ASingleElementCostsNoneInSlotsThatKeepTheirCopies) {
    MessageQueue queue(3, false, false, /*releaseOnDequeue=*/false);
    ExpectNoAllocationForSingleElements(queue);
}

TEST(LocklessQueueAllocation, ARefusedElementCostsNone) {
    MessageQueue queue(1);
    const auto message = std::make_shared<int>(1);
    queue.Enqueue(message);
    EXPECT_EQ(CountAllocations([&] { EXPECT_FALSE(queue.Enqueue(message)); }), 0U);
}

TEST(LocklessQueueAllocation, ABulkCostsNoneWhenItsVectorHasRoom) {
    MessageQueue queue(64);
    const std::vector<Message> messages(40, std::make_shared<int>(1));
    std::vector<Message> taken;
    taken.reserve(40);
    EXPECT_EQ(CountAllocations([&] {
                  for (int i = 0; i < 10; ++i) {
                      ASSERT_EQ(queue.EnqueueBulk(messages, 40), 40U);
                      ASSERT_EQ(queue.DequeueBulk(taken, 40), 40U);
                      taken.clear();
                  }
              }),
              0U);
}

// Consumers of which nothing is declared wait for one another: had the failing one reserved anything, the one after
// it would wait for ever.
TEST(LocklessQueueAllocation, WhereThereIsNoMemoryForABulkNothingIsTaken) {
    MessageQueue queue(64);
    const std::vector<Message> messages(40, std::make_shared<int>(1));
    ASSERT_EQ(queue.EnqueueBulk(messages, 40), 40U);
    std::vector<Message> taken;
    {
        const TestSupport::NoMemory none;
        EXPECT_THROW(queue.DequeueBulk(taken, 40), std::bad_alloc);
    }
    ASSERT_TRUE(taken.empty());
    ASSERT_EQ(queue.GetDepth(), 40U);
    EXPECT_EQ(queue.DequeueBulk(taken, 40), 40U);
    EXPECT_EQ(taken, messages);
}

TEST(LocklessQueueAllocation, AVectorGrowsByWhatWaitsNotByWhatIsAskedFor) {
    MessageQueue queue(1024);
    const std::vector<Message> messages(40, std::make_shared<int>(1));
    std::vector<Message> taken;
    EXPECT_EQ(CountAllocations([&] { EXPECT_EQ(queue.DequeueBulk(taken, 1024), 0U); }), 0U);
    queue.EnqueueBulk(messages, 40);
    EXPECT_EQ(queue.DequeueBulk(taken, -1), 40U);
    EXPECT_LE(taken.capacity(), 40U);
}

TEST(LocklessQueueAllocation, AVectorThatIsAppendedToIsNotMovedEachTime) {
    MessageQueue queue(1024);
    const std::vector<Message> messages(1024, std::make_shared<int>(1));
    queue.EnqueueBulk(messages, 1024);
    std::vector<Message> taken;
    EXPECT_LE(CountAllocations([&] {
                  while (queue.DequeueBulk(taken, 1) == 1) {
                  }
              }),
              11U);
    EXPECT_EQ(taken.size(), 1024U);
}

} // namespace
