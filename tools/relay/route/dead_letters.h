// What a broker will not take: one file queue a route, each item a line that tells the reason, and
// then the message as it was.
//
//     route=mt01 source=2f1c...00 number=17 type=1 length=100 time=2026-01-31T10:00:00Z reason=...\n
#pragma once

#include <string>

#include "tools/relay/route/ends.h"

namespace halvo::relay {

// Throws EndError when the message could not be put aside; it then stays where it is.
void put_aside(const RouteConfig &route, const Message &message, const Identity &identity,
               const std::string &reason);

} // namespace halvo::relay
