// The record: what was put in comes out again, wherever one looks, within its size.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/program.h"
#include "tools/fixture/directory.h"
#include "tools/frame/output.h"
#include "tools/mon/replay.h"

using namespace halvo::mon;
using namespace halvo::test;

namespace {

class Records : public testing::Test {
protected:
    Records() { setenv("TZ", "UTC0", 1); }
    ~Records() override { remove_tree(directory); }

    // Ten channels; the first grows by one a look and has no reader, the others stand still.
    static Sample sample_at(int look) {
        Sample sample;
        sample.time = kNow + look;
        sample.up = true;
        sample.id = 7;
        for (int i = 0; i < 10; ++i) {
            ChannelSample channel;
            channel.number = i;
            channel.name = i == 0 ? utf8("한국") : "C" + std::to_string(i);
            channel.type = 'M';
            channel.slots = 64;
            channel.put = i == 0 ? static_cast<uint64_t>(look) : 1000;
            channel.got = i == 0 ? 0 : 1000;
            channel.writer = {"a 'writer'", 4711, Held::yes, true, static_cast<int32_t>(kNow)};
            channel.reader.held = Held::no;
            sample.channels.push_back(channel);
        }
        return sample;
    }
    void keep(int looks, int64_t most = 1 << 30) {
        Recorder recorder(file, most);
        for (int i = 0; i < looks; ++i) recorder.add(sample_at(next++));
    }
    const std::string directory = make_test_directory(), file = directory + "/rec";
    int next = 0;
};

} // namespace

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
        RecordSource jumping(file);
        jumping.go_to(i);
        const Sample there = walking.take();
        EXPECT_EQ(there.time, kNow + i);
        ASSERT_EQ(there.channels.size(), 10u);
        EXPECT_EQ(there.channels[0].put, static_cast<uint64_t>(i));
        EXPECT_EQ(there.channels[9].writer.name, "a 'writer'");
        EXPECT_EQ(there.channels[9].writer.held, Held::yes);
        EXPECT_STREQ(word_of(there.channels[0].trouble), i > 0 ? "no reader" : "ok");
        EXPECT_NEAR(there.channels[0].in_rate, i > 0 ? 1 : 0, 0.01) << i;
        if (i % 7 != 0) continue;
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

TEST_F(Records, are_kept_of_a_segment_that_goes_and_comes) {
    Segment segment = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    Peer recorder([&] {
        return run_program({"/usr/bin/timeout", "2.6", HALVO_MON, "record", file, "--every", "1s",
                            "-k", segment.key_file()})
                           .status == 124
                   ? 0
                   : 1;
    });
    usleep(700000);
    halvo::qm::remove(segment.key_file());
    EXPECT_EQ(recorder.wait(), 0);
    const Outcome told = run_program({HALVO_MON, "replay", file});
    EXPECT_NE(told.out.find("no such key file"), std::string::npos) << told.out << told.err;
    EXPECT_EQ(run_program({HALVO_MON, "replay", segment.path("nothing")}).status, 2);
}
