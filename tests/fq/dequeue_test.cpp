// Reading: what a reader gets, what it leaves, and what it says about damage.
#include <ctime>

#include "tests/fq/queue_fixture.h"

using namespace halvo;
using namespace halvo::test;

namespace {

// A reader that keeps what one call answered and printed.
class Reading : public testing::Test {
protected:
    Queue queue;
    fqtrans trans{};
    std::string buffer;

    Said call(unsigned cap, auto f) {
        buffer.assign(cap + 22, '?');
        return said([&] { return f(queue.path(), buffer.data(), cap); });
    }
    Said begin(unsigned cap = 1000) {
        return call(cap, [&](auto... rest) { return fq_dequeue(-1, rest..., &trans); });
    }
    Said next(unsigned cap = 1000) {
        return call(cap, [&](auto path, auto... rest) {
            return fq_dequeue_next(-1, path, &trans, rest...);
        });
    }
    // fq_read_item alone, at a position.
    Said read_at(const std::string &position, unsigned cap = 1000) {
        trans = fqtrans{};
        std::memcpy(trans.curpos, position.data(), 31);
        return call(cap,
                    [&](auto path, auto... rest) { return fq_read_item(path, &trans, rest...); });
    }
    std::string data() const { return buffer.substr(20, static_cast<size_t>(trans.itemlen)); }
    std::string too_small(const char *cap, const std::string &length) const {
        return " WARNING...buffer(" + std::string(cap) + " bytes) is insufficient for data(" +
               length + " bytes) in " + queue.file(0) + " offset=0\n";
    }
};

const char *const kReadError = "fq_dequeue.fq_read_item error \n";

} // namespace

TEST_F(Reading, gives_the_whole_item_and_a_count_that_is_not_its_size) {
    queue.put({"hello"});
    EXPECT_EQ(begin().first, 5 + 25);
    EXPECT_EQ(buffer.substr(0, 28), queue.bytes(0) + "?");
    EXPECT_EQ(trans.itemlen, 5);
    EXPECT_EQ(trans.count, 1);
    EXPECT_EQ(next().first, 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.bytes("head"), record(0, 0) + record(0, 27));
    EXPECT_EQ(begin().first, 0);
    EXPECT_EQ(trans.lockfd, -1) << "nothing to read: nothing locked";
}

TEST_F(Reading, an_item_larger_than_the_buffer_stays) {
    queue.put({"one", filler(300), "three"});
    EXPECT_GT(begin(100).first, 0);
    EXPECT_EQ(next(100).first, -2) << "the transaction goes on";
    EXPECT_EQ(trans.count, 1);
    EXPECT_GT(next(300).first, 0) << "one that just fits";
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.drain(), "three");
    queue.store("head", record(0, 25));
    const std::string file = queue.file(0) + " offset=25\n";
    EXPECT_EQ(begin(299), Said(-2, " WARNING...buffer(299 bytes) is insufficient for data(300 "
                                   "bytes) in " +
                                       file + kReadError));
    EXPECT_EQ(trans.lockfd, -1);
}

// ---- From file to file -------------------------------------------------------------------------

// Kept: the commit deletes the file in which the transaction began, and no other.
TEST_F(Reading, a_finished_file_is_deleted_by_the_commit) {
    for (const int last : {8, 9}) {
        const int full = last == 9 ? 161290 * 31 : 0; // bytes in front of the log's last record
        queue.clear();
        queue.store("head", record(7, 0), full);
        queue.store("tail", record(7, 5000000));
        queue.store(7, one + kEndItem);
        queue.store(8, one + item_bytes('F', "")); // any item without data ends a file
        queue.store(last, two);
        for (int item = 7; item <= last; ++item)
            EXPECT_GT((item == 7 ? begin() : next()).first, 0) << item;
        EXPECT_EQ(data(), "two");
        EXPECT_TRUE(queue.has(7));
        EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
        EXPECT_FALSE(queue.has(7));
        EXPECT_TRUE(queue.has(8));
        EXPECT_EQ(queue.bytes("head"), (full ? "" : record(7, 0)) + record(last, 25));
    }
}

// ---- Items that are not complete, and damage ---------------------------------------------------

TEST_F(Reading, an_item_that_is_still_being_written_is_nothing_to_read) {
    const auto now = static_cast<uint32_t>(time(nullptr));
    const std::string fresh = item_bytes('F', "hello", now + 60); // of a faster clock
    const std::string old = item_bytes('F', "hello", now - 2);
    for (size_t size = 0; size < fresh.size(); ++size) {
        queue.store(0, fresh.substr(0, size));
        EXPECT_EQ(read_at(record(0, 0)).first, 0) << size;
        queue.store(0, old.substr(0, size));
        EXPECT_EQ(read_at(record(0, 0)).first, size < 20 ? 0 : -100) << size;
        EXPECT_EQ(queue.take(), "[0]") << size;
    }
    queue.store(0, old);
    EXPECT_EQ(queue.take(), "hello");
}

