// Writer and reader of a busy channel are killed at random and replaced, again and again. The stream
// that comes out is compared with the one that was written.
#include <algorithm>
#include <memory>

#include "tests/proof/form.h"
#include "tests/proof/kill_ledger.h"
#include "tests/support/machine.h"
#include "tests/support/peer.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

constexpr int64_t kStuckMicroseconds = 20000000; // without a single message

class RandomKills : public testing::Test {
protected:
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 16, kSlotSize).build();
    Ledger &ledger = shared_object<Ledger>();
    std::minstd_rand random{seed()};
    std::unique_ptr<Peer> writer, reader;
    int kills = 0;

    using Stream = int (*)(const Segment &, Ledger &, uint32_t);
    void replace(std::unique_ptr<Peer> &peer, Stream stream) {
        kills += peer != nullptr;
        peer.reset(); // killed
        const auto own = static_cast<uint32_t>(random());
        peer = std::make_unique<Peer>([&] { return stream(segment, ledger, own); });
    }

    template <class Condition>
    bool becomes_true(Condition condition) {
        const int64_t limit = microseconds_now() + kStuckMicroseconds;
        while (!condition() && microseconds_now() < limit) usleep(500);
        return condition();
    }
    bool messages_flow() {
        const uint32_t before = ledger.read.done();
        return becomes_true([&] { return ledger.read.done() > before; });
    }

    // The log against the numbers from 0 to the goal.
    void judge() {
        ASSERT_LT(ledger.read.done(), kLogSize);
        std::vector<bool> seen(ledger.goal);
        int64_t doubled = 0, torn = 0, skipped = 0;
        size_t next = 0;
        for (uint32_t i = 0; i < ledger.read.done(); ++i) {
            const auto n = static_cast<size_t>(ledger.log[i]); // kTorn is beyond all
            if (n >= seen.size()) {
                ++torn;
            } else if (seen[n]) {
                ++doubled;
            } else {
                skipped += n != next;
                next = n + 1;
                seen[n] = true;
            }
        }
        const auto lost = std::count(seen.begin(), seen.end(), false);
        figure("random kills of writer and reader under load",
               "at least " + std::to_string(length(40, 1000)), kills);
        figure("messages through the channel meanwhile", "-", ledger.goal);
        figure("ends that a successor had to put right", "-", ledger.recovered);
        figure("random kills: messages torn", "0", torn);
        figure("random kills: messages lost", "0", lost);
        figure("random kills: messages out of order", "0", skipped);
        figure("random kills: messages doubled, of " + std::to_string(kills) + " kills",
               "at most " + std::to_string(kills), doubled);
        EXPECT_EQ(torn + lost + skipped, 0);
        EXPECT_LE(doubled, kills);
    }
};

} // namespace

TEST_F(RandomKills, lose_nothing) {
    replace(writer, write_stream);
    replace(reader, read_stream);
    int stuck = 0;
    while (kills < length(40, 1000) && stuck == 0) {
        // One kill in ten may come while an end is being opened.
        stuck += random() % 10 != 0 && !messages_flow();
        usleep(static_cast<useconds_t>(random() % 5000));
        const auto whom = random() % 8; // both at once in one of eight cases
        if (whom == 0 || whom > 4) replace(writer, write_stream);
        if (whom < 5) replace(reader, read_stream);
    }
    stuck += !messages_flow();
    ledger.goal = ledger.written.done() + 1000;
    stuck += !becomes_true([&] { return ledger.highest + 1 >= ledger.goal; });
    figure("random kills: channels stuck", "0", stuck);
    ASSERT_EQ(stuck, 0);
    EXPECT_EQ(writer->wait(), 0);
    EXPECT_EQ(reader->wait(), 0);
    judge();
}
