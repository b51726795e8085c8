// Owners of what the operating system hands out: descriptors, directories, mutexes, cancellation,
// signals.
//
// Each gives its resource back when it goes; release() leaves it taken and passes the duty on.
// None of them throws or prints. errno survives the giving back, so that an error found before
// can still be read after.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace halvo {

// An open descriptor, or none (-1).
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old < 0 || old == fd) return;
        const int error = errno;
        close(old);
        errno = error;
    }

private:
    int fd_ = -1;
};

// openat() with a descriptor that a started program does not inherit and that is never one of the
// three standard ones: in a process that runs without a standard output the library's own messages
// would otherwise be printed into the file. `mode` counts for O_CREAT, before the umask.
inline Descriptor open_file_at(int directory, const char *path, int flags,
                               mode_t mode = 0666) noexcept {
    Descriptor file(openat(directory, path, flags | O_CLOEXEC, mode));
    if (file && file.get() <= STDERR_FILENO)
        file = Descriptor(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return file;
}
inline Descriptor open_file(const char *path, int flags, mode_t mode = 0666) noexcept {
    return open_file_at(AT_FDCWD, path, flags, mode);
}

// The names in a directory, one after the other.
class Directory {
public:
    explicit Directory(const char *path) noexcept : stream_(opendir(path)) {}
    // A path that counts from an open directory.
    Directory(int directory, const char *path) noexcept {
        Descriptor file = open_file_at(directory, path, O_RDONLY | O_DIRECTORY);
        if (file) stream_ = fdopendir(file.get());
        if (stream_) file.release();
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    ~Directory() {
        if (stream_) closedir(stream_);
    }

    explicit operator bool() const noexcept { return stream_ != nullptr; }
    // The next name, "." and ".." included; null at the end. Valid until the next call.
    const char *next() noexcept {
        errno = 0;
        const dirent *entry = readdir(stream_);
        failed_ = !entry && errno != 0;
        return entry ? entry->d_name : nullptr;
    }
    // Whether the end was a failure to read on.
    bool failed() const noexcept { return failed_; }

private:
    DIR *stream_ = nullptr;
    bool failed_ = false;
};

// Puts a cancellation of the thread off while it stands: no frame of a function that throws nothing
// can be unwound, so that a point for one there would end the process.
class CancellationOff {
public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    CancellationOff(const CancellationOff &) = delete;
    CancellationOff &operator=(const CancellationOff &) = delete;
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// Every signal but those that a fault of the thread itself raises, which cannot wait.
inline sigset_t all_but_faults() noexcept {
    sigset_t set;
    sigfillset(&set);
    for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) sigdelset(&set, fault);
    return set;
}

// Keeps them from the thread while it stands. A thread that is started meanwhile never gets them.
class SignalsOff {
public:
    SignalsOff() noexcept {
        const sigset_t all = all_but_faults();
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    SignalsOff(const SignalsOff &) = delete;
    SignalsOff &operator=(const SignalsOff &) = delete;
    ~SignalsOff() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    const sigset_t &before() const noexcept { return before_; } // the mask without it

private:
    sigset_t before_;
};

// A locked mutex, or none.
class MutexLock {
public:
    MutexLock() = default;
    explicit MutexLock(pthread_mutex_t &mutex) noexcept { lock(mutex); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;
    ~MutexLock() { unlock(); }

    explicit operator bool() const noexcept { return mutex_ != nullptr; }
    // Blocks without limit. The error number of pthread_mutex_lock; for an object that holds none.
    int lock(pthread_mutex_t &mutex) noexcept {
        const int error = pthread_mutex_lock(&mutex);
        if (error == 0) mutex_ = &mutex;
        return error;
    }
    // The error number of pthread_mutex_unlock; 0 when none is held.
    int unlock() noexcept {
        pthread_mutex_t *held = release();
        return held ? pthread_mutex_unlock(held) : 0;
    }
    pthread_mutex_t *release() noexcept { return std::exchange(mutex_, nullptr); }

private:
    pthread_mutex_t *mutex_ = nullptr;
};

} // namespace halvo
