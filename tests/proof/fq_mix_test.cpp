// Two processes with four threads each pass items on between two queues: each of them writes and
// reads both, so that the system sees cycles of processes all the time.
#include <atomic>
#include <thread>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"

using namespace halvo::test;

namespace {

constexpr int kBatch = 20; // items of a transaction
constexpr int kMostItems = 1000000;

struct Ledger {
    std::atomic<int> next; // item to be put
    std::atomic<int> taken;
    std::atomic<int> failed; // calls that answered what they should not
    std::atomic<uint8_t> seen[kMostItems];
};

// Puts in turns into the one queue and the other, singly and in batches.
void put_all(Ledger &ledger, int items, const Queue &first, const Queue &second) {
    for (unsigned turn = 0;; ++turn) {
        const Queue &queue = turn % 2 ? second : first;
        const int count = turn % 3 ? kBatch : 1;
        const int from = ledger.next.fetch_add(count);
        std::vector<std::string> batch;
        for (int item = from; item < std::min(from + count, items); ++item)
            batch.push_back(std::to_string(item));
        if (batch.empty()) return;
        if (count == 1) {
            ledger.failed += queue.put_away(batch[0]) != 0;
            continue;
        }
        fqtrans trans;
        const int begun = queue.begin(trans, batch);
        sched_yield(); // others come while it holds the side
        ledger.failed += begun < 0 || fq_enqueue_commit(-1, &trans) != 0;
    }
}

void take_all(Ledger &ledger, int items, const Queue &first, const Queue &second) {
    for (unsigned turn = 0; ledger.taken < items && !ledger.failed; ++turn) {
        fqtrans trans;
        std::vector<std::string> batch;
        const int last = (turn % 2 ? second : first).read(trans, batch, kBatch, 20);
        for (const std::string &item : batch) ++ledger.seen[std::atoi(item.c_str())];
        const bool committed = batch.empty() || fq_dequeue_commit(-1, &trans) == 0;
        ledger.failed += !committed || last < 0;
        ledger.taken += static_cast<int>(batch.size());
        if (batch.empty()) usleep(200);
    }
}

} // namespace

TEST(Mix, of_two_processes_with_four_threads_on_two_queues_loses_and_doubles_nothing) {
    const int items = length(20000, kMostItems);
    const Queue a("a"), b("b");
    auto &ledger = shared_object<Ledger>();
    const auto run = [&] {
        std::vector<std::thread> threads;
        for (const auto work : {put_all, take_all}) {
            threads.emplace_back([&, work] { work(ledger, items, a, b); });
            threads.emplace_back([&, work] { work(ledger, items, b, a); });
        }
        for (std::thread &thread : threads) thread.join();
    };
    {
        const StdoutCapture unseen;
        Peer other(run);
        run();
        EXPECT_EQ(other.wait(), 0);
    }
    int lost = 0, doubled = 0;
    for (int item = 0; item < items; ++item) {
        lost += ledger.seen[item] == 0;
        doubled += ledger.seen[item] > 1;
    }
    const std::string what = "2 processes, 4 threads each, 2 queues: ";
    figure(what + "items", std::to_string(items), ledger.taken);
    figure(what + "lost", "0", lost);
    figure(what + "doubled", "0", doubled);
    figure(what + "calls that failed", "0", ledger.failed);
}
