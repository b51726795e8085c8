// This process's id, which a 32-bit process would ask the kernel for at each operation.
#pragma once

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace halvo {

// A page that the kernel empties in the child of every fork, also of one that runs no handlers of the
// C library: _Fork(), clone().
struct alignas(4096) OwnPage {
    std::atomic<int32_t> process_id{0}; // 0: not known
};
extern OwnPage own_page __attribute__((visibility("hidden")));
int32_t learn_process_id() noexcept;

// getpid(); a forked child asks anew.
inline int32_t process_id() noexcept {
    const int32_t id = own_page.process_id.load(std::memory_order_relaxed);
    return id != 0 ? id : learn_process_id();
}

// Whether a process of that id is there, or was a moment ago.
inline bool is_alive(int32_t pid) noexcept {
    return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH);
}

} // namespace halvo
