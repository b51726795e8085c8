#include "core/wait/sleep.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <utility>

#include "core/base/posix.h"

namespace halvo {

namespace {

const sigset_t everything = all_but_faults();

sigset_t monitors_alone() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    return set;
}
const sigset_t monitors_signal = monitors_alone();

// Whether the thread's handlers may run on a stack of their own, where they leave no marks below
// this one. A thread seldom gets such a stack after its first wait.
bool has_other_stack() {
    constexpr unsigned kAskAgain = 256; // waits
    thread_local bool known = false;
    thread_local unsigned asked = 0;
    if (asked++ % kAskAgain == 0) {
        stack_t found{};
        known = sigaltstack(nullptr, &found) == 0 && (found.ss_flags & SS_DISABLE) == 0;
    }
    return known;
}

// The thread sanitizer holds signals back until a call that it knows.
void let_sanitizer_signal() {
#ifdef __SANITIZE_THREAD__
    const int error = errno;
    usleep(0);
    errno = error;
#endif
}

} // namespace

Sleeper::Sleeper(bool cancellable) noexcept : cancellable_(cancellable) {
    frame_.everything = &everything;
    frame_.outside = &before_;
    if (!cancellable_) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
}

Sleeper::~Sleeper() {
    release();
    if (!cancellable_) pthread_setcancelstate(cancel_state_, nullptr);
}

bool Sleeper::look_and_hold(WantedState slot, int looks) noexcept {
    frame_.state = slot.state;
    frame_.wanted = slot.wanted;
    frame_.looks = looks;
    const bool came = halvo::look_and_hold(frame_) != 0;
    // Programs block all signals in their threads, and yet a wait has its limit.
    if (frame_.held && sigismember(&before_, SIGUSR2) == 1) {
        sigdelset(&before_, SIGUSR2);
        blocks_monitor_ = true;
    }
    return came;
}

void Sleeper::let_in() noexcept {
    if (!frame_.held) return;
    frame_.held = 0;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void Sleeper::release() noexcept {
    let_in();
    if (std::exchange(blocks_monitor_, false))
        pthread_sigmask(SIG_BLOCK, &monitors_signal, nullptr);
}

void Sleeper::take_sent_signals() noexcept {
    let_in();
    // A thread that blocks it, and that released its sleep before, has kept it away since.
    sigset_t before;
    pthread_sigmask(SIG_UNBLOCK, &monitors_signal, &before);
    blocks_monitor_ = blocks_monitor_ || sigismember(&before, SIGUSR2) == 1;
    getppid(); // a signal is delivered with a system call, at the latest
    release();
}

// Sleeps with the signals let in: whether one came. They are kept away again behind it.
bool Sleeper::let_pending_in(int milliseconds) {
    const timespec limit{0, milliseconds * 1000000L};
    const bool came = ppoll(nullptr, 0, &limit, &before_) < 0 && errno == EINTR;
    let_sanitizer_signal();
    return came;
}

Woken Sleeper::pause(int milliseconds) {
    hold();
    if (frame_.signalled || let_pending_in(milliseconds)) return Woken::by_signal;
    return Woken::normally;
}

Woken Sleeper::take(int semid, int n, int flags, WantedState slot) {
    hold();
    if (frame_.signalled || (has_other_stack() && let_pending_in(0))) return Woken::by_signal;
    frame_.operation.sem_num = static_cast<unsigned short>(n);
    frame_.operation.sem_op = -1;
    frame_.operation.sem_flg = static_cast<short>(flags);
    frame_.semid = semid;
    frame_.state = slot.state;
    frame_.wanted = slot.wanted;
    const int result =
        cancellable_ ? let_in_and_sleep_cancellable(frame_) : let_in_and_sleep(frame_);
    let_sanitizer_signal();
    if (result == 0) return Woken::normally;
    errno = -result;
    return errno == EINTR ? Woken::by_signal : Woken::never_slept;
}

__attribute__((no_sanitize("address", "thread"))) bool
slept_past_a_signal(const SleepFrame &frame) noexcept {
    const auto *marks = static_cast<const volatile SleepFrame &>(frame).marks;
    if (!marks) return false;
    bool changed = false;
    for (int i = 0; i < kMarkWords; ++i)
        changed |= static_cast<const volatile uint32_t *>(marks)[i] != kMarkWord;
    // A thread that has woken meanwhile uses the place for other things, and tells so first.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return changed && static_cast<const volatile SleepFrame &>(frame).marks == marks;
}

} // namespace halvo
