// halvo-mon --watch: how it ends, and that it shows the segment that stands there now.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <fstream>

#include "tests/print/scenario.h"
#include "tests/support/terminal.h"

using namespace halvo::test;

namespace {

bool comes_true(const std::function<bool()> &condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) usleep(10000);
    return condition();
}

class Watching : public testing::Test {
protected:
    Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();

    // Runs halvo-mon with these words; prepare() runs before it in its process.
    template <class Prepare>
    Peer start(const std::string &words, Prepare prepare) const {
        return Peer([&] {
            for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) unsetenv(name);
            prepare();
            const std::string line =
                "exec " HALVO_MON " --key " + segment.key_file() + " --sample 0 " + words;
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
            return 127;
        });
    }
    std::string content(const std::string &file) const {
        std::ifstream in(segment.path(file));
        return {std::istreambuf_iterator<char>(in), {}};
    }
    bool shows(const std::string &file, const std::string &text) const {
        return comes_true([&] { return content(file).find(text) != std::string::npos; });
    }
    // Waits for the end, for ten seconds.
    static int end_of(Peer &peer) {
        const bool ended = comes_true([&] {
            siginfo_t info{};
            return waitid(P_PID, static_cast<id_t>(peer.pid()), &info,
                          WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid != 0;
        });
        return ended ? peer.wait() : -1;
    }
};

} // namespace

// Whether the kernel's signal reaches it or not: a closed terminal has nobody at it.
TEST_F(Watching, ends_when_its_terminal_is_closed) {
    for (const char *view : {"plain --watch 60", "plain --watch 0.1", "top --every 60"})
        for (const bool hears : {true, false}) {
            const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
            ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
            const winsize size{24, 80, 0, 0};
            ioctl(master, TIOCSWINSZ, &size);
            Peer monitor = start(view, [&] {
                signal(SIGHUP, hears ? SIG_DFL : SIG_IGN);
                setenv("TERM", "xterm", 1);
                setsid();
                const int terminal = open(ptsname(master), O_RDWR);
                for (const int fd : {0, 1, 2}) dup2(terminal, fd);
                close(terminal);
            });
            std::string shown;
            char block[4096];
            while (shown.find("MT01") == std::string::npos) {
                const ssize_t got = read(master, block, sizeof block);
                ASSERT_GT(got, 0) << view << shown;
                shown.append(block, static_cast<size_t>(got));
            }
            close(master);
            const int status = end_of(monitor);
            EXPECT_TRUE(status == 0 || status == 1)
                << view << " hears: " << hears << ", " << status;
        }
}

TEST_F(Watching, ends_although_nobody_takes_its_output) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        int pipe[2];
        ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        const int room = fcntl(pipe[1], F_SETPIPE_SZ, 4096);
        Peer monitor = start("plain --watch 0.1", [&] { dup2(pipe[1], STDOUT_FILENO); });
        int waiting = 0; // bytes
        EXPECT_TRUE(comes_true([&] {
            ioctl(pipe[0], FIONREAD, &waiting);
            return waiting > room - 1000; // a frame is written whole
        }));
        usleep(200000); // until it blocks
        monitor.kill(number);
        EXPECT_EQ(end_of(monitor), 0) << number;
        close(pipe[0]);
        close(pipe[1]);
    }
}

TEST_F(Watching, goes_on_behind_a_hang_up_that_it_was_told_to_ignore) {
    Peer monitor =
        start("log --watch 0.1 >" + segment.path("log"), [] { signal(SIGHUP, SIG_IGN); });
    ASSERT_TRUE(shows("log", "MT01"));
    monitor.kill(SIGHUP);
    const size_t before = content("log").size();
    EXPECT_TRUE(comes_true([&] { return content("log").size() > before + 100; }));
    monitor.kill(SIGTERM);
    EXPECT_EQ(end_of(monitor), 0);
}

TEST_F(Watching, shows_the_segment_that_stands_there_now) {
    Peer monitor = start("plain --watch 0.1 >" + segment.path("out"), [] {});
    ASSERT_TRUE(shows("out", "MT01"));
    halvo::qm::SegmentPlan plan;
    plan.channels.push_back({"NEW1", 'M', 4, 64, 0});
    halvo::qm::create(plan, segment.key_file(), true);
    EXPECT_TRUE(shows("out", "NEW1"));
    halvo::qm::remove(segment.key_file());
    EXPECT_TRUE(shows("out", "waiting for a segment"));
    const size_t before = content("out").size();
    halvo::qm::create(plan, segment.key_file(), false);
    EXPECT_TRUE(
        comes_true([&] { return content("out").find("NEW1", before) != std::string::npos; }));
    monitor.kill(SIGTERM);
    EXPECT_EQ(end_of(monitor), 0);
}

TEST_F(Watching, hears_a_key_although_it_was_started_in_the_background) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    const Terminal terminal(segment.path(""), 100, 20);
    terminal.type("set -m; " HALVO_MON " --key " + segment.key_file() +
                  " plain --sample 0 --watch 60 & sleep 0.5; fg; echo it ended with $?");
    terminal.press("Enter");
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    usleep(1000000);
    terminal.press("q");
    EXPECT_TRUE(terminal.wait_for("it ended with 0"));
}
