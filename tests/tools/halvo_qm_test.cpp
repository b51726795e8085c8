#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tests/support/ring.h"
#include "tools/fixture/directory.h"
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
    const TestDirectory directory;
    const std::string key = directory.path("key"), config = HALVO_EXAMPLE_CONFIG;
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string told;
    } steps[] = {
        {{"create", config, "--key", key}, 0, ""},
        {{"check", "--key", key}, 0, ""},
        {{"create", config, "--key", key}, 1, "--replace"},
        {{"create", config, "--key", key, "--replace"}, 0, ""},
        {{"remove", "--key", key}, 0, ""},
        {{"remove", "--key", key}, 1, key},
        {{"list", "--key", key}, 2, key},
    };
    for (const auto &[arguments, status, told] : steps) {
        const Outcome outcome = halvo_qm(arguments);
        EXPECT_EQ(outcome.status, status) << outcome.err;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(is_one_line(outcome.err), status != 0) << outcome.err;
        EXPECT_NE(outcome.err.find(told), std::string::npos) << outcome.err;
    }
}

TEST(HalvoQm, a_wrong_configuration_is_one_line_and_creates_nothing) {
    const TestDirectory directory;
    const std::string config = directory.path("bad.toml"), key = directory.path("key");
    write_file(config, "[[channel]]\nname = 'MT01'\nslots = 0\nslot_size = 64\n");
    const Outcome outcome = halvo_qm({"create", config, "--key", key});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err,
              "halvo-qm: " + config + ":3: slots is 0; it must be from 1 to 4294967295\n");
    EXPECT_FALSE(exists(key));
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
    other->wpos += 4;
    const std::string wpos = std::to_string(other->wpos);
    EXPECT_EQ(halvo_qm({"check", "--key", s.key_file()}).err,
              "halvo-qm: channel 1 MO01: wpos " + wpos + " is no slot of the ring\n");
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
