// Reading: what a reader gets, what it leaves, and what it says about damage.
#include <gtest/gtest.h>

#include <ctime>

#include "tests/fq/queue_fixture.h"

using namespace halvo;
using namespace halvo::test;

namespace {

// A reader that shows what one call answered and printed.
class Reading : public testing::Test {
protected:
    Queue queue;
    fqtrans trans{};
    std::string buffer;
    std::string printed;

    int begin(unsigned cap = 1000) {
        buffer.assign(cap + 22, '?');
        int result = 0;
        printed = captured_stdout(
            [&] { result = fq_dequeue(-1, queue.path(), buffer.data(), cap, &trans); });
        return result;
    }
    int next(unsigned cap = 1000) {
        buffer.assign(cap + 22, '?');
        int result = 0;
        printed = captured_stdout(
            [&] { result = fq_dequeue_next(-1, queue.path(), &trans, buffer.data(), cap); });
        return result;
    }
    // fq_read_item alone, at a position.
    int read_at(const std::string &position, unsigned cap = 1000) {
        trans = fqtrans{};
        std::memcpy(trans.curpos, position.data(), 31);
        buffer.assign(cap + 22, '?');
        int result = 0;
        printed = captured_stdout(
            [&] { result = fq_read_item(queue.path(), &trans, buffer.data(), cap); });
        return result;
    }
    std::string data() const { return buffer.substr(20, static_cast<size_t>(trans.itemlen)); }
    std::string current() const { return held(trans.curpos); }
    std::string following() const { return held(trans.nextpos); }
    static std::string held(const char *text) {
        return std::string(text, 9) + " " + std::string(text + 10, 9);
    }
    std::string at(const std::string &offset) const {
        return queue.file(0) + " offset=" + offset + "\n";
    }
    static uint32_t now() { return static_cast<uint32_t>(time(nullptr)); }
};

const std::string kWarning = " WARNING...( QITM header not match. maybe retransaction )  in file ";

} // namespace

TEST_F(Reading, gives_the_whole_item_and_a_count_that_is_not_its_size) {
    queue.put({"hello"});
    EXPECT_EQ(begin(), 5 + 25);
    const std::string file = queue.bytes(0);
    EXPECT_EQ(buffer.substr(0, 27), file);
    EXPECT_EQ(buffer[27], '?');
    EXPECT_EQ(trans.itemlen, 5);
    EXPECT_EQ(trans.count, 1);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.bytes("head"), record(0, 0) + record(0, 27));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(trans.lockfd, -1) << "nothing to read: nothing locked";
}

TEST_F(Reading, a_rollback_gives_the_same_items_again) {
    queue.put({"one", "two"});
    EXPECT_GT(begin(), 0);
    EXPECT_GT(next(), 0);
    EXPECT_EQ(data(), "two");
    EXPECT_EQ(fq_dequeue_rollback(-1, &trans), 0);
    EXPECT_EQ(queue.drain(), "one two");
}

TEST_F(Reading, a_commit_without_items_gives_the_side_back) {
    std::strcpy(trans.path, queue.path());
    captured_stdout([&] { ASSERT_EQ(fq_lock('r', &trans), 31); });
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_dequeue_commit(-1, &trans), -1); }),
              "fq_dequeue_commit on no data.\n");
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(captured_stdout([&] {
                  EXPECT_EQ(fq_dequeue_commit(-1, nullptr), -1);
                  EXPECT_EQ(fq_dequeue_rollback(-1, nullptr), -1);
              }),
              "fq_dequeue_commit NULL trans.\nfq_dequeue_commit NULL trans.\n");
    EXPECT_EQ(fq_dequeue_next(-1, queue.path(), nullptr, buffer.data(), 0), ESMS_INVAL);
}

TEST_F(Reading, an_item_larger_than_the_buffer_stays) {
    queue.put({filler(300)});
    EXPECT_EQ(begin(200), -2);
    EXPECT_NE(printed.find(" WARNING...buffer(200 bytes) is insufficient for data(300 bytes) in " +
                           at("0") + "fq_dequeue.fq_read_item error \n"),
              std::string::npos)
        << printed;
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(begin(299), -2);
    EXPECT_EQ(queue.take(300), filler(300)) << "one that just fits";
}

TEST_F(Reading, a_next_that_fails_keeps_the_transaction) {
    queue.put({"one", filler(300), "three"});
    EXPECT_GT(begin(100), 0);
    EXPECT_EQ(next(100), -2);
    EXPECT_EQ(trans.count, 1);
    EXPECT_GT(next(300), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.drain(), "three");
}

// ---- From file to file -------------------------------------------------------------------------

TEST_F(Reading, an_end_item_without_a_next_file_is_nothing_to_read_and_saves_nothing) {
    queue.store(0, item_bytes('F', "one") + item_bytes('E', ""));
    queue.store("head", record(0, 25));
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(queue.bytes("head"), record(0, 25));
    queue.store(1, item_bytes('F', "two"));
    EXPECT_EQ(queue.drain(), "two");
}

