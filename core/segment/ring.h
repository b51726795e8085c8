// sms_shm: slots and positions of a channel's ring.
//
//   writer   0 -> 1 (write)    0 -> 5 (mark)    5 -> 1 (commit)    5 -> 0 (rollback)
//   reader   1 -> 0 (read)     1 -> 3 (mark)    3 -> 0 (commit)    3 -> 1 (rollback)
//
// Each state word is changed by one side at a time, which that state names; wpos belongs to the
// writer, rpos to the reader. The writer stores body and counters, then the state, then wpos; the
// reader copies the slot, counts, frees the state, then moves rpos. All of it is plain loads and
// stores in the machine code, which the compiler does not move, and x86 keeps the order of its own
// loads and of its own stores.
//
// Sizes and offsets are any number of bytes, so that all these words may lie at odd addresses. One
// that crosses a cache line is loaded and stored in two parts. A state survives that, for only its
// first byte ever changes; and a position is loaded by the side that stores it.
#pragma once

#include <cstdint>
#include <cstring>

#include "core/base/copy.h"
#include "halvo/segment.h"

namespace halvo {

// Words that other processes read or write at the same time, at any address: one `mov` each, in
// front of which or behind which the compiler moves nothing.
#ifdef __SANITIZE_THREAD__ // which takes a plain access for a race
inline int32_t load(const halvo_i32 &word) noexcept {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline uint32_t load(const halvo_u32 &word) noexcept {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline void store(halvo_i32 &word, int32_t value) noexcept {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}
inline void store(halvo_u32 &word, uint32_t value) noexcept {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}
#else
inline void keep_order() noexcept { __asm__ volatile("" : : : "memory"); } // the compiler's
inline int32_t load(const halvo_i32 &word) noexcept {
    const int32_t value = *static_cast<const volatile halvo_i32 *>(&word);
    keep_order();
    return value;
}
inline uint32_t load(const halvo_u32 &word) noexcept {
    const uint32_t value = *static_cast<const volatile halvo_u32 *>(&word);
    keep_order();
    return value;
}
inline void store(halvo_i32 &word, int32_t value) noexcept {
    keep_order();
    *static_cast<volatile halvo_i32 *>(&word) = value;
}
inline void store(halvo_u32 &word, uint32_t value) noexcept {
    keep_order();
    *static_cast<volatile halvo_u32 *>(&word) = value;
}
#endif
// For heartbeats and the like, which seldom change: the other side reads the same cache line, so a
// store of the value that is already there would only take the line from it.
inline void refresh(halvo_i32 &word, int32_t value) noexcept {
    if (load(word) != value) store(word, value);
}

inline int32_t load_state(const qmsg *slot) noexcept { return load(slot->state); }
inline void publish_state(qmsg *slot, int32_t state) noexcept { store(slot->state, state); }

inline qmsg *slot_at(halvo_channel *q, uint32_t offset) noexcept {
    return reinterpret_cast<qmsg *>(reinterpret_cast<char *>(q) + offset);
}
inline const qmsg *slot_at(const halvo_channel *q, uint32_t offset) noexcept {
    return slot_at(const_cast<halvo_channel *>(q), offset);
}

// Where the slots of a ring lie, as its header says at one moment: bytes, offsets from the header.
struct Ring {
    uint32_t size; // of a slot
    uint32_t start, end;
    bool operator==(const Ring &) const = default;
};
inline Ring ring_of(const halvo_channel *q) noexcept {
    return {load(q->qbsz), load(q->qstart), load(q->qend)};
}

// Whether such a ring has a slot and lies between its header and `room` bytes from it on. That is
// all that using it asks for: whatever its positions say, position_in() leads into it.
inline bool lies_within(const Ring &ring, uint32_t room) noexcept {
    return ring.size >= sizeof(qmsg) && ring.start >= sizeof(halvo_channel) && ring.end <= room &&
           ring.end >= ring.start && ring.end - ring.start >= ring.size;
}

// Slots that the ring has room for.
inline uint32_t capacity(const Ring &ring) noexcept { return (ring.end - ring.start) / ring.size; }

// A position as the offset of a slot that lies in the ring: a word that is none, which only damage
// makes, stands for the first slot. A place between two slots is not told apart, for that costs a
// division: next_offset() leads from there to the ring's first slot and never past its end.
inline uint32_t position_in(const Ring &ring, uint32_t position) noexcept {
    const bool inside = position - ring.start <= ring.end - ring.start - ring.size;
    if (inside) [[likely]]
        return position;
    return ring.start;
}

// The ring rule.
inline uint32_t next_offset(const Ring &ring, uint32_t offset) noexcept {
    const uint32_t next = offset + ring.size;
    return next > ring.end - ring.size ? ring.start : next;
}

// The offset k slots ahead, with one wrap only. `inside` is false when that still is no place in
// the ring (a negative k, or more than a ring's worth).
struct AheadOffset {
    uint32_t offset;
    bool inside;
};
inline AheadOffset offset_ahead(const Ring &ring, uint32_t from, int64_t k) noexcept {
    int64_t offset = int64_t{from} + k * int64_t{ring.size};
    if (offset >= int64_t{ring.end}) offset += int64_t{ring.start} - int64_t{ring.end};
    const bool inside =
        offset >= int64_t{ring.start} && offset + int64_t{ring.size} <= int64_t{ring.end};
    return {static_cast<uint32_t>(offset), inside};
}

constexpr bool is_buffer_index(int index) noexcept { return index >= 0 && index < HALVO_BUFFERS; }

inline const void *body(const qmsg *slot) noexcept {
    return reinterpret_cast<const char *>(slot) + offsetof(qmsg, data);
}
inline void *body(qmsg *slot) noexcept {
    return reinterpret_cast<char *>(slot) + offsetof(qmsg, data);
}

// A whole slot, header included, whatever its state. The state word is loaded first: when it
// reads 1 or 3, the body that follows is complete.
inline void copy_slot(uint32_t size, const qmsg *slot, void *buffer) noexcept {
    const int32_t state = load_state(slot);
    char *to = static_cast<char *>(buffer);
    std::memcpy(to, &state, sizeof state);
    copy_bytes(to + sizeof state, reinterpret_cast<const char *>(slot) + sizeof state,
               size - static_cast<uint32_t>(sizeof state));
}

// Bytes of a slot image's body that may be copied out: never more than the slot holds, whatever
// length a damaged segment claims.
inline uint32_t body_length(uint32_t slot_size, const qmsg *image) noexcept {
    const uint32_t room = slot_size - static_cast<uint32_t>(offsetof(qmsg, data));
    const uint32_t length = load(image->len);
    return length < room ? length : room;
}

} // namespace halvo
