// halvo-mon: what the served page and other programs get as JSON.
#pragma once

#include <cstdint>
#include <string>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

constexpr int kApiVersion = 1; // grows when a member goes or changes its meaning

// A text as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD.
std::string json_text(const std::string &utf8);

// Of which serving a document is: a client begins anew when `server` or `epoch` changes.
struct Serving {
    std::string key_file;
    int64_t server = 0;  // start of the server, milliseconds since the epoch
    uint64_t epoch = 0;  // segments seen
    uint64_t number = 0; // of the sample
};

// The members that every document begins with, from the brace on, without an end.
std::string json_head(const Serving &serving, const Sample &sample);
// All channels. Without a segment there are none, and "segment" tells why.
std::string channels_json(const Serving &serving, const Sample &sample);
// One channel with its types and clients, but no message.
std::string channel_json(const Serving &serving, const Sample &sample, int number,
                         const qm::SegmentView &view);

} // namespace halvo::mon
