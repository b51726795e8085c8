// sms_shm: the blocking loop.
#include "core/blocking.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "core/barrier.h"
#include "core/end.h"
#include "core/semaphores.h"

namespace halvo {

namespace {

constexpr int kPauseMilliseconds = 1; // between tries while there is no semaphore to sleep on

enum class Nap { woken, slice_over, signalled, failed };

int64_t milliseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

Nap nap(int semid) {
    if (take_semaphore(semid, 0, 0, kSliceMilliseconds) == 0) return Nap::woken;
    if (errno == EAGAIN) return Nap::slice_over;
    if (errno == EINTR) return Nap::signalled;
    const timespec pause{0, kPauseMilliseconds * 1000000L};
    return nanosleep(&pause, nullptr) != 0 && errno == EINTR ? Nap::signalled : Nap::failed;
}

// ---- Looking for a while before sleeping: to fall asleep and to be woken takes many times as long as
// the other side needs for its answer.

constexpr int kMostSpin = 1000;    // microseconds
constexpr int kLooksPerClock = 16; // looks between two looks at the clock
constexpr int kNotAsked = -1;
std::atomic<int> spin_limit{kNotAsked}; // microseconds

int learn_spin_limit() {
    constexpr int kDefault = 20;
    const char *given = std::getenv("HALVO_SPIN_US");
    const int limit = given ? std::atoi(given) : kDefault;
    // With one processor the other side cannot answer while this one looks.
    return sysconf(_SC_NPROCESSORS_ONLN) > 1 ? std::clamp(limit, 0, kMostSpin) : 0;
}

int spin_microseconds() {
    int limit = spin_limit.load(std::memory_order_relaxed);
    if (limit == kNotAsked) spin_limit = limit = learn_spin_limit();
    return limit;
}

int64_t microseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void pause_processor() {
#if defined __i386__ || defined __x86_64__
    __builtin_ia32_pause();
#endif
}

// Looks whether the slot at this side's position becomes what the side waits for. A slot that is
// so already, and yet not given out (a rate limit, parked messages), ends the look at once.
bool slot_comes(const Waiter &waiter) {
    const int limit = spin_microseconds();
    if (limit == 0) return false;
    const bool reader = &waiter.side == &kReader;
    const int32_t wanted = reader ? HALVO_SLOT_READABLE : HALVO_SLOT_FREE;
    const qmsg *slot = reader ? ReaderEnd(waiter.q).current() : WriterEnd(waiter.q).current();
    const int64_t end = microseconds_now() + limit;
    do {
        for (int i = 0; i < kLooksPerClock; ++i) {
            if (load_state(slot) == wanted) return true;
            pause_processor();
        }
    } while (microseconds_now() < end);
    return false;
}

// One announced and registered wait.
class Announced {
public:
    Announced(const Waiter &waiter, bool wake_peer) noexcept : waiter_(waiter) {
        announce();
        if (wake_peer && load(waiter.q->*waiter.side.peer_waiting) != 0)
            waiter.side.wake_peer(waiter.channel);
        registered_ = reg_wait_thread(waiter.timeout) >= 0;
    }
    bool registered() const { return registered_; }

    // Several threads of one side share the announcement, and each clears it when it wakes.
    void announce_again() {
        if (load(waiter_.q->*waiter_.side.waiting) == 0) announce();
    }
    void withdraw() {
        unreg_wait_thread();
        store(waiter_.q->*waiter_.side.waiting, 0);
    }

private:
    void announce() {
        halvo_i32 &waiting = waiter_.q->*waiter_.side.waiting;
        store(waiting, static_cast<int32_t>(static_cast<uint32_t>(load(waiting)) + 1));
    }
    const Waiter &waiter_;
    bool registered_ = false;
};

} // namespace

Wait wait_loop(const Waiter &waiter, bool (*attempt)(void *), void *context) noexcept {
    if (slot_comes(waiter) && attempt(context)) return Wait::settled;
    const int64_t limit = milliseconds_now() + (waiter.timeout > 0 ? waiter.timeout : 0);
    // The other side is woken once, and again when a slice has passed in vain: were it woken at
    // every round, a full ring under a read-rate limit would have both sides wake each other.
    bool wake_peer = true;
    for (;;) {
        Announced wait(waiter, wake_peer);
        wake_peer = false;
        if (!wait.registered() && waiter.registration == Registration::required) {
            unreg_wait_thread();
            return Wait::unregistered;
        }
        Nap result = Nap::slice_over;
        bool settled = false;
        for (;;) {
            far_barrier();
            settled = attempt(context);
            if (settled || getSignal() == SIGUSR2) break;
            result = nap(waiter.side.semaphore(waiter.channel));
            if (result == Nap::woken || result == Nap::signalled) break;
            if (result == Nap::failed && milliseconds_now() >= limit) break;
            if (result == Nap::slice_over) wake_peer = true;
            wait.announce_again();
        }
        wait.withdraw();
        const bool fired = getSignal() == SIGUSR2;
        if (settled) return Wait::settled;
        if (result == Nap::signalled && !fired) return Wait::interrupted;
        // A message or a free slot that came at the last moment goes before the end of time.
        if (attempt(context)) return Wait::settled;
        if (fired || result == Nap::failed) return Wait::timed_out;
    }
}

void wake_waiting(const Side &side, halvo_channel *q, int channel) noexcept {
    near_barrier();
    if (load(q->*side.peer_waiting) != 0) side.wake_peer(channel);
}

void finish_transfer(const Side &side, halvo_channel *q, int channel) noexcept {
    refresh(q->*side.waiting, 0);
    wake_waiting(side, q, channel);
}

} // namespace halvo

int q_set_spin(int microseconds) noexcept {
    const int before = halvo::spin_microseconds();
    halvo::spin_limit = std::clamp(microseconds, 0, halvo::kMostSpin);
    return before;
}
