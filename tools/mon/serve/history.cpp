#include "tools/mon/serve/history.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "tools/mon/serve/api.h"

namespace halvo::mon {

namespace {

void append(std::string &text, uint64_t value) {
    char digits[24];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// One digit behind the point, and none that says nothing.
void append_rate(std::string &text, float rate) {
    const auto tenths = static_cast<uint64_t>(std::lround(std::max(rate, 0.0F) * 10));
    append(text, tenths / 10);
    if (tenths % 10 != 0) text += {'.', static_cast<char>('0' + tenths % 10)};
}

} // namespace

void History::restart(size_t channels) {
    channels_ = channels;
    begin_ = end_ = 0;
    moments_.assign(kPoints, {});
    points_.assign(kPoints * channels, {});
}

void History::add(uint64_t number, const Sample &sample) {
    if (sample.channels.size() != channels_) return;
    moments_[end_ % kPoints] = {number, sample.time * 1000};
    for (size_t i = 0; i < channels_; ++i) {
        const ChannelSample &channel = sample.channels[i];
        const int64_t depth = std::clamp<int64_t>(channel.depth(), 0, UINT32_MAX);
        points_[end_ % kPoints * channels_ + i] = {static_cast<uint32_t>(depth),
                                                   static_cast<float>(channel.in_rate),
                                                   static_cast<float>(channel.out_rate)};
    }
    ++end_;
    if (end_ - begin_ > kPoints) ++begin_;
}

std::string History::json_members(uint64_t since, const Sample &names, int only) const {
    size_t first = begin_;
    while (first < end_ && moments_[first % kPoints].number <= since) ++first;
    std::string text;
    const auto list = [&](const char *name, auto one) {
        text += std::string("\"") + name + "\":[";
        for (size_t i = first; i < end_; ++i) {
            if (i > first) text += ',';
            one(i);
        }
        text += ']';
    };
    const size_t shown = only < 0 ? channels_ : 1;
    text.reserve(256 + shown * (128 + (end_ - first) * 12));
    list("samples", [&](size_t i) { append(text, moments_[i % kPoints].number); });
    text += ',';
    list("times",
         [&](size_t i) { append(text, static_cast<uint64_t>(moments_[i % kPoints].time)); });
    text += ",\"channels\":[";
    const char *comma = "";
    for (size_t c = 0; c < std::min(channels_, names.channels.size()); ++c) {
        if (only >= 0 && c != static_cast<size_t>(only)) continue;
        text += std::string(comma) + "{\"number\":" + std::to_string(c) +
                ",\"name\":" + json_text(names.channels[c].name) + ",";
        comma = ",";
        list("depth", [&](size_t i) { append(text, point(i, c).depth); });
        text += ',';
        list("in", [&](size_t i) { append_rate(text, point(i, c).in); });
        text += ',';
        list("out", [&](size_t i) { append_rate(text, point(i, c).out); });
        text += '}';
    }
    return text + "]";
}

} // namespace halvo::mon
