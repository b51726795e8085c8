// sms_shm: putting a channel's end right after its last holder died.
//
// A writer that dies between storing a slot's state and wpos, or a reader between state and rpos,
// leaves its position one slot behind the states. The states are the truth: the occupied slots are
// one run, which begins where the reader is and ends where the writer is.
#include <unistd.h>

#include <cstring>
#include <optional>

#include "core/base/posix.h"
#include "core/ring/side.h"
#include "core/segment/segment.h"

using namespace halvo;

namespace {

// While the peer lives, what the states say must stay the same over this many looks: slots may
// change under a look, and the peer itself may stand between its own state and position.
constexpr int kStillLooks = 10;
constexpr int kMostLooks = 100;
constexpr useconds_t kBetweenLooks = 5000; // microseconds

bool is_occupied(const halvo_channel *q, uint32_t offset) {
    const int32_t state = load_state(slot_at(q, offset));
    return state == HALVO_SLOT_READABLE || state == HALVO_SLOT_MARKED;
}

// Calls visit(offset) for each slot of a ring, from the first to the last.
template <class Visit>
void for_slots(const Ring &ring, Visit visit) {
    uint32_t offset = ring.start;
    for (uint32_t left = capacity(ring); left > 0; --left, offset += ring.size) visit(offset);
}

// Whether a position is exactly that of a slot; only damage makes another.
bool is_slot(const Ring &ring, uint32_t position) {
    return position_in(ring, position) == position && (position - ring.start) % ring.size == 0;
}

// Where the two positions must be the same: the peer's, unless that is the one that stayed behind.
// Its own successor will move it; to follow it would turn the order of a full ring, and two ends
// that recover at the same time would change places.
uint32_t common_position(const Ring &ring, uint32_t own, uint32_t peer) {
    if (!is_slot(ring, own)) return is_slot(ring, peer) ? peer : ring.start;
    if (!is_slot(ring, peer)) return own;
    const bool peer_behind = next_offset(ring, peer) == own && next_offset(ring, own) != peer;
    return peer_behind ? own : peer;
}

// Where the states say that a side's position is; nothing when they are not one run.
std::optional<uint32_t> position_by_states(const halvo_channel *q, const Ring &ring,
                                           const Side &side, const Side &peer) {
    const uint32_t slots = capacity(ring);
    uint32_t occupied = 0, runs = 0, start = 0, end = 0;
    bool before = is_occupied(q, ring.start + (slots - 1) * ring.size);
    for_slots(ring, [&](uint32_t offset) {
        const bool now = is_occupied(q, offset);
        occupied += now;
        if (now && !before) {
            ++runs;
            start = offset;
        }
        if (!now && before) end = offset;
        before = now;
    });
    if (occupied == 0 || occupied == slots)
        return common_position(ring, load(q->*side.position), load(q->*peer.position));
    if (runs != 1) return std::nullopt;
    return &side == &kWriter ? end : start;
}

// A peer may come, work and be gone during one look.
std::optional<uint32_t> settled_position(const halvo_channel *q, const Ring &ring, const Side &side,
                                         const Side &peer) {
    const auto look = [&] { return position_by_states(q, ring, side, peer); };
    const int32_t last = load(q->*peer.pid);
    const bool alone = !is_alive(last);
    std::optional<uint32_t> position = look();
    if (alone && load(q->*peer.pid) == last) return position;
    const CancellationOff whole;
    int still = 1;
    for (int i = 0; i < kMostLooks && still < kStillLooks; ++i) {
        usleep(kBetweenLooks);
        const std::optional<uint32_t> again = look();
        still = again == position ? still + 1 : 1;
        position = again;
    }
    return still == kStillLooks ? position : std::nullopt;
}

// Takes back what the dead holder had marked and neither committed nor rolled back.
bool free_marks(halvo_channel *q, const Ring &ring, int32_t marked, int32_t before) {
    bool any = false;
    for_slots(ring, [&](uint32_t offset) {
        qmsg *slot = slot_at(q, offset);
        if (load_state(slot) != marked) return;
        publish_state(slot, before);
        any = true;
    });
    return any;
}

// A message in a write buffer of a ring, or null.
qmsg *parked_message(halvo_channel *q, const Ring &ring, int i) {
    qmsg *buffer = buffer_slot(q, load(q->wbufs), i, ring.size, ring.size);
    return buffer && load_state(buffer) == HALVO_SLOT_READABLE ? buffer : nullptr;
}

int32_t count_held(halvo_channel *q, const Ring &ring) {
    int32_t held = 0;
    for (int i = 0; i < HALVO_BUFFERS; ++i) held += parked_message(q, ring, i) != nullptr;
    return held;
}

bool is_same_message(const Ring &ring, const qmsg *a, const qmsg *b) {
    return a->len == b->len && a->type == b->type &&
           std::memcmp(body(a), body(b), body_length(ring.size, a)) == 0;
}

// A writer that died while it moved a parked message into the ring may have left it in its buffer
// too. Then pbuffs does not count it any more, and the position stayed on its slot. The reader may
// have taken it already; what it was stands there still.
bool drop_moved(halvo_channel *q, const Ring &ring, uint32_t left_at) {
    if (load(q->pbuffs) != count_held(q, ring) - 1) return false;
    for (int i = 0; i < HALVO_BUFFERS; ++i) {
        qmsg *parked = parked_message(q, ring, i);
        if (!parked || !is_same_message(ring, parked, slot_at(q, left_at))) continue;
        publish_state(parked, HALVO_SLOT_FREE);
        return true;
    }
    return false;
}

// A writer that died while it parked, committed or dropped a message may have left pbuffs beside
// the number of messages that are parked. Buffers outside the segment park nothing.
bool correct_parked(halvo_channel *q, const Ring &ring) {
    const int32_t held = count_held(q, ring);
    if (load(q->pbuffs) == held) return false;
    store(q->pbuffs, held);
    return true;
}

} // namespace

int q_recover(int channel, char mode) noexcept {
    if (!attached_segment()) return ESMS_NOINIT;
    halvo_channel *q = header_of(channel);
    if (!q) return ESMS_INVAL;
    const Ring ring = ring_of(q);
    if (!lies_within(ring, room_behind(q))) return ESMS_INVAL;
    if (mode != 'r' && mode != 'w') return ESMS_FAILED;
    const bool writer = mode == 'w';
    const Side &side = side_of(mode);
    if (!owns(side, q)) return ESMS_ACCESS;

    int done = 0;
    const std::optional<uint32_t> position =
        settled_position(q, ring, side, writer ? kReader : kWriter);
    const uint32_t left_at = load(q->*side.position);
    if (position && *position != left_at) {
        // Before the position moves: a recovery that is killed has not lost the trace.
        if (writer && is_slot(ring, left_at) && next_offset(ring, left_at) == *position &&
            drop_moved(q, ring, left_at))
            done |= HALVO_RECOVERED_PARKED;
        store(q->*side.position, *position);
        done |= HALVO_RECOVERED_POSITION;
    }
    if (writer ? free_marks(q, ring, HALVO_SLOT_PENDING, HALVO_SLOT_FREE)
               : free_marks(q, ring, HALVO_SLOT_MARKED, HALVO_SLOT_READABLE))
        done |= HALVO_RECOVERED_MARKS;
    if (writer && correct_parked(q, ring)) done |= HALVO_RECOVERED_PARKED;
    return done;
}
