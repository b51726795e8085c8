// sms_fq: the record of a position log that counts. Whoever asks for a position asks here.
#pragma once

#include <unistd.h>

#include <algorithm>

#include "fq/files/files.h"
#include "fq/files/format.h"

namespace halvo::fq {

// Where in a log the position was found.
struct LastRecord {
    bool found = false;   // a record that can be read
    bool blank = false;   // no record has reached the disk to its end, which is a line feed
    int64_t at = 0;       // offset of the last whole record
    Position left;        // what the record before it says; not valid: not known
    bool stepped = false; // the last record cannot be read, and the one found is an earlier one
};

// From the last record, which cannot be read, back to one that can; by blocks, for a log may be long,
// and no further than the queue's own logs are: one of gigabytes is somebody else's doing.
inline void step_back(int fd, char *record, LastRecord &last) noexcept {
    const auto is_blank = [](const char *bytes) { return bytes[kRecordSize - 1] == '\0'; };
    constexpr int64_t kBlock = int64_t{256} * kRecordSize;
    constexpr int64_t kLongest = (kFileLimit / kRecordSize + 1) * kRecordSize;
    const int64_t first = std::max<int64_t>(last.at - kLongest, 0);
    char block[kBlock];
    last.blank = first == 0 && is_blank(record);
    for (int64_t end = last.at; end > first;) {
        const int64_t begin = std::max(end - kBlock, first);
        const auto size = static_cast<ssize_t>(end - begin);
        if (pread(fd, block, static_cast<size_t>(size), begin) != size) return;
        for (ssize_t left = size; left > 0; left -= kRecordSize) {
            const char *at = block + left - kRecordSize;
            last.blank = last.blank && is_blank(at);
            if (!position_in(at).valid()) continue;
            std::memcpy(record, at, kRecordSize);
            last.found = last.stepped = true;
            last.blank = false;
            last.left = {};
            return;
        }
        end = begin;
    }
}

// Reads the last whole record of a log of `size` bytes, or the last that can be read: what a power
// failure has left behind it was never acknowledged. Without one, the last as it is. Bytes read of
// it; below 31 when it could not be read from the file.
inline ssize_t read_last_record(int fd, int64_t size, char *record, LastRecord &last) noexcept {
    char pair[2 * kRecordSize];
    last.at = (size / kRecordSize - 1) * kRecordSize;
    const int64_t before = last.at > 0 ? kRecordSize : 0;
    const ssize_t wanted = static_cast<ssize_t>(kRecordSize + before);
    const ssize_t got = pread(fd, pair, static_cast<size_t>(wanted), last.at - before);
    if (got != wanted)
        return got < 0 ? got : std::max<ssize_t>(got - static_cast<ssize_t>(before), 0);
    std::memcpy(record, pair + before, kRecordSize);
    last.found = position_in(record).valid();
    if (before > 0) last.left = position_in(pair);
    if (last.found) return kRecordSize;
    step_back(fd, record, last);
    return kRecordSize;
}

// The position that a side's log tells, as another side looks at it; not valid when it tells none.
// `known`: false when the look itself failed, with errno.
inline Position saved_position(int directory, const FileName &log_name, bool &known) noexcept {
    const Descriptor log = open_queue_file(directory, log_name, O_RDONLY);
    known = log || errno == ENOENT;
    const int64_t size = log ? state_of(log.get()).size : 0;
    if (size >= 0 && size < kRecordSize) return {-1, -1};
    LastRecord last;
    char record[kRecordSize] = {};
    known = size >= 0 && read_last_record(log.get(), size, record, last) == kRecordSize;
    return known && last.found ? position_in(record) : Position{-1, -1};
}

} // namespace halvo::fq
