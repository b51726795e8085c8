// Two processes with four threads each pass items on between two queues: each of them writes and
// reads both, so that the system sees cycles of processes all the time.
#include <sys/mman.h>

#include <atomic>
#include <thread>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/support/peer.h"

using namespace halvo::test;

namespace {

constexpr int kBatch = 20; // items of a transaction

struct Ledger {
    std::atomic<int> next; // item to be put
    std::atomic<int> taken;
    std::atomic<int> failed; // calls that answered what they should not
    std::atomic<uint8_t> seen[1];
};

class Mix {
public:
    explicit Mix(int items)
        : items_(items), bytes_(sizeof(Ledger) + static_cast<size_t>(items)),
          ledger_(static_cast<Ledger *>(
              mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    Mix(const Mix &) = delete;
    Mix &operator=(const Mix &) = delete;
    ~Mix() { munmap(ledger_, bytes_); }

    const Ledger &ledger() const { return *ledger_; }
    int times(int item) const { return ledger_->seen[item]; }

    // Puts in turns into the one queue and the other, singly and in batches.
    void put(const Queue &first, const Queue &second) {
        const Queue *queues[] = {&first, &second};
        for (unsigned turn = 0;; ++turn) {
            const int count = turn % 3 ? kBatch : 1;
            const int from = ledger_->next.fetch_add(count);
            std::vector<std::string> items;
            for (int item = from; item < std::min(from + count, items_); ++item)
                items.push_back(std::to_string(item));
            if (items.empty()) return;
            const Queue &queue = *queues[turn % 2];
            ledger_->failed +=
                (count == 1 ? queue.put_away(items[0]) : put_slowly(queue, items)) != 0;
        }
    }
    void take(const Queue &first, const Queue &second) {
        const Queue *queues[] = {&first, &second};
        for (unsigned turn = 0; ledger_->taken < items_ && !ledger_->failed; ++turn) {
            fqtrans trans;
            char buffer[42];
            const Queue &queue = *queues[turn % 2];
            int count = 0, got = fq_dequeue(-1, queue.path(), buffer, 20, &trans);
            for (; got > 0; got = fq_dequeue_next(-1, queue.path(), &trans, buffer, 20)) {
                const std::string data(buffer + 20, static_cast<size_t>(trans.itemlen));
                ++ledger_->seen[std::atoi(data.c_str())];
                if (++count == kBatch) break;
            }
            if (count > 0) ledger_->failed += fq_dequeue_commit(-1, &trans) != 0;
            ledger_->failed += got < 0;
            ledger_->taken += count;
            if (count == 0) usleep(200);
        }
    }

private:
    // Lets others come while it holds the side.
    static int put_slowly(const Queue &queue, const std::vector<std::string> &items) {
        fqtrans trans;
        const int begun = queue.begin(trans, items);
        sched_yield();
        return begun < 0 ? begun : fq_enqueue_commit(-1, &trans);
    }

    int items_;
    size_t bytes_;
    Ledger *ledger_;
};

} // namespace

TEST(Mix, of_two_processes_with_four_threads_on_two_queues_loses_and_doubles_nothing) {
    const int items = length(20000, 1000000);
    const Queue a("a"), b("b");
    Mix mix(items);
    const auto run = [&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&, i] { i ? mix.put(a, b) : mix.put(b, a); });
            threads.emplace_back([&, i] { i ? mix.take(a, b) : mix.take(b, a); });
        }
        for (std::thread &thread : threads) thread.join();
        return 0;
    };
    {
        const StdoutCapture unseen;
        Peer other(run);
        run();
        EXPECT_EQ(other.wait(), 0);
    }
    int lost = 0, doubled = 0;
    for (int item = 0; item < items; ++item) {
        lost += mix.times(item) == 0;
        doubled += mix.times(item) > 1;
    }
    const std::string what = "2 processes, 4 threads each, 2 queues: ";
    figure(what + "items", std::to_string(items), mix.ledger().taken);
    figure(what + "lost", "0", lost);
    figure(what + "doubled", "0", doubled);
    figure(what + "calls that failed", "0", mix.ledger().failed);
    EXPECT_EQ(lost + doubled + mix.ledger().failed, 0);
}
