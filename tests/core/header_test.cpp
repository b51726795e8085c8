// What the header says counts at every operation, whatever the process has seen of it before.
#include <functional>

#include "tests/support/capture.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

// One call of every operation on each side, on whatever the ring holds.
struct Operation {
    const char *name;
    std::function<int(halvo_channel *, void *)> run;
};
const std::vector<Operation> kReads = {
    {"read", [](auto *q, void *slot) { return q_read(q, slot); }},
    {"read_mark", [](auto *q, void *) { return q_read_mark(q, 1); }},
    {"read_markedcount", [](auto *q, void *) { return q_read_markedcount(q); }},
    {"read_markedmsg", [](auto *q, void *slot) { return q_read_markedmsg(q, 0, slot); }},
    {"read_rollback", [](auto *q, void *) { return q_read_rollback(q); }},
    {"read_commit", [](auto *q, void *) { return q_read_commit(q, 1, 0); }},
    {"read_commit_with_error",
     [](auto *q, void *) { return q_read_commit_with_error(q, 1, "00"); }},
    {"read_buf", [](auto *q, void *slot) { return q_read_buf(q, slot, 0); }},
    {"read_buf_clear", [](auto *q, void *) { return q_read_buf_clear(q, 0); }},
};
const std::vector<Operation> kWrites = {
    {"write", [](auto *q, void *) { return q_write(q, 1, "m", 1); }},
    {"write_mark", [](auto *q, void *) { return q_write_mark(q, 1, "m", 1); }},
    {"write_mark_at", [](auto *q, void *) { return q_write_mark_at(q, 1, "m", 1, 0); }},
    {"write_commit", [](auto *q, void *) { return q_write_commit(q); }},
    {"write_commit_all", [](auto *q, void *) { return q_write_commit_all(q); }},
    {"write_rollback", [](auto *q, void *) { return q_write_rollback(q); }},
    {"write_rollback_all", [](auto *q, void *) { return q_write_rollback_all(q); }},
    {"write_buf", [](auto *q, void *) { return q_write_buf(q, 1, "m", 1, 0); }},
    {"writable_count", [](auto *q, void *) { return q_writable_count(q); }},
};
const std::vector<Operation> kViews = {
    {"readview", [](auto *q, void *slot) { return q_readview(q, slot); }},
    {"writeview", [](auto *q, void *slot) { return q_writeview(q, slot); }},
    {"write_buf_commit", [](auto *q, void *) { return q_write_buf_commit(q, 0); }},
    {"write_buf_rollback", [](auto *q, void *) { return q_write_buf_rollback(q, 0); }},
};

class Header : public RingTest<4, 'w'> {
protected:
    std::string buffer = std::string(64, '?');
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

TEST_F(Header, every_operation_sets_a_heartbeat_that_another_process_has_cleared) {
    for (const Operation &operation : kReads) {
        operation.run(q, buffer.data());
        q->rtime = 7;
        operation.run(q, buffer.data());
        EXPECT_EQ(q->rtime, static_cast<int32_t>(q_gettime())) << operation.name;
    }
    for (const Operation &operation : kWrites) {
        captured_stdout([&] { operation.run(q, nullptr); });
        q->wtime = 7;
        captured_stdout([&] { operation.run(q, nullptr); });
        EXPECT_EQ(q->wtime, static_cast<int32_t>(q_gettime())) << operation.name;
    }
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
        for (const auto *table : {&kReads, &kWrites, &kViews})
            for (const Operation &operation : *table)
                EXPECT_EQ(operation.run(q, buffer.data()), ESMS_INVAL) << operation.name;
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
    for (const auto *table : {&kReads, &kWrites, &kViews})
        for (const Operation &operation : *table)
            captured_stdout([&] { operation.run(q, buffer.data()); });
    for (const int32_t parked : {-1, -2, 5, INT32_MAX, INT32_MIN}) {
        q->pbuffs = parked;
        for (const Operation &operation : kWrites)
            captured_stdout([&] { operation.run(q, nullptr); });
    }
}
