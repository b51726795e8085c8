// The tests' own tools: a harness that leaves things behind or loses a failure spoils every test.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/support/capture.h"
#include "tests/support/program.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {
namespace {

TEST(Harness, a_killed_test_leaves_nothing_behind) {
    const ScratchFile note;
    const Signal built;
    // The killed process has a child of its own: things stay until that one is gone too.
    const Signal may_end;
    Peer victim([&] {
        const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
        std::ofstream(s.path("left behind")) << "by a test";
        symlink("/", s.path("link").c_str());
        if (fork() == 0) {
            may_end.wait();
            _exit(0);
        }
        note.fill(s.key_file());
        built.send();
        pause();
        return 0;
    });
    ASSERT_TRUE(built.wait());
    const std::string key = note.content();
    const int segment = shmget(ftok(key.c_str(), 1), 0, 0);
    const int locks = semget(ftok(key.c_str(), 201), 0, 0);
    ASSERT_GE(segment, 0);
    ASSERT_GE(locks, 0);
    victim.kill(SIGKILL);
    EXPECT_EQ(victim.wait(), 128 + SIGKILL);
    usleep(50000);
    EXPECT_EQ(shmget(ftok(key.c_str(), 1), 0, 0), segment);

    may_end.send();
    const std::string directory = key.substr(0, key.rfind('/'));
    for (int i = 0; i < 1000 && access(directory.c_str(), F_OK) == 0; ++i) usleep(10000);
    EXPECT_NE(access(directory.c_str(), F_OK), 0);
    shmid_ds state{};
    EXPECT_LT(shmctl(segment, IPC_STAT, &state), 0);
    EXPECT_LT(semctl(locks, 0, GETVAL), 0);
}

TEST(Harness, a_key_that_another_holds_is_passed_over) {
    // A file system gives the inodes of removed files to the next ones, and with them their keys.
    // The key of a high channel is in nobody's way when other tests run at the same time.
    SegmentBuilder builder;
    for (int i = 0; i < 200; ++i) builder.channel("C" + std::to_string(i), 'F', 1, 20);
    builder.channel("C200", 'M', 1, 20);
    key_t taken = 0;
    {
        const Segment s = builder.build();
        taken = ftok((s.key_file() + ".req").c_str(), 201);
    }
    const int set = semget(taken, 1, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(set, 0);
    EXPECT_NO_THROW({
        const Segment s = builder.build();
        EXPECT_EQ(qm::check(s.key_file()), std::vector<std::string>());
    });
    EXPECT_EQ(semctl(set, 0, IPC_RMID), 0) << "another's semaphores are not ours to remove";
}

TEST(Harness, a_peer_ends_with_its_result_its_signal_or_its_failure) {
    EXPECT_EQ(Peer([] { return 7; }).wait(), 7);
    Peer sleeper([] {
        for (;;) pause();
        return 0;
    });
    sleeper.kill(SIGTERM);
    EXPECT_EQ(sleeper.wait(), 128 + SIGTERM);
    EXPECT_EQ(sleeper.wait(), 128 + SIGTERM);
    const auto throws = []() -> int {
        close(STDERR_FILENO);
        throw std::runtime_error("x");
    };
    EXPECT_EQ(Peer(throws).wait(), Peer::kThrew);
    const auto expects = [] {
        close(STDOUT_FILENO);
        EXPECT_EQ(1, 2);
        return 0;
    };
    EXPECT_EQ(Peer(expects).wait(), Peer::kFailed);
    const auto attaches_in_vain = [] {
        const Segment s = SegmentBuilder().channel("A", 'M', 1, 20).build();
        qm::remove(s.key_file());
        close(STDOUT_FILENO), close(STDERR_FILENO);
        s.attach();
        return 0;
    };
    EXPECT_EQ(Peer(attaches_in_vain).wait(), 1);
}

TEST(Harness, captures_what_is_printed_either_way) {
    EXPECT_EQ(captured_stdout([] {
                  std::printf("by stdio ");
                  std::fflush(stdout);
                  EXPECT_EQ(write(STDOUT_FILENO, "direct ", 7), 7);
                  std::puts("again");
              }),
              "by stdio direct again\n");
    const Outcome outcome = run_program({"/bin/sh", "-c", "cat; echo error >&2; exit 3"}, "in\n");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out, "in\n");
    EXPECT_EQ(outcome.err, "error\n");
}

} // namespace
} // namespace halvo::test
