#include "core/mapping.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace halvo {

namespace {

// A number and no lock: q_settime() may be called by a signal handler that interrupts another one.
std::atomic<int> users{0};

// The other threads of the parent, and what they used, are not in the child.
[[maybe_unused]] const int watched = pthread_atfork(nullptr, nullptr, [] { users = 0; });

} // namespace

MappingUse::MappingUse() noexcept {
    users.fetch_add(1, std::memory_order_seq_cst);
    segment_ = std::atomic_ref(attached).load(std::memory_order_seq_cst);
}

MappingUse::~MappingUse() { users.fetch_sub(1, std::memory_order_release); }

void wait_for_mapping_users() noexcept {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    while (users.load(std::memory_order_seq_cst) != 0) usleep(50);
}

} // namespace halvo
