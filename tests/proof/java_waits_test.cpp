// Round trips and short waits inside a VM, also while it records its own flight.
#include <gtest/gtest.h>

#include "tests/jni/vm.h"
#include "tests/proof/form.h"

using namespace halvo::test;

namespace {

void expect_no_fault(const std::string &where, const Words &options) {
    SegmentBuilder builder;
    for (int i = 0; i < 6; ++i) builder.channel("C" + std::to_string(i), 'M', 4, 64);
    const Segment s = builder.build();
    Words all{"-Dhalvoipc.library=" HALVO_LIBRARY};
    all.insert(all.end(), options.begin(), options.end());
    setenv("HALVO_SPIN_US", "0", 1); // the sleep is what is at stake
    const std::string count = std::to_string(length(5000, 100000));
    const Outcome outcome =
        run_vm(s, all, {"com.morvesk.halvo.ipc.WaitStress", where, count, std::to_string(seed())});
    std::printf("%s", outcome.out.c_str());
    EXPECT_EQ(outcome.status, 0);
}

} // namespace

TEST(JavaWaits, end_in_time) { expect_no_fault("in a VM", {}); }

// The VM suspends threads for the recorder with the library's signal, unless told to take another.
TEST(JavaWaits, end_in_time_beside_flight_recorder) {
    setenv("_JAVA_SR_SIGNUM", "40", 1);
    expect_no_fault("in a VM with Flight Recorder",
                    {"-XX:StartFlightRecording=settings=profile,maxsize=8m"});
}
