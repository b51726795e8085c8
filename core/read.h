// sms_shm: what the read buffers share with the ring's reader.
#pragma once

#include "core/end.h"

namespace halvo {

// q_read, which also puts the message into the empty read buffer `held` unless that is null. It is
// held before its ring slot is freed: a process killed in between leaves it twice, never lost.
int take(halvo_channel *q, const ReaderEnd &end, void *buffer, qmsg *held) noexcept;

} // namespace halvo
