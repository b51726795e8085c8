// Threads that are cancelled in a call of the library. Not for the address sanitizer, which takes the
// frames that a cancellation leaves for living ones.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <functional>

namespace halvo::test {

// Makes a call in a thread that ends by its cancellation, in the call or behind it.
inline void expect_cancelled(std::function<void()> call,
                             const std::function<void(pthread_t)> &meanwhile = pthread_cancel) {
    const auto body = [](void *to_call) -> void * {
        (*static_cast<std::function<void()> *>(to_call))();
        for (;;) pause();
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &call), 0);
    meanwhile(thread);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

} // namespace halvo::test
