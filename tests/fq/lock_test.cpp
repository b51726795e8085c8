// The two locks of a side: between threads, between processes, and not between the sides.
#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/fq/queue_fixture.h"
#include "tests/support/peer.h"

using namespace halvo;
using namespace halvo::test;

namespace {

class Locks : public testing::Test {
protected:
    Queue queue;

    fqtrans record_of(const Queue &which) {
        fqtrans trans{};
        std::strcpy(trans.path, which.path());
        return trans;
    }
    int lock(char mode, fqtrans &trans) {
        trans = record_of(queue);
        return fq_lock(mode, &trans);
    }
    // Whether nobody but a waiter has come that far for a while.
    static bool stays_behind(const std::atomic<bool> &arrived) {
        usleep(100000);
        return !arrived;
    }
};

const char *const kNothingHeld = "invalid stat(index fd) \n"
                                 "invalid stat(lock fd) \n"
                                 "invalid stat(mtx) \n";

int open_descriptors() {
    int count = 0;
    Directory directory("/proc/self/fd");
    while (directory.next()) ++count;
    return count;
}

} // namespace

TEST_F(Locks, a_lock_reads_the_position_and_opens_both_files) {
    queue.store("tail", record(3, 77));
    fqtrans trans;
    EXPECT_EQ(lock('w', trans), 31);
    EXPECT_EQ(std::string(trans.startpos, 31), record(3, 77));
    EXPECT_EQ(std::string(trans.curpos, 31), record(3, 77));
    EXPECT_EQ(trans.lockkey, ftok(queue.file("wrlk").c_str(), 1));
    EXPECT_EQ(trans.mtx, fq_key2mtx(trans.lockkey));
    EXPECT_GT(trans.lockfd, 0);
    EXPECT_GT(trans.posfd, 0);
    pthread_mutex_t *const mutex = trans.mtx;
    EXPECT_EQ(fq_unlock(&trans), 0);
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(trans.posfd, -1);
    EXPECT_EQ(trans.mtx, mutex) << "stays";
}

TEST_F(Locks, writer_and_reader_do_not_wait_for_each_other) {
    fqtrans writer, reader;
    EXPECT_EQ(lock('w', writer), 31);
    EXPECT_EQ(lock('?', reader), 31) << "any other letter is the reader";
    EXPECT_TRUE(queue.has("rdlk") && queue.has("head"));
    EXPECT_EQ(fq_unlock(&writer), 0);
    EXPECT_EQ(fq_unlock(&reader), 0);
}

TEST_F(Locks, a_second_thread_waits_for_the_first) {
    fqtrans first;
    ASSERT_EQ(lock('w', first), 31);
    std::atomic<bool> arrived{false};
    std::thread second([&] {
        fqtrans trans = record_of(queue);
        EXPECT_EQ(fq_lock('w', &trans), 31);
        arrived = true;
        EXPECT_EQ(fq_unlock(&trans), 0);
    });
    EXPECT_TRUE(stays_behind(arrived));
    EXPECT_EQ(fq_unlock(&first), 0);
    second.join();
    EXPECT_TRUE(arrived);
}

TEST_F(Locks, another_process_waits_and_a_killed_one_lets_go) {
    Signal locked;
    Peer holder([&] {
        fqtrans trans;
        if (lock('w', trans) != 31) return 1;
        locked.send();
        pause();
        return 0;
    });
    ASSERT_TRUE(locked.wait());
    std::atomic<bool> arrived{false};
    std::thread waiter([&] {
        fqtrans trans = record_of(queue);
        EXPECT_EQ(fq_lock('w', &trans), 31);
        arrived = true;
        EXPECT_EQ(fq_unlock(&trans), 0);
    });
    EXPECT_TRUE(stays_behind(arrived));
    holder.kill(SIGKILL);
    waiter.join();
    EXPECT_TRUE(arrived);
}

