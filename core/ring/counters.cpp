// sms_shm: the cached clock and the message counters. The clock lies in the segment, so that the
// hot paths make no system call; it is as fresh as the last q_settime() of any process.
//
// Counters are plain 64-bit additions: each has one writing process, and a reader in another
// process may see one torn. Two such processes live in one address space only in tests.
#include "core/ring/counters.h"

#include <ctime>

#include "core/segment/mapping.h"

using namespace halvo;

int q_settime() noexcept {
    const MappingUse mapping; // the monitor calls this beside a close_shm()
    halvo_segment *segment = mapping.segment();
    if (!segment || is_view.load(std::memory_order_acquire)) return -1;
    const auto now = static_cast<int32_t>(std::time(nullptr));
    store(segment->now, now);
    return now;
}

uint32_t q_gettime() noexcept { return static_cast<uint32_t>(cached_time()); }

void q_pcount_up(halvo_channel *q, const qmsg *slot, int flag) noexcept {
    count_put(q, slot->type, flag != 0);
}

void q_gcount_up(halvo_channel *q, const qmsg *, int error) noexcept { count_got(q, error); }

int64_t q_pcount_per_type(const halvo_channel *q, int type) noexcept {
    return is_type(type) ? static_cast<int64_t>(q->tcnt[type].count) : 0;
}

int64_t q_getcount(const halvo_channel *q) noexcept {
    return backlog(q->fpcnt, q->fgcnt) + backlog(q->pcnt, q->gcnt);
}
