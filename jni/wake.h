// Java binding: waits that another Java thread ends, because it interrupts the waiting thread or
// closes the channel.
//
// Java owns a wake cell per channel: memory whose first word is 0 until it is called. A wait with a
// cell stands in a list while it is in the library. A call marks the cell and signals the waits that
// have it; a wait that comes later with a called cell does not begin. A signal that comes just before
// the thread sleeps would be lost: the caller looks some more times, and each pass of the timeout monitor
// signals again.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <cstdint>

#include "core/segment/ring.h"

namespace halvo {

struct WakeCell {
    int32_t called;
};

// The cell in a direct buffer; null for no buffer.
WakeCell *cell_of(JNIEnv *env, jobject buffer) noexcept;

// For the time of a wait: lets it be ended by its cell. Without a cell it is an attempt without a wait.
class WakeableWait {
public:
    explicit WakeableWait(WakeCell *cell) noexcept;
    ~WakeableWait();
    WakeableWait(const WakeableWait &) = delete;
    WakeableWait &operator=(const WakeableWait &) = delete;

    // False when the cell was called before: then there must be no wait.
    bool may_wait() const noexcept { return listed_; }
    bool is_called() const noexcept { return load(cell_->called) != 0; }

private:
    friend bool signal_waits(WakeCell *cell) noexcept;
    friend void call_again() noexcept;
    void signal() const noexcept;

    WakeCell *const cell_;
    const pthread_t thread_ = pthread_self();
    bool listed_ = false;
    WakeableWait *next_ = nullptr;
    WakeableWait **link_ = nullptr; // what points to this one
};

bool signal_waits(WakeCell *cell) noexcept;
// Ends the waits with that cell and all that come until it is reset.
void call_cell(WakeCell *cell) noexcept;
void reset_cell(WakeCell *cell) noexcept;

// Signals every wait whose cell was called and that has not ended since.
void call_again() noexcept;

} // namespace halvo
