// What anybody would write first: a deque behind a mutex.

#include "queue/Series.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

namespace {

using namespace Bench;

template <typename Handle> class MutexQueue {
public:
    explicit MutexQueue(const Load& load) : mCapacity(load.capacity) {}

    class Producer {
    public:
        Producer(MutexQueue& queue, std::size_t portion) : mQueue(queue), mSupply(portion) {}
        std::size_t Put() {
            const std::size_t count = mQueue.Enqueue(mSupply.Offer());
            mSupply.Taken(count);
            return count;
        }

    private:
        MutexQueue& mQueue;
        Supply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(MutexQueue& queue, std::size_t portion) : mQueue(queue), mPortion(portion) {}
        std::size_t Take() {
            mQueue.Dequeue(mTaken, mPortion);
            const std::size_t count = mTaken.size();
            mTaken.clear();
            return count;
        }

    private:
        MutexQueue& mQueue;
        const std::size_t mPortion;
        std::vector<Handle> mTaken;
    };

private:
    std::size_t Enqueue(std::span<const Handle> handles) {
        const std::lock_guard lock(mMutex);
        const std::size_t count = std::min(handles.size(), mCapacity - mDeque.size());
        mDeque.insert(mDeque.end(), handles.begin(), handles.begin() + static_cast<std::ptrdiff_t>(count));
        return count;
    }

    void Dequeue(std::vector<Handle>& taken, std::size_t max) {
        const std::lock_guard lock(mMutex);
        const auto end = mDeque.begin() + static_cast<std::ptrdiff_t>(std::min(max, mDeque.size()));
        taken.insert(taken.end(), std::make_move_iterator(mDeque.begin()), std::make_move_iterator(end));
        mDeque.erase(mDeque.begin(), end);
    }

    const std::size_t mCapacity;
    std::mutex mMutex;
    std::deque<Handle> mDeque;
};

const Registration ofShared(MakeSeries<MutexQueue<SharedPointer>>("mutex and deque", Element::Shared));
const Registration ofPlain(MakeSeries<MutexQueue<Pointer>>("mutex and deque", Element::Plain));

} // namespace
