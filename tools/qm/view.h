// A segment attached for reading only, which may hold anything: a damaged segment must not take its
// examiner down. Nothing is read before its place is known to lie inside the attached size.
#pragma once

#include <cstdint>
#include <string>

#include "halvo/segment.h"
#include "tools/qm/objects.h"

namespace halvo::qm {

class SegmentView {
public:
    // Throws Error when the segment of the keys cannot be attached.
    explicit SegmentView(const Keys &keys) : SegmentView(id_of(keys)) {}
    explicit SegmentView(int id);

    int id() const { return id_; }

    uint64_t size() const { return size_; }
    bool holds(uint64_t offset, uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }
    // Null when the segment is shorter than its header.
    const halvo_segment *header() const;
    // Null when the number is beyond the table, or the header not wholly inside the segment.
    const halvo_channel *channel(uint32_t number) const;
    // Bytes from such a header on, as many as offsets can tell.
    uint32_t room_behind(const halvo_channel *q) const;
    // For whoever reads all counters of all channels: has the pages of a channel's header mapped at
    // once, which is cheaper than one by one, and gives them back, or all of them would count as the
    // process's memory.
    void prefault(uint32_t number) const;
    void release(uint32_t number) const;
    // The number of channels, at most as many as the table can hold; 0 without a header.
    uint32_t channels() const;

private:
    static int id_of(const Keys &keys);
    void advise(uint32_t number, int advice) const;
    const void *at(uint64_t offset) const {
        return static_cast<const char *>(attachment_.address()) + offset;
    }

    int id_;
    Attachment attachment_;
    uint64_t size_;
};

// Value of a semaphore, or -1 (with errno) when there is no such.
int semaphore_value(key_t key, int number);

} // namespace halvo::qm
