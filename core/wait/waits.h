// sms_sig: the waits in progress of this process, which the monitor visits after its scan.
//
// The scan signals each overdue thread once, and a post wakes once. What was lost of either, in the
// few instructions before a sleep or by a process that posts without our order of stores, is made
// good here: what stands in two passes of the monitor has been lost.
#pragma once

#include <pthread.h>

#include <atomic>
#include <limits>

#include "core/ring/side.h"
#include "core/wait/sleep.h"

namespace halvo {

// Seconds since the epoch, by the clock on the wall.
double wall_clock() noexcept;
constexpr double kNever = std::numeric_limits<double>::infinity();

// The state word of the slot that a side works on next, and what the side waits for there. With a
// damaged header a word that is never what the side waits for.
WantedState wanted_state(const Side &side, halvo_channel *q) noexcept;

// A wait that is going on, from its registration to its end, on the waiting thread's stack.
class WaitInProgress {
public:
    // `end`: seconds since the epoch, not after the registry's deadline; kNever when it has none.
    // q null: a wait for an end, which no slot can end.
    WaitInProgress(const Sleeper &sleeper, double end, const Side &side, halvo_channel *q,
                   int channel) noexcept;
    WaitInProgress(const WaitInProgress &) = delete;
    WaitInProgress &operator=(const WaitInProgress &) = delete;
    ~WaitInProgress() { leave(); }

    // Ends the visits. Whether one has sent the thread a signal, which may still be on its way.
    bool leave() noexcept;

    // Whether a visit woke the thread to look at its slot; asking forgets it.
    bool sent_to_look() noexcept { return sent_to_look_.exchange(false); }
    // Whether a visit ended the wait in the name of a signal that the sleep had missed.
    bool signal_missed() const noexcept { return signal_missed_; }

    // One visit. Lock of the list held.
    void visit(const halvo_segment *segment) noexcept;
    void lose_limit() noexcept;

    WaitInProgress *next() const noexcept { return next_; }

private:
    void signal() noexcept;
    bool slot_stands_ready(const halvo_segment *segment) const noexcept;

    const pthread_t thread_ = pthread_self();
    const SleepFrame &frame_;
    double end_;
    const Side &side_;
    halvo_channel *const q_;
    const int channel_;
    bool was_overdue_ = false, was_past_signal_ = false, was_ready_ = false; // at the last visit
    bool signal_sent_ = false;
    std::atomic<bool> sent_to_look_{false}, signal_missed_{false};
    bool linked_ = true;
    int generation_ = 0;
    WaitInProgress *previous_ = nullptr, *next_ = nullptr;
};

// Visits them all.
void visit_waits() noexcept;

// Takes the time limits of all waits in progress away, as init_sig() does.
void lose_limits() noexcept;

} // namespace halvo
