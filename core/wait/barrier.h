// sms_shm: the order between one side's finished operation and the other side's decision to sleep.
//
//     this side:   store the slot's state    near_barrier()    look at who waits
//     sleeper:     announce the wait         far_barrier()     look at the slot, then sleep
//
// One of the two sees the other. A full fence on each side would do; where the kernel can have every
// running thread pass one (membarrier), the sleeper asks for it, and the other side, which comes here
// with every message, needs none.
#pragma once

#include <atomic>

namespace halvo {

extern std::atomic<bool> reached_by_far_barriers __attribute__((visibility("hidden")));
// Whether process_barrier() is one of the kernel's, and fast.
extern std::atomic<bool> reached_by_process_barriers __attribute__((visibility("hidden")));

// Has this process's threads reached by the far barriers of others and by its own, if the kernel can.
// At the attach: beside other threads the kernel takes milliseconds for it, and on a busy machine
// seconds.
void join_barriers() noexcept;

inline void full_fence() noexcept {
#ifdef __SANITIZE_THREAD__ // which knows no fences
    static std::atomic<int> fence;
    fence.fetch_add(1, std::memory_order_seq_cst);
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

inline void near_barrier() noexcept {
    if (reached_by_far_barriers.load(std::memory_order_relaxed)) [[likely]]
        std::atomic_signal_fence(std::memory_order_seq_cst);
    else
        full_fence();
}

void far_barrier() noexcept;

// The same within this process alone: every thread of it that runs passes a barrier.
void process_barrier() noexcept;

} // namespace halvo
