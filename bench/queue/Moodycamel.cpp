// moodycamel's queue with a token for each thread, kept to its capacity: the operations that would grow
// it are not used. It keeps the order of one producer's elements, not that of all.

#include "queue/Series.h"

#include <concurrentqueue/concurrentqueue.h>

namespace {

using namespace Bench;

template <typename Handle> class MoodycamelQueue {
public:
    explicit MoodycamelQueue(const Load& load) : mQueue(load.capacity, load.producers, 0) {}

    class Producer {
    public:
        Producer(MoodycamelQueue& queue, std::size_t portion)
            : mQueue(queue.mQueue), mToken(queue.mQueue), mSupply(portion) {}
        std::size_t Put() {
            // A bulk goes in whole or not at all, so what is left of a portion is all of it.
            const std::span<const Handle> handles = mSupply.Offer();
            const bool taken = handles.size() == 1 ? mQueue.try_enqueue(mToken, handles.front())
                                                   : mQueue.try_enqueue_bulk(mToken, handles.begin(), handles.size());
            const std::size_t count = taken ? handles.size() : 0;
            mSupply.Taken(count);
            return count;
        }

    private:
        moodycamel::ConcurrentQueue<Handle>& mQueue;
        moodycamel::ProducerToken mToken;
        Supply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(MoodycamelQueue& queue, std::size_t portion)
            : mQueue(queue.mQueue), mToken(queue.mQueue), mTaken(portion) {}
        std::size_t Take() {
            if (mTaken.size() == 1) {
                return static_cast<std::size_t>(mQueue.try_dequeue(mToken, mTaken.front()));
            }
            const std::size_t count = mQueue.try_dequeue_bulk(mToken, mTaken.begin(), mTaken.size());
            for (std::size_t i = 0; i < count; ++i) {
                mTaken[i] = Handle();
            }
            return count;
        }

    private:
        moodycamel::ConcurrentQueue<Handle>& mQueue;
        moodycamel::ConsumerToken mToken;
        std::vector<Handle> mTaken;
    };

private:
    moodycamel::ConcurrentQueue<Handle> mQueue;
};

const Registration ofShared(MakeSeries<MoodycamelQueue<SharedPointer>>("moodycamel, tokens", Element::Shared));
const Registration ofPlain(MakeSeries<MoodycamelQueue<Pointer>>("moodycamel, tokens", Element::Plain));

} // namespace
