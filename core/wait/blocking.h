// sms_shm: the one place where a read or write waits, for C and Java callers alike.
//
//   attempt -> settled ----------------------------------------------> the caller maps the result
//      |  empty / full
//   look for some microseconds whether a slot comes -> attempt
//      |
//   announce (rwait or wwait), wake the other side, register with the monitor
//      |
//   barrier -> attempt -> sleep on the semaphore -> woken: attempt; by a signal: end
//
// The other side stores its slot state, passes a barrier and then looks at the announcement
// (wake_waiting): so either it sees the announcement and posts, or the attempt behind our barrier
// sees its slot. A post can therefore not be missed. What a process that posts in another order
// costs, and what a rate limit holds back, the monitor makes good (core/wait/waits.h).
//
// Another thread may close the end under a wait, and another process get it: then the wait ends without
// another try. The post that ended its sleep, and the announcement, are that process's.
//
// A wait is one sleep, and the first signal ends it: core/wait/sleep.h. Without a semaphore the wait
// looks once a millisecond. The sleep is the only point of the library at which a thread can be
// cancelled: the wait is withdrawn, and the thread goes.
#pragma once

#include "core/ring/side.h"
#include "core/segment/ring.h"
#include "core/wait/barrier.h"

namespace halvo {

enum class Wait {
    settled,      // the attempt's own result counts
    timed_out,    // the monitor's signal came: ESMS_TIMEOUT
    interrupted,  // another signal came: ESMS_JAVAINTR
    unregistered, // no room in the registry, and the caller asked to be told; stays announced
    lost,         // another process has got the end meanwhile: ESMS_ACCESS
};

inline int32_t code_of(Wait wait) noexcept {
    if (wait == Wait::lost) return ESMS_ACCESS;
    return wait == Wait::timed_out ? ESMS_TIMEOUT : ESMS_JAVAINTR;
}

enum class Registration { optional, required };

// What the loop needs to know of a blocking call.
struct Waiter {
    const Side &side;
    halvo_channel *q;
    int channel;
    int timeout; // milliseconds from each registration
    Registration registration = Registration::optional;
};

// Throws nothing; a cancellation unwinds it.
Wait wait_loop(const Waiter &waiter, bool (*attempt)(void *), void *context);

// Runs attempt() until it returns true ("settled"), waiting in between.
template <class Attempt>
Wait wait_until(const Waiter &waiter, Attempt attempt) {
    if (attempt()) [[likely]]
        return Wait::settled;
    Attempt again = attempt; // a copy, so that the first one never needs an address
    return wait_loop(
        waiter, [](void *context) { return (*static_cast<Attempt *>(context))(); }, &again);
}

// Behind an operation that made a slot readable or free: wakes the other side if it waits.
inline void wake_waiting(const Side &side, halvo_channel *q, int channel) noexcept {
    near_barrier();
    if (load(q->*side.peer_waiting) != 0) [[unlikely]]
        side.wake_peer(channel);
}

// The same behind a finished read or write of this side, which waits no more.
inline void finish_transfer(const Side &side, halvo_channel *q, int channel) noexcept {
    refresh(q->*side.waiting, 0);
    wake_waiting(side, q, channel);
}

} // namespace halvo
