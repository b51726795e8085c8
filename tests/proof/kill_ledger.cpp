// The writer and the reader of a stream that go on where a killed one was.
#include "tests/proof/kill_ledger.h"

#include <algorithm>
#include <random>

#include "tests/support/frx_fixture.h"
#include "tests/support/messages.h"

namespace halvo::test {

namespace {

constexpr int kWait = 1000; // milliseconds, of each call; then the goal is looked at
constexpr size_t kRoom = kSlotSize - 16;
constexpr int kBuffer = 3; // the one that is used of each side's

// An end of channel 0 that is put right.
struct StreamEnd {
    StreamEnd(const Segment &segment, char side, Ledger &common, uint32_t seed)
        : ledger(common), random(seed) {
        if (!start_with(segment, end, side)) return;
        const int done = q_recover(0, side);
        if (done > 0) ++ledger.recovered;
        if (done >= 0) q = q_chnnl2q(0);
    }
    bool one_of(unsigned cases) { return random() % cases == 0; }

    Ledger &ledger;
    std::minstd_rand random;
    FrxChannel end{};
    halvo_channel *q = nullptr; // null: it could not be opened
};

struct StreamWriter : StreamEnd {
    uint32_t next = 0; // number of the next message

    StreamWriter(const Segment &segment, Ledger &common, uint32_t seed)
        : StreamEnd(segment, 'w', common, seed) {
        if (!q) return;
        // Of the messages counted since the last entry all are readable but perhaps the last.
        const uint32_t counted = ledger.written.counted_since(q->pcnt.count);
        next = ledger.written.done() + (counted > 0 ? counted - 1 : 0);
        for (int i = 0; i < HALVO_BUFFERS; ++i) q_write_buf_rollback(q, i);
        enter(0);
    }
    bool has_more(uint32_t ahead = 0) const {
        return ledger.goal == 0 || next + ahead < ledger.goal;
    }
    std::string message(uint32_t ahead) const {
        return numbered_message(static_cast<int>(next + ahead), kRoom);
    }
    bool enter(int messages) {
        if (messages < 0) return messages == ESMS_TIMEOUT; // the ring is full
        next += static_cast<uint32_t>(messages);
        ledger.written.set(next, q->pcnt.count);
        return true;
    }
    // What was begun is committed, or in one of four cases taken back.
    bool finish(int begun, int (*commit)(FrxChannel *), int (*take_back)(FrxChannel *)) {
        if (begun != ESMS_OK) return begun == ESMS_TIMEOUT;
        if (one_of(4)) return take_back(&end) == ESMS_OK;
        const bool committed = commit(&end) == ESMS_OK;
        sem_postx(0); // not every commit wakes a reader
        return committed && enter(1);
    }
    bool write_some() {
        const std::string text = message(0);
        const auto length = static_cast<uint32_t>(text.size());
        switch (random() % 4) {
        case 0: {
            const int result = ::frx_write(&end, 1, text.data(), length, kWait);
            return enter(result == ESMS_OK ? 1 : result);
        }
        case 1:
            return finish(frx_writeMark(&end, 1, text.data(), length, kWait), frx_writeCommit,
                          frx_writeRollback);
        case 2:
            return finish(
                frx_writeBuf(&end, 1, text.data(), length, kBuffer, kWait),
                [](FrxChannel *own) { return frx_writeBufCommit(own, kBuffer); },
                [](FrxChannel *own) { return frx_writeBufRollback(own, kBuffer); });
        default:
            return write_batch();
        }
    }
    bool write_batch() {
        uint32_t marked = 0;
        int result = ESMS_OK;
        while (marked < kBatch && has_more(marked) && result == ESMS_OK) {
            result = write_mark_at(q, message(marked), marked);
            marked += result == ESMS_OK;
        }
        if (result != ESMS_OK && result != ESMS_FULL) return false;
        return frx_writeCommitAll(&end) == ESMS_OK && enter(static_cast<int>(marked));
    }
};

struct StreamReader : StreamEnd {
    StreamReader(const Segment &segment, Ledger &common, uint32_t seed)
        : StreamEnd(segment, 'r', common, seed) {
        if (!q) return;
        const auto counted = static_cast<int>(ledger.read.counted_since(q->gcnt.count));
        enter(std::min(counted, kBatch)); // what lies in the slots was counted
        // A held message whose number is entered needs only be cleared.
        const uint32_t done = ledger.read.done();
        const int held = number_in(buffer_slot(q, q->rbufs, kBuffer), kRoom);
        if (done > 0 && held == ledger.log[done - 1]) q_read_buf_clear(q, kBuffer);
    }
    bool has_more() const { return ledger.goal == 0 || ledger.highest + 1 < ledger.goal; }

    // Enters the first messages of the slots as read.
    void enter(int messages) {
        uint32_t done = ledger.read.done();
        for (int i = 0; i < messages && done < kLogSize; ++i) {
            const int n = number_in(ledger.slots[i], kRoom);
            ledger.highest = std::max(ledger.highest.load(), static_cast<uint32_t>(n + (n < 0)));
            ledger.log[done++] = n;
        }
        ledger.read.set(done, q->gcnt.count);
    }
    bool enter_one(int length) {
        if (length > 0) enter(1);
        return length > 0 || length == ESMS_TIMEOUT;
    }
    bool read_some() {
        switch (random() % 3) {
        case 0:
            return enter_one(frx_read(&end, ledger.slots[0], kWait));
        case 1:
            if (!enter_one(frx_readBuf(&end, ledger.slots[0], kWait, kBuffer))) return false;
            frx_readBufClear(&end, kBuffer);
            return true;
        default:
            return read_batch();
        }
    }
    bool read_batch() {
        const int marked = frx_readMark(&end, kBatch, kWait);
        for (int i = 0; i < marked; ++i)
            if (frx_readMarked(&end, i, ledger.slots[i]) != ESMS_OK) return false;
        if (marked <= 0) return marked == 0;
        if (one_of(8)) return frx_readRollback(&end) == marked;
        if (frx_readCommit(&end, marked) != marked) return false;
        enter(marked);
        return true;
    }
};

} // namespace

int write_stream(const Segment &segment, Ledger &ledger, uint32_t seed) {
    StreamWriter writer(segment, ledger, seed);
    while (writer.q && writer.has_more())
        if (!writer.write_some()) return 2;
    return writer.q ? 0 : 1;
}

int read_stream(const Segment &segment, Ledger &ledger, uint32_t seed) {
    StreamReader reader(segment, ledger, seed);
    while (reader.q && reader.has_more())
        if (!reader.read_some()) return 2;
    return reader.q ? 0 : 1;
}

} // namespace halvo::test
