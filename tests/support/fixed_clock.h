// The time of a test. Linked into a test program, its time() and gettimeofday() take the place of the
// system's, for the library too. Other clocks go on as ever.
#pragma once

#include <cstdint>

namespace halvo::test {

// From now on it is this time, until it is set again; at first it is the system's.
void set_clock(int32_t seconds, int milliseconds = 0);

} // namespace halvo::test
