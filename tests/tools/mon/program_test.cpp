// halvo-mon as its users run it: what it prints, and how it ends.
#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/ipc.h"
#include "tests/support/program.h"

using namespace halvo::test;

namespace {

const std::string kMonitor = HALVO_BIN "/halvo-mon";

// The scenario's segment, with heartbeats of the real time.
class MonitorProgram : public Status {
protected:
    MonitorProgram() {
        for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG", "NO_COLOR"}) unsetenv(name);
        beat();
    }
    void beat() const { // in time for the next look, however slow the machine is
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        mt->wtime = mt->rtime = static_cast<int32_t>(now.tv_sec);
    }
    // Runs it with the segment's key and no measuring of rates.
    Outcome run(std::vector<std::string> arguments) const {
        beat();
        arguments.insert(arguments.begin(), {kMonitor, "--key", segment.key_file()});
        arguments.insert(arguments.end(), {"--sample", "0"});
        return run_program(arguments);
    }
};

} // namespace

TEST_F(MonitorProgram, has_a_command_for_every_view) {
    const Outcome types = run({"types"});
    expect_end(types, 0, "\n한국                       5 submit                            40");
    for (const std::string &line : lines(types.out)) EXPECT_LE(line.size(), 139u) << line;
    for (const int type : {5, 6, 7}) q_0()->qtcnt[type].tstart = 1;
    const std::string options = write_file("options", "  한국 4\nMT01\n");
    const std::vector<std::pair<std::vector<std::string>, std::string>> views = {
        {{}, "\nMT01                 0M WR__  4K*100  1 "},
        {{}, "\n한국                 2D ____  0K*  8  0 "},
        {{"table"}, "\nMT01  "},
        {{"--color", "always"}, "\x1b[0mMT01 "},
        {{"--utf8"}, utf8("\n한국   ")},
        {{"--options", options}, "\n  한국 "},
        {{"plain"}, "\n MT01        # 0M WR__  4K*100  1    0 "},
        {{"classic"}, "\n MT01        # 0M WR__  4096* 100    0 "},
        {{"types", "rep"}, "MASTER   report \n"},
        {{"clients"}, "      MT01  4101, 4102 | "},
        {{"log"}, "\tMT01,WR__,1,0,0,2,2,998,"},
        {{"xml"}, "<smsqm><q name=\"MT01\""},
        {{"json"}, "{\"smsqm\":[{ \"name\":\"MT01\""},
        {{"prometheus"}, "\nhalvo_channels 3\n"},
        {{"--help"}, "Examples:"}};
    for (const auto &[words, text] : views) expect_end(run(words), 0, text);

    const Outcome table = run({});
    EXPECT_EQ(table.out.find('\x1b'), std::string::npos) << "there is no terminal";
    EXPECT_EQ(table.err, "");
    EXPECT_EQ(table.out.substr(0, 3), "==="); // and nothing of the library's own lines
    EXPECT_EQ(run({"--active"}).out.find("한국"), std::string::npos);
}

TEST_F(MonitorProgram, tells_what_is_wrong) {
    const std::string nowhere = segment.path("no/such/place");
    expect_end(run_program({kMonitor}), 2, "--key");
    expect_end(run_program({kMonitor, "--key", nowhere}), 2, "no such key file");
    const std::string dumb = "TERM=dumb " + kMonitor + " top --key " + segment.key_file();
    expect_end(run_program({"/usr/bin/script", "-qec", dumb, "/dev/null"}), 2,
               "cannot show a screen");
    const std::vector<std::pair<std::vector<std::string>, int>> wrong = {
        {{"xml", "--watch", "1"}, 2},
        {{"sideways"}, 2},
        {{"--take"}, 2},
        {{"--options", nowhere}, 2},
        {{"--snapshot", nowhere}, 1},
        {{"prometheus", "--output", nowhere}, 1}};
    for (const auto &[words, status] : wrong) expect_end(run(words), status);
}

TEST_F(MonitorProgram, writes_documents_that_parse_whatever_a_channel_is_called) {
    EXPECT_EQ(
        output_of("jq -r '.smsqm[2].name' " + write_file("utf8", run({"json", "--utf8"}).out)),
        utf8("한국\n"));
    std::strcpy(mt->qname, "<a&\"b\\c\x01>");
    std::strcpy(xcn->qname, "\" id=\"0\" type=\"M\">");
    korea->qtype = '<';
    const auto xml = [&](const std::string &query) {
        const std::string file = write_file("xml", run({"xml", "--utf8"}).out);
        return output_of("xmllint --xpath '" + query + "' " + file);
    };
    EXPECT_EQ(xml("count(//q)"), "3\n");
    EXPECT_EQ(xml("string(//q[1]/@name)"), "<a&\"b\\c?>\n");
    EXPECT_EQ(xml("string(//q[2]/@name)"), "\" id=\"0\" type=\"M\">\n");
    EXPECT_EQ(xml("string(//q[3]/@type)"), "<\n");
    EXPECT_EQ(output_of("jq -j '.smsqm[].name' " + write_file("json", run({"json"}).out)),
              "<a&\"b\\c\x01>\" id=\"0\" type=\"M\">" + utf8("한국"));
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
    expect_end(run({"--snapshot", file}), 0, "경과 0분.");
    EXPECT_EQ(done({"--take"}), "0");
    EXPECT_EQ(done({}), "0");
}

