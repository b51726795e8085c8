// sms_fq: a piece of a data file, read ahead within a read transaction.
//
// Only a readable item that stands whole in the piece is taken from it: such an item does not change
// any more. For everything else one looks at the file again.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "fq/files/format.h"

namespace halvo::fq {

class ReadAhead {
public:
    // Forgets what was read. The first piece is as large as what the last transaction took: the
    // next one is likely to be as long.
    void begin() noexcept {
        forget();
        next_ = std::clamp(taken_, kSmallest, kLargest);
        taken_ = 0;
    }
    // An item of so many bytes was read in this transaction.
    void take(size_t size) noexcept { taken_ += size; }
    void forget() noexcept { length_ = 0; }

    // Bytes held from an offset on.
    size_t held(int64_t offset) const noexcept {
        const int64_t end = start_ + static_cast<int64_t>(length_);
        return offset < start_ || offset >= end ? 0 : static_cast<size_t>(end - offset);
    }
    // They; only while there are any.
    const char *at(int64_t offset) const noexcept { return bytes() + (offset - start_); }

    bool holds_readable_item(int64_t offset) const noexcept {
        const size_t size = held(offset);
        if (size < FQ_ITEM_EXTRA) return false;
        ItemHeader header;
        std::memcpy(&header, at(offset), kHeaderSize);
        return kind_of(header) == ItemKind::readable && header.length <= size - FQ_ITEM_EXTRA &&
               is_trailer(at(offset) + kHeaderSize + header.length);
    }

    // Reads the piece at an offset, each one larger than the one before. As pread.
    ssize_t load(int fd, int64_t offset) noexcept {
        if (next_ > sizeof small_ && !large_) large_.reset(new (std::nothrow) char[kLargest]);
        const size_t size = large_ ? next_ : std::min(next_, sizeof small_);
        const ssize_t got = pread(fd, large_ ? large_.get() : small_, size, offset);
        start_ = offset;
        length_ = got < 0 ? 0 : static_cast<size_t>(got);
        next_ = std::min(next_ * 4, kLargest);
        return got;
    }

private:
    static constexpr size_t kSmallest = 1024;
    static constexpr size_t kLargest = size_t{1} << 16;
    const char *bytes() const noexcept { return large_ ? large_.get() : small_; }

    char small_[4096];
    std::unique_ptr<char[]> large_;
    size_t length_ = 0, next_ = kSmallest, taken_ = 0;
    int64_t start_ = 0;
};

} // namespace halvo::fq
