// sms_shmC: start of the library in a C program, and opening and closing of channel ends.
#include "frx/ends.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "core/base/output.h"
#include "core/ring/side.h"
#include "core/segment/segment.h"
#include "core/segment/service_lock.h"
#include "core/wait/wait_registry.h"

using namespace halvo;

namespace {

constexpr useconds_t kMonitorPause = 100000; // microseconds

std::atomic<int32_t> goLoop{1}; // nothing sets it to 0: the monitor lives as long as the process
pthread_t toutMon;

// A line on standard output, unless that would have the thread wait. Whether it was printed.
bool say(const char *line) {
    const ReadyOutput output;
    return output && std::puts(line) >= 0;
}

} // namespace

FrxSession halvo::qOpenSessions[kSessions];
static_assert(sizeof(void *) != 4 || sizeof qOpenSessions == 14336);
SessionLocks halvo::session_locks[kSessions];

namespace {

// Empties the table. A forked child has opened nothing: its parent's ends are not its own to give
// back, and their locks may have been held by threads that it does not have.
void begin_anew() {
    for (FrxSession &session : qOpenSessions) session = {};
    for (SessionLocks &locks : session_locks) {
        locks.writer.forget();
        locks.reader.forget();
    }
}
[[maybe_unused]] const int watched = pthread_atfork(nullptr, nullptr, begin_anew);

// The monitor gets none of the signals that are sent to the process: one that came while the program's
// thread keeps them away, right before its sleep, would end there and not end the sleep.
void start_monitor() {
    const SignalsOff inherited;
    pthread_create(&toutMon, nullptr, timeoutLoop, nullptr);
}

} // namespace

int frx_initialize(const char *keyfile) noexcept {
    init_sig();
    const int result = init_shm(keyfile);
    if (!lock_service()) return ESMS_MTXLOCK;
    begin_anew();
    goLoop = 1;
    start_monitor();
    return unlock_service() ? result : ESMS_MTXUNLOCK;
}

int frx_initialized() noexcept { return init_shm(nullptr) == ESMS_OK; }

int frx_monitorTimeout() noexcept { return monitor_pass(); }

// May be cancelled in its pause, by a program that runs it in a thread of its own.
void *timeoutLoop(void *) noexcept {
    bool said = false;
    while (goLoop) {
        {
            const CancellationOff whole;
            if (!said) said = say("C Timeout Monitoring Service Started.");
            monitor_pass();
        }
        usleep(kMonitorPause);
    }
    return nullptr;
}

int frx_channelByName(const char *name) noexcept { return q_name2chnnl(name); }

int frx_openChannel(FrxChannel *handle, const char *client, int channel, char side,
                    int timeout) noexcept {
    if (!handle) return ESMS_INVAL;
    handle->channel = channel;
    handle->side = side;
    if (!frx_header(channel)) return ESMS_INVAL;
    // An observer's 'x' would be recorded as an owner below; it is refused like an unknown mode.
    if (side != 'w' && side != 'r') return ESMS_ACCESS;
    halvo_channel *q = q_open_wait(channel, side, timeout);
    if (!q) return ESMS_ACCESS;
    record_owner(side_of(side), q, client ? client : "");
    const OpenEnd end = open_end(channel, side);
    if (!end.handle && pthread_mutex_init(&end.mutex, nullptr) != 0) return ESMS_MTXINIT;
    end.handle = handle;
    return ESMS_OK;
}

// Kept: the handle stays recorded, so that a closed handle is still valid here and q_close answers.
int frx_closeChannel(FrxChannel *handle) noexcept {
    if (!frx_isValid(handle)) return ESMS_ACCESS;
    if (frx_lock(handle) != ESMS_OK) return ESMS_MTXLOCK;
    const int result = q_close(handle->channel, handle->side);
    return frx_unlock(handle) == ESMS_OK ? result : ESMS_MTXUNLOCK;
}

int frx_isValid(const FrxChannel *handle) noexcept { return is_open(handle); }

int frx_lock(FrxChannel *handle) noexcept {
    if (!handle || !in_table(handle->channel)) return ESMS_INVAL;
    const OpenEnd end = open_end(handle->channel, handle->side);
    return end.lock.take(end.mutex) == 0 ? ESMS_OK : ESMS_MTXLOCK;
}

// Kept: an unlock that fails is ESMS_MTXLOCK here; the operations report it as ESMS_MTXUNLOCK.
int frx_unlock(FrxChannel *handle) noexcept {
    if (!handle || !in_table(handle->channel)) return ESMS_INVAL;
    const OpenEnd end = open_end(handle->channel, handle->side);
    return pthread_mutex_unlock(&end.mutex) == 0 ? ESMS_OK : ESMS_MTXLOCK;
}
