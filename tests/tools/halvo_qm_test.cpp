#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "tools/fixture/directory.h"
#include "tests/support/peer.h"
#include "tests/support/program.h"
#include "tests/support/ring.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {
namespace {

Outcome halvo_qm(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HALVO_QM);
    return run_program(arguments);
}

bool is_one_line(const std::string &text) {
    return std::count(text.begin(), text.end(), '\n') == 1 && text.back() == '\n' &&
           text.rfind("halvo-qm: ", 0) == 0;
}

TEST(HalvoQm, takes_a_segment_through_its_life) {
    const std::string directory = make_test_directory();
    const std::string key = directory + "/key";
    const Descriptor janitor = start_janitor(directory, key);

    const Outcome created = halvo_qm({"create", HALVO_EXAMPLE_CONFIG, "--key", key});
    EXPECT_EQ(created.status, 0) << created.err;
    EXPECT_EQ(created.out + created.err, "");
    const Outcome checked = halvo_qm({"check", "--key", key});
    EXPECT_EQ(checked.status, 0) << checked.err;
    const Outcome again = halvo_qm({"create", HALVO_EXAMPLE_CONFIG, "--key", key});
    EXPECT_EQ(again.status, 1);
    EXPECT_TRUE(is_one_line(again.err)) << again.err;
    EXPECT_NE(again.err.find("--replace"), std::string::npos) << again.err;
    EXPECT_EQ(halvo_qm({"create", HALVO_EXAMPLE_CONFIG, "--key", key, "--replace"}).status, 0);
    EXPECT_EQ(halvo_qm({"remove", "--key", key}).status, 0);
    const Outcome nothing = halvo_qm({"remove", "--key", key});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_TRUE(is_one_line(nothing.err)) << nothing.err;
    EXPECT_EQ(halvo_qm({"list", "--key", key}).status, 2);

    remove_tree(directory);
}

TEST(HalvoQm, a_wrong_configuration_is_one_line_and_creates_nothing) {
    const std::string directory = make_test_directory();
    std::ofstream(directory + "/bad.toml") << "[[channel]]\nname = 'MT01'\nslots = 0\n"
                                              "slot_size = 64\n";
    const Outcome outcome =
        halvo_qm({"create", directory + "/bad.toml", "--key", directory + "/key"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "halvo-qm: " + directory +
                               "/bad.toml:3: slots is 0; it must be from 1 to 4294967295\n");
    EXPECT_NE(access((directory + "/key").c_str(), F_OK), 0);
    remove_tree(directory);
}

TEST(HalvoQm, list_shows_the_channels_as_a_table) {
    const Segment s =
        SegmentBuilder().channel("MT01", 'M', 4, 64, 50).channel("FQ01", 'F', 16, 2048).build();
    s.attach();
    halvo_channel *q = s.channel("MT01");
    write(q, "one");
    write(q, "two");
    q->pidp = 12345;
    std::strcpy(q->pname, "gate\033way");
    s.channel("FQ01")->fpcnt.count = 7;
    const Outcome outcome = halvo_qm({"list", "--key", s.key_file()});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out,
              "NUMBER  NAME  TYPE  SLOTS  SLOT-SIZE  WAITING  WRITER  WRITER-NAME  READER  "
              "READER-NAME  RATE-LIMIT\n"
              "0       MT01  M     4      64         2        12345   gate?way     -       -"
              "            50\n"
              "1       FQ01  F     16     2048       7        -       -            -       -"
              "            -\n");
    s.open("MT01", 'w');
    const std::string held = halvo_qm({"list", "--key", s.key_file()}).out;
    EXPECT_NE(held.find(std::to_string(getpid()) + "*"), std::string::npos) << held;
}

TEST(HalvoQm, check_tells_faults_line_by_line) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    s.attach();
    s.channel("MT01")->wpos += 4;
    const std::string wpos = std::to_string(s.channel("MT01")->wpos);
    const Outcome outcome = halvo_qm({"check", "--key", s.key_file()});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "halvo-qm: channel 0 MT01: wpos " + wpos + " is no slot of the ring\n");
}

TEST(HalvoQm, check_repairs_what_a_dead_writer_left) {
    const Segment s =
        SegmentBuilder().channel("MT01", 'M', 4, 64).channel("MO01", 'M', 4, 64).build();
    s.attach();
    halvo_channel *q = s.channel("MT01"), *other = s.channel("MO01");
    Peer dead([] { return 0; });
    q->pidp = dead.pid();
    EXPECT_EQ(dead.wait(), 0);
    for (halvo_channel *each : {q, other}) { // both stopped between a state and the position
        write(each, "one");
        each->wpos = each->qstart;
    }
    s.open("MO01", 'w'); // this one's writer lives, and may go on
    const Outcome outcome = halvo_qm({"check", "--repair", "--key", s.key_file()});
    EXPECT_EQ(outcome.out,
              "channel 0 MT01, writer: moved the position to where the slots say it is\n");
    EXPECT_EQ(q->wpos, q->qstart + q->qbsz);
    EXPECT_EQ(other->wpos, other->qstart);
    EXPECT_EQ(outcome.status, 1) << "the other channel's fault stands";
    EXPECT_EQ(outcome.err.find("halvo-qm: channel 1 MO01: "), 0u) << outcome.err;
}

TEST(HalvoQm, wrong_usage_is_told_in_one_line) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"destroy"},
        {"check"},
        {"create", "--key", "k"},
        {"list", "--key", "k", "more"},
        {"create", "c", "--key", "k", "--mode", "0888"},
        {"create", "c", "--key", "k", "--mode", ""},
        {"check", "--key", "/nonexistent/key"},
        {"remove", "--key", ""},
        {"create", HALVO_EXAMPLE_CONFIG, "--key", "/nonexistent/key"},
    };
    for (const auto &arguments : wrong) {
        const Outcome outcome = halvo_qm(arguments);
        EXPECT_EQ(outcome.status, 2) << outcome.err;
        EXPECT_TRUE(is_one_line(outcome.err)) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    const Outcome help = halvo_qm({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit status:"), std::string::npos);
    EXPECT_EQ(halvo_qm({"--version"}).status, 0);
}

} // namespace
} // namespace halvo::test
