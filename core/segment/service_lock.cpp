#include "core/segment/service_lock.h"

#include <pthread.h>

#include <ctime>

namespace {

// Error-checking, because a failed attach leaves it locked: the thread must not hang on itself.
pthread_mutex_t mtx_service = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

} // namespace

namespace halvo {

// A failed attach keeps the lock for good. Its own thread is answered at once; another one waits
// for an attach that may still be going on, but not for ever.
bool lock_service() noexcept {
    timespec limit{};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 1;
    return pthread_mutex_timedlock(&mtx_service, &limit) == 0;
}

bool unlock_service() noexcept { return pthread_mutex_unlock(&mtx_service) == 0; }

} // namespace halvo
