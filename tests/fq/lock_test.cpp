// The two locks of a side: between threads, between processes, and not between the sides.
#include <atomic>
#include <thread>

#include "tests/fq/queue_fixture.h"
#include "tests/support/cancelled.h"

using namespace halvo;
using namespace halvo::test;

namespace {

class Locks : public testing::Test {
protected:
    Queue queue;

    int lock(char mode, fqtrans &trans) const {
        trans = {};
        std::strcpy(trans.path, queue.path());
        return fq_lock(mode, &trans);
    }
    // A process that has the writer's side until it is let go or killed.
    struct Holder {
        const Signal held, let_go;
        Peer process;
        explicit Holder(const Locks &test)
            : process([&] {
                  fqtrans trans;
                  if (test.lock('w', trans) != 31) return 1;
                  held.send();
                  let_go.wait();
                  return fq_unlock(&trans);
              }) {
            EXPECT_TRUE(held.wait());
        }
    };
    // Whether a thread that wants the writer's side waits for it until f has been called.
    bool one_waits_until(auto f) const {
        std::atomic<bool> arrived{false};
        std::thread waiter([&] {
            fqtrans trans;
            EXPECT_EQ(lock('w', trans), 31);
            arrived = true;
            EXPECT_EQ(fq_unlock(&trans), 0);
        });
        usleep(50000);
        const bool waits = !arrived;
        f();
        waiter.join();
        return waits;
    }
};

const char *const kNothingHeld = "invalid stat(index fd) \n"
                                 "invalid stat(lock fd) \n"
                                 "invalid stat(mtx) \n";

} // namespace

// A lockf lock is lost with the first close of any descriptor of its file in the process: also of
// the one that the waiter has opened.
TEST_F(Locks, a_second_thread_waits_for_the_first_and_leaves_the_lock_alone) {
    fqtrans first, reader;
    ASSERT_EQ(lock('w', first), 31);
    EXPECT_EQ(lock('?', reader), 31) << "any other letter is the reader, who waits for no writer";
    EXPECT_EQ(fq_unlock(&reader), 0);
    EXPECT_TRUE(one_waits_until([&] {
        EXPECT_TRUE(queue.others_are_kept_out());
        EXPECT_EQ(fq_unlock(&first), 0);
    }));
}

TEST_F(Locks, another_process_waits_and_a_killed_one_lets_go) {
    Holder holder(*this);
    EXPECT_TRUE(one_waits_until([&] { holder.process.kill(SIGKILL); }));
}

#ifndef __SANITIZE_ADDRESS__ // see tests/support/cancelled.h
// The first of its calls waits for another process.
TEST_F(Locks, a_thread_that_is_cancelled_makes_its_calls_to_their_ends) {
    Holder holder(*this);
    const auto calls = [this] {
        queue.put_away("one");
        queue.put({"two", "three"});
        queue.take();
    };
    expect_cancelled(calls, [&](pthread_t thread) {
        usleep(50000);
        pthread_cancel(thread);
        holder.let_go.send();
    });
    EXPECT_EQ(holder.process.wait(), 0);
    EXPECT_EQ(queue.drain(), "two three");
}
#endif

TEST_F(Locks, giving_back_twice_leaves_the_next_holder_alone) {
    fqtrans first, second;
    ASSERT_EQ(lock('w', first), 31);
    ASSERT_EQ(fq_unlock(&first), 0);
    ASSERT_EQ(lock('w', second), 31);
    EXPECT_EQ(fq_unlock(&first), -5);
    EXPECT_EQ(pthread_mutex_trylock(second.mtx), EBUSY);
    EXPECT_EQ(fq_unlock(&second), 0);
    first = {};
    EXPECT_EQ(said([&] { return fq_unlock(&first); }), Said(-3, kNothingHeld));
    EXPECT_EQ(fq_unlock(nullptr), ESMS_INVAL);
}

TEST_F(Locks, a_lock_file_that_cannot_be_opened_is_a_failure) {
    fqtrans trans{};
    std::strcpy(trans.path, "/nowhere/q");
    EXPECT_EQ(said([&] { return fq_lock('w', &trans); }),
              Said(-1, "fq_enqueue.open error /nowhere/q.wrlk\n"));
    EXPECT_EQ(said([&] { return fq_unlock(&trans); }), Said(-3, kNothingHeld));
    EXPECT_EQ(fq_enqueue_away(-1, -1, 1, "/nowhere/q", "x", 1), 1);
    ASSERT_EQ(mkdir(queue.file("tail").c_str(), 0777), 0);
    EXPECT_EQ(said([&] { return lock('w', trans); }),
              Said(-5, "fq_enqueue_away.open error " + queue.file("tail") + "\n"));
    EXPECT_TRUE(trans.lockfd == -1 && !trans.mtx);
    ASSERT_EQ(mkfifo(queue.file("rdlk").c_str(), 0666), 0);
    EXPECT_EQ(lock('r', trans), -1) << "a pipe: not a hang";
}

TEST_F(Locks, a_commit_without_items_gives_them_back) {
    const std::string wrong = "fq_enqueue_commit invalid trans stat error \n";
    const Said none(-1, "fq_dequeue_commit NULL trans.\n");
    fqtrans trans;
    ASSERT_EQ(lock('w', trans), 31);
    EXPECT_EQ(said([&] { return fq_enqueue_commit(-1, &trans); }), Said(-1, wrong));
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(said([] { return fq_enqueue_commit(-1, nullptr); }), Said(-1, wrong));
    ASSERT_EQ(lock('r', trans), 31);
    EXPECT_EQ(said([&] { return fq_dequeue_commit(-1, &trans); }),
              Said(-1, "fq_dequeue_commit on no data.\n"));
    EXPECT_EQ(trans.lockfd, -1);
    EXPECT_EQ(said([] { return fq_dequeue_commit(-1, nullptr); }), none);
    EXPECT_EQ(said([] { return fq_dequeue_rollback(-1, nullptr); }), none);
}

TEST_F(Locks, the_longest_path_fits_all_names_and_a_longer_one_is_refused) {
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
    EXPECT_EQ(fq_dequeue_next(-1, queue.path(), nullptr, buffer, 0), ESMS_INVAL);
    EXPECT_EQ(fq_write_item(path.c_str(), &trans, "x", 1), ESMS_INVAL);
    EXPECT_EQ(fq_read_item(path.c_str(), &trans, buffer, 10), ESMS_INVAL);
    // The system's own limit is 4096 with the terminator: lock and position files fit, data files do not.
    const std::string start = queue.directory();
    const std::string longest = start + std::string(FQ_PATH_MAX - 1 - start.size(), '/') + "q";
    std::strcpy(trans.path, longest.c_str());
    EXPECT_EQ(fq_lock('w', &trans), 31);
    EXPECT_EQ(fq_unlock(&trans), 0);
    EXPECT_EQ(fq_enqueue(-1, longest.c_str(), "x", 1, &trans), -1);
}
