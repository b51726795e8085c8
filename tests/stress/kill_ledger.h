// A stream of numbered messages whose writer and reader are killed and replaced at random, and the
// ledger by which they go on.
//
// The ledger outlives the processes. Each of its two accounts is one 64-bit word, so that it is
// always whole: how many messages are done, and what the channel's counter (pcnt or gcnt) said
// then. The library counts a message just before it makes it readable, or free; so by the counter a
// successor knows how far its predecessor came, but for one message.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <stdexcept>
#include <string>

#include "halvo/queue.h"

namespace halvo::test {

constexpr uint32_t kSlotSize = 128;
constexpr int kBatch = 4;
constexpr uint32_t kLogSize = 1u << 24;

// Body of message n: the number and a run of bytes that follows from it, with a checksum.
inline std::string stream_message(uint32_t n) {
    std::minstd_rand random(n + 1);
    std::string text(8 + random() % (kSlotSize - 16 - 8 + 1), '\0');
    uint32_t sum = n;
    for (size_t i = 8; i < text.size(); ++i) {
        text[i] = static_cast<char>(random());
        sum = sum * 31 + static_cast<uint8_t>(text[i]);
    }
    std::memcpy(text.data(), &n, sizeof n);
    std::memcpy(text.data() + 4, &sum, sizeof sum);
    return text;
}

// Number of a slot's message; kNotWhole when a byte of it is wrong.
constexpr uint32_t kNotWhole = ~0u;
inline uint32_t stream_number(const uint8_t *slot) {
    qmsg header{};
    std::memcpy(&header, slot, sizeof header);
    if (header.len < 8 || header.len > kSlotSize - 16) return kNotWhole;
    const char *at = reinterpret_cast<const char *>(slot) + offsetof(qmsg, data);
    uint32_t n = 0;
    std::memcpy(&n, at, sizeof n);
    return std::string(at, header.len) == stream_message(n) ? n : kNotWhole;
}

// Messages done, and the channel's counter at that moment.
class Account {
public:
    struct Entry {
        uint32_t done, counter;
    };
    void set(uint32_t done, uint64_t counter) {
        word_ = uint64_t{done} << 32 | static_cast<uint32_t>(counter);
    }
    Entry get() const {
        const uint64_t word = word_;
        return {static_cast<uint32_t>(word >> 32), static_cast<uint32_t>(word)};
    }
    // Messages that the channel has counted since.
    uint32_t counted_since(uint64_t counter) const {
        return static_cast<uint32_t>(counter) - get().counter;
    }

private:
    std::atomic<uint64_t> word_{0};
    static_assert(std::atomic<uint64_t>::is_always_lock_free); // or a kill could leave a lock taken
};

struct Ledger {
    Account written, read;
    std::atomic<uint32_t> goal{~0u};    // messages after which the writer ends
    std::atomic<int> writer_at_work{0}; // lives that got to work
    std::atomic<int> reader_at_work{0};
    std::atomic<int> torn{0};
    std::atomic<int> recovered{0};    // recoveries that found something to do
    std::atomic<uint32_t> highest{0}; // number read
    // Not initialised: fresh memory holds zeros, and most of it is never touched.
    uint8_t slots[kBatch][kSlotSize]; // what the reader is about to release
    uint32_t log[kLogSize];           // numbers in the order in which they were read
};

inline Ledger &shared_ledger() {
    void *memory = mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    return *new (memory) Ledger;
}

int write_stream(const std::string &key_file, Ledger &ledger, uint32_t seed);
int read_stream(const std::string &key_file, Ledger &ledger, uint32_t seed);

} // namespace halvo::test
