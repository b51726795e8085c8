// The groups of measurements, each of which prints its own table.
#pragma once

#include <array>

#include "bench/race.h"

namespace halvo::bench {

void measure_ring(const Settings &, Report &);       // q_ and frx_ throughput
void measure_in_place(const Settings &, Report &);   // without a copy, bodies alone, many at a time
void measure_round_trip(const Settings &, Report &); // busy and blocking
void measure_wake(const Settings &, Report &);       // both sides asleep
void measure_java(const Settings &, Report &);       // two VMs
void measure_file_queue(const Settings &, Report &);
void measure_flat(const Settings &, Report &);  // with more channels, and a longer backlog
void measure_print(const Settings &, Report &); // tables and documents
void measure_relay(const Settings &, Report &); // through a broker; where the relay is built

// Body and slot sizes of the goals, in their order.
inline constexpr std::array<std::array<uint32_t, 2>, 4> kSizes{
    {{100, 128}, {100, 1024}, {1000, 1024}, {4000, 4096}}};
using Goals = std::array<double, 4>;
inline constexpr Goals kNoGoals{};

} // namespace halvo::bench
