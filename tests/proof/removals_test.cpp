// Semaphores and the segment are removed under those who wait, more threads wait than the registry
// holds, an end is closed twice: each call ends with the documented result, in time.
#include "tests/proof/form.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"
#include "tests/support/ipc.h"
#include "tests/support/ring_calls.h"

using namespace halvo::test;

namespace {

constexpr int64_t kGrace = 300000; // microseconds beyond the deadline
constexpr std::string_view kWaiting[] = {
    "frx_read",  "frx_readMark",  "frx_readBuf",  "frx_peek",    "frx_readBody", "frx_readMany",
    "frx_write", "frx_writeMark", "frx_writeBuf", "frx_reserve", "frx_writeMany"};

class Removals : public FrxTest {
protected:
    Stalls stalls;
    std::atomic<int> late{0};

    void remove_set(const std::string &suffix, int number) {
        EXPECT_EQ(semctl(set_under(segment.key_file() + suffix, number), 0, IPC_RMID), 0)
            << suffix << number;
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

    // All calls of the end's side wait at the same time, and time out.
    void expect_timeouts(FrxChannel &end, int milliseconds) {
        std::vector<std::thread> threads;
        for (const RingCall &call : kRingCalls) {
            const bool waits = std::count(std::begin(kWaiting), std::end(kWaiting), call.name);
            if (!waits || call.side != end.side) continue;
            threads.emplace_back([&, milliseconds] {
                char room[2][64];
                FrxMessage batch[] = {{1, 1, 64, room[0]}, {1, 1, 64, room[1]}};
                const Given given{q, &end, 0, 1, 0, milliseconds, "x", 1, room[0], 64, batch};
                const int64_t start = microseconds_now();
                expect_end([&] { return call.run(given); },
                           call.name == "frx_readMark" ? 0 : ESMS_TIMEOUT, milliseconds);
                EXPECT_GE(microseconds_now() - start, milliseconds * 1000) << call.name;
                EXPECT_EQ(unreg_wait_thread(), -1) << "no registration is left";
            });
        }
        for (std::thread &thread : threads) thread.join();
        EXPECT_EQ(q->rwait + q->wwait, 0);
    }

    // Runs an action while others are in their waits.
    template <class Action>
    std::thread soon(Action action) {
        return std::thread([=] {
            usleep(100000);
            action();
        });
    }
    void report(const std::string &what) { figure(what + ": calls that ended late", "0", late); }
};

} // namespace

TEST_F(Removals, of_the_semaphores_under_readers_and_writers) {
    const struct {
        FrxChannel &end;
        const char *suffix, *what;
        int (*wait)(FrxChannel *);
        int result;
        std::function<void()> serve;
    } sides[] = {
        {reader, ".post", "post semaphore removed under readers",
         [](FrxChannel *end) { return frx_read(end, std::string(64, 0).data(), 20000); }, 4,
         [this] { EXPECT_EQ(frx_write(&writer, "here", 0), ESMS_OK); }},
        {writer, ".req", "request semaphore removed under writers",
         [](FrxChannel *end) { return frx_write(end, "x", 20000); }, ESMS_OK,
         [this] { EXPECT_EQ(read(), "0"); }},
    };
    for (const auto &[end, suffix, what, wait, result, serve] : sides) {
        if (end.side == 'w') fill(4);
        expect_timeouts(end, 300);
        std::thread remover = soon([&] { remove_set(suffix, 1); });
        expect_timeouts(end, 500);
        remover.join();
        expect_timeouts(end, 200); // from now on there is none
        std::thread server = soon(serve);
        expect_end([&] { return wait(&end); }, result, 100);
        server.join();
        report(what);
    }
}

TEST_F(Removals, of_the_lock_sets_under_those_who_open) {
    const auto remove_both = [this] {
        remove_set("", kReadLocks);
        remove_set("", kWriteLocks);
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
    std::thread remover = soon(
        [this] { EXPECT_EQ(shmctl(segment_under(segment.key_file()), IPC_RMID, nullptr), 0); });
    expect_end([&] { return frx_read(&reader, slot.data(), 500); }, ESMS_TIMEOUT, 500);
    remover.join();
    std::thread sender = soon([this] { EXPECT_EQ(frx_write(&writer, "still", 0), ESMS_OK); });
    expect_end([&] { return frx_read(&reader, slot.data(), 20000); }, 5, 100);
    sender.join();
    expect_end([&] { return frx_closeChannel(&reader); }, ESMS_OK, 0);
    report("segment removed under its users");
}

// The registry holds 1024 waits. One more has no time limit of its own, and ends when its message
// comes. While they sleep they cost next to nothing.
TEST_F(Removals, of_nothing_but_1025_threads_wait) {
    constexpr int kWaiters = 1025;
    const int seconds = length(2, 10);
    // All of them must have begun before the first one's time is up.
#ifdef __SANITIZE_THREAD__
    const int timeout = 20000, most = 1000;
#else
    const int timeout = (seconds + 2) * 1000, most = length(100, 200); // milliseconds
    // The address space of a 32-bit process does not hold a thousand stacks of the usual size.
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 256 * 1024);
    ASSERT_EQ(pthread_setattr_default_np(&small), 0);
#endif
    std::atomic<int> timed_out{0}, received{0};
    const auto used_in = [](int halves) { // of a second
        const int64_t before = processor_time(RUSAGE_SELF);
        for (int i = 0; i < halves; ++i) usleep(500000);
        return processor_time(RUSAGE_SELF) - before;
    };
    const int64_t idle = used_in(1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&] {
            Slot slot(q);
            const int64_t start = microseconds_now();
            const int result = frx_read(&reader, slot.data(), timeout);
            const int64_t end = microseconds_now(), limit = timeout * 1000 + kGrace;
            received += result == 4;
            if (result != ESMS_TIMEOUT) return;
            ++timed_out;
            late += end - start > limit && stalls.without_stalls(start, end) > limit;
        });
    }
    sleep(1);
    const int64_t used = used_in(2 * seconds) - 2 * seconds * idle;
    figure("1,025 sleepers for " + std::to_string(seconds) + " s: processor time, milliseconds",
           "below " + std::to_string(most), used / 1000);
    EXPECT_LT(used, most * 1000);
    while (timed_out < kWaiters - 1) usleep(10000);
    usleep(2000000);
    EXPECT_EQ(received, 0);
    expect_end([&] { return frx_write(&writer, "last", 0); }, ESMS_OK, 0);
    expect_end(
        [&] {
            while (received == 0 && timed_out < kWaiters) usleep(1000);
            return received.load();
        },
        1, 0);
    for (std::thread &thread : threads) thread.join();
    figure("1,025 threads wait: timed out / given the message", "1024 / 1",
           std::to_string(timed_out) + " / " + std::to_string(received));
    report("1,025 threads wait");
}

// Kept: closing twice gives the end back twice. The kernel undoes one of them when the process ends.
TEST_F(Removals, of_an_end_that_is_closed_already) {
    Peer twice([&] { // has the ends of this process no more
        FrxChannel end{};
        if (frx_openChannel(&end, "twice", 1, 'w', 1000) != ESMS_OK) return 1;
        if (frx_closeChannel(&end) != ESMS_OK) return 2;
        expect_end([&] { return frx_closeChannel(&end); }, ESMS_OK, 0);
        return value_of(set_under(segment.key_file(), kWriteLocks), 1) == 2 ? 0 : 3;
    });
    EXPECT_EQ(twice.wait(), 0);
    EXPECT_EQ(value_of(set_under(segment.key_file(), kWriteLocks), 1), 1);
    report("an end closed twice");
}
