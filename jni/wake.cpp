// Java binding: the list of waits that can be ended from Java.
#include "jni/wake.h"

#include <csignal>

#include "core/posix.h"

namespace halvo {

namespace {

pthread_mutex_t waits_mutex = PTHREAD_MUTEX_INITIALIZER; // guards the list and the cells' words
WakeableWait *waits = nullptr;

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

void call_cell(WakeCell *cell) noexcept {
    if (!cell) return;
    const MutexLock lock(waits_mutex);
    cell->called = 1;
    for (const WakeableWait *wait = waits; wait; wait = wait->next_)
        if (wait->cell_ == cell) wait->signal();
}

void reset_cell(WakeCell *cell) noexcept {
    if (!cell) return;
    const MutexLock lock(waits_mutex);
    cell->called = 0;
}

void call_again() noexcept {
    const MutexLock lock(waits_mutex);
    for (const WakeableWait *wait = waits; wait; wait = wait->next_)
        if (wait->cell_->called != 0) wait->signal();
}

} // namespace halvo
