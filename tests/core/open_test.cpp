#include "tests/support/frx_fixture.h"
#include "tests/support/ipc.h"

using namespace halvo::test;

TEST(Open, and_close_have_an_answer_for_every_mistake) {
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_open(0, 'r'), nullptr); }),
              "shared queue is not attached !!!!!!!!!!!!!!!!!\n");
    EXPECT_EQ(q_close(0, 'r'), ESMS_NOINIT);
    const Segment s = two_channels();
    s.attach();
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_open(2, 'r'), nullptr); }),
              "Ivalid Channel 2 valid range(0,1) \n");
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_open(-1, 'w'), nullptr); }),
              "Ivalid Channel -1 valid range(0,1) \n");
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_open(0, 'z'), nullptr); }), "");
    EXPECT_EQ(q_close(-1, 'r'), ESMS_INVAL);
    EXPECT_EQ(q_close(2, 'z'), ESMS_INVAL) << "the channel is looked at first";
    EXPECT_EQ(q_close(0, 'z'), ESMS_FAILED);
    EXPECT_EQ(q_close(0, 'x'), ESMS_OK);
}

TEST(Open, of_a_free_end_is_ended_by_no_signal) {
    const Segment s = two_channels();
    s.attach();
    signal(SIGALRM, [](int) {});
    ualarm(100, 100);
    for (int i = 0; i < 20000; ++i) ASSERT_TRUE(q_open(0, 'r') && q_close(0, 'r') == ESMS_OK);
}

TEST(Open, records_the_owner_and_an_observer_records_nothing) {
    const Segment s = two_channels();
    s.attach();
    const halvo_channel *q = q_chnnl2q(0);
    EXPECT_EQ(q_open(0, 'x'), q);
    EXPECT_EQ(q->pidg + q->pidp, 0);
    EXPECT_EQ(q_open(0, 'r'), q);
    EXPECT_EQ(q->pidp, 0);
    EXPECT_EQ(q_close(0, 'r'), ESMS_OK);
    EXPECT_EQ(q->pidg, getpid()) << "the last holder stays visible";
    if (_Fork() == 0) _exit(q_open(0, 'w')->pidp != getpid()); // a fork that runs no handlers
    int status = -1;
    wait(&status);
    EXPECT_EQ(status, 0) << "a child is a process of its own";
}

TEST(Open, one_process_at_a_time_holds_an_end_and_a_killed_one_gives_it_back) {
    const Segment s = two_channels();
    Signal held;
    Peer sleeper([&] {
        FrxChannel end{};
        if (!start_with(s, end, 'r')) return 1;
        held.send();
        return frx_read(&end, Slot(q_chnnl2q(0)).data(), 60000);
    });
    ASSERT_TRUE(held.wait());
    ASSERT_EQ(initialise(s), ESMS_OK);
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_open_wait(0, 'r', 150), nullptr); }),
              "q r lock error(0) Interrupted system call\n");
    EXPECT_NE(q_open_wait(0, 'w', 150), nullptr) << "the other end is free";
    sleeper.kill(SIGKILL);
    EXPECT_EQ(sleeper.wait(), 128 + SIGKILL);
    halvo_channel *q = q_open_wait(0, 'r', 5000);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q->pidg, getpid());
}

TEST(Semaphores, exist_for_channels_of_type_m_alone_and_merge_posts) {
    const Segment s = two_channels();
    s.attach();
    const int post = set_under(s.key_file() + ".post", 1);
    const int request = set_under(s.key_file() + ".req", 1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(sem_postx(0) | sem_rqst(0), 0);
        EXPECT_EQ(value_of(post), 1);
        EXPECT_EQ(value_of(request), 1);
    }
    EXPECT_EQ(sem_wait4read(0) | sem_wait4write(0), 0);
    EXPECT_EQ(value_of(post) + value_of(request), 0);
    for (int channel : {1, -1, 2, 999, INT32_MAX})
        for (const int result : {sem_wait4read(channel), sem_wait4write(channel),
                                 sem_postx(channel), sem_rqst(channel)})
            EXPECT_EQ(result, -1) << channel;
}
