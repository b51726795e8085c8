#include "core/sleep.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace halvo {

namespace {

sigset_t all_but_faults() {
    sigset_t set;
    sigfillset(&set);
    for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) sigdelset(&set, fault);
    return set;
}
const sigset_t everything = all_but_faults();

// Allows a cancellation while it stands, at the calls of the system that are a point for one.
class Cancellable {
public:
    explicit Cancellable(bool wanted) noexcept : wanted_(wanted) {
        if (wanted_) pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    }
    Cancellable(const Cancellable &) = delete;
    Cancellable &operator=(const Cancellable &) = delete;
    ~Cancellable() {
        if (wanted_) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }

private:
    const bool wanted_;
};

// The thread sanitizer holds signals back until a call that it knows.
void let_sanitizer_signal() {
#ifdef __SANITIZE_THREAD__
    const int error = errno;
    usleep(0);
    errno = error;
#endif
}

} // namespace

Sleeper::~Sleeper() {
    release();
    if (cancel_state_ != kUnknown) pthread_setcancelstate(cancel_state_, nullptr);
}

bool Sleeper::look_and_hold(WantedState slot, int looks) noexcept {
    frame_.everything = &everything;
    frame_.outside = &before_;
    frame_.state = slot.state;
    frame_.wanted = slot.wanted;
    frame_.looks = looks;
    if (halvo::look_and_hold(frame_) != 0) return true;
    if (cancel_state_ == kUnknown) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
    return false;
}

void Sleeper::release() noexcept {
    if (!frame_.held) return;
    frame_.held = 0;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

// Sleeps with the signals let in: whether one came. They are kept away again behind it.
bool Sleeper::let_pending_in(int milliseconds) {
    const timespec limit{0, milliseconds * 1000000L};
    const bool came = ppoll(nullptr, 0, &limit, &before_) < 0 && errno == EINTR;
    let_sanitizer_signal();
    return came;
}

Woken Sleeper::pause(int milliseconds, bool cancellable) {
    hold();
    if (frame_.signalled) return Woken::by_signal;
    const Cancellable sleep(cancellable && cancel_state_ == PTHREAD_CANCEL_ENABLE);
    return let_pending_in(milliseconds) ? Woken::by_signal : Woken::normally;
}

int Sleeper::cancellable_sleep() {
    const Cancellable sleep(true);
    return let_in_and_sleep_cancellable(frame_);
}

Woken Sleeper::take(int semid, int n, int flags, WantedState slot, bool cancellable) {
    hold();
    if (frame_.signalled) return Woken::by_signal;
    // What has come is taken here already, because a handler on a stack of its own would not be
    // noticed behind this.
    if (let_pending_in(0)) return Woken::by_signal;
    frame_.operation.sem_num = static_cast<unsigned short>(n);
    frame_.operation.sem_op = -1;
    frame_.operation.sem_flg = static_cast<short>(flags);
    frame_.semid = semid;
    frame_.state = slot.state;
    frame_.wanted = slot.wanted;
    const bool may_cancel = cancellable && cancel_state_ == PTHREAD_CANCEL_ENABLE;
    const int result = may_cancel ? cancellable_sleep() : let_in_and_sleep(frame_);
    let_sanitizer_signal();
    if (result == 0) return Woken::normally;
    errno = -result;
    return errno == EINTR ? Woken::by_signal : Woken::never_slept;
}

[[gnu::no_sanitize("address", "thread")]]
bool slept_past_a_signal(const SleepFrame &frame) noexcept {
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
