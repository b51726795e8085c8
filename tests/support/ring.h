// Short words for tests of a channel's ring.
//
// The 64-bit counters of the records lie on addresses of four bytes, where no reference may be bound
// to them: compare copies, EXPECT_EQ(+q->pcnt.count, 5u).
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/segment/ring.h"
#include "halvo/queue.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {

inline int write(halvo_channel *q, const std::string &text, int type = 1) {
    return q_write(q, type, text.data(), static_cast<uint32_t>(text.size()));
}

inline int write_mark(halvo_channel *q, const std::string &text) {
    return q_write_mark(q, 1, text.data(), static_cast<uint32_t>(text.size()));
}

inline int write_mark_at(halvo_channel *q, const std::string &text, uint32_t index) {
    return q_write_mark_at(q, 1, text.data(), static_cast<uint32_t>(text.size()), index);
}

inline int write_buf(halvo_channel *q, const std::string &text, int index) {
    return q_write_buf(q, 1, text.data(), static_cast<uint32_t>(text.size()), index);
}

// Buffer slot `index` of those at rbufs or wbufs.
inline qmsg *buffer_slot(halvo_channel *q, uint32_t area, uint32_t index) {
    return slot_at(q, area + index * q->qbsz);
}

// Room for one slot of a channel, as a reader has it.
class Slot {
public:
    explicit Slot(const halvo_channel *q) : bytes_(q->qbsz) {}
    void *data() { return bytes_.data(); }
    const qmsg &header() const { return *reinterpret_cast<const qmsg *>(bytes_.data()); }
    std::string body() const {
        return {reinterpret_cast<const char *>(bytes_.data()) + offsetof(qmsg, data), header().len};
    }

private:
    std::vector<uint8_t> bytes_;
};

// The next message's body, or the result's number in brackets.
inline std::string read(halvo_channel *q) {
    Slot slot(q);
    const int result = q_read(q, slot.data());
    return result == ESMS_OK ? slot.body() : "[" + std::to_string(result) + "]";
}

// The letters of the ring's slots, with > before the read and < before the write position.
inline std::string picture(const halvo_channel *q) {
    std::string letters;
    for (uint32_t at = q->qstart; at < q->qend; at += q->qbsz) {
        if (at == q->rpos) letters += '>';
        if (at == q->wpos) letters += '<';
        letters += q_statchr(slot_at(q, at));
    }
    return letters;
}

// Channel 0 MT01 of type 'M', and channel 1 FQ01 of type 'F', which has no semaphores.
inline Segment two_channels() {
    return SegmentBuilder().channel("MT01", 'M', 4, 64).channel("FQ01", 'F', 4, 64).build();
}

// A process that has one end of a small ring open; it may call the other end's functions too.
template <uint32_t kSlots, char kMode>
class RingTest : public testing::Test {
protected:
    Segment segment = SegmentBuilder().channel("MT01", 'M', kSlots, 64).build();
    halvo_channel *q = nullptr;
    void SetUp() override {
        segment.attach();
        q = segment.open("MT01", kMode);
    }
};

} // namespace halvo::test
