#include "tests/support/capture.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

class InPlace : public RingTest<4, 'w'> {
protected:
    int reserve(uint32_t length) { return q_reserve(q, length, &slot); }
    // Builds a message where it lies.
    int build(const std::string &text, int type = 9) {
        const auto length = static_cast<uint32_t>(text.size());
        const int result = reserve(length);
        if (result != ESMS_OK) return result;
        std::memcpy(reinterpret_cast<char *>(slot) + offsetof(qmsg, data), text.data(), length);
        return q_publish(q, type, length);
    }
    std::string peeked() {
        const qmsg *next = nullptr;
        const int result = q_peek(q, &next);
        if (result != ESMS_OK) return "[" + std::to_string(result) + "]";
        return {reinterpret_cast<const char *>(next) + offsetof(qmsg, data), next->len};
    }
    qmsg *slot = nullptr;
};

} // namespace

TEST_F(InPlace, a_reservation_holds_nothing) {
    EXPECT_EQ(reserve(48), ESMS_OK);
    EXPECT_EQ(picture(q), "><____");
    EXPECT_EQ(write(q, "in the same slot"), ESMS_OK);
    EXPECT_EQ(build("behind it"), ESMS_OK);
    EXPECT_EQ(reserve(3), ESMS_OK);
    EXPECT_EQ(write_mark(q, "mark"), ESMS_OK);
    EXPECT_EQ(q_publish(q, 1, 3), ESMS_PENDING);
    EXPECT_EQ(q_write_rollback(q), ESMS_OK);
    EXPECT_EQ(q_read_mark(q, 1), 1);
    EXPECT_EQ(peeked(), "[-3]") << "a marked message is not given again";
    EXPECT_EQ(q_release(q, 0), ESMS_NOTARGET);
    EXPECT_EQ(q_read_rollback(q), 1);
    EXPECT_EQ(peeked(), "in the same slot");
    EXPECT_EQ(q_release(q, 1), ESMS_OK);
    EXPECT_EQ(peeked(), "behind it");
    EXPECT_EQ(+q->gcnt.ecount, 1u);
    EXPECT_EQ(+q->tcnt[9].count, 1u);
}

TEST_F(InPlace, length_and_room_are_looked_at_as_for_a_write) {
    EXPECT_EQ(reserve(0), ESMS_INVAL);
    EXPECT_EQ(q_reserve(q, 1, nullptr), ESMS_INVAL);
    EXPECT_EQ(q_peek(q, nullptr), ESMS_INVAL);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(reserve(49), ESMS_EXEED); }),
              "qbsz=64,sizeof(qmsg)=16,msize=49\n");
    captured_stdout([&] { EXPECT_EQ(q_publish(q, 1, 49), ESMS_EXEED); });
    EXPECT_EQ(q_publish(q, 1, 0), ESMS_INVAL);
    EXPECT_EQ(write_buf(q, "parked", 0), ESMS_OK);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(build("m"), ESMS_OK);
    EXPECT_EQ(reserve(1), ESMS_FULL) << "the last slot is owed to the parked message";
    EXPECT_EQ(q_publish(q, 1, 1), ESMS_FULL);
    EXPECT_EQ(q_write_buf_commit(q, 0), ESMS_OK);
    EXPECT_EQ(picture(q), "><FFFF");
}

TEST_F(InPlace, a_body_is_copied_alone_or_stays) {
    std::string buffer(8, '?');
    int type = 0;
    uint32_t length = 0;
    const auto take = [&](uint32_t capacity) {
        return q_read_body(q, &type, buffer.data(), capacity, &length);
    };
    EXPECT_EQ(take(8), ESMS_EMPTY);
    write(q, "hello", 7);
    EXPECT_EQ(take(4), ESMS_EXEED);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(picture(q), ">F<___");
    EXPECT_EQ(buffer, "????????");
    EXPECT_EQ(take(5), ESMS_OK);
    EXPECT_EQ(buffer, "hello???");
    EXPECT_EQ(type, 7);
    EXPECT_EQ(+q->gcnt.count, 1u);
    write(q, "damaged");
    halvo::slot_at(q, q->rpos)->len = UINT32_MAX;
    EXPECT_EQ(take(8), ESMS_EXEED);
    EXPECT_EQ(length, 50u) << "never more than the slot has";
}
