#include "tests/proof/queue_calls.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdarg>

using halvo::Descriptor;
using halvo::test::DiskCall;
using halvo::test::Recorder;

namespace {

struct Plan {
    bool counting = false;
    int fail_at = 0; // 0: never
    int error = 0;
    bool lasting = false;
    int seen = 0;
    std::function<void()> meanwhile = {};
} plan;

bool inodes_end_alike = false;
Recorder *recorder = nullptr;

// Counts a call. Whether it is one that fails.
bool is_to_fail() {
    if (!plan.counting) return false;
    if (++plan.seen == plan.fail_at && plan.meanwhile) {
        const Plan kept = std::exchange(plan, {});
        kept.meanwhile();
        plan = {true, 0, 0, false, kept.seen};
    }
    const bool now = plan.seen == plan.fail_at ||
                     (plan.lasting && plan.fail_at != 0 && plan.seen > plan.fail_at);
    if (now && plan.error == halvo::test::kKill) raise(SIGKILL);
    return now;
}

// For calls that do all or nothing.
bool fails() {
    if (!is_to_fail() || plan.error == halvo::test::kShort) return false;
    errno = plan.error;
    return true;
}

// Reads or writes what a failure leaves of a length.
ssize_t transfer(size_t length, auto some) {
    if (!is_to_fail()) return some(length);
    if (plan.error == halvo::test::kShort && length > 1) return some(length / 2);
    errno = plan.error == halvo::test::kShort ? ENOSPC : plan.error;
    return -1;
}

ssize_t noted_write(int fd, const void *data, ssize_t written, off_t at) {
    if (recorder && written > 0)
        recorder->changed(DiskCall::write, fd, at,
                          {static_cast<const char *>(data), static_cast<size_t>(written)});
    return written;
}

template <class Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// A call that does all or nothing, and what is to be noted of its result. The headers give some
// names the suffix of calls with 64-bit file offsets and times, which all of this is built with;
// dlsym wants it spelt out.
#define CALL(type, name, symbol, parameters, arguments, failure, note)                             \
    type name parameters {                                                                         \
        static const auto call = real<type parameters>(symbol);                                    \
        if (fails()) return failure;                                                               \
        const auto result = call arguments;                                                        \
        note;                                                                                      \
        return result;                                                                             \
    }
#ifdef __i386__
#define STAT "__fstat64_time64"
#else
#define STAT "fstat64"
#endif
#pragma GCC visibility push(default)
extern "C" {
// clang-format off
CALL(off_t, lseek, "lseek64", (int fd, off_t at, int from) noexcept, (fd, at, from), -1, )
CALL(int, ftruncate, "ftruncate64", (int fd, off_t length) noexcept, (fd, length), -1,
     if (recorder && result == 0) recorder->changed(DiskCall::cut, fd, length))
CALL(int, unlinkat, "unlinkat", (int directory, const char *name, int flags) noexcept,
     (directory, name, flags), -1, if (recorder && result == 0) recorder->removed(name))
CALL(int, lockf, "lockf64", (int fd, int command, off_t length), (fd, command, length), -1, )
CALL(int, fstat, STAT, (int fd, struct stat *found) noexcept, (fd, found), -1, )
CALL(DIR *, fdopendir, "fdopendir", (int fd), (fd), nullptr, )
CALL(dirent *, readdir, "readdir64", (DIR *directory), (directory), nullptr, )
// While calls are counted every name is asked: as many calls each time.
CALL(int, statx, "statx",
     (int at, const char *name, int flags, unsigned mask, struct statx *found) noexcept,
     (at, name, flags, mask, found), -1,
     if (inodes_end_alike) found->stx_ino <<= 16; if (plan.counting) found->stx_ctime.tv_nsec = 0)
// clang-format on

ssize_t write(int fd, const void *data, size_t length) {
    static const auto call = real<ssize_t(int, const void *, size_t)>("write");
    const off_t at = recorder ? lseek(fd, 0, SEEK_CUR) : 0;
    const auto some = [&](size_t part) { return call(fd, data, part); };
    return noted_write(fd, data, transfer(length, some), at);
}

ssize_t pwrite(int fd, const void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, const void *, size_t, off_t)>("pwrite64");
    const auto some = [&](size_t part) { return call(fd, data, part, at); };
    return noted_write(fd, data, transfer(length, some), at);
}

ssize_t pread(int fd, void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, void *, size_t, off_t)>("pread64");
    return transfer(length, [&](size_t part) { return call(fd, data, part, at); });
}

int close(int fd) {
    static const auto call = real<int(int)>("close");
    const bool failed = fails();
    const int error = errno;
    const int result = call(fd);
    if (failed) errno = error;
    return failed ? -1 : result;
}

int openat(int directory, const char *name, int flags, ...) {
    static const auto call = real<int(int, const char *, int, ...)>("openat64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (fails()) return -1;
    const bool makes = recorder && flags & O_CREAT && faccessat(directory, name, F_OK, 0) != 0;
    const int fd = call(directory, name, flags, mode);
    if (makes && fd >= 0) recorder->created(name, fd);
    return fd;
}

int fdatasync(int fd) {
    if (fails()) return -1;
    if (recorder) recorder->syncs(fd);
    return 0;
}

int fsync(int fd) { return fdatasync(fd); }

} // extern "C"
#pragma GCC visibility pop