// A lockf lock is lost with the first close of any descriptor of its file in the process.
TEST_F(Locks, threads_that_wait_do_not_take_the_lock_away_from_the_process) {
    fqtrans first;
    ASSERT_EQ(lock('w', first), 31);
    std::thread waiter([&] {
        fqtrans trans = record_of(queue);
        EXPECT_EQ(fq_lock('w', &trans), 31);
        EXPECT_EQ(fq_unlock(&trans), 0);
    });
    usleep(50000); // the waiter has its own descriptor of the lock file open now
    Peer other([&] {
        const int fd = open(queue.file("wrlk").c_str(), O_WRONLY);
        return lockf(fd, F_TLOCK, 0) == 0 ? 1 : 0;
    });
    EXPECT_EQ(other.wait(), 0) << "another process could take the lock";
    EXPECT_EQ(fq_unlock(&first), 0);
    waiter.join();
}

// The first of its calls waits for another process.
TEST_F(Locks, a_thread_that_is_cancelled_makes_its_calls_to_their_ends) {
    Signal held, let_go;
    Peer holder([&] {
        fqtrans trans;
        if (lock('w', trans) != 31) return 1;
        held.send();
        let_go.wait();
        return fq_unlock(&trans);
    });
    ASSERT_TRUE(held.wait());
    const auto calls = [](void *argument) -> void * {
        const Queue &of = *static_cast<Queue *>(argument);
        of.put_away("one");
        of.put({"two", "three"});
        of.take();
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, calls, &queue), 0);
    usleep(50000);
    pthread_cancel(thread);
    let_go.send();
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(queue.drain(), "two three");
}

TEST_F(Locks, giving_back_what_is_not_held_prints_three_lines) {
    fqtrans nothing{};
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_unlock(&nothing), -3); }), kNothingHeld);
    EXPECT_EQ(fq_unlock(nullptr), ESMS_INVAL);
}

TEST_F(Locks, giving_back_twice_leaves_the_next_holder_alone) {
    fqtrans first, second;
    ASSERT_EQ(lock('w', first), 31);
    ASSERT_EQ(fq_unlock(&first), 0);
    ASSERT_EQ(lock('w', second), 31);
    captured_stdout([&] { EXPECT_EQ(fq_unlock(&first), -5); });
    EXPECT_EQ(pthread_mutex_trylock(second.mtx), EBUSY);
    EXPECT_EQ(fq_unlock(&second), 0);
}

TEST_F(Locks, a_lock_file_that_cannot_be_opened_is_a_failure) {
    fqtrans trans{};
    std::strcpy(trans.path, "/nowhere/q");
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_lock('w', &trans), -1); }),
              "fq_enqueue.open error /nowhere/q.wrlk\n");
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_unlock(&trans), -3); }), kNothingHeld);
    captured_stdout([] { EXPECT_EQ(fq_enqueue_away(-1, -1, 1, "/nowhere/q", "x", 1), 1); });
}

TEST_F(Locks, a_failure_after_the_locks_gives_everything_back) {
    const int descriptors = open_descriptors();
    ASSERT_EQ(mkdir(queue.file("tail").c_str(), 0777), 0);
    fqtrans trans;
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(lock('w', trans), -5); }),
              "fq_enqueue_away.open error " + queue.file("tail") + "\n");
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(trans.mtx, nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    rmdir(queue.file("tail").c_str());
    EXPECT_EQ(lock('w', trans), 31);
    EXPECT_EQ(fq_unlock(&trans), 0);
}

TEST_F(Locks, a_pipe_in_place_of_a_lock_file_is_a_failure_not_a_hang) {
    ASSERT_EQ(mkfifo(queue.file("wrlk").c_str(), 0666), 0);
    fqtrans trans;
    captured_stdout([&] { EXPECT_EQ(lock('w', trans), -1); });
}

