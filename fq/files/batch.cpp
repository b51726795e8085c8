#include "fq/files/batch.h"

#include <unistd.h>

#include <cstring>

#include "fq/files/format.h"

using namespace halvo::fq;

namespace {

// A transaction longer than this is not kept: its items are read again at the commit.
constexpr size_t kMostBytes = size_t{1} << 20;
// Kept between transactions.
constexpr size_t kRestBytes = size_t{1} << 16;
// A write for each state costs more than writing all the bytes in between again, up to this many
// bytes from one state to the next.
constexpr size_t kCloseStates = 8192;

size_t size_at(const char *item) {
    ItemHeader header;
    std::memcpy(&header, item, kHeaderSize);
    return static_cast<size_t>(size_of_item(header));
}

} // namespace

void Batch::begin(int32_t order, int64_t offset) noexcept {
    order_ = order;
    start_ = offset;
    used_ = 0;
    count_ = 0;
    whole_ = true;
}

bool Batch::grow(size_t size) noexcept {
    size_t wanted = capacity_ ? capacity_ : 4096;
    while (wanted < size) wanted *= 2;
    void *more = std::realloc(bytes_, wanted);
    if (!more) return false;
    bytes_ = static_cast<char *>(more);
    capacity_ = wanted;
    return true;
}

char *Batch::room(int32_t order, int64_t offset, size_t size) noexcept {
    const bool follows = order == order_ && offset == start_ + static_cast<int64_t>(used_);
    whole_ = whole_ && follows && size <= kMostBytes - used_ &&
             (used_ + size <= capacity_ || grow(used_ + size));
    return whole_ ? bytes_ + used_ : nullptr;
}

void Batch::add(size_t size) noexcept {
    used_ += size;
    ++count_;
}

bool Batch::make_others_readable(int fd, int64_t &failed_at) noexcept {
    const size_t second = size_at(bytes_);
    size_t last = 0;
    for (size_t item = second; item < used_; item += size_at(bytes_ + item)) {
        bytes_[item + kStateOffset] = kCommitted;
        last = item;
    }
    const bool close_together = last - second <= kCloseStates * static_cast<size_t>(count_ - 1);
    for (size_t item = second; item < used_; item += size_at(bytes_ + item)) {
        const size_t state = item + kStateOffset;
        const size_t size = close_together ? last - item + 1 : 1;
        failed_at = start_ + static_cast<int64_t>(state);
        if (pwrite(fd, bytes_ + state, size, failed_at) != static_cast<ssize_t>(size)) return false;
        if (close_together) break;
    }
    return true;
}

void Batch::rest() noexcept {
    if (capacity_ <= kRestBytes) return;
    std::free(bytes_);
    bytes_ = nullptr;
    capacity_ = used_ = 0;
    whole_ = false;
}
