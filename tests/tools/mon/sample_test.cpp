// What the monitor sees of a segment, read-only and whatever becomes of it.
#include "tests/print/scenario.h"
#include "tests/support/ipc.h"
#include "tests/support/peer.h"
#include "tests/support/ring.h"
#include "tools/mon/look/tracker.h"

using namespace halvo::mon;
using namespace halvo::test;

namespace {

class Samples : public testing::Test {
protected:
    Segment segment =
        SegmentBuilder().channel("MT01", 'M', 4, 64).channel("한국", 'F', 4, 64).build();
    Sampler sampler{segment.key_file()};
    Tracker tracker;

    const int64_t began = time(nullptr);

    // A sample as if it were taken so many seconds after the beginning.
    Sample look(double later = 0) {
        Sample sample = sampler.take();
        sample.taken = later;
        sample.time = began + static_cast<int64_t>(later);
        tracker.judge(sample);
        return sample;
    }
    void replace() const { remake(segment.key_file(), {"A", "B", "C"}); } // by other channels
};

} // namespace

TEST_F(Samples, find_what_is_still_being_made) {
    const halvo::qm::Keys keys(segment.key_file());
    void *const at = shmat(shmget(keys.segment(), 0, 0), nullptr, 0);
    const uint32_t channels = std::exchange(static_cast<halvo_segment *>(at)->nchnnl, 0);
    EXPECT_NE(look().fault.find("not complete"), std::string::npos);
    static_cast<halvo_segment *>(at)->nchnnl = channels;
    semctl(semget(keys.read_locks(), 0, 0), 0, IPC_RMID);
    EXPECT_EQ(look().channels[0].reader.held, Held::unknown);
    semget(keys.read_locks(), 2, IPC_CREAT | 0600);
    EXPECT_EQ(look().channels[0].reader.held, Held::yes) << "made with the value 0";
    shmdt(at);
}

TEST_F(Samples, tell_who_holds_an_end_and_whether_he_lives) {
    Signal opened, closed;
    Peer writer([&] {
        segment.attach();
        halvo_channel *q = segment.open("MT01", 'w');
        std::strcpy(q->pname, "보냄");
        write(q, "one");
        q->wwait = 1;
        opened.send();
        return closed.wait() && q_close(0, 'w') == 0 ? 0 : 1;
    });
    ASSERT_TRUE(opened.wait());
    const ChannelSample mt = look().channels[0];
    EXPECT_EQ(mt.writer.held, Held::yes);
    EXPECT_EQ(mt.writer.pid, writer.pid());
    EXPECT_TRUE(mt.writer.alive);
    EXPECT_EQ(mt.writer.name, utf8("보냄"));
    EXPECT_EQ(mt.reader.held, Held::no);
    EXPECT_EQ(mt.ring_depth(), 1);
    EXPECT_EQ(mt.fill(), 0.25);
    EXPECT_EQ(mt.trouble, Trouble::no_reader);
    closed.send();
    EXPECT_EQ(writer.wait(), 0);
    const ChannelSample after = look().channels[0];
    EXPECT_EQ(after.writer.held, Held::no);
    EXPECT_EQ(after.writer.pid, writer.pid());
    EXPECT_FALSE(after.writer.alive);
}

TEST_F(Samples, an_end_that_a_dead_process_kept_is_told) {
    Peer taker([&] { // as a program would that asks for no undo
        sembuf take{1, -1, 0};
        return semop(set_under(segment.key_file(), kWriteLocks), &take, 1);
    });
    EXPECT_EQ(taker.wait(), 0);
    const ChannelSample channel = look().channels[1];
    EXPECT_EQ(channel.writer.pid, taker.pid());
    EXPECT_EQ(channel.trouble, Trouble::dead_holder);
}

TEST_F(Samples, a_view_follows_a_segment_that_is_made_anew) {
    const char *key = segment.key_file().c_str();
    EXPECT_EQ(q_attach_view(key), ESMS_OK);
    EXPECT_EQ(q_attach_view(key), ESMS_ALREADY);
    EXPECT_EQ(init_shm(nullptr), ESMS_NOINIT);
    EXPECT_EQ(q_settime(), -1);
    EXPECT_EQ(q_open(0, 'w'), nullptr);
    replace();
    EXPECT_EQ(q_attach_view(key), ESMS_OK);
    EXPECT_EQ(q_name2chnnl("C"), 2);
    halvo::qm::remove(key);
    EXPECT_EQ(q_attach_view(key), ESMS_SHMOP);
    EXPECT_EQ(q_0(), nullptr);
    replace();
    EXPECT_EQ(q_attach_view(key), ESMS_OK);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(init_shm(key), ESMS_OK); }), "SHM_INIT_FINISHED.\n");
    EXPECT_EQ(q_attach_view(key), ESMS_ALREADY);
    EXPECT_GT(q_settime(), 0);
    EXPECT_NE(q_open(0, 'w'), nullptr);
}

TEST_F(Samples, rates_are_of_real_intervals_and_troubles_have_their_reasons) {
    segment.attach();
    halvo_channel *mt = segment.channel("MT01"), *file = segment.channel("한국");
    // A burst of 50 every second is 50 a second, whenever one looks.
    look(0);
    for (int i = 1; i <= 4; ++i) {
        mt->gcnt.count = mt->pcnt.count = static_cast<uint64_t>(50 * i);
        EXPECT_NEAR(look(i).channels[0].out_rate, 50, 1);
    }
    ASSERT_NE(segment.open("MT01", 'r'), nullptr);
    mt->lastin = 0;
    const struct {
        double later;
        uint64_t put, got; // since the line before
        const char *trouble;
    } course[] = {
        {5, 0, 0, "ok"},    {10, 3, 0, "ok"},   {21, 0, 0, "stalled"},
        {30, 0, 1, "ok"}, // it lives, but slowly
        {71, 0, 1, "old"},  {72, 0, 1, "ok"},   {80, 10, 9, "ok"},
        {90, 10, 9, "ok"},  {100, 10, 9, "ok"}, {110, 10, 9, "ok"},
        {120, 10, 9, "ok"}, {130, 10, 9, "ok"}, {150, 2, 1, "growing"},
    };
    for (const auto &[later, put, got, trouble] : course) {
        mt->pcnt.count += put;
        mt->gcnt.count += got;
        const ChannelSample now = look(later).channels[0];
        EXPECT_STREQ(word_of(now.trouble), trouble) << later;
        if (later == 71) {
            EXPECT_EQ(now.oldest, 61);
        }
    }
    const auto trouble = [&](double later, int channel = 0) {
        return word_of(look(later).channels[static_cast<size_t>(channel)].trouble);
    };
    mt->gcnt.count = mt->pcnt.count;
    mt->throttled = 1;
    EXPECT_STREQ(trouble(151), "ok") << "the last refusal is long ago";
    mt->throttletime = static_cast<int32_t>(time(nullptr));
    EXPECT_STREQ(trouble(151), "throttled");
    mt->wwait = 1;
    EXPECT_STREQ(trouble(152), "throttled"); // nobody waits for room that is there
    halvo::slot_at(mt, mt->wpos)->state = HALVO_SLOT_READABLE;
    EXPECT_STREQ(trouble(153), "full");
    file->fpcnt.count = 1;
    EXPECT_STREQ(trouble(154, 1), "no reader");
    file->frtime = static_cast<int32_t>(began) + 154;
    EXPECT_STREQ(trouble(154, 1), "ok");
    file->qend = 7;
    EXPECT_STREQ(trouble(155, 1), "damaged");
    EXPECT_EQ(look(156).in_trouble(), 2);
}
