// Samples that no segment gave.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::test {

// Channels of these names, with so many messages in the ring; every other one is of type F.
inline mon::Sample sample_of(int64_t time,
                             const std::vector<std::pair<std::string, uint64_t>> &channels) {
    mon::Sample sample;
    sample.up = true;
    sample.time = time;
    for (const auto &[name, put] : channels) {
        mon::ChannelSample &channel = sample.channels.emplace_back();
        channel.number = static_cast<int>(sample.channels.size()) - 1;
        channel.name = name;
        channel.type = channel.number % 2 ? 'F' : 'M';
        channel.put = put;
    }
    return sample;
}

} // namespace halvo::test
