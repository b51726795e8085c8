// sms_sig: the registry of waiting threads and the scan that signals the overdue ones.
//
// An entry is free while its thread is 0. The monitor frees an entry before it sends the signal,
// so that a thread which has already left its wait is not signalled.
#include "core/wait_registry.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>

#include "core/posix.h"
#include "halvo/queue.h"

namespace {

struct WaitCall {
    pthread_t thread; // 0: free
    double since;     // seconds since the epoch
    double deadline;  // since + timeout
    int32_t expired;  // set when the monitor fires the entry
    int32_t reserved[2];
};
static_assert(sizeof(void *) != 4 || sizeof(WaitCall) == 32);

constexpr int kEntries = 1024;

WaitCall gWaitCalls[kEntries];
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; // guards gWaitCalls and nothing else

double seconds_now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
}

// The first entry of a thread (0: the first free one); -1 when there is none. Lock held.
int find_entry(pthread_t thread) {
    for (int i = 0; i < kEntries; ++i)
        if (gWaitCalls[i].thread == thread) return i;
    return -1;
}

} // namespace

namespace halvo {

void clear_wait_registry() noexcept {
    const halvo::MutexLock lock(mutex);
    for (WaitCall &call : gWaitCalls) call = {};
}

int monitor_pass() noexcept {
    q_settime();
    return monitorTimeout();
}

} // namespace halvo

int reg_wait_thread(int timeout) noexcept {
    halvo::forget_signal();
    const double since = seconds_now();
    const halvo::MutexLock lock(mutex);
    const int entry = find_entry(0);
    if (entry >= 0)
        gWaitCalls[entry] = {pthread_self(), since, since + timeout / 1000.0, 0, {0, 0}};
    return entry;
}

int unreg_wait_thread() noexcept {
    const halvo::MutexLock lock(mutex);
    const int entry = find_entry(pthread_self());
    if (entry >= 0) gWaitCalls[entry] = {};
    return entry;
}

int monitorTimeout() noexcept {
    const double now = seconds_now();
    const halvo::MutexLock lock(mutex);
    for (WaitCall &call : gWaitCalls) {
        if (call.thread == 0 || !(now > call.deadline)) continue;
        const pthread_t thread = call.thread;
        std::fflush(stdout);
        call.expired = 1;
        call.thread = 0;
        pthread_kill(thread, SIGUSR2);
    }
    return 0;
}
