// Standard output for the monitor's thread, which must not wait for whoever reads it, nor for
// another thread that does.
#pragma once

namespace halvo {

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
