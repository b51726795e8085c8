// halvo-mon top: which columns and which rows are on the screen, and in which order.
#pragma once

#include <string>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

struct Column {
    const char *title;
    int width;  // least; the name's grows
    int rank;   // the lower the sooner it has a place on a narrow screen
    bool right; // its cells stand right
    std::string (*text)(const ChannelSample &, int64_t now);
    double (*value)(const ChannelSample &, int64_t now); // to sort by; null: by text
};
const std::vector<Column> &columns();
constexpr int kStateColumn = 0, kNameColumn = 1;

// Those that fit into a width, in their order, with their widths; the one that is sorted by always.
struct Placed {
    int column, width;
};
std::vector<Placed> placed(int width, int sorted_by);

// Short texts: "12345", "1.2M" for what is wider than that; "7s", "12m", "3h", "4d", "-" for never.
std::string short_number(double value, int width);
std::string short_age(int64_t seconds);
std::string age_of_stamp(int32_t stamp, int64_t now);
// "4711*" held by a living process, "4711!" by a dead one, "4711" the last one, "4711?" not known.
std::string holder_text(const EndSample &end);

// What the operator chose.
struct Choice {
    int sorted_by = kStateColumn;
    bool reversed = false;
    std::string filter; // part of a name of channel, writer or reader; ASCII in any case
    char type = 0;      // 0: all
    bool trouble_only = false;
};

// Indexes into the sample's channels.
std::vector<size_t> rows_of(const Sample &sample, const Choice &choice);
// The type behind another among those of the sample, and 0 behind the last.
char next_type(const Sample &sample, char type);

} // namespace halvo::mon
