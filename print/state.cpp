// smsqm_print: the process-wide state of the printers and their clock.
#include "print/state.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

char cellbuf[1024];
char cellformat[256];
int32_t prt_itvl;
int32_t start_tvsec;
halvo_counter *lastcheck;
void *snapshot;

namespace halvo {

int32_t clock_now() noexcept { return static_cast<int32_t>(std::time(nullptr)); }

int32_t begin_print() noexcept {
    prt_itvl = q_day_millis();
    return clock_now();
}

const char *format_cell(const char *format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(cellbuf, sizeof cellbuf, format, arguments);
    va_end(arguments);
    return cellbuf;
}

} // namespace halvo

int32_t q_day_millis() noexcept {
    if (start_tvsec == 0) start_tvsec = halvo::clock_now();
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto seconds = static_cast<uint32_t>(now.tv_sec) - static_cast<uint32_t>(start_tvsec);
    // Kept: the product wraps, after 24.8 days of the process.
    const auto milliseconds = static_cast<int32_t>(seconds * 1000u);
    const double sum = milliseconds + static_cast<double>(now.tv_usec) / 1000.0;
    return static_cast<int32_t>(static_cast<int64_t>(sum));
}
