// Waits: how they end, and what they leave behind.
#include <thread>

#include "tests/proof/single_step.h"
#include "tests/support/cancelled.h"
#include "tests/support/frx_fixture.h"
#include "tests/support/ipc.h"

using namespace halvo::test;

using FrxWaiting = FrxTest;

TEST_F(FrxWaiting, a_thread_that_blocks_all_signals_has_its_limits) {
    sigset_t mask;
    sigfillset(&mask);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    EXPECT_EQ(read(100), "[-1]");
    EXPECT_EQ(frx_readMark(&reader, 1, 100), 0);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGUSR2), 1) << "afterwards it blocks them again";
    std::jthread later([&] {
        flockfile(stdout);
        usleep(300000);
        funlockfile(stdout);
        usleep(300000);
        fill(1);
    });
    usleep(50000);
    q_open_wait(-1, 'r', 1); // its line comes after its limit
    EXPECT_EQ(read(), "0");
}

TEST_F(FrxWaiting, the_monitor_gets_no_signal_of_the_program) {
    static volatile sig_atomic_t handled = 0;
    signal(SIGALRM, [](int) { handled = 1; });
    {
        const halvo::SignalsOff kept;
        kill(getpid(), SIGALRM);
        usleep(50000);
        EXPECT_EQ(handled, 0) << "it waits for a thread that lets it in";
    }
    EXPECT_EQ(handled, 1);
}

TEST_F(FrxWaiting, ends_when_the_other_side_has_done_its_half) {
    FrxChannel file_end{};
    ASSERT_EQ(frx_openChannel(&file_end, "f", 1, 'r', 1000), ESMS_OK);
    Slot slot(q);
    qmsg *room = nullptr;
    const struct {
        const char *what;
        std::function<void()> begin, serve;
        std::function<int()> wait;
        int result;
    } rows[] = {
        {"a commit", [&] { frx_writeMark(&writer, 1, "marked", 6, -1); },
         [&] { EXPECT_EQ(frx_writeCommit(&writer), ESMS_OK); },
         [&] { return frx_read(&reader, slot.data(), 10000); }, 6},
        {"a commit of a batch",
         [&] { EXPECT_EQ(frx_writeMarkAt(&writer, 1, "m", 1, 0, -1), ESMS_OK); },
         [&] { EXPECT_EQ(frx_writeCommitAll(&writer), ESMS_OK); },
         [&] {
             const int marked = frx_readMark(&reader, 0, 10000);
             return marked + frx_readCommit(&reader, 0);
         },
         2},
        {"a message that nobody told of", [] {}, [&] { halvo::test::write(q, "silent"); },
         [&] { return frx_read(&reader, slot.data(), 10000); }, 6},
        {"a publication", [&] { EXPECT_EQ(frx_reserve(&writer, 4, &room, 0), ESMS_OK); },
         [&] { EXPECT_EQ(frx_publish(&writer, 1, 4), ESMS_OK); },
         [&] { return frx_readBody(&reader, nullptr, slot.data(), 48, 10000); }, 4},
        {"a message without a semaphore", [] {},
         [&] { halvo::test::write(segment.channel("FQ01"), "here"); },
         [&] { return frx_read(&file_end, slot.data(), 10000); }, 4},
        {"a read", [&] { fill(4); },
         [&] {
             EXPECT_EQ(halvo::load(q->wwait), 1);
             EXPECT_EQ(read(), "0");
         },
         [&] { return frx_write(&writer, "late", 10000); }, ESMS_OK},
        {"a release", [] {},
         [&] {
             const qmsg *next = nullptr;
             EXPECT_EQ(frx_peek(&reader, &next, 20000), 1);
             EXPECT_EQ(frx_release(&reader, 0), ESMS_OK);
         },
         [&] { return frx_reserve(&writer, 4, &room, 10000); }, ESMS_OK},
        {"room that nobody told of", [&] { EXPECT_EQ(frx_publish(&writer, 1, 4), ESMS_OK); },
         [&] { halvo::test::read(q); }, [&] { return frx_write(&writer, "x", 10000); }, ESMS_OK},
    };
    for (const auto &[what, begin, serve, wait, result] : rows) {
        SCOPED_TRACE(what);
        begin();
        const int64_t start = milliseconds_now();
        std::thread later([&, &act = serve] {
            usleep(50000);
            act();
        });
        EXPECT_EQ(wait(), result);
        EXPECT_LT(milliseconds_now() - start, 2000) << "or the machine is very busy";
        later.join();
        EXPECT_EQ(q->wwait + q->rwait, 0);
    }
}

