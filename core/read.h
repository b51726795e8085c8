// sms_shm: what the read buffers share with the ring's reader.
#pragma once

#include "core/end.h"
#include "core/throttle.h"

namespace halvo {

// Frees the slot at the read position: counters, then the state, then the position.
template <class End>
[[gnu::always_inline]] inline void consume(halvo_channel *q, const End &end, uint32_t offset,
                                           int error) {
    count_got(q, error);
    publish_state(end.slot(offset), HALVO_SLOT_FREE);
    end.step(offset);
}

// q_read, which also puts the message into the empty read buffer `held` unless that is null. It is
// held before its ring slot is freed: a process killed in between leaves it twice, never lost.
int take(halvo_channel *q, const ReaderEnd &end, void *buffer, qmsg *held) noexcept;

} // namespace halvo
