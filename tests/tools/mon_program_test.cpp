// halvo-mon as its users run it.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tests/print/scenario.h"
#include "tests/support/fixed_clock.h"
#include "tests/support/terminal.h"

using namespace halvo::test;

namespace {

// The scenario's segment, with heartbeats of the real time.
class MonitorProgram : public Status {
protected:
    MonitorProgram() {
        for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG", "NO_COLOR"}) unsetenv(name);
        mt->wtime = mt->rtime = static_cast<int32_t>(real_time());
    }
    static time_t real_time() {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec;
    }
    // Runs it with the segment's key and no measuring of rates.
    Outcome run(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {HALVO_MON, "--key", segment.key_file()});
        arguments.insert(arguments.end(), {"--sample", "0"});
        return run_program(arguments);
    }
    static bool shows(const Outcome &outcome, const std::string &part) {
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out.find(part) != std::string::npos;
    }
};

} // namespace

TEST_F(MonitorProgram, shows_a_table_without_escapes_where_there_is_no_terminal) {
    const Outcome outcome = run({});
    EXPECT_TRUE(shows(outcome, "\nMT01                 0M WR__  4K*100  1 "));
    EXPECT_TRUE(shows(outcome, "\n한국                 2D ____  0K*  8  0 "));
    EXPECT_EQ(outcome.out.find('\x1b'), std::string::npos);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out.substr(0, 3), "==="); // and nothing of the library's own lines
    EXPECT_EQ(run({"table"}).out.substr(0, 3), "===");
    EXPECT_TRUE(shows(run({"--color", "always"}), "\x1b[0mMT01 "));
    EXPECT_TRUE(shows(run({"--utf8"}), utf8("\n한국   ")));
    EXPECT_FALSE(shows(run({"--active"}), "한국"));
}

TEST_F(MonitorProgram, has_a_command_for_every_view) {
    for (const int type : {5, 6, 7}) q_0()->qtcnt[type].tstart = 1;
    EXPECT_TRUE(shows(run({"plain"}), "\n MT01        # 0M WR__  4K*100  1    0 "));
    EXPECT_TRUE(shows(run({"classic"}), "\n MT01        # 0M WR__  4096* 100    0 "));
    EXPECT_TRUE(shows(run({"types", "rep"}), "MASTER   report \n"));
    EXPECT_TRUE(shows(run({"clients"}), "      MT01  4101, 4102 | "));
    EXPECT_TRUE(shows(run({"log"}), "\tMT01,WR__,1,0,0,2,2,998,"));
    EXPECT_TRUE(shows(run({"xml"}), "<smsqm><q name=\"MT01\""));
    EXPECT_TRUE(shows(run({"json"}), "{\"smsqm\":[{ \"name\":\"MT01\""));
    EXPECT_TRUE(shows(run({"prometheus"}), "\nhalvo_channels 3\n"));
}

TEST_F(MonitorProgram, writes_documents_and_metrics_that_other_programs_read) {
    const auto file = [&](const char *command) {
        return write_file(command, run({command, "--utf8"}).out);
    };
    EXPECT_EQ(output_of("xmllint --xpath 'count(//q)' " + file("xml")), "3\n");
    EXPECT_EQ(output_of("jq -r '.smsqm[2].name' " + file("json")), utf8("한국\n"));
    const std::string metrics = segment.path("halvo.prom");
    EXPECT_EQ(run({"prometheus", "--output", metrics}).out, "");
    EXPECT_EQ(output_of("grep -c '^halvo_channels 3$' " + metrics), "1\n");
    EXPECT_EQ(run({"prometheus", "--output", segment.path("no/such/place")}).status, 1);
}

TEST_F(MonitorProgram, counts_from_a_snapshot_that_it_takes_saves_and_loads) {
    const std::string file = segment.path("midnight");
    const auto done = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {"xml", "--snapshot", file});
        const std::string xml = run(more).out;
        const size_t at = xml.find("<done>") + 6;
        return xml.substr(at, xml.find('<', at) - at);
    };
    EXPECT_EQ(done({}), "0"); // taken now
    mt->gcnt.count += 2;
    EXPECT_EQ(done({}), "2");
    EXPECT_TRUE(shows(run({"--snapshot", file}), "경과 0분."));
    EXPECT_EQ(done({"--take"}), "0");
    EXPECT_EQ(done({}), "0");
    EXPECT_EQ(run({"--take"}).status, 2);
}

