// smsqm_print: what every print starts with, and the scratch buffers.
#pragma once

#include "halvo/status.h"

namespace halvo {

// A stamp's age in seconds. Times are 32-bit words that may wrap; a stamp of the future has a
// negative age.
inline int32_t age(int32_t now, int32_t stamp) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(stamp));
}

// The printers' clock: time(), not the segment's cached clock, which may stand still.
int32_t clock_now() noexcept;

// Notes the time of a print in prt_itvl. Returns clock_now().
int32_t begin_print() noexcept;

// printf into cellbuf. Returns cellbuf.
[[gnu::format(printf, 1, 2)]] const char *format_cell(const char *format, ...) noexcept;

} // namespace halvo
