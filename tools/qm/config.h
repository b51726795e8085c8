// The configuration of a segment, a TOML file:
//
//     [types]                # optional: names of message types
//     1 = "submit"
//
//     [[channel]]            # one for each channel, numbered 0, 1, ... in this order
//     name = "MT01"          # 1 .. 23 bytes in EUC-KR, in which it is stored
//     type = "M"             # optional, "M"
//     slots = 1024
//     slot_size = 2048       # bytes, 16-byte slot header included
//     rate_limit = 100       # optional, messages per second; 0: none
#pragma once

#include <string>

#include "tools/qm/segment.h"

namespace halvo::qm {

// Reads a sound plan. Throws Error "FILE:LINE: reason" for whatever a segment cannot be made from,
// for keys it does not know and for values of a wrong kind, or "FILE: reason" when it cannot be
// read.
SegmentPlan load_config(const std::string &path);

} // namespace halvo::qm
