// What the queue allocates, counted by an operator new of this program's own.

#include "LocklessQueue.h"

#include <cstdint>
#include <memory>
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

} // namespace