TEST_F(MonitorProgram, refuses_snapshots_that_are_not_of_this_segment) {
    const std::string file = write_file("snapshot", "something else");
    const auto refused = [&](const std::string &why) {
        expect_end(run({"xml", "--snapshot", file}), 2, why);
    };
    refused("no snapshot of this segment");
    expect_end(run({"xml", "--snapshot", file, "--take"}), 0);
    std::strcpy(korea->qname, "renamed");
    refused("no snapshot of this segment");
    std::strcpy(korea->qname, "한국");
    remake(segment.key_file(), {"MT01", "XCN1", "한국"});
    expect_end(run({"xml", "--snapshot", file, "--take"}), 0);
    remake(segment.key_file(), {"MT01", "XCN1", "한국"}); // within the same second
    refused("older than the segment");
}

TEST_F(MonitorProgram, tells_collectors_of_a_segment_that_is_gone) {
    const std::string metrics = segment.path("halvo.prom");
    EXPECT_EQ(run({"prometheus", "-o", metrics}).out, "");
    EXPECT_EQ(output_of("grep '^halvo_[uc][ph][a-z]* ' " + metrics),
              "halvo_up 1\nhalvo_channels 3\n");
    halvo::qm::remove(segment.key_file());
    expect_end(run({"prometheus", "-o", metrics}), 2);
    EXPECT_EQ(output_of("grep '^halvo_[uc]' " + metrics), "halvo_up 0\n");
}

TEST_F(MonitorProgram, measures_rates_before_it_shows_them) {
    Peer writer([&] {
        for (;; usleep(1000)) mt->gcnt.count += 1;
    });
    const Outcome outcome =
        run_program({kMonitor, "log", "--key", segment.key_file(), "--sample", "0.5", "--no-utf8"});
    const size_t at = outcome.out.find("\tMT01,WR__,1,") + 13;
    const int rate = std::atoi(outcome.out.c_str() + at);
    EXPECT_GT(rate, 10); // a thousand on an idle machine
    EXPECT_LT(rate, 1100);
}

TEST_F(MonitorProgram, answers_a_check_by_its_exit_status) {
    const std::vector<std::pair<std::vector<std::string>, int>> checks = {
        {{"--warning", "500"}, 0},
        {{"--warning", "499"}, 1},
        {{"--critical", "0", "--channel", "MT01"}, 2},
        {{"--critical-age", "3600", "--channel", "MT01"}, 0},
        {{"--channel", "NOBODY"}, 3},
        {{"--warning", "many"}, 3},
        {{"--key", segment.path("missing")}, 3}};
    const char *const words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    for (auto [limits, status] : checks) {
        if (limits[0] != "--key") limits.insert(limits.end(), {"--key", segment.key_file()});
        limits.insert(limits.begin(), {kMonitor, "check"});
        const Outcome outcome = run_program(limits);
        EXPECT_EQ(outcome.status, status) << outcome.out;
        EXPECT_EQ(outcome.out.find(std::string("HALVO ") + words[status] + " - "), 0u);
        EXPECT_EQ(lines(outcome.out).size(), 1u) << outcome.out;
    }
    EXPECT_LT(run({"check", "--critical", "-1"}).out.size(), 120u);
    expect_end(run_program(
                   {"/bin/sh", "-c", kMonitor + " check -k " + segment.key_file() + " >/dev/full"}),
               3);
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
    EXPECT_EQ(answer("[channel.MT99]"), "UNKNOWN - no channel named MT99\n");
    for (const auto &[text, fault] : std::vector<std::pair<const char *, const char *>>{
             {"[default]\nwarnings = 1", ":2: unknown key \"warnings\"\n"},
             {"[default]\nwarning = -1", ":2: warning must be a whole number from 0 on\n"},
             {"[default]\nheld = 'me'",
              ":2: held must be \"reader\", \"writer\", \"both\" or \"none\"\n"},
             {"limits = 1", ":1: there are [default] and [channel.NAME]\n"}})
        EXPECT_EQ(answer(text), "UNKNOWN - " + segment.path("limits") + fault);
}

TEST_F(MonitorProgram, answers_a_check_of_all_possible_channels_in_4_KB) {
    SegmentBuilder builder;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        builder.channel("a_channel_named_" + std::to_string(i), 'M', 1, 64);
    const Segment large = builder.build();
    const Outcome outcome = run_program(
        {kMonitor, "check", "--key", large.key_file(), "--critical-age", "1", "--held", "both"});
    expect_end(outcome, 2, " 'backlog'=0;;;0 ");
    EXPECT_LT(outcome.out.size(), 4096u);
}
