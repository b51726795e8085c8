// sms_shm: the cached clock and the message counters, for the operations that use them with every
// message.
#pragma once

#include "core/segment/rules.h"
#include "core/segment/segment.h"

namespace halvo {

// q_gettime().
inline int32_t cached_time() noexcept {
    const halvo_segment *segment = attached_segment();
    return segment ? load(segment->now) : -1;
}

// Adds 1. The upper half is stored only when it changes: it may lie in another cache line, next to
// a word of the other side.
inline void increment(halvo_u64 &count) noexcept {
    uint32_t half = 0;
    auto *halves = reinterpret_cast<unsigned char *>(&count);
    std::memcpy(&half, halves, sizeof half);
    ++half;
    std::memcpy(halves, &half, sizeof half);
    if (half != 0) [[likely]]
        return;
    std::memcpy(&half, halves + sizeof half, sizeof half);
    ++half;
    std::memcpy(halves + sizeof half, &half, sizeof half);
}

// q_pcount_up() for a message of a type.
inline void count_put(halvo_channel *q, int type, bool error) noexcept {
    const auto count_one = [error](halvo_counter &counter) {
        increment(counter.count);
        if (error) increment(counter.ecount);
    };
    count_one(q->pcnt);
    refresh(q->lastin, cached_time());
    count_one(q->tcnt[0]);
    if (type >= 1 && type < HALVO_TYPES) count_one(q->tcnt[type]);
}

// q_gcount_up(), which counts no types.
inline void count_got(halvo_channel *q, int error) noexcept {
    increment(q->gcnt.count);
    if (error != 0) q->gcnt.ecount += static_cast<uint64_t>(int64_t{error}); // negative: lowers it
    refresh(q->lastout, cached_time());
    if (error > 0) store(q->errtime, cached_time());
}

} // namespace halvo
