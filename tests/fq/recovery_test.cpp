// What a writer finds behind its saved position when another one has died there.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "tests/fq/queue_fixture.h"

using namespace halvo::test;

namespace {

const std::string one = item_bytes('F', "one"), two = item_bytes('F', "two");

// What a writer finds, and what it makes of it with one item more.
struct Found {
    const char *name;
    std::string tail, head;
    std::string files[2];
    int order;           // of the file that the item "new" goes into
    std::string picture; // of that file then
    std::string drained;
};
const Found kFound[] = {
    {"readable items without a saved position are stepped over",
     record(0, 0),
     "",
     {one + two},
     0,
     "F(one) F(two) F(new)",
     "one two new"},
    // As long as the first of the batch: "def" would follow it.
    {"a batch that died while it was flipped vanishes whole",
     record(0, 25),
     "",
     {one + item_bytes('W', "abc") + item_bytes('F', "def") + item_bytes('F', "ghi")},
     0,
     "F(one) F(new)",
     "one new"},
    {"an end item leads into the next file",
     record(0, 25),
     record(0, 0),
     {one + two + kEndItem},
     1,
     "F(new)",
     "one two new"},
    {"a file that the reader has finished and deleted is not made again",
     record(0, 25),
     record(0, 0) + record(1, 0),
     {},
     1,
     "F(new)",
     "new"},
    // Kept: without a saved position the writer begins the last file again and overwrites it.
    {"a lost position file",
     "",
     "",
     {item_bytes('F', "old"), one + two},
     1,
     "F(new) F(two)",
     "old"},
    {"the end of a file that is damaged",
     record(0, 0),
     "",
     {one + two.substr(0, 20) + "two??" + two},
     0,
     "F(one) F(new)",
     "one new"},
    {"no item at all", record(0, 25), "", {one + filler(60)}, 0, "F(one) F(new) ?35", "one new"},
};

} // namespace

// Both ways to begin: with a transaction and with a single shot.
TEST(Settling, goes_on_behind_what_is_whole) {
    const Queue queue;
    for (const Found &row : kFound)
        for (const bool single : {false, true}) {
            SCOPED_TRACE(row.name);
            queue.clear();
            if (!row.tail.empty()) queue.store("tail", row.tail);
            if (!row.head.empty()) queue.store("head", row.head);
            for (const int order : {0, 1})
                if (!row.files[order].empty()) queue.store(order, row.files[order]);
            EXPECT_EQ(single ? queue.put_away("new") : queue.put({"new"}), 0);
            EXPECT_EQ(queue.picture(row.order), row.picture);
            EXPECT_EQ(queue.has(0), !row.files[0].empty());
            EXPECT_EQ(queue.drain(), row.drained);
        }
}

TEST(Settling, cuts_a_half_written_item_off) {
    const Queue queue;
    for (size_t size = 1; size < two.size(); ++size) {
        queue.store(0, one + two.substr(0, size));
        queue.store("tail", record(0, 25));
        EXPECT_EQ(size % 2 ? queue.put_away("x") : queue.put({"x"}), 0);
        EXPECT_EQ(queue.picture(0), "F(one) F(x)") << size;
    }
}

TEST(Settling, leaves_a_reader_behind_the_wrap_and_a_gap_alone) {
    const Queue queue;
    queue.store("tail", record(0, 0));
    queue.store("head", record(99999999, 0));
    queue.store(99999999, one + kEndItem);
    queue.put({"new"});
    EXPECT_EQ(queue.picture(0), "F(new)");
    EXPECT_EQ(queue.drain(), "one new");
    queue.store("tail", record(5, 100));
    queue.put_away("new");
    EXPECT_EQ(queue.bytes(5).substr(0, 100), std::string(100, '\0'));
    EXPECT_EQ(picture_of(queue.bytes(5).substr(100)), "F(new)");
}

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
    queue.store(9, item_bytes('F', "second") + kEndItem);
    queue.store(7, item_bytes('F', "first") + kEndItem);
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
    const auto prepare = [&] {
        queue.store(3, item_bytes('F', "read") + kEndItem);
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
