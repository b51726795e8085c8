#include "tools/frame/files.h"

#include <cerrno>
#include <cstdio>

#include "core/base/posix.h"

namespace halvo::tools {

namespace {

bool write_all(int descriptor, const char *bytes, size_t size) {
    while (size > 0) {
        const ssize_t wrote = write(descriptor, bytes, size);
        if (wrote < 0 && errno != EINTR) return false;
        if (wrote <= 0) continue;
        bytes += wrote;
        size -= static_cast<size_t>(wrote);
    }
    return true;
}

} // namespace

std::optional<std::string> read_file(const std::string &path) {
    const Descriptor file = open_file(path.c_str(), O_RDONLY);
    if (!file) return std::nullopt;
    std::string content;
    char block[65536];
    for (ssize_t got; (got = read(file.get(), block, sizeof block)) != 0;) {
        if (got < 0 && errno != EINTR) return std::nullopt;
        if (got > 0) content.append(block, static_cast<size_t>(got));
    }
    return content;
}

bool replace_file(const std::string &path, const void *bytes, size_t size) {
    const std::string fresh = path + "." + std::to_string(getpid());
    Descriptor file = open_file(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (!file) return false;
    // A full disk may show at the close only.
    const bool written =
        write_all(file.get(), static_cast<const char *>(bytes), size) && close(file.release()) == 0;
    if (written && std::rename(fresh.c_str(), path.c_str()) == 0) return true;
    const int reason = errno;
    unlink(fresh.c_str());
    errno = reason;
    return false;
}

} // namespace halvo::tools
