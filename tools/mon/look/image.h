// halvo-mon: all headers and counters of one moment, to look at in peace or to count from.
#pragma once

#include <string>
#include <vector>

#include "halvo/status.h"

namespace halvo::mon {

// Which segment it is: each has another id, and counts from when it was made.
struct Origin {
    int id = -1;
    int32_t made = 0; // seconds since the epoch
};

class Image {
public:
    static Image of_segment(); // the attached one
    // A file of such an image. Throws ToolError when it is not one of the attached segment, whose
    // origin is given: of one with other channels, or of an earlier one.
    static Image of_file(const std::string &path, const Origin &origin);
    void mark(const Origin &origin);          // as one taken now
    void save(const std::string &path) const; // replaces the file at once or not at all

    const halvo_segment &header() const;
    int channels() const;
    const halvo_channel &channel(int number) const;
    // False for a channel that a damaged segment holds nothing of.
    bool usable(int number) const { return channel(number).qcnt != 0; }
    void *data() { return bytes_.data(); }

private:
    Image();
    std::vector<char> bytes_;
};

} // namespace halvo::mon
