// sms_sig: the signal that ends overdue waits. The handler is installed without restart, so that
// an interrupted semaphore wait returns; it leaves the signal's number in a slot of its thread.
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/wait_registry.h"
#include "halvo/queue.h"

namespace {

pthread_key_t keySig;

constexpr char kRule[] = "/*************************************************************/";
static_assert(sizeof kRule == 1 + 61 + 1 + 1);

int thread_number() { return static_cast<int>(pthread_self()); }

} // namespace

namespace halvo {

void forget_signal() noexcept { pthread_setspecific(keySig, nullptr); }

} // namespace halvo

void init_sig() noexcept {
    // Kept: every call makes a new key and wipes the registry; the old key is abandoned.
    if (pthread_key_create(&keySig, nullptr) != 0)
        std::printf("pthread_key_create error at %dline in %s/\n", 255, "sms_sig");
    halvo::clear_wait_registry();
    install_handler();
    std::puts(kRule);
    std::printf("/*             Signal Service Initialized at #%d             */\n",
                thread_number());
    std::puts(kRule);
}

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
    const int error = errno;
    pthread_setspecific(keySig, reinterpret_cast<void *>(static_cast<intptr_t>(number)));
    errno = error;
}

void signal_handler2(int number) noexcept {
    signal_handler(number);
    std::printf("signal(%d) handled2 at #%d \n", number, thread_number());
}

int getSignal() noexcept {
    return static_cast<int>(reinterpret_cast<intptr_t>(pthread_getspecific(keySig)));
}
