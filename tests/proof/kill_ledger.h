// A stream of numbered messages whose writer and reader are killed and replaced at random, and the
// ledger by which they go on.
//
// The ledger outlives the processes. Each of its two accounts is one 64-bit word, so that it is
// always whole: how many messages are done, and what the channel's counter (pcnt or gcnt) said
// then. The library counts a message just before it makes it readable, or free; so by the counter a
// successor knows how far its predecessor came, but for one message.
#pragma once

#include <atomic>

#include "tools/fixture/segment_builder.h"

namespace halvo::test {

constexpr uint32_t kSlotSize = 128;
constexpr int kBatch = 4;
constexpr uint32_t kLogSize = 1u << 24;

// Messages done, and the channel's counter at that moment.
class Account {
public:
    void set(uint32_t done, uint64_t counter) {
        word_ = uint64_t{done} << 32 | static_cast<uint32_t>(counter);
    }
    uint32_t done() const { return static_cast<uint32_t>(word_ >> 32); }
    // Messages that the channel has counted since.
    uint32_t counted_since(uint64_t counter) const {
        return static_cast<uint32_t>(counter - word_.load());
    }

private:
    std::atomic<uint64_t> word_;
    static_assert(std::atomic<uint64_t>::is_always_lock_free); // or a kill could leave a lock taken
};

// In fresh shared memory, where everything begins as 0 and most of the log is never touched.
struct Ledger {
    Account written, read;
    std::atomic<uint32_t> goal;       // messages after which both end; 0: not known yet
    std::atomic<int> recovered;       // recoveries that found something to do
    std::atomic<uint32_t> highest;    // number read
    uint8_t slots[kBatch][kSlotSize]; // what the reader is about to release
    int log[kLogSize];                // numbers in the order in which they were read
};

// Each runs in a process of its own, to the goal: 0, or what failed.
int write_stream(const Segment &segment, Ledger &ledger, uint32_t seed);
int read_stream(const Segment &segment, Ledger &ledger, uint32_t seed);

} // namespace halvo::test
