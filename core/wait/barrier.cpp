#include "core/wait/barrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/base/posix.h"

namespace halvo {

std::atomic<bool> reached_by_far_barriers{false}, reached_by_process_barriers{false};

void join_barriers() noexcept {
#ifndef __SANITIZE_THREAD__
    reached_by_far_barriers =
        syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED, 0) == 0;
    reached_by_process_barriers =
        syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0) == 0;
#endif
}

// The kernel skips threads that do not run: they passed a barrier when they stopped.
void far_barrier() noexcept {
    full_fence();
    if (reached_by_far_barriers.load(std::memory_order_relaxed))
        syscall(SYS_membarrier, MEMBARRIER_CMD_GLOBAL_EXPEDITED, 0);
}

void process_barrier() noexcept {
    constexpr useconds_t kLong = 10000; // microseconds; a store leaves its processor far sooner
    full_fence();
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) == 0) return;
    const CancellationOff whole;
    usleep(kLong);
}

} // namespace halvo
