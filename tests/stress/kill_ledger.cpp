#include "tests/stress/kill_ledger.h"

#include <fcntl.h>
#include <unistd.h>

#include "core/ring.h"
#include "halvo/frx.h"
#include "tests/support/ring.h"

namespace halvo::test {

namespace {

constexpr int kOpenMilliseconds = 20000;
constexpr int kWaitMilliseconds = 1000; // of each call; then the goal is looked at

// An end of channel 0 that is put right.
struct RecoveredEnd {
    FrxChannel handle{};
    halvo_channel *q = nullptr;
    RecoveredEnd(const std::string &key_file, char side, Ledger &ledger) {
        const int nowhere = open("/dev/null", O_WRONLY); // for the library's lines
        dup2(nowhere, STDOUT_FILENO);
        if (frx_initialize(key_file.c_str()) != ESMS_OK) return;
        if (frx_openChannel(&handle, "stress", 0, side, kOpenMilliseconds) != ESMS_OK) return;
        const int done = q_recover(0, side);
        if (done > 0) ++ledger.recovered;
        if (done >= 0) q = q_chnnl2q(0);
    }
};

class StreamWriter {
public:
    StreamWriter(RecoveredEnd &end, Ledger &ledger, uint32_t seed)
        : end_(end), q(end.q), ledger_(ledger), random_(seed) {
        // Of the messages counted since the last entry all are readable but perhaps the last.
        const uint32_t counted = ledger_.written.counted_since(q->pcnt.count);
        next_ = ledger_.written.get().done + (counted > 0 ? counted - 1 : 0);
        for (int i = 0; i < HALVO_BUFFERS; ++i) q_write_buf_rollback(q, i);
        enter();
    }

    bool write_some() {
        switch (random_() % 4) {
        case 0:
            return write_one();
        case 1:
            return mark_one();
        case 2:
            return park_one();
        default:
            return write_batch();
        }
    }
    uint32_t next() const { return next_; }

private:
    void enter() { ledger_.written.set(next_, q->pcnt.count); }
    bool done(int result, uint32_t messages) {
        if (result == ESMS_TIMEOUT) return true; // the ring is full
        if (result != ESMS_OK) return false;
        next_ += messages;
        enter();
        return true;
    }

    bool write_one() {
        const std::string text = stream_message(next_);
        return done(frx_write(&end_.handle, 1, text.data(), static_cast<uint32_t>(text.size()),
                              kWaitMilliseconds),
                    1);
    }
    bool mark_one() {
        const std::string text = stream_message(next_);
        const int marked = frx_writeMark(&end_.handle, 1, text.data(),
                                         static_cast<uint32_t>(text.size()), kWaitMilliseconds);
        if (marked != ESMS_OK) return marked == ESMS_TIMEOUT;
        if (random_() % 4 == 0) return frx_writeRollback(&end_.handle) == ESMS_OK;
        return done(frx_writeCommit(&end_.handle), 1);
    }
    bool park_one() {
        const std::string text = stream_message(next_);
        const int parked = frx_writeBuf(&end_.handle, 1, text.data(),
                                        static_cast<uint32_t>(text.size()), 3, kWaitMilliseconds);
        if (parked != ESMS_OK) return parked == ESMS_TIMEOUT;
        if (random_() % 4 == 0) return frx_writeBufRollback(&end_.handle, 3) == ESMS_OK;
        const int committed = frx_writeBufCommit(&end_.handle, 3);
        sem_postx(0); // that call wakes nobody
        return done(committed, 1);
    }
    bool write_batch() {
        uint32_t marked = 0;
        while (marked < kBatch && next_ + marked < ledger_.goal) {
            const std::string text = stream_message(next_ + marked);
            const int result =
                q_write_mark_at(q, 1, text.data(), static_cast<uint32_t>(text.size()), marked);
            if (result == ESMS_FULL) break;
            if (result != ESMS_OK) return false;
            ++marked;
        }
        const int result = q_write_commit_all(q);
        sem_postx(0);
        if (marked == 0) return write_one();
        return done(result, marked);
    }

