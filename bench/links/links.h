// The contenders that carry messages from process to process: one file each, so that the heavy
// headers of one are compiled once. What is timed is in runs.h.
#pragma once

#include "bench/processes.h"

namespace halvo::bench {

// Bytes of a body that the ends in place touch.
inline constexpr uint32_t kTouchedInPlace = 64;

using LinkRun = Measured (*)(const Shape &, uint32_t count);

// How a contender runs; null where it does not take part.
struct Link {
    const char *name;
    LinkRun throughput;
    LinkRun round_trip;
};

// Ours: q_write and q_read, polling; frx_write and frx_read, blocking.
extern const Link kQ;
extern const Link kFrx;
// The same without a copy; bodies alone (as kFrx, but the reader copies no whole slot); many at a time.
extern const Link kQInPlace;
extern const Link kFrxInPlace;
extern const Link kFrxBody;
extern const Link kFrxMany;
// Traffic through channel `used` of a number of open ones.
Measured q_throughput_with_open(const Shape &, uint32_t count, int channels, size_t used);
Measured frx_throughput_with_open(const Shape &, uint32_t count, int channels, size_t used);

// Kernel queues and boost's queue, all blocking. Queues are as deep as an ordinary user gets them.
extern const Link kPipe;
extern const Link kSeqpacket;
extern const Link kPosixMq;
extern const Link kSysvMsg;
extern const Link kBoostMq;
// Rings in shared memory, polling.
extern const Link kBoostSpsc;
extern const Link kBareRing;
extern const Link kBareRingInPlace;
// Copies by one thread into a ring and out again: what no two processes can do better.
extern const Link kMemoryCopy;

// The time from a wake to the woken side's first instruction, there and back, while both sides are
// asleep whenever they are woken.
Measured frx_wake(const Shape &, uint32_t count);
Measured semop_wake(const Shape &, uint32_t count);
Measured futex_wake(const Shape &, uint32_t count);

} // namespace halvo::bench
