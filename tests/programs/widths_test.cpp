// A 32-bit and a 64-bit process exchange messages over one segment. Needs the build tree of the
// other word size, which the test command builds first.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/program.h"
#include "tests/support/segment_builder.h"

using namespace halvo::test;

namespace {

// Sends numbered lines with one build's program and receives them with the other's.
void exchange(const std::string &sender, const std::string &receiver) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 8, 128).build();
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "message " + std::to_string(i * 7919) + "\n";
    Peer writer([&] {
        return run_program({sender + "/halvo-send", "--key", s.key_file(), "MT01"}, text).status;
    });
    const Outcome got =
        run_program({receiver + "/halvo-recv", "--key", s.key_file(), "MT01", "--count", "5000"});
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, text);
}

} // namespace

TEST(Widths, processes_of_both_word_sizes_share_a_segment) {
    if (access(HALVO_OTHER_BIN "/halvo-send", X_OK) != 0)
        GTEST_SKIP() << HALVO_OTHER_BIN << " is not built";
    exchange(HALVO_OTHER_BIN, HALVO_BIN);
    exchange(HALVO_BIN, HALVO_OTHER_BIN);
}
