// What every measurement needs: sizes, clock, and messages that prove their order.
#pragma once

#include <time.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvo::bench {

// A measurement that did not work, as one line.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Sizes of one measurement. Contenders with slots use all three; kernel queues send the body alone.
struct Shape {
    uint32_t body;  // bytes of a message
    uint32_t slot;  // bytes of a slot, header included
    uint32_t slots; // slots of a ring
};

inline std::string text_of(const Shape &shape) {
    return std::to_string(shape.body) + "/" + std::to_string(shape.slot);
}

inline double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The processor's own clock, for single messages: reading it costs a tenth of a system clock.
inline uint64_t ticks_now() { return __builtin_ia32_rdtsc(); }

// Between two looks of a polling side, the same for every contender.
inline void pause_poll() { __builtin_ia32_pause(); }

// A caller's buffer of one message.
class Body {
public:
    explicit Body(const Shape &shape) : bytes_(shape.body, 'x') {}
    char *body() { return bytes_.data(); }

private:
    std::vector<char> bytes_;
};

// A message carries its number at both ends.
inline void stamp(char *body, uint32_t length, uint32_t number) {
    std::memcpy(body, &number, sizeof number);
    std::memcpy(body + length - sizeof number, &number, sizeof number);
}

inline void check(const char *body, uint32_t length, uint32_t number) {
    uint32_t first = 0, last = 0;
    std::memcpy(&first, body, sizeof first);
    std::memcpy(&last, body + length - sizeof last, sizeof last);
    if (first == number && last == number) return;
    throw Failure("message " + std::to_string(number) + " arrived as " + std::to_string(first) +
                  " .. " + std::to_string(last));
}

} // namespace halvo::bench
