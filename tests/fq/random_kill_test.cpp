// Writers and readers killed at random moments, a hundred times each, and a ledger beside them.
#include <sys/mman.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include "tests/fq/queue_fixture.h"
#include "tests/support/peer.h"

using namespace halvo::test;

namespace {

constexpr int kKills = 100;

// Numbers that survive the process which wrote them.
struct Ledger {
    volatile int acknowledged = 0; // transactions whose commit has returned
    volatile int begun = 0;        // transactions that were begun
};

template <class T>
class Shared {
public:
    Shared()
        : memory_(
              mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        new (memory_) T;
    }
    ~Shared() { munmap(memory_, sizeof(T)); }
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;
    T *operator->() const { return static_cast<T *>(memory_); }

private:
    void *memory_;
};

class RandomKills : public testing::Test {
protected:
    RandomKills() {
        const char *given = std::getenv("HALVO_SEED");
        const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                    : std::random_device{}();
        std::printf("HALVO_SEED=%u\n", seed);
        random_.seed(seed);
    }
    void kill_soon(Peer &peer) {
        usleep(static_cast<useconds_t>(random_() % 8000));
        peer.kill(SIGKILL);
        peer.wait();
    }
    static size_t size_of(int number) { return static_cast<size_t>(number % 4) + 1; }
    // The items of a transaction follow from its number.
    static std::vector<std::string> items(int number) {
        std::vector<std::string> all;
        for (size_t i = 0; i < size_of(number); ++i)
            all.push_back(std::to_string(number) + "." + std::to_string(i) +
                          std::string(static_cast<size_t>(number * 37 % 200), 'x'));
        return all;
    }
    Queue queue;
    std::minstd_rand random_;
};

} // namespace

TEST_F(RandomKills, of_writers_leave_each_acknowledged_transaction_once_and_whole) {
    const Shared<Ledger> ledger;
    int next = 0; // the transaction whose items come next
    for (int kill = 0; kill < kKills; ++kill) {
        Peer writer([&] {
            for (int number = ledger->begun;; ++number) {
                ledger->begun = number + 1;
                const std::vector<std::string> all = items(number);
                const int done = all.size() == 1 ? queue.put_away(all[0]) : queue.put(all);
                if (done != 0) return 1;
                ledger->acknowledged = number + 1;
            }
        });
        kill_soon(writer);
        for (std::string item = queue.take(); item != "[0]"; item = queue.take()) {
            // One that was begun and not acknowledged may be missing, but whole.
            if (item != items(next)[0] && next == ledger->acknowledged) ++next;
            const std::vector<std::string> expected = items(next);
            for (size_t i = 0; i < expected.size(); ++i) {
                ASSERT_EQ(item, expected[i]) << "after kill " << kill;
                if (i + 1 < expected.size()) item = queue.take();
            }
            ++next;
        }
        ASSERT_GE(next, ledger->acknowledged) << "lost after kill " << kill;
        ASSERT_LE(next, ledger->begun);
        next = ledger->begun;
    }
    EXPECT_GT(ledger->acknowledged, 0);
}

TEST_F(RandomKills, of_readers_lose_nothing_and_repeat_the_last_transaction_at_most) {
    constexpr int kItems = 20000, kBatch = 7;
    for (int i = 0; i < kItems; i += 100) {
        std::vector<std::string> some;
        for (int k = i; k < i + 100; ++k) some.push_back(std::to_string(k));
        ASSERT_EQ(queue.put(some), 0);
    }
    const Shared<Ledger> ledger; // in items: acknowledged by a commit, begun to be read
    const auto read = [&] {
        for (;;) {
            fqtrans trans;
            char buffer[100 + 22];
            int count = 0;
            const int from = ledger->acknowledged;
            for (int result = fq_dequeue(-1, queue.path(), buffer, 100, &trans); result > 0;
                 result = fq_dequeue_next(-1, queue.path(), &trans, buffer, 100)) {
                const std::string item(buffer + 20, static_cast<size_t>(trans.itemlen));
                // What a commit took whose reader was killed before it could note that.
                const int number = std::atoi(item.c_str());
                if (count == 0 && number != from && number != ledger->begun) return 2;
                if (count == 0) ledger->acknowledged = number;
                if (number != ledger->acknowledged + count) return 3;
                ++count;
                ledger->begun = number + 1;
                if (count == kBatch) break;
            }
            if (count == 0) return 0;
            if (fq_dequeue_commit(-1, &trans) != 0) return 4;
            ledger->acknowledged = ledger->acknowledged + count;
        }
    };
    for (int kill = 0; kill < kKills && ledger->acknowledged < kItems; ++kill) {
        Peer reader(read);
        usleep(static_cast<useconds_t>(random_() % 3000));
        reader.kill(SIGKILL);
        const int ended = reader.wait();
        ASSERT_TRUE(ended == 0 || ended == 128 + SIGKILL) << ended << " at kill " << kill;
    }
    Peer last(read);
    EXPECT_EQ(last.wait(), 0);
    EXPECT_EQ(ledger->acknowledged, kItems);
}
