// The tests' own tools: a harness that leaves things behind or loses a failure spoils every test.
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/ipc.h"
#include "tests/support/peer.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {
namespace {

TEST(Harness, a_killed_test_leaves_nothing_behind) {
    const ScratchFile note;
    const Signal built, may_end;
    // The killed process has a child of its own: things stay until that one is gone too.
    Peer victim([&] {
        const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
        write_file(s.path("left behind"), "by a test");
        symlink("/", s.path("link").c_str());
        if (fork() == 0) _exit(may_end.wait());
        note.fill(s.key_file());
        built.send();
        return pause();
    });
    ASSERT_TRUE(built.wait());
    const std::string key = note.content(), directory = key.substr(0, key.rfind('/'));
    const int segment = segment_under(key), locks = set_under(key, kReadLocks);
    ASSERT_TRUE(segment >= 0 && locks >= 0);
    victim.kill(SIGKILL);
    EXPECT_EQ(victim.wait(), 128 + SIGKILL);
    usleep(50000);
    EXPECT_EQ(segment_under(key), segment);
    may_end.send();
    EXPECT_TRUE(comes_true([&] { return !exists(directory); }));
    shmid_ds state{};
    EXPECT_LT(shmctl(segment, IPC_STAT, &state), 0);
    EXPECT_LT(value_of(locks), 0);
}

TEST(Harness, a_peer_does_not_lose_a_failed_expectation) {
    const auto expects = [] {
        close(STDOUT_FILENO);
        EXPECT_EQ(1, 2);
    };
    EXPECT_EQ(Peer(expects).wait(), Peer::kFailed);
}

} // namespace
} // namespace halvo::test
