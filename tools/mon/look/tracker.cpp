#include "tools/mon/look/tracker.h"

#include <algorithm>

#include "print/figures.h"

namespace halvo::mon {

namespace {

constexpr double kRateSeconds = 1.9;  // a shorter interval would show bursts as rates
constexpr double kShortest = 0.4;     // of an interval with a rate at all
constexpr double kDepthSeconds = 9.5; // between two depths that tell about growth
constexpr size_t kDepths = 7;         // a minute
constexpr size_t kMostArrivals = 256;
constexpr int32_t kOldSeconds = 60, kStalledSeconds = 10;
constexpr int32_t kFileSilence = 10; // a file queue's reader that lives touches its heartbeat

bool is_of_file(const ChannelSample &channel) { return rate_is_of_file(channel.type); }

bool lacks_reader(const ChannelSample &channel, int32_t now) {
    if (is_of_file(channel) && channel.file_depth() > 0)
        return age(now, channel.file_reader.stamp) > kFileSilence;
    if (channel.ring_depth() <= 0) return false;
    const EndSample &reader = channel.reader;
    return reader.held == Held::no || (reader.held == Held::unknown && !reader.alive);
}

bool is_dead(const EndSample &end) { return end.held == Held::yes && !end.alive; }

} // namespace

void Tracker::judge(Sample &sample) {
    if (!sample.up) return;
    if (sample.id != id_ || sample.channels.size() != channels_.size()) {
        id_ = sample.id;
        channels_.assign(sample.channels.size(), {});
    }
    for (size_t i = 0; i < sample.channels.size(); ++i)
        follow(sample.channels[i], channels_[i], sample);
}

namespace {

// Rates of the last two seconds, or of what there is.
template <class Points>
void measure(ChannelSample &channel, Points &points, const typename Points::value_type &now) {
    while (points.size() > 1 && now.time - points[1].time >= kRateSeconds) points.pop_front();
    if (!points.empty()) {
        const auto &then = points.front();
        const double seconds = now.time - then.time;
        if (seconds >= kShortest) {
            channel.in_rate = static_cast<double>(now.put - then.put) / seconds;
            channel.out_rate = static_cast<double>(now.got - then.got) / seconds;
        }
    }
    points.push_back(now);
}

// The message at the head came before the first look that saw more put than are got now.
template <class Points>
double waited(Points &arrivals, const typename Points::value_type &now) {
    while (!arrivals.empty() && arrivals.front().put <= now.got) arrivals.pop_front();
    if (now.put <= now.got) return 0;
    if (arrivals.empty() || now.put != arrivals.back().put) arrivals.push_back(now);
    if (arrivals.size() > kMostArrivals) // coarser, and never older than it is
        for (size_t i = 1; i < arrivals.size(); ++i)
            arrivals.erase(arrivals.begin() + static_cast<std::ptrdiff_t>(i));
    return now.time - arrivals.front().time;
}

template <class Points>
bool grows(Points &depths, const typename Points::value_type &now) {
    if (depths.empty() || now.time - depths.back().time >= kDepthSeconds) depths.push_back(now);
    if (depths.size() > kDepths) depths.pop_front();
    if (depths.size() < kDepths) return false;
    const auto depth = [](const auto &point) {
        return static_cast<int64_t>(point.put - point.got);
    };
    for (size_t i = 1; i < depths.size(); ++i)
        if (depth(depths[i]) < depth(depths[i - 1])) return false;
    return depth(depths.back()) > depth(depths.front()) && depth(now) >= depth(depths.back());
}

} // namespace

void Tracker::follow(ChannelSample &channel, History &history, const Sample &sample) {
    if (!channel.damage.empty()) {
        channel.trouble = Trouble::damaged;
        return;
    }
    const bool file = is_of_file(channel);
    const Point shown{sample.taken, file ? channel.file_put : channel.put,
                      file ? channel.file_got : channel.got};
    const Point all{sample.taken, channel.put + channel.file_put, channel.got + channel.file_got};
    if (all.got < history.got) history = {}; // somebody set the counters
    if (all.got != history.got || all.put == all.got || history.got_changed == 0)
        history.got_changed = sample.taken;
    history.got = all.got;

    measure(channel, history.rates, shown);
    const auto now = static_cast<int32_t>(sample.time);
    double oldest = waited(history.arrivals, all);
    // All that waits was there at the last put.
    if (channel.ring_depth() > 0 && channel.last_in != 0)
        oldest = std::max(oldest, static_cast<double>(age(now, channel.last_in)));
    channel.oldest = static_cast<int32_t>(oldest);
    const bool growing = grows(history.depths, all);
    const bool waits = channel.ring_depth() > 0;
    const bool stalled =
        waits && std::min(sample.taken - history.got_changed, oldest) >= kStalledSeconds;

    if (is_dead(channel.writer) || is_dead(channel.reader))
        channel.trouble = Trouble::dead_holder;
    else if (channel.full && channel.waiting_writers > 0)
        channel.trouble = Trouble::full;
    else if (lacks_reader(channel, now))
        channel.trouble = Trouble::no_reader;
    else if (stalled && !channel.throttled)
        channel.trouble = Trouble::stalled;
    else if (channel.oldest >= kOldSeconds)
        channel.trouble = Trouble::old;
    else if (growing)
        channel.trouble = Trouble::growing;
    else if (channel.throttled)
        channel.trouble = Trouble::throttled;
}

} // namespace halvo::mon
