#include "tests/fq/failing_io.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace {

struct Writes {
    bool counting = false;
    int seen = 0;
    int fail_at = 0; // 0: never
    halvo::test::FailingWrites::How how{};
    halvo::test::FailingWrites::Span span{};
} writes;

int calls_left = 0; // until this process dies; 0: never

void count_call() {
    if (calls_left > 0 && --calls_left == 0) raise(SIGKILL);
}

// Bytes that this write may put down; less than all of them is a full disk.
size_t admitted(size_t length) {
    if (!writes.counting) return length;
    ++writes.seen;
    const bool fails = writes.span == halvo::test::FailingWrites::once
                           ? writes.seen == writes.fail_at
                           : writes.fail_at != 0 && writes.seen >= writes.fail_at;
    if (!fails) return length;
    return writes.how == halvo::test::FailingWrites::half_written ? length / 2 : 0;
}

template <class Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// Does the write, or what a full disk leaves of it.
template <class Write>
ssize_t write_what_fits(size_t length, Write write_some) {
    count_call();
    const size_t fits = admitted(length);
    if (fits > 0 || length == 0) return write_some(fits);
    errno = ENOSPC;
    return -1;
}

} // namespace

// The names carry the suffix of calls with 64-bit file offsets, which all of this is built with.
#define HALVO_TEST_EXPORT __attribute__((visibility("default")))
extern "C" {

HALVO_TEST_EXPORT ssize_t write(int fd, const void *data, size_t length) {
    static const auto call = real<ssize_t(int, const void *, size_t)>("write");
    return write_what_fits(length, [&](size_t fits) { return call(fd, data, fits); });
}

HALVO_TEST_EXPORT ssize_t pwrite(int fd, const void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, const void *, size_t, off_t)>("pwrite64");
    return write_what_fits(length, [&](size_t fits) { return call(fd, data, fits, at); });
}

HALVO_TEST_EXPORT int ftruncate(int fd, off_t length) noexcept {
    static const auto call = real<int(int, off_t)>("ftruncate64");
    count_call();
    return call(fd, length);
}

HALVO_TEST_EXPORT int unlink(const char *name) noexcept {
    static const auto call = real<int(const char *)>("unlink");
    count_call();
    return call(name);
}

HALVO_TEST_EXPORT int open(const char *name, int flags, ...) {
    static const auto call = real<int(const char *, int, ...)>("open64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    count_call();
    return call(name, flags, mode);
}

HALVO_TEST_EXPORT int lockf(int fd, int command, off_t length) {
    static const auto call = real<int(int, int, off_t)>("lockf64");
    count_call();
    return call(fd, command, length);
}

} // extern "C"

namespace halvo::test {

FailingWrites::FailingWrites(int n, How how, Span span) { writes = {true, 0, n, how, span}; }
FailingWrites::~FailingWrites() { writes = {}; }
int FailingWrites::seen() const { return writes.seen; }

void kill_before_call(int n) { calls_left = n; }

} // namespace halvo::test
