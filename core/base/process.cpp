#include "core/base/process.h"

#include <pthread.h>
#include <unistd.h>

namespace halvo {

std::atomic<int32_t> known_process_id{0};

namespace {

pthread_once_t watched = PTHREAD_ONCE_INIT;
bool watches_forks = false;

void forget() { known_process_id = 0; }
void watch_forks() { watches_forks = pthread_atfork(nullptr, nullptr, forget) == 0; }

} // namespace

int32_t learn_process_id() noexcept {
    pthread_once(&watched, watch_forks);
    const auto id = static_cast<int32_t>(getpid());
    if (watches_forks) known_process_id = id;
    return id;
}

} // namespace halvo
