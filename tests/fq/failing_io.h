// The system calls of a queue, under a test's control. This test program defines them itself, so
// that the library's calls come here first.
//
//     const int calls = counted_calls([&] { queue.put({"one", "two"}); });
//     for (int n = 1; n <= calls; ++n) {
//         const FailingCalls fails(n, EIO, FailingCalls::once);
//         queue.put({"one", "two"});
//     }
//     for (int n = 1; dies_before_call(n, [&] { queue.put({"one", "two"}); }); ++n) ...
#pragma once

#include <csignal>
#include <utility>

#include "tests/support/peer.h"

namespace halvo::test {

// Lets the n-th call of the process from now on (counted from 1) fail with an error number. Nothing
// is done then, but for a close, which closes. kShort instead of an error: reads and writes move
// half of their bytes, everything else succeeds.
class FailingCalls {
public:
    static constexpr int kShort = 0;
    enum Span { once, from_then_on };
    FailingCalls(int n, int error, Span span);
    FailingCalls(const FailingCalls &) = delete;
    FailingCalls &operator=(const FailingCalls &) = delete;
    ~FailingCalls();
    int seen() const; // calls so far
};

// Lets all lock files of one device have the same key.
void let_keys_collide(bool collide);

// Kills this process instead of its n-th call.
void kill_before_call(int n);

// Runs f in a process that dies before its n-th call. False when f got through to its end.
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
int counted_calls(F f) {
    const FailingCalls never(0, FailingCalls::kShort, FailingCalls::once);
    f();
    return never.seen();
}

} // namespace halvo::test
