#pragma once

#include "queue/Load.h"

#include <array>
#include <cstddef>
#include <new>
#include <utility>
#include <vector>

namespace Bench {

// Some peers move nothing but bytes. They are handed the very bytes of the shared pointer: the producer
// makes a copy of its handle (the count goes up) into them, the consumer lets the handle in them go (the
// count goes down). That is what the product pays too, and the least that moving such a handle can cost.
// Plain pointers are their own bytes.
template <typename Handle> struct Relocated {
    alignas(Handle) std::array<std::byte, sizeof(Handle)> bytes;

    void Hold(const Handle& handle) { new (bytes.data()) Handle(handle); }
    void LetGo() { std::launder(reinterpret_cast<Handle*>(bytes.data()))->~Handle(); }
};

// A producer's handles as bytes. Those that a full queue refused are offered again as they are, so that
// they cost no second copy.
template <typename Handle> class RelocatedSupply {
public:
    explicit RelocatedSupply(std::size_t portion) : mSupply(portion), mBytes(portion), mNext(portion) {}
    ~RelocatedSupply() {
        while (mNext < mBytes.size()) {
            mBytes[mNext++].LetGo();
        }
    }
    RelocatedSupply(const RelocatedSupply&) = delete;
    RelocatedSupply& operator=(const RelocatedSupply&) = delete;

    // What is to be offered next. Taken(n) says how many of them are the queue's now.
    const Relocated<Handle>* Offer() {
        if (mNext == mBytes.size()) {
            const std::vector<Handle>& portion = mSupply.Portion();
            for (std::size_t i = 0; i < portion.size(); ++i) {
                mBytes[i].Hold(portion[i]);
            }
            mSupply.Next();
            mNext = 0;
        }
        return &mBytes[mNext];
    }
    std::size_t Count() const { return mBytes.size() - mNext; }
    void Taken(std::size_t count) { mNext += count; }

private:
    Supply<Handle> mSupply;
    std::vector<Relocated<Handle>> mBytes;
    std::size_t mNext;
};

} // namespace Bench
