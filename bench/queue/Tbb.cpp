// tbb::concurrent_bounded_queue through its operations that do not block. It knows no bulk: a portion
// goes in and out one by one.

#include "queue/Series.h"

#include <tbb/concurrent_queue.h>

namespace {

using namespace Bench;

template <typename Handle> class TbbQueue {
public:
    explicit TbbQueue(const Load& load) { mQueue.set_capacity(load.capacity); }

    class Producer {
    public:
        Producer(TbbQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mSupply(portion) {}
        std::size_t Put() {
            const std::span<const Handle> handles = mSupply.Offer();
            std::size_t count = 0;
            while (count < handles.size() && mQueue.try_push(handles[count])) {
                ++count;
            }
            mSupply.Taken(count);
            return count;
        }

    private:
        tbb::concurrent_bounded_queue<Handle>& mQueue;
        Supply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(TbbQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mPortion(portion) {}
        std::size_t Take() {
            std::size_t count = 0;
            while (count < mPortion && mQueue.try_pop(mTaken)) {
                ++count;
            }
            return count;
        }

    private:
        tbb::concurrent_bounded_queue<Handle>& mQueue;
        const std::size_t mPortion;
        Handle mTaken{};
    };

private:
    tbb::concurrent_bounded_queue<Handle> mQueue;
};

const Registration ofShared(MakeSeries<TbbQueue<SharedPointer>>("tbb bounded", Element::Shared));
const Registration ofPlain(MakeSeries<TbbQueue<Pointer>>("tbb bounded", Element::Plain));

} // namespace
