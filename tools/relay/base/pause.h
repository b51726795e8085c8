// Waiting that a request to stop ends: growing pauses between attempts, and a limit on the rate.
#pragma once

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "tools/frame/clock.h"

namespace halvo::relay {

inline int64_t milliseconds_now() { return static_cast<int64_t>(tools::monotonic() * 1000); }

// A request to stop, seen by the threads of a route.
using Stop = std::atomic<bool>;

inline void sleep_until(int64_t end, const Stop &stop) {
    for (int64_t left; !stop && (left = end - milliseconds_now()) > 0;) {
        const int64_t slice = std::min<int64_t>(left, 50);
        const timespec pause{0, static_cast<long>(slice * 1000000)};
        nanosleep(&pause, nullptr);
    }
}

class Backoff {
public:
    Backoff(int first, int most) : first_(first), most_(std::max(first, most)) {}
    void reset() { next_ = 0; }
    // How long to pause before the next attempt: milliseconds, longer each time.
    int64_t next() {
        next_ = next_ == 0 ? first_ : std::min(next_ * 2, most_);
        return next_;
    }

private:
    int first_, most_, next_ = 0;
};

// At most so many messages a second, in shares of a tenth of one.
class Pace {
public:
    explicit Pace(int limit) : limit_(limit) {}
    // How many of `wanted` may go now; waits until at least one may. 0: asked to stop.
    uint32_t allow(uint32_t wanted, const Stop &stop) {
        if (limit_ == 0) return wanted;
        for (;;) {
            const int64_t now = milliseconds_now();
            if (begun_ == 0) begun_ = now;
            tokens_ = std::min<int64_t>(tokens_ + (now - begun_) * limit_,
                                        std::max<int64_t>(1000, int64_t{limit_} * 100));
            begun_ = now;
            if (tokens_ >= 1000)
                return static_cast<uint32_t>(std::min<int64_t>(wanted, tokens_ / 1000));
            if (stop) return 0;
            sleep_until(now + std::max<int64_t>(1, (1000 - tokens_) / limit_), stop);
        }
    }
    void used(uint32_t messages) { tokens_ -= limit_ == 0 ? 0 : int64_t{messages} * 1000; }

private:
    int limit_;
    int64_t begun_ = 0;  // time of the last look
    int64_t tokens_ = 0; // thousandths of a message
};

} // namespace halvo::relay
