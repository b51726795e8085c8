#include <malloc.h>

#include <atomic>
#include <thread>

#include "halvo/queue.h"
#include "tests/support/capture.h"
#include "tests/support/peer.h"

using namespace halvo::test;

namespace {

class WaitRegistry : public testing::Test {
protected:
    void SetUp() override {
        captured_stdout([] { init_sig(); });
    }
};

} // namespace

TEST(SignalService, prints_its_banner) {
    const std::string rule = "/" + std::string(61, '*') + "/\n";
    const std::string banner = captured_stdout([] { init_sig(); });
    EXPECT_EQ(banner, rule + "/*             Signal Service Initialized at #" +
                          std::to_string(static_cast<int>(pthread_self())) + "             */\n" +
                          rule);
    EXPECT_EQ(captured_stdout([] { signal_handler2(12); }),
              "signal(12) handled2 at #" + std::to_string(static_cast<int>(pthread_self())) +
                  " \n");
    EXPECT_EQ(getSignal(), 12);
}

// A program that never calls init_sig() keeps its own first key, and its time limits do not kill it.
TEST(SignalService, starts_by_itself_where_nobody_starts_it) {
    pthread_key_t key = 1;
    for (pthread_key_t made = 0; made < 40 && key != 0; ++made) pthread_key_create(&key, nullptr);
    char value = 0;
    pthread_setspecific(0, &value);
    EXPECT_EQ(reg_wait_thread(-5), 0);
    EXPECT_EQ(pthread_getspecific(0), &value);
    usleep(1000);
    monitorTimeout();
    EXPECT_EQ(getSignal(), SIGUSR2);
    EXPECT_EQ(pthread_getspecific(0), &value);
    pthread_setspecific(0, nullptr);
}

#ifndef __SANITIZE_ADDRESS__ // which counts in its own way
TEST_F(WaitRegistry, the_handler_takes_no_memory) {
    for (int i = 0; i < 40; ++i) {
        pthread_key_t other = 0;
        pthread_key_create(&other, nullptr);
    }
    captured_stdout([] { init_sig(); });
    std::thread([] {
        const auto before = mallinfo2();
        signal_handler(SIGUSR2);
        const auto after = mallinfo2();
        EXPECT_EQ(after.uordblks, before.uordblks);
        EXPECT_EQ(getSignal(), SIGUSR2);
    }).join();
    captured_stdout([] { init_sig(); });
    EXPECT_EQ(getSignal(), 0) << "what was caught before the last start counts no more";
}
#endif

TEST_F(WaitRegistry, fires_the_thread_that_is_due_and_no_other) {
    std::atomic<bool> registered{false}, go{false};
    std::jthread other([&] {
        EXPECT_EQ(reg_wait_thread(60000), 0);
        registered = true;
        while (!go) std::this_thread::yield();
        EXPECT_EQ(getSignal(), 0) << "not due";
        EXPECT_EQ(unreg_wait_thread(), 0);
    });
    while (!registered) std::this_thread::yield();
    EXPECT_EQ(reg_wait_thread(-5), 1);
    usleep(1000);
    EXPECT_EQ(monitorTimeout(), 0);
    EXPECT_EQ(getSignal(), SIGUSR2);
    EXPECT_EQ(unreg_wait_thread(), -1) << "the monitor has freed it";
    EXPECT_EQ(reg_wait_thread(60000), 1);
    EXPECT_EQ(getSignal(), 0) << "a registration forgets earlier signals";
    go = true;
}

TEST_F(WaitRegistry, has_room_for_1024_and_no_more) {
    for (int i = 0; i < 1024; ++i) ASSERT_EQ(reg_wait_thread(60000), i);
    EXPECT_EQ(reg_wait_thread(60000), -1);
    EXPECT_EQ(unreg_wait_thread(), 0);
    EXPECT_EQ(reg_wait_thread(60000), 0);
    captured_stdout([] { init_sig(); });
    EXPECT_EQ(unreg_wait_thread(), -1) << "starting again wipes all registrations";
}
