// Semaphores and the segment are removed under those who wait, more threads wait than the registry
// holds, an end is closed twice: each call ends with the documented result, in time.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <functional>
#include <memory>
#include <thread>

#include "tests/proof/form.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"
#include "tests/support/small_thread.h"

using namespace halvo::test;

namespace {

constexpr int64_t kGrace = 300000; // microseconds beyond the deadline
constexpr int kReadLockProject = 201, kWriteLockProject = 202;

class Removals : public FrxTest {
protected:
    Stalls stalls;
    std::atomic<int> late{0};

    int set_of(const std::string &suffix, int project) {
        const std::string path = segment.key_file() + suffix;
        return semget(ftok(path.c_str(), project), 0, 0);
    }
    void remove_set(const std::string &suffix, int project) {
        EXPECT_EQ(semctl(set_of(suffix, project), 0, IPC_RMID), 0) << suffix << project;
    }

    // A call that is to end with a code within so many milliseconds.
    template <class Call>
    void expect_end(Call call, int code, int milliseconds) {
        const int64_t start = microseconds_now();
        EXPECT_EQ(call(), code);
        const int64_t end = microseconds_now();
        const int64_t limit = milliseconds * 1000 + kGrace;
        if (end - start > limit && stalls.without_stalls(start, end) > limit) ++late;
    }

    // Runs an action while others are in their waits.
    template <class Action>
    std::thread soon(Action action) {
        return std::thread([=] {
            usleep(100000);
            action();
        });
    }
    void report(const std::string &what) {
        figure(what + ": calls that ended late", "0", late);
        EXPECT_EQ(late, 0);
    }
};

} // namespace

TEST_F(Removals, of_the_post_semaphore_under_readers) {
    std::thread remover = soon([this] { remove_set(".post", 1); });
    std::thread other([&] {
        Slot slot(q);
        expect_end([&] { return frx_read(&reader, slot.data(), 500); }, ESMS_TIMEOUT, 500);
    });
    Slot slot(q);
    expect_end([&] { return frx_readBuf(&reader, slot.data(), 400, 0); }, ESMS_TIMEOUT, 400);
    other.join();
    remover.join();
    // From now on there is none.
    expect_end([&] { return frx_read(&reader, slot.data(), 200); }, ESMS_TIMEOUT, 200);
    expect_end([&] { return frx_readMark(&reader, 0, 200); }, 0, 200);
    std::thread sender = soon([this] { EXPECT_EQ(frx_write(&writer, "here", 0), ESMS_OK); });
    expect_end([&] { return frx_read(&reader, slot.data(), 20000); }, 4, 100);
    sender.join();
    report("post semaphore removed under readers");
}

TEST_F(Removals, of_the_request_semaphore_under_writers) {
    fill(4);
    std::thread remover = soon([this] { remove_set(".req", 1); });
    expect_end([&] { return frx_write(&writer, "x", 500); }, ESMS_TIMEOUT, 500);
    remover.join();
    expect_end([&] { return frx_writeMark(&writer, 1, "x", 1, 200); }, ESMS_TIMEOUT, 200);
    expect_end([&] { return frx_writeBuf(&writer, 1, "x", 1, 0, 200); }, ESMS_TIMEOUT, 200);
    std::thread taker = soon([this] { EXPECT_EQ(read(), "0"); });
    expect_end([&] { return frx_write(&writer, "x", 20000); }, ESMS_OK, 100);
    taker.join();
    report("request semaphore removed under writers");
}

TEST_F(Removals, of_the_lock_sets_under_those_who_open) {
    const auto remove_both = [this] {
        remove_set("", kReadLockProject);
        remove_set("", kWriteLockProject);
    };
    std::thread remover = soon(remove_both);
    std::thread without_limit([&] { expect_end([&] { return q_open(0, 'w') ? 1 : 0; }, 0, 100); });
    FrxChannel another{};
    expect_end([&] { return frx_openChannel(&another, "late", 0, 'r', 20000); }, ESMS_ACCESS, 100);
    without_limit.join();
    remover.join();
    expect_end([&] { return frx_openChannel(&another, "late", 0, 'w', 1000); }, ESMS_ACCESS, 0);
    // Those who hold an end go on, and are told when they close it.
    EXPECT_EQ(frx_write(&writer, "goes on", 0), ESMS_OK);
    EXPECT_EQ(read(), "goes on");
    expect_end([&] { return frx_closeChannel(&reader); }, ESMS_MTXLOCK, 0);
    expect_end([&] { return frx_closeChannel(&writer); }, ESMS_MTXUNLOCK, 0);
    report("lock sets removed under those who open");
}

