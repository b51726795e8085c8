// sms_shm: what the read buffers share with the ring's reader.
#pragma once

#include "halvo/queue.h"

namespace halvo {

// Sets the reader's heartbeat.
void touch_reader(halvo_channel *q) noexcept;

// q_read, which also puts the message into the empty read buffer `held` unless that is null. It is
// held before its ring slot is freed: a process killed in between leaves it twice, never lost.
int take(halvo_channel *q, void *buffer, qmsg *held) noexcept;

} // namespace halvo
