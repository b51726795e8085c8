#include "tests/fq/recorded_io.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <stdexcept>

#include "core/posix.h"

using halvo::Descriptor;
using halvo::test::DiskCall;
using halvo::test::Recorder;

namespace {

Recorder *recorder = nullptr;

template <class Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

ssize_t real_pwrite(int fd, const void *data, size_t length, off_t at) {
    static const auto call = real<ssize_t(int, const void *, size_t, off_t)>("pwrite64");
    return call(fd, data, length, at);
}

int real_truncate(int fd, off_t length) {
    static const auto call = real<int(int, off_t)>("ftruncate64");
    return call(fd, length);
}

void record_write(int fd, const void *data, ssize_t written, off_t at) {
    size_t file = 0;
    if (recorder && written > 0 && recorder->knows(fd, file))
        recorder->add({DiskCall::write, file, at,
                       std::string(static_cast<const char *>(data), static_cast<size_t>(written))});
}

} // namespace

namespace halvo::test {

int recorded_sync(int fd) {
    if (!recorder) return 0;
    if (recorder->meanwhile && !recorder->nested_) {
        recorder->nested_ = true;
        recorder->meanwhile();
        recorder->nested_ = false;
    }
    size_t file = 0;
    struct stat found {};
    if (recorder->knows(fd, file))
        recorder->add({DiskCall::sync, file, 0, {}});
    else if (fstat(fd, &found) == 0 && S_ISDIR(found.st_mode))
        recorder->add({DiskCall::sync_names, 0, 0, {}});
    return 0;
}

} // namespace halvo::test

#define HALVO_TEST_EXPORT __attribute__((visibility("default")))
extern "C" {

HALVO_TEST_EXPORT ssize_t write(int fd, const void *data, size_t length) {
    static const auto call = real<ssize_t(int, const void *, size_t)>("write");
    const off_t at = recorder ? lseek(fd, 0, SEEK_CUR) : 0;
    const ssize_t written = call(fd, data, length);
    record_write(fd, data, written, at);
    return written;
}

HALVO_TEST_EXPORT ssize_t pwrite(int fd, const void *data, size_t length, off_t at) {
    const ssize_t written = real_pwrite(fd, data, length, at);
    record_write(fd, data, written, at);
    return written;
}

HALVO_TEST_EXPORT int ftruncate(int fd, off_t length) noexcept {
    const int result = real_truncate(fd, length);
    size_t file = 0;
    if (recorder && result == 0 && recorder->knows(fd, file))
        recorder->add({DiskCall::cut, file, length, {}});
    return result;
}

HALVO_TEST_EXPORT int unlinkat(int directory, const char *name, int flags) noexcept {
    static const auto call = real<int(int, const char *, int)>("unlinkat");
    const int result = call(directory, name, flags);
    if (recorder && result == 0) recorder->removed(name);
    return result;
}

HALVO_TEST_EXPORT int openat(int directory, const char *name, int flags, ...) {
    static const auto call = real<int(int, const char *, int, ...)>("openat64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    const bool makes = recorder && flags & O_CREAT && faccessat(directory, name, F_OK, 0) != 0;
    const int fd = call(directory, name, flags, mode);
    if (makes && fd >= 0) recorder->created(name, fd);
    return fd;
}

HALVO_TEST_EXPORT int fdatasync(int fd) { return halvo::test::recorded_sync(fd); }
HALVO_TEST_EXPORT int fsync(int fd) { return halvo::test::recorded_sync(fd); }

} // extern "C"

namespace halvo::test {

Recorder::Recorder(const std::string &path) : path_(path) { recorder = this; }
Recorder::~Recorder() { stop(); }
void Recorder::stop() { recorder = nullptr; }

void Recorder::add(DiskCall call) { calls_.push_back(std::move(call)); }

void Recorder::created(const std::string &name, int fd) {
    struct stat found {};
    if (name.compare(0, path_.size(), path_) != 0 || fstat(fd, &found) != 0) return;
    files_.push_back({name.substr(path_.size()), found.st_ino});
    add({DiskCall::create, files_.size() - 1, 0, {}});
}

void Recorder::removed(const std::string &name) {
    for (size_t file = files_.size(); file-- > 0;)
        if (path_ + files_[file].suffix == name) {
            files_[file].inode = 0; // its number may be given out anew
            return add({DiskCall::remove, file, 0, {}});
        }
}

bool Recorder::knows(int fd, size_t &file) const {
    struct stat found {};
    if (fstat(fd, &found) != 0) return false;
    for (file = 0; file < files_.size(); ++file)
        if (files_[file].inode == found.st_ino) return true;
    return false;
}

void Recorder::add_base(const std::string &suffix, int64_t hole, const std::string &bytes) {
    const std::string name = path_ + suffix;
    const Descriptor fd(openat(AT_FDCWD, name.c_str(), O_RDWR | O_CREAT, 0666));
    if (!fd || ftruncate(fd.get(), hole) != 0 ||
        pwrite(fd.get(), bytes.data(), bytes.size(), hole) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(name);
    fdatasync(fd.get());
    add({DiskCall::sync_names, 0, 0, {}});
    base_calls_ = calls_.size();
}

bool Recorder::reaches_disk(Rest rest, std::minstd_rand &random) const {
    return rest == all || (rest == anything && random() % 2);
}

void Recorder::build(const std::string &path, size_t calls, Rest rest,
                     std::minstd_rand &random) const {
    calls = std::max(calls, base_calls_);
    // Up to which call each file, and the names, have been forced.
    std::vector<size_t> forced(files_.size(), 0);
    size_t names_forced = 0;
    for (size_t i = 0; i < calls; ++i) {
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
        if (!safe && !reaches_disk(rest, random)) continue;
        const int fd = files[call.file].get();
        if (is_name) there[call.file] = call.kind == DiskCall::create;
        if (call.kind == DiskCall::cut) real_truncate(fd, call.offset);
        if (call.kind != DiskCall::write) continue;
        // A torn write: its beginning, with or without zeros in place of the rest.
        std::string bytes = call.bytes;
        if (!safe && rest == anything && random() % 4 == 0) {
            const size_t whole = random() % bytes.size();
            if (random() % 2)
                std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(whole), bytes.end(), '\0');
            else
                bytes.resize(whole);
        }
        real_pwrite(fd, bytes.data(), bytes.size(), call.offset);
    }
    // The lock files stay: their inodes are the keys of the process's table of mutexes.
    for (size_t file = 0; file < files_.size(); ++file)
        if (!there[file] && files_[file].suffix.find("lk") == std::string::npos)
            unlink((path + files_[file].suffix).c_str());
}

} // namespace halvo::test
