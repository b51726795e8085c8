// The writer and the reader of a stream that go on where a killed one was.
#include "tests/proof/kill_ledger.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "core/ring.h"
#include "halvo/frx.h"
#include "halvo/queue.h"
#include "tests/support/messages.h"
#include "tests/support/ring.h"

namespace halvo::test {

namespace {

constexpr int kOpenMilliseconds = 20000;
constexpr int kWaitMilliseconds = 1000; // of each call; then the goal is looked at
constexpr size_t kRoom = kSlotSize - 16;
constexpr int kBuffer = 3; // the one that is used of each side's

// An end of channel 0 that is put right.
class StreamEnd {
public:
    StreamEnd(const std::string &key_file, char side, Ledger &ledger, uint32_t seed)
        : ledger_(ledger), random_(seed) {
        const int nowhere = open("/dev/null", O_WRONLY); // for the library's lines
        dup2(nowhere, STDOUT_FILENO);
        if (frx_initialize(key_file.c_str()) != ESMS_OK) return;
        if (frx_openChannel(&end_, "stress", 0, side, kOpenMilliseconds) != ESMS_OK) return;
        const int done = q_recover(0, side);
        if (done > 0) ++ledger.recovered;
        if (done >= 0) q = q_chnnl2q(0);
    }
    bool is_open() const { return q != nullptr; }

protected:
    bool one_of(unsigned cases) { return random_() % cases == 0; }

    Ledger &ledger_;
    std::minstd_rand random_;
    FrxChannel end_{};
    halvo_channel *q = nullptr;
};

class StreamWriter : StreamEnd {
public:
    using StreamEnd::is_open;

    StreamWriter(const std::string &key_file, Ledger &ledger, uint32_t seed)
        : StreamEnd(key_file, 'w', ledger, seed) {
        if (!is_open()) return;
        // Of the messages counted since the last entry all are readable but perhaps the last.
        const uint32_t counted = ledger_.written.counted_since(q->pcnt.count);
        next_ = ledger_.written.done() + (counted > 0 ? counted - 1 : 0);
        for (int i = 0; i < HALVO_BUFFERS; ++i) q_write_buf_rollback(q, i);
        enter(ESMS_OK, 0);
    }
    bool has_more(uint32_t ahead = 0) const {
        return ledger_.goal == 0 || next_ + ahead < ledger_.goal;
    }

    bool write_some() {
        const std::string text = message(0);
        const auto length = static_cast<uint32_t>(text.size());
        switch (random_() % 4) {
        case 0:
            return enter(frx_write(&end_, 1, text.data(), length, kWaitMilliseconds), 1);
        case 1:
            return finish(
                frx_writeMark(&end_, 1, text.data(), length, kWaitMilliseconds),
                [&] { return frx_writeCommit(&end_); }, [&] { return frx_writeRollback(&end_); });
        case 2:
            return finish(
                frx_writeBuf(&end_, 1, text.data(), length, kBuffer, kWaitMilliseconds),
                [&] { return waking(frx_writeBufCommit(&end_, kBuffer)); },
                [&] { return frx_writeBufRollback(&end_, kBuffer); });
        default:
            return write_batch();
        }
    }

private:
    std::string message(uint32_t ahead) const {
        return numbered_message(static_cast<int>(next_ + ahead), kRoom);
    }
    // Some calls of the core wake nobody.
    static int waking(int result) {
        sem_postx(0);
        return result;
    }
    bool enter(int result, uint32_t messages) {
        if (result != ESMS_OK) return result == ESMS_TIMEOUT; // the ring is full
        next_ += messages;
        ledger_.written.set(next_, q->pcnt.count);
        return true;
    }
    // What was begun is committed, or in one of four cases taken back.
    template <class Commit, class TakeBack>
    bool finish(int begun, Commit commit, TakeBack take_back) {
        if (begun != ESMS_OK) return begun == ESMS_TIMEOUT;
        return one_of(4) ? take_back() == ESMS_OK : enter(commit(), 1);
    }
    bool write_batch() {
        uint32_t marked = 0;
        int result = ESMS_OK;
        while (marked < kBatch && has_more(marked) && result == ESMS_OK) {
            const std::string text = message(marked);
            result = q_write_mark_at(q, 1, text.data(), static_cast<uint32_t>(text.size()), marked);
            if (result == ESMS_OK) ++marked;
        }
        if (result != ESMS_OK && result != ESMS_FULL) return false;
        return enter(waking(q_write_commit_all(q)), marked);
    }

    uint32_t next_ = 0;
};

class StreamReader : StreamEnd {
public:
    using StreamEnd::is_open;

    StreamReader(const std::string &key_file, Ledger &ledger, uint32_t seed)
        : StreamEnd(key_file, 'r', ledger, seed) {
        if (!is_open()) return;
        const auto counted = static_cast<int>(ledger_.read.counted_since(q->gcnt.count));
        enter(std::min(counted, kBatch)); // what lies in the slots was counted
        // A held message whose number is entered needs only be cleared.
        const uint32_t done = ledger_.read.done();
        const int held = number_in(buffer_slot(q, q->rbufs, kBuffer), kRoom);
        if (done > 0 && held == ledger_.log[done - 1]) q_read_buf_clear(q, kBuffer);
    }
    bool has_more() const { return ledger_.goal == 0 || ledger_.highest + 1 < ledger_.goal; }

    bool read_some() {
        switch (random_() % 3) {
        case 0:
            return enter_one(frx_read(&end_, ledger_.slots[0], kWaitMilliseconds));
        case 1:
            if (!enter_one(frx_readBuf(&end_, ledger_.slots[0], kWaitMilliseconds, kBuffer)))
                return false;
            frx_readBufClear(&end_, kBuffer);
            return true;
        default:
            return read_batch();
        }
    }

private:
    // Enters the first messages of the slots as read.
    void enter(int messages) {
        uint32_t done = ledger_.read.done();
        for (int i = 0; i < messages && done < kLogSize; ++i) {
            const int n = number_in(ledger_.slots[i], kRoom);
            ledger_.torn += n == kTorn;
            ledger_.highest = std::max(ledger_.highest.load(), static_cast<uint32_t>(n + (n < 0)));
            ledger_.log[done++] = n;
        }
        ledger_.read.set(done, q->gcnt.count);
    }
    bool enter_one(int length) {
        if (length > 0) enter(1);
        return length > 0 || length == ESMS_TIMEOUT;
    }
    bool read_batch() {
        const int marked = frx_readMark(&end_, kBatch, kWaitMilliseconds);
        for (int i = 0; i < marked; ++i)
            if (frx_readMarked(&end_, i, ledger_.slots[i]) != ESMS_OK) return false;
        if (marked <= 0) return marked == 0;
        if (one_of(8)) return frx_readRollback(&end_) == marked;
        if (frx_readCommit(&end_, marked) != marked) return false;
        enter(marked);
        return true;
    }
};

} // namespace

int write_stream(const std::string &key_file, Ledger &ledger, uint32_t seed) {
    StreamWriter writer(key_file, ledger, seed);
    if (!writer.is_open()) return 1;
    while (writer.has_more())
        if (!writer.write_some()) return 2;
    return 0;
}

int read_stream(const std::string &key_file, Ledger &ledger, uint32_t seed) {
    StreamReader reader(key_file, ledger, seed);
    if (!reader.is_open()) return 1;
    while (reader.has_more())
        if (!reader.read_some()) return 2;
    return 0;
}

} // namespace halvo::test
