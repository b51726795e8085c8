// The limit of the design's idea: a ring whose slots are a state word, a length and a body, with
// private positions and no counters, owners, heartbeats, types or limits. And the limit of any
// ring: its copies alone, by one thread.
#include <algorithm>
#include <atomic>
#include <vector>

#include "bench/links/links.h"
#include "bench/links/runs.h"
#include "bench/shared_memory.h"

namespace halvo::bench {

namespace {

struct BareSlot {
    std::atomic<uint32_t> full;
    uint32_t length;
    char body[1]; // goes on to the end of the slot
};

// kInPlace: the writer touches the first bytes of a body in its slot, and the reader looks at those
// alone, as the contenders of in_place.h do; else bodies are copied.
template <bool kInPlace>
struct BareRingLink {
    BareRingLink(const Shape &given, int lanes)
        : shape(given), memory(size_t{given.slot} * given.slots * static_cast<size_t>(lanes)) {}
    void enter() {}

    // A side's place in the ring.
    struct Place {
        Place(const BareRingLink &link, int lane)
            : size(link.shape.slot), start(link.memory.data() + size_t{size} * link.shape.slots *
                                                                    static_cast<size_t>(lane)),
              end(start + size_t{size} * link.shape.slots), at(start) {}
        BareSlot &slot() const { return *reinterpret_cast<BareSlot *>(at); }
        void step() {
            at += size;
            if (at == end) at = start;
        }
        static constexpr uint32_t kTouched = kInPlace ? kTouchedInPlace : UINT32_MAX;
        static uint32_t moved(uint32_t length) { return std::min(length, kTouched); }
        uint32_t size;
        char *start, *end, *at;
    };
    struct Writer : Place, Body {
        Writer(const BareRingLink &link, int lane) : Place(link, lane), Body(link.shape) {}
        bool send(uint32_t length) {
            BareSlot &to = Place::slot();
            if (to.full.load(std::memory_order_acquire)) return false;
            to.length = length;
            std::memcpy(to.body, body(), Place::moved(length));
            to.full.store(1, std::memory_order_release);
            Place::step();
            return true;
        }
    };
    struct Reader : Place {
        Reader(const BareRingLink &link, int lane) : Place(link, lane), body(link.shape.slot) {}
        const char *receive() {
            BareSlot &from = Place::slot();
            if (!from.full.load(std::memory_order_acquire)) return nullptr;
            std::memcpy(body.data(), from.body, Place::moved(from.length));
            from.full.store(0, std::memory_order_release);
            Place::step();
            return body.data();
        }
        std::vector<char> body;
    };
    Shape shape;
    SharedMemory memory;
};

Measured copy_alone(const Shape &shape, uint32_t count) {
    return run({[&](Shared &shared) {
        const SharedMemory ring(size_t{shape.slot} * shape.slots);
        std::vector<char> in(shape.body, 'x'), out(shape.body);
        uint32_t slot = 0;
        const auto pass = [&](uint32_t i) {
            char *at = ring.data() + size_t{slot} * shape.slot;
            stamp(in.data(), shape.body, i);
            std::memcpy(at, in.data(), shape.body);
            std::memcpy(out.data(), at, shape.body);
            check(out.data(), shape.body, i);
            if (++slot == shape.slots) slot = 0;
        };
        for (uint32_t i = 0; i < kWarmUp; ++i) pass(i);
        Parts parts(count);
        for (uint32_t i = 0; i < count; ++i) {
            pass(i);
            parts.passed(i + 1);
        }
        shared.result = {parts.total(), parts.rate(), 0};
    }});
}

} // namespace

const Link kBareRing{"bare ring", throughput<BareRingLink<false>>, round_trip<BareRingLink<false>>};
const Link kBareRingInPlace{"bare ring in place", throughput<BareRingLink<true>>,
                            round_trip<BareRingLink<true>>};
const Link kMemoryCopy{"memcpy limit", copy_alone, nullptr};

} // namespace halvo::bench
