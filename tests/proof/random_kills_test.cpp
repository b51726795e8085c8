// Writer and reader of a busy channel are killed at random and replaced, again and again. The stream
// that comes out is compared with the one that was written.
#include <algorithm>
#include <memory>

#include "tests/proof/form.h"
#include "tests/support/frx_fixture.h"
#include "tests/support/messages.h"

using namespace halvo::test;

namespace {

constexpr uint32_t kSlotSize = 128;
constexpr size_t kRoom = kSlotSize - 16;
constexpr int kBatch = 4;   // messages of a transaction
constexpr int kBuffer = 3;  // the one that is used of each side's
constexpr int kWait = 1000; // milliseconds, of each call
constexpr uint32_t kLogSize = 1u << 24;

// What outlives the processes, in shared memory that begins as zeros; most of it is never touched.
struct Ledger {
    std::atomic<int> goal;            // number of the last message; 0: not known yet
    std::atomic<int> recovered;       // recoveries that found something to do
    std::atomic<uint32_t> read;       // entries of the log
    std::atomic<uint32_t> before;     // of them those before the call that fills the slots
    uint8_t slots[kBatch][kSlotSize]; // what the reader is about to release
    int log[kLogSize];                // numbers in the order in which they were read
};

// Opens an end of channel 0 and puts it right. Null when that fails.
halvo_channel *succeed(const Segment &segment, Ledger &ledger, FrxChannel &end, char side) {
    if (!start_with(segment, end, side)) return nullptr;
    const int done = q_recover(0, side);
    ledger.recovered += done > 0;
    return done < 0 ? nullptr : q_chnnl2q(0);
}

// The number of the last message stays in its slot, also when it has been read.
int last_written(const halvo_channel *q) {
    const uint32_t at = q->wpos == q->qstart ? q->qend - q->qbsz : q->wpos - q->qbsz;
    return number_in(halvo::slot_at(const_cast<halvo_channel *>(q), at), kRoom);
}

using EndCall = int (*)(FrxChannel *);

// What was begun is committed, or in one of four cases taken back.
int finish(int begun, FrxChannel &end, bool keep, EndCall commit, EndCall take_back) {
    if (begun != ESMS_OK) return begun;
    const int result = (keep ? commit : take_back)(&end);
    sem_postx(0); // not every commit wakes a reader
    return result;
}

// Marks as many messages as there is room for.
int mark_batch(FrxChannel &end, int number) {
    int result = ESMS_OK;
    for (int i = 0; i < kBatch && result == ESMS_OK; ++i) {
        const std::string text = numbered_message(number + i, kRoom);
        const auto length = static_cast<uint32_t>(text.size());
        result = frx_writeMarkAt(&end, 1, text.data(), length, i, i == 0 ? kWait : -1);
        if (i > 0 && result == ESMS_FULL) return ESMS_OK;
    }
    return result;
}

// Writes until it is killed; what it returns is a failure.
int write_stream(const Segment &segment, Ledger &ledger, uint32_t seed) {
    std::minstd_rand random(seed);
    FrxChannel end{};
    halvo_channel *q = succeed(segment, ledger, end, 'w');
    if (!q) return 1;
    q_write_buf_rollback(q, kBuffer);
    for (int result = ESMS_OK; result == ESMS_OK || result == ESMS_TIMEOUT;) {
        const int number = last_written(q) + 1;
        const std::string text = numbered_message(number, kRoom);
        const auto length = static_cast<uint32_t>(text.size());
        const bool keep = random() % 4 != 0;
        switch (random() % 4) {
        case 0:
            result = ::frx_write(&end, 1, text.data(), length, kWait);
            break;
        case 1:
            result = finish(frx_writeMark(&end, 1, text.data(), length, kWait), end, keep,
                            frx_writeCommit, frx_writeRollback);
            break;
        case 2:
            result = finish(
                frx_writeBuf(&end, 1, text.data(), length, kBuffer, kWait), end, keep,
                [](FrxChannel *own) { return frx_writeBufCommit(own, kBuffer); },
                [](FrxChannel *own) { return frx_writeBufRollback(own, kBuffer); });
            break;
        default:
            result = finish(mark_batch(end, number), end, true, frx_writeCommitAll, nullptr);
        }
    }
    return 2;
}

// Enters what was given and counted: the library counts a message just before it frees its slot, so
// by the counter a successor knows how far its predecessor came.
void enter(Ledger &ledger, const halvo_channel *q) {
    for (uint32_t i = ledger.read - ledger.before; i < kBatch; ++i) {
        if (ledger.read >= q->gcnt.count || ledger.read == kLogSize) break;
        ledger.log[ledger.read] = number_in(ledger.slots[i], kRoom);
        ++ledger.read;
    }
    ledger.before = ledger.read.load();
}

// In one of eight cases a batch is taken back.
int read_batch(FrxChannel &end, Ledger &ledger, bool keep) {
    const int marked = frx_readMark(&end, kBatch, kWait);
    for (int i = 0; i < marked; ++i)
        if (frx_readMarked(&end, i, ledger.slots[i]) != ESMS_OK) return ESMS_FAILED;
    if (marked <= 0) return marked;
    const int done = keep ? frx_readCommit(&end, marked) : frx_readRollback(&end);
    return done == marked ? ESMS_OK : ESMS_FAILED;
}

// Reads to the goal: 0, or a failure.
int read_stream(const Segment &segment, Ledger &ledger, uint32_t seed) {
    std::minstd_rand random(seed);
    FrxChannel end{};
    const halvo_channel *q = succeed(segment, ledger, end, 'r');
    if (!q) return 1;
    enter(ledger, q);
    frx_readBufClear(&end, kBuffer); // its message was entered, or is still in the ring
    for (int last = -1; ledger.goal == 0 || last < ledger.goal;) {
        int result = ESMS_OK;
        switch (random() % 3) {
        case 0:
            result = frx_read(&end, ledger.slots[0], kWait);
            break;
        case 1:
            result = frx_readBuf(&end, ledger.slots[0], kWait, kBuffer);
            frx_readBufClear(&end, kBuffer);
            break;
        default:
            result = read_batch(end, ledger, random() % 8 != 0);
        }
        if (result < 0 && result != ESMS_TIMEOUT) return 2;
        enter(ledger, q);
        if (ledger.read > 0) last = ledger.log[ledger.read - 1];
    }
    return 0;
}

class RandomKills : public testing::Test {
protected:
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 16, kSlotSize).build();
    Ledger &ledger = shared_object<Ledger>();
    std::minstd_rand random{seed()};
    std::unique_ptr<Peer> writer, reader;
    int kills = 0;

