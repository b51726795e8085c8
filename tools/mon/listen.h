// halvo-mon: where the server listens, and by which names a client may call it.
#pragma once

#include <string>

#include "core/posix.h"
#include "tools/mon/http.h"

namespace halvo::mon {

struct Listener {
    Descriptor socket;
    std::string url;
};
Listener listen_at(const ListenAddress &address); // throws ToolError

} // namespace halvo::mon
