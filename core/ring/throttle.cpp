// Queue core: the read-rate limit of a channel.
#include "core/ring/throttle.h"

#include "core/ring/counters.h"

namespace {

constexpr int kPeriodSeconds = 20; // the rate is an average over at most this
constexpr int kFlagSeconds = 2;    // how long `throttled` stays visible after a refusal

} // namespace

int64_t q_check_tps(halvo_channel *q) noexcept {
    const int32_t now = halvo::cached_time();
    const int64_t count = halvo::rate_count(*q);
    if (halvo::age(now, q->tpsstart) > kPeriodSeconds) {
        q->tpsstart =
            static_cast<int32_t>(static_cast<uint32_t>(now) - 1); // the divisor is never 0
        q->tpsbase = static_cast<uint64_t>(count);
    }
    const int32_t seconds = halvo::age(now, q->tpsstart);
    // A clock that ran backwards into the period's first second leaves no period: divide by 1.
    const auto messages = static_cast<int64_t>(static_cast<uint64_t>(count) - q->tpsbase);
    return messages / (seconds > 0 ? seconds : 1);
}

bool halvo::over_limit(halvo_channel *q) noexcept {
    const int32_t limit = q->tpsmx;
    if (limit > 0 && static_cast<int32_t>(q_check_tps(q)) > limit) {
        store(q->throttled, 1);
        q->throttletime = cached_time();
        return true;
    }
    if (load(q->throttled) != 0) {
        const auto now = cached_time();
        if (halvo::age(now, q->throttletime) >= kFlagSeconds) store(q->throttled, 0);
    }
    return false;
}
