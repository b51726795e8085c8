// What the writers put on disk, byte by byte, and when they end a file.
#include <gtest/gtest.h>

#include <ctime>
#include <fcntl.h>

#include "tests/fq/queue_fixture.h"
#include "tests/support/peer.h"

using namespace halvo;
using namespace halvo::test;

namespace {

uint32_t stamp_of(const std::string &bytes, size_t at = 0) {
    uint32_t stamp = 0;
    std::memcpy(&stamp, bytes.data() + at + 12, sizeof stamp);
    return stamp;
}

// A record as fq_lock leaves it, for the item writers alone.
fqtrans record_at(const Queue &queue, int order, int offset) {
    fqtrans trans{};
    std::strcpy(trans.path, queue.path());
    std::memcpy(trans.curpos, record(order, offset).data(), 31);
    std::memcpy(trans.startpos, trans.curpos, 31);
    return trans;
}

std::string next_of(const fqtrans &trans) {
    return std::string(trans.nextpos, 9) + " " + std::string(trans.nextpos + 10, 9);
}

} // namespace

TEST(Enqueue, an_item_has_the_documented_bytes) {
    const Queue queue;
    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(queue.put({std::string("a\0b", 3)}), 0);
    const std::string bytes = queue.bytes(0);
    const uint32_t stamp = stamp_of(bytes);
    EXPECT_TRUE(stamp >= before && stamp <= before + 2);
    EXPECT_EQ(bytes, item_bytes('F', std::string("a\0b", 3), stamp));
    EXPECT_EQ(queue.bytes("tail"), record(0, 0) + record(0, 25));
}

TEST(Enqueue, items_become_readable_all_at_once_at_the_commit) {
    const Queue queue;
    fqtrans trans;
    EXPECT_EQ(queue.begin(trans, {"one", "two", "three"}), 5 + 22) << "bytes of the last item";
    EXPECT_EQ(queue.picture(0), "W(one) W(two) W(three)");
    EXPECT_EQ(trans.count, 3);
    EXPECT_EQ(trans.itemlen, 5);
    EXPECT_EQ(queue.take(), "[0]");
    queue.patch(0, 25 + 4, "F"); // the commit flips the second and third item first
    queue.patch(0, 50 + 4, "F");
    EXPECT_EQ(queue.take(), "[0]");
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.picture(0), "F(one) F(two) F(three)");
    EXPECT_EQ(queue.position("tail"), "000000000 000000077");
    EXPECT_EQ(queue.drain(), "one two three");
}

TEST(Enqueue, a_rollback_leaves_its_bytes_and_the_next_writer_uses_their_place) {
    const Queue queue;
    queue.put({"kept"});
    fqtrans trans;
    queue.begin(trans, {"dropped", "too"});
    EXPECT_EQ(fq_enqueue_rollback(-1, &trans), 0);
    EXPECT_EQ(queue.picture(0), "F(kept) W(dropped) W(too)");
    EXPECT_EQ(queue.take(), "kept");
    EXPECT_EQ(queue.take(), "[0]");
    queue.put({"new"});
    EXPECT_EQ(queue.picture(0), "F(kept) F(new)");
    EXPECT_EQ(queue.drain(), "new");
}

TEST(Enqueue, a_single_shot_is_readable_at_once) {
    const Queue queue;
    EXPECT_EQ(queue.put_away("one"), 0);
    EXPECT_EQ(queue.put_away("two"), 0);
    EXPECT_EQ(queue.picture(0), "F(one) F(two)");
    EXPECT_EQ(queue.position("tail"), "000000000 000000050");
}

TEST(Enqueue, refuses_what_cannot_be_an_item_and_opens_nothing) {
    const Queue queue;
    fqtrans trans;
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "", 0, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), nullptr, 5, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "x", 1, nullptr), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue(-1, queue.path(), "x", 0xFFFFFFF0u, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue_away(-1, -1, 1, queue.path(), "", 0), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue_next(-1, "x", 1, nullptr), ESMS_INVAL);
    EXPECT_FALSE(queue.has("wrlk") || queue.has("tail") || queue.has(0));
}

