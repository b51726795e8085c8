#include "frx/end_lock.h"

#include <unistd.h>

#include <algorithm>

#include "core/base/posix.h"
#include "core/wait/barrier.h"

namespace halvo {

int EndLock::take(pthread_mutex_t &mutex) noexcept {
    // Whoever is inside is out again sooner, if it runs.
    constexpr useconds_t kPause = 20; // microseconds
    if (const int error = pthread_mutex_lock(&mutex); error != 0) return error;
    const Place *owner = owner_.load(std::memory_order_relaxed);
    if (!owner) return 0;
    owner_.store(nullptr, std::memory_order_relaxed);
    needed_ = std::min(needed_ * 4, kMostTimes);
    times_ = 0;
    const CancellationOff whole;
    process_barrier();
    while (owner->inside.load(std::memory_order_acquire)) usleep(kPause);
    return 0;
}

EndLock::Place *EndLock::place_of(const void *thread) noexcept {
    for (Place &place : places_) {
        if (!place.thread.load(std::memory_order_relaxed)) place.thread = thread;
        if (place.thread.load(std::memory_order_relaxed) == thread) return &place;
    }
    return nullptr;
}

int EndLock::give_back(pthread_mutex_t &mutex) noexcept {
#ifndef __SANITIZE_THREAD__
    const void *me = __builtin_thread_pointer();
    times_ = last_ == me ? times_ + 1 : 1;
    last_ = me;
    if (times_ >= needed_ && reached_by_process_barriers.load(std::memory_order_relaxed))
        owner_.store(place_of(me), std::memory_order_relaxed);
#endif
    return pthread_mutex_unlock(&mutex);
}

} // namespace halvo
