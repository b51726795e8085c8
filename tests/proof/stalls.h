// How long the machine itself kept threads from running, so that a busy or paused machine is not
// taken for a late wake-up.
//
// On each processor a thread of its own sleeps one millisecond again and again. Where such a sleep
// takes much longer, nothing that should have run there could; what of a wait falls into that time
// does not count against the wait.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "core/base/posix.h"
#include "tests/support/machine.h"

namespace halvo::test {

class Stalls {
public:
    Stalls() {
        cpu_set_t usable;
        CPU_ZERO(&usable);
        sched_getaffinity(0, sizeof usable, &usable);
        for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu)
            if (CPU_ISSET(cpu, &usable)) threads_.emplace_back([this, cpu] { watch(cpu); });
    }
    Stalls(const Stalls &) = delete;
    Stalls &operator=(const Stalls &) = delete;
    ~Stalls() { stop_ = true; }

    // What is left of the microseconds from start to end without the stalls in between. A stall is
    // known when it is over: wait a little before asking.
    int64_t without_stalls(int64_t start, int64_t end) const {
        usleep(5000);
        const MutexLock lock(mutex_);
        int64_t left = end - start;
        for (const Stall &stall : stalls_)
            left -= std::max<int64_t>(0, std::min(end, stall.end) - std::max(start, stall.start));
        return std::max<int64_t>(left, 0);
    }

    int64_t longest() const {
        const MutexLock lock(mutex_);
        int64_t longest = 0;
        for (const Stall &stall : stalls_) longest = std::max(longest, stall.end - stall.start);
        return longest;
    }

private:
    static constexpr int64_t kNoticed = 5000; // microseconds

    struct Stall {
        int64_t start, end;
    };

    void watch(unsigned cpu) {
        run_on_processor(cpu);
        while (!stop_) {
            const int64_t start = microseconds_now();
            usleep(1000);
            const int64_t end = microseconds_now();
            if (end - start < kNoticed) continue;
            const MutexLock lock(mutex_);
            stalls_.push_back({start, end});
        }
    }

    std::atomic<bool> stop_{false};
    mutable pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::vector<Stall> stalls_;
    std::vector<std::jthread> threads_; // the last member: they use the others
};

} // namespace halvo::test
