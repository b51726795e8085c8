// The system calls with which a queue changes its files, under a test's control. This test program
// defines them itself, so that the library's calls come here first.
//
//     const int calls = counted_writes([&] { queue.put({"one", "two"}); });
//     for (int n = 1; n <= calls; ++n) {
//         const FailingWrites fails(n, FailingWrites::none_written, FailingWrites::once);
//         queue.put({"one", "two"});
//     }
//     for (int n = 1; dies_before_call(n, [&] { queue.put({"one", "two"}); }); ++n) ...
#pragma once

#include <csignal>
#include <utility>

#include "tests/support/peer.h"

namespace halvo::test {

// Lets the n-th write of the process from now on (counted from 1) fail on a full disk.
class FailingWrites {
public:
    enum How { none_written, half_written };
    enum Span { once, from_then_on };
    FailingWrites(int n, How how, Span span);
    FailingWrites(const FailingWrites &) = delete;
    FailingWrites &operator=(const FailingWrites &) = delete;
    ~FailingWrites();
    int seen() const; // writes so far
};

// Kills this process instead of its n-th call that opens, locks, changes or removes a file.
void kill_before_call(int n);

// Runs f in a process that dies before its n-th such call. False when f got through to its end.
template <class F>
bool dies_before_call(int n, F f) {
    Peer peer([&] {
        kill_before_call(n);
        f();
        kill_before_call(0);
        return 0;
    });
    const int status = peer.wait();
    EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << status;
    return status != 0;
}

template <class F>
int counted_writes(F f) {
    const FailingWrites never(0, FailingWrites::none_written, FailingWrites::once);
    f();
    return never.seen();
}

} // namespace halvo::test
