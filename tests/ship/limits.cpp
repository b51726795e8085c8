// Time limits of halvo.hpp, looked at while this is compiled: any duration of <chrono>.
#include "halvo/halvo.hpp"

using namespace std::chrono;
constexpr int of(halvo::Limit limit) { return limit.milliseconds(); }
static_assert(of(hours::max()) == INT_MAX && of(duration<double>(1e300)) == INT_MAX);
static_assert(of(hours::min()) == 0 && of(duration<double>(-0.5)) == 0 && of(seconds(2)) == 2000);
static_assert(of(nanoseconds(1)) == 1 && of(microseconds(2001)) == 3);
