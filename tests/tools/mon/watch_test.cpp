// halvo-mon --watch: how it ends, what it leaves on a terminal, and that it shows the segment that
// stands there now.
#include <sys/ioctl.h>

#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/files.h"
#include "tests/support/ipc.h"
#include "tests/support/terminal.h"

using namespace halvo::test;

namespace {

class Watching : public testing::Test {
protected:
    Watching() {
        for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG", "NO_COLOR"}) unsetenv(name);
    }
    Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();

    std::string command(const std::string &words) const {
        return HALVO_BIN "/halvo-mon --key " + segment.key_file() + " --sample 0 " + words;
    }
    // Runs it with these words of the shell; prepare() runs before it in its process.
    Peer start(const std::string &words, auto prepare) const {
        return Peer([&] {
            prepare();
            return become({"/bin/sh", "-c", "exec " + command(words)}, 0, 1, 2);
        });
    }
    std::string content() const {
        return exists(segment.path("out")) ? content_of(segment.path("out")) : "";
    }
    bool shows(const std::string &text, size_t from = 0) const {
        return comes_true([&] { return content().find(text, from) != std::string::npos; });
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
            const int status = monitor.wait();
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
        EXPECT_EQ(monitor.wait(), 0) << number;
        close(pipe[0]);
        close(pipe[1]);
    }
}

TEST_F(Watching, goes_on_behind_a_hang_up_that_it_was_told_to_ignore) {
    Peer monitor =
        start("log --watch 0.1 >" + segment.path("out"), [] { signal(SIGHUP, SIG_IGN); });
    ASSERT_TRUE(shows("MT01"));
    monitor.kill(SIGHUP);
    const size_t before = content().size();
    EXPECT_TRUE(comes_true([&] { return content().size() > before + 100; }));
    monitor.kill(SIGTERM);
    EXPECT_EQ(monitor.wait(), 0);
    for (const std::string &line : lines(content()))
        EXPECT_NE(line.find("MT01,____,"), std::string::npos) << line;
}

TEST_F(Watching, shows_the_segment_that_stands_there_now) {
    Peer monitor = start("plain --watch 0.1 >" + segment.path("out"), [] {});
    ASSERT_TRUE(shows("MT01"));
    remake(segment.key_file(), {"NEW1"});
    EXPECT_TRUE(shows("NEW1"));
    halvo::qm::remove(segment.key_file());
    EXPECT_TRUE(shows("waiting for a segment"));
    const size_t before = content().size();
    remake(segment.key_file(), {"NEW1"});
    EXPECT_TRUE(shows("NEW1", before));
    monitor.kill(SIGTERM);
    EXPECT_EQ(monitor.wait(), 0);
}

TEST_F(Watching, hears_a_key_although_it_was_started_in_the_background) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    const Terminal terminal(segment.path(""), 100, 20);
    terminal.run("set -m; " + command("plain --watch 60") +
                 " & sleep 0.5; fg; echo it ended with $?");
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    EXPECT_TRUE(comes_true([&] { // the first may come too early to be heard
        terminal.press("q");
        return terminal.shows("it ended with 0");
    }));
}

TEST_F(Watching, ends_at_ctrl_c_and_echoes_again) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    const Terminal terminal(segment.path(""), 100, 20);
    terminal.run("NO_COLOR=1 " + command("clients --watch 60"));
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    EXPECT_EQ(terminal.screen(true).find("\x1b[3"), std::string::npos);
    terminal.press("C-z");
    ASSERT_TRUE(terminal.wait_for("Stopped"));
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag}"), "0 1\n");
    terminal.run("fg; echo again $?");
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    terminal.press("C-c");
    ASSERT_TRUE(terminal.wait_for("\nagain 0"));
    terminal.run("stty -a | grep -q -e -icanon -e '-echo ' || echo as before");
    EXPECT_TRUE(terminal.wait_for("\nas before"));
}

// On the scenario's segment, which is idle, so that rows stand still.
TEST_F(Status, is_redrawn_in_place_and_leaves_the_terminal_as_it_was) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    q_0()->uptime = static_cast<int32_t>(now.tv_sec);
    mt->wtime = mt->rtime = 0;
    mt->lastin = mt->lastout = xcn->lastin = korea->lastin = korea->lastout = 0;
    const std::string options = write_file("options", "MT01 1 33\n  한국\n!HEADER 7\n");
    const Terminal terminal(segment.path(""), 150, 12);
    terminal.run("clear; echo before");
    terminal.run(HALVO_BIN "/halvo-mon --key " + segment.key_file() +
                 " --utf8 --sample 0 --watch 0.2 --options " + options + "; echo it ended with $?");
    ASSERT_TRUE(terminal.wait_for(utf8("최종발송"))); // the last line

    const std::vector<std::string> screen = lines(terminal.screen());
    ASSERT_EQ(screen.size(), 12u);
    EXPECT_EQ(screen[0], std::string(139, '='));
    EXPECT_EQ(screen[4].find("MT01                 0M ____  4K*100  1 "), 0u);
    EXPECT_EQ(screen[5].find(utf8("  한국               2D ____  0K*  8  0 ")), 0u);
    EXPECT_EQ(screen[7], "");
    EXPECT_NE(terminal.screen(true).find("\x1b[33m"), std::string::npos);
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag}"), "1 0\n");

    mt->gcnt.count = 999; // in place: the same rows, with the new count
    ASSERT_TRUE(terminal.wait_for("1/1       999/3"));
    EXPECT_EQ(lines(terminal.screen())[4].find("MT01 "), 0u);

    terminal.resize(40, 6); // cut to the size, and told so
    ASSERT_TRUE(terminal.wait_for("... 2 more lines"));
    ASSERT_TRUE(terminal.wait_for(utf8("\n최종발송")));
    EXPECT_EQ(lines(terminal.screen())[0], std::string(40, '='));
    terminal.resize(150, 12);
    ASSERT_TRUE(terminal.wait_for("1/1       999/3"));
    terminal.press("q");
    ASSERT_TRUE(terminal.wait_for("it ended with 0"));
    EXPECT_NE(terminal.screen().find("before"), std::string::npos);
    EXPECT_EQ(terminal.screen().find("HALVO Queue"), std::string::npos);
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag} #{wrap_flag}"), "0 1 1\n");
}
