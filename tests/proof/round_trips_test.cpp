// Two processes send one message back and forth; each sleeps until the other's arrives. A wake-up
// that is lost would be made good by the monitor, 100 ms later or more, and shows as such.
#include "tests/proof/form.h"
#include "tests/proof/stalls.h"
#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

constexpr int kTimeout = 20000;     // milliseconds
constexpr int64_t kRescued = 90000; // microseconds: shorter than the two passes before a rescue
constexpr int64_t kTooLong = 300000;

struct Ends {
    FrxChannel out{}, in{};
    bool open(const Segment &segment, int out_channel, int in_channel) {
        return start_with(segment, out, 'w', out_channel) &&
               frx_openChannel(&in, "in", in_channel, 'r', kTimeout) == ESMS_OK;
    }
};

int echo(const Segment &segment, int trips) {
    // On two processors, where there are two, the sides can miss each other by the buffers of their
    // stores; left to itself the system often runs both on one.
    run_on_processor(1);
    q_set_spin(0);
    Ends ends;
    if (!ends.open(segment, 1, 0)) return 1;
    Slot slot(q_chnnl2q(0));
    for (int i = 0; i < trips; ++i) {
        if (frx_read(&ends.in, slot.data(), kTimeout) < 0) return 2;
        if (frx_write(&ends.out, slot.body(), kTimeout) != ESMS_OK) return 3;
    }
    return 0;
}

} // namespace

TEST(RoundTrips, no_wake_up_is_lost) {
    const int trips = length(20000, 1000000);
    const Segment segment =
        SegmentBuilder().channel("THERE", 'M', 4, 64).channel("BACK", 'M', 4, 64).build();
    Peer other([&] { return echo(segment, trips); });
    Ends ends;
    ASSERT_TRUE(ends.open(segment, 0, 1));
    const Stalls stalls;
    run_on_processor(0);
    q_set_spin(0); // or the message would come before anybody sleeps
    Slot slot(q_chnnl2q(1));
    const long slept_before = usage_of(RUSAGE_THREAD).ru_nvcsw;
    int64_t rescued = 0, too_long = 0, longest = 0, sum = 0;
    for (int i = 0; i < trips; ++i) {
        const std::string text = std::to_string(i);
        const int64_t start = microseconds_now();
        ASSERT_EQ(frx_write(&ends.out, text, kTimeout), ESMS_OK);
        ASSERT_GT(frx_read(&ends.in, slot.data(), kTimeout), 0);
        const int64_t end = microseconds_now();
        ASSERT_EQ(slot.body(), text);
        longest = std::max(longest, end - start);
        sum += end - start;
        if (end - start < kRescued) continue;
        const int64_t own = stalls.without_stalls(start, end);
        rescued += own >= kRescued;
        too_long += own >= kTooLong;
    }
    EXPECT_EQ(other.wait(), 0);
    const int64_t slept = usage_of(RUSAGE_THREAD).ru_nvcsw - slept_before;
    figure("blocking round trips between two processes", std::to_string(trips), trips);
    figure("round trips longer than 300 ms", "0", too_long);
    figure("round trips longer than 90 ms (woken by the monitor)", "0", rescued);
    figure("times that this side really slept", "-", slept);
    figure("mean round trip, microseconds", "-", sum / trips);
    figure("longest round trip / longest stall of the machine, microseconds", "-",
           std::to_string(longest) + " / " + std::to_string(stalls.longest()));
    EXPECT_GT(slept, trips / 100); // most find their message once the barrier is passed
}
