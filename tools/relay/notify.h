// Tells the service manager what state the program is in, if one started it and wants to know.
#pragma once

#include <string>

namespace halvo::relay {

void notify(const std::string &state); // "READY=1" and the like, one a line

} // namespace halvo::relay
