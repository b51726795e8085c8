#include "core/wait/waits.h"

#include <signal.h>
#include <sys/time.h>

#include <utility>

#include "core/base/posix.h"
#include "core/ring/end.h"
#include "core/segment/mapping.h"
#include "core/segment/semaphores.h"

namespace halvo {

namespace {

pthread_mutex_t lock_of_waits = PTHREAD_MUTEX_INITIALIZER; // guards the list and its members
WaitInProgress *first_wait = nullptr;
int generation = 0; // forks that this process descends from

// A forked child starts without waits: their threads are its parent's.
void begin_anew() {
    lock_of_waits = PTHREAD_MUTEX_INITIALIZER;
    first_wait = nullptr;
    ++generation;
}
[[maybe_unused]] const int watched = pthread_atfork(nullptr, nullptr, begin_anew);

} // namespace

double wall_clock() noexcept {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
}

WantedState wanted_state(const Side &side, halvo_channel *q) noexcept {
    const bool reader = &side == &kReader;
    const qmsg *slot = reader ? ReaderEnd(q).current() : WriterEnd(q).current();
    return {&slot->state, reader ? HALVO_SLOT_READABLE : HALVO_SLOT_FREE};
}

WaitInProgress::WaitInProgress(const Sleeper &sleeper, double end, const Side &side,
                               halvo_channel *q, int channel) noexcept
    : frame_(sleeper.frame()), end_(end), side_(side), q_(q), channel_(channel) {
    const MutexLock lock(lock_of_waits);
    generation_ = generation;
    next_ = first_wait;
    if (next_) next_->previous_ = this;
    first_wait = this;
}

bool WaitInProgress::leave() noexcept {
    if (!std::exchange(linked_, false)) return signal_sent_;
    const MutexLock lock(lock_of_waits);
    if (generation_ != generation) return false; // this is the child of a fork in a signal handler
    (previous_ ? previous_->next_ : first_wait) = next_;
    if (next_) next_->previous_ = previous_;
    return signal_sent_;
}

void WaitInProgress::signal() noexcept {
    signal_sent_ = true;
    pthread_kill(thread_, SIGUSR2);
}

bool WaitInProgress::slot_stands_ready(const halvo_segment *segment) const noexcept {
    if (!q_ || !frame_.marks || !segment) return false;
    const WantedState slot = wanted_state(side_, q_);
    return slot.state && load(*slot.state) == slot.wanted;
}

void WaitInProgress::visit(const halvo_segment *segment) noexcept {
    const bool past_signal = slept_past_a_signal(frame_);
    // The clock is read behind that: when it was the registry's signal, also in the name of another
    // thread's pass, then the wait is overdue by now.
    const bool overdue = wall_clock() > end_;
    const bool ready = slot_stands_ready(segment);
    if (overdue) {
        if (was_overdue_) signal();
    } else if (past_signal && was_past_signal_) {
        signal_missed_ = true;
        signal();
    }
    if (ready && was_ready_) {
        sent_to_look_ = true;
        post(side_.semaphore(channel_));
    }
    was_overdue_ = overdue;
    was_past_signal_ = past_signal;
    was_ready_ = ready;
}

void WaitInProgress::lose_limit() noexcept { end_ = kNever; }

void visit_waits() noexcept {
    const MappingUse mapping;
    const MutexLock lock(lock_of_waits);
    for (WaitInProgress *wait = first_wait; wait; wait = wait->next())
        wait->visit(mapping.segment());
}

void lose_limits() noexcept {
    const MutexLock lock(lock_of_waits);
    for (WaitInProgress *wait = first_wait; wait; wait = wait->next()) wait->lose_limit();
}

} // namespace halvo
