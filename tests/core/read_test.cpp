#include "tests/support/capture.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

class Read : public RingTest<5, 'r'> {
protected:
    void fill(int messages) {
        for (int i = 0; i < messages; ++i) write(q, std::to_string(i));
    }
    std::string marked(int index) {
        Slot slot(q);
        const int result = q_read_markedmsg(q, index, slot.data());
        return result == ESMS_OK ? slot.body() : "[" + std::to_string(result) + "]";
    }
};

} // namespace

TEST_F(Read, gives_the_whole_slot_and_frees_it) {
    std::string buffer(64, '?');
    EXPECT_EQ(q_read(q, buffer.data()), ESMS_EMPTY);
    EXPECT_EQ(buffer, std::string(64, '?'));
    EXPECT_EQ(picture(q), "><_____");
    write(q, "hello", 7);
    Slot slot(q);
    EXPECT_EQ(q_readview(q, slot.data()), 0);
    EXPECT_EQ(slot.body(), "hello");
    EXPECT_EQ(picture(q), ">F<____") << "a view takes nothing";
    Slot taken(q);
    EXPECT_EQ(q_read(q, taken.data()), ESMS_OK);
    EXPECT_EQ(taken.header().state, HALVO_SLOT_READABLE);
    EXPECT_EQ(taken.header().type, 7);
    EXPECT_EQ(taken.body(), "hello");
    EXPECT_EQ(picture(q), "_><____");
    EXPECT_EQ(+q->gcnt.count, 1u);
}

TEST_F(Read, marks_up_to_n_and_looks_at_them_in_order) {
    fill(5);
    EXPECT_EQ(q_read_mark(q, 3), 3);
    EXPECT_EQ(picture(q), "><RRRFF");
    EXPECT_EQ(q_read_mark(q, 3), 0) << "marks stand at the read position";
    EXPECT_EQ(q_read_markedcount(q), 3);
    EXPECT_EQ(marked(0), "0");
    EXPECT_EQ(marked(2), "2");
    EXPECT_EQ(marked(3), "[-10]") << "not marked";
    EXPECT_EQ(marked(-1), "[-10]");
    EXPECT_EQ(read(q), "[-3]");
}

TEST_F(Read, an_index_wraps_once_and_then_is_out_of_bounds) {
    fill(5);
    q_read_mark(q, 0);
    EXPECT_EQ(marked(5), "0") << "one ring further is the same slot";
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(marked(10), "[-10]"); }),
              "10(10)  IndexOutOfBounds as tellg " + std::to_string(q->rpos) + "\n");
    captured_stdout([&] { EXPECT_EQ(marked(INT32_MAX), "[-10]"); });
}

TEST_F(Read, commits_release_marked_slots_from_the_front) {
    fill(5);
    q_read_mark(q, 3);
    EXPECT_EQ(q_read_commit(q, 2, 0), 2);
    EXPECT_EQ(picture(q), "<__>RFF");
    EXPECT_EQ(q_read_commit(q, 0, 0), 1) << "0: all that are marked";
    EXPECT_EQ(q_read_commit(q, 1, 0), 0);
    EXPECT_EQ(read(q), "3");
    fill(3);
    write_mark(q, "uncommitted");
    EXPECT_EQ(q_read_mark(q, 0), 4) << "of the whole ring";
    EXPECT_EQ(q_read_rollback(q), 4);
    EXPECT_EQ(q_read_mark(q, -4), 4) << "the same";
    EXPECT_EQ(q_read_commit(q, -1, 0), 1) << "a negative number releases one";
    EXPECT_EQ(q_read_commit(q, 0, 0), 3);
    EXPECT_EQ(+q->gcnt.count, 8u);
}

TEST_F(Read, commits_count_errors_by_the_flag_alone) {
    fill(4);
    q_read_mark(q, 0);
    q_read_commit(q, 2, 3);
    EXPECT_EQ(+q->gcnt.ecount, 6u);
    EXPECT_EQ(q->errtime, static_cast<int32_t>(q_gettime()));
    q->errtime = 0;
    q_read_commit(q, 1, -1);
    EXPECT_EQ(+q->gcnt.ecount, 5u) << "a negative error lowers the count";
    EXPECT_EQ(q->errtime, 0);
    EXPECT_EQ(q_read_commit_with_error(q, 1, nullptr), ESMS_INVAL);
    EXPECT_EQ(q_read_commit_with_error(q, 1, "99"), 1) << "nothing was released before";
    EXPECT_EQ(+q->gcnt.ecount, 5u);
    EXPECT_EQ(q->lasterr[0], '\0');
}

TEST_F(Read, is_refused_while_the_rate_is_above_the_limit) {
    fill(5);
    const int now = q_settime();
    q->tpsmx = 10;
    q->tpsstart = now - 10;
    q->gcnt.count = 110; // 11 a second
    EXPECT_EQ(read(q), "[-3]");
    EXPECT_EQ(q_read_mark(q, 0), 0);
    const qmsg *next = nullptr;
    EXPECT_EQ(q_peek(q, &next), ESMS_EMPTY);
    char body[8];
    EXPECT_EQ(q_read_body(q, nullptr, body, sizeof body, nullptr), ESMS_EMPTY);
    EXPECT_EQ(q->throttled, 1);
    EXPECT_EQ(q->throttletime, now);
    q->gcnt.count = 100; // 10 a second is not above
    EXPECT_EQ(read(q), "0");
    EXPECT_EQ(q->throttled, 1) << "the flag stays up for two seconds";
    q->throttletime = now - 2;
    EXPECT_EQ(read(q), "1");
    EXPECT_EQ(q->throttled, 0);
}