namespace halvo::test {

int run_with_fault(int n, int error, bool lasting, const std::function<void()> &f) {
    plan = {true, n, error, lasting};
    f();
    return std::exchange(plan, {}).seen;
}

int run_with_meanwhile(int n, std::function<void()> meanwhile, const std::function<void()> &f) {
    plan = {true, n, 0, false, 0, std::move(meanwhile)};
    f();
    return std::exchange(plan, {}).seen;
}

void let_keys_collide(bool collide) { inodes_end_alike = collide; }

// ---- The disk ----------------------------------------------------------------------------------

Recorder::Recorder(const std::string &path) : path_(path) { recorder = this; }
void Recorder::stop() { recorder = nullptr; }

void Recorder::changed(DiskCall::Kind kind, int fd, int64_t offset, const std::string &bytes) {
    struct stat found {};
    if (fstat(fd, &found) != 0) return;
    for (size_t file = 0; file < files_.size(); ++file)
        if (files_[file].inode == found.st_ino)
            return calls_.push_back({kind, file, offset, bytes});
    if (kind == DiskCall::sync && S_ISDIR(found.st_mode))
        calls_.push_back({DiskCall::sync_names, 0, 0, {}});
}

void Recorder::created(const std::string &name, int fd) {
    struct stat found {};
    if (name.compare(0, path_.size(), path_) != 0 || fstat(fd, &found) != 0) return;
    files_.push_back({name.substr(path_.size()), found.st_ino});
    calls_.push_back({DiskCall::create, files_.size() - 1, 0, {}});
}

void Recorder::removed(const std::string &name) {
    for (size_t file = files_.size(); file-- > 0;)
        if (path_ + files_[file].suffix == name) {
            files_[file].inode = 0; // its number may be given out anew
            return calls_.push_back({DiskCall::remove, file, 0, {}});
        }
}

void Recorder::syncs(int fd) {
    if (meanwhile && !nested_) {
        nested_ = true;
        meanwhile();
        nested_ = false;
    }
    changed(DiskCall::sync, fd, 0);
}

void Recorder::add_base(const std::string &suffix, int64_t hole, const std::string &bytes) {
    const std::string name = path_ + suffix;
    const Descriptor fd(openat(AT_FDCWD, name.c_str(), O_RDWR | O_CREAT, 0666));
    if (!fd || ftruncate(fd.get(), hole) != 0 ||
        pwrite(fd.get(), bytes.data(), bytes.size(), hole) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(name);
    base_calls_ = calls_.size();
}

void Recorder::build(const std::string &path, size_t calls, Rest rest,
                     std::minstd_rand &random) const {
    calls = std::max(calls, base_calls_);
    // Up to which call each file, and the names, have been forced.
    std::vector<size_t> forced(files_.size(), base_calls_);
    size_t names_forced = base_calls_;
    for (size_t i = base_calls_; i < calls; ++i) {
        if (calls_[i].kind == DiskCall::sync) forced[calls_[i].file] = i;
        if (calls_[i].kind == DiskCall::sync_names) names_forced = i;
    }
    std::vector<bool> there(files_.size(), false);
    std::vector<Descriptor> files;
    for (const File &file : files_) {
        const std::string name = path + file.suffix;
        files.emplace_back(openat(AT_FDCWD, name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666));
        if (!files.back()) throw std::runtime_error(name);
    }
    for (size_t i = 0; i < calls; ++i) {
        const DiskCall &call = calls_[i];
        const bool is_name = call.kind == DiskCall::create || call.kind == DiskCall::remove;
        const bool safe = i < (is_name ? names_forced : forced[call.file]);
        if (!safe && (rest == nothing || (rest == anything && random() % 2 == 0))) continue;
        const int fd = files[call.file].get();
        if (is_name) there[call.file] = call.kind == DiskCall::create;
        if (call.kind == DiskCall::cut) ftruncate(fd, call.offset);
        if (call.kind != DiskCall::write) continue;
        // A torn write: its beginning. Where it made the file longer, this may have come through,
        // with zeros in place of the rest.
        const bool torn = !safe && rest == anything && random() % 4 == 0;
        const size_t whole = torn ? random() % call.bytes.size() : call.bytes.size();
        pwrite(fd, call.bytes.data(), whole, call.offset);
        const off_t end = call.offset + static_cast<off_t>(call.bytes.size());
        if (torn && random() % 2 && lseek(fd, 0, SEEK_END) < end) ftruncate(fd, end);
    }
    // The lock files stay: their inodes are the keys of the process's table of mutexes.
    for (size_t file = 0; file < files_.size(); ++file)
        if (!there[file] && files_[file].suffix.find("lk") == std::string::npos)
            unlink((path + files_[file].suffix).c_str());
}

} // namespace halvo::test
