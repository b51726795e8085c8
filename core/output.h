// Standard output for the monitor's thread, which must not wait for whoever reads it, nor for
// another thread that does; and for threads that may be cancelled.
#pragma once

#include <pthread.h>

namespace halvo {

// Puts a cancellation off while a line is printed, which is a cancellation point: the thread may
// hold an end's lock there, and no frame of the library could be unwound.
class Uncancelled {
public:
    Uncancelled() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    Uncancelled(const Uncancelled &) = delete;
    Uncancelled &operator=(const Uncancelled &) = delete;
    ~Uncancelled() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = 0;
};

// Standard output, locked for this thread, if it takes a few lines at once.
class ReadyOutput {
public:
    ReadyOutput() noexcept;
    ReadyOutput(const ReadyOutput &) = delete;
    ReadyOutput &operator=(const ReadyOutput &) = delete;
    ~ReadyOutput();

    explicit operator bool() const noexcept { return ready_; }

private:
    const bool locked_;
    bool ready_ = false;
};

} // namespace halvo
