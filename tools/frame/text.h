// Texts for the operator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace halvo::tools {

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);

// A text that ends with the reason of a failed system call, taken from errno.
[[gnu::format(printf, 1, 2)]] std::string system_text(const char *format, ...);

// The inside of a JSON string. With `ascii` the bytes above 0x7e stand as the characters of their
// numbers, for texts of any charset; else as they are.
std::string json_escaped(const std::string &bytes, bool ascii);

// A time of the operator's clock, in seconds since the epoch; a format of strftime.
std::string local_time(int64_t seconds, const char *format);

// Rows of the same number of cells as lines, their columns wide enough for every cell.
std::string aligned(const std::vector<std::vector<std::string>> &rows);

// The bytes of a fixed-size name field up to its terminator or its end, fit for a terminal: control
// characters become '?'.
std::string printable(const char *field, size_t size);

} // namespace halvo::tools
