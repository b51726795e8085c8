// halvo-qm as operators run it.
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tests/support/ring.h"

namespace halvo::test {
namespace {

Outcome halvo_qm(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HALVO_BIN "/halvo-qm");
    return run_program(arguments);
}

TEST(HalvoQm, takes_a_segment_through_its_life_and_tells_faults_in_one_line) {
    const TestDirectory directory;
    const std::string key = directory.path("key"), config = HALVO_EXAMPLE_CONFIG,
                      bad = directory.path("bad.toml");
    write_file(bad, "[[channel]]\nname = 'MT01'\nslots = 0\nslot_size = 64\n");
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string told;
    } steps[] = {
        {{"create", bad, "--key", key}, 2, bad + ":3: slots is 0; it must be from 1 to 4294967295"},
        {{"create", config, "--key", key}, 0, ""},
        {{"check", "--key", key}, 0, ""},
        {{"create", config, "--key", key}, 1, "--replace"},
        {{"create", config, "--key", key, "--replace"}, 0, ""},
        {{"remove", "--key", key}, 0, ""},
        {{"remove", "--key", key}, 1, key},
        {{}, 2, ""},
        {{"destroy"}, 2, "not expected here: destroy"},
        {{"check"}, 2, "--key"},
        {{"create", "c", "--key", "k", "--mode", "0888"}, 2, ""},
        {{"check", "--key", "/nonexistent/key"}, 2, ""},
        {{"check", "--key", "/"}, 2, ""}, // a key file without a segment
        {{"remove", "--key", ""}, 2, ""},
        {{"create", config, "--key", "/nonexistent/key"}, 2, ""},
    };
    for (const auto &[arguments, status, told] : steps) {
        const Outcome outcome = halvo_qm(arguments);
        expect_end(outcome, status, told);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), status != 0);
        EXPECT_EQ(outcome.err.rfind("halvo-qm: ", 0) == 0, status != 0) << outcome.err;
    }
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
    EXPECT_EQ(halvo_qm({"list", "--key", s.key_file()}).out,
              "NUMBER  NAME  TYPE  SLOTS  SLOT-SIZE  WAITING  WRITER  WRITER-NAME  READER  "
              "READER-NAME  RATE-LIMIT\n"
              "0       MT01  M     4      64         2        12345   gate?way     -       -"
              "            50\n"
              "1       FQ01  F     16     2048       7        -       -            -       -"
              "            -\n");
    s.open("MT01", 'w');
    expect_end(halvo_qm({"list", "--key", s.key_file()}), 0, std::to_string(getpid()) + "*");
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
    EXPECT_EQ(halvo_qm({"check", "--key", s.key_file()}).err, "halvo-qm: channel 1 MO01: wpos " +
                                                                  std::to_string(other->wpos) +
                                                                  " is no slot of the ring\n");
}

} // namespace
} // namespace halvo::test
