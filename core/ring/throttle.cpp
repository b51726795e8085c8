// sms_shm: the read-rate limit of a channel.
#include "core/ring/throttle.h"

#include "core/ring/counters.h"

namespace {

constexpr int kPeriodSeconds = 20; // the rate is an average over at most this
constexpr int kFlagSeconds = 2;    // how long `throttled` stays visible after a refusal

void begin_period(halvo_channel *q, int32_t now) {
    q->tpsstart = static_cast<int32_t>(static_cast<uint32_t>(now) - 1); // the divisor is never 0
    q->tpsbase = halvo::rate_count(*q);
}

} // namespace

int64_t q_check_tps(halvo_channel *q) noexcept {
    const int32_t now = halvo::cached_time();
    if (halvo::age(now, q->tpsstart) > kPeriodSeconds) begin_period(q, now);
    const int32_t seconds = halvo::age(now, q->tpsstart);
    // A clock that ran backwards into the period's first second leaves no period: divide by 1.
    const auto messages = static_cast<int64_t>(halvo::rate_count(*q) - q->tpsbase);
    return messages / (seconds > 0 ? seconds : 1);
}

bool halvo::over_limit(halvo_channel *q) noexcept {
    const int32_t limit = q->tpsmx;
    const int32_t now = cached_time();
    // A clock that was set back measures no rate until it comes to the period again, hours later.
    if (limit > 0 && age(now, q->tpsstart) < 0) begin_period(q, now);
    if (limit > 0 && static_cast<int32_t>(q_check_tps(q)) > limit) {
        store(q->throttled, 1);
        q->throttletime = now;
        return true;
    }
    if (load(q->throttled) != 0 && age(now, q->throttletime) >= kFlagSeconds)
        store(q->throttled, 0);
    return false;
}
