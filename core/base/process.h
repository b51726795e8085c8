// This process's id, which a 32-bit process would ask the kernel for at each operation.
#pragma once

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace halvo {

extern std::atomic<int32_t> known_process_id __attribute__((visibility("hidden"))); // 0: not known
int32_t learn_process_id() noexcept;

// getpid(); a forked child asks anew.
inline int32_t process_id() noexcept {
    const int32_t id = known_process_id.load(std::memory_order_relaxed);
    return id != 0 ? id : learn_process_id();
}

// Whether a process of that id is there, or was a moment ago.
inline bool is_alive(int32_t pid) noexcept {
    return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH);
}

} // namespace halvo
