// What the header says counts at every operation, whatever the process has seen of it before.
#include "tests/support/capture.h"
#include "tests/support/ring.h"
#include "tests/support/ring_calls.h"

using namespace halvo::test;

namespace {

class Header : public RingTest<4, 'w'> {
protected:
    std::string buffer = std::string(64, '?');
    FrxChannel end{};

    // Each of the core's calls once, on whatever the ring holds.
    template <class Judge>
    void make_each_call(Judge judge) {
        Given given{q, &end};
        given.data = "m";
        given.length = 1;
        given.room = buffer.data();
        given.capacity = 48;
        for (const RingCall &call : kRingCalls) {
            if (call.is_guarded()) continue;
            SCOPED_TRACE(call.name);
            judge(call, [&] {
                int result = 0;
                captured_stdout([&] { result = call.run(given); });
                return result;
            });
        }
    }
    // Bytes of the segment from the only channel's header on.
    uint32_t room() const { return (q->qend + 63) / 64 * 64; }
};

} // namespace

TEST_F(Header, a_position_of_zero_is_none_before_the_first_step_and_after_it) {
    for (int stepped = 0; stepped < 2; ++stepped) {
        SCOPED_TRACE(stepped);
        q->rpos = q->wpos = 0; // where the header's own first word, qcnt, has the value of a state
        q->qcnt = HALVO_SLOT_READABLE;
        EXPECT_EQ(q_read(q, buffer.data()), ESMS_EMPTY);
        EXPECT_EQ(q->qcnt, 1u);
        q->qcnt = HALVO_SLOT_PENDING;
        EXPECT_EQ(q_write_commit(q), ESMS_NOTARGET);
        EXPECT_EQ(q->qcnt, 5u);
        EXPECT_EQ(write(q, "first slot"), ESMS_OK);
        EXPECT_EQ(read(q), "first slot");
        q->rpos = q->wpos = q->qstart;
    }
}

TEST_F(Header, every_operation_but_a_look_sets_a_heartbeat_that_another_process_has_cleared) {
    make_each_call([this](const RingCall &call, auto run) {
        int32_t &heartbeat = call.side == 'w' ? q->wtime : q->rtime;
        run();
        heartbeat = 7;
        run();
        EXPECT_EQ(heartbeat, call.is_silent() ? 7 : static_cast<int32_t>(q_gettime()));
    });
}

TEST_F(Header, a_ring_that_was_changed_while_both_ends_rested_is_used_as_it_is) {
    write(q, "before");
    EXPECT_EQ(read(q), "before");
    // Two slots, from the second one on.
    q->qstart = q->qstart + q->qbsz;
    q->qend = q->qstart + 2 * q->qbsz;
    q->qcnt = 2;
    q->rpos = q->wpos = q->qstart;
    EXPECT_EQ(write(q, "1"), ESMS_OK);
    EXPECT_EQ(write(q, "2"), ESMS_OK);
    EXPECT_EQ(write(q, "3"), ESMS_FULL);
    EXPECT_EQ(picture(q), "><FF");
    EXPECT_EQ(read(q), "1");
    EXPECT_EQ(read(q), "2");
    // Slots of half the size.
    q->qbsz = 32;
    q->qcnt = 4;
    q->rpos = q->wpos = q->qstart;
    EXPECT_EQ(write(q, std::string(16, 'x')), ESMS_OK);
    captured_stdout([&] { EXPECT_EQ(write(q, std::string(17, 'x')), ESMS_EXEED); });
    EXPECT_EQ(q->wpos, q->qstart + 32);
    EXPECT_EQ(read(q), std::string(16, 'x'));
}

TEST_F(Header,
       a_ring_outside_the_segment_is_touched_by_no_operation_and_serves_again_when_it_is_right) {
    write(q, "kept");
    struct Damage {
        halvo_u32 halvo_channel::*word;
        uint32_t value;
    };
    const uint32_t beyond = room();
    for (const Damage &damage :
         {Damage{&halvo_channel::qend, beyond + 1}, Damage{&halvo_channel::qend, UINT32_MAX},
          Damage{&halvo_channel::qend, q->qstart + 63}, Damage{&halvo_channel::qstart, 0},
          Damage{&halvo_channel::qstart, sizeof(halvo_channel) - 1},
          Damage{&halvo_channel::qstart, UINT32_MAX - 15}, Damage{&halvo_channel::qbsz, 15},
          Damage{&halvo_channel::qbsz, UINT32_MAX}}) {
        SCOPED_TRACE(damage.value);
        const uint32_t right = q->*damage.word;
        q->*damage.word = damage.value;
        make_each_call([](const RingCall &, auto run) { EXPECT_EQ(run(), ESMS_INVAL); });
        EXPECT_EQ(q_name2chnnl("MT01"), -1);
        q->*damage.word = right;
        EXPECT_EQ(picture(q), ">F<___");
    }
    EXPECT_EQ(write(q, "more"), ESMS_OK);
    EXPECT_EQ(read(q), "kept");
    EXPECT_EQ(read(q), "more");
}

TEST_F(Header, buffers_outside_the_segment_fail_alone) {
    const uint32_t beyond = room();
    for (const uint32_t area : {0u, beyond - 63, UINT32_MAX - 100}) {
        q->rbufs = q->wbufs = area;
        EXPECT_EQ(q_read_buf(q, buffer.data(), 0), ESMS_INVAL);
        EXPECT_EQ(q_read_buf_clear(q, 0), ESMS_INVAL);
        EXPECT_EQ(write_buf(q, "m", 0), ESMS_INVAL);
        EXPECT_EQ(q_write_buf_commit(q, 0), ESMS_INVAL);
        EXPECT_EQ(q_write_buf_rollback(q, 0), ESMS_INVAL);
        EXPECT_EQ(write(q, "m"), ESMS_OK);
        EXPECT_EQ(read(q), "m");
    }
    q->wbufs = beyond - 64; // the first lies in the segment
    EXPECT_EQ(write_buf(q, "m", 0), ESMS_OK);
    EXPECT_EQ(write_buf(q, "m", 1), ESMS_INVAL);
    EXPECT_EQ(q_write_buf_rollback(q, 0), ESMS_OK);
}

TEST_F(Header, damaged_counts_neither_leave_the_ring_nor_hang) {
    q->qcnt = UINT32_MAX;
    for (const int32_t parked : {0, -1, -2, 5, INT32_MAX, INT32_MIN}) {
        q->pbuffs = parked;
        make_each_call([](const RingCall &, auto run) { run(); });
    }
}
