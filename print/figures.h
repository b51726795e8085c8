// smsqm_print: the rules by which single figures of a channel are read (facts.h collects them for a
// row, cells.h prints them). Nothing but the header of the channel goes in, so that programs beside the
// library can share them.
#pragma once

#include "core/segment/ring.h"
#include "core/segment/rules.h"
#include "halvo/queue.h"
#include "print/state.h"

namespace halvo {

// The four ends of a channel, in the order of the activity letters.
struct End {
    const char *name;
    char letter;
    halvo_i32 halvo_channel::*stamp;
    halvo_i32 halvo_channel::*pid;
    int32_t active_seconds; // an older heartbeat is no activity
};
constexpr End kEnds[] = {
    {"writer", 'W', &halvo_channel::wtime, &halvo_channel::pidp, 5},
    {"reader", 'R', &halvo_channel::rtime, &halvo_channel::pidg, 5},
    {"file-writer", 'W', &halvo_channel::fwtime, &halvo_channel::pidpf, 10},
    {"file-reader", 'R', &halvo_channel::frtime, &halvo_channel::pidgf, 10},
};

inline bool is_active(const halvo_channel &q, const End &end, int32_t now) noexcept {
    return age(now, load(q.*end.stamp)) <= end.active_seconds;
}

// Kept: two questions on the type. Rates (core/segment/rules.h) use the file count for 'F' alone,
// "done" and the process ids use the ring for 'M' alone; a third type is measured on the ring and
// reports the file queue.
constexpr bool shows_ring(char type) noexcept { return type == 'M'; }
inline bool shows_ring(const halvo_channel &q) noexcept { return shows_ring(q.qtype); }

inline int64_t difference(uint64_t count, uint64_t less) noexcept {
    return static_cast<int64_t>(count - less);
}
inline int64_t ring_backlog(const halvo_channel &q) noexcept { return backlog(q.pcnt, q.gcnt); }
inline int64_t file_backlog(const halvo_channel &q) noexcept { return backlog(q.fpcnt, q.fgcnt); }
inline bool has_replies(const halvo_channel &q) noexcept { return load(q.ackq) > 0; }

} // namespace halvo
