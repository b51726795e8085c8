// sms_shm: whether a channel can be used at all.
#pragma once

#include <cstdint>

#include "halvo/segment.h"

namespace halvo {

// Whether a channel's ring and buffers are what its header says and lie behind that header within
// `room` bytes, counted from the header on, which the header itself fits. A few loads of one cache
// line and no division. The positions are not asked: position_in() of core/ring.h reads them.
bool is_sound(const halvo_channel *q, uint64_t room) noexcept;

} // namespace halvo
