#include <sys/syscall.h>
#include <sys/time.h>

#include <functional>
#include <thread>

#include "tests/support/capture.h"
#include "tests/support/peer.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

std::function<void()> before_semaphores; // what happens while an attach goes on to them

} // namespace

// In place of the system's.
extern "C" __attribute__((visibility("default"))) int semget(key_t key, int count,
                                                             int flags) noexcept {
    if (const auto act = std::exchange(before_semaphores, nullptr)) act();
    return static_cast<int>(syscall(SYS_semget, key, count, flags));
}

TEST(Attach, takes_semaphores_and_segment_of_one_creation) {
    const Segment s = two_channels();
    before_semaphores = [&] {
        halvo::qm::create({{{"NEW", 'M', 4, 64, 0}}, {}}, s.key_file(), true);
    };
    s.attach();
    EXPECT_EQ(q_name2chnnl("NEW"), 0) << "the segment whose ends it opens";
    EXPECT_NE(q_open(0, 'w'), nullptr);
}

TEST(Attach, of_a_second_thread_waits_for_the_first_however_long_that_takes) {
    const Segment s = two_channels();
    const Signal attaches;
    before_semaphores = [&] { attaches.send(), usleep(1500000); };
    std::jthread first([&] { EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_OK); });
    ASSERT_TRUE(attaches.wait());
    EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_ALREADY);
}

TEST(Attach, a_process_attaches_once_for_its_lifetime) {
    const Segment s = two_channels();
    EXPECT_EQ(init_shm(nullptr), ESMS_NOINIT) << "a question";
    EXPECT_EQ(q_0(), nullptr);
    EXPECT_EQ(q_chnnl2q(0), nullptr);
    EXPECT_EQ(q_name2chnnl("MT01"), -1);
    EXPECT_EQ(q_gettime(), 0xFFFFFFFFu);
    EXPECT_EQ(q_settime(), -1);
    EXPECT_EQ(close_shm(), ESMS_NOINIT);
    for (const int result : {ESMS_OK, ESMS_ALREADY}) {
        EXPECT_EQ(said([&] { return init_shm(s.key_file().c_str()); }),
                  Said(result, "SHM_INIT_FINISHED.\n"));
        EXPECT_EQ(init_shm(nullptr), ESMS_OK);
    }
    EXPECT_EQ(q_0()->nchnnl, 2u);
    EXPECT_EQ(close_shm(), ESMS_OK);
    EXPECT_EQ(init_shm(nullptr), ESMS_OK);
    EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_ALREADY);
    EXPECT_EQ(close_shm(), ESMS_SHMOP) << "a second detach fails";
    // What would touch the segment answers as if there were none.
    EXPECT_EQ(q_settime(), -1);
    EXPECT_EQ(q_name2chnnl("MT01"), -1);
    EXPECT_EQ(q_close(0, 'r'), ESMS_NOINIT);
    EXPECT_EQ(sem_postx(0), -1);
}

TEST(Attach, a_failed_attach_keeps_the_service_lock_but_hangs_nobody) {
    const std::string missing = "/nonexistent/halvo.key";
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(init_shm(missing.c_str()), ESMS_SHMOP); }),
              "shmat failed keyfile " + missing + " id -1 block -1\n");
    EXPECT_EQ(init_shm(nullptr), ESMS_OK) << "the failed address counts as attached here";
    EXPECT_EQ(q_0(), nullptr);
    EXPECT_EQ(q_chnnl2q(0), nullptr);
    EXPECT_EQ(init_shm(missing.c_str()), ESMS_MTXLOCK);
    std::thread([&] { EXPECT_EQ(init_shm(missing.c_str()), ESMS_MTXLOCK); }).join();
}

TEST(Attach, an_over_long_key_file_path_fails_like_a_missing_file) {
    const std::string path = "/" + std::string(2043, 'k'); // 2049 bytes with ".post"
    captured_stdout([&] { EXPECT_EQ(init_shm(path.c_str()), ESMS_SHMOP); });
}

#ifndef __SANITIZE_THREAD__ // which refuses a fork in a handler
// A handler may fork while the clock is being set; the child comes back into the middle of that.
TEST(Attach, a_child_that_was_forked_while_the_clock_was_set_detaches) {
    const Segment s = two_channels();
    s.attach();
    static volatile sig_atomic_t forks = 0, is_child = 0;
    signal(SIGALRM, [](int) {
        if (is_child) return;
        if (fork() == 0) is_child = 1;
        forks = forks + 1;
    });
    const itimerval soon{{0, 5000}, {0, 5000}}, never{};
    setitimer(ITIMER_REAL, &soon, nullptr);
    while (forks < 60) {
        q_settime();
        if (is_child) {
            alarm(10); // ends a child that waits for ever
            signal(SIGALRM, SIG_DFL);
            _exit(close_shm() == ESMS_OK ? 0 : 1);
        }
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    for (int status; wait(&status) > 0;) EXPECT_EQ(status, 0);
}
#endif

TEST(Lookup, names_are_matched_whole_and_the_lowest_channel_wins) {
    const Segment s = SegmentBuilder()
                          .channel("MT01", 'M', 4, 64)
                          .channel("TWIN1", 'M', 4, 64)
                          .channel("TWIN2", 'M', 4, 64)
                          .build();
    s.attach();
    std::memcpy(q_chnnl2q(2)->qname, "TWIN1", 6);
    EXPECT_EQ(q_name2chnnl("TWIN1"), 1);
    EXPECT_EQ(q_name2chnnl("MT0"), -1);
    EXPECT_EQ(q_name2chnnl("MT011"), -1);
    EXPECT_EQ(q_name2chnnl(nullptr), -1);
    // A name that fills its field has no terminator.
    const std::string full(24, 'N');
    std::memcpy(q_chnnl2q(0)->qname, full.data(), 24);
    EXPECT_EQ(q_name2chnnl(full.c_str()), 0);
    EXPECT_EQ(q_name2chnnl((full + "N").c_str()), -1);
}

TEST(ResultCodes, are_printed_by_name_behind_the_prefix) {
    const struct {
        int code;
        std::string name;
    } codes[] = {{ESMS_EXEED, "ESMS_EXEED"}, {ESMS_OK, "ESMS_OK"}, {ESMS_STAT, "ESMS_STAT"},
                 {EIDRM, "EIDRM"},           {2, "Unknown err 2"}, {-18, "Unknown err -18"}};
    for (const auto &[code, name] : codes)
        EXPECT_EQ(captured_stdout([&] { printr("snd error ....", code); }),
                  "snd error .... " + name + "\n");
    EXPECT_EQ(captured_stdout([] { printr("100%% of it:", ESMS_FULL); }),
              "100% of it: ESMS_FULL\n");
}
