// sms_shm: opening and closing a channel's ends. One process at a time holds an end; the lock sets
// see to that, with undo, so that a dead holder's end is free again.
#include <sys/sem.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/end.h"
#include "core/process.h"
#include "core/side.h"
#include "core/waits.h"

using namespace halvo;

namespace {

// A wait for an end: as every wait, one sleep that the first signal ends; not cancelled, or the end
// might stay taken by a thread that is gone.
struct Opening {
    Sleeper sleeper;
    double limit = std::numeric_limits<double>::infinity(); // seconds since the epoch
};

// Takes an end's lock. Returns 0, or -1 with errno.
int lock_end(const Side &side, int channel, Opening &opening) {
    const WaitInProgress wait(opening.sleeper, opening.limit, side, nullptr, channel);
    if (opening.sleeper.take(side.lock_set(), channel, SEM_UNDO, {}, false) == Woken::normally)
        return 0;
    if (opening.sleeper.signalled()) errno = EINTR;
    return -1;
}

halvo_channel *hold(const Side &side, int channel, const char *failure, Opening &opening) {
    if (lock_end(side, channel, opening) < 0) {
        std::printf(failure, channel, std::strerror(errno));
        return nullptr;
    }
    halvo_channel *q = q_chnnl2q(channel);
    forget_heartbeat(q, &side == &kWriter ? &KnownChannel::writer : &KnownChannel::reader);
    store(q->*side.pid, process_id());
    return q;
}

halvo_channel *open_end(int channel, char mode, Opening &opening) {
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
        return hold(kReader, channel, "q r lock error(%d) %s\n", opening);
    case 'w':
        return hold(kWriter, channel, "q w lock error(%d) %s\n", opening);
    case 'x':
        return q_chnnl2q(channel);
    default:
        return nullptr;
    }
}

} // namespace

halvo_channel *q_open(int channel, char mode) noexcept {
    Opening opening;
    opening.sleeper.hold();
    return open_end(channel, mode, opening);
}

halvo_channel *q_open_wait(int channel, char mode, int limit) noexcept {
    Opening opening;
    opening.sleeper.hold();
    if (reg_wait_thread(limit) >= 0) opening.limit = wall_clock() + limit / 1000.0;
    halvo_channel *q = open_end(channel, mode, opening);
    if (unreg_wait_thread() < 0) getppid(); // the signal is delivered by a system call, at the latest
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
