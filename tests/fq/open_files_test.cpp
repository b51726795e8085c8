// Open files are kept from one transaction to the next: nobody may notice.
#include <sys/syscall.h>

#include "tests/fq/queue_fixture.h"

using namespace halvo::test;

namespace {

uint32_t unit_of_times = 1; // of files: nanoseconds

class OpenFiles : public testing::Test {
protected:
    OpenFiles() {
        EXPECT_EQ(queue.put({"old", "older"}), 0);
        EXPECT_EQ(queue.take(), "old");
    }
    // Puts an item into many queues and takes it out again.
    void use_queues(int number) {
        for (int i = 0; i < number; ++i) {
            const QueueAt other(queue.directory() + "/many" + std::to_string(i));
            ASSERT_EQ(other.put_away("x"), 0) << i;
            ASSERT_EQ(other.take(), "x") << i;
        }
    }
    Queue queue;
};

} // namespace

extern "C" __attribute__((visibility("default"))) int
statx(int at, const char *name, int flags, unsigned mask, struct statx *found) noexcept {
    const auto result = static_cast<int>(syscall(SYS_statx, at, name, flags, mask, found));
    if (result == 0) found->stx_ctime.tv_nsec -= found->stx_ctime.tv_nsec % unit_of_times;
    return result;
}

TEST_F(OpenFiles, each_one_removed_is_made_again) {
    for (const char *file : {"wrlk", "rdlk", "tail", "head", "000000000"}) {
        queue.remove(file);
        EXPECT_EQ(queue.put({"new"}), 0) << file;
        queue.take();
        EXPECT_TRUE(queue.has(file)) << file;
    }
}

// Some file systems count time in longer units than the kernel's clock goes on by.
TEST_F(OpenFiles, a_removed_file_is_noticed_where_times_are_coarse) {
    unit_of_times = 50000000;
    timespec now{};
    do clock_gettime(CLOCK_REALTIME_COARSE, &now);
    while (now.tv_nsec % unit_of_times > 10000000); // the rest happens in one unit
    queue.remove("head");                           // marks the directory's time
    usleep(10000);
    EXPECT_EQ(queue.put({"x"}), 0);
    queue.remove(0);
    EXPECT_EQ(queue.put({"y"}), 0);
    EXPECT_TRUE(queue.has(0));
}

TEST_F(OpenFiles, many_queues_do_not_use_up_the_descriptors) {
    const int before = open_descriptors();
    use_queues(100);
    EXPECT_LE(open_descriptors(), before + 100);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = static_cast<rlim_t>(open_descriptors()) + 2;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    use_queues(100);
    EXPECT_EQ(queue.take(), "older");
}

TEST_F(OpenFiles, a_deleted_data_file_is_not_kept_by_an_idle_reader) {
    queue.store(0, queue.bytes(0) + kEndItem);
    EXPECT_EQ(queue.drain_at_once(), "older");
    const int before = open_descriptors();
    EXPECT_EQ(queue.take(), "[0]");
    EXPECT_EQ(open_descriptors(), before - 1) << "it would still take up the disk";
}

// A lockf lock goes with any close of its file: also of one kept under another name.
TEST_F(OpenFiles, closing_a_kept_file_does_not_take_the_lock_from_a_transaction) {
    ASSERT_EQ(QueueAt(queue.directory() + "/./q").put_away("x"), 0);
    fqtrans trans;
    queue.begin(trans, {"held"});
    use_queues(60);
    EXPECT_TRUE(queue.others_are_kept_out());
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
}

TEST_F(OpenFiles, a_process_that_closes_every_descriptor_writes_into_no_other_file) {
    Peer daemon([&] {
        EXPECT_EQ(queue.put({"before"}), 0);
        use_queues(1);
        closefrom(3);
        use_queues(1); // takes the numbers that the other queue has had
        const std::string hosts = queue.file("hosts");
        for (int i = 0; i < 20; ++i) open(hosts.c_str(), O_RDWR | O_CREAT, 0666);
        EXPECT_EQ(queue.put({"after"}), 0);
        EXPECT_EQ(queue.take(), "older");
        EXPECT_EQ(content_of(hosts), "");
    });
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(queue.drain(), "before after");
}

TEST_F(OpenFiles, a_forked_child_waits_for_its_parent_and_leaves_its_lock_alone) {
    fqtrans trans;
    queue.begin(trans, {"parent's"});
    Peer reader([&] { return queue.take() == "older" ? 0 : 1; });
    EXPECT_EQ(reader.wait(), 0) << "with the files that the parent has kept";
#ifndef __SANITIZE_THREAD__ // which takes the child's copy of the mutex for the parent's
    Peer ender([&] { return fq_enqueue_rollback(-1, &trans); });
    EXPECT_EQ(ender.wait(), 0) << "of its copy of the transaction";
#endif
    EXPECT_TRUE(queue.others_are_kept_out());
    Peer writer([&] { return queue.put({"child's"}); });
    usleep(50000);
    EXPECT_EQ(queue.picture(0), "F(old) F(older) W(parent's)");
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(queue.put({"again"}), 0);
    EXPECT_EQ(queue.drain(), "parent's child's again");
}

// ---- Blocks of items ---------------------------------------------------------------------------

TEST_F(OpenFiles, what_was_read_ahead_is_looked_at_again_until_it_is_readable) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "takes the locks of both sides in both orders, which two threads must not";
#endif
    fqtrans writer, reader;
    std::vector<std::string> items;
    char buffer[122];
    const auto next = [&] { return fq_dequeue_next(-1, queue.path(), &reader, buffer, 100); };
    queue.begin(writer, {"one", "two"});
    EXPECT_EQ(queue.read(reader, items), 0);
    fq_enqueue_rollback(-1, &writer);
    queue.put({"1", "2"});
    for (const char expected : {'1', '2'}) {
        EXPECT_GT(next(), 0);
        EXPECT_EQ(buffer[20], expected);
    }
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &reader), 0);
}

// Items near each other, far apart, of many sizes, and too many to be kept in memory.
TEST_F(OpenFiles, a_batch_of_any_shape_is_readable_whole) {
    const std::vector<std::vector<int>> shapes{{1, 2, 3, 4000, 5, 6},
                                               {20000, 30000, 40000, 1},
                                               {70000, 1, 1, 100000},
                                               {500000, 500000, 500000, 1},
                                               {1100000, 1}};
    ASSERT_EQ(queue.take(), "older");
    for (const std::vector<int> &shape : shapes) {
        std::vector<std::string> items;
        for (const int size : shape) items.push_back(filler(size) + std::to_string(items.size()));
        ASSERT_EQ(queue.put(items), 0);
        const int end = static_cast<int>(queue.bytes(0).size());
        EXPECT_EQ(queue.position("tail"), place(0, end)) << "nothing behind the items";
        for (const std::string &item : items) EXPECT_TRUE(queue.take(1200000) == item);
        EXPECT_EQ(queue.take(), "[0]");
        ASSERT_EQ(queue.put(items), 0);
        EXPECT_TRUE(queue.drain_at_once(1200000) == text_of(items));
    }
}
