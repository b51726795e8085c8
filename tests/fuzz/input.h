// Takes a fuzzer's bytes apart into numbers and choices. Behind the end all numbers are 0.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace halvo::fuzz {

class Input {
public:
    Input(const uint8_t *data, size_t size) : at_(data), left_(size) {}

    bool more() const { return left_ > 0; }

    template <class Number>
    Number number() {
        Number value = 0;
        const size_t got = std::min(left_, sizeof value);
        if (got > 0) std::memcpy(&value, at_, got);
        skip(got);
        return value;
    }
    uint8_t byte() { return number<uint8_t>(); }
    uint32_t below(uint32_t limit) { return byte() % limit; } // limit 1 .. 256

    // One of the given values, or any value.
    template <size_t n>
    uint32_t near(const uint32_t (&values)[n]) {
        const uint8_t choice = byte();
        return choice % 8 == 7 ? number<uint32_t>() : values[choice / 8 % n];
    }

    std::string bytes(size_t most) {
        const size_t got = std::min(most, left_);
        const std::string taken(reinterpret_cast<const char *>(at_), got);
        skip(got);
        return taken;
    }

private:
    void skip(size_t n) {
        at_ += n;
        left_ -= n;
    }
    const uint8_t *at_;
    size_t left_;
};

} // namespace halvo::fuzz
