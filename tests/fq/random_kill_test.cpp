// Writers and readers killed at random moments, again and again, and a ledger beside them.
#include <sys/mman.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include "tests/fq/queue_fixture.h"
#include "tests/stress/form.h"
#include "tests/support/peer.h"

using namespace halvo::test;

namespace {

int kills() { return length(100, 1000); }

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
    static void report(const std::string &whose, int killed, int done, const std::string &what) {
        figure("random kills of a file-queue " + whose, std::to_string(kills()), killed);
        figure("random kills of a file-queue " + whose + ": " + what, "-", done);
    }
    Queue queue;
    std::minstd_rand random_{seed()};
};

} // namespace

TEST_F(RandomKills, of_writers_leave_each_acknowledged_transaction_once_and_whole) {
    const Shared<Ledger> ledger;
    int next = 0; // the transaction whose items come next
    int kill = 0, lost = 0, wrong = 0;
    for (; kill < kills() && lost + wrong == 0; ++kill) {
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
        for (std::string item = queue.take(); item != "[0]" && !wrong; item = queue.take()) {
            // One that was begun and not acknowledged may be missing, but whole.
            if (item != items(next)[0] && next == ledger->acknowledged) ++next;
            const std::vector<std::string> expected = items(next);
            for (size_t i = 0; i < expected.size(); ++i) {
                wrong += item != expected[i];
                if (i + 1 < expected.size()) item = queue.take();
            }
            ++next;
        }
        lost += next < ledger->acknowledged;
        wrong += next > ledger->begun;
        next = ledger->begun;
    }
    report("writer", kill, ledger->acknowledged, "transactions acknowledged");
    figure("random kills of a file-queue writer: acknowledged transactions lost", "0", lost);
    figure("random kills of a file-queue writer: items torn, in part, twice or foreign", "0",
           wrong);
    EXPECT_EQ(lost + wrong, 0);
    EXPECT_GT(ledger->acknowledged, 0);
}

TEST_F(RandomKills, of_readers_lose_nothing_and_repeat_the_last_transaction_at_most) {
    constexpr int kBatch = 7;
    int written = 0;
    const auto write_more = [&] {
        std::vector<std::string> some;
        for (int k = 0; k < 1000; ++k) some.push_back(std::to_string(written++));
        ASSERT_EQ(queue.put(some), 0);
    };
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
    int kill = 0, wrong = 0;
    for (; kill < kills() && wrong == 0; ++kill) {
        while (written < ledger->acknowledged + 5000) write_more();
        Peer reader(read);
        usleep(static_cast<useconds_t>(random_() % 3000));
        reader.kill(SIGKILL);
        const int ended = reader.wait();
        wrong += ended != 0 && ended != 128 + SIGKILL;
    }
    Peer last(read);
    wrong += last.wait() != 0;
    const int lost = written - ledger->acknowledged;
    report("reader", kill, ledger->acknowledged, "items read");
    figure("random kills of a file-queue reader: items lost", "0", lost);
    figure("random kills of a file-queue reader: readings that went wrong or further back", "0",
           wrong);
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(wrong, 0);
}