TEST(Enqueue, a_failed_next_ends_the_transaction) {
    const Queue queue;
    fqtrans trans;
    queue.begin(trans, {"one"});
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_next(-1, "", 0, &trans), ESMS_INVAL); }),
              "fq_enqueue.fq_write_item error \n");
    EXPECT_EQ(queue.put({"another writer's"}), 0) << "the side is free";
    EXPECT_EQ(fq_enqueue_next(-1, "x", 1, &trans), ESMS_INVAL);
    const std::string printed =
        captured_stdout([&] { EXPECT_EQ(fq_enqueue_commit(-1, &trans), -1); });
    EXPECT_EQ(printed, "fq_enqueue_commit invalid trans stat error \n"
                       "invalid stat(index fd) \ninvalid stat(lock fd) \n");
    EXPECT_EQ(queue.drain(), "another writer's");
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_rollback(-1, &trans), -5); }),
              "invalid stat(index fd) \ninvalid stat(lock fd) \n"
              "fq_enqueue_rollback.fq_unlock error \n");
}

TEST(Enqueue, a_commit_of_nothing_is_an_error) {
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_commit(-1, nullptr), -1); }),
              "fq_enqueue_commit invalid trans stat error \n");
    const Queue queue;
    fqtrans trans{};
    std::strcpy(trans.path, queue.path());
    ASSERT_EQ(fq_lock('w', &trans), 31);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_commit(-1, &trans), -1); }),
              "fq_enqueue_commit invalid trans stat error \n");
    EXPECT_EQ(trans.lockfd, -1) << "the side is given back";
}

TEST(Enqueue, a_data_file_that_cannot_be_written_fails_with_its_name) {
    const Queue queue;
    ASSERT_EQ(mkdir(queue.file(0).c_str(), 0777), 0);
    fqtrans trans;
    const std::string printed = captured_stdout([&] { EXPECT_EQ(queue.begin(trans, {"x"}), -1); });
    EXPECT_NE(printed.find("fq_write_item.open error " + queue.file(0) +
                           "\nfq_enqueue.fq_write_item error \n"),
              std::string::npos)
        << printed;
    const std::string away = captured_stdout([&] { EXPECT_EQ(queue.put_away("x"), -1); });
    EXPECT_NE(away.find("fq_enqueue_away.fq_append_item error \n"), std::string::npos) << away;
}

TEST(Enqueue, only_the_items_after_a_begin_are_positioned_behind_each_other) {
    const Queue queue;
    fqtrans trans;
    queue.begin(trans, {"one", "two"});
    EXPECT_EQ(std::string(trans.startpos, 19), std::string("000000000 000000000"));
    EXPECT_EQ(std::string(trans.curpos + 10), "000000025");
    EXPECT_EQ(next_of(trans), "000000000 000000050");
    EXPECT_EQ(fq_enqueue_rollback(-1, &trans), 0);
}

TEST(Enqueue, a_commit_whose_data_file_has_been_cut_changes_no_position) {
    const Queue queue;
    fqtrans trans;
    queue.begin(trans, {"one", "two", "three"});
    queue.cut(0, 60);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_commit(-1, &trans), -2); }), "");
    EXPECT_EQ(queue.position("tail"), "000000000 000000000");
    EXPECT_EQ(queue.take(), "[0]") << "the first item has not been flipped";
    queue.begin(trans, {"one", "two"});
    queue.remove(0);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_enqueue_commit(-1, &trans), -1); }),
              "fq_write_item_commit.open error " + queue.file(0) + "\n");
}

// ---- Ending a file -----------------------------------------------------------------------------

TEST(EndOfFile, a_commit_ends_a_file_of_more_than_5000000_bytes) {
    struct Case {
        int end; // of the last item
        const char *position;
        bool ended;
    };
    for (const Case &c :
         {Case{4999999, "000000003 004999999", false}, Case{5000000, "000000003 005000000", false},
          Case{5000001, "000000004 000000000", true}}) {
        const Queue queue;
        queue.store("tail", record(3, c.end - 25));
        EXPECT_EQ(queue.put({"one"}), 0);
        EXPECT_EQ(queue.position("tail"), c.position);
        const std::string bytes = queue.bytes(3);
        EXPECT_EQ(bytes.size(), static_cast<size_t>(c.end) + (c.ended ? 22 : 0));
        EXPECT_EQ(picture_of(bytes.substr(static_cast<size_t>(c.end) - 25)),
                  c.ended ? "F(one) E" : "F(one)");
    }
}

