// Guarded interface: the lock of a channel end, which the one thread that uses an end takes and gives
// back without a locked instruction.
//
// Such an instruction waits until all stores before it have left the processor, and those of a
// message go to cache lines that the other side had last: that is longer than all else of a call. So
// an end whose mutex one thread has taken a number of times in a row becomes that thread's own:
//
//     owner:    inside = me     (compiler's fence)     owner still me: has the lock
//     another:  takes the mutex    owner = none    process_barrier()    waits until nobody is inside
//
// One of the two sees the other, and from then on the mutex alone counts, until a thread has taken it
// many times more in a row. A thread that comes again from a signal's handler, while it is inside,
// waits for ever, as with the mutex.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace halvo {

class alignas(64) EndLock {
public:
    // Whether the calling thread has the lock now without the mutex; then leave() gives it back.
    bool enter() noexcept {
#ifndef __SANITIZE_THREAD__ // which does not know what the barrier orders
        const void *me = __builtin_thread_pointer();
        if (owner_.load(std::memory_order_relaxed) != me) return false;
        if (inside_.load(std::memory_order_relaxed)) return false;
        inside_.store(me, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (owner_.load(std::memory_order_relaxed) == me) [[likely]]
            return true;
        leave();
#endif
        return false;
    }
    void leave() noexcept { inside_.store(nullptr, std::memory_order_release); }

    // With the mutex; the error numbers of the mutex. give_back() may make the end the thread's own.
    int take(pthread_mutex_t &mutex) noexcept;
    int give_back(pthread_mutex_t &mutex) noexcept;

    // For a table that starts anew.
    void forget() noexcept {
        owner_ = inside_ = nullptr;
        last_ = nullptr;
        needed_ = kFirstTimes;
    }

private:
    static constexpr uint32_t kFirstTimes = 16, kMostTimes = 1 << 20;

    std::atomic<const void *> owner_{nullptr};  // the thread whose own the end is
    std::atomic<const void *> inside_{nullptr}; // that thread while it has the lock
    // Under the mutex:
    const void *last_ = nullptr; // the thread that took it last, and how often in a row
    uint32_t times_ = 0;
    uint32_t needed_ = kFirstTimes; // to become its own
};

} // namespace halvo
