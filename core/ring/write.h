// sms_shm: what the write buffers share with the ring's writer.
#pragma once

#include "core/ring/end.h"
#include "halvo/queue.h"

namespace halvo {

// The longest message of a channel in bytes.
template <class End>
uint32_t longest_message(const End &end) noexcept {
    return end.size() - static_cast<uint32_t>(sizeof(qmsg));
}

// ESMS_OK, ESMS_INVAL (length 0, no data, or no usable ring) or ESMS_EXEED; prints nothing.
template <class End>
int length_fault(const End &end, const void *data, uint32_t length) noexcept {
    if (length == 0 || !data || !end.usable()) return ESMS_INVAL;
    return length > longest_message(end) ? ESMS_EXEED : ESMS_OK;
}

inline int occupied(int32_t state) noexcept {
    return state == HALVO_SLOT_PENDING ? ESMS_PENDING : ESMS_FULL;
}

// Looks at the slot behind those that parked messages are owed. It must be free, so that every parked
// message can still be committed; the reader may free it at any moment, so each test looks afresh.
// ESMS_OK, ESMS_FULL or ESMS_PENDING.
int look_ahead(const halvo_channel *q, const Ring &ring, uint32_t offset) noexcept;

// Whether a message may go into the slot at the write position: ESMS_OK, ESMS_FULL or ESMS_PENDING.
template <class End>
[[gnu::always_inline]] inline int room_at(const halvo_channel *q, const End &end,
                                          uint32_t offset) noexcept {
    if (load(q->pbuffs) != 0) {
        const int ahead = look_ahead(q, end.ring(), offset);
        if (ahead != ESMS_OK) return ahead;
    }
    const int32_t state = load_state(end.slot(offset));
    return state == HALVO_SLOT_FREE ? ESMS_OK : occupied(state);
}

// Makes the slot at the write position readable: counters, then the state, then the position. The
// write buffer that its message comes from, if any, is emptied before the position moves: where a
// writer died in between, its position stayed behind and tells the next one.
template <class End>
[[gnu::always_inline]] inline void publish(halvo_channel *q, const End &end, uint32_t offset,
                                           qmsg *parked = nullptr) {
    qmsg *slot = end.slot(offset);
    count_put(q, slot->type, false);
    publish_state(slot, HALVO_SLOT_READABLE);
    if (parked) publish_state(parked, HALVO_SLOT_FREE);
    end.step(offset);
}

// Prints the line that goes with ESMS_EXEED, and returns the fault.
int report_length(uint32_t slot_size, int fault, uint32_t length) noexcept;

// q_write for an end whose words are as the header says now.
int write_message(halvo_channel *q, const WriterEnd &end, int type, const void *data,
                  uint32_t length) noexcept;

// q_write for the message in a write buffer, which is empty afterwards if that succeeds.
int write_parked(halvo_channel *q, const WriterEnd &end, qmsg *parked) noexcept;

// Adds to the number of parked messages.
void count_parked(halvo_channel *q, int32_t amount) noexcept;

// Puts a message into an empty write buffer if a ring slot can be kept free for it: ESMS_OK,
// ESMS_PENDING or ESMS_FULL.
int park(halvo_channel *q, const WriterEnd &end, qmsg *buffer, int type, const void *data,
         uint32_t length) noexcept;

// q_writeview for callers who made room for one slot some time ago, as the calls of core/ring/read.h.
int write_view_image(const halvo_channel *q, void *image, uint32_t size) noexcept;

} // namespace halvo