TEST_F(MonitorProgram, refuses_snapshots_that_are_not_of_this_segment) {
    const std::string file = segment.path("snapshot");
    const auto refused = [&](const std::string &why) {
        const Outcome outcome = run({"xml", "--snapshot", file});
        return outcome.status == 2 && outcome.err.find(why) != std::string::npos;
    };
    write_file("snapshot", "something else");
    EXPECT_TRUE(refused("no snapshot of this segment"));
    EXPECT_EQ(run({"xml", "--snapshot", file, "--take"}).status, 0);
    std::strcpy(korea->qname, "renamed");
    EXPECT_TRUE(refused("no snapshot of this segment"));
    std::strcpy(korea->qname, "한국");
    q_0()->uptime += 1;
    EXPECT_TRUE(refused("older than the segment"));
    EXPECT_EQ(run({"--snapshot", segment.path("no/such/place")}).status, 1);
}

TEST_F(MonitorProgram, refuses_a_snapshot_of_an_earlier_segment_of_the_same_channels) {
    const std::string file = segment.path("snapshot");
    EXPECT_EQ(run({"xml", "--snapshot", file}).status, 0);
    halvo::qm::SegmentPlan plan;
    for (const char *name : {"MT01", "XCN1", "한국"})
        plan.channels.push_back({name, 'M', 4, 64, 0});
    halvo::qm::create(plan, segment.key_file(), true); // within the same second
    const Outcome outcome = run({"xml", "--snapshot", file});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.err.find("older than the segment"), std::string::npos) << outcome.err;
}

TEST_F(MonitorProgram, tells_collectors_of_a_segment_that_is_gone) {
    const std::string metrics = segment.path("halvo.prom");
    EXPECT_EQ(run({"prometheus", "-o", metrics}).status, 0);
    EXPECT_EQ(output_of("grep -x 'halvo_up 1' " + metrics), "halvo_up 1\n");
    halvo::qm::remove(segment.key_file());
    EXPECT_EQ(run({"prometheus", "-o", metrics}).status, 2);
    EXPECT_EQ(output_of("grep '^halvo_[uc]' " + metrics), "halvo_up 0\n");
}

TEST_F(MonitorProgram, writes_documents_that_parse_whatever_a_channel_is_called) {
    std::strcpy(mt->qname, "<a&\"b\\c\x01>");
    std::strcpy(xcn->qname, "\" id=\"0\" type=\"M\">");
    korea->qtype = '<';
    const std::string xml = write_file("xml", run({"xml"}).out);
    EXPECT_EQ(output_of("xmllint --xpath 'string(//q[1]/@name)' " + xml), "<a&\"b\\c?>\n");
    EXPECT_EQ(output_of("xmllint --xpath 'string(//q[2]/@name)' " + xml),
              "\" id=\"0\" type=\"M\">\n");
    EXPECT_EQ(output_of("xmllint --xpath 'string(//q[3]/@type)' " + xml), "<\n");
    const std::string json = write_file("json", run({"json"}).out);
    EXPECT_EQ(output_of("jq -j '.smsqm[0].name' " + json), "<a&\"b\\c\x01>");
    EXPECT_EQ(output_of("jq -j '.smsqm[1].name, .smsqm[2].name' " + json),
              "\" id=\"0\" type=\"M\">" + utf8("한국"));
}

TEST_F(MonitorProgram, shows_types_in_lines_of_a_readable_length) {
    size_t longest = 0;
    const std::string out = run({"types"}).out;
    for (const std::string &line : lines(out)) longest = std::max(longest, line.size());
    EXPECT_LE(longest, 139u); // the banner
    EXPECT_NE(out.find("\n한국                       5 submit                            40"),
              std::string::npos)
        << out;
}

TEST_F(MonitorProgram, follows_an_options_file) {
    const std::string file = write_file("options", "  한국 4\nMT01\n");
    const std::string out = run({"--options", file}).out;
    EXPECT_LT(out.find("\n  한국 "), out.find("\nMT01 "));
    EXPECT_EQ(out.find("XCN1"), std::string::npos);
    EXPECT_EQ(run({"--options", segment.path("missing")}).status, 2);
}

TEST_F(MonitorProgram, measures_rates_before_it_shows_them) {
    Peer writer([&] {
        for (;; usleep(1000)) mt->gcnt.count += 1;
        return 0;
    });
    const Outcome outcome = run_program(
        {HALVO_MON, "log", "--key", segment.key_file(), "--sample", "0.5", "--no-utf8"});
    const size_t at = outcome.out.find("\tMT01,WR__,1,") + 13;
    const int rate = std::atoi(outcome.out.c_str() + at);
    EXPECT_GT(rate, 10); // a thousand on an idle machine
    EXPECT_LT(rate, 1100);
}

