// A second process of a test, and a way for the two to wait for each other.
//
//     Signal ready;
//     Peer reader([&] {
//         ready.send();
//         return read_all(s.open("MT01", 'r')) ? 0 : 1;
//     });
//     ASSERT_TRUE(ready.wait());
//     EXPECT_EQ(reader.wait(), 0);
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "core/base/posix.h"
#include "tests/support/machine.h"

namespace halvo::test {

// Whether something becomes true within so many seconds.
template <class F>
bool comes_true(F condition, int seconds = 20) {
    for (const int64_t end = milliseconds_now() + seconds * 1000; !condition(); usleep(5000))
        if (milliseconds_now() > end) return false;
    return true;
}

// Each send lets one wait through, in this or in a process that was forked later.
class Signal {
public:
    Signal() : fd_(eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE)) {
        if (!fd_) throw std::runtime_error("eventfd");
    }
    Signal(const Signal &) = delete;
    Signal &operator=(const Signal &) = delete;

    void send() const {
        const uint64_t one = 1;
        if (::write(fd_.get(), &one, sizeof one) != sizeof one) std::perror("Signal::send");
    }

    // False when nothing was sent within the limit.
    bool wait(int milliseconds = 20000) const {
        pollfd entry{fd_.get(), POLLIN, 0};
        uint64_t one = 0;
        return TEMP_FAILURE_RETRY(poll(&entry, 1, milliseconds)) == 1 &&
               ::read(fd_.get(), &one, sizeof one) == sizeof one;
    }

private:
    const Descriptor fd_;
};

// Runs a function in a forked process, which exits with its result: the function's own or 0, kFailed
// after a failed expectation, kThrew after an exception. The process dies with the thread that
// forked it, and is killed when the Peer goes.
class Peer {
public:
    static constexpr int kFailed = 98;
    static constexpr int kThrew = 99;

    template <typename F>
    explicit Peer(F f) {
        std::fflush(nullptr); // or the peer would print it again
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork");
        if (pid_ == 0) run(f, parent);
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    ~Peer() {
        kill(SIGKILL);
        wait();
    }

    pid_t pid() const { return pid_; }

    void kill(int number) const {
        if (!ended_) ::kill(pid_, number);
    }

    // Waits for the end. Exit status, or 128 + the number of the signal that ended it.
    int wait() {
        int status = 0;
        if (!ended_ && TEMP_FAILURE_RETRY(waitpid(pid_, &status, 0)) == pid_)
            result_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        ended_ = true;
        return result_;
    }

private:
    template <typename F>
    [[noreturn]] static void run(F &f, pid_t parent) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(kFailed); // it died before the line above
        int result = kThrew;
        try {
            if constexpr (std::is_void_v<decltype(f())>)
                f(), result = 0;
            else
                result = f();
            if (result == 0 && testing::Test::HasFailure()) result = kFailed;
        } catch (const std::exception &error) {
            std::fprintf(stderr, "peer: %s\n", error.what());
        }
        std::fflush(nullptr);
        _exit(result);
    }

    pid_t pid_ = -1;
    bool ended_ = false;
    int result_ = -1;
};

} // namespace halvo::test
