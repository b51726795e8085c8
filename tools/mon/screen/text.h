// halvo-mon: from what the printers print, EUC-KR with terminal escapes, to what the operator's
// terminal, file or collector takes.
#pragma once

#include <string>

#include "tools/frame/charset.h"

namespace halvo::mon {

using tools::locale_is_utf8;
using tools::to_utf8;

// Of all control characters only newlines, tabs and, when asked for, colours and other attributes
// pass. Message texts and names come from anywhere and must not steer the terminal: the escape
// character of any other sequence is dropped, other control characters become '?'.
std::string for_terminal(const std::string &euc_kr, bool colours);

// A line's first columns; attributes take none, a Korean syllable two and is not cut in half.
std::string clipped(const std::string &euc_kr, size_t columns);

} // namespace halvo::mon
