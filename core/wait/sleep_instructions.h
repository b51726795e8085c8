// sms_sig: the instructions between which no signal may be lost.
//
// A wait looks at its slot and then sleeps. A signal whose handler runs between the two would leave
// the sleep unended, and no system call takes a semaphore and a signal mask together. So the
// signals are kept from the thread from its last look on, and let in again right before the sleep.
// What is left are a few instructions, and there a handler leaves marks: the kernel stores the
// thread's registers below the stack's end, and the floating-point state, which ends with a number
// of the kernel's own, first of all. Both functions fill the place of that number with words of
// theirs, call nothing, and find those words changed when a handler has run.
//
// A handler on a stack of its own (sigaltstack) leaves no marks; see core/wait/sleep.cpp.
#pragma once

#include <sys/sem.h>

#include <csignal>
#include <cstdint>

#include "halvo/segment.h"

namespace halvo {

constexpr uint32_t kMarkWord = 0x5A17C0DE;
constexpr int kMarkWords = 8;

// What a sleep is about. The state is that of the slot which the wait is for; null: of none.
struct SleepFrame {
    sembuf operation{};
    int32_t semid = -1;
    // 8 bytes of each set count: the signals that are kept away, the thread's mask but for that.
    const sigset_t *everything = nullptr;
    sigset_t *outside = nullptr;
    const halvo_i32 *state = nullptr;
    int32_t wanted = 0;
    int32_t looks = 0;
    const uint32_t *marks = nullptr; // while the thread is about to sleep or asleep: kMarkWords
    void *stack = nullptr;           // where it ended before
    int32_t held = 0;                // whether the signals are kept away
    int32_t signalled = 0;           // whether a handler has run
};

// Looks `looks` times for the wanted state, with a pause of the processor in between. Returns 1
// when it came. Otherwise 0, and from then on signals are kept away: `outside` has what was before.
// `held` and `signalled` tell both.
int look_and_hold(SleepFrame &frame) noexcept;

// Lets the signals in and does the semaphore operation. Returns 0 or the negative error number:
// -EINTR also when a handler ran before the sleep. When the operation succeeds and the state is not
// the wanted one, the signals are kept away again. `held` and `signalled` as above.
int let_in_and_sleep(SleepFrame &frame);
// The same, and a cancellation acts at any instruction of it. The caller has allowed it.
int let_in_and_sleep_cancellable(SleepFrame &frame);

} // namespace halvo
