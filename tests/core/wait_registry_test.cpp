#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

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

TEST_F(WaitRegistry, fires_an_overdue_thread_and_frees_its_entry) {
    EXPECT_EQ(reg_wait_thread(60000), 0);
    EXPECT_EQ(monitorTimeout(), 0);
    EXPECT_EQ(getSignal(), 0) << "not due";
    EXPECT_EQ(unreg_wait_thread(), 0);
    EXPECT_EQ(reg_wait_thread(-5), 0);
    usleep(1000);
    monitorTimeout();
    EXPECT_EQ(getSignal(), SIGUSR2);
    EXPECT_EQ(unreg_wait_thread(), -1) << "the monitor has freed it";
    EXPECT_EQ(reg_wait_thread(60000), 0);
    EXPECT_EQ(getSignal(), 0) << "a registration forgets earlier signals";
    monitorTimeout();
    EXPECT_EQ(getSignal(), 0);
}

TEST_F(WaitRegistry, signals_the_thread_that_is_due_and_no_other) {
    std::atomic<bool> registered{false}, go{false};
    std::thread other([&] {
        EXPECT_EQ(reg_wait_thread(60000), 0);
        registered = true;
        while (!go) std::this_thread::yield();
        EXPECT_EQ(getSignal(), 0);
        EXPECT_EQ(unreg_wait_thread(), 0);
    });
    while (!registered) std::this_thread::yield();
    EXPECT_EQ(reg_wait_thread(0), 1);
    usleep(1000);
    monitorTimeout();
    EXPECT_EQ(getSignal(), SIGUSR2);
    go = true;
    other.join();
}

TEST_F(WaitRegistry, has_room_for_1024_and_no_more) {
    for (int i = 0; i < 1024; ++i) ASSERT_EQ(reg_wait_thread(60000), i);
    EXPECT_EQ(reg_wait_thread(60000), -1);
    EXPECT_EQ(unreg_wait_thread(), 0);
    EXPECT_EQ(reg_wait_thread(60000), 0);
    captured_stdout([] { init_sig(); });
    EXPECT_EQ(unreg_wait_thread(), -1) << "starting again wipes all registrations";
}
