// This process's id, which a 32-bit process would ask the kernel for at each operation.
#pragma once

#include <atomic>
#include <cstdint>

namespace halvo {

extern std::atomic<int32_t> known_process_id __attribute__((visibility("hidden"))); // 0: not known
int32_t learn_process_id() noexcept;

// getpid(); a forked child asks anew.
inline int32_t process_id() noexcept {
    const int32_t id = known_process_id.load(std::memory_order_relaxed);
    return id != 0 ? id : learn_process_id();
}

} // namespace halvo
