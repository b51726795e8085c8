// An end whose holder died between two stores is put right by the next holder.
#include <atomic>
#include <thread>

#include "tests/support/frx_fixture.h"

using namespace halvo::test;
using halvo::slot_at;

namespace {

class Recover : public RingTest<4, 'w'> {
protected:
    void SetUp() override {
        RingTest::SetUp();
        segment.open("MT01", 'r');
        q->pidg = 0; // no living peer to wait for
    }
    int recover(char mode) {
        (mode == 'w' ? q->pidp : q->pidg) = getpid();
        (mode == 'w' ? q->pidg : q->pidp) = 0;
        return q_recover(0, mode);
    }
    void step_back(uint32_t &position) {
        position = position == q->qstart ? q->qend - q->qbsz : position - q->qbsz;
    }
};

} // namespace

TEST_F(Recover, moves_a_position_that_is_one_slot_behind) {
    // From every place in the ring, with every number of messages.
    for (int start = 0; start < 4; ++start) {
        for (int messages = 1; messages <= 4; ++messages) {
            for (int i = 0; i < messages; ++i) write(q, std::to_string(i));
            step_back(q->wpos);
            EXPECT_EQ(recover('w'), HALVO_RECOVERED_POSITION) << picture(q);
            EXPECT_EQ(recover('w'), 0);
            for (int i = 0; i < messages; ++i) {
                EXPECT_EQ(read(q), std::to_string(i));
                step_back(q->rpos);
                EXPECT_EQ(recover('r'), HALVO_RECOVERED_POSITION) << picture(q);
            }
            EXPECT_EQ(q->rpos, q->wpos);
        }
        write(q, "one further");
        read(q);
    }
}

TEST_F(Recover, is_for_the_holder_of_an_end) {
    q->pidp = 1;
    EXPECT_EQ(q_recover(0, 'w'), ESMS_ACCESS);
    EXPECT_EQ(q_recover(0, 'x'), ESMS_FAILED);
    EXPECT_EQ(q_recover(1, 'w'), ESMS_INVAL);
    EXPECT_EQ(q_recover(-1, 'r'), ESMS_INVAL);
}

TEST_F(Recover, leaves_the_position_alone_when_the_slots_are_no_single_run) {
    write(q, "a");
    slot_at(q, q->qstart + 2 * q->qbsz)->state = HALVO_SLOT_READABLE;
    const uint32_t before = q->wpos;
    EXPECT_EQ(recover('w'), 0);
    EXPECT_EQ(q->wpos, before);
}

TEST_F(Recover, waits_for_a_living_peer_to_finish) {
    write(q, "m");
    step_back(q->wpos);
    Peer reader([&] { // takes the message and is held up before it moves its position
        halvo::store(q->pidg, static_cast<int32_t>(getpid()));
        halvo::publish_state(slot_at(q, q->rpos), HALVO_SLOT_FREE);
        usleep(2000);
        halvo::store(q->rpos, halvo::next_offset(halvo::ring_of(q), q->rpos));
        usleep(200000);
    });
    while (halvo::load_state(slot_at(q, q->rpos)) != HALVO_SLOT_FREE) usleep(100);
    EXPECT_EQ(q_recover(0, 'w'), HALVO_RECOVERED_POSITION);
    EXPECT_EQ(q->wpos, q->rpos);
    EXPECT_EQ(write(q, "next"), ESMS_OK);
    EXPECT_EQ(read(q), "next");
}

using WideRecover = RingTest<4096, 'r'>; // looking at all slots takes a while

TEST_F(WideRecover, sees_that_a_writer_has_come_and_gone_meanwhile) {
    q->pidp = 0;
    for (int round = 0; round < 40; ++round) {
        std::atomic<bool> ready{false};
        std::thread recovery([&] {
            ready = true;
            q_recover(0, 'r');
        });
        while (!ready) __builtin_ia32_pause();
        for (int i = 0; i < round * 20; ++i) __builtin_ia32_pause();
        halvo::store(q->pidp, static_cast<int32_t>(getpid()));
        for (const char *text : {"a", "b", "c"}) write(q, text);
        halvo::store(q->pidp, INT32_MAX - round); // no process has so large an id
        recovery.join();
        for (const char *text : {"a", "b", "c"}) ASSERT_EQ(read(q), text) << "round " << round;
    }
}
