// A process that stands in front of an operation and goes through it one machine instruction at a
// time, until it has returned or is killed.
//
//     Stage &stage = shared_object<Stage>();
//     stay_on_this_processor();
//     SingleStep process(stage, [&] { q_open(0, 'w'); }, [&] { return q_write(q, 1, "x", 1); });
//     while (!process.has_returned()) process.step();
//
// Each step is two changes between the two processes, which cost many times as much when they run on
// two processors that must wake each other.
//
// Warm up the operation before: the first call of a function of a shared library would lead the
// steps through the dynamic linker.
#pragma once

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/machine.h"

namespace halvo::test {

// Memory that outlives the process.
struct Stage {
    volatile int32_t returned; // 1 when the operation has returned
    volatile int32_t result;
    alignas(8) uint8_t buffer[256]; // for the operation's use
};

class SingleStep {
public:
    template <class Prepare, class Operation>
    SingleStep(Stage &stage, Prepare prepare, Operation operation) : stage_(stage) {
        stage_.returned = 0;
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork");
        if (pid_ == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            prepare();
            __asm__ volatile("int3");
            stage_.result = operation();
            stage_.returned = 1;
            for (;;) pause();
        }
        await_stop();
        ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_EXITKILL);
    }
    SingleStep(const SingleStep &) = delete;
    SingleStep &operator=(const SingleStep &) = delete;
    ~SingleStep() { kill(); }

    pid_t pid() const { return pid_; }
    bool has_returned() const { return stage_.returned != 0; }

    void step() {
        if (ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0)
            throw std::runtime_error("PTRACE_SINGLESTEP");
        await_stop();
    }

    // When this returns, the kernel has also given back what the process held.
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        TEMP_FAILURE_RETRY(waitpid(pid_, nullptr, __WALL));
        pid_ = -1;
    }

private:
    void await_stop() const {
        int status = 0;
        if (TEMP_FAILURE_RETRY(waitpid(pid_, &status, __WALL)) < 0)
            throw std::runtime_error("waitpid");
        if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGTRAP)
            throw std::runtime_error("the stepped process ended by itself");
    }

    Stage &stage_;
    pid_t pid_ = -1;
};

} // namespace halvo::test
