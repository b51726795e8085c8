#include "tests/support/fixed_clock.h"

#include <sys/time.h>
#include <time.h>

namespace halvo::test {

namespace {

bool fixed = false;
timespec now_fixed{};

timespec now() {
    timespec time = now_fixed;
    if (!fixed) clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

} // namespace

void set_clock(int32_t seconds, int milliseconds) {
    now_fixed = {seconds, milliseconds * 1000000L};
    fixed = true;
}

} // namespace halvo::test

#define TAKES_PLACE extern "C" __attribute__((visibility("default")))

TAKES_PLACE time_t time(time_t *out) noexcept {
    const time_t seconds = halvo::test::now().tv_sec;
    if (out) *out = seconds;
    return seconds;
}

TAKES_PLACE int gettimeofday(timeval *out, void *) noexcept {
    const timespec now = halvo::test::now();
    *out = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}
