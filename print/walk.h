// smsqm_print: which channels a print visits, in which order, and where it ends.
#pragma once

#include <cstdio>

#include "core/segment/segment.h"
#include "halvo/status.h"

namespace halvo {

enum class Channels {
    all,            // by number
    chosen,         // the options list when one is loaded, up to its first special record
    chosen_farther, // the same, but special records are stepped over
};

// Mode 'a' asks for all channels, any other for the chosen ones.
constexpr Channels channels_of(char mode, Channels otherwise = Channels::chosen) noexcept {
    return mode == 'a' ? Channels::all : otherwise;
}

struct Visit {
    int channel;
    const halvo_channel *q;
    halvo_print_option option; // indent and attributes of the row; -1 without a loaded record
};

// Calls visit(Visit) for each channel.
template <class F>
void walk(Channels which, F visit) noexcept {
    const halvo_segment *segment = attached_segment();
    const int positions = segment ? channel_count(segment) : 0;
    // Kept: the list has as many places as the segment has channels, special records included.
    for (int i = 0; i < positions; ++i) {
        halvo_print_option option{i, -1, -1, -1};
        if (which != Channels::all && qprtopts) option = qprtopts[i];
        if (which == Channels::chosen_farther && option.channel == HALVO_OPTION_SPECIAL) continue;
        if (option.channel < 0) return;
        const halvo_channel *q = checked_channel(option.channel);
        if (!q) {
            std::printf("WARNNING! %dth q is null\n", static_cast<int>(option.channel));
            return;
        }
        visit(Visit{option.channel, q, option});
    }
}

} // namespace halvo
