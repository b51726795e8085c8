// halvo-mon serve: the segment's figures for browsers, Prometheus and scripts.
#pragma once

#include <string>

#include "tools/mon/serve/http.h"

namespace halvo::mon {

struct ServeOptions {
    std::string key_file;
    ListenAddress listen;
};

// Samples the segment once a second and serves what was seen, until a signal asks to stop. It goes on
// while there is no segment. Throws ToolError. `output` takes one line with the address.
void serve(const ServeOptions &options, int output);

// The page, compiled in; `nonce` lets its own style and script run and no other.
std::string page(const std::string &nonce);

} // namespace halvo::mon
