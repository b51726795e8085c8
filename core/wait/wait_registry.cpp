// sms_sig: the registry of waiting threads and the scan that signals the overdue ones.
//
// An entry is free while its thread is 0. The monitor frees an entry before it sends the signal,
// so that a thread which has already left its wait is not signalled.
#include "core/wait/wait_registry.h"

#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>

#include "core/base/output.h"
#include "core/base/posix.h"
#include "core/wait/signals.h"
#include "core/wait/waits.h"
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

// A forked child starts with an empty registry, whatever its parent's threads were about.
void begin_anew() {
    mutex = PTHREAD_MUTEX_INITIALIZER;
    for (WaitCall &call : gWaitCalls) call = {};
}
[[maybe_unused]] const int watched = pthread_atfork(nullptr, nullptr, begin_anew);

// The first entry of a thread (0: the first free one); -1 when there is none. Lock held.
int find_entry(pthread_t thread) {
    for (int i = 0; i < kEntries; ++i)
        if (gWaitCalls[i].thread == thread) return i;
    return -1;
}

// Frees the overdue entries and signals their threads. Whether there was one.
bool fire_overdue() {
    bool fired = false;
    const double now = halvo::wall_clock();
    const halvo::MutexLock lock(mutex);
    for (WaitCall &call : gWaitCalls) {
        if (call.thread == 0 || !(now > call.deadline)) continue;
        const pthread_t thread = call.thread;
        call.expired = 1;
        call.thread = 0;
        pthread_kill(thread, SIGUSR2);
        fired = true;
    }
    return fired;
}

} // namespace

namespace halvo {

void clear_wait_registry() noexcept {
    {
        const MutexLock lock(mutex);
        for (WaitCall &call : gWaitCalls) call = {};
    }
    lose_limits();
}

int monitor_pass() noexcept {
    q_settime();
    return monitorTimeout();
}

} // namespace halvo

int reg_wait_thread(int timeout) noexcept {
    halvo::start_signal_service();
    halvo::forget_signal();
    const double since = halvo::wall_clock();
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
    const bool fired = fire_overdue();
    halvo::visit_waits();
    if (!fired) return 0;
    if (const halvo::ReadyOutput output; output) std::fflush(stdout);
    return 0;
}
