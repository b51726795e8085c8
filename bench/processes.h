// Measuring in forked processes, each on a processor of its own.
//
//     const Measured m = run({[&](Shared &s) { ... }, [&](Shared &s) { ... }}, 30);
//
// The measuring program itself only waits, so that it takes no time from either. It never attaches
// to a segment (a process does so once) and never calls what might hang.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "bench/common.h"

namespace halvo::bench {

// SIGINT or SIGTERM came while processes were measuring; they have been ended.
class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("interrupted") {}
};

// What one run found out. The meaning of the two values is the measurement's: a rate, or a median
// and a 99th percentile, or the rates of the two sides of a file queue.
struct Measured {
    double seconds = 0; // length of the timed part
    double first = 0;
    double second = 0;
};

// Memory that the processes of one run have in common.
struct Shared {
    std::atomic<int> arrived{0};
    Measured result;
    char error[256] = {};

    // Waits until `processes` have come here.
    void meet(int processes) {
        arrived.fetch_add(1);
        while (arrived.load() < processes) pause_poll();
    }
};

using Job = std::function<void(Shared &)>;

// Runs each job in a process of its own with standard output thrown away. Throws Failure when one
// fails or when the limit (seconds) is over; no process is left then.
Measured run(const std::vector<Job> &jobs, double limit = 60);

// Takes the signals that would end the program at a bad moment; run() looks for them.
void hold_signals();
// Replaces the calling process, one of run()'s, by a program.
[[noreturn]] void execute(const std::vector<std::string> &words);
// Number of processors that this program may use.
int processors();

} // namespace halvo::bench