    void replace(std::unique_ptr<Peer> &peer, int (*stream)(const Segment &, Ledger &, uint32_t)) {
        kills += peer != nullptr;
        peer.reset(); // killed
        const auto own = static_cast<uint32_t>(random());
        peer = std::make_unique<Peer>([&] { return stream(segment, ledger, own); });
    }
    bool messages_flow() {
        const uint32_t before = ledger.read;
        return comes_true([&] { return ledger.read > before; });
    }

    // Compares the log with the numbers from 0 on.
    void judge() {
        ASSERT_LT(ledger.read, kLogSize);
        std::vector<bool> seen;
        int64_t doubled = 0, torn = 0, skipped = 0;
        for (uint32_t i = 0; i < ledger.read; ++i) {
            const int number = ledger.log[i];
            const auto at = static_cast<size_t>(number);
            if (number == kTorn) {
                ++torn;
            } else if (at < seen.size() && seen[at]) {
                ++doubled;
                skipped += at + kBatch < seen.size();
            } else {
                skipped += at != seen.size();
                seen.resize(std::max(seen.size(), at + 1));
                seen[at] = true;
            }
        }
        const auto lost = std::count(seen.begin(), seen.end(), false);
        figure("random kills of writer and reader under load",
               "at least " + std::to_string(length(40, 1000)), kills);
        figure("messages through the channel meanwhile", "-", static_cast<int64_t>(seen.size()));
        figure("ends that a successor had to put right", "-", ledger.recovered);
        figure("random kills: messages torn", "0", torn);
        figure("random kills: messages lost", "0", lost);
        figure("random kills: messages out of order", "0", skipped);
        figure("random kills: messages doubled, of " + std::to_string(kills) + " kills",
               "at most " + std::to_string(kills), doubled);
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
    ledger.goal = static_cast<int>(ledger.read) + 1000;
    stuck += !comes_true([&] { return ledger.log[ledger.read - 1] >= ledger.goal; });
    figure("random kills: channels stuck", "0", stuck);
    ASSERT_EQ(stuck, 0);
    EXPECT_EQ(reader->wait(), 0);
    judge();
}
