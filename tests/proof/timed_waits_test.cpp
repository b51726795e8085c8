// Threads wait for messages with deadlines of 0 to 3 ms while a monitor scans in a tight loop and a
// message comes now and then, often at the very moment at which the time is up.
#include <dlfcn.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>

#include <array>
#include <cstdarg>

#include "tests/proof/form.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

constexpr int kChannels = 8;
constexpr int kSharers = 4;          // threads that read the last channel together
constexpr int64_t kGrace = 300000;   // microseconds beyond the deadline
constexpr uint32_t kRemembered = 64; // more than a ring holds

// When the thread last got a mutex. A read looks at the ring under the mutex of its end, so a
// message that was complete before must have been seen by the last look of a call.
thread_local int64_t gLastLock = 0;
std::atomic<int> gRegistrations{0}; // for barriers, which the kernel may take seconds for

} // namespace

// What takes the place of the system's, for the library too.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__) // whose start it would break
extern "C" HALVO_API long syscall(long number, ...) noexcept {
    using Call = long (*)(long, ...);
    static const auto call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "syscall"));
    long words[6];
    va_list list;
    va_start(list, number);
    for (long &word : words) word = va_arg(list, long);
    va_end(list);
    gRegistrations +=
        number == SYS_membarrier && (words[0] == MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED ||
                                     words[0] == MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED);
    return call(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}
#endif
#ifndef __SANITIZE_THREAD__ // which has its own
extern "C" HALVO_API int pthread_mutex_lock(pthread_mutex_t *mutex) {
    using Lock = int (*)(pthread_mutex_t *);
    static const auto lock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int result = lock(mutex);
    gLastLock = microseconds_now();
    return result;
}
#endif

namespace {

struct Counts {
    std::atomic<int64_t> waits{0}, timed_out{0}, received{0}, too_long{0}, beside{0}, longest{0};
};

// What a channel's writer has sent, and when each message was complete.
struct Sent {
    std::atomic<uint32_t> count{0};
    std::array<std::atomic<int64_t>, kRemembered> complete{};
};

class TimedWaits : public testing::Test {
protected:
    const uint32_t number = seed();
    const int waits_of_each = length(20000, 1000000) / (kChannels - 1 + kSharers) + 1;
    Segment segment = build();
    FrxChannel writers[kChannels]{}, readers[kChannels]{};
    Sent sent[kChannels];
    std::atomic<bool> stop{false};
    Counts counts;

    static Segment build() {
        SegmentBuilder builder;
        for (int i = 0; i < kChannels; ++i) builder.channel("C" + std::to_string(i), 'M', 4, 64);
        return builder.build();
    }
    void SetUp() override {
        ASSERT_EQ(initialise(segment), ESMS_OK);
        q_set_spin(0); // the sleep is what is at stake
        for (int i = 0; i < kChannels; ++i) {
            ASSERT_EQ(frx_openChannel(&writers[i], "w", i, 'w', 1000), ESMS_OK);
            ASSERT_EQ(frx_openChannel(&readers[i], "r", i, 'r', 1000), ESMS_OK);
        }
    }

    void write_now_and_then() {
        std::minstd_rand random(number);
        while (!stop) {
            usleep(static_cast<useconds_t>(random() % 1000));
            const auto i = random() % kChannels;
            if (::frx_write(&writers[i], 1, "x", 1, -1) != ESMS_OK) continue; // full
            const uint32_t n = sent[i].count;
            sent[i].complete[n % kRemembered] = microseconds_now();
            sent[i].count = n + 1;
        }
    }

    // Whether message n was complete before this thread's last look.
    bool overlooked(int channel, uint32_t n) const {
        return sent[channel].count > n && sent[channel].complete[n % kRemembered] < gLastLock;
    }

    void wait_often(int channel, uint32_t own_seed, bool alone, const Stalls &stalls) {
        std::minstd_rand random(own_seed);
        Slot slot(q_chnnl2q(channel));
        uint32_t next = 0;
        for (int i = 0; i < waits_of_each; ++i) {
            const int timeout = static_cast<int>(random() % 4);
            const int64_t start = microseconds_now();
            const int result = frx_read(&readers[channel], slot.data(), timeout);
            const int64_t end = microseconds_now();
            ++counts.waits;
            if (result == ESMS_TIMEOUT) {
#ifndef __SANITIZE_THREAD__
                EXPECT_GE(gLastLock, start);
#endif
                ++counts.timed_out;
                counts.beside += alone && overlooked(channel, next);
            } else {
                EXPECT_EQ(result, 1);
                ++next, ++counts.received;
            }
            const int64_t limit = timeout * 1000 + kGrace;
            if (end - start > counts.longest) counts.longest = end - start;
            if (end - start > limit && stalls.without_stalls(start, end) > limit) ++counts.too_long;
        }
    }
};

} // namespace

TEST_F(TimedWaits, end_in_time_and_overlook_nothing) {
    const Stalls stalls;
    const int attached = gRegistrations;
    std::thread monitor([&] {
        while (!stop) monitorTimeout();
    });
    std::thread writer([&] { write_now_and_then(); });
    std::vector<std::thread> threads;
    for (int i = 0; i < kChannels - 1 + kSharers; ++i) {
        const int channel = std::min(i, kChannels - 1);
        threads.emplace_back([&, channel, i] {
            wait_often(channel, number + 1 + static_cast<uint32_t>(i), channel < kChannels - 1,
                       stalls);
        });
    }
    for (std::thread &thread : threads) thread.join();
    stop = true;
    monitor.join();
    writer.join();
    figure("waits with deadlines of 0 to 3 ms",
           "at least " + std::to_string(length(20000, 1000000)), counts.waits);
    figure("of them timed out / given a message", "-",
           std::to_string(counts.timed_out) + " / " + std::to_string(counts.received));
    figure("waits longer than their deadline + 300 ms", "0", counts.too_long);
    figure("calls that timed out beside a message", "0", counts.beside);
    figure("longest wait / longest stall of the machine, microseconds", "-",
           std::to_string(counts.longest) + " / " + std::to_string(stalls.longest()));
    EXPECT_GT(counts.timed_out, counts.waits / 10);
    EXPECT_GT(counts.received, 0);
    EXPECT_EQ(gRegistrations, attached);
}

// A thread that waits costs next to nothing, whether it sleeps on its semaphore or, for want of
// one, looks every millisecond.
TEST(WaitingCost, is_below_a_hundredth_of_a_processor) {
    const Segment segment =
        SegmentBuilder().channel("M", 'M', 4, 64).channel("F", 'F', 4, 64).build();
    ASSERT_EQ(initialise(segment), ESMS_OK);
    const int seconds = length(2, 10);
    Slot slot(q_chnnl2q(0));
    for (int channel : {0, 1}) {
        FrxChannel end{};
        ASSERT_EQ(frx_openChannel(&end, "waits", channel, 'r', 1000), ESMS_OK);
        const int64_t before = processor_time(RUSAGE_THREAD);
        ASSERT_EQ(frx_read(&end, slot.data(), seconds * 1000), ESMS_TIMEOUT);
        const int64_t used = processor_time(RUSAGE_THREAD) - before;
        char percent[16];
        std::snprintf(percent, sizeof percent, "%.3f", static_cast<double>(used) / seconds / 10000);
        figure(channel == 0 ? "a waiting thread, percent of a processor"
                            : "the same on a channel without semaphores",
               channel == 0 ? "below 1" : "-", percent);
        EXPECT_LT(used, seconds * (channel == 0 ? 10000 : 500000));
    }
}
