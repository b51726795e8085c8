// sms_shm: the cached clock and the message counters. The clock lies in the segment, so that the
// hot paths make no system call; it is as fresh as the last q_settime() of any process.
//
// Counters are plain 64-bit additions: each has one writing process, and a reader in another
// process may see one torn. Two such processes live in one address space only in tests.
#include <ctime>

#include "core/attach.h"
#include "core/ring.h"

using namespace halvo;

namespace {

void count_one(halvo_counter &counter, bool error) {
    counter.count += 1;
    if (error) counter.ecount += 1;
}

int64_t difference(const halvo_counter &put, const halvo_counter &got) {
    return static_cast<int64_t>(put.count - got.count);
}

} // namespace

int q_settime() noexcept {
    halvo_segment *segment = attached_segment();
    if (!segment) return -1;
    const auto now = static_cast<int32_t>(std::time(nullptr));
    store(segment->now, now);
    return now;
}

uint32_t q_gettime() noexcept {
    const halvo_segment *segment = attached_segment();
    return segment ? static_cast<uint32_t>(load(segment->now)) : 0xFFFFFFFFu;
}

void q_pcount_up(halvo_channel *q, const qmsg *slot, int flag) noexcept {
    const bool error = flag != 0;
    count_one(q->pcnt, error);
    refresh(q->lastin, static_cast<int32_t>(q_gettime()));
    count_one(q->tcnt[0], error);
    if (slot->type >= 1 && slot->type < HALVO_TYPES) count_one(q->tcnt[slot->type], error);
}

void q_gcount_up(halvo_channel *q, const qmsg *, int error) noexcept {
    const auto now = static_cast<int32_t>(q_gettime());
    q->gcnt.count += 1;
    if (error != 0) q->gcnt.ecount += static_cast<uint64_t>(int64_t{error}); // negative: lowers it
    refresh(q->lastout, now);
    if (error > 0) store(q->errtime, now);
}

int64_t q_pcount_per_type(const halvo_channel *q, int type) noexcept {
    return type >= 0 && type < HALVO_TYPES ? static_cast<int64_t>(q->tcnt[type].count) : 0;
}

int64_t q_getcount(const halvo_channel *q) noexcept {
    return difference(q->fpcnt, q->fgcnt) + difference(q->pcnt, q->gcnt);
}