TEST_F(FrxWaiting, ends_when_another_process_has_got_the_end) {
    for (FrxChannel *end : {&reader, &writer}) {
        const bool reads = end == &reader;
        if (!reads) fill(3); // the message for the other is still there
        int result = 0;
        char slot[64];
        std::thread waiting(
            [&] { result = reads ? frx_read(end, slot, 10000) : frx_write(end, "stray", 10000); });
        EXPECT_TRUE(comes_true([&] { return halvo::load(reads ? q->rwait : q->wwait) > 0; }));
        EXPECT_EQ(frx_closeChannel(end), ESMS_OK);
        Peer other([&] { return q_open(0, end->side) ? 0 : 1; });
        EXPECT_EQ(other.wait(), 0);
        if (reads)
            EXPECT_EQ(frx_write(&writer, "for the other", 0), ESMS_OK);
        else
            EXPECT_EQ(read(0), "for the other");
        waiting.join();
        EXPECT_EQ(result, ESMS_ACCESS);
        EXPECT_EQ(value_of(set_under(segment.key_file() + (reads ? ".post" : ".req"), 1)), 1)
            << "the other may wait there";
        ASSERT_EQ(frx_openChannel(end, "again", 0, end->side, 1000), ESMS_OK);
    }
}

TEST_F(FrxWaiting, whoever_begins_to_wait_wakes_the_other_side) {
    q->wwait = 1;
    EXPECT_EQ(read(0), "[-1]");
    EXPECT_EQ(value_of(set_under(segment.key_file() + ".req", 1)), 1);
    q->wwait = 0;
    fill(4);
    q->rwait = 1;
    EXPECT_EQ(frx_write(&writer, "x", 0), ESMS_TIMEOUT);
    EXPECT_EQ(value_of(set_under(segment.key_file() + ".post", 1)), 1);
}

TEST_F(FrxWaiting, a_mark_and_a_parked_message_wake_nobody) {
    const int post = set_under(segment.key_file() + ".post", 1);
    EXPECT_EQ(frx_writeBuf(&writer, 1, "x", 1, 0, -1), ESMS_OK);
    q->rwait = q->wwait = 1;
    EXPECT_EQ(frx_writeBufCommit(&writer, 0), ESMS_OK);
    EXPECT_EQ(frx_writeMark(&writer, 1, "x", 1, -1), ESMS_OK);
    EXPECT_EQ(value_of(post), 0);
    EXPECT_EQ(q->wwait, 1) << "of the writers that wait";
    EXPECT_EQ(frx_writeCommit(&writer), ESMS_OK);
    EXPECT_EQ(value_of(post), 1);
    q->wwait = 1;
    const qmsg *next = nullptr;
    EXPECT_EQ(frx_peek(&reader, &next, 0), 1);
    EXPECT_EQ(frx_release(&reader, 0), ESMS_OK);
    EXPECT_EQ(value_of(set_under(segment.key_file() + ".req", 1)), 1);
}

#ifndef __SANITIZE_ADDRESS__ // see tests/support/cancelled.h
TEST_F(FrxWaiting, a_cancelled_thread_withdraws_its_wait) {
    FrxChannel file_end{};
    ASSERT_EQ(frx_openChannel(&file_end, "f", 1, 'r', 1000), ESMS_OK);
    for (FrxChannel *end : {&reader, &file_end}) {
        const halvo_channel *channel = q_chnnl2q(end->channel);
        char slot[64];
        expect_cancelled([&] { frx_read(end, slot, 60000); },
                         [&](pthread_t thread) {
                             while (halvo::load(channel->rwait) == 0) usleep(100);
                             usleep(end == &reader ? 20000 : 0); // asleep, or anywhere in its round
                             pthread_cancel(thread);
                         });
        EXPECT_EQ(channel->rwait, 0);
    }
    EXPECT_EQ(reg_wait_thread(0), 0) << "no registration is left";
    unreg_wait_thread();
    fill(1);
    EXPECT_EQ(read(), "0");
}

// Such calls throw nothing and cannot be unwound: they end first, and give back what they took.
TEST_F(FrxWaiting, a_cancelled_thread_ends_behind_a_call_that_does_not_wait_for_a_message) {
    setvbuf(stdout, nullptr, _IONBF, 0); // so that each line is written at once
    const char too_long[4096] = {};
    const std::function<void()> calls[] = {
        [&] { ::frx_write(&writer, 1, too_long, sizeof too_long, 0); }, // prints a refusal
        [] { q_recover(0, 'r'); },
        [] { init_shm(""); },
        [] { q_save_snapshot("", 1, "/dev/null"); },
        [] { timeoutLoop(nullptr); }, // has pauses in which it goes
        init_sig};
    for (const std::function<void()> &call : calls) expect_cancelled(call);
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
    const long before = usage_of(RUSAGE_SELF).ru_nvcsw;
    EXPECT_EQ(read(500), "[-1]");
    blocked.join();
    EXPECT_LT(usage_of(RUSAGE_SELF).ru_nvcsw - before, 200) << "sleeps of both threads together";
}

