// sms_shmC: the lock of a channel end, which the one thread that uses an end takes and gives back
// without a locked instruction.
//
// Such an instruction waits until all stores before it have left the processor, and those of a
// message go to cache lines that the other side had last: that is longer than all else of a call. So
// an end whose mutex one thread has taken a number of times in a row becomes that thread's own:
//
//     owner:    inside = 1      (compiler's fence)     owner still me: has the lock
//     another:  takes the mutex    owner = none    process_barrier()    waits while the owner is inside
//
// One of the two sees the other, and from then on the mutex alone counts, until a thread has taken it
// many times more in a row. A thread that comes again from a signal's handler, while it is inside,
// waits for ever, as with the mutex.
//
// An owner may stop in front of its first store, and another thread become the owner meanwhile. What
// it stores then must not be taken for the other's: each owner has a place of its own for it, which
// never becomes another thread's. Threads that come when all places are given use the mutex.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace halvo {

class alignas(64) EndLock {
public:
    // Of one thread that has been the owner, and of those that have its address after its end.
    struct Place {
        std::atomic<const void *> thread{nullptr}; // null: not given yet
        std::atomic<uint32_t> inside{0};           // 1 while it has the lock without the mutex

        void leave() noexcept { inside.store(0, std::memory_order_release); }
    };

    // When the calling thread has the lock now without the mutex: its place, whose leave() gives the
    // lock back. Otherwise null.
    Place *enter() noexcept {
#ifndef __SANITIZE_THREAD__ // which does not know what the barrier orders
        Place *const own = owner_.load(std::memory_order_relaxed);
        if (!own || own->thread.load(std::memory_order_relaxed) != __builtin_thread_pointer())
            return nullptr;
        if (own->inside.load(std::memory_order_relaxed)) return nullptr;
        own->inside.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (owner_.load(std::memory_order_relaxed) == own) [[likely]]
            return own;
        own->leave();
#endif
        return nullptr;
    }

    // With the mutex; the error numbers of the mutex. give_back() may make the end the thread's own.
    int take(pthread_mutex_t &mutex) noexcept;
    int give_back(pthread_mutex_t &mutex) noexcept;

    // For a table that starts anew. The places stay given: one of their threads may be on its way in.
    void forget() noexcept {
        owner_ = nullptr;
        for (Place &place : places_) place.leave();
        last_ = nullptr;
        needed_ = kFirstTimes;
    }

private:
    static constexpr uint32_t kFirstTimes = 16, kMostTimes = 1 << 20;

    // The place of a thread, given to it now if it had none; null when all are given. Under the mutex.
    Place *place_of(const void *thread) noexcept;

    std::atomic<Place *> owner_{nullptr}; // of the thread whose own the end is
    // Under the mutex:
    const void *last_ = nullptr; // the thread that took it last, and how often in a row
    uint32_t times_ = 0;
    uint32_t needed_ = kFirstTimes; // to become its own
    Place places_[6];               // as many as a cache line has room for
};

} // namespace halvo
