// Small rules on the words of a channel, for every room: nothing but those words goes in.
#pragma once

#include "halvo/segment.h"

namespace halvo {

// A stamp's age in seconds. Times are 32-bit words that may wrap; a stamp of the future has a
// negative age.
constexpr int32_t age(int32_t now, int32_t stamp) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(stamp));
}

// Whether a type has a counter record.
constexpr bool is_type(int type) noexcept { return type >= 0 && type < HALVO_TYPES; }

// Messages put and not yet got.
inline int64_t backlog(const halvo_counter &put, const halvo_counter &got) noexcept {
    return static_cast<int64_t>(put.count - got.count);
}

// Whether the file queue's messages are those whose rate is told and limited; the ring's if not.
constexpr bool rate_is_of_file(char type) noexcept { return type == 'F'; }
// Those taken so far.
inline uint64_t rate_count(const halvo_channel &q) noexcept {
    return rate_is_of_file(q.qtype) ? q.fgcnt.count : q.gcnt.count;
}

} // namespace halvo
