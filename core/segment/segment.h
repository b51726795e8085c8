// sms_shm: the attached segment: where it lies in this process, how large it is, and the checked
// lookups in it.
#pragma once

#include <algorithm>
#include <atomic>

#include "core/segment/ring.h"
#include "halvo/queue.h"

namespace halvo {

#define HALVO_HIDDEN __attribute__((visibility("hidden")))
// The attached segment, or null before the attach, after a failed one and after close_shm(). Unlike
// q_0() it never points at memory that is gone.
extern halvo_segment *attached HALVO_HIDDEN;
// Set by a successful attach; stays after close_shm().
extern halvo_segment *segment_ever HALVO_HIDDEN;
extern size_t segment_size HALVO_HIDDEN; // bytes, at least those of the segment header
extern int attached_id HALVO_HIDDEN;     // the kernel's id of what was attached last; -1 before
extern int first_channels HALVO_HIDDEN;  // channels at the time of the attach, at most 269
// Attached by q_attach_view(), without a right to store.
extern std::atomic<bool> is_view HALVO_HIDDEN;
#undef HALVO_HIDDEN

inline halvo_segment *attached_segment() noexcept { return attached; }
// The same, but null for one that only may be looked at.
inline halvo_segment *writable_segment() noexcept { return is_view ? nullptr : attached; }

// Channels of a segment: nchnnl, or as many as the table of offsets holds when that claims more. Of
// the attached one never more than at the attach: tables of that many records were made then.
inline int channel_count(const halvo_segment *segment) noexcept {
    const int most = segment == segment_ever ? first_channels : int{HALVO_CHANNELS_MAX};
    return static_cast<int>(std::min(load(segment->nchnnl), static_cast<uint32_t>(most)));
}

// Bytes of the segment from a channel's header on, as many as offsets can tell. A header elsewhere
// is the caller's own image, of which nobody else knows the end.
inline uint32_t room_behind(const halvo_channel *q) noexcept {
    const auto offset = reinterpret_cast<uintptr_t>(q) - reinterpret_cast<uintptr_t>(attached);
    if (offset >= segment_size) return UINT32_MAX;
    const size_t room = segment_size - offset;
    return room < UINT32_MAX ? static_cast<uint32_t>(room) : UINT32_MAX;
}

// A channel's header that lies whole in the segment, behind the segment's own; null for one that
// does not and for a number outside 0 .. nchnnl - 1.
inline halvo_channel *header_in(halvo_segment *segment, int channel) noexcept {
    if (channel < 0 || channel >= channel_count(segment)) return nullptr;
    const size_t offset = load(segment->qoffs[channel]);
    if (offset < sizeof(halvo_segment) || offset > segment_size ||
        segment_size - offset < sizeof(halvo_channel))
        return nullptr;
    return reinterpret_cast<halvo_channel *>(reinterpret_cast<char *>(segment) + offset);
}
// The same in the attached segment; null when there is none.
inline halvo_channel *header_of(int channel) noexcept {
    halvo_segment *segment = attached;
    return segment ? header_in(segment, channel) : nullptr;
}

// The one checked lookup: the header of a channel whose ring lies in the segment too, or null. It
// looks at the words as they are now; who uses them later looks again. q_chnnl2q() checks nothing.
inline halvo_channel *checked_channel(int channel) noexcept {
    halvo_channel *q = header_of(channel);
    return q && lies_within(ring_of(q), room_behind(q)) ? q : nullptr;
}

// Whether that many bytes from an address on lie in the attached segment.
inline bool in_segment(const void *address, size_t bytes) noexcept {
    const auto offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(attached);
    return attached && offset <= segment_size && bytes <= segment_size - offset;
}

// The slot of a ring at a position, for those who only look; null when the ring does not lie in the
// segment.
inline const qmsg *ring_slot(const halvo_channel *q, uint32_t position) noexcept {
    const Ring ring = ring_of(q);
    if (!lies_within(ring, room_behind(q))) return nullptr;
    return slot_at(q, position_in(ring, position));
}

// A buffer slot of those behind `area` (rbufs or wbufs), which are `size` bytes each; null unless so
// many bytes of it as are needed lie between the header and the end of the segment.
inline qmsg *buffer_slot(halvo_channel *q, uint32_t area, int index, uint32_t size,
                         uint32_t needed) noexcept {
    const uint64_t begin = area + uint64_t{size} * static_cast<uint32_t>(index);
    const bool inside = begin >= sizeof(halvo_channel) && begin + needed <= room_behind(q);
    return inside ? slot_at(q, static_cast<uint32_t>(begin)) : nullptr;
}
// The same for those who only look at its state.
inline qmsg *buffer_slot(halvo_channel *q, uint32_t area, int index) noexcept {
    return buffer_slot(q, area, index, load(q->qbsz), sizeof(qmsg));
}
inline const qmsg *buffer_slot(const halvo_channel *q, uint32_t area, int index) noexcept {
    return buffer_slot(const_cast<halvo_channel *>(q), area, index);
}

} // namespace halvo
