// sms_sig: the signal that ends overdue waits. The handler is installed without restart, so that
// an interrupted semaphore wait returns; it leaves the signal's number with its thread.
//
// The number lies in the thread's own storage, which is there from its start: to set a value by the
// key can take memory, and a handler must not. The key stands for one start of the service: a number
// that was left under an earlier key counts no more.
#include "core/wait/signals.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/base/output.h"
#include "halvo/queue.h"

namespace {

constexpr pthread_key_t kNoKey = ~pthread_key_t{0};
std::atomic<pthread_key_t> keySig{kNoKey};
std::atomic<bool> started{false};

struct Caught {
    volatile pthread_key_t key;
    volatile int number;
};
[[gnu::tls_model("initial-exec")]] thread_local constinit Caught caught{kNoKey, 0};

} // namespace

namespace halvo {

bool make_signal_key() noexcept {
    started = true;
    pthread_key_t key = 0;
    if (pthread_key_create(&key, nullptr) != 0) return false;
    keySig = key;
    return true;
}

void start_signal_service() noexcept {
    if (started.exchange(true)) return;
    make_signal_key();
    struct sigaction found {};
    if (sigaction(SIGUSR2, nullptr, &found) == 0 && found.sa_handler == SIG_DFL) install_handler();
}

void forget_signal() noexcept { caught.number = 0; }

} // namespace halvo

int install_handler() noexcept {
    struct sigaction action {};
    action.sa_handler = signal_handler; // flags 0: no SA_RESTART, or no wait would ever time out
    if (sigaction(SIGUSR2, &action, nullptr) == 0) return 0;
    const int error = errno;
    std::printf("sigaction error(%d) at %dline in %s\n system exit!", error, 231, "sms_sig");
    printr("sigaction error", error);
    std::exit(-1);
}

void signal_handler(int number) noexcept {
    caught.key = keySig.load(std::memory_order_relaxed);
    caught.number = number;
}

void signal_handler2(int number) noexcept {
    signal_handler(number);
    halvo::print("signal(%d) handled2 at #%d \n", number, static_cast<int>(pthread_self()));
}

int getSignal() noexcept {
    const int number = caught.number;
    return caught.key == keySig.load(std::memory_order_relaxed) ? number : 0;
}
