// What the writers put on disk, byte by byte, and when they end a file.
#include <ctime>

#include "tests/fq/queue_fixture.h"

using namespace halvo;
using namespace halvo::test;

namespace {

// A record as fq_lock leaves it, for the item writers alone.
fqtrans record_at(const Queue &queue, const std::string &position) {
    fqtrans trans{};
    std::strcpy(trans.path, queue.path());
    std::memcpy(trans.curpos, (position + "      first\n").data(), 31);
    std::memcpy(trans.startpos, trans.curpos, 31);
    return trans;
}

class Enqueue : public testing::Test {
protected:
    Queue queue;
    fqtrans trans{};
    Said commit() {
        return said([this] { return fq_enqueue_commit(-1, &trans); });
    }
};

} // namespace

TEST_F(Enqueue, an_item_has_the_documented_bytes) {
    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(queue.put({std::string("a\0b", 3)}), 0);
    const std::string bytes = queue.bytes(0);
    uint32_t stamp = 0;
    std::memcpy(&stamp, bytes.data() + 12, sizeof stamp);
    EXPECT_TRUE(stamp >= before && stamp <= before + 2);
    EXPECT_EQ(bytes, item_bytes('F', std::string("a\0b", 3), stamp));
    EXPECT_EQ(queue.bytes("tail"), record(0, 0) + record(0, 25));
}

TEST_F(Enqueue, items_become_readable_all_at_once_at_the_commit) {
    EXPECT_EQ(queue.begin(trans, {"one", "two", "three"}), 5 + 22) << "bytes of the last item";
    EXPECT_EQ(queue.picture(0), "W(one) W(two) W(three)");
    EXPECT_EQ(trans.count, 3);
    EXPECT_EQ(trans.itemlen, 5);
    EXPECT_EQ(held(trans.startpos), place(0, 0));
    EXPECT_EQ(held(trans.curpos), place(0, 50));
    EXPECT_EQ(held(trans.nextpos), place(0, 77));
    EXPECT_EQ(queue.take(), "[0]");
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.picture(0), "F(one) F(two) F(three)");
    EXPECT_EQ(queue.position("tail"), place(0, 77));
    EXPECT_EQ(queue.drain(), "one two three");
}

TEST_F(Enqueue, refuses_what_cannot_be_an_item_and_opens_nothing) {
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "", 0, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), nullptr, 5, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "x", 1, nullptr), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "x", 0xFFFFFFF0u, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue_away(-1, -1, 1, queue.path(), "", 0), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue_next(-1, "x", 1, nullptr), ESMS_INVAL);
    EXPECT_FALSE(queue.has("wrlk") || queue.has("tail") || queue.has(0));
}

TEST_F(Enqueue, a_failed_next_ends_the_transaction) {
    queue.begin(trans, {"one"});
    EXPECT_EQ(said([&] { return fq_enqueue_next(-1, "", 0, &trans); }),
              Said(ESMS_INVAL, "fq_enqueue.fq_write_item error \n"));
    EXPECT_EQ(queue.put({"another writer's"}), 0) << "the side is free";
    EXPECT_EQ(fq_enqueue_next(-1, "x", 1, &trans), ESMS_INVAL);
    const std::string not_held = "invalid stat(index fd) \ninvalid stat(lock fd) \n";
    EXPECT_EQ(commit(), Said(-1, "fq_enqueue_commit invalid trans stat error \n" + not_held));
    EXPECT_EQ(queue.drain(), "another writer's");
    EXPECT_EQ(said([&] { return fq_enqueue_rollback(-1, &trans); }),
              Said(-5, not_held + "fq_enqueue_rollback.fq_unlock error \n"));
}

TEST_F(Enqueue, a_data_file_that_cannot_be_written_fails_with_its_name) {
    queue.store("tail", record(0, 0));
    ASSERT_EQ(mkdir(queue.file(0).c_str(), 0777), 0);
    const std::string line = "fq_write_item.open error " + queue.file(0) + "\n";
    EXPECT_EQ(said([&] { return queue.begin(trans, {"x"}); }),
              Said(-1, line + "fq_enqueue.fq_write_item error \n"));
    EXPECT_EQ(said([&] { return queue.put_away("x"); }),
              Said(-1, line + "fq_enqueue_away.fq_append_item error \n"));
}

TEST_F(Enqueue, a_commit_whose_data_file_has_been_cut_changes_no_position) {
    queue.begin(trans, {"one", "two", "three"});
    queue.cut(0, 60);
    EXPECT_EQ(commit(), Said(-2, ""));
    EXPECT_EQ(queue.position("tail"), place(0, 0));
    EXPECT_EQ(queue.take(), "[0]") << "the first item has not been flipped";
}

// ---- Ending a file -----------------------------------------------------------------------------

namespace {

enum Writer { kCommit, kSingleShot, kAppend };

struct Ending {
    Writer writer;
    std::vector<std::string> items;
    int order, offset; // where they begin
    std::string then;  // the writer's position behind them
    const char *picture;
};

const std::vector<std::string> kOne{"one"};
const Ending kEndings[] = {
    {kCommit, kOne, 3, 4999975, place(3, 5000000), "F(one)"},
    {kCommit, kOne, 3, 4999976, place(4, 0), "F(one) E"},
    {kSingleShot, kOne, 3, 4999975, place(3, 5000000), "F(one)"},
    {kSingleShot, kOne, 3, 4999976, place(4, 0), "F(one) E"},
    {kAppend, kOne, 3, 4999975, place(3, 5000000), "F(one)"},
    {kAppend, kOne, 3, 4999976, place(4, 0), "F(one) E"},
    // A transaction stays in one file however long it gets.
    {kCommit, {filler(100), filler(100), "x"}, 0, 4999990, place(1, 0), "F(#100) F(#100) F(x) E"},
    // Kept: past 99999999 the three go on differently.
    {kCommit, kOne, 99999999, 5000000, place(0, 0), "F(one) E"},
    {kCommit, kOne, 100000000, 5000000, place(0, 0), "F(one) E"},
    {kSingleShot, kOne, 99999999, 5000000, place(100000000, 0), "F(one) E"},
    {kSingleShot, kOne, 100000000, 5000000, place(1, 0), "F(one) E"},
    {kAppend, kOne, 99999999, 5000000, place(100000000, 0), "F(one) E"},
    {kAppend, kOne, 100000000, 5000000, place(100000001, 0), "F(one) E"},
};

} // namespace

