// Of the machine that a test runs on: the clock, the processors, memory that processes share.
#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>

#include <cstdint>
#include <new>
#include <stdexcept>

namespace halvo::test {

// A clock for durations (<chrono> holds text that EUC-KR cannot express).
inline int64_t microseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
inline int64_t milliseconds_now() { return microseconds_now() / 1000; }

// Of RUSAGE_SELF, RUSAGE_THREAD or RUSAGE_CHILDREN, so far.
inline rusage usage_of(int whose) {
    rusage usage{};
    getrusage(whose, &usage);
    return usage;
}
inline int64_t processor_time(int whose) { // microseconds
    const rusage usage = usage_of(whose);
    return int64_t{usage.ru_utime.tv_sec + usage.ru_stime.tv_sec} * 1000000 +
           usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

// The calling thread, and what it starts from now on, stays on one processor.
inline void run_on_processor(unsigned cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
}
inline void stay_on_this_processor() { run_on_processor(static_cast<unsigned>(sched_getcpu())); }

// An object in memory that forked processes share and that outlives each of them. It begins as
// zeros; what is never touched takes no memory. It stays until the process ends.
template <class T>
T &shared_object() {
    void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    return *new (memory) T;
}

} // namespace halvo::test
