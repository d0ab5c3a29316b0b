#pragma once

#include "queue/Load.h"

#include <array>
#include <cstddef>
#include <new>
#include <span>
#include <type_traits>
#include <vector>

namespace Bench {

// Some peers move nothing but bytes. They are handed the very bytes of the shared pointer: the producer
// makes a copy of its handle (the count goes up) into them, the consumer lets the handle in them go (the
// count goes down). That is what the product pays too, and the least that moving such a handle can cost.
template <typename Handle> struct Relocated {
    alignas(Handle) std::array<std::byte, sizeof(Handle)> bytes;

    void Hold(const Handle& handle) { new (bytes.data()) Handle(handle); }
};

template <typename Handle> void LetGo(Relocated<Handle>& taken) {
    std::launder(reinterpret_cast<Handle*>(taken.bytes.data()))->~Handle();
}
inline void LetGo(Pointer /*taken*/) {}

// A producer's handles as bytes, offered as those of Supply are. What a full queue refused is offered again as it
// is, so that it costs no second copy.
template <typename Handle> class RelocatedSupply {
public:
    explicit RelocatedSupply(std::size_t portion) : mPortions(portion), mBytes(portion), mNext(portion) {}
    ~RelocatedSupply() {
        while (mNext < mBytes.size()) {
            LetGo(mBytes[mNext++]);
        }
    }
    RelocatedSupply(const RelocatedSupply&) = delete;
    RelocatedSupply& operator=(const RelocatedSupply&) = delete;

    std::span<const Relocated<Handle>> Offer() {
        if (mNext == mBytes.size()) {
            const std::vector<Handle>& portion = mPortions.Current();
            for (std::size_t i = 0; i < portion.size(); ++i) {
                mBytes[i].Hold(portion[i]);
            }
            mPortions.Next();
            mNext = 0;
        }
        return std::span<const Relocated<Handle>>(mBytes).subspan(mNext);
    }
    void Taken(std::size_t count) { mNext += count; }

private:
    Portions<Handle> mPortions;
    std::vector<Relocated<Handle>> mBytes;
    std::size_t mNext;
};

// What such a peer moves of a handle, and where a producer has it from. A plain pointer is its own bytes, and is
// offered from where it lies.
template <typename Handle> constexpr bool IS_BYTES = std::is_trivially_copyable_v<Handle>;
template <typename Handle> using Bytes = std::conditional_t<IS_BYTES<Handle>, Handle, Relocated<Handle>>;
template <typename Handle>
using BytesSupply = std::conditional_t<IS_BYTES<Handle>, Supply<Handle>, RelocatedSupply<Handle>>;

} // namespace Bench