TEST(EndOfFile, comes_behind_the_item_that_passes_5000000_bytes) {
    const Queue queue;
    for (const Ending &row : kEndings) {
        SCOPED_TRACE(std::to_string(row.writer) + " at " + place(row.order, row.offset));
        queue.clear();
        queue.store("tail", record(row.order, row.offset));
        std::string then;
        if (row.writer == kAppend) {
            fqtrans trans = record_at(queue, place(row.order, row.offset));
            queue.store(row.order, "");
            queue.cut(row.order, row.offset);
            EXPECT_EQ(fq_append_item(queue.path(), &trans, row.items[0].data(), 3), 25);
            then = held(trans.nextpos);
        } else {
            EXPECT_EQ(row.writer == kCommit ? queue.put(row.items) : queue.put_away(row.items[0]),
                      0);
            then = queue.position("tail");
        }
        EXPECT_EQ(then, row.then);
        EXPECT_EQ(picture_of(queue.bytes(row.order, row.offset)), row.picture);
        EXPECT_FALSE(queue.has(row.order + 1));
    }
}

// ---- The item writers --------------------------------------------------------------------------

TEST(ItemWriters, append_goes_to_the_end_of_the_file_and_does_not_count) {
    const Queue queue;
    queue.store(0, item_bytes('F', "one"));
    fqtrans trans = record_at(queue, place(0, 25));
    EXPECT_EQ(fq_append_item(queue.path(), &trans, "two", 3), 25);
    EXPECT_EQ(trans.count, 0);
    EXPECT_EQ(trans.itemlen, 3);
    EXPECT_EQ(held(trans.nextpos), place(0, 50));
    trans = record_at(queue, place(0, 25));
    EXPECT_EQ(said([&] { return fq_append_item(queue.path(), &trans, "three", 5); }),
              Said(-1, " noff 77 - pos 25 = 52 != wbytes 27\n"));
    EXPECT_EQ(held(trans.nextpos), place(0, 77));
    EXPECT_EQ(queue.picture(0), "F(one) F(two) F(three)");
}

TEST(ItemWriters, say_a_damaged_position_and_touch_nothing) {
    const Queue queue;
    const char *const seek = "fq_write.lseek error \n";
    for (const auto &[position, line] :
         {std::pair("000000000 -00000001", seek), std::pair("000000000 00000001x", seek),
          std::pair("-00000001 000000000", ""), std::pair("../../abc 000000000", "")}) {
        fqtrans trans = record_at(queue, position);
        EXPECT_EQ(said([&] { return fq_write_item(queue.path(), &trans, "x", 1); }),
                  Said(-1, std::string("damaged position \"") + position + "\" of file queue " +
                               queue.path() + "\n" + line));
        EXPECT_EQ(fq_find_forder_first(queue.path()), -1) << "no file was made";
    }
}

TEST(ItemWriters, refuse_an_item_that_would_end_beyond_nine_digits) {
    const Queue queue;
    fqtrans trans = record_at(queue, place(0, 999999976));
    EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), 23);
    EXPECT_EQ(held(trans.nextpos), place(0, 999999999));
    trans = record_at(queue, place(0, 999999977));
    EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), -1);
    trans = record_at(queue, place(999999999, 5000100));
    EXPECT_EQ(fq_append_item(queue.path(), &trans, "x", 1), 23);
    queue.cut(999999999, 5000000);
    EXPECT_EQ(fq_append_item(queue.path(), &trans, "x", 1), -1);
    EXPECT_EQ(held(trans.nextpos), place(999999999, 5000100)) << "no tenth digit in the record";
}

// ---- The position log --------------------------------------------------------------------------

TEST(PositionLog, is_begun_again_past_5000000_bytes) {
    constexpr int kFull = 161290 * 31; // 4999990
    const Queue queue;
    const auto logged = [&](const char *log, int hole, const std::string &end) {
        queue.clear();
        queue.store(0, item_bytes('F', "one") + item_bytes('F', "two"));
        queue.store("head", record(0, 0));
        queue.store("tail", record(0, 50));
        queue.store(log, end, hole);
    };
    const struct {
        const char *log;
        int from, item;
        std::function<void()> step;
    } rows[] = {{"tail", 50, 23, [&] { queue.put({"x"}); }},
                {"tail", 50, 23, [&] { queue.put_away("x"); }},
                {"head", 0, 25, [&] { queue.take(); }}};
    for (const auto &[log, from, item, step] : rows) {
        logged(log, kFull, record(0, from));
        for (int steps = 0; steps < 2; ++steps) step();
        EXPECT_EQ(queue.bytes(log), record(0, from + item) + record(0, from + 2 * item));
    }
    // Exactly the limit, and a byte more.
    for (const int torn : {10, 11}) {
        logged("tail", kFull - 31, record(0, 50) + filler(torn));
        EXPECT_EQ(queue.put_away("x"), 0);
        EXPECT_EQ(queue.bytes("tail").size(), torn == 10 ? kFull + 31u : 31u);
    }
}
