#include "core/base/output.h"

#include <poll.h>
#include <stdio_ext.h>
#include <sys/stat.h>

#include <climits>
#include <cstdarg>
#include <cstdio>

#include "core/base/posix.h"

namespace halvo {

namespace {

// A pipe that has room at all takes PIPE_BUF bytes; a file takes all.
bool takes_what_is_buffered(int descriptor) {
    struct stat found {};
    if (__fpending(stdout) <= PIPE_BUF) return true;
    return fstat(descriptor, &found) == 0 && S_ISREG(found.st_mode);
}

} // namespace

void print(const char *format, ...) noexcept {
    const CancellationOff whole;
    va_list values;
    va_start(values, format);
    std::vprintf(format, values);
    va_end(values);
}

ReadyOutput::ReadyOutput() noexcept : locked_(ftrylockfile(stdout) == 0) {
    if (!locked_) return;
    pollfd entry{fileno(stdout), POLLOUT, 0}; // a closed one is ready to fail
    ready_ = poll(&entry, 1, 0) != 0 || entry.fd < 0;
    ready_ = ready_ && takes_what_is_buffered(entry.fd);
}

ReadyOutput::~ReadyOutput() {
    if (locked_) funlockfile(stdout);
}

} // namespace halvo
