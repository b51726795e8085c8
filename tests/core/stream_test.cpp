// Two processes, one ring, many messages: every byte of every message is checked.
#include <thread>

#include "tests/support/frx_fixture.h"
#include "tests/support/messages.h"

using namespace halvo::test;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kMessages = 20000;
#else
constexpr int kMessages = 100000;
#endif

std::string message(int i) { return numbered_message(i, 112); }

int write_all(const Segment &s) {
    FrxChannel end{};
    if (initialise(s) != ESMS_OK || frx_openChannel(&end, "writer", 0, 'w', 5000) != ESMS_OK)
        return 1;
    for (int i = 0; i < kMessages; ++i) {
        const std::string text = message(i);
        const auto length = static_cast<uint32_t>(text.size());
        if (frx_write(&end, i % 4096, text.data(), length, 20000) != ESMS_OK) return 2;
    }
    return frx_closeChannel(&end);
}

int write_batches(const Segment &s) {
    s.attach();
    halvo_channel *q = s.open("MT01", 'w');
    for (int i = 0; i < kMessages;) {
        uint32_t n = 0;
        while (n < 3 && i < kMessages && write_mark_at(q, message(i), n) == ESMS_OK) ++n, ++i;
        q_write_commit_all(q);
        if (n == 0) std::this_thread::yield();
    }
    return 0;
}

} // namespace

TEST(Stream, blocking_calls_pass_every_byte_through_four_slots) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 128).build();
    Peer writer([&] { return write_all(s); });
    ASSERT_EQ(initialise(s), ESMS_OK);
    FrxChannel end{};
    ASSERT_EQ(frx_openChannel(&end, "reader", 0, 'r', 5000), ESMS_OK);
    Slot slot(s.channel("MT01"));
    for (int i = 0; i < kMessages; ++i) {
        const std::string expected = message(i);
        ASSERT_EQ(frx_read(&end, slot.data(), 20000), static_cast<int>(expected.size())) << i;
        ASSERT_EQ(slot.body(), expected) << i;
        ASSERT_EQ(slot.header().type, i % 4096) << i;
    }
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(frx_pcount(0), kMessages);
    EXPECT_EQ(frx_gcount(0), kMessages);
    EXPECT_EQ(frx_getCount(0), 0);
}

TEST(Stream, marked_batches_pass_in_order_between_polling_processes) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 7, 128).build();
    Peer writer([&] { return write_batches(s); });
    s.attach();
    halvo_channel *q = s.open("MT01", 'r');
    Slot slot(q);
    for (int i = 0; i < kMessages;) {
        const int marked = q_read_mark(q, 2 + i % 5);
        for (int k = 0; k < marked; ++k) {
            ASSERT_EQ(q_read_markedmsg(q, k, slot.data()), ESMS_OK);
            ASSERT_EQ(slot.body(), message(i + k)) << i + k;
        }
        if (i % 11 == 0 && marked > 1) { // some are handed back and read again
            ASSERT_EQ(q_read_commit(q, 1, 0), 1);
            ASSERT_EQ(q_read_rollback(q), marked - 1);
            i += 1;
        } else {
            ASSERT_EQ(q_read_commit(q, 0, 0), marked);
            i += marked;
        }
        if (marked == 0) std::this_thread::yield();
    }
    EXPECT_EQ(writer.wait(), 0);
}
