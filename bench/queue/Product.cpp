// The product, twice: as a queue of which nothing is declared, and with each side that has one thread
// declared so. A slot that held a shared pointer is emptied when its message is taken; nothing is to be
// released of a plain pointer, and no peer empties the slot it took one from.

#include "LocklessQueue.h"

#include "queue/Allocations.h"
#include "queue/Series.h"

#include <algorithm>
#include <iterator>
#include <type_traits>

namespace {

using namespace Bench;

template <typename Handle, bool DECLARED> class Product {
public:
    explicit Product(const Load& load)
        : mQueue(load.capacity, DECLARED && load.producers == 1, DECLARED && load.consumers == 1,
                 /*releaseOnDequeue=*/!std::is_trivially_destructible_v<Handle>) {}

    // Goes on with what was refused of its portion, as all do (see Supply). The queue takes a vector, whole: what is
    // left is moved into one of its own, and back among the others once it is taken.
    class Producer {
    public:
        Producer(Product& product, std::size_t portion)
            : mQueue(product.mQueue), mSingle(portion == 1), mPortions(portion) {}
        std::size_t Put() { return mSingle ? PutOne() : PutBulk(); }

    private:
        std::size_t PutOne() {
            if (!mQueue.Enqueue(mPortions.Current().front())) {
                return 0;
            }
            mPortions.Next();
            return 1;
        }

        std::size_t PutBulk() {
            const std::vector<Handle>& handles = mLeft.empty() ? mPortions.Current() : mLeft;
            const std::size_t count = mQueue.EnqueueBulk(handles, static_cast<int>(handles.size()));
            if (!mLeft.empty()) {
                GiveBack(count);
            } else if (count != 0 && count != handles.size()) {
                Leave(count);
            }
            if (count != 0 && mLeft.empty()) {
                mPortions.Next();
            }
            return count;
        }

        // The first `count` of the portion are in the queue.
        void Leave(std::size_t count) {
            std::vector<Handle>& portion = mPortions.Current();
            const auto begin = portion.begin() + static_cast<std::ptrdiff_t>(count);
            mLeft.assign(std::move_iterator(begin), std::move_iterator(portion.end()));
        }

        // And so are these of what was left.
        void GiveBack(std::size_t count) {
            const auto end = mLeft.begin() + static_cast<std::ptrdiff_t>(count);
            std::move(mLeft.begin(), end, mPortions.Current().end() - static_cast<std::ptrdiff_t>(mLeft.size()));
            mLeft.erase(mLeft.begin(), end);
        }

        SDK::LocklessQueue<Handle>& mQueue;
        const bool mSingle;
        Portions<Handle> mPortions;
        std::vector<Handle> mLeft;
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
