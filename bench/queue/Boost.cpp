// boost::lockfree::queue, of fixed size. It knows no bulk: a portion goes in and out one by one.

#include "queue/Relocated.h"
#include "queue/Series.h"

#include <boost/lockfree/queue.hpp>

namespace {

using namespace Bench;

template <typename Handle> class BoostQueue {
    using Fixed = boost::lockfree::queue<Bytes<Handle>, boost::lockfree::fixed_sized<true>>;

public:
    explicit BoostQueue(const Load& load) : mQueue(load.capacity) {}
    ~BoostQueue() {
        mQueue.consume_all([](Bytes<Handle>& left) { LetGo(left); });
    }
    BoostQueue(const BoostQueue&) = delete;
    BoostQueue& operator=(const BoostQueue&) = delete;

    class Producer {
    public:
        Producer(BoostQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mSupply(portion) {}
        std::size_t Put() {
            const std::span<const Bytes<Handle>> handles = mSupply.Offer();
            std::size_t count = 0;
            while (count < handles.size() && mQueue.bounded_push(handles[count])) {
                ++count;
            }
            mSupply.Taken(count);
            return count;
        }

    private:
        Fixed& mQueue;
        BytesSupply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(BoostQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mPortion(portion) {}
        std::size_t Take() {
            std::size_t count = 0;
            Bytes<Handle> taken;
            while (count < mPortion && mQueue.pop(taken)) {
                LetGo(taken);
                ++count;
            }
            return count;
        }

    private:
        Fixed& mQueue;
        const std::size_t mPortion;
    };

private:
    Fixed mQueue;
};

const Registration ofShared(MakeSeries<BoostQueue<SharedPointer>>("boost::lockfree", Element::Shared));
const Registration ofPlain(MakeSeries<BoostQueue<Pointer>>("boost::lockfree", Element::Plain));

} // namespace
