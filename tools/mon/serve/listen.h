// halvo-mon: where the server listens, and by which names a client may call it.
#pragma once

#include <cstdint>
#include <string>

#include "core/base/posix.h"

namespace halvo::mon {

// "127.0.0.1:9470", "[::1]:9470", "localhost:9470"; port 0 takes a free one.
struct ListenAddress {
    std::string host;
    uint16_t port = 0;
    bool loopback = false;
};
ListenAddress parse_listen(const std::string &text); // throws ToolError

// Whether a Host header names an address or localhost, with or without a port. A page that a stranger's
// name resolves to this machine is refused by it.
bool is_own_host(const std::string &header);

struct Listener {
    Descriptor socket;
    std::string url;
};
// `backlog`: connections that may wait to be accepted. Throws ToolError.
Listener listen_at(const ListenAddress &address, unsigned backlog);

} // namespace halvo::mon
