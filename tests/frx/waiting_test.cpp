// Waits: how they end, and what they leave behind.
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
