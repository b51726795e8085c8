// Waits: how they end, and what they leave behind.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sem.h>

#include <csignal>
#include <thread>

#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

class FrxWaiting : public FrxTest {
protected:
    // Runs a call that is to end by its time limit of 300 ms; the monitor looks every 100 ms.
    template <class Call>
    void expect_timeout(Call call, int code) {
        const int64_t start = milliseconds_now();
        EXPECT_EQ(call(), code);
        EXPECT_GE(milliseconds_now() - start, 300);
        EXPECT_LT(milliseconds_now() - start, 2000) << "or the machine is very busy";
        EXPECT_EQ(unreg_wait_thread(), -1) << "no registration is left";
    }
};

void ignore(int) {}

// A thread that ends by its cancellation, if at all. (Not tried under the address sanitizer.)
[[maybe_unused]] void *read_from(void *end) {
    char slot[64];
    frx_read(static_cast<FrxChannel *>(end), slot, 60000);
    return nullptr;
}

int value_of(const Segment &segment, const char *suffix) {
    const std::string path = segment.key_file() + suffix;
    return semctl(semget(ftok(path.c_str(), 1), 1, 0), 0, GETVAL);
}

// A thread that has been cancelled when it writes what the channel cannot take.
[[maybe_unused]] void *write_cancelled(void *end) {
    const char too_long[4096] = {};
    pthread_cancel(pthread_self());
    ::frx_write(static_cast<FrxChannel *>(end), 1, too_long, sizeof too_long, 0);
    pthread_testcancel();
    return nullptr;
}

// Replaces standard output by a pipe that takes no byte more.
[[maybe_unused]] void stall_output() {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    char page[4096] = {};
    while (::write(ends[1], page, sizeof page) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
}

// A signal that is not the monitor's, to this thread, again and again until it is stopped.
class ForeignSignals {
public:
    ForeignSignals()
        : thread_([this, target = pthread_self()] {
              while (!stop_) {
                  usleep(30000);
                  pthread_kill(target, SIGUSR1);
              }
          }) {
        struct sigaction action {};
        action.sa_handler = ignore;
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~ForeignSignals() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace

TEST_F(FrxWaiting, ends_in_time) {
    Slot slot(q);
    expect_timeout([&] { return frx_read(&reader, slot.data(), 300); }, ESMS_TIMEOUT);
    expect_timeout([&] { return frx_readBuf(&reader, slot.data(), 300, 0); }, ESMS_TIMEOUT);
    expect_timeout([&] { return frx_readMark(&reader, 0, 300); }, 0);
    EXPECT_EQ(q->rwait, 0);
    fill(4);
    expect_timeout([&] { return frx_write(&writer, "x", 300); }, ESMS_TIMEOUT);
    expect_timeout([&] { return frx_writeMark(&writer, 1, "x", 1, 300); }, ESMS_TIMEOUT);
    expect_timeout([&] { return frx_writeBuf(&writer, 1, "x", 1, 0, 300); }, ESMS_TIMEOUT);
    EXPECT_EQ(q->wwait, 0);
}

TEST_F(FrxWaiting, a_limit_of_nothing_ends_at_the_next_scan) {
    EXPECT_EQ(read(0), "[-1]");
    EXPECT_EQ(read(-500), "[-1]");
    fill(4);
    EXPECT_EQ(frx_write(&writer, "x", -1), ESMS_FULL) << "a negative write does not wait";
}

TEST_F(FrxWaiting, a_writer_that_waits_goes_on_when_room_is_made) {
    fill(4);
    std::thread later([&] {
        usleep(100000);
        EXPECT_EQ(halvo::load(q->wwait), 1);
        EXPECT_EQ(read(), "0");
    });
    EXPECT_EQ(frx_write(&writer, "late", 10000), ESMS_OK);
    later.join();
    EXPECT_EQ(q->wwait, 0);
}

TEST_F(FrxWaiting, a_reader_that_waits_gets_what_a_commit_makes_readable) {
    frx_writeMark(&writer, 1, "marked", 6, -1);
    std::thread later([&] {
        usleep(100000);
        EXPECT_EQ(frx_writeCommit(&writer), ESMS_OK);
    });
    EXPECT_EQ(read(10000), "marked");
    later.join();
}

TEST_F(FrxWaiting, another_signal_interrupts) {
    const ForeignSignals signals;
    Slot slot(q);
    EXPECT_EQ(frx_read(&reader, slot.data(), 10000), ESMS_JAVAINTR);
    EXPECT_EQ(frx_readMark(&reader, 0, 10000), ESMS_JAVAINTR);
    fill(4);
    EXPECT_EQ(frx_write(&writer, "x", 10000), ESMS_JAVAINTR);
    EXPECT_EQ(frx_writeBuf(&writer, 1, "x", 1, 0, 10000), ESMS_JAVAINTR);
    EXPECT_EQ(q->wwait, 0);
    EXPECT_EQ(q->rwait, 0);
}

TEST_F(FrxWaiting, without_a_semaphore_a_call_polls_and_ends_in_time) {
    FrxChannel file_end{};
    ASSERT_EQ(frx_openChannel(&file_end, "f", 1, 'r', 1000), ESMS_OK);
    Slot slot(q);
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    expect_timeout([&] { return frx_read(&file_end, slot.data(), 300); }, ESMS_TIMEOUT);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_utime.tv_sec * 1000 + after.ru_utime.tv_usec / 1000 -
                  before.ru_utime.tv_sec * 1000 - before.ru_utime.tv_usec / 1000,
              150)
        << "it must not spin";
    std::thread later([&] {
        usleep(50000);
        halvo::test::write(segment.channel("FQ01"), "here");
    });
    EXPECT_EQ(frx_read(&file_end, slot.data(), 10000), 4);
    later.join();
}

TEST_F(FrxWaiting, a_semaphore_removed_under_a_wait_ends_it_in_time) {
    std::thread remover([&] {
        usleep(100000);
        const std::string post = segment.key_file() + ".post";
        semctl(semget(ftok(post.c_str(), 1), 1, 0), 0, IPC_RMID);
    });
    Slot slot(q);
    expect_timeout([&] { return frx_read(&reader, slot.data(), 300); }, ESMS_TIMEOUT);
    remover.join();
}

TEST_F(FrxWaiting, a_message_or_room_that_nobody_told_of_is_found) {
    const auto wait_beside = [this](auto silent, auto call) {
        const int64_t start = milliseconds_now();
        std::thread later([&] {
            usleep(50000);
            silent();
        });
        call();
        EXPECT_LT(milliseconds_now() - start, 2000) << "or the machine is very busy";
        later.join();
    };
    wait_beside([this] { halvo::test::write(q, "silent"); },
                [this] { EXPECT_EQ(read(10000), "silent"); });
    fill(4);
    wait_beside([this] { halvo::test::read(q); },
                [this] { EXPECT_EQ(frx_write(&writer, "x", 10000), ESMS_OK); });
}

TEST_F(FrxWaiting, whoever_begins_to_wait_wakes_the_other_side) {
    q->wwait = 1;
    EXPECT_EQ(read(0), "[-1]");
    EXPECT_EQ(value_of(segment, ".req"), 1);
    q->wwait = 0;
    fill(4);
    q->rwait = 1;
    EXPECT_EQ(frx_write(&writer, "x", 0), ESMS_TIMEOUT);
    EXPECT_EQ(value_of(segment, ".post"), 1);
}

#ifndef __SANITIZE_ADDRESS__ // which takes the frames that a cancellation leaves for living ones
TEST_F(FrxWaiting, a_cancelled_thread_withdraws_its_wait) {
    FrxChannel file_end{};
    ASSERT_EQ(frx_openChannel(&file_end, "f", 1, 'r', 1000), ESMS_OK);
    for (FrxChannel *end : {&reader, &file_end}) {
        const halvo_channel *channel = q_chnnl2q(end->channel);
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, read_from, end), 0);
        while (halvo::load(channel->rwait) == 0) usleep(100);
        usleep(end == &reader ? 20000 : 0); // asleep, or anywhere in its round
        pthread_cancel(thread);
        void *result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(channel->rwait, 0);
    }
    EXPECT_EQ(reg_wait_thread(0), 0) << "no registration is left";
    unreg_wait_thread();
    fill(1);
    EXPECT_EQ(read(), "0");
}