TEST(EndOfFile, a_single_shot_ends_it_at_the_same_size) {
    for (const int end : {5000000, 5000001}) {
        const Queue queue;
        queue.store("tail", record(3, end - 25));
        EXPECT_EQ(queue.put_away("one"), 0);
        EXPECT_EQ(queue.position("tail"),
                  end == 5000000 ? "000000003 005000000" : "000000004 000000000");
        EXPECT_EQ(picture_of(queue.bytes(3).substr(static_cast<size_t>(end) - 25)),
                  end == 5000000 ? "F(one)" : "F(one) E");
    }
}

TEST(EndOfFile, a_transaction_stays_in_one_file_however_long_it_gets) {
    const Queue queue;
    queue.store("tail", record(0, 4999990));
    EXPECT_EQ(queue.put({filler(100), filler(100), filler(144)}), 0);
    const std::string bytes = queue.bytes(0).substr(4999990);
    EXPECT_EQ(bytes.size(), 410u + 22u);
    EXPECT_EQ(picture_of(bytes), "F(#100) F(#100) F(#144) E");
    EXPECT_EQ(queue.position("tail"), "000000001 000000000");
    EXPECT_FALSE(queue.has(1));
}

TEST(EndOfFile, the_three_writers_wrap_the_file_order_differently) {
    EXPECT_EQ(fq::next_order_of_commit(99999998), 99999999);
    EXPECT_EQ(fq::next_order_of_commit(99999999), 0);
    EXPECT_EQ(fq::next_order_of_commit(100000000), 0);
    EXPECT_EQ(fq::next_order_of_single_shot(99999998), 99999999);
    EXPECT_EQ(fq::next_order_of_single_shot(99999999), 100000000);
    EXPECT_EQ(fq::next_order_of_single_shot(100000000), 1);
    EXPECT_EQ(fq::next_order_of_append(99999999), 100000000);
    EXPECT_EQ(fq::next_order_of_append(100000000), 100000001);

    for (const int order : {99999998, 99999999, 100000000}) {
        const Queue queue;
        queue.store("tail", record(order, 5000000));
        queue.put({"x"});
        EXPECT_EQ(queue.position("tail"),
                  record(order == 99999998 ? 99999999 : 0, 0).substr(0, 19));
        queue.store("tail", record(order, 5000000));
        queue.remove(order);
        queue.put_away("x");
        EXPECT_EQ(queue.position("tail"),
                  record(order == 100000000 ? 1 : order + 1, 0).substr(0, 19));
        fqtrans trans = record_at(queue, order, 5000100);
        EXPECT_EQ(fq_append_item(queue.path(), &trans, "x", 1), 23);
        EXPECT_EQ(next_of(trans), record(order + 1, 0).substr(0, 19));
    }
}

TEST(EndOfFile, a_commit_runs_into_the_file_of_order_0_after_99999999) {
    const Queue queue;
    queue.store("tail", record(99999999, 5000000));
    queue.store("head", record(99999999, 5000000));
    queue.put({"last"});
    queue.put({"first"});
    EXPECT_EQ(queue.drain(), "last first");
    EXPECT_EQ(queue.position("head"), "000000000 000000027");
    EXPECT_FALSE(queue.has(99999999));
}

// ---- The item writers --------------------------------------------------------------------------

TEST(ItemWriters, append_goes_to_the_end_of_the_file_and_does_not_count) {
    const Queue queue;
    queue.store(0, item_bytes('F', "one"));
    fqtrans trans = record_at(queue, 0, 25);
    EXPECT_EQ(fq_append_item(queue.path(), &trans, "two", 3), 25);
    EXPECT_EQ(trans.count, 0);
    EXPECT_EQ(trans.itemlen, 3);
    EXPECT_EQ(next_of(trans), "000000000 000000050");
    EXPECT_EQ(queue.picture(0), "F(one) F(two)");
    trans = record_at(queue, 0, 25);
    EXPECT_EQ(
        captured_stdout([&] { EXPECT_EQ(fq_append_item(queue.path(), &trans, "three", 5), -1); }),
        " noff 77 - pos 25 = 52 != wbytes 27\n");
    EXPECT_EQ(next_of(trans), "000000000 000000077");
    EXPECT_EQ(queue.picture(0), "F(one) F(two) F(three)");
}

