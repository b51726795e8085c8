// Why a segment cannot be attached, in words that name the cause.
#pragma once

#include <string>

namespace halvo::tools {

// One line: no key file, no segment under its key, no right to it, no segment of queues. `writing`:
// the program needs to store to it. For after an attach that failed, and before one that must not
// fail, since the library keeps a failed one for good; empty when nothing is wrong.
std::string attach_fault(const std::string &key_file, bool writing);

} // namespace halvo::tools
