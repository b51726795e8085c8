// sms_shm: what the write buffers share with the ring's writer.
#pragma once

#include "core/end.h"
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

// Prints the line that goes with ESMS_EXEED, and returns the fault.
int report_length(const WriterEnd &end, int fault, uint32_t length) noexcept;

// q_write for `data` of which only `readable` bytes are there: what a damaged length claims beyond
// them is refused, and not looked at.
int write_message(halvo_channel *q, const WriterEnd &end, int type, const void *data,
                  uint32_t length, uint32_t readable) noexcept;

// Adds to the number of parked messages.
void count_parked(halvo_channel *q, int32_t amount) noexcept;

// Puts a message into an empty write buffer if a ring slot can be kept free for it: ESMS_OK,
// ESMS_PENDING or ESMS_FULL.
int park(halvo_channel *q, const WriterEnd &end, qmsg *buffer, int type, const void *data,
         uint32_t length) noexcept;

} // namespace halvo
