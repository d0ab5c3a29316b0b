// DPDK's ring, for many producers and many consumers, in its plain and in its relaxed-tail mode (RTS). It
// lies in memory of this program: a ring needs nothing of the environment that other parts of that library
// want to be started first.

#include "queue/Relocated.h"
#include "queue/Series.h"

#include <cstdlib>
#include <stdexcept>

#include <rte_ring.h>

namespace {

using namespace Bench;

template <typename Handle, unsigned int MODE> class DpdkRing {
    using Moved = Bytes<Handle>;
    static constexpr unsigned int ELEMENT_BYTES = sizeof(Moved); // NOLINT(bugprone-sizeof-expression): of a pointer

public:
    explicit DpdkRing(const Load& load) : mRing(Make(load.capacity)) {}
    ~DpdkRing() {
        Moved left;
        while (rte_ring_dequeue_elem(mRing.get(), &left, ELEMENT_BYTES) == 0) {
            LetGo(left);
        }
    }
    DpdkRing(const DpdkRing&) = delete;
    DpdkRing& operator=(const DpdkRing&) = delete;

    class Producer {
    public:
        Producer(DpdkRing& ring, std::size_t portion) : mRing(ring.mRing.get()), mSupply(portion) {}
        std::size_t Put() {
            const std::span<const Moved> handles = mSupply.Offer();
            const unsigned int count = rte_ring_enqueue_burst_elem(mRing, handles.data(), ELEMENT_BYTES,
                                                                   static_cast<unsigned int>(handles.size()), nullptr);
            mSupply.Taken(count);
            return count;
        }

    private:
        rte_ring* const mRing;
        BytesSupply<Handle> mSupply;
    };

    class Consumer {
    public:
        Consumer(DpdkRing& ring, std::size_t portion) : mRing(ring.mRing.get()), mTaken(portion) {}
        std::size_t Take() {
            const unsigned int count = rte_ring_dequeue_burst_elem(mRing, mTaken.data(), ELEMENT_BYTES,
                                                                   static_cast<unsigned int>(mTaken.size()), nullptr);
            for (unsigned int i = 0; i < count; ++i) {
                LetGo(mTaken[i]);
            }
            return count;
        }

    private:
        rte_ring* const mRing;
        std::vector<Moved> mTaken;
    };

private:
    using Memory = std::unique_ptr<rte_ring, decltype(&std::free)>;

    // The next power of two is more slots than capacity; the ring holds as many as it was asked for.
    static Memory Make(std::uint32_t capacity) {
        std::uint32_t slots = 1;
        while (slots <= capacity) {
            slots *= 2;
        }
        const ssize_t size = rte_ring_get_memsize_elem(ELEMENT_BYTES, slots);
        Memory memory(static_cast<rte_ring*>(std::aligned_alloc(RTE_CACHE_LINE_SIZE, static_cast<std::size_t>(size))),
                      &std::free);
        if (!memory || rte_ring_init(memory.get(), "bench", capacity, MODE | RING_F_EXACT_SZ) != 0) {
            throw std::runtime_error("DPDK refuses to make a ring");
        }
        return memory;
    }

    const Memory mRing;
};

constexpr unsigned int MANY = 0;
constexpr unsigned int MANY_RELAXED = RING_F_MP_RTS_ENQ | RING_F_MC_RTS_DEQ;

const Registration ofShared(MakeSeries<DpdkRing<SharedPointer, MANY>>("dpdk MP/MC", Element::Shared));
const Registration ofPlain(MakeSeries<DpdkRing<Pointer, MANY>>("dpdk MP/MC", Element::Plain));
const Registration relaxedOfShared(MakeSeries<DpdkRing<SharedPointer, MANY_RELAXED>>("dpdk RTS", Element::Shared));
const Registration relaxedOfPlain(MakeSeries<DpdkRing<Pointer, MANY_RELAXED>>("dpdk RTS", Element::Plain));

} // namespace
