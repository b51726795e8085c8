// boost::lockfree::spsc_queue of whole slots, in shared memory. The sizes are part of its type, so
// there is one for each slot size, and its depth is fixed at compile time.
#include <boost/lockfree/spsc_queue.hpp>

#include <new>

#include "bench/links/links.h"
#include "bench/links/runs.h"
#include "bench/shared_memory.h"

namespace halvo::bench {

namespace {

constexpr size_t kDepth = 256;

template <size_t Size>
struct SpscLink {
    struct Slot {
        uint32_t length;
        char body[Size - sizeof(uint32_t)];
    };
    using Queue = boost::lockfree::spsc_queue<Slot, boost::lockfree::capacity<kDepth>>;

    SpscLink(const Shape &, int lanes) : memory(sizeof(Queue) * static_cast<size_t>(lanes)) {
        for (int lane = 0; lane < lanes; ++lane) new (&queue(lane)) Queue;
    }
    void enter() {}
    Queue &queue(int lane) const { return reinterpret_cast<Queue *>(memory.data())[lane]; }

    struct Writer {
        Writer(SpscLink &link, int lane) : queue(link.queue(lane)) {}
        char *body() { return slot.body; } // push copies the whole slot
        bool send(uint32_t length) {
            slot.length = length;
            return queue.push(slot);
        }
        Queue &queue;
        Slot slot{};
    };
    struct Reader {
        Reader(SpscLink &link, int lane) : queue(link.queue(lane)) {}
        const char *receive() { return queue.pop(slot) ? slot.body : nullptr; }
        Queue &queue;
        Slot slot{};
    };
    SharedMemory memory;
};

template <size_t Size>
Measured pass(const Shape &shape, uint32_t count) {
    return throughput<SpscLink<Size>>(shape, count);
}

Measured throughput_of_size(const Shape &shape, uint32_t count) {
    switch (shape.slot) {
    case 128:
        return pass<128>(shape, count);
    case 1024:
        return pass<1024>(shape, count);
    case 4096:
        return pass<4096>(shape, count);
    default:
        throw Failure("no spsc_queue of this slot size");
    }
}

} // namespace

const Link kBoostSpsc{"boost spsc", throughput_of_size, nullptr};

} // namespace halvo::bench