TEST_F(FrxWaiting, a_cancelled_thread_that_prints_a_refusal_gives_the_end_back) {
    setvbuf(stdout, nullptr, _IONBF, 0); // so that each line is written at once
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, write_cancelled, &writer), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    fill(1);
    EXPECT_EQ(read(), "0");
}
#endif

TEST_F(FrxWaiting, a_throttled_reader_and_a_blocked_writer_do_not_wake_each_other_for_ever) {
    fill(4);
    q->tpsmx = 1;
    q->gcnt.count = 100000; // far above the limit until the period ends
    q->tpsstart = q_settime() - 1;
    std::thread blocked([&] { EXPECT_EQ(frx_write(&writer, "x", 500), ESMS_TIMEOUT); });
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(read(500), "[-1]");
    blocked.join();
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 200) << "sleeps of both threads together";
}

TEST_F(FrxWaiting, threads_of_one_end_share_it) {
    std::atomic<int> received{0};
    const auto receive = [&] {
        Slot slot(q);
        while (frx_read(&reader, slot.data(), 400) > 0) ++received;
    };
    const auto send = [&] {
        for (int i = 0; i < 500; ++i) EXPECT_EQ(frx_write(&writer, "m", 10000), ESMS_OK);
    };
    std::thread readers[] = {std::thread(receive), std::thread(receive), std::thread(receive)};
    std::thread writers[] = {std::thread(send), std::thread(send)};
    for (std::thread &thread : writers) thread.join();
    for (std::thread &thread : readers) thread.join();
    EXPECT_EQ(received, 1000);
}

