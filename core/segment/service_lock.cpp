#include "core/segment/service_lock.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

// Error-checking, because a failed attach leaves it locked: the thread must not hang on itself.
pthread_mutex_t mtx_service = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
std::atomic<bool> kept{false};

// A forked child has no other thread that might give it back.
void begin_anew() {
    if (!kept) mtx_service = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
}
[[maybe_unused]] const int watched = pthread_atfork(nullptr, nullptr, begin_anew);

} // namespace

namespace halvo {

// An attach may take long on a busy machine; that it has failed is asked now and then.
bool lock_service() noexcept {
    while (!kept) {
        timespec limit{};
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += 1;
        const int error = pthread_mutex_timedlock(&mtx_service, &limit);
        if (error != ETIMEDOUT) return error == 0;
    }
    return false;
}

bool unlock_service() noexcept { return pthread_mutex_unlock(&mtx_service) == 0; }
void keep_service() noexcept { kept = true; }

} // namespace halvo
