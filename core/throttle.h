// sms_shm: the one read-rate gate, for the ring and for the file queue.
#pragma once

#include "halvo/queue.h"

namespace halvo {

// True when a read must be refused now because the channel's read rate is above its limit. Keeps
// `throttled` (which stays up for two seconds after the last refusal) and `throttletime`.
bool rate_refused(halvo_channel *q) noexcept;

} // namespace halvo
