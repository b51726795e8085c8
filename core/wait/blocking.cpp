// sms_shm: the blocking loop.
#include "core/wait/blocking.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "core/wait/signals.h"
#include "core/wait/waits.h"

namespace halvo {

namespace {

constexpr int kPauseMilliseconds = 1; // between tries while there is no semaphore to sleep on

int64_t nanoseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// ---- Looking for a while before sleeping: to fall asleep and to be woken takes many times as long as
// the other side needs for its answer.

constexpr int kMostSpin = 1000; // microseconds
constexpr int kNotAsked = -1;
std::atomic<int> spin_limit{kNotAsked}; // microseconds
std::atomic<int> looks_per_microsecond{0};

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

// A look is little more than a pause of the processor, which takes ten times as long on some
// processors as on others.
int learn_looks() {
    constexpr int kTries = 5, kPauses = 100;
    int64_t shortest = 1000; // nanoseconds for each would be very long
    for (int i = 0; i < kTries; ++i) {
        const int64_t start = nanoseconds_now();
        for (int j = 0; j < kPauses; ++j) __builtin_ia32_pause();
        shortest = std::min(shortest, (nanoseconds_now() - start) / kPauses);
    }
    looks_per_microsecond = static_cast<int>(1000 / std::max<int64_t>(shortest, 1));
    return looks_per_microsecond;
}

// Looks whether the slot at this side's position becomes what the side waits for. A slot that is so
// already, and yet not given out (a rate limit, parked messages), ends the look at once. Afterwards
// signals are kept away, unless it came.
bool slot_comes(const Waiter &waiter, Sleeper &sleeper) {
    const WantedState slot = wanted_state(waiter.side, waiter.q);
    const int known = looks_per_microsecond.load(std::memory_order_relaxed);
    if (known == 0) sleeper.hold(); // to learn takes a while
    const int looks = spin_microseconds() * (known != 0 ? known : learn_looks());
    return sleeper.look_and_hold(slot, slot.state ? looks : 0);
}

// One announced and registered wait; withdrawn when it goes.
class Announced {
public:
    Announced(const Waiter &waiter, const Sleeper &sleeper, bool wake_peer) noexcept
        : waiter_(waiter), registered_(announce(wake_peer)),
          in_progress_(sleeper, end_, waiter.side, waiter.q, waiter.channel) {}
    Announced(const Announced &) = delete;
    Announced &operator=(const Announced &) = delete;
    ~Announced() { withdraw(); }

    bool registered() const { return registered_; }
    // Of a withdrawn wait: whether the monitor has sent the thread a signal.
    bool fired() const { return fired_; }
    WaitInProgress &in_progress() { return in_progress_; }

    // Several threads of one side share the announcement, and each clears it when it wakes.
    void announce_again() {
        if (load(waiter_.q->*waiter_.side.waiting) == 0) count_up();
    }
    void withdraw() {
        if (!std::exchange(announced_, false)) return;
        leave_registry();
        store(waiter_.q->*waiter_.side.waiting, 0);
    }
    // Leaves the announcement standing.
    void abandon() {
        announced_ = false;
        leave_registry();
    }
    const Waiter &waiter() const { return waiter_; }

private:
    bool announce(bool wake_peer) {
        count_up();
        if (wake_peer && load(waiter_.q->*waiter_.side.peer_waiting) != 0)
            waiter_.side.wake_peer(waiter_.channel);
        // Not after the registry's deadline: the visits must not take its signal for another one.
        end_ = wall_clock() + waiter_.timeout / 1000.0;
        if (reg_wait_thread(waiter_.timeout) >= 0) return true;
        end_ = kNever;
        return false;
    }
    void count_up() {
        halvo_i32 &waiting = waiter_.q->*waiter_.side.waiting;
        store(waiting, static_cast<int32_t>(static_cast<uint32_t>(load(waiting)) + 1));
    }
    void leave_registry() {
        fired_ = unreg_wait_thread() < 0 && registered_;
        fired_ = in_progress_.leave() || fired_;
    }