TEST_F(Locks, too_long_a_path_is_refused_and_opens_nothing) {
    fqtrans trans{};
    std::memset(trans.path, 'p', 4091);
    EXPECT_EQ(fq_lock('w', &trans), ESMS_INVAL);
    std::memset(trans.path, 'p', sizeof trans.path);
    EXPECT_EQ(fq_lock('w', &trans), ESMS_INVAL) << "not even terminated";
    const std::string path(4091, 'p');
    char buffer[100];
    EXPECT_EQ(fq_enqueue(-1, path.c_str(), "x", 1, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_enqueue_away(-1, -1, 1, path.c_str(), "x", 1), ESMS_INVAL);
    EXPECT_EQ(fq_dequeue(-1, path.c_str(), buffer, 10, &trans), ESMS_INVAL);
    EXPECT_EQ(fq_write_item(path.c_str(), &trans, "x", 1), ESMS_INVAL);
    EXPECT_EQ(fq_read_item(path.c_str(), &trans, buffer, 10), ESMS_INVAL);
}

TEST_F(Locks, the_longest_path_fits_all_names) {
    // Directories of 200 bytes, a base name that brings the path to exactly 4090.
    std::string path = queue.directory();
    const std::string part(200, 'd');
    ASSERT_EQ(chdir(path.c_str()), 0);
    while (path.size() + 1 + part.size() + 100 < FQ_PATH_MAX) {
        ASSERT_TRUE(mkdir(part.c_str(), 0777) == 0 && chdir(part.c_str()) == 0);
        path += "/" + part;
    }
    const size_t rest = FQ_PATH_MAX - path.size() - 1;
    const std::string base(std::min<size_t>(rest, 240), 'b');
    path += "/" + std::string(rest - base.size(), '/') + base;
    ASSERT_EQ(path.size(), size_t{FQ_PATH_MAX});
    // The system's own limit is 4096 with the terminator: lock and position files fit, data files
    // do not.
    fqtrans trans{};
    std::strcpy(trans.path, path.c_str());
    EXPECT_EQ(fq_lock('w', &trans), 31);
    EXPECT_EQ(fq_unlock(&trans), 0);
    captured_stdout([&] { EXPECT_EQ(fq_enqueue(-1, path.c_str(), "x", 1, &trans), -1); });
    ASSERT_EQ(chdir("/"), 0);
}

TEST(MutexTable, holds_256_keys_and_says_so_at_the_257th) {
    pthread_mutex_t *const first = fq_key2mtx(1000);
    ASSERT_NE(first, nullptr);
    for (int key = 1001; key < 1256; ++key) ASSERT_NE(fq_key2mtx(key), nullptr);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_key2mtx(1256), nullptr); }),
              "fq_key2mtx(end) error for key 1256.\n");
    EXPECT_EQ(fq_key2mtx(1000), first);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_key2mtx(0), nullptr); }),
              "fq_key2mtx(end) error for key 0.\n");

    const Queue queue;
    fqtrans trans;
    const std::string printed = captured_stdout([&] { EXPECT_EQ(queue.begin(trans, {"x"}), -2); });
    EXPECT_NE(printed.find("\nfq_lock.fq_key2mtx returns NULL \n"), std::string::npos) << printed;
    captured_stdout([&] { EXPECT_EQ(queue.put_away("x"), 2) << "the same as a positive number"; });
    fq_mtx_init();
    EXPECT_EQ(queue.put({"x"}), 0);
}

TEST(FileQueueThreads, many_writers_and_readers_of_one_process_share_a_queue) {
    const Queue queue;
    constexpr int kThreads = 4, kItems = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i)
                EXPECT_EQ(queue.put({std::to_string(t), std::to_string(i)}), 0);
        });
    std::atomic<int> taken{0};
    std::atomic<int> sum{0};
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            while (taken < 2 * kThreads * kItems) {
                const std::string data = queue.take();
                if (data == "[0]") continue;
                sum += std::atoi(data.c_str());
                ++taken;
            }
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(sum, kItems * (0 + 1 + 2 + 3) + kThreads * (kItems - 1) * kItems / 2);
    EXPECT_EQ(queue.take(), "[0]");
}
