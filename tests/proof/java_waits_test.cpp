// Round trips and short waits inside a VM, also while it records its own flight. The VM names the
// calls that took too long; which of them the machine held up is judged here.
#include "tests/jni/vm.h"
#include "tests/proof/form.h"
#include "tests/proof/stalls.h"

using namespace halvo::test;

namespace {

void expect_no_fault(const std::string &where, const Words &options) {
    SegmentBuilder builder;
    for (int i = 0; i < 6; ++i) builder.channel("C" + std::to_string(i), 'M', 4, 64);
    const Segment s = builder.build();
    Words all{kLibrary};
    all.insert(all.end(), options.begin(), options.end());
    setenv("HALVO_SPIN_US", "0", 1); // the sleep is what is at stake
    const int count = length(5000, 100000);
    const Stalls stalls;
    const Outcome outcome =
        run_vm(s, all,
               {"com.morvesk.halvo.ipc.WaitStress", std::to_string(count), std::to_string(seed())});
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    int late_trips = 0, late_waits = 0, timed_out = 0, given = 0, beside = -1;
    std::istringstream lines(outcome.out);
    for (std::string what; lines >> what;) {
        int64_t start = 0, end = 0, limit = 0; // microseconds
        if (what == "trip" || what == "wait") {
            lines >> start >> end >> limit;
            if (stalls.without_stalls(start, end) > limit)
                ++(what == "trip" ? late_trips : late_waits);
        } else if (what == "waits:") {
            lines >> timed_out >> given >> beside;
        }
    }
    figure("blocking round trips " + where, "-", count);
    figure("of them longer than 300 ms", "0", late_trips);
    figure("waits of 0 to 3 ms " + where + ", timed out / given a message", "-",
           std::to_string(timed_out) + " / " + std::to_string(given));
    figure("of them longer than their deadline + 300 ms", "0", late_waits);
    figure("calls that timed out beside a message", "0", beside);
    EXPECT_EQ(late_trips + late_waits, 0) << outcome.out;
    EXPECT_TRUE(timed_out > 0 && given > 0);
}

} // namespace

TEST(JavaWaits, end_in_time) { expect_no_fault("in a VM", {}); }

// The VM suspends threads for the recorder with the library's signal, unless told to take another.
TEST(JavaWaits, end_in_time_beside_flight_recorder) {
    setenv("_JAVA_SR_SIGNUM", "40", 1);
    expect_no_fault("in a VM with Flight Recorder",
                    {"-XX:StartFlightRecording=settings=profile,maxsize=8m"});
}
