// What a piece of code prints, whether it prints by stdio or straight to the descriptor.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "core/posix.h"

namespace halvo::test {

// Standard output goes to a temporary file while an object of this class lives.
class StdoutCapture {
public:
    StdoutCapture() : file_(std::tmpfile()) {
        std::fflush(stdout);
        saved_.reset(dup(STDOUT_FILENO));
        if (!file_ || !saved_ || dup2(fileno(file_), STDOUT_FILENO) < 0)
            throw std::runtime_error("cannot capture the standard output");
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    ~StdoutCapture() {
        std::fflush(stdout);
        dup2(saved_.get(), STDOUT_FILENO);
        std::fclose(file_);
    }

    // Everything printed so far.
    std::string bytes() const {
        std::fflush(stdout);
        std::string out;
        char block[4096];
        off_t at = 0;
        for (;;) {
            const ssize_t got = pread(fileno(file_), block, sizeof block, at);
            if (got <= 0) return out;
            out.append(block, static_cast<size_t>(got));
            at += got;
        }
    }

private:
    std::FILE *file_;
    Descriptor saved_;
};

// Runs f and returns what it printed.
template <typename F>
std::string captured_stdout(F f) {
    const StdoutCapture capture;
    f();
    return capture.bytes();
}

} // namespace halvo::test
