// Texts for the operator.
#pragma once

#include <cstddef>
#include <string>

namespace halvo::tools {

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);

// A text that ends with the reason of a failed system call, taken from errno.
[[gnu::format(printf, 1, 2)]] std::string system_text(const char *format, ...);

// The bytes of a fixed-size name field up to its terminator or its end, fit for a terminal: control
// characters become '?'.
std::string printable(const char *field, size_t size);

} // namespace halvo::tools
