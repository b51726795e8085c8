// The memory of a channel at each moment of an operation at which it changes: what a kill there
// leaves behind.
#pragma once

#include "tests/proof/ring_operations.h"

namespace halvo::test {

// Goes through the operation in a process of its own and calls look(step) after each instruction.
template <class Look>
void step_through(SmallRing &ring, const RingOperation &operation, Stage &stage, Look look) {
    std::memset(stage.buffer, 0, sizeof stage.buffer);
    SingleStep process(
        stage, [&] { q_open(0, operation.side); }, [&] { return operation.run(ring.q, stage); });
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
    q_open(0, operation.side);
    operation.run(ring.q, stage);
    q_close(0, operation.side);
    ring.restore(before);
}

} // namespace halvo::test
