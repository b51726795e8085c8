#include "tests/support/capture.h"
#include "tests/support/ring.h"

using namespace halvo::test;

using Buffers = RingTest<4, 'w'>;

TEST_F(Buffers, a_commit_that_fails_warns_and_keeps_the_message) {
    write_buf(q, std::string(48, 'p'), 2);
    q->pbuffs = 0; // as if somebody had not kept the slot free
    for (int i = 0; i < 4; ++i) write(q, "x");
    q->pbuffs = 1;
    captured_stdout([&] { EXPECT_EQ(q_write_buf_commit(q, 2), ESMS_FULL); });
    read(q);
    qmsg *parked = halvo::slot_at(q, q->wbufs + 2 * q->qbsz);
    std::memset(reinterpret_cast<char *>(halvo::body(parked)) + 48, 'p', 2);
    parked->len = 49; // damaged
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(q_write_buf_commit(q, 2), ESMS_EXEED); }),
              "q_write to MT01 %qbsz=64,sizeof(qmsg)=16,msize=49\nDATA " + std::string(49, 'p') +
                  "\nWARNING!!!!!!!! buff control broken! r= -12, pbuffs=1\n");
    parked->len = 48;
    EXPECT_EQ(q_write_buf_commit(q, 2), ESMS_OK);
}

TEST_F(Buffers, parking_needs_the_slot_behind_the_owed_ones) {
    for (int i = 0; i < 3; ++i) write(q, "x");
    EXPECT_EQ(write_buf(q, "a", 0), ESMS_FULL) << "one slot ahead of the free one is taken";
    q->pbuffs = -1;
    EXPECT_EQ(write_buf(q, "a", 0), ESMS_OK) << "-1 looks at no slot";
    EXPECT_EQ(q->pbuffs, 0);
    q->pbuffs = 4;
    EXPECT_EQ(write_buf(q, "b", 1), ESMS_FULL) << "outside the ring";
    q->pbuffs = 0;
    read(q);
    read(q);
    write_mark_at(q, "m", 1);
    EXPECT_EQ(write_buf(q, "b", 1), ESMS_PENDING);
}

TEST_F(Buffers, empty_buffers_and_bad_indexes_have_their_own_codes) {
    EXPECT_EQ(q_write_buf_commit(q, 0), ESMS_INVAL);
    EXPECT_EQ(q_write_buf_rollback(q, 0), ESMS_NOTARGET);
    Slot slot(q);
    for (int index : {-1, 5, INT32_MIN, INT32_MAX})
        for (const int result : {q_read_buf(q, slot.data(), index), q_read_buf_clear(q, index),
                                 write_buf(q, "a", index), q_write_buf_commit(q, index),
                                 q_write_buf_rollback(q, index)})
            EXPECT_EQ(result, ESMS_INVAL) << index;
    write_buf(q, "a", 3);
    EXPECT_EQ(q_write_buf_rollback(q, 3), ESMS_OK);
    EXPECT_EQ(q->pbuffs, 0);
}
