// sms_fq: the items of a running write transaction, as they stand in the data file. The commit
// turns them readable from here, without reading them again.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace halvo::fq {

class Batch {
public:
    Batch() = default;
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;
    ~Batch() { std::free(bytes_); }

    void begin(int32_t order, int64_t offset) noexcept;
    // Memory to build the next item in, which will stand at that place; null when it does not
    // follow the last one or the items are too many to be kept: the batch then holds nothing.
    char *room(int32_t order, int64_t offset, size_t size) noexcept;
    // The item built there is in the file.
    void add(size_t size) noexcept;

    // Whether these are all the items of a transaction.
    bool holds(int32_t order, int64_t first, int count) const noexcept {
        return whole_ && order == order_ && first == start_ && count == count_;
    }
    // Sets the state of all items but the first, whose own comes last, in memory and in the file.
    // False when a write failed; errno is the write's.
    bool make_others_readable(int fd, int64_t &failed_at) noexcept;

    // Gives most of the memory back.
    void rest() noexcept;

private:
    bool grow(size_t size) noexcept;

    char *bytes_ = nullptr;
    size_t capacity_ = 0, used_ = 0;
    int32_t order_ = -1;
    int64_t start_ = 0;
    int count_ = 0;
    bool whole_ = false;
};

} // namespace halvo::fq
