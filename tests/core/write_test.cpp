#include "tests/support/capture.h"
#include "tests/support/ring.h"

using namespace halvo::test;
using halvo::slot_at;

namespace {

class Write : public RingTest<4, 'w'> {
protected:
    void set_state(uint32_t slot, int32_t state) {
        slot_at(q, q->qstart + slot * q->qbsz)->state = state;
    }
};

} // namespace

TEST_F(Write, takes_messages_up_to_the_slot_size_less_sixteen) {
    EXPECT_EQ(write(q, std::string(48, 'x')), ESMS_OK);
    EXPECT_EQ(write(q, ""), ESMS_INVAL);
    EXPECT_EQ(q_write(q, 1, nullptr, 5), ESMS_INVAL);
    for (const size_t length : {49u, 300u}) { // a hundred bytes are shown
        const std::string over(length, 'y');
        EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write(q, over), ESMS_EXEED); }),
                  "q_write to MT01 %qbsz=64,sizeof(qmsg)=16,msize=" + std::to_string(length) +
                      "\nDATA " + over.substr(0, 100) + "\n");
    }
    const std::string over(49, 'y');
    const std::string line = "qbsz=64,sizeof(qmsg)=16,msize=49\n";
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write_mark(q, over), ESMS_EXEED); }), line);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write_mark_at(q, over, 9), ESMS_EXEED); }), line);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write_buf(q, over, 9), ESMS_EXEED); }), line);
    EXPECT_EQ(picture(q), ">F<___") << "failures leave the ring as it was";
}

TEST_F(Write, stores_header_body_and_nothing_else) {
    qmsg *slot = slot_at(q, q->wpos);
    slot->reserved = 0xDEADBEEF;
    EXPECT_EQ(write(q, "hello", 0x12345), ESMS_OK);
    EXPECT_EQ(slot->state, HALVO_SLOT_READABLE);
    EXPECT_EQ(slot->reserved, 0xDEADBEEF);
    EXPECT_EQ(slot->len, 5u);
    EXPECT_EQ(slot->type, 0x2345) << "the low 16 bits";
    EXPECT_EQ(std::memcmp(reinterpret_cast<char *>(slot) + 14, "hello", 6), 0);
    EXPECT_EQ(q->wtime, static_cast<int32_t>(q_gettime()));
}

TEST_F(Write, keeps_slots_free_for_parked_messages) {
    q->pbuffs = 2;
    set_state(2, HALVO_SLOT_READABLE);
    EXPECT_EQ(write(q, "a"), ESMS_FULL) << "although the slot at wpos is free";
    EXPECT_EQ(write_mark(q, "a"), ESMS_FULL);
    set_state(2, HALVO_SLOT_PENDING);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write(q, "a"), ESMS_PENDING); }),
              "ESMSPENDING...5\n");
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(write_mark(q, "a"), ESMS_PENDING); }), "");
    set_state(2, 7);
    EXPECT_EQ(write(q, "a"), ESMS_OK) << "an unknown state ahead does not stop a write";
    q->pbuffs = 9;
    EXPECT_EQ(write(q, "b"), ESMS_FULL) << "more parked than slots: outside the ring";
    q->pbuffs = -3;
    EXPECT_EQ(write(q, "b"), ESMS_FULL);
}

TEST_F(Write, commits_and_rolls_back_a_batch_of_marks) {
    write(q, "x");
    read(q);
    for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(write_mark_at(q, std::to_string(i), i), ESMS_OK);
    EXPECT_EQ(picture(q), "W><WWW") << "the batch wraps";
    Slot slot(q);
    EXPECT_EQ(q_writeview(q, slot.data()), 0);
    EXPECT_EQ(slot.header().state, HALVO_SLOT_PENDING) << "a view looks at any state";
    EXPECT_EQ(slot.body(), "0");
    EXPECT_EQ(q_writable_count(q), ESMS_PENDING);
    EXPECT_EQ(write_mark_at(q, "4", 0), ESMS_PENDING);
    EXPECT_EQ(q_write_commit_all(q), 0);
    EXPECT_EQ(picture(q), "F><FFF");
    for (const char *text : {"0", "1", "2", "3"}) EXPECT_EQ(read(q), text);
    EXPECT_EQ(q_write_commit_all(q), 0) << "nothing to commit is no failure";
    for (uint32_t i = 0; i < 3; ++i) write_mark_at(q, "m", i);
    EXPECT_EQ(q_write_rollback_all(q), 3);
    EXPECT_EQ(q_write_rollback_all(q), 0);
    EXPECT_EQ(picture(q), "_><___");
}

TEST_F(Write, marks_outside_the_ring_are_invalid) {
    EXPECT_EQ(write_mark_at(q, "m", 4), ESMS_INVAL);
    q->pbuffs = 2;
    EXPECT_EQ(write_mark_at(q, "m", 2), ESMS_INVAL);
    EXPECT_EQ(write_mark_at(q, "m", static_cast<uint32_t>(-1)), ESMS_INVAL);
    // With parked messages a batch does not start at the write position and is not committed.
    EXPECT_EQ(write_mark_at(q, "m", 0), ESMS_OK);
    EXPECT_EQ(picture(q), "><__W_");
    EXPECT_EQ(q_write_commit_all(q), ESMS_OK);
    EXPECT_EQ(picture(q), "><__W_");
}

TEST_F(Write, counts_writable_slots) {
    EXPECT_EQ(q_writable_count(q), 4);
    write(q, "a");
    EXPECT_EQ(q_writable_count(q), 3);
    q->pbuffs = 5;
    EXPECT_EQ(q_writable_count(q), -2);
    q->pbuffs = 0;
    set_state(2, 7);
    EXPECT_EQ(q_writable_count(q), 1) << "an unknown state ends the count";
    set_state(1, -1);
    EXPECT_EQ(q_writable_count(q), 0);
    EXPECT_EQ(picture(q), ">F<XX_");
    EXPECT_EQ(write(q, "b"), ESMS_FULL);
    EXPECT_EQ(write_mark(q, "b"), ESMS_FULL);
    EXPECT_EQ(write_mark_at(q, "b", 0), ESMS_FULL);
}
