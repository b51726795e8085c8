// Slots of any size, and channels at any address.
#include "tests/support/capture.h"
#include "tests/support/peer.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

// Every operation once around a ring of three slots and more, with the longest messages.
void use(halvo_channel *q) {
    const uint32_t longest = q->qbsz - 16;
    const auto text = [=](int n) { return std::string(longest, static_cast<char>('a' + n)); };
    for (int n = 0; n < 7; ++n) {
        ASSERT_EQ(write(q, text(n)), ESMS_OK);
        ASSERT_EQ(write_mark(q, text(n + 1)), ESMS_OK);
        ASSERT_EQ(q_write_commit(q), ESMS_OK);
        ASSERT_EQ(q_read_mark(q, 1), 1);
        Slot slot(q);
        ASSERT_EQ(q_read_markedmsg(q, 0, slot.data()), ESMS_OK);
        ASSERT_EQ(slot.body(), text(n));
        ASSERT_EQ(q_read_commit(q, 1, 0), 1);
        ASSERT_EQ(q_read_buf(q, slot.data(), 4), ESMS_OK);
        ASSERT_EQ(slot.body(), text(n + 1));
        ASSERT_EQ(q_read_buf_clear(q, 4), ESMS_OK);
        ASSERT_EQ(write_buf(q, text(n), 4), ESMS_OK);
        ASSERT_EQ(q_write_buf_commit(q, 4), ESMS_OK);
        ASSERT_EQ(read(q), text(n));
    }
    captured_stdout([&] { ASSERT_EQ(write(q, text(0) + 'x'), ESMS_EXEED); });
    while (write(q, text(0)) == ESMS_OK) continue;
    EXPECT_EQ(q_writable_count(q), 0);
    EXPECT_EQ(q_read_mark(q, 0), 3);
    EXPECT_EQ(q_read_rollback(q), 3);
    EXPECT_EQ(q_read_mark(q, 0), 3);
    EXPECT_EQ(q_read_commit(q, 0, 1), 3);
    EXPECT_EQ(+q->pcnt.count, +q->gcnt.count);
}

} // namespace

// The header of the first channel is moved into the second one, whose place it takes.
TEST(OddSizes, channels_of_any_slot_size_at_any_address_are_found_and_used) {
    const std::pair<uint32_t, uint32_t> rows[] = {{17, 0}, {18, 1},   {19, 2},
                                                  {21, 3}, {150, 63}, {12345, 0}};
    for (const auto &[size, shift] : rows) {
        const Segment s =
            SegmentBuilder().channel("MT01", 'M', 3, size).channel("MT02", 'M', 3, 64).build();
        const auto life = [&, size = size, shift = shift] {
            SCOPED_TRACE(size);
            s.attach();
            halvo_segment *segment = q_0();
            const uint32_t to = segment->qoffs[0] + shift;
            std::memmove(reinterpret_cast<char *>(segment) + to, q_chnnl2q(0),
                         sizeof(halvo_channel));
            segment->qoffs[0] = to;
            segment->qoffs[1] = 0; // no channel's place
            EXPECT_EQ(q_name2chnnl("MT01"), 0);
            halvo_channel *q = q_open(0, 'w');
            EXPECT_EQ(q, q_chnnl2q(0));
            use(q);
            EXPECT_EQ(q_recover(0, 'w'), 0);
        };
        EXPECT_EQ(Peer(life).wait(), 0);
    }
}
