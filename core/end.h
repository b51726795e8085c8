// sms_shm: an end of a channel as its operations see it.
//
// Positions, sizes and heartbeats of a channel lie in two cache lines, to which the reader stores at
// each message and the writer too. A load from them takes longer than all else of an operation, and
// often comes to nothing, because the other side stores again before it is done. What they hold is
// known, though: the geometry since the attach, the position and the heartbeat since this process
// stored them. So an operation uses what it knows. It loads one word only, its own position, and
// only to see that it is still the known one: another process may have had the end meanwhile.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/counters.h"
#include "core/ring.h"

namespace halvo {

// What this process knows of an end. Only one thread at a time uses it, as of the end itself.
struct KnownEnd {
    std::atomic<uint32_t> position{0};
    std::atomic<int32_t> heartbeat{INT32_MIN}; // as last stored
};

// What it knows of a channel that was found sound at the attach.
struct alignas(64) KnownChannel {
    const halvo_channel *q = nullptr;
    Geometry at{};
    KnownEnd reader, writer;
};

// Fills the table of known channels; empties it. Called while nobody uses the attachment.
void learn_channels() noexcept;
void forget_channels() noexcept;

constexpr uint32_t kKnownPlaces = 1024; // a power of 2, above three times the channels
extern KnownChannel known_channels[kKnownPlaces] __attribute__((visibility("hidden")));
// Where it stands, or would.
inline KnownChannel &place_of(const halvo_channel *q) noexcept {
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(q));
    uint32_t i = address * 0x9E3779B1u >> 22; // the golden ratio's bits scatter best
    while (known_channels[i].q != q && known_channels[i].q) i = (i + 1) % kKnownPlaces;
    return known_channels[i];
}
// The known channel of a header, or null.
inline KnownChannel *known_channel(const halvo_channel *q) noexcept {
    KnownChannel &place = place_of(q);
    return place.q ? &place : nullptr;
}

// What an operation needs to know of an end's side.
struct EndWords {
    uint32_t halvo_channel::*position;
    int32_t halvo_channel::*heartbeat;
    KnownEnd KnownChannel::*known;
};
inline constexpr EndWords kWriterWords{&halvo_channel::wpos, &halvo_channel::wtime,
                                       &KnownChannel::writer};
inline constexpr EndWords kReaderWords{&halvo_channel::rpos, &halvo_channel::rtime,
                                       &KnownChannel::reader};

template <const EndWords &words>
class End {
public:
    [[gnu::always_inline]] explicit End(halvo_channel *q) noexcept
        : q_(q), known_(known_channel(q)) {
        if (!known_) unknown_ = geometry_of(q);
    }

    const Geometry &at() const noexcept { return known_ ? known_->at : unknown_; }

    // Sets the heartbeat.
    void touch() const noexcept {
        const int32_t now = cached_time();
        if (!known_) return refresh(q_->*words.heartbeat, now);
        std::atomic<int32_t> &stored = (known_->*words.known).heartbeat;
        if (stored.load(std::memory_order_relaxed) == now) return;
        stored.store(now, std::memory_order_relaxed);
        store(q_->*words.heartbeat, now);
    }

    // Offset of the slot that this side works on next.
    uint32_t offset() const noexcept {
        const uint32_t actual = load(q_->*words.position);
        if (known_) {
            uint32_t expected = (known_->*words.known).position.load(std::memory_order_relaxed);
            if (actual == expected) [[likely]] {
                __asm__("" : "+r"(expected)); // the compiler would take `actual`, and wait for it
                return expected;
            }
        }
        return position_in(at(), actual);
    }
    qmsg *slot(uint32_t offset) const noexcept { return slot_at(q_, offset); }
    const qmsg *current() const noexcept { return slot(offset()); }
    uint32_t next(uint32_t offset) const noexcept { return next_offset(at(), offset); }
    AheadOffset ahead(uint32_t offset, int64_t k) const noexcept {
        return offset_ahead(at(), offset, k);
    }

    // Asks for the cache lines of the slot that will be written in a while, for so many bytes: the
    // other side had them last.
    void prepare(uint32_t offset, uint32_t bytes) const noexcept {
        constexpr uint32_t kSlotsAhead = 4, kLine = 64, kMost = 4096;
        offset += kSlotsAhead * at().size;
        if (offset >= at().end) return;
        const char *line = reinterpret_cast<const char *>(slot(offset));
        for (const char *last = line + (bytes < kMost ? bytes : kMost); line < last; line += kLine)
            __asm__ volatile("prefetchw %0" : : "m"(*line));
    }

    // Moves the position to the slot behind an offset, as the last step of an operation there.
    void step(uint32_t offset) const noexcept {
        const uint32_t behind = next(offset);
        store(q_->*words.position, behind);
        if (known_) (known_->*words.known).position.store(behind, std::memory_order_relaxed);
    }

private:
    halvo_channel *q_;
    KnownChannel *known_;
    Geometry unknown_;
};
using WriterEnd = End<kWriterWords>;
using ReaderEnd = End<kReaderWords>;

// Size of a channel's slots, as the operations use it.
inline uint32_t slot_size(const halvo_channel *q) noexcept {
    const KnownChannel *known = known_channel(q);
    return known ? known->at.size : q->qbsz;
}

// checked_channel() for the operations of an end alone, which use no other geometry than that found
// sound at the attach: it does not look at the header again.
inline halvo_channel *usable_channel(int channel) noexcept {
    halvo_segment *segment = attached_segment();
    if (!segment || channel < 0 || channel >= HALVO_CHANNELS_MAX) return nullptr;
    if (static_cast<uint32_t>(channel) >= load(segment->nchnnl)) return nullptr;
    auto *q = reinterpret_cast<halvo_channel *>(reinterpret_cast<char *>(segment) +
                                                load(segment->qoffs[channel]));
    return known_channel(q) ? q : nullptr;
}

// For q_open(): another process may have had the end since this one stored the heartbeat.
inline void forget_heartbeat(const halvo_channel *q, KnownEnd KnownChannel::*end) noexcept {
    if (KnownChannel *known = known_channel(q))
        (known->*end).heartbeat.store(INT32_MIN, std::memory_order_relaxed);
}

} // namespace halvo
