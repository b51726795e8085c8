// What a piece of code prints, whether it prints by stdio or straight to the descriptor.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "core/base/posix.h"

namespace halvo::test {

// A file without a name that takes what is printed, or gives a program's input.
class ScratchFile {
public:
    ScratchFile() : file_(std::tmpfile()) {
        if (!file_) throw std::runtime_error("tmpfile");
    }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;
    ~ScratchFile() { std::fclose(file_); }

    int fd() const { return fileno(file_); }

    void fill(const std::string &bytes) const {
        std::fwrite(bytes.data(), 1, bytes.size(), file_);
        std::rewind(file_);
    }

    // Leaves the position alone, where the next byte may be printed.
    std::string content() const {
        std::string bytes;
        char block[4096];
        for (ssize_t got;
             (got = pread(fd(), block, sizeof block, static_cast<off_t>(bytes.size()))) > 0;)
            bytes.append(block, static_cast<size_t>(got));
        return bytes;
    }

private:
    std::FILE *file_;
};

// Standard output goes to a scratch file while an object of this class lives.
class StdoutCapture {
public:
    StdoutCapture() {
        std::fflush(stdout);
        saved_.reset(dup(STDOUT_FILENO));
        if (!saved_ || dup2(file_.fd(), STDOUT_FILENO) < 0)
            throw std::runtime_error("cannot capture the standard output");
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    ~StdoutCapture() {
        std::fflush(stdout);
        dup2(saved_.get(), STDOUT_FILENO);
    }

    // Everything printed so far.
    std::string bytes() const {
        std::fflush(stdout);
        return file_.content();
    }

private:
    const ScratchFile file_;
    Descriptor saved_;
};

// Runs f and returns what it printed.
template <typename F>
std::string captured_stdout(F f) {
    const StdoutCapture capture;
    f();
    return capture.bytes();
}

// A call's result and what it printed.
using Said = std::pair<int, std::string>;
template <typename F>
Said said(F f) {
    int result = 0;
    std::string printed = captured_stdout([&] { result = f(); });
    return {result, std::move(printed)};
}

} // namespace halvo::test