    const Waiter &waiter_;
    bool announced_ = true, fired_ = false;
    double end_ = 0; // seconds since the epoch
    const bool registered_;
    WaitInProgress in_progress_;
};

// What a signal that ended a wait means.
Wait end_by_signal() { return getSignal() == SIGUSR2 ? Wait::timed_out : Wait::interrupted; }

struct Sleeping {
    Sleeper &sleeper;
    Announced &wait;
};

// What a cancelled thread leaves to do. The unwinder comes here without destructors: files on the
// way of a cancellation are compiled without exceptions.
void leave(void *sleeping) {
    const auto &left = *static_cast<Sleeping *>(sleeping);
    left.sleeper.release();
    left.wait.withdraw();
}

// The slot whose state lets a woken thread go on with its signals let in. None that stands ready
// already and was refused (a rate limit, parked messages): the look behind this sleep may be in vain
// too, and a signal must not get between it and the next sleep.
WantedState awaited_slot(const Waiter &waiter) {
    static constexpr halvo_i32 kNoState = -1;
    const WantedState slot = wanted_state(waiter.side, waiter.q);
    const bool refused = slot.state && load(*slot.state) == slot.wanted;
    return refused ? WantedState{&kNoState, 0} : slot;
}

// One sleep, on the semaphore or, without one, for a while.
Woken sleep(Sleeper &sleeper, Announced &wait, int semid) {
    const Waiter &waiter = wait.waiter();
    Sleeping sleeping{sleeper, wait};
    Woken woken = Woken::never_slept;
    pthread_cleanup_push(leave, &sleeping);
    if (semid != -1)
        woken = sleeper.take(semid, 0, 0, awaited_slot(waiter));
    else
        woken = sleeper.pause(kPauseMilliseconds);
    pthread_cleanup_pop(0);
    return woken;
}

// The caller's attempt, as long as an end that was this process's when the wait began still is.
class Trial {
public:
    Trial(const Waiter &waiter, bool (*attempt)(void *), void *context)
        : waiter_(waiter), attempt_(attempt), context_(context), own_(owns(waiter.side, waiter.q)) {
    }
    bool settles() const { return !lost() && attempt_(context_); }
    bool lost() const { return own_ && !owns(waiter_.side, waiter_.q); }

private:
    const Waiter &waiter_;
    bool (*const attempt_)(void *);
    void *const context_;
    const bool own_;
};

// What ended a registered wait.
enum class End { settled, woken, by_signal, out_of_time };

// Sleeps until the attempt settles it, or a signal, a post or the end of time ends the sleep.
End sleep_registered(const Waiter &waiter, Sleeper &sleeper, Announced &wait, int64_t limit,
                     const Trial &trial) {
    int semid = waiter.side.semaphore(waiter.channel);
    for (;;) {
        const bool polls = semid == -1;
        if (!polls) far_barrier();
        if (trial.settles()) return End::settled;
        if (trial.lost()) return End::woken;
        const Woken woken = sleep(sleeper, wait, semid);
        if (woken == Woken::by_signal) return End::by_signal;
        if (polls && nanoseconds_now() >= limit) return End::out_of_time;
        if (woken == Woken::never_slept) semid = -1; // there is no semaphore any more
        if (woken == Woken::normally && !polls) {
            if (sleeper.signalled()) return trial.settles() ? End::settled : End::by_signal;
            if (!wait.in_progress().sent_to_look()) return End::woken;
        }
        sleeper.hold();
        wait.announce_again();
    }
}

} // namespace

Wait wait_loop(const Waiter &waiter, bool (*attempt)(void *), void *context) {
    forget_signal();
    Sleeper sleeper{true};
    const Trial trial(waiter, attempt, context);
    if (slot_comes(waiter, sleeper) && trial.settles()) return Wait::settled;
    const int64_t limit = nanoseconds_now() + std::max(waiter.timeout, 0) * int64_t{1000000};
    // The other side is woken once: were it woken at every round, a full ring under a read-rate
    // limit would have both sides wake each other.
    bool wake_peer = true;
    for (;;) {
        sleeper.hold();
        if (sleeper.signalled()) return end_by_signal();
        Announced wait(waiter, sleeper, wake_peer);
        wake_peer = false;
        if (!wait.registered() && waiter.registration == Registration::required) {
            wait.abandon();
            return Wait::unregistered;
        }
        const End end = sleep_registered(waiter, sleeper, wait, limit, trial);
        const bool lost = end != End::settled && trial.lost();
        if (lost)
            wait.abandon();
        else
            wait.withdraw();
        if (wait.fired()) sleeper.take_sent_signals();
        if (end == End::settled) return Wait::settled;
        if (lost) {
            post(waiter.side.semaphore(waiter.channel));
            return Wait::lost;
        }
        // The monitor's signal stood for the one that the sleep had missed.
        if (wait.in_progress().signal_missed()) forget_signal();
        const Wait by_signal = end_by_signal();
        if (end == End::by_signal && by_signal == Wait::interrupted) return by_signal;
        // A message or a free slot that came at the last moment goes before the end of time.
        if (trial.settles()) return Wait::settled;
        if (end == End::out_of_time || by_signal == Wait::timed_out) return Wait::timed_out;
    }
}

} // namespace halvo

int q_set_spin(int microseconds) noexcept {
    const int before = halvo::spin_microseconds();
    halvo::spin_limit = std::clamp(microseconds, 0, halvo::kMostSpin);
    return before;
}
