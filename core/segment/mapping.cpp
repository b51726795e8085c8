#include "core/segment/mapping.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "core/base/posix.h"

namespace halvo {

namespace {

// A number and no lock: q_settime() may be called by a signal handler that interrupts another one.
// The upper half counts the forks that this process descends from: the other threads of the parent,
// and what they used, are not in the child, and what a handler that forked had interrupted neither.
std::atomic<uint32_t> users{0};
constexpr uint32_t kFork = 1U << 16;

[[maybe_unused]] const int watched =
    pthread_atfork(nullptr, nullptr, [] { users = users / kFork * kFork + kFork; });

} // namespace

MappingUse::MappingUse() noexcept
    : forks_(users.fetch_add(1, std::memory_order_seq_cst) / kFork),
      segment_(std::atomic_ref(attached).load(std::memory_order_seq_cst)) {}

MappingUse::~MappingUse() {
    uint32_t word = users.load(std::memory_order_relaxed);
    while (word / kFork == forks_ &&
           !users.compare_exchange_weak(word, word - 1, std::memory_order_release)) {
    }
}

void wait_for_mapping_users() noexcept {
    const CancellationOff whole;
    // Adds nothing, but orders the look behind the caller's store.
    while (users.fetch_add(0, std::memory_order_seq_cst) % kFork != 0) usleep(50);
}

} // namespace halvo
