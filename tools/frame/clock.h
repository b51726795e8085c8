// Clocks as numbers of seconds.
#pragma once

#include <ctime>

namespace halvo::tools {

inline double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
inline double monotonic() { return seconds_of(CLOCK_MONOTONIC); }

} // namespace halvo::tools
