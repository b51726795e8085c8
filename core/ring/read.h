// sms_shm: what the read buffers and the bindings share with the ring's reader.
#pragma once

#include "core/ring/end.h"
#include "core/ring/throttle.h"

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

// q_read, q_read_buf, q_read_markedmsg and q_readview for callers who made room for one slot some
// time ago. A channel's slots may have another size by now, if only by damage, and those calls
// would copy as many bytes as they have. These compare and copy by one load of the size: when it is
// not `size` they answer ESMS_FAILED, and nothing is taken.
int read_image(halvo_channel *q, void *image, uint32_t size) noexcept;
int read_buf_image(halvo_channel *q, void *image, uint32_t size, int index) noexcept;
int read_marked_image(halvo_channel *q, void *image, uint32_t size, int index) noexcept;
// The same, but of the body no more than the message has.
int read_marked_message(halvo_channel *q, void *image, uint32_t size, int index) noexcept;
int read_view_image(const halvo_channel *q, void *image, uint32_t size) noexcept;

} // namespace halvo