TEST_F(MonitorProgram, answers_a_check_by_its_exit_status) {
    const auto status = [&](std::vector<std::string> limits, const char *word) {
        limits.insert(limits.begin(), "check");
        const Outcome outcome = run(limits);
        EXPECT_EQ(outcome.out.find(std::string("HALVO ") + word + " - "), 0u) << outcome.out;
        EXPECT_EQ(lines(outcome.out).size(), 1u);
        return outcome.status;
    };
    EXPECT_EQ(status({"--warning", "500"}, "OK"), 0);
    EXPECT_EQ(status({"--warning", "499"}, "WARNING"), 1);
    EXPECT_EQ(status({"--critical", "0", "--channel", "MT01"}, "CRITICAL"), 2);
    EXPECT_EQ(status({"--critical-age", "3600", "--channel", "MT01"}, "OK"), 0);
    EXPECT_EQ(status({"--channel", "NOBODY"}, "UNKNOWN"), 3);
    EXPECT_EQ(status({"--warning", "many"}, "UNKNOWN"), 3);
    const Outcome nowhere = run_program({HALVO_MON, "check", "--key", segment.path("missing")});
    EXPECT_EQ(nowhere.status, 3);
    EXPECT_EQ(nowhere.out.find("HALVO UNKNOWN - "), 0u);
    const Outcome full =
        run_program({"/bin/sh", "-c",
                     std::string(HALVO_MON) + " check -k " + segment.key_file() + " >/dev/full"});
    EXPECT_EQ(full.status, 3);
    EXPECT_LT(run({"check", "--critical", "-1"}).out.size(), 120u);
}

TEST_F(MonitorProgram, checks_each_channel_by_its_own_limits) {
    const auto answer = [&](const std::string &limits, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"check", "--limits", write_file("limits", limits)});
        const std::string out = run(more).out;
        return out.substr(6, out.find(" |") - 6);
    };
    EXPECT_EQ(answer("[default]\nwarning = 1\n[channel.XCN1]\ncritical = 1000\nwarning = 999\n"
                     "[channel.'" +
                     utf8("한국") + "']\nignore = true"),
              "WARNING - MT01 backlog 2");
    EXPECT_EQ(answer("[channel.MT01]\nheld = 'both'", {"--critical", "600"}),
              "CRITICAL - MT01 writer is not there; MT01 reader is not there");
    ASSERT_NE(segment.open("MT01", 'w'), nullptr);
    EXPECT_EQ(answer("[channel.MT01]\nheld = 'writer'"), "OK - 3 channels, backlog 505");
    EXPECT_EQ(answer("", {"--held", "writer", "--channel", "MT01"}), "OK - 1 channels, backlog 2");
    const std::string where = "UNKNOWN - " + segment.path("limits");
    EXPECT_EQ(answer("[channel.MT99]"), "UNKNOWN - no channel named MT99\n");
    for (const auto &[text, fault] : std::vector<std::pair<const char *, const char *>>{
             {"[default]\nwarnings = 1", ":2: unknown key \"warnings\"\n"},
             {"[default]\nwarning = -1", ":2: warning must be a whole number from 0 on\n"},
             {"[default]\nheld = 'me'",
              ":2: held must be \"reader\", \"writer\", \"both\" or \"none\"\n"},
             {"limits = 1", ":1: there are [default] and [channel.NAME]\n"}})
        EXPECT_EQ(answer(text), where + fault);
}

