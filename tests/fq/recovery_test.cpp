// What a writer finds behind its saved position when another one has died there.
#include "tests/fq/queue_fixture.h"

using namespace halvo::test;

// Both ways to begin: with a transaction and with a single shot.
TEST(Settling, goes_on_where_nothing_is_lost) {
    const Queue queue;
    const struct {
        std::string tail, head;
        int number; // of the file that stands there
        std::string file, drained;
        int order, offset; // where the new item goes
        std::string picture;
    } rows[] = {
        // The reader has finished the file and deleted it.
        {record(0, 25), record(0, 0) + record(1, 0), 9, "", "new", 1, 0, "F(new)"},
        // The reader is still behind the wrap.
        {record(0, 0), record(99999999, 0), 99999999, one + kEndItem, "one new", 0, 0, "F(new)"},
        // Kept: without a saved position the writer begins the last file again and overwrites it.
        {"", "", 7, one + two, "new two", 7, 0, "F(new) F(two)"},
        // Nothing is cut off where no item begins; a gap stays one.
        {record(0, 25), "", 0, one + filler(60), "one new", 0, 25, "F(new) ?35"},
        {record(0, 100), record(0, 100), 0, "", "new", 0, 100, "F(new)"},
    };
    for (const auto &row : rows)
        for (const bool single : {false, true}) {
            queue.clear();
            queue.store("tail", row.tail);
            queue.store("head", row.head);
            queue.store(row.number, row.file);
            EXPECT_EQ(single ? queue.put_away("new") : queue.put({"new"}), 0);
            EXPECT_EQ(picture_of(queue.bytes(row.order, row.offset)), row.picture);
            EXPECT_EQ(queue.has(0), row.order == 0);
            EXPECT_EQ(queue.drain(), row.drained);
        }
}

TEST(Settling, puts_nothing_where_the_reader_has_been_when_its_log_cannot_be_opened) {
    const Queue queue;
    queue.store("tail", record(0, 25));
    ASSERT_EQ(symlink("q.head", queue.file("head").c_str()), 0);
    EXPECT_LT(queue.put_away("new"), 0);
    EXPECT_LT(queue.put({"new"}), 0);
    queue.remove("head");
    queue.store("head", record(0, 0) + record(1, 0));
    EXPECT_EQ(queue.put_away("again"), 0);
    EXPECT_EQ(queue.drain(), "again");
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
    queue.patch(3, 0, "?"); // where a reader is stuck, and is sent on by hand
    EXPECT_EQ(queue.take(), "two");
    EXPECT_TRUE(queue.has(3)) << "nobody has read it";
    prepare();
    queue.store("tail", record(3, 0)); // the writer has been sent back there
    queue.take();
    EXPECT_TRUE(queue.has(3));
    prepare();
    queue.store("head", record(4, 0) + record(3, 0)); // so has the reader
    EXPECT_EQ(queue.take(), "read");
    EXPECT_TRUE(queue.has(4));
}
