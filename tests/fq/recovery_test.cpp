// What a writer finds behind its saved position when another one has died there.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "tests/fq/queue_fixture.h"

using namespace halvo::test;

namespace {

// Both ways to begin: with a transaction and with a single shot.
class Settling : public testing::TestWithParam<bool> {
protected:
    Queue queue;
    void put(const std::string &data) {
        EXPECT_EQ(GetParam() ? queue.put_away(data) : queue.put({data}), 0);
    }
    const std::string one = item_bytes('F', "one"), two = item_bytes('F', "two");
};

} // namespace

INSTANTIATE_TEST_SUITE_P(, Settling, testing::Bool(), [](const auto &kind) {
    return kind.param ? "single_shot" : "transaction";
});

TEST_P(Settling, readable_items_without_a_saved_position_are_stepped_over) {
    queue.store("tail", record(0, 0));
    queue.store(0, one + two);
    put("new");
    EXPECT_EQ(queue.picture(0), "F(one) F(two) F(new)");
    EXPECT_EQ(queue.drain(), "one two new");
}

TEST_P(Settling, a_batch_that_died_while_it_was_flipped_vanishes_whole) {
    queue.store("tail", record(0, 25));
    queue.store(0, one + item_bytes('W', "abc") + item_bytes('F', "def") + item_bytes('F', "ghi"));
    put("new"); // as long as the first of the batch: "def" would follow it
    EXPECT_EQ(queue.picture(0), "F(one) F(new)");
    EXPECT_EQ(queue.drain(), "one new");
}

TEST_P(Settling, a_half_written_item_is_cut_off) {
    queue.store("tail", record(0, 25));
    for (size_t size = 1; size < two.size(); ++size) {
        queue.store(0, one + two.substr(0, size));
        queue.store("tail", record(0, 25));
        put("x");
        EXPECT_EQ(queue.picture(0), "F(one) F(x)") << size;
    }
}

TEST_P(Settling, an_end_item_leads_into_the_next_file) {
    queue.store("tail", record(0, 25));
    queue.store("head", record(0, 0));
    queue.store(0, one + two + item_bytes('E', ""));
    put("new");
    EXPECT_EQ(queue.picture(1), "F(new)");
    EXPECT_EQ(queue.drain(), "one two new");
}

TEST_P(Settling, a_file_that_the_reader_has_finished_and_deleted_is_not_made_again) {
    queue.store("tail", record(0, 25));
    queue.store("head", record(0, 0) + record(1, 0));
    put("new");
    EXPECT_FALSE(queue.has(0));
    EXPECT_EQ(queue.drain(), "new");
}

TEST_P(Settling, a_reader_that_is_still_behind_the_wrap_is_not_followed) {
    queue.store("tail", record(0, 0));
    queue.store("head", record(99999999, 0));
    queue.store(99999999, one + item_bytes('E', ""));
    put("new");
    EXPECT_EQ(queue.picture(0), "F(new)");
    EXPECT_EQ(queue.drain(), "one new");
}

// Kept: without a saved position the writer begins the last file again and overwrites it.
TEST_P(Settling, a_lost_position_file_overwrites_the_last_file_from_its_beginning) {
    queue.store(4, item_bytes('F', "old"));
    queue.store(7, one + two);
    put("new");
    EXPECT_EQ(queue.bytes("tail"), record(7, 0) + record(7, 25));
    EXPECT_EQ(queue.picture(7), "F(new) F(two)");
}

TEST_P(Settling, a_gap_before_the_position_stays_one) {
    queue.store("tail", record(0, 100));
    put("new");
    EXPECT_EQ(queue.bytes(0).substr(0, 100), std::string(100, '\0'));
    EXPECT_EQ(picture_of(queue.bytes(0).substr(100)), "F(new)");
}

// What no reader may still want is cut off: an item that was not committed. Nothing else is.
TEST(LostLog, of_the_writer_overwrites_and_leaves_unread_items_until_they_are_reached) {
    const Queue queue;
    for (int i = 0; i < 1001; ++i) ASSERT_EQ(queue.put({"item" + std::to_string(i)}), 0);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(queue.take(), "item" + std::to_string(i));
    const size_t size = queue.bytes(0).size();
    queue.remove("tail");
    EXPECT_EQ(queue.put({"x"}), 0);
    EXPECT_EQ(queue.put({"y"}), 0);
    EXPECT_GE(queue.bytes(0).size(), size);
    for (int i = 500; i < 1001; ++i) ASSERT_EQ(queue.take(), "item" + std::to_string(i));
}

TEST(LostLog, of_the_reader_that_names_a_deleted_file_goes_on_at_the_first_that_is_there) {
    const Queue queue;
    queue.store("head", record(3, 77));
    queue.store(9, item_bytes('F', "second") + item_bytes('E', ""));
    queue.store(7, item_bytes('F', "first") + item_bytes('E', ""));
    queue.store(2, item_bytes('F', "long read"));
    EXPECT_EQ(queue.drain(), "first second");
    EXPECT_TRUE(queue.has(2));
    queue.store("head", record(99999999, 77));
    EXPECT_EQ(queue.take(), "long read") << "later on the circle";
}

TEST(Logs, that_cannot_grow_are_begun_again_in_place) {
    const Queue queue;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(queue.put({"1", "2", "3", "4", "5"}), 0);
    EXPECT_EQ(queue.take(), "1");
    limit.rlim_cur = 31 * 2 + 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    for (const char *item : {"2", "3", "4", "5", "[0]"}) EXPECT_EQ(queue.take(), item);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(queue.position("head"), record(0, 5 * 23).substr(0, 19));
}

TEST(DeadReader, leaves_a_consumed_file_that_the_next_removes) {
    const Queue queue;
    const std::string end = item_bytes('E', "");
    const auto prepare = [&] {
        queue.store(3, item_bytes('F', "read") + end);
        queue.store(4, item_bytes('F', "one") + item_bytes('F', "two"));
        queue.store("head", record(3, 0) + record(4, 25));
        queue.store("tail", record(4, 50));
    };
    prepare();
    EXPECT_EQ(queue.take(), "two");
    EXPECT_FALSE(queue.has(3));
    prepare();
    queue.store("tail", record(3, 0)); // the writer has been sent back there
    queue.take();
    EXPECT_TRUE(queue.has(3));
    prepare();
    queue.store("head", record(4, 0) + record(3, 0)); // so has the reader
    EXPECT_EQ(queue.take(), "read");
    EXPECT_TRUE(queue.has(4));
}

TEST(Reader, tells_a_file_that_it_may_not_open_from_one_that_is_not_there) {
    const Queue queue;
    queue.put({"one"});
    queue.remove(0);
    ASSERT_EQ(symlink(queue.file(0).c_str(), queue.file(0).c_str()), 0);
    const std::string printed = captured_stdout([&] { EXPECT_EQ(queue.take(), "[-1]"); });
    EXPECT_NE(printed.find("fq_read_item.open error " + queue.file(0)), std::string::npos)
        << printed;
}
