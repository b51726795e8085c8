// A host program with names of its own, and processes of both word sizes over one segment and one
// file queue. Those need the build tree of the other word size, which the test command builds first.
#include "tests/support/program.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

const std::string kOwn = HALVO_BIN, kOther = HALVO_OTHER_BIN;

class Widths : public testing::TestWithParam<bool> {
protected:
    const std::string from = GetParam() ? kOwn : kOther, to = GetParam() ? kOther : kOwn;
    const Segment s = SegmentBuilder().channel("MT01", 'M', 8, 128).build();
    std::string text;

    void SetUp() override {
        if (access((kOther + "/halvo-send").c_str(), X_OK) != 0)
            GTEST_SKIP() << kOther << " is not built";
        for (int i = 0; i < 5000; ++i) text += "message " + std::to_string(i * 7919) + "\n";
    }
};

} // namespace

TEST(HostProgram, may_use_the_librarys_names_for_things_of_its_own) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
    const Outcome outcome = run_program({kOwn + "/own_names", s.key_file()});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}

TEST_P(Widths, share_a_segment) {
    Peer writer([&] {
        return run_program({from + "/halvo-send", "--key", s.key_file(), "MT01"}, text).status;
    });
    const Outcome got =
        run_program({to + "/halvo-recv", "--key", s.key_file(), "MT01", "--count", "5000"});
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, text);
}

TEST_P(Widths, share_a_file_queue) {
    const std::string queue = s.path("mo");
    EXPECT_EQ(run_program({from + "/halvo-fq", "put", queue, "--batch", "7"}, text).status, 0);
    EXPECT_EQ(run_program({to + "/halvo-fq", "get", queue}).out, text);
}

INSTANTIATE_TEST_SUITE_P(BothWays, Widths, testing::Bool());
