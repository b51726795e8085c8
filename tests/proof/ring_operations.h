// The ring operations that are interrupted, and what may be found behind each interruption.
#pragma once

#include <vector>

#include "tests/proof/single_step.h"
#include "tests/proof/small_ring.h"

namespace halvo::test {

// Where the messages are, by their numbers.
struct Found {
    std::vector<int> ring;   // in the order in which they are read
    std::vector<int> parked; // in write buffers
    std::vector<int> held;   // in read buffers
    int delivered = kTorn;   // in the buffer of the reader that was killed; kTorn: none
    bool operator==(const Found &) const = default;
};

struct Legal {
    Found found;
    int doubled = 0; // messages that stand in two places
};

struct RingOperation {
    const char *name;
    char side;
    int free;     // it needs so many free slots
    int messages; // and so many messages
    void (*prepare)(SmallRing &);
    int (*run)(halvo_channel *, Stage &);
    int result; // when it is not interrupted
    // All that may be found, from untouched to finished, for the messages that lay in the ring.
    std::vector<Legal> (*legal)(const std::vector<int> &ring);
};

const std::vector<RingOperation> &ring_operations();

// One that moves the position of each side, for deaths of both.
const RingOperation &operation_named(const std::string &name);

} // namespace halvo::test
