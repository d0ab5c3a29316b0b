// boost::lockfree::queue, of fixed size. It knows no bulk: a portion goes in and out one by one.

#include "queue/Relocated.h"
#include "queue/Series.h"

#include <boost/lockfree/queue.hpp>

namespace {

using namespace Bench;

template <typename Handle> class BoostQueue {
public:
    explicit BoostQueue(const Load& load) : mQueue(load.capacity) {}
    ~BoostQueue() {
        mQueue.consume_all([](Relocated<Handle>& left) { left.LetGo(); });
    }
    BoostQueue(const BoostQueue&) = delete;
    BoostQueue& operator=(const BoostQueue&) = delete;

    class Producer {
    public:
        Producer(BoostQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mSupply(portion) {}
        std::size_t Put() {
            const Relocated<Handle>* handles = mSupply.Offer();
            std::size_t count = 0;
            while (count < mSupply.Count() && mQueue.bounded_push(handles[count])) {
                ++count;
            }
            mSupply.Taken(count);
            return count;
        }

    private:
        boost::lockfree::queue<Relocated<Handle>, boost::lockfree::fixed_sized<true>>& mQueue;
        RelocatedSupply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(BoostQueue& queue, std::size_t portion) : mQueue(queue.mQueue), mPortion(portion) {}
        std::size_t Take() {
            std::size_t count = 0;
            Relocated<Handle> taken;
            while (count < mPortion && mQueue.pop(taken)) {
                taken.LetGo();
                ++count;
            }
            return count;
        }

    private:
        boost::lockfree::queue<Relocated<Handle>, boost::lockfree::fixed_sized<true>>& mQueue;
        const std::size_t mPortion;
    };

private:
    boost::lockfree::queue<Relocated<Handle>, boost::lockfree::fixed_sized<true>> mQueue;
};

const Registration ofShared(MakeSeries<BoostQueue<SharedPointer>>("boost::lockfree", Element::Shared));
const Registration ofPlain(MakeSeries<BoostQueue<Pointer>>("boost::lockfree", Element::Plain));

} // namespace
