// sms_shm: opening and closing a channel's ends. One process at a time holds an end; the lock sets
// see to that, with undo, so that a dead holder's end is free again.
#include <sys/sem.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/base/process.h"
#include "core/ring/end.h"
#include "core/ring/side.h"
#include "core/wait/waits.h"

using namespace halvo;

namespace {

// A wait for an end: as every wait, one sleep that the first signal ends; not cancelled, or the end
// might stay taken by a thread that is gone.
struct Opening {
    Sleeper sleeper{false};
    double limit = kNever; // seconds since the epoch
};

// Waits for the lock of an end that another one has. 0 or the error number.
int wait_for_lock(const Side &side, int channel, Opening &opening) {
    Sleeper &sleeper = opening.sleeper;
    WaitInProgress wait(sleeper, opening.limit, side, nullptr, channel);
    const Woken woken = sleeper.take(side.lock_set(), channel, SEM_UNDO, {});
    const int error = woken == Woken::by_signal ? EINTR : errno;
    if (wait.leave()) sleeper.take_sent_signals();
    return woken == Woken::normally ? 0 : error;
}

// Takes an end's lock. A signal ends a wait, and at a free end there is none: it is taken whatever
// comes meanwhile. 0 or the error number; then the signals are let in, for what is printed next may
// take long.
int lock_end(const Side &side, int channel, Opening &opening) {
    opening.sleeper.hold();
    int error = try_lock(side.lock_set(), channel) == 0 ? 0 : errno;
    if (error == EAGAIN) error = wait_for_lock(side, channel, opening);
    opening.sleeper.release();
    return error;
}

halvo_channel *hold(const Side &side, int channel, const char *failure, Opening &opening) {
    if (const int error = lock_end(side, channel, opening); error != 0) {
        std::printf(failure, channel, std::strerror(error));
        return nullptr;
    }
    halvo_channel *q = header_of(channel); // the wait may have been long
    if (!q) {
        sem_mutex_unlock(side.lock_set(), channel);
        return nullptr;
    }
    expect_ring(q, &side == &kWriter ? expected_of_writers : expected_of_readers);
    store(q->*side.pid, process_id());
    return q;
}

halvo_channel *open_end(int channel, char mode, Opening &opening) {
    const halvo_segment *segment = attached_segment();
    if (!segment) {
        std::puts("shared queue is not attached !!!!!!!!!!!!!!!!!");
        return nullptr;
    }
    halvo_channel *q = checked_channel(channel);
    if (!q) {
        std::printf("Ivalid Channel %d valid range(%d,%d) \n", channel, 0,
                    channel_count(segment) - 1);
        return nullptr;
    }
    switch (mode) {
    case 'r':
        return hold(kReader, channel, "q r lock error(%d) %s\n", opening);
    case 'w':
        return hold(kWriter, channel, "q w lock error(%d) %s\n", opening);
    case 'x':
        return q;
    default:
        return nullptr;
    }
}

} // namespace

halvo_channel *q_open(int channel, char mode) noexcept {
    Opening opening;
    return open_end(channel, mode, opening);
}

halvo_channel *q_open_wait(int channel, char mode, int limit) noexcept {
    Opening opening;
    const double end = wall_clock() + limit / 1000.0; // as in core/wait/blocking.cpp
    if (reg_wait_thread(limit) >= 0) opening.limit = end;
    halvo_channel *q = open_end(channel, mode, opening);
    if (unreg_wait_thread() < 0) opening.sleeper.take_sent_signals();
    return q;
}

int q_close(int channel, char mode) noexcept {
    if (!attached_segment()) return ESMS_NOINIT;
    // An end can be given back whatever has become of its ring.
    if (channel < 0 || channel >= channel_count(attached_segment())) return ESMS_INVAL;
    // Kept: the two sides report a failed unlock with different codes.
    switch (mode) {
    case 'r':
        return sem_mutex_unlock(read_lock_set(), channel) < 0 ? ESMS_MTXLOCK : ESMS_OK;
    case 'w':
        return sem_mutex_unlock(write_lock_set(), channel) < 0 ? ESMS_MTXUNLOCK : ESMS_OK;
    case 'x':
        return ESMS_OK;
    default:
        return ESMS_FAILED;
    }
}
