// The product, twice: as a queue of which nothing is declared, and with each side that has one thread
// declared so. A slot that held a shared pointer is emptied when its message is taken; nothing is to be
// released of a plain pointer, and no peer empties the slot it took one from.

#include "LocklessQueue.h"

#include "queue/Allocations.h"
#include "queue/Series.h"

#include <type_traits>

namespace {

using namespace Bench;

template <typename Handle, bool DECLARED> class Product {
public:
    explicit Product(const Load& load)
        : mQueue(load.capacity, DECLARED && load.producers == 1, DECLARED && load.consumers == 1,
                 /*releaseOnDequeue=*/!std::is_trivially_destructible_v<Handle>) {}

    class Producer {
    public:
        Producer(Product& product, std::size_t portion) : mQueue(product.mQueue), mSupply(portion) {}
        std::size_t Put() {
            const std::vector<Handle>& portion = mSupply.Portion();
            const std::size_t count = portion.size() == 1
                                          ? static_cast<std::size_t>(mQueue.Enqueue(portion.front()))
                                          : mQueue.EnqueueBulk(portion, static_cast<int>(portion.size()));
            if (count != 0) {
                mSupply.Next();
            }
            return count;
        }

    private:
        SDK::LocklessQueue<Handle>& mQueue;
        Supply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(Product& product, std::size_t portion) : mQueue(product.mQueue), mPortion(portion) {}
        std::size_t Take() {
            if (mPortion == 1) {
                return static_cast<std::size_t>(mQueue.Dequeue(mElement));
            }
            const std::size_t count = mQueue.DequeueBulk(mTaken, static_cast<int>(mPortion));
            mTaken.clear();
            return count;
        }

    private:
        SDK::LocklessQueue<Handle>& mQueue;
        const std::size_t mPortion;
        Handle mElement{};
        std::vector<Handle> mTaken;
    };

private:
    SDK::LocklessQueue<Handle> mQueue;
};

template <typename Handle> double AllocationsPerPair() {
    SDK::LocklessQueue<Handle> queue(1024);
    const Handle handle = MakeHandle<Handle>();
    Handle taken{};
    return CountAllocationsPerCall([&] {
        queue.Enqueue(handle);
        queue.Dequeue(taken);
    });
}

template <typename Handle, bool DECLARED> Series Make(const std::string& name, Element element) {
    Series series = MakeSeries<Product<Handle, DECLARED>>(name, element);
    series.allocationsPerPair = AllocationsPerPair<Handle>;
    return series;
}

const Registration ofShared(Make<SharedPointer, false>("corvalent", Element::Shared));
const Registration ofPlain(Make<Pointer, false>("corvalent", Element::Plain));
const Registration declaredOfShared(MakeSeries<Product<SharedPointer, true>>("corvalent, single sides declared",
                                                                             Element::Shared));
const Registration declaredOfPlain(MakeSeries<Product<Pointer, true>>("corvalent, single sides declared",
                                                                      Element::Plain));

} // namespace