    RecoveredEnd &end_;
    halvo_channel *const q;
    Ledger &ledger_;
    std::minstd_rand random_;
    uint32_t next_ = 0;
};

class StreamReader {
public:
    StreamReader(RecoveredEnd &end, Ledger &ledger, uint32_t seed)
        : end_(end), q(end.q), ledger_(ledger), random_(seed) {
        const uint32_t counted = ledger_.read.counted_since(q->gcnt.count);
        record(std::min<uint32_t>(counted, kBatch)); // what lies in the slots was counted
        drop_recorded_buffer();
    }

    bool read_some() {
        switch (random_() % 3) {
        case 0:
            return read_one();
        case 1:
            return read_buffered();
        default:
            return read_batch();
        }
    }

private:
    // Enters the first messages of the slots as read.
    void record(uint32_t messages) {
        uint32_t done = ledger_.read.get().done;
        for (uint32_t i = 0; i < messages && done < kLogSize; ++i) {
            const uint32_t n = stream_number(ledger_.slots[i]);
            ledger_.torn += n == kNotWhole;
            if (n != kNotWhole && n > ledger_.highest) ledger_.highest = n;
            ledger_.log[done++] = n;
        }
        ledger_.read.set(done, q->gcnt.count);
    }

    // A held message whose number is entered needs only be cleared.
    void drop_recorded_buffer() {
        const uint32_t done = ledger_.read.get().done;
        const auto *held = reinterpret_cast<const uint8_t *>(buffer_slot(q, q->rbufs, 0));
        if (done > 0 && stream_number(held) == ledger_.log[done - 1]) q_read_buf_clear(q, 0);
    }

    bool read_one() {
        const int result = frx_read(&end_.handle, ledger_.slots[0], kWaitMilliseconds);
        if (result > 0) record(1);
        return result > 0 || result == ESMS_TIMEOUT;
    }
    bool read_buffered() {
        const int result = frx_readBuf(&end_.handle, ledger_.slots[0], kWaitMilliseconds, 0);
        if (result > 0) {
            record(1);
            frx_readBufClear(&end_.handle, 0);
        }
        return result > 0 || result == ESMS_TIMEOUT;
    }
    bool read_batch() {
        const int marked = frx_readMark(&end_.handle, kBatch, kWaitMilliseconds);
        for (int i = 0; i < marked; ++i)
            if (frx_readMarked(&end_.handle, i, ledger_.slots[i]) != ESMS_OK) return false;
        if (marked > 0 && random_() % 8 == 0) return frx_readRollback(&end_.handle) == marked;
        if (marked > 0) {
            if (frx_readCommit(&end_.handle, marked) != marked) return false;
            record(static_cast<uint32_t>(marked));
        }
        return marked >= 0;
    }

    RecoveredEnd &end_;
    halvo_channel *const q;
    Ledger &ledger_;
    std::minstd_rand random_;
};

} // namespace

int write_stream(const std::string &key_file, Ledger &ledger, uint32_t seed) {
    RecoveredEnd end(key_file, 'w', ledger);
    if (!end.q) return 1;
    StreamWriter writer(end, ledger, seed);
    ++ledger.writer_at_work;
    while (writer.next() < ledger.goal)
        if (!writer.write_some()) return 2;
    return 0;
}

int read_stream(const std::string &key_file, Ledger &ledger, uint32_t seed) {
    RecoveredEnd end(key_file, 'r', ledger);
    if (!end.q) return 1;
    StreamReader reader(end, ledger, seed);
    ++ledger.reader_at_work;
    while (ledger.highest + 1 < ledger.goal)
        if (!reader.read_some()) return 2;
    return 0;
}

} // namespace halvo::test
