// sms_shm: an end of a channel as its operations see it.
//
// What the channel's header says counts, at each operation. But its words lie in two cache lines to
// which the reader stores at each message and the writer too, so that a load from them takes longer
// than all else of an operation. The sizes seldom change, though, and the position is mostly where
// this process left it. So where it matters an operation goes on with what it expects, and compares
// each word with the header's as that arrives. The processor predicts that they are the same, waits
// for nothing, and takes back what it did when they are not.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/ring/counters.h"
#include "core/segment/segment.h"

namespace halvo {

// What this process expects of an end: a ring that was found to lie in the segment when the end was
// opened, and the position that was stored last. Only one thread at a time uses it, as of the end
// itself.
struct alignas(32) ExpectedWords {
    const halvo_channel *q = nullptr;
    Ring ring{}; // of size 0: none was found
    std::atomic<uint32_t> position{0};
};
constexpr uint32_t kExpectedPlaces = 1024; // a power of 2, above three times the channels
using ExpectedTable = ExpectedWords[kExpectedPlaces];
extern ExpectedTable expected_of_writers __attribute__((visibility("hidden")));
extern ExpectedTable expected_of_readers __attribute__((visibility("hidden")));

// The header's words of an end's side, and what is expected of them.
struct EndWords {
    halvo_u32 halvo_channel::*position;
    halvo_i32 halvo_channel::*heartbeat;
    ExpectedTable *expected;
};
inline constexpr EndWords kWriterWords{&halvo_channel::wpos, &halvo_channel::wtime,
                                       &expected_of_writers};
inline constexpr EndWords kReaderWords{&halvo_channel::rpos, &halvo_channel::rtime,
                                       &expected_of_readers};

// Gives each channel its place in the tables; empties them. Called while nobody uses the attachment.
void expect_channels() noexcept;
void forget_channels() noexcept;
// For the one that has just opened the end.
void expect_ring(const halvo_channel *q, ExpectedTable &table) noexcept;

// Where a channel stands in a table, or would.
inline ExpectedWords &place_of(const halvo_channel *q, ExpectedTable &table) noexcept {
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(q));
    uint32_t i = address * 0x9E3779B1u >> 22; // the golden ratio's bits scatter best
    while (table[i].q != q && table[i].q) i = (i + 1) % kExpectedPlaces;
    return table[i];
}

// What a word of a header is, found out as the head of this file tells. The compiler must not know that
// the value is the expected one: where it has compared the two it would go on with the actual one, and
// wait for it.
inline uint32_t confirmed(uint32_t expected, const halvo_u32 &word) noexcept {
    uint32_t value = expected;
    __asm__("" : "+r"(value));
    if (const uint32_t actual = load(word); actual != expected) {
        value = actual;
        __asm__ volatile("" : "+r"(value)); // a branch, not a move that waits for `actual`
    }
    return value;
}

// An end whose ring is as its header says now.
template <const EndWords &words>
class ChannelEnd {
public:
    explicit ChannelEnd(halvo_channel *q) noexcept : q_(q), ring_(ring_of(q)) {}

    // Whether the ring lies in the segment; otherwise nothing but current() and touch() may be
    // called.
    bool usable() const noexcept { return lies_within(ring_, room_behind(q_)); }
    const Ring &ring() const noexcept { return ring_; }
    uint32_t size() const noexcept { return ring_.size; } // of a slot
    // Slots that a walk visits at most: qcnt, or as many as there are.
    uint32_t slots() const noexcept {
        const uint32_t said = load(q_->qcnt), room = capacity(ring_);
        return said < room ? said : room;
    }

    // Sets the heartbeat.
    void touch() const noexcept { refresh(q_->*words.heartbeat, cached_time()); }

