// halvo-mon: what lies between samples: rates over a real interval, how long messages have waited,
// and the judgement of what wants a look.
#pragma once

#include <deque>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

class Tracker {
public:
    // Fills in rates, ages and trouble of a sample. Samples come in the order of their times, live
    // or from a record; a segment that was made anew begins from nothing.
    void judge(Sample &sample);

private:
    struct Point {
        double time;
        uint64_t put, got; // those whose rate is shown
    };
    struct History {
        std::deque<Point> rates;    // of the last seconds
        std::deque<Point> arrivals; // when so many had been put, while messages wait
        std::deque<Point> depths;   // one every ten seconds, of the last minute
        uint64_t got = 0;
        double got_changed = 0; // when `got` was seen to change, or the ring to be empty
    };
    void follow(ChannelSample &channel, History &history, const Sample &sample);

    int id_ = -1;
    std::vector<History> channels_;
};

} // namespace halvo::mon
