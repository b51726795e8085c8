// The memory of a channel at each moment of an operation at which it changes: what a kill there
// leaves behind.
#pragma once

#include "tests/proof/ring_operations.h"

namespace halvo::test {

// A process in front of the operation.
inline SingleStep in_front_of(SmallRing &ring, const RingOperation &operation, Stage &stage) {
    operation.stand_ready(ring, stage);
    return SingleStep(
        stage, [&] { operation.open(); }, [&] { return operation.run(); });
}

// Goes through the operation in a process of its own and calls look(step) after each instruction.
template <class Look>
void step_through(SmallRing &ring, const RingOperation &operation, Stage &stage, Look look) {
    SingleStep process = in_front_of(ring, operation, stage);
    for (int step = 1; !process.has_returned(); ++step) {
        process.step();
        look(step);
    }
}

// The first image is the untouched one.
inline std::vector<SmallRing::Image> moments(SmallRing &ring, const RingOperation &operation,
                                             Stage &stage) {
    std::vector<SmallRing::Image> all = {ring.save()};
    step_through(ring, operation, stage, [&](int) {
        SmallRing::Image now = ring.save();
        if (now != all.back()) all.push_back(std::move(now));
    });
    return all;
}

// The first call of a function of a shared library goes through the dynamic linker.
inline void warm_up(SmallRing &ring, const RingOperation &operation, Stage &stage) {
    const SmallRing::Image before = ring.save();
    operation.open();
    operation.stand_ready(ring, stage);
    operation.run();
    operation.close();
    ring.restore(before);
}

} // namespace halvo::test