TEST_F(Removals, of_the_segment_under_its_users) {
    Slot slot(q);
    std::thread remover = soon([this] {
        const int id = shmget(ftok(segment.key_file().c_str(), 1), 0, 0);
        EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
    });
    expect_end([&] { return frx_read(&reader, slot.data(), 500); }, ESMS_TIMEOUT, 500);
    remover.join();
    std::thread sender = soon([this] { EXPECT_EQ(frx_write(&writer, "still", 0), ESMS_OK); });
    expect_end([&] { return frx_read(&reader, slot.data(), 20000); }, 5, 100);
    sender.join();
    expect_end([&] { return frx_closeChannel(&reader); }, ESMS_OK, 0);
    report("segment removed under its users");
}

TEST(RemovalsAtStart, a_removed_segment_admits_nobody_more) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    shmctl(shmget(ftok(segment.key_file().c_str(), 1), 0, 0), IPC_RMID, nullptr);
    const StdoutCapture capture;
    EXPECT_EQ(init_shm(segment.key_file().c_str()), ESMS_SHMOP);
}

// The registry holds 1024 waits. One more has no time limit of its own, and ends when its message
// comes.
TEST_F(Removals, of_nothing_but_1025_threads_wait) {
    // All of them must have begun before the first one's time is up.
#ifdef __SANITIZE_THREAD__
    constexpr int kTimeout = 20000;
#else
    constexpr int kTimeout = 2000;
#endif
    constexpr int kWaiters = 1025;
    std::atomic<int> timed_out{0}, received{0}, at_work{0};
    {
        std::vector<std::unique_ptr<SmallThread>> threads;
        for (int i = 0; i < kWaiters; ++i) {
            threads.push_back(std::make_unique<SmallThread>([&] {
                Slot slot(q);
                ++at_work;
                const int64_t start = microseconds_now();
                const int result = frx_read(&reader, slot.data(), kTimeout);
                const int64_t end = microseconds_now(), limit = kTimeout * 1000 + kGrace;
                if (result == 4) {
                    ++received;
                } else if (result == ESMS_TIMEOUT) {
                    ++timed_out;
                    if (end - start > limit && stalls.without_stalls(start, end) > limit) ++late;
                }
            }));
            ASSERT_TRUE(threads.back()->started());
        }
        while (timed_out < kWaiters - 1) usleep(10000);
        usleep(2000000);
        EXPECT_EQ(received, 0);
        EXPECT_EQ(at_work, kWaiters);
        const int64_t start = microseconds_now();
        EXPECT_EQ(frx_write(&writer, "last", 0), ESMS_OK);
        while (received == 0 && timed_out < kWaiters) usleep(1000);
        const int64_t end = microseconds_now();
        if (stalls.without_stalls(start, end) > kGrace) ++late;
    }
    figure("1,025 threads wait: timed out / given the message", "1024 / 1",
           std::to_string(timed_out) + " / " + std::to_string(received));
    EXPECT_EQ(timed_out, kWaiters - 1);
    report("1,025 threads wait");
}

// Kept: closing twice gives the end back twice. The kernel undoes one of them when the process ends.
TEST_F(Removals, of_an_end_that_is_closed_already) {
    Peer twice([&] { // has the ends of this process no more
        FrxChannel end{};
        if (frx_openChannel(&end, "twice", 1, 'w', 1000) != ESMS_OK) return 1;
        if (frx_closeChannel(&end) != ESMS_OK) return 2;
        expect_end([&] { return frx_closeChannel(&end); }, ESMS_OK, 0);
        return semctl(set_of("", kWriteLockProject), 1, GETVAL) == 2 ? 0 : 3;
    });
    EXPECT_EQ(twice.wait(), 0);
    EXPECT_EQ(semctl(set_of("", kWriteLockProject), 1, GETVAL), 1);
    report("an end closed twice");
}
