// sms_shm: opening and closing a channel's ends. One process at a time holds an end; the lock sets
// see to that, with undo, so that a dead holder's end is free again.
#include <sys/sem.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "core/blocking.h"
#include "core/end.h"
#include "core/process.h"
#include "core/semaphores.h"
#include "core/side.h"

using namespace halvo;

namespace {

// Takes an end's lock; a thread that is registered with a deadline looks for the monitor's signal
// between slices, in case it came before the wait began. Returns 0, or -1 with errno.
int lock_end(int set, int channel, bool registered) {
    if (!registered) return sem_mutex_lock(set, channel);
    for (;;) {
        if (getSignal() == SIGUSR2) {
            errno = EINTR;
            return -1;
        }
        const int result = take_semaphore(set, channel, SEM_UNDO, kSliceMilliseconds);
        if (result == 0 || errno != EAGAIN) return result;
    }
}

halvo_channel *hold(const Side &side, int channel, const char *failure, bool registered) {
    if (lock_end(side.lock_set(), channel, registered) < 0) {
        std::printf(failure, channel, std::strerror(errno));
        return nullptr;
    }
    halvo_channel *q = q_chnnl2q(channel);
    expect_ring(q, &side == &kWriter ? expected_of_writers : expected_of_readers);
    store(q->*side.pid, process_id());
    return q;
}

halvo_channel *open_end(int channel, char mode, bool registered) {
    const halvo_segment *segment = attached_segment();
    if (!segment) {
        std::puts("shared queue is not attached !!!!!!!!!!!!!!!!!");
        return nullptr;
    }
    if (!checked_channel(channel)) {
        std::printf("Ivalid Channel %d valid range(%d,%d) \n", channel, 0,
                    channel_count(segment) - 1);
        return nullptr;
    }
    switch (mode) {
    case 'r':
        return hold(kReader, channel, "q r lock error(%d) %s\n", registered);
    case 'w':
        return hold(kWriter, channel, "q w lock error(%d) %s\n", registered);
    case 'x':
        return q_chnnl2q(channel);
    default:
        return nullptr;
    }
}

} // namespace

halvo_channel *q_open(int channel, char mode) noexcept { return open_end(channel, mode, false); }

halvo_channel *q_open_wait(int channel, char mode, int limit) noexcept {
    const bool registered = reg_wait_thread(limit) >= 0;
    halvo_channel *q = open_end(channel, mode, registered);
    unreg_wait_thread();
    return q;
}

int q_close(int channel, char mode) noexcept {
    if (!attached_segment()) return ESMS_NOINIT;
    if (!checked_channel(channel)) return ESMS_INVAL;
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

void halvo::record_owner(const Side &side, halvo_channel *q, const char *client) noexcept {
    // A name of 23 bytes or more is cut; the field's last byte is never written and stays NUL.
    std::strncpy(q->*side.name, client, HALVO_NAME_SIZE - 1);
    store(q->*side.pid, process_id());
}
