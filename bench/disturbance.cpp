#include "bench/disturbance.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace halvo::bench {

namespace {

constexpr double kMuch = 0.2;

double seconds_of(int who) {
    rusage used{};
    getrusage(who, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) * 1e-6;
}

} // namespace

Disturbance::Times Disturbance::now() {
    // user nice system idle iowait irq softirq steal, in clock ticks
    double ticks[8] = {};
    if (std::FILE *file = std::fopen("/proc/stat", "re")) {
        if (std::fscanf(file, "cpu %lf %lf %lf %lf %lf %lf %lf %lf", &ticks[0], &ticks[1],
                        &ticks[2], &ticks[3], &ticks[4], &ticks[5], &ticks[6], &ticks[7]) != 8)
            std::fill(ticks, ticks + 8, 0.0);
        std::fclose(file);
    }
    const auto rate = static_cast<double>(sysconf(_SC_CLK_TCK));
    double all = 0;
    for (const double each : ticks) all += each;
    return {all / rate, (ticks[3] + ticks[4]) / rate, ticks[7] / rate,
            seconds_of(RUSAGE_SELF) + seconds_of(RUSAGE_CHILDREN)};
}

Disturbance::Disturbance() : start_(now()) {}

void Disturbance::print() const {
    const Times end = now();
    const double all = std::max(end.all - start_.all, 1e-9);
    const double stolen = (end.stolen - start_.stolen) / all;
    const double idle = (end.idle - start_.idle) / all;
    const double own = (end.own - start_.own) / all;
    const double others = std::max(0.0, 1 - stolen - idle - own);
    std::printf("Others took %.0f %% of the processors meanwhile, the host %.0f %%%s\n",
                100 * others, 100 * stolen,
                others + stolen > kMuch ? ": too much for ratios to rely on" : "");
}

} // namespace halvo::bench
