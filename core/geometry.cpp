#include "core/geometry.h"

#include "core/ring.h"

namespace {

// Slots from offset `begin` to `end`. They never overlap the header that tells where they are.
bool fits(uint64_t begin, uint64_t end, uint64_t room) {
    return begin % alignof(qmsg) == 0 && begin >= sizeof(halvo_channel) && end <= room &&
           end <= UINT32_MAX; // offsets have 32 bits, however large the segment is
}

} // namespace

bool halvo::is_sound(const halvo_channel *q, uint64_t room) noexcept {
    const uint64_t size = load(q->qbsz), slots = load(q->qcnt);
    const uint64_t start = load(q->qstart), end = load(q->qend);
    const uint64_t rbufs = load(q->rbufs), wbufs = load(q->wbufs);
    return slots > 0 && size > sizeof(qmsg) && size % alignof(qmsg) == 0 &&
           start + slots * size == end && fits(start, end, room) &&
           fits(rbufs, rbufs + HALVO_BUFFERS * size, room) &&
           fits(wbufs, wbufs + HALVO_BUFFERS * size, room);
}
