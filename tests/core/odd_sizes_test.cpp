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

TEST(OddSizes, channels_of_any_slot_size_are_made_found_and_used) {
    SegmentBuilder builder;
    const std::vector<uint32_t> sizes = {17, 18, 19, 21, 150, 12345};
    for (const uint32_t size : sizes) builder.channel("S" + std::to_string(size), 'M', 3, size);
    const Segment s = builder.build();
    s.attach();
    for (const uint32_t size : sizes) {
        SCOPED_TRACE(size);
        const int channel = q_name2chnnl(("S" + std::to_string(size)).c_str());
        ASSERT_GE(channel, 0);
        halvo_channel *q = q_open(channel, 'w');
        ASSERT_NE(q, nullptr);
        use(q);
        EXPECT_EQ(q_recover(channel, 'w'), 0);
    }
}

// The header of the first channel is moved into the second one, whose place it takes.
TEST(OddSizes, a_channel_lies_at_any_address) {
    for (const uint32_t shift : {1u, 2u, 3u, 63u}) {
        SCOPED_TRACE(shift);
        const Segment s =
            SegmentBuilder().channel("MT01", 'M', 3, 150).channel("MT02", 'M', 3, 64).build();
        Peer user([&] {
            s.attach();
            halvo_segment *segment = q_0();
            const uint32_t to = segment->qoffs[0] + shift;
            std::memmove(reinterpret_cast<char *>(segment) + to, q_chnnl2q(0),
                         sizeof(halvo_channel));
            segment->qoffs[0] = to;
            segment->qoffs[1] = 0; // no channel's place
            halvo_channel *q = q_open(0, 'w');
            EXPECT_EQ(q, q_chnnl2q(0));
            use(q);
            std::vector<char> image(sizeof(halvo_segment) + 2 * sizeof(halvo_channel));
            EXPECT_EQ(q_snapshot(image.data(), static_cast<int>(image.size())), 0);
            EXPECT_EQ(std::memcmp(&image[sizeof(halvo_segment)], q, sizeof *q), 0);
            return testing::Test::HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(user.wait(), 0);
    }
}
