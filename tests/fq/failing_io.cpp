#include "tests/fq/failing_io.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

using halvo::test::FailingCalls;

namespace {

struct Plan {
    bool counting = false;
    int seen = 0;
    int fail_at = 0; // 0: never
    int error = 0;
    FailingCalls::Span span{};
} plan;

bool inodes_end_alike = false;

int calls_left = 0; // until this process dies; 0: never

// Counts a call, whether it is one that fails, and dies when its time has come.
bool is_to_fail() {
    if (calls_left > 0 && --calls_left == 0) raise(SIGKILL);
    if (!plan.counting) return false;
    ++plan.seen;
    return plan.span == FailingCalls::once ? plan.seen == plan.fail_at
                                           : plan.fail_at != 0 && plan.seen >= plan.fail_at;
}

// For calls that do all or nothing.
bool fails() {
    if (!is_to_fail() || plan.error == FailingCalls::kShort) return false;
    errno = plan.error;
    return true;
}

// Reads or writes what a failure leaves of a length.
template <class Transfer>
ssize_t transfer(size_t length, Transfer some) {
    if (!is_to_fail()) return some(length);
    if (plan.error == FailingCalls::kShort && length > 1) return some(length / 2);
    errno = plan.error == FailingCalls::kShort ? ENOSPC : plan.error;
    return -1;
}

template <class Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The headers give these names the suffix of calls with 64-bit file offsets and times, which all of
// this is built with; dlsym wants it spelt out.
#ifdef __i386__
#define HALVO_TEST_STAT(name) "__" name "64_time64"
#else
#define HALVO_TEST_STAT(name) name "64"
#endif
#define HALVO_TEST_EXPORT __attribute__((visibility("default")))
extern "C" {

HALVO_TEST_EXPORT ssize_t write(int fd, const void *data, size_t length) {
    static const auto call = real<ssize_t(int, const void *, size_t)>("write");
    return transfer(length, [&](size_t some) { return call(fd, data, some); });
}

HALVO_TEST_EXPORT ssize_t pwrite(int fd, const void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, const void *, size_t, off_t)>("pwrite64");
    return transfer(length, [&](size_t some) { return call(fd, data, some, at); });
}

HALVO_TEST_EXPORT ssize_t pread(int fd, void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, void *, size_t, off_t)>("pread64");
    return transfer(length, [&](size_t some) { return call(fd, data, some, at); });
}

HALVO_TEST_EXPORT off_t lseek(int fd, off_t at, int from) noexcept {
    static const auto call = real<off_t(int, off_t, int)>("lseek64");
    return fails() ? -1 : call(fd, at, from);
}

HALVO_TEST_EXPORT int ftruncate(int fd, off_t length) noexcept {
    static const auto call = real<int(int, off_t)>("ftruncate64");
    return fails() ? -1 : call(fd, length);
}

HALVO_TEST_EXPORT int unlinkat(int directory, const char *name, int flags) noexcept {
    static const auto call = real<int(int, const char *, int)>("unlinkat");
    return fails() ? -1 : call(directory, name, flags);
}

HALVO_TEST_EXPORT int openat(int directory, const char *name, int flags, ...) {
    static const auto call = real<int(int, const char *, int, ...)>("openat64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return fails() ? -1 : call(directory, name, flags, mode);
}

HALVO_TEST_EXPORT int close(int fd) {
    static const auto call = real<int(int)>("close");
    const bool failed = fails();
    const int error = errno;
    const int result = call(fd);
    if (failed) errno = error;
    return failed ? -1 : result;
}

HALVO_TEST_EXPORT int lockf(int fd, int command, off_t length) {
    static const auto call = real<int(int, int, off_t)>("lockf64");
    return fails() ? -1 : call(fd, command, length);
}

HALVO_TEST_EXPORT int fstat(int fd, struct stat *found) noexcept {
    static const auto call = real<int(int, struct stat *)>(HALVO_TEST_STAT("fstat"));
    return fails() ? -1 : call(fd, found);
}

HALVO_TEST_EXPORT int statx(int at, const char *name, int flags, unsigned mask,
                            struct statx *found) noexcept {
    static const auto call = real<int(int, const char *, int, unsigned, struct statx *)>("statx");
    if (fails()) return -1;
    const int result = call(at, name, flags, mask, found);
    if (inodes_end_alike) found->stx_ino <<= 16;
    found->stx_ctime.tv_nsec = 0; // every name is asked: as many calls each time
    return result;
}

HALVO_TEST_EXPORT DIR *fdopendir(int fd) {
    static const auto call = real<DIR *(int)>("fdopendir");
    return fails() ? nullptr : call(fd);
}

HALVO_TEST_EXPORT dirent *readdir(DIR *directory) {
    static const auto call = real<dirent *(DIR *)>("readdir64");
    return fails() ? nullptr : call(directory);
}

} // extern "C"

namespace halvo::test {

FailingCalls::FailingCalls(int n, int error, Span span) { plan = {true, 0, n, error, span}; }
FailingCalls::~FailingCalls() { plan = {}; }
int FailingCalls::seen() const { return plan.seen; }

void kill_before_call(int n) { calls_left = n; }
void let_keys_collide(bool collide) { inodes_end_alike = collide; }

} // namespace halvo::test
