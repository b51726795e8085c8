// halvo-mon: from what the printers print, EUC-KR with terminal escapes, to what the operator's
// terminal, file or collector takes.
#pragma once

#include <string>

namespace halvo::mon {

// Whether the locale of the environment (LC_ALL, LC_CTYPE, LANG, the first that is set) is UTF-8.
bool locale_is_utf8();

// Bytes that are no EUC-KR become U+FFFD.
std::string to_utf8(const std::string &euc_kr);

// Of all control characters only newlines, tabs and, when asked for, colours and other attributes
// pass. Message texts and names come from anywhere and must not steer the terminal: the escape
// character of any other sequence is dropped, other control characters become '?'.
std::string for_terminal(const std::string &euc_kr, bool colours);

// A line's first columns; attributes take none, a Korean syllable two and is not cut in half.
std::string clipped(const std::string &euc_kr, size_t columns);

} // namespace halvo::mon