TEST_F(MonitorProgram, answers_a_check_of_all_possible_channels_in_4_KB) {
    SegmentBuilder builder;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        builder.channel("a_channel_named_" + std::to_string(i), 'M', 1, 64);
    const Segment large = builder.build();
    const Outcome outcome = run_program(
        {HALVO_MON, "check", "--key", large.key_file(), "--critical-age", "1", "--held", "both"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_LT(outcome.out.size(), 4096u);
    EXPECT_NE(outcome.out.find(" 'backlog'=0;;;0 "), std::string::npos) << outcome.out;
}

TEST_F(MonitorProgram, tells_all_options_of_a_view) {
    for (const char *view : {"table", "check"}) {
        const std::string help = run({view, "--help"}).out;
        for (const char *option : {"-k,--key", "--snapshot", "--watch"})
            EXPECT_NE(help.find(option), std::string::npos) << view;
    }
}

TEST_F(MonitorProgram, tells_what_is_wrong) {
    EXPECT_EQ(run_program({HALVO_MON}).status, 2);
    const Outcome nowhere = run_program({HALVO_MON, "--key", segment.path("missing")});
    EXPECT_EQ(nowhere.status, 2);
    EXPECT_NE(nowhere.err.find("no such key file"), std::string::npos);
    EXPECT_EQ(run({"xml", "--watch", "1"}).status, 2);
    EXPECT_EQ(run({"sideways"}).status, 2);
    EXPECT_EQ(run({"--help"}).status, 0);
}

TEST_F(MonitorProgram, watches_a_log_until_it_is_told_to_end) {
    const std::string log = segment.path("log");
    Peer monitor([&] {
        execl("/bin/sh", "sh", "-c", "exec \"$0\" log --key \"$1\" --sample 0 --watch 0.1 >\"$2\"",
              HALVO_MON, segment.key_file().c_str(), log.c_str(), static_cast<char *>(nullptr));
        return 127;
    });
    const auto lines_written = [&] {
        std::ifstream in(log);
        int count = 0;
        for (std::string line; std::getline(in, line);) ++count;
        return count;
    };
    for (int tries = 0; lines_written() < 3 && tries < 200; ++tries) usleep(50000);
    monitor.kill(SIGTERM);
    EXPECT_EQ(monitor.wait(), 0);
    EXPECT_GE(lines_written(), 3);
    EXPECT_EQ(output_of("grep -c 'MT01,WR__,1,' " + log), std::to_string(lines_written()) + "\n");
}

namespace {

class OnTerminal : public MonitorProgram {
protected:
    OnTerminal() {
        q_0()->uptime = static_cast<int32_t>(real_time());
        mt->wtime = mt->rtime = 0; // idle, so that rows stand still
        mt->lastin = mt->lastout = xcn->lastin = korea->lastin = korea->lastout = 0;
    }
    std::string command(const std::string &more) const {
        return std::string(HALVO_MON) + " --key " + segment.key_file() + " --utf8 --sample 0 " +
               more + "; echo it ended with $?";
    }
};

} // namespace

TEST_F(OnTerminal, redraws_in_place_and_leaves_the_terminal_as_it_was) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    const std::string options = write_file("options", "MT01 1 33\n  한국\n!HEADER 7\n");
    const Terminal terminal(segment.path(""), 150, 12);
    terminal.type("clear; echo before");
    terminal.press("Enter");
    terminal.type(command("--watch 0.2 --options " + options));
    terminal.press("Enter");
    ASSERT_TRUE(terminal.wait_for(utf8("최종발송"))); // the last line

    const std::vector<std::string> screen = lines(terminal.screen());
    ASSERT_EQ(screen.size(), 12u);
    EXPECT_EQ(screen[0], std::string(139, '='));
    EXPECT_EQ(screen[1].find(utf8("☆    HALVO Queue Monitor Release1.02 Uptime: 0days 현재:")), 0u);
    EXPECT_EQ(screen[2], screen[0]);
    EXPECT_EQ(screen[3].find("QUEUE                #T WRWR SZ*CNT RX  TPS/MX "), 0u);
    EXPECT_EQ(screen[4], "MT01                 0M ____  4K*100  1 " + std::string(14, ' ') +
                             "2/2       998/3" + std::string(29, ' ') +
                             "_F _____                  4101   4102");
    EXPECT_EQ(screen[5].find(utf8("  한국               2D ____  0K*  8  0 ")), 0u);
    EXPECT_EQ(screen[6].find(utf8("최종발송            MT01")), 0u);
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
    EXPECT_EQ(lines(terminal.screen())[5].find(utf8("최종발송")), 0u);

    terminal.resize(150, 12);
    ASSERT_TRUE(terminal.wait_for("1/1       999/3"));
    terminal.press("q");
    ASSERT_TRUE(terminal.wait_for("it ended with 0"));
    EXPECT_NE(terminal.screen().find("before"), std::string::npos);
    EXPECT_EQ(terminal.screen().find("HALVO Queue"), std::string::npos);
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag} #{wrap_flag}"), "0 1 1\n");
}

TEST_F(OnTerminal, ends_at_ctrl_c_and_echoes_again) {
    if (!Terminal::available()) GTEST_SKIP() << "needs " << Terminal::program();
    const Terminal terminal(segment.path(""), 100, 20);
    terminal.type("NO_COLOR=1 " + command("clients --watch 60"));
    terminal.press("Enter");
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    EXPECT_EQ(terminal.screen(true).find("\x1b[3"), std::string::npos);
    terminal.press("C-z");
    ASSERT_TRUE(terminal.wait_for("Stopped"));
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag}"), "0 1\n");
    terminal.type("fg; echo again $?");
    terminal.press("Enter");
    ASSERT_TRUE(terminal.wait_for("MT01 "));
    terminal.press("C-c");
    ASSERT_TRUE(terminal.wait_for("\nagain 0"));
    terminal.type("stty -a | grep -q -e -icanon -e '-echo ' || echo as before");
    terminal.press("Enter");
    EXPECT_TRUE(terminal.wait_for("\nas before"));
}
