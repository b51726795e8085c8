// smsqm_print: a text that grows while it is built. It does not throw: a text that found no memory
// stays as it is and says so.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace halvo {

class Text {
public:
    Text() = default;
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;
    ~Text() { std::free(bytes_); }

    void add(const char *more) noexcept {
        const size_t length = std::strlen(more);
        if (!reserve(length)) return;
        std::memcpy(bytes_ + size_, more, length + 1);
        size_ += length;
    }

    const char *c_str() const noexcept { return bytes_ ? bytes_ : ""; }
    size_t size() const noexcept { return size_; } // bytes without the terminator
    bool complete() const noexcept { return complete_; }

private:
    bool reserve(size_t more) noexcept {
        if (!complete_ || more < room_ - size_) return complete_; // room for the terminator too
        const size_t room = 2 * room_ + more + 1024;
        auto *bytes = static_cast<char *>(std::realloc(bytes_, room));
        complete_ = bytes != nullptr;
        if (!bytes) return false;
        bytes_ = bytes;
        room_ = room;
        return true;
    }

    char *bytes_ = nullptr;
    size_t size_ = 0;
    size_t room_ = 0;
    bool complete_ = true;
};

} // namespace halvo