// A throttled reader is woken in vain by each message; a signal may come at any moment of that.
TEST_F(FrxWaiting, a_signal_ends_the_wait_of_a_reader_that_is_woken_in_vain) {
    signal(SIGUSR1, [](int) {});
    fill(1);
    q->tpsmx = 1;
    q->gcnt.count = 100000;
    std::atomic<bool> stop{false};
    std::jthread poster([&] {
        while (!stop) sem_postx(0);
    });
    for (int i = 0; i < 150; ++i) {
        q->tpsstart = q_settime() - 1;
        std::thread thread([&] { EXPECT_EQ(read(5000), "[-15]") << "lost"; });
        while (halvo::load(q->rwait) == 0) usleep(100);
        usleep(static_cast<useconds_t>(i * 7));
        pthread_kill(thread.native_handle(), SIGUSR1);
        thread.join();
    }
    stop = true;
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

TEST(FrxSessions, a_forked_child_is_a_process_of_its_own) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    FrxChannel reader{};
    ASSERT_TRUE(start_with(segment, reader, 'r'));
    Slot slot(q_chnnl2q(0));
    EXPECT_EQ(frx_read(&reader, slot.data(), 0), ESMS_TIMEOUT);
    std::atomic<bool> stop{false};
    std::jthread busy([&] {
        frx_lock(&reader);
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
            if (frx_closeChannel(&reader) != ESMS_ACCESS) return 3; // it would let a second one in
            if (frx_lock(&reader) != ESMS_OK) return 4;             // whoever held it in the parent
            return reg_wait_thread(1000) == 0 ? 0 : 2; // its parent's waits are not its own
        });
        ASSERT_EQ(child.wait(), 0);
    }
    stop = true;
}

#ifndef __SANITIZE_THREAD__ // which knows no such lock, and whose _exit() waits for standard output
// A thread that has had an end alone stops on its way in, and the end becomes another one's.
TEST(FrxSessions, an_end_that_one_thread_had_alone_becomes_another_ones) {
    static struct Other { volatile bool may_come, is_in; } &other = shared_object<Other>();
    static FrxChannel end;
    Stage &stage = shared_object<Stage>();
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    const auto take_end = [](int times) {
        while (times-- > 0) frx_writeRollback(&end);
    };
    const auto prepare = [&] {
        start_with(segment, end, 'w');
        signal(SIGSEGV, [](int) { // the other one has the lock, and keeps it
            other.is_in = true;
            for (;;) pause();
        });
        std::thread([=] {
            while (!other.may_come) usleep(100);
            take_end(100);
            const auto *nothing = reinterpret_cast<char *>(1); // NOLINT(performance-no-int-to-ptr)
            ::frx_write(&end, 1, nothing, 1, -1);
        }).detach();
        take_end(40);
    };
    const auto other_gets_in_behind = [&](int instructions) {
        other = {};
        SingleStep process(stage, prepare, [] { return frx_writeRollback(&end); });
        while (instructions-- > 0) process.step();
        other.may_come = true;
        const bool got_in = comes_true([] { return other.is_in; }, 1);
        ptrace(PTRACE_CONT, process.pid(), nullptr, nullptr);
        usleep(5000);
        EXPECT_FALSE(got_in && process.has_returned()) << "both had the lock";
        return got_in;
    };
    constexpr int kStride = 16; // shorter than the time that the first one has the lock
    int n = kStride;
    while (other_gets_in_behind(n)) n += kStride;
    for (n -= kStride; other_gets_in_behind(n); ++n) continue;
}

TEST(FrxSessions, a_stalled_standard_output_holds_no_time_limit) {
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    int pipe[2];
    ASSERT_EQ(pipe2(pipe, O_NONBLOCK), 0);
    while (::write(pipe[1], "x", 1) > 0) continue; // until it takes no byte more
    fcntl(pipe[1], F_SETFL, 0);
    for (const bool somebody_prints : {false, true}) {
        Peer process([&] {
            FrxChannel end{};
            if (!start_with(segment, end, 'r')) return 1;
            dup2(pipe[1], STDOUT_FILENO);
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