TEST_F(Reading, of_damage_gives_out_nothing_that_is_not_whole) {
    const auto damaged = [](const std::string &data) { // no ZZ at its end
        const std::string bytes = item_bytes('F', data);
        return bytes.substr(0, bytes.size() - 2) + "??";
    };
    const std::string within = filler(40) + item_bytes('F', "later");
    const std::string no_magic = one + "quit" + two.substr(4), file = queue.file(0);
    const auto long_item = [](uint32_t length) {
        std::string bytes = item_bytes('F', "hello");
        std::memcpy(bytes.data() + 16, &length, 4);
        return bytes;
    };
    const auto searched = [](const char *at) {
        return "자동복구! 현위치로부터 " + std::string(at) + "에서 새 아이템 검색.\n";
    };
    const auto broken = [&](const std::string &length) {
        return "복구불능오류.!!..( QBroken check(end) bit is false )  in file " + file +
               " xoffset=0 ," + length + " ??\n";
    };
    const struct {
        std::string bytes;
        int result;
        std::string printed;
        int at, length; // where the reader is then, and the length that it has seen
        int begin = 0;
    } rows[] = {
        {item_bytes('W', "hello"), 0, "", 0, 0},
        {item_bytes('W', ""), 0, "", 0, 0},
        {item_bytes('E', "hello"), 0, "", 0, 5},
        {item_bytes('X', "hello"), 0, "", 0, 5},
        {item_bytes('\0', "hello"), 0, "", 0, 5},
        {no_magic, 0,
         " WARNING...( QITM header not match. maybe retransaction )  in file " + file +
             " offset=25\n",
         25, 0, 25},
        {damaged(within) + one, 5 + 25, searched("60"), 60, 5},
        {damaged(filler(40)) + one, -1, broken("40"), 0, 40},
        // The search ends before the last four bytes of the data.
        {damaged(filler(10) + "QITMx"), 0, searched("30"), 30, 0}, // too short to be one
        {damaged("QITMx"), 0, searched("20"), 20, 0},
        {damaged(filler(10) + "QITM"), -1, broken("14"), 0, 14},
        {damaged("QITM"), -1, broken("4"), 0, 4},
        {damaged("QIT"), -1, broken("3"), 0, 3},
        {damaged("Q"), -1, broken("1"), 0, 1},
        {long_item(1001), -2, too_small("1000", "1001"), 0, 0},
        {long_item(0x7FFFFFFF), -2, too_small("1000", "2147483647"), 0, 0},
        {long_item(0xFFFFFFFF), -2, too_small("1000", "-1"), 0, 0},
    };
    for (const auto &row : rows) {
        queue.store(0, row.bytes);
        queue.store("head", record(0, row.begin));
        EXPECT_EQ(read_at(record(0, row.begin)), Said(row.result, row.printed));
        EXPECT_EQ(held(trans.curpos), place(0, row.at)) << row.printed;
        EXPECT_TRUE(row.result < 0 || trans.itemlen == row.length) << row.printed;
        const Said begun = begin();
        EXPECT_EQ(begun, Said(row.result, row.printed + (row.result < 0 ? kReadError : "")));
        if (row.result > 0) {
            EXPECT_EQ(data(), "later");
            EXPECT_EQ(held(trans.nextpos), place(0, 87));
            EXPECT_EQ(fq_dequeue_rollback(-1, &trans), 0);
        }
        EXPECT_EQ(queue.bytes("head"), record(0, row.begin));
    }
    // A caller may not know how large its buffer is.
    EXPECT_EQ(said([&] { return fq_read_item(queue.path(), &trans, buffer.data(), 0xFFFFFFFFu); }),
              Said(-2, too_small("-1", "-1")));
}

TEST_F(Reading, a_damaged_position_is_said_and_nothing_is_read) {
    queue.put({"one"});
    for (const char *offset : {"-00000001", "0000000x1", "         "})
        EXPECT_EQ(read_at(std::string("000000000 ") + offset + "      first\n"),
                  Said(-1, std::string("damaged position \"000000000 ") + offset +
                               "\" of file queue " + queue.path() +
                               "\nfq_read_item.lseek error \n"));
    queue.store("head", "000000000 -00000001      first\n");
    EXPECT_EQ(begin().first, -1);
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(queue.bytes("head"), "000000000 -00000001      first\n");
    // A byte too many, which somebody has put in: each look at the log finds the same.
    queue.store("head", record(0, 0) + "\n" + record(0, 25));
    for (int look = 0; look < 2; ++look) {
        EXPECT_GT(begin().first, 0);
        fq_dequeue_rollback(-1, &trans);
    }
    queue.store("head", record(0, 0));
    queue.cut("head", 6000000); // longer than the queue makes one: it is not gone through
    EXPECT_EQ(begin().first, -1);
}

TEST_F(Reading, what_is_no_file_one_can_seek_in_or_open_is_an_error) {
    ASSERT_EQ(mkfifo(queue.file(0).c_str(), 0666), 0);
    EXPECT_EQ(read_at(record(0, 0)), Said(-1, "fq_read_item.lseek error \n"));
    ASSERT_EQ(symlink("/dev/null", queue.file(1).c_str()), 0);
    EXPECT_EQ(read_at(record(1, 100)), Said(-1, "fq_read_item.lseek(2) error \n"));
    ASSERT_EQ(symlink(queue.file(2).c_str(), queue.file(2).c_str()), 0);
    EXPECT_EQ(read_at(record(2, 0)), Said(-1, "fq_read_item.open error " + queue.file(2) +
                                                  " (Too many levels of symbolic links)\n"));
}
