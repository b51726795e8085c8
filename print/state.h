// smsqm_print: what every print starts with, and the scratch buffers. An exported printer puts a
// cancellation of its thread off (CancellationOff), as everything of stdio is a point for one.
#pragma once

#include "core/base/posix.h"
#include "core/segment/rules.h"
#include "halvo/status.h"

namespace halvo {

// The printers' clock: time(), not the segment's cached clock, which may stand still.
int32_t clock_now() noexcept;

// Notes the time of a print in prt_itvl. Returns clock_now().
int32_t begin_print() noexcept;

// printf into cellbuf. Returns cellbuf.
[[gnu::format(printf, 1, 2)]] const char *format_cell(const char *format, ...) noexcept;

} // namespace halvo
