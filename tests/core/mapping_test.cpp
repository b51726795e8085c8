#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/ring.h"

#ifndef __SANITIZE_THREAD__ // which refuses a fork in a handler

using namespace halvo::test;

namespace {

volatile sig_atomic_t forks = 0;
volatile sig_atomic_t is_child = 0;

void fork_here(int) {
    if (is_child) return;
    if (fork() == 0) is_child = 1;
    forks = forks + 1;
}

} // namespace

// A handler may fork while the clock is being set; the child comes back into the middle of that.
TEST(Mapping, a_child_that_was_forked_while_the_clock_was_set_detaches) {
    const Segment s = two_channels();
    s.attach();
    signal(SIGALRM, fork_here);
    const itimerval soon{{0, 5000}, {0, 5000}}, never{};
    setitimer(ITIMER_REAL, &soon, nullptr);
    while (forks < 60) {
        q_settime();
        if (is_child) {
            alarm(10); // ends a child that waits for ever
            signal(SIGALRM, SIG_DFL);
            _exit(close_shm() == ESMS_OK ? 0 : 1);
        }
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    for (int status; wait(&status) > 0;) EXPECT_EQ(status, 0);
}

#endif
