// sms_sig: one sleep of a thread, which the first signal ends that comes after the wait has begun.
//
//     look_and_hold()  a few looks at the slot; then signals are kept from the thread
//     ...              the wait is announced, and the slot looked at a last time
//     take() / pause() lets the signals in and sleeps; what had come meanwhile ends it at once
//
// Signals that a fault of the thread itself raises are never kept away. A thread that blocks SIGUSR2
// gets it while it waits: its mask is as it was when the Sleeper goes.
#pragma once

#include "core/wait/sleep_instructions.h"
#include "halvo/abi.h"

namespace halvo {

// A slot's state word, and what a wait wants it to be.
struct WantedState {
    const halvo_i32 *state = nullptr;
    int32_t wanted = 0;
};

enum class Woken { normally, by_signal, never_slept };

class Sleeper {
public:
    // A sleep that is not cancellable puts a cancellation off from here on until the Sleeper goes.
    explicit Sleeper(bool cancellable) noexcept;
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;
    ~Sleeper();

    // Whether the state came within so many looks. If not, signals are kept away from then on.
    bool look_and_hold(WantedState slot, int looks) noexcept;
    // Keeps them away (again).
    void hold() noexcept {
        if (!frame_.held) look_and_hold({}, 0);
    }
    // Whether a signal came that no sleep has told yet.
    bool signalled() const noexcept { return frame_.signalled != 0; }

    // Takes 1 from semaphore n of a set. `flags` as for semop. never_slept: the semaphore failed,
    // and errno tells why. When it took the semaphore and the slot is not as wanted, signals are
    // kept away again.
    Woken take(int semid, int n, int flags, WantedState slot);
    // Sleeps for so long; afterwards signals are kept away.
    Woken pause(int milliseconds);

    // Lets the signals in.
    void release() noexcept;
    // The same, and those that another thread has sent before have been handled when it returns.
    void take_sent_signals() noexcept;

    // For slept_past_a_signal(), by another thread too.
    const SleepFrame &frame() const noexcept { return frame_; }

private:
    bool let_pending_in(int milliseconds);
    void let_in() noexcept;

    const bool cancellable_;
    int cancel_state_ = 0;        // the thread's own, while it is put off
    bool blocks_monitor_ = false; // the thread does, outside
    sigset_t before_;             // its mask, but for that
    SleepFrame frame_;
};

// Whether a handler has run in a sleep that has not been noticed. For the monitor's thread.
bool slept_past_a_signal(const SleepFrame &frame) noexcept;

} // namespace halvo
