// A 32-bit and a 64-bit process exchange messages over one segment. Needs the build tree of the
// other word size, which the test command builds first.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/program.h"
#include "tools/fixture/segment_builder.h"

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

// Puts lines into a file queue with one build's program and gets them with the other's.
void pass_a_file_queue(const std::string &writer, const std::string &reader) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    std::string text;
    for (int i = 0; i < 3000; ++i) text += "item " + std::to_string(i) + "\n";
    const std::string queue = s.path("mo");
    EXPECT_EQ(run_program({writer + "/halvo-fq", "put", queue, "--batch", "7"}, text).status, 0);
    EXPECT_EQ(run_program({reader + "/halvo-fq", "get", queue}).out, text);
}

} // namespace

TEST(Widths, a_file_queue_written_by_one_word_size_is_read_by_the_other) {
    if (access(HALVO_OTHER_BIN "/halvo-fq", X_OK) != 0)
        GTEST_SKIP() << HALVO_OTHER_BIN << " is not built";
    pass_a_file_queue(HALVO_OTHER_BIN, HALVO_BIN);
    pass_a_file_queue(HALVO_BIN, HALVO_OTHER_BIN);
}

TEST(Widths, processes_of_both_word_sizes_share_a_segment) {
    if (access(HALVO_OTHER_BIN "/halvo-send", X_OK) != 0)
        GTEST_SKIP() << HALVO_OTHER_BIN << " is not built";
    exchange(HALVO_OTHER_BIN, HALVO_BIN);
    exchange(HALVO_BIN, HALVO_OTHER_BIN);
}