TEST_F(Reading, a_finished_file_is_deleted_by_the_commit) {
    queue.store("head", record(7, 0));
    queue.store("tail", record(7, 5000000));
    queue.store(7, item_bytes('F', "a") + item_bytes('E', ""));
    queue.store(8, item_bytes('F', "b"));
    EXPECT_GT(begin(), 0);
    EXPECT_GT(next(), 0);
    EXPECT_EQ(data(), "b");
    EXPECT_TRUE(queue.has(7));
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_FALSE(queue.has(7));
    EXPECT_TRUE(queue.has(8));
    EXPECT_EQ(queue.bytes("head"), record(7, 0) + record(8, 23));
}

TEST_F(Reading, a_transaction_over_three_files_deletes_the_first_alone) {
    queue.store("head", record(7, 0));
    for (const int order : {7, 8}) queue.store(order, item_bytes('F', "x") + item_bytes('E', ""));
    queue.store(9, item_bytes('F', "y"));
    EXPECT_GT(begin(), 0);
    EXPECT_GT(next(), 0);
    EXPECT_GT(next(), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_FALSE(queue.has(7));
    EXPECT_TRUE(queue.has(8));
    EXPECT_EQ(queue.position("head"), "000000009 000000023");
}

TEST_F(Reading, any_item_of_length_0_but_an_uncommitted_one_ends_its_file) {
    queue.store(1, item_bytes('F', "next"));
    for (const char state : {'E', 'F', 'X'}) {
        queue.store(0, item_bytes(state, ""));
        EXPECT_GT(read_at(record(0, 0)), 0) << state;
        EXPECT_EQ(current(), "000000001 000000000");
    }
    queue.store(0, item_bytes('W', ""));
    EXPECT_EQ(read_at(record(0, 0)), 0);
}

TEST_F(Reading, a_file_whose_deletion_outlived_its_reader_is_stepped_over) {
    queue.store("head", record(0, 25));
    EXPECT_EQ(begin(), 0) << "no file at all";
    queue.store(1, item_bytes('F', "two"));
    EXPECT_EQ(queue.drain(), "two");
    EXPECT_EQ(queue.position("head"), "000000001 000000025");
}

TEST_F(Reading, a_file_that_could_not_be_ended_is_stepped_over_when_the_next_is_there) {
    queue.store("head", record(0, 5000001));
    std::string file(5000001, '-');
    queue.store(0, file + std::string("QITME\0\0", 7));
    EXPECT_EQ(begin(), 0) << "the writer has not gone on";
    queue.store(1, item_bytes('F', "two"));
    EXPECT_EQ(queue.drain(), "two");
    queue.store("head", record(0, 5000000));
    queue.store(0, file.substr(1));
    EXPECT_EQ(begin(), 0) << "a file within its limit is never left without an end";
}

// ---- Items that are not complete, and damage ---------------------------------------------------

TEST_F(Reading, an_item_that_is_still_being_written_is_nothing_to_read) {
    const std::string fresh = item_bytes('F', "hello", now());
    const std::string old = item_bytes('F', "hello", now() - 2);
    for (size_t size = 0; size < fresh.size(); ++size) {
        queue.store(0, fresh.substr(0, size));
        EXPECT_EQ(read_at(record(0, 0)), 0) << size;
        queue.store(0, old.substr(0, size));
        EXPECT_EQ(read_at(record(0, 0)), size < 20 ? 0 : -100) << size;
        EXPECT_EQ(queue.take(), "[0]") << size;
    }
    queue.store(0, old);
    EXPECT_EQ(queue.take(), "hello");
}

TEST_F(Reading, a_state_other_than_committed_is_not_given_out) {
    for (const char state : {'W', 'E', 'X', '\0'}) {
        queue.store(0, item_bytes(state, "hello"));
        EXPECT_EQ(read_at(record(0, 0)), 0);
        EXPECT_EQ(trans.itemlen, state == 'W' ? 0 : 5);
        EXPECT_EQ(printed, "");
    }
}

TEST_F(Reading, a_wrong_magic_is_said_and_keeps_the_reader_there) {
    queue.store(0, item_bytes('F', "one") + item_bytes('F', "two"));
    queue.patch(0, 25, "quit");
    EXPECT_EQ(queue.take(), "one");
    EXPECT_EQ(begin(), 0);
    EXPECT_EQ(printed, kWarning + at("25"));
}

TEST_F(Reading, a_damaged_item_is_skipped_to_the_next_one_within_it) {
    std::string data = filler(40) + item_bytes('F', "later");
    queue.store(0, item_bytes('F', data) + item_bytes('F', "last"));
    queue.patch(0, 20 + static_cast<int>(data.size()), "??");
    EXPECT_EQ(read_at(record(0, 0)), 5 + 25);
    EXPECT_EQ(printed, "자동복구! 현위치로부터 60에서 새 아이템 검색.\n");
    EXPECT_EQ(current(), "000000000 000000060");
    EXPECT_EQ(following(), "000000000 000000087");
    EXPECT_EQ(this->data(), "later");
}

TEST_F(Reading, a_damaged_item_without_another_in_it_cannot_be_repaired) {
    queue.store(0, item_bytes('F', filler(40)) + item_bytes('F', "last"));
    queue.patch(0, 60, "?!");
    EXPECT_EQ(begin(), -1);
    EXPECT_NE(printed.find("복구불능오류.!!..( QBroken check(end) bit is false )  in file " +
                           queue.file(0) + " xoffset=0 ,40 ?!\nfq_dequeue.fq_read_item error \n"),
              std::string::npos)
        << printed;
    EXPECT_EQ(queue.position("head"), "000000000 000000000");
}

TEST_F(Reading, the_search_ends_before_the_last_four_bytes_of_the_data) {
    const auto damaged = [&](const std::string &data) {
        std::string bytes = item_bytes('F', data);
        queue.store(0, bytes.replace(bytes.size() - 2, 2, "??"));
        return read_at(record(0, 0));
    };
    EXPECT_EQ(damaged(filler(10) + "QITMx"), 0) << "found, and too short there";
    EXPECT_EQ(current(), "000000000 000000030");
    EXPECT_EQ(damaged(filler(10) + "QITM"), -1);
    EXPECT_EQ(damaged("QITMx"), 0);
    EXPECT_EQ(current(), "000000000 000000020");
    for (const char *data : {"QITM", "QIT", "Q"}) EXPECT_EQ(damaged(data), -1) << data;
}

TEST_F(Reading, a_damaged_length_reads_nothing_outside_the_buffer) {
    for (const uint32_t length : {1001u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        std::string bytes = item_bytes('F', "hello");
        std::memcpy(bytes.data() + 16, &length, 4);
        queue.store(0, bytes);
        EXPECT_EQ(read_at(record(0, 0)), -2);
        EXPECT_EQ(printed, " WARNING...buffer(1000 bytes) is insufficient for data(" +
                               std::to_string(static_cast<int32_t>(length)) + " bytes) in " +
                               at("0"));
    }
    buffer.assign(100, '?'); // a caller may not know how large its buffer is
    EXPECT_EQ(captured_stdout([&] {
                  EXPECT_EQ(fq_read_item(queue.path(), &trans, buffer.data(), 0xFFFFFFFFu), -2);
              }),
              " WARNING...buffer(-1 bytes) is insufficient for data(-1 bytes) in " + at("0"));
}

TEST_F(Reading, a_damaged_position_is_said_and_nothing_is_read) {
    queue.put({"one"});
    for (const char *offset : {"-00000001", "0000000x1", "         "}) {
        EXPECT_EQ(read_at(std::string("000000000 ") + offset + "      first\n"), -1);
        EXPECT_EQ(printed, std::string("damaged position \"000000000 ") + offset +
                               "\" of file queue " + queue.path() +
                               "\nfq_read_item.lseek error \n");
    }
    queue.store("head", "000000000 -00000001      first\n");
    EXPECT_EQ(begin(), -1);
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(queue.bytes("head"), "000000000 -00000001      first\n");
}

TEST_F(Reading, what_is_no_file_one_can_seek_in_is_an_error) {
    ASSERT_EQ(mkfifo(queue.file(0).c_str(), 0666), 0);
    EXPECT_EQ(read_at(record(0, 0)), -1);
    EXPECT_EQ(printed, "fq_read_item.lseek error \n");
    ASSERT_EQ(symlink("/dev/null", queue.file(1).c_str()), 0);
    EXPECT_EQ(read_at(record(1, 100)), -1);
    EXPECT_EQ(printed, "fq_read_item.lseek(2) error \n");
}

// Every prefix of a queue's data and position files: no crash, no hang, nothing out of order.
TEST_F(Reading, files_cut_at_any_byte_give_a_beginning_of_the_items) {
    queue.put({"one", "two", "three"});
    const std::string file = queue.bytes(0);
    const std::string all = "one two three";
    for (size_t size = 0; size <= file.size(); ++size) {
        queue.store(0, file.substr(0, size));
        queue.remove("head");
        const std::string got = queue.drain();
        EXPECT_EQ(got, all.substr(0, got.size())) << size;
        EXPECT_EQ(got, size < 25 ? "" : size < 50 ? "one" : size < 77 ? "one two" : all);
    }
    const std::string log = record(0, 0) + record(0, 25) + record(0, 50);
    for (size_t size = 0; size <= log.size(); ++size) {
        queue.store("head", log.substr(0, size));
        const size_t whole = size / 31;
        EXPECT_EQ(queue.drain(), whole < 2 ? all : whole == 2 ? "two three" : "three") << size;
    }
}

TEST(PositionLog, of_the_reader_is_begun_again_past_5000000_bytes) {
    const Queue queue;
    queue.put({"one", "two"});
    std::string log;
    while (log.size() <= 5000000) log += record(0, 0);
    queue.store("head", log);
    EXPECT_EQ(queue.take(), "one");
    EXPECT_EQ(queue.bytes("head"), record(0, 25));
    EXPECT_EQ(queue.take(), "two");
    EXPECT_EQ(queue.bytes("head"), record(0, 25) + record(0, 50));
}