// The lock of an end that one thread has had alone for long enough is given back without the mutex.
TEST_F(FrxWaiting, a_thread_that_had_the_end_alone_lets_others_in) {
    std::atomic<bool> stop{false};
    std::thread alone([&] {
        while (!stop) ASSERT_GE(frx_write(&writer, "m", -1), ESMS_FULL);
    });
    for (int round = 0; round < 200; ++round) {
        for (int i = 0; i < 20; ++i) ASSERT_EQ(read(), "m");
        ASSERT_EQ(frx_lock(&writer), ESMS_OK);
        const int64_t written = frx_pcount(0);
        while (q_getcount(q) > 0) ASSERT_EQ(read(), "m"); // room for whoever is not kept out
        usleep(100);
        EXPECT_EQ(frx_pcount(0), written) << "written under another thread's lock";
        ASSERT_EQ(frx_unlock(&writer), ESMS_OK);
    }
    stop = true;
    alone.join();
}

TEST(FrxSessions, a_forked_child_is_a_process_of_its_own) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    ASSERT_EQ(initialise(segment), ESMS_OK);
    FrxChannel reader{};
    ASSERT_EQ(frx_openChannel(&reader, "parent", 0, 'r', 1000), ESMS_OK);
    Slot slot(q_chnnl2q(0));
    EXPECT_EQ(frx_read(&reader, slot.data(), 0), ESMS_TIMEOUT);
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        while (!stop) {
            reg_wait_thread(60000);
            unreg_wait_thread();
        }
    });
    reg_wait_thread(60000);
    for (int i = 0; i < 200; ++i) {
        Peer child([&] {
            alarm(10);
            if (frx_read(&reader, slot.data(), 0) != ESMS_ACCESS) return 1;
            return reg_wait_thread(1000) == 0 ? 0 : 2; // its parent's waits are not its own
        });
        ASSERT_EQ(child.wait(), 0);
    }
    stop = true;
    busy.join();
}

#ifndef __SANITIZE_THREAD__ // whose _exit() waits for standard output
TEST(FrxSessions, a_stalled_standard_output_holds_no_time_limit) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    for (const bool somebody_prints : {false, true}) {
        Peer process([&] {
            FrxChannel end{};
            if (initialise(segment) != ESMS_OK) return 1;
            if (frx_openChannel(&end, "reader", 0, 'r', 1000) != ESMS_OK) return 2;
            stall_output();
            std::thread printer([=] {
                if (somebody_prints) std::puts(std::string(100000, 'x').c_str());
            });
            printer.detach();
            usleep(100000);
            if (!somebody_prints) std::fputs("kept in the buffer", stdout);
            char slot[64];
            const int64_t start = milliseconds_now();
            const int first = frx_read(&end, slot, 100), second = frx_read(&end, slot, 100);
            _exit(first == ESMS_TIMEOUT && second == ESMS_TIMEOUT &&
                          milliseconds_now() - start < 5000
                      ? 0
                      : 3);
        });
        alarm(20);
        EXPECT_EQ(process.wait(), 0);
    }
}
#endif

TEST(FrxSessions, a_segment_goes_beside_the_monitor_and_its_clock) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    for (int i = 0; i < 20; ++i) {
        Peer process([&] {
            if (initialise(segment) != ESMS_OK) return 1;
            std::thread clock([] {
                while (q_settime() != -1) {
                }
            });
            std::thread monitor([] {
                while (q_settime() != -1) frx_monitorTimeout();
            });
            usleep(2000);
            const int result = close_shm();
            clock.join();
            monitor.join();
            return result;
        });
        ASSERT_EQ(process.wait(), 0);
    }
}

TEST(FrxSessions, a_reader_killed_while_it_sleeps_gives_the_channel_back) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    Signal opened;
    Peer sleeper([&] {
        FrxChannel end{};
        if (initialise(segment) != ESMS_OK) return 1;
        if (frx_openChannel(&end, "sleeper", 0, 'r', 5000) != ESMS_OK) return 2;
        opened.send();
        Slot slot(q_chnnl2q(0));
        return frx_read(&end, slot.data(), 60000);
    });
    ASSERT_TRUE(opened.wait());
    ASSERT_EQ(initialise(segment), ESMS_OK);
    FrxChannel reader{}, writer{};
    EXPECT_EQ(frx_openChannel(&reader, "late", 0, 'r', 150), ESMS_ACCESS);
    sleeper.kill(SIGKILL);
    sleeper.wait();
    ASSERT_EQ(frx_openChannel(&reader, "next", 0, 'r', 5000), ESMS_OK);
    ASSERT_EQ(frx_openChannel(&writer, "writer", 0, 'w', 5000), ESMS_OK);
    EXPECT_EQ(frx_write(&writer, "still here", 0), ESMS_OK);
    Slot slot(q_chnnl2q(0));
    EXPECT_EQ(frx_read(&reader, slot.data(), 5000), 10);
    EXPECT_EQ(slot.body(), "still here");
}
