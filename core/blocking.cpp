// sms_shm: the blocking loop.
#include "core/blocking.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include "core/semaphores.h"

namespace halvo {

namespace {

constexpr int kPauseMilliseconds = 1; // between tries while there is no semaphore to sleep on

enum class Nap { woken, slice_over, signalled, failed };

void full_fence() {
#ifdef __SANITIZE_THREAD__ // which knows no fences
    static std::atomic<int> fence;
    fence.fetch_add(1, std::memory_order_seq_cst);
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

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
        int32_t &waiting = waiter_.q->*waiter_.side.waiting;
        store(waiting, static_cast<int32_t>(static_cast<uint32_t>(load(waiting)) + 1));
    }
    const Waiter &waiter_;
    bool registered_ = false;
};

} // namespace

Wait wait_loop(const Waiter &waiter, bool (*attempt)(void *), void *context) noexcept {
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
            full_fence();
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
    full_fence();
    if (load(q->*side.peer_waiting) != 0) side.wake_peer(channel);
}

void finish_transfer(const Side &side, halvo_channel *q, int channel) noexcept {
    refresh(q->*side.waiting, 0);
    wake_waiting(side, q, channel);
}

} // namespace halvo
