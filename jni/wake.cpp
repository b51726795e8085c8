// Java binding: the list of waits that can be ended from Java.
#include "jni/wake.h"

#include <csignal>
#include <ctime>

#include "core/base/posix.h"

namespace halvo {

namespace {

pthread_mutex_t waits_mutex = PTHREAD_MUTEX_INITIALIZER; // guards the list and the cells' words
WakeableWait *waits = nullptr;

// A wait that was just about to sleep gets more signals before the monitor's pass. Nanoseconds.
constexpr long kFirstPause = 250000;
constexpr long kLastPause = 16000000;

} // namespace

WakeCell *cell_of(JNIEnv *env, jobject buffer) noexcept {
    return buffer ? static_cast<WakeCell *>(env->GetDirectBufferAddress(buffer)) : nullptr;
}

WakeableWait::WakeableWait(WakeCell *cell) noexcept : cell_(cell) {
    if (!cell) return;
    const MutexLock lock(waits_mutex);
    if (cell->called != 0) return;
    listed_ = true;
    next_ = waits;
    link_ = &waits;
    waits = this;
    if (next_) next_->link_ = &next_;
}

// Behind this lock nobody signals the thread any more.
WakeableWait::~WakeableWait() {
    if (!listed_) return;
    const MutexLock lock(waits_mutex);
    *link_ = next_;
    if (next_) next_->link_ = link_;
}

// The monitor's signal: the thread cannot tell the two apart, and Java knows what it asked for.
void WakeableWait::signal() const noexcept { pthread_kill(thread_, SIGUSR2); }

// Signals the waits with that cell. Whether there were any.
bool signal_waits(WakeCell *cell) noexcept {
    const MutexLock lock(waits_mutex);
    store(cell->called, 1);
    bool any = false;
    for (const WakeableWait *wait = waits; wait; wait = wait->next_) {
        if (wait->cell_ != cell) continue;
        wait->signal();
        any = true;
    }
    return any;
}

void call_cell(WakeCell *cell) noexcept {
    if (!cell || !signal_waits(cell)) return;
    for (long pause = kFirstPause; pause <= kLastPause; pause *= 2) {
        const timespec limit{0, pause};
        nanosleep(&limit, nullptr);
        if (!signal_waits(cell)) return;
    }
}

void reset_cell(WakeCell *cell) noexcept {
    if (!cell) return;
    const MutexLock lock(waits_mutex);
    store(cell->called, 0);
}

void call_again() noexcept {
    const MutexLock lock(waits_mutex);
    for (const WakeableWait *wait = waits; wait; wait = wait->next_)
        if (wait->cell_->called != 0) wait->signal();
}

} // namespace halvo
