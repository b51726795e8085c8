// What a writer finds behind its saved position when another one has died there.
#include <gtest/gtest.h>

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
