// Throughput and round trip over a link, the same code for every contender. A link is
//
//     struct Link {
//         Link(const Shape &, int lanes);       // in the parent: makes what the processes share
//         void enter();                         // in each process, once
//         struct Writer {                       // one direction's end, in the process that has it
//             Writer(Link &, int lane);
//             char *body();                     // where the caller puts the next message
//             bool send(uint32_t length);       // false: full now, try again
//         };
//         struct Reader {
//             Reader(Link &, int lane);
//             const char *receive();            // the body; null: empty now, try again
//         };
//     };
//
// Ends that block never answer false or null. A writer that keeps messages back has flush() besides,
// which passes them on. Ends that touch only the first bytes of a message say so in kTouched.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "bench/processes.h"

namespace halvo::bench {

inline constexpr uint32_t kWarmUp = 1000; // messages before the clock starts

// Bytes from the body's begin on at whose ends a message has its number.
template <class End>
constexpr uint32_t touched(uint32_t length) {
    if constexpr (requires { End::kTouched; }) return std::min(length, End::kTouched);
    return length;
}

template <class Writer>
void send_one(Writer &writer, uint32_t length, uint32_t number) {
    stamp(writer.body(), touched<Writer>(length), number);
    while (!writer.send(length)) pause_poll();
}

template <class Reader>
void receive_one(Reader &reader, uint32_t length, uint32_t number) {
    const char *body = nullptr;
    while (!(body = reader.receive())) pause_poll();
    check(body, touched<Reader>(length), number);
}

template <class Writer>
void flush(Writer &writer) {
    if constexpr (requires { writer.flush(); }) writer.flush();
}

// The ends of all lanes, each at an address that stays.
template <class End, class Link>
std::vector<std::unique_ptr<End>> open_ends(Link &link, int lanes) {
    std::vector<std::unique_ptr<End>> ends;
    for (int lane = 0; lane < lanes; ++lane) ends.push_back(std::make_unique<End>(link, lane));
    return ends;
}

// The middle one of the times of a run's equal parts: a part in which the system took a processor
// away does not count.
class Parts {
public:
    explicit Parts(uint32_t count) : size_(std::max(1u, count / kParts)) {}
    // Called behind every message with the number of messages so far.
    void passed(uint32_t messages) {
        if (messages != next_) return;
        next_ += size_;
        const double now = seconds_now();
        seconds_.push_back(now - before_);
        before_ = now;
    }
    double rate() {
        const auto middle = seconds_.begin() + static_cast<ptrdiff_t>(seconds_.size() / 2);
        std::nth_element(seconds_.begin(), middle, seconds_.end());
        return size_ / *middle;
    }
    double total() const { return seconds_now() - start_; }

private:
    static constexpr uint32_t kParts = 100;
    uint32_t size_, next_ = size_;
    double start_ = seconds_now(), before_ = start_;
    std::vector<double> seconds_;
};

// Messages per second through the lane `used`; the others are open and idle.
template <class Link>
Measured throughput(const Shape &shape, uint32_t count, int lanes, size_t used) {
    Link link(shape, lanes);
    const auto write = [&](Shared &shared) {
        link.enter();
        const auto writers = open_ends<typename Link::Writer>(link, lanes);
        shared.meet(2);
        for (uint32_t i = 0; i < kWarmUp + count; ++i) send_one(*writers[used], shape.body, i);
        flush(*writers[used]);
    };
    const auto read = [&](Shared &shared) {
        link.enter();
        const auto readers = open_ends<typename Link::Reader>(link, lanes);
        shared.meet(2);
        for (uint32_t i = 0; i < kWarmUp; ++i) receive_one(*readers[used], shape.body, i);
        Parts parts(count);
        for (uint32_t i = 0; i < count; ++i) {
            receive_one(*readers[used], shape.body, kWarmUp + i);
            parts.passed(i + 1);
        }
        shared.result = {parts.total(), parts.rate(), 0};
    };
    return run({write, read});
}

template <class Link>
Measured throughput(const Shape &shape, uint32_t count) {
    return throughput<Link>(shape, count, 1, 0);
}

// Median and 99th percentile of times in ticks, as nanoseconds.
inline void put_percentiles(Measured &result, std::vector<uint32_t> &ticks, double ticks_per_ns) {
    const auto at = [&](size_t percent) {
        const auto place = ticks.begin() + static_cast<ptrdiff_t>(ticks.size() * percent / 100);
        std::nth_element(ticks.begin(), place, ticks.end());
        return *place / ticks_per_ns;
    };
    result.first = at(50);
    result.second = at(99);
}

// Times of single messages there and back.
template <class Link>
Measured round_trip(const Shape &shape, uint32_t count) {
    Link link(shape, 2);
    const auto ask = [&](Shared &shared) {
        link.enter();
        typename Link::Writer writer(link, 0);
        typename Link::Reader reader(link, 1);
        std::vector<uint32_t> times(count);
        const auto exchange = [&](uint32_t number) {
            send_one(writer, shape.body, number);
            receive_one(reader, shape.body, number);
        };
        shared.meet(2);
        for (uint32_t i = 0; i < kWarmUp; ++i) exchange(i);
        const double start = seconds_now();
        const uint64_t first = ticks_now();
        uint64_t before = first;
        for (uint32_t i = 0; i < count; ++i) {
            exchange(kWarmUp + i);
            const uint64_t now = ticks_now();
            times[i] = static_cast<uint32_t>(now - before);
            before = now;
        }
        shared.result.seconds = seconds_now() - start;
        put_percentiles(shared.result, times,
                        static_cast<double>(before - first) / (shared.result.seconds * 1e9));
    };
    const auto answer = [&](Shared &shared) {
        link.enter();
        typename Link::Reader reader(link, 0);
        typename Link::Writer writer(link, 1);
        shared.meet(2);
        for (uint32_t i = 0; i < kWarmUp + count; ++i) {
            receive_one(reader, shape.body, i);
            send_one(writer, shape.body, i);
        }
    };
    return run({ask, answer});
}

} // namespace halvo::bench
