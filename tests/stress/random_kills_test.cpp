// Writer and reader of a busy channel are killed at random and replaced, again and again. The stream
// that comes out is compared with the one that was written.
#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "tests/stress/form.h"
#include "tests/stress/kill_ledger.h"
#include "tests/stress/stalls.h"
#include "tests/support/peer.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

constexpr int64_t kStuckMicroseconds = 20000000; // without a single message

class RandomKills : public testing::Test {
protected:
    const uint32_t number = seed();
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 16, kSlotSize).build();
    Ledger &ledger = shared_ledger();
    std::minstd_rand random{number};
    std::unique_ptr<Peer> writer, reader;

    void start_writer() {
        const auto own = static_cast<uint32_t>(random());
        writer.reset();
        writer =
            std::make_unique<Peer>([&] { return write_stream(segment.key_file(), ledger, own); });
    }
    void start_reader() {
        const auto own = static_cast<uint32_t>(random());
        reader.reset();
        reader =
            std::make_unique<Peer>([&] { return read_stream(segment.key_file(), ledger, own); });
    }

    template <class Condition>
    bool becomes_true(Condition condition) {
        const int64_t limit = microseconds_now() + kStuckMicroseconds;
        while (!condition()) {
            if (microseconds_now() > limit) return false;
            usleep(500);
        }
        return true;
    }

    // Waits until messages flow, in nine of ten cases: the tenth kill may come while it opens.
    bool await_work() {
        const uint32_t before = ledger.read.get().done;
        return random() % 10 == 0 || becomes_true([&] { return ledger.read.get().done > before; });
    }

    // The log against the numbers from 0 to the goal.
    void judge(int kills) {
        const uint32_t read = ledger.read.get().done;
        ASSERT_LT(read, kLogSize);
        std::vector<bool> seen(ledger.goal);
        int64_t doubled = 0, foreign = 0, skipped = 0;
        uint32_t next = 0;
        for (uint32_t i = 0; i < read; ++i) {
            const uint32_t n = ledger.log[i];
            if (n >= ledger.goal) {
                ++foreign;
                continue;
            }
            if (seen[n])
                ++doubled;
            else if (n != next)
                ++skipped;
            if (!seen[n]) next = n + 1;
            seen[n] = true;
        }
        const auto lost = std::count(seen.begin(), seen.end(), false);
        figure("random kills of writer and reader under load",
               "at least " + std::to_string(length(40, 1000)), kills);
        figure("messages through the channel meanwhile", "-", ledger.goal);
        figure("ends that a successor had to put right", "-", ledger.recovered);
        figure("random kills: messages torn", "0", ledger.torn + foreign);
        figure("random kills: messages lost", "0", lost);
        figure("random kills: messages out of order", "0", skipped);
        figure("random kills: messages doubled, of " + std::to_string(kills) + " kills",
               "at most " + std::to_string(kills), doubled);
        EXPECT_EQ(ledger.torn + foreign, 0);
        EXPECT_EQ(lost, 0);
        EXPECT_EQ(skipped, 0);
        EXPECT_LE(doubled, kills);
    }
};

} // namespace

TEST_F(RandomKills, lose_nothing) {
    start_writer();
    start_reader();
    int stuck = 0, kills = 0;
    const int rounds = length(40, 1000);
    while (kills < rounds && stuck == 0) {
        stuck += !await_work();
        usleep(static_cast<useconds_t>(random() % 5000));
        const auto whom = random() % 8; // both at once in one of eight cases
        if (whom == 0 || whom > 4) {
            writer->kill(SIGKILL);
            ++kills;
        }
        if (whom < 5) {
            reader->kill(SIGKILL);
            ++kills;
        }
        if (writer && (whom == 0 || whom > 4)) start_writer();
        if (reader && whom < 5) start_reader();
    }
    stuck += !becomes_true(
        [&, before = ledger.read.get().done] { return ledger.read.get().done > before; });
    ledger.goal = ledger.written.get().done + 1000;
    stuck += !becomes_true([&] { return ledger.highest + 1 >= ledger.goal; });
    figure("random kills: channels stuck", "0", stuck);
    ASSERT_EQ(stuck, 0);
    EXPECT_EQ(writer->wait(), 0);
    EXPECT_EQ(reader->wait(), 0);
    judge(kills);
}
