// sms_shm: the one read-rate gate, for the ring and for the file queue.
#pragma once

#include "core/segment/ring.h"
#include "halvo/queue.h"

namespace halvo {

// The part of rate_refused() for channels with a limit, or with one lately.
bool over_limit(halvo_channel *q) noexcept;

// True when a read must be refused now because the channel's read rate is above its limit. Keeps
// `throttled` (which stays up for two seconds after the last refusal) and `throttletime`.
inline bool rate_refused(halvo_channel *q) noexcept {
    return (q->tpsmx > 0 || load(q->throttled) != 0) && over_limit(q);
}

} // namespace halvo
