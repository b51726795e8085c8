// What comes behind the death of a holder of an end: its successor opens the end, recovers and goes
// on, and everything that it finds is compared with what may be there.
#pragma once

#include "tests/proof/ring_operations.h"

namespace halvo::test {

// What the other side does between the death and the succession; `replaced`: it works, ends, and its
// own successor recovers first.
enum class Peer_is { replaced, at_work, gone, idle };

struct Filling {
    int start;       // slots that the positions stand behind the first
    int messages;    // in the ring
    bool peer_marks; // the other side has marked a message
    bool suits(const RingOperation &operation) const;
    Numbers numbers() const; // of the messages: 1 ..
};

// The figures of many kills.
struct Faults {
    int64_t kills = 0;
    int64_t torn = 0;
    int64_t lost = 0;     // or found where nothing may be
    int64_t stuck = 0;    // rings that could not be filled and emptied afterwards
    int most_doubled = 0; // by one kill, counted messages included
};

// Fills the empty channel as given and lets the operation's process do what it did before. The pids
// in the image are those of processes that are gone.
SmallRing::Image prepared(SmallRing &ring, const RingOperation &operation, const Filling &filling);

// Succeeds the process that was killed in an operation, and judges.
void survive(SmallRing &ring, const RingOperation &operation, const Filling &filling, Peer_is peer,
             const Stage &stage, Faults &faults);

// Takes every message out of the ring and the buffers.
Found take_all(SmallRing &ring);

// Whether the ring takes as many messages as it has slots, again and again, and gives all back.
bool works(SmallRing &ring);

} // namespace halvo::test
