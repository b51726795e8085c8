// Which numbers of a source have arrived: the last 8,192 of each, so that a broker may deliver again
// and out of order and no message is taken twice or for one that it is not.
#pragma once

#include <cstdint>

namespace halvo::relay {

constexpr uint32_t kWindow = 8192; // numbers a source
constexpr uint32_t kSources = 128; // sources that are remembered, the least recent one given up

// Lies in the state file, the same for both word sizes. A store of a word is whole or not done, and
// what is stored before a word lies before it: that is all a death between two stores needs.
struct alignas(8) Window {
    uint64_t source;  // 0: free
    uint64_t first;   // number that came first of all; where the source begins is not known
    uint64_t highest; // number
    uint64_t used;    // ordinal of its last message, of all sources
    uint8_t seen[kWindow / 8];
};

class Windows {
public:
    explicit Windows(Window (&table)[kSources]);

    // Whether that message has arrived. A number below the window is new: only a message that lay
    // aside for long, in a queue of dead letters for one, comes so late, and none may be lost.
    bool has(uint64_t source, uint64_t number) const;
    // Remembers it; the same again changes nothing. Returns how many numbers fell out of the window
    // without ever having come.
    uint64_t add(uint64_t source, uint64_t number);

private:
    Window *find(uint64_t source) const;
    Window &make(uint64_t source, uint64_t number);
    Window (&table_)[kSources];
    uint64_t latest_ = 0; // ordinal
};

} // namespace halvo::relay
