// halvo-mon: depth and rates of every channel over the last quarter of an hour, one point a second.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

// Memory is taken once: kPoints times twelve bytes a channel.
class History {
public:
    static constexpr size_t kPoints = 900;

    void restart(size_t channels); // forgets everything
    // Of a sample that is up, with as many channels as at the restart. Numbers grow.
    void add(uint64_t number, const Sample &sample);

    // The points after number `since` as members of a JSON object: "samples", "times" (milliseconds
    // since the epoch) and "channels", each with "number", "name", "depth", "in", "out". `only` is
    // the number of one channel, or -1 for all.
    std::string json_members(uint64_t since, const Sample &names, int only) const;

private:
    struct Moment {
        uint64_t number;
        int64_t time;
    };
    struct Point {
        uint32_t depth; // messages, cut at what fits
        float in, out;  // messages per second
    };
    const Point &point(size_t moment, size_t channel) const {
        return points_[moment % kPoints * channels_ + channel];
    }

    size_t channels_ = 0, begin_ = 0, end_ = 0; // moments begin_ .. end_ are there, modulo kPoints
    std::vector<Moment> moments_;
    std::vector<Point> points_;
};

} // namespace halvo::mon
