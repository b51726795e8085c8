// The ring operations that are interrupted, and what may be found behind each interruption.
#pragma once

#include "tests/proof/single_step.h"
#include "tests/proof/small_ring.h"
#include "tests/support/ring_calls.h"

namespace halvo::test {

using Numbers = std::vector<int>; // of messages

// Where the messages are.
struct Found {
    Numbers ring;      // in the order in which they are read
    Numbers parked;    // in write buffers
    Numbers held;      // in read buffers
    Numbers delivered; // in the rooms of the reader that was killed, whole
    bool operator==(const Found &) const = default;
};

struct Legal {
    Found found;
    int doubled = 0; // messages that stand in two places
};

// What calls need of a ring, and do to it: the core's and the guarded one, either may be null.
struct Row {
    char side;
    const char *core, *guarded;
    int free;     // slots that must be free
    int messages; // that must be there
    void (*prepare)(SmallRing &);
    int n;      // as in Given
    int result; // when it is not interrupted; guarded calls tell lengths for ESMS_OK
    // All that may be found, from untouched to finished, for the messages that lay in the ring.
    std::vector<Legal> (*legal)(const Numbers &ring);
};

// One of the two calls.
struct RingOperation : Row {
    const RingCall &call;

    void open() const; // the end, in this process
    void close() const;
    // Clears the stage and lays out what the call is given. Bodies alone come without their lengths,
    // so these stand on the stage.
    void stand_ready(SmallRing &ring, Stage &stage) const;
    int run() const;
    Numbers delivered(const Stage &stage) const;
};

const std::vector<RingOperation> &ring_operations();

// The first one of that call.
const RingOperation &operation_named(const std::string &name);

} // namespace halvo::test