TEST(ItemWriters, a_damaged_position_is_said_and_nothing_is_touched) {
    const Queue queue;
    struct Case {
        const char *position;
        const char *seek_line;
    };
    for (const Case &c : {Case{"000000000 -00000001", "fq_write.lseek error \n"},
                          Case{"000000000 00000001x", "fq_write.lseek error \n"},
                          Case{"-00000001 000000000", ""}, Case{"../../abc 000000000", ""}}) {
        fqtrans trans = record_at(queue, 0, 0);
        std::memcpy(trans.curpos, c.position, 19);
        const std::string printed = captured_stdout(
            [&] { EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), -1) << c.position; });
        EXPECT_EQ(printed, std::string("damaged position \"") + c.position + "\" of file queue " +
                               queue.path() + "\n" + c.seek_line);
        EXPECT_EQ(fq_find_forder_first(queue.path()), -1) << "no file was made";
    }
}

TEST(ItemWriters, an_item_that_would_end_beyond_nine_digits_is_refused) {
    const Queue queue;
    fqtrans trans = record_at(queue, 0, 999999976);
    EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), 23);
    EXPECT_EQ(next_of(trans), "000000000 999999999");
    trans = record_at(queue, 0, 999999977);
    captured_stdout([&] { EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), -1); });
    trans = record_at(queue, 999999999, 5000100);
    captured_stdout([&] { EXPECT_EQ(fq_append_item(queue.path(), &trans, "x", 1), 23); });
    queue.cut(999999999, 5000000);
    captured_stdout([&] { EXPECT_EQ(fq_append_item(queue.path(), &trans, "x", 1), -1); });
    EXPECT_EQ(next_of(trans), "999999999 005000100") << "no tenth digit in the record";
}

TEST(ItemWriters, a_place_one_cannot_seek_in_is_a_seek_error) {
    const Queue queue;
    ASSERT_EQ(mkfifo(queue.file(0).c_str(), 0666), 0);
    const Descriptor reader(open(queue.file(0).c_str(), O_RDONLY | O_NONBLOCK));
    fqtrans trans = record_at(queue, 0, 0);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_write_item(queue.path(), &trans, "x", 1), -1); }),
              "fq_write.lseek error \n");
    for (const int count : {1, 2}) {
        trans = record_at(queue, 0, 0);
        std::memcpy(trans.nextpos, record(0, 23).data(), 31);
        trans.count = count;
        EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_write_item_commit(&trans), -1); }),
                  "fq_write_item_commit.lseek error \n");
    }
}

// ---- The position log --------------------------------------------------------------------------

TEST(PositionLog, is_begun_again_past_5000000_bytes) {
    std::string log;
    while (log.size() < 5000000) log += record(0, 0);
    ASSERT_EQ(log.size(), 5000021u);
    const std::string shorter = log.substr(31); // 4999990
    for (const bool single : {false, true}) {
        const Queue queue;
        const auto put = [&] { return single ? queue.put_away("x") : queue.put({"x"}); };
        queue.store("tail", shorter);
        EXPECT_EQ(put(), 0);
        EXPECT_EQ(queue.bytes("tail"), shorter + record(0, 23));
        EXPECT_EQ(put(), 0);
        EXPECT_EQ(queue.bytes("tail"), record(0, 46));
    }
}

TEST(PositionLog, of_exactly_the_limit_is_kept) {
    std::string torn = record(0, 0);
    torn.resize(5000000, '0');
    torn.replace(161290 * 31 - 31, 31, record(0, 0));
    const Queue queue;
    queue.store("tail", torn);
    EXPECT_EQ(queue.put_away("x"), 0);
    EXPECT_EQ(queue.bytes("tail").size(), 161291u * 31u);
    queue.store("tail", torn + "0");
    EXPECT_EQ(queue.put_away("x"), 0);
    EXPECT_EQ(queue.bytes("tail").size(), 31u);
}
