// sms_shm: slots and positions of a channel's ring.
//
//   writer   0 -> 1 (write)    0 -> 5 (mark)    5 -> 1 (commit)    5 -> 0 (rollback)
//   reader   1 -> 0 (read)     1 -> 3 (mark)    3 -> 0 (commit)    3 -> 1 (rollback)
//
// Each state word is changed by one side at a time, which that state names; wpos belongs to the
// writer, rpos to the reader. The writer stores body and counters, then the state, then wpos; the
// reader copies the slot, counts, frees the state, then moves rpos. All of it is plain aligned
// loads and stores in the machine code: acquire and release keep the compiler from moving them,
// and x86 keeps the order of its own loads and of its own stores.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "core/copy.h"
#include "halvo/segment.h"

namespace halvo {

// Words that other processes read or write at the same time.
template <class Word>
Word load(const Word &word) noexcept {
    return std::atomic_ref<Word>(const_cast<Word &>(word)).load(std::memory_order_acquire);
}
template <class Word>
void store(Word &word, Word value) noexcept {
    std::atomic_ref<Word>(word).store(value, std::memory_order_release);
}
// For heartbeats and the like, which seldom change: the other side reads the same cache line, so a
// store of the value that is already there would only take the line from it.
template <class Word>
void refresh(Word &word, Word value) noexcept {
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

// Where a channel's slots lie: offsets from its header on, sizes in bytes. Nobody changes it while
// the segment stands.
struct Geometry {
    uint32_t slots;
    uint32_t size; // of a slot
    uint32_t start, end;
    uint32_t rbufs, wbufs;
};
inline Geometry geometry_of(const halvo_channel *q) noexcept {
    return {q->qcnt, q->qbsz, q->qstart, q->qend, q->rbufs, q->wbufs};
}

// A position as the offset of a slot that lies in the ring: a word that is none, which only damage
// makes, stands for the first slot. A place between two slots is not told apart, for that costs a
// division: next_offset() leads from there to the ring's first slot and never past its end.
inline uint32_t position_in(const Geometry &at, uint32_t position) noexcept {
    const bool inside =
        position - at.start <= at.end - at.start - at.size && position % alignof(qmsg) == 0;
    return inside ? position : at.start;
}
inline uint32_t position_in(const halvo_channel *q, uint32_t position) noexcept {
    return position_in(geometry_of(q), position);
}

// The ring rule.
inline uint32_t next_offset(const Geometry &at, uint32_t offset) noexcept {
    const uint32_t next = offset + at.size;
    return next > at.end - at.size ? at.start : next;
}
inline uint32_t next_offset(const halvo_channel *q, uint32_t offset) noexcept {
    return next_offset(geometry_of(q), offset);
}

// The offset k slots ahead, with one wrap only. `inside` is false when that still is no place in
// the ring (a negative k, or more than a ring's worth).
struct AheadOffset {
    uint32_t offset;
    bool inside;
};
inline AheadOffset offset_ahead(const Geometry &at, uint32_t from, int64_t k) noexcept {
    int64_t offset = int64_t{from} + k * int64_t{at.size};
    if (offset >= int64_t{at.end}) offset += int64_t{at.start} - int64_t{at.end};
    const bool inside = offset >= int64_t{at.start} && offset + int64_t{at.size} <= int64_t{at.end};
    return {static_cast<uint32_t>(offset), inside};
}

// A buffer slot of the five behind `area` (rbufs or wbufs).
inline qmsg *buffer_slot(halvo_channel *q, uint32_t area, int index, uint32_t size) noexcept {
    return slot_at(q, area + static_cast<uint32_t>(index) * size);
}
inline qmsg *buffer_slot(halvo_channel *q, uint32_t area, int index) noexcept {
    return buffer_slot(q, area, index, q->qbsz);
}
inline const qmsg *buffer_slot(const halvo_channel *q, uint32_t area, int index) noexcept {
    return buffer_slot(const_cast<halvo_channel *>(q), area, index);
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
    return image->len < room ? image->len : room;
}
inline uint32_t body_length(const halvo_channel *q, const qmsg *image) noexcept {
    return body_length(q->qbsz, image);
}

} // namespace halvo
