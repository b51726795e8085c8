// The record: what was put in comes out again, wherever one looks, within its size.
#include <sys/stat.h>

#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/files.h"
#include "tests/support/terminal.h"
#include "tests/tools/mon/samples.h"
#include "tools/frame/output.h"
#include "tools/mon/record/replay.h"

using namespace halvo::mon;
using namespace halvo::test;

namespace {

class Records : public testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("TZ", "UTC0", 1);
        // Each look is synchronised, for which a busy disk may take a second.
        if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    }

    // Ten channels; the first grows by one a look and has no reader, the others stand still.
    static Sample sample_at(int look) {
        std::vector<std::pair<std::string, uint64_t>> channels{
            {utf8("한국"), static_cast<uint64_t>(look)}};
        for (int i = 1; i < 10; ++i) channels.emplace_back("C" + std::to_string(i), 1000);
        Sample sample = sample_of(kNow + look, channels);
        sample.id = 7;
        for (ChannelSample &channel : sample.channels) {
            channel.slots = 64;
            channel.got = channel.number == 0 ? 0 : 1000;
            channel.writer = {"a 'writer'", 4711, Held::yes, true, static_cast<int32_t>(kNow)};
            channel.reader.held = Held::no;
        }
        return sample;
    }
    void keep(int looks, int64_t most = 1 << 30) {
        Recorder recorder(file, most);
        for (int i = 0; i < looks; ++i) recorder.add(sample_at(next++));
    }
    const TestDirectory directory;
    const std::string file = directory.path("rec");
    int next = 0;
};

} // namespace

TEST_F(Records, are_right_also_where_two_recorders_write_one) {
    Recorder one(file, 1 << 30), other(file, 1 << 30);
    Sample back = sample_at(0);
    back.time += 2;
    one.add(sample_at(0));
    other.add(sample_at(1));
    one.add(back);
    other.add(back);
    RecordSource both(file);
    EXPECT_EQ(both.size(), 3);
    EXPECT_EQ(both.take().channels[0].put, 0U);
}

TEST_F(Records, say_so_when_the_clock_went_back) {
    keep(3);
    Recorder recorder(file, 1 << 30);
    EXPECT_NO_THROW(recorder.add(sample_at(2))) << "twice within a second";
    EXPECT_THROW(recorder.add(sample_at(1)), halvo::tools::ToolError);
    recorder.add(sample_at(3));
    EXPECT_EQ(RecordSource(file).size(), 4);
}

TEST_F(Records, show_the_same_whether_one_walks_or_jumps) {
    keep(100);
    keep(50); // a recorder that is started again adds to it
    RecordSource walking(file);
    EXPECT_EQ(walking.size(), 150);
    for (int i = 0; i < 150; ++i) {
        walking.go_to(i);
        const Sample there = walking.take();
        EXPECT_EQ(there.time, kNow + i);
        ASSERT_EQ(there.channels.size(), 10u);
        EXPECT_EQ(there.channels[0].put, static_cast<uint64_t>(i));
        EXPECT_EQ(there.channels[9].writer.name, "a 'writer'");
        EXPECT_EQ(there.channels[9].writer.held, Held::yes);
        EXPECT_NEAR(there.channels[0].in_rate, i > 0 ? 1 : 0, 0.01) << i;
        if (i % 15 != 14) continue;
        RecordSource jumping(file);
        jumping.go_to(i);
        EXPECT_EQ(table_of(jumping.take()), table_of(there));
    }
    EXPECT_EQ(walking.position_of(kNow + 70), 70);
    EXPECT_EQ(walking.position_of(kNow - 1), 0);
    EXPECT_NE(story_of(walking).find("2023-11-16 02:00:01  2023-11-16 02:02:29  " + utf8("한국") +
                                     "                     no reader  149\n"),
              std::string::npos)
        << story_of(walking);
    EXPECT_THROW(course_of(walking, "nobody"), halvo::tools::ToolError);
    EXPECT_EQ(lines(course_of(walking, "C3")).size(), 151u);
}

TEST_F(Records, are_walked_through_on_the_screen) {
    if (!halvo::test::Terminal::available())
        GTEST_SKIP() << "needs " << halvo::test::Terminal::program();
    keep(130);
    const halvo::test::Terminal terminal(directory.path(), 80, 24);
    terminal.run("TZ=UTC0 " HALVO_BIN "/halvo-mon top --utf8 --at 02:02:00 --from " + file +
                 "; echo status $?");
    ASSERT_TRUE(terminal.wait_for("10 channels  depth 120 "));
    for (const auto &[key, time] : std::vector<std::pair<const char *, const char *>>{
             {"[", "02:01:59"}, {"{", "02:00:59"}, {"]", "02:01:00"}, {"}", "02:02:00"}}) {
        terminal.type(key);
        ASSERT_TRUE(terminal.wait_for(time));
    }
    terminal.press("q");
    EXPECT_TRUE(terminal.wait_for("status 0"));
}

TEST_F(Records, keep_within_their_size_and_lose_the_oldest) {
    keep(400, 40000);
    struct stat found {};
    ASSERT_EQ(stat(file.c_str(), &found), 0);
    EXPECT_LT(found.st_size, 60000);
    RecordSource record(file);
    EXPECT_GT(record.size(), 60);
    EXPECT_LT(record.size(), 390);
    EXPECT_EQ(record.time_of(record.size() - 1), kNow + 399);
    record.go_to(0);
    EXPECT_EQ(record.take().channels.size(), 10u); // begins with a whole look
}

TEST_F(Records, go_on_behind_a_look_that_found_no_room) {
    keep(10);
    Recorder recorder(file, 1 << 30);
    rlimit before{}, small{};
    getrlimit(RLIMIT_FSIZE, &before);
    small = before;
    small.rlim_cur = 4096;
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_THROW(recorder.add(sample_at(10)), halvo::tools::ToolError);
    setrlimit(RLIMIT_FSIZE, &before);
    recorder.add(sample_at(11));
    RecordSource record(file);
    EXPECT_EQ(record.size(), 11);
    EXPECT_EQ(record.take().channels[0].put, 11u);
}

TEST_F(Records, times_are_the_last_of_their_kind) {
    for (const auto &[words, time] :
         std::vector<std::pair<std::string, int64_t>>{{"02:00", kNow},
                                                      {"01:59:30", kNow - 30},
                                                      {"23:00", kNow - 3 * 3600},
                                                      {"2023-11-15 02:00", kNow - 86400},
                                                      {"2023-11-16 02:00:05", kNow + 5}})
        EXPECT_EQ(time_of_words(words, kNow), time) << words;
    for (const char *words : {"", "noon", "25:00", "02:00 pm"})
        EXPECT_THROW(time_of_words(words, kNow), halvo::tools::ToolError) << words;
}

TEST_F(Records, are_kept_of_a_segment_that_goes) {
    const std::string monitor = HALVO_BIN "/halvo-mon";
    const Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    Peer recorder([&] {
        return become({monitor, "record", file, "--every", "100ms", "-k", segment.key_file()}, 0, 1,
                      2);
    });
    const auto tells = [&](const std::string &text) {
        return comes_true([&] {
            return run_program({monitor, "replay", file}).out.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(tells("Nothing wanted a look"));
    halvo::qm::remove(segment.key_file());
    EXPECT_TRUE(tells("no such key file"));
    recorder.kill(SIGTERM);
    EXPECT_EQ(recorder.wait(), 0);
    expect_end(run_program({monitor, "replay", segment.path("nothing")}), 2, "No such file");
}
