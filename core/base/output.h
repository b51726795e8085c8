// Standard output for the monitor's thread, which must not wait for whoever reads it, nor for
// another thread that does; and for threads that may be cancelled.
#pragma once

#include "core/base/posix.h"

namespace halvo {

// printf(), with a cancellation put off: it is a point for one, where the thread may hold an end's lock,
// and no frame of the library could be unwound.
[[gnu::format(printf, 1, 2)]] void print(const char *format, ...) noexcept;

// Standard output, locked for this thread, if it takes a few lines at once. A cancellation meanwhile
// is put off.
class ReadyOutput {
public:
    ReadyOutput() noexcept;
    ReadyOutput(const ReadyOutput &) = delete;
    ReadyOutput &operator=(const ReadyOutput &) = delete;
    ~ReadyOutput();

    explicit operator bool() const noexcept { return ready_; }

private:
    const CancellationOff whole_;
    const bool locked_;
    bool ready_ = false;
};

} // namespace halvo