    // Offset of the slot that this side works on next.
    uint32_t offset() const noexcept { return position_in(ring_, load(q_->*words.position)); }
    qmsg *slot(uint32_t offset) const noexcept { return slot_at(q_, offset); }
    // That slot, for those who only look; one that has no state when the ring is not usable.
    const qmsg *current() const noexcept {
        static constexpr qmsg kNone{-1, 0, 0, 0, {}};
        return usable() ? slot(offset()) : &kNone;
    }
    uint32_t next(uint32_t offset) const noexcept { return next_offset(ring_, offset); }
    AheadOffset ahead(uint32_t offset, int64_t k) const noexcept {
        return offset_ahead(ring_, offset, k);
    }
    void prepare(uint32_t, uint32_t) const noexcept {}
    // Moves the position to the slot behind an offset, as the last step of an operation there.
    void step(uint32_t offset) const noexcept { store(q_->*words.position, next(offset)); }

private:
    halvo_channel *q_;
    Ring ring_;
};
using WriterEnd = ChannelEnd<kWriterWords>;
using ReaderEnd = ChannelEnd<kReaderWords>;

// An end whose words are those expected. Where holds() says that they are not, it may not be used,
// and a ChannelEnd does the same.
template <const EndWords &words>
class QuickEnd {
public:
    explicit QuickEnd(halvo_channel *q) noexcept : q_(q), expected_(place_of(q, *words.expected)) {}

    bool holds() const noexcept {
        const Ring &ring = expected_.ring;
        return expected_.q == q_ && ring.size != 0 && ring.size == load(q_->qbsz) &&
               ring.start == load(q_->qstart) && ring.end == load(q_->qend);
    }
    static constexpr bool usable() noexcept { return true; }
    const Ring &ring() const noexcept { return expected_.ring; }
    uint32_t size() const noexcept { return expected_.ring.size; }
    void touch() const noexcept { refresh(q_->*words.heartbeat, cached_time()); }

    uint32_t offset() const noexcept {
        const uint32_t expected = expected_.position.load(std::memory_order_relaxed);
        return position_in(expected_.ring, confirmed(expected, q_->*words.position));
    }
    qmsg *slot(uint32_t offset) const noexcept { return slot_at(q_, offset); }
    uint32_t next(uint32_t offset) const noexcept { return next_offset(expected_.ring, offset); }

    // Asks for the cache lines of the slot that will be written in a while, for so many bytes: the
    // other side had them last.
    void prepare(uint32_t offset, uint32_t bytes) const noexcept {
        constexpr uint32_t kSlotsAhead = 4, kLine = 64, kMost = 4096;
        offset += kSlotsAhead * expected_.ring.size;
        if (offset >= expected_.ring.end) return;
        const char *line = reinterpret_cast<const char *>(slot(offset));
        for (const char *last = line + (bytes < kMost ? bytes : kMost); line < last; line += kLine)
            __asm__ volatile("prefetchw %0" : : "m"(*line));
    }
    void step(uint32_t offset) const noexcept {
        const uint32_t behind = next(offset);
        store(q_->*words.position, behind);
        expected_.position.store(behind, std::memory_order_relaxed);
    }

private:
    halvo_channel *q_;
    ExpectedWords &expected_;
};
using QuickWriterEnd = QuickEnd<kWriterWords>;
using QuickReaderEnd = QuickEnd<kReaderWords>;

// Size of a channel's slots, expected as by its reader.
inline uint32_t slot_size(const halvo_channel *q) noexcept {
    return confirmed(place_of(q, expected_of_readers).ring.size, q->qbsz);
}

// In place of a size: whatever the slots have. No room is that large without being enough.
inline constexpr uint32_t kAnySize = UINT32_MAX;
inline bool is_size_of(const Ring &ring, uint32_t size) noexcept {
    return size == kAnySize || size == ring.size;
}
// The slot at an end's position, whatever its state.
template <class End>
int view_slot(const End &end, void *image, uint32_t size) noexcept {
    if (!end.usable()) return ESMS_INVAL;
    if (!is_size_of(end.ring(), size)) return ESMS_FAILED;
    copy_slot(end.size(), end.slot(end.offset()), image);
    return ESMS_OK;
}

} // namespace halvo
