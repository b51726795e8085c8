// Lines of a descriptor, whole whatever their length or bytes, with reads that a signal ends.
#pragma once

#include <string>

namespace halvo::tools {

class LineReader {
public:
    explicit LineReader(int descriptor) : descriptor_(descriptor) {}

    enum class Read { line, end, interrupted, failed };

    // The next line with its line feed, if it has one (the last may lack it). `interrupted`: a
    // signal came while nothing was there; call again to go on. `failed`: errno tells.
    Read next(std::string &line);

private:
    int descriptor_;
    std::string pending_; // what was read; given out up to start_
    size_t start_ = 0;
    size_t searched_ = 0; // up to here pending_ is known to hold no line feed
    bool at_end_ = false;
};

} // namespace halvo::tools
