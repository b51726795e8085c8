// Files that are read whole, and files that appear whole or not at all.
#pragma once

#include <optional>
#include <string>

namespace halvo::tools {

// Nothing, with errno, when it cannot be read.
std::optional<std::string> read_file(const std::string &path);

// Writes a file beside it and gives it the path's name, so that nobody ever reads half of it. False,
// with errno, when that cannot be; then the path is as it was.
bool replace_file(const std::string &path, const void *bytes, size_t size);
inline bool replace_file(const std::string &path, const std::string &text) {
    return replace_file(path, text.data(), text.size());
}

} // namespace halvo::tools
