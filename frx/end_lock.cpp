#include "frx/end_lock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "core/wait/barrier.h"

namespace halvo {

namespace {

// Not usleep(), which is a cancellation point.
void sleep_microseconds(long microseconds) {
    const long pause[2] = {0, microseconds * 1000}; // the kernel's own struct of such a process
    syscall(SYS_nanosleep, pause, nullptr);
}

} // namespace

int EndLock::take(pthread_mutex_t &mutex) noexcept {
    constexpr long kPause = 20; // microseconds; whoever is inside is out again sooner, if it runs
    if (const int error = pthread_mutex_lock(&mutex); error != 0) return error;
    if (!owner_.load(std::memory_order_relaxed)) return 0;
    owner_.store(nullptr, std::memory_order_relaxed);
    needed_ = std::min(needed_ * 4, kMostTimes);
    times_ = 0;
    process_barrier();
    while (inside_.load(std::memory_order_acquire)) sleep_microseconds(kPause);
    return 0;
}

int EndLock::give_back(pthread_mutex_t &mutex) noexcept {
#ifndef __SANITIZE_THREAD__
    const void *me = __builtin_thread_pointer();
    times_ = last_ == me ? times_ + 1 : 1;
    last_ = me;
    if (times_ >= needed_ && join_process_barriers()) owner_.store(me, std::memory_order_relaxed);
#endif
    return pthread_mutex_unlock(&mutex);
}

} // namespace halvo
