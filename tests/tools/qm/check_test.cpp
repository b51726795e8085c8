#include <functional>

#include "tests/support/ipc.h"
#include "tests/support/peer.h"
#include "tests/support/ring.h"

using namespace halvo::test;

namespace halvo::qm {
namespace {

using Lines = std::vector<std::string>;

// An attached segment of two channels that can be brought back to what it was.
class CheckTest : public testing::Test {
protected:
    CheckTest() {
        s_.attach();
        q_ = s_.open("MT01", 'w');
        s_.open("MT01", 'r');
        shmid_ds state{};
        shmctl(segment_under(s_.key_file()), IPC_STAT, &state);
        good_.assign(bytes(), bytes() + state.shm_segsz);
    }

    char *bytes() { return reinterpret_cast<char *>(q_0()); }
    void restore() { std::memcpy(bytes(), good_.data(), good_.size()); }
    qmsg *slot(uint32_t number) { return slot_at(q_, q_->qstart + number * q_->qbsz); }
    Lines faults() { return check(s_.key_file()); }

    const Segment s_ =
        SegmentBuilder().channel("MT01", 'M', 4, 64).channel("FQ01", 'F', 5000, 20).build();
    halvo_channel *q_ = nullptr;
    std::vector<char> good_;
};

TEST_F(CheckTest, whatever_the_library_leaves_in_a_channel_is_sound) {
    Slot slot(q_);
    const std::vector<std::function<void()>> steps = {
        [&] { write(q_, "one"); },
        [&] { write(q_, std::string(48, 'x')); }, // the longest
        [&] { q_read_mark(q_, 1); },
        [&] { q_read_commit(q_, 1, 0); },
        [&] { write_mark_at(q_, "pending behind a gap", 1); },
        [&] { q_write_rollback_all(q_), write_mark_at(q_, "first", 0); },
        [&] { q_write_commit_all(q_); },
        [&] { read(q_), read(q_); },
        [&] { EXPECT_EQ(write_buf(q_, "parked", 4), ESMS_OK); },
        [&] { EXPECT_EQ(write_buf(q_, "parked too", 0), ESMS_OK); },
        [&] { EXPECT_EQ(write_mark_at(q_, "behind the parked", 0), ESMS_OK); },
        [&] {
            restore();
            while (write(q_, "until it is full") == ESMS_OK) continue;
        },
        [&] { q_read_mark(q_, 0); },
        [&] { q_read_commit(q_, 2, 0), write(q_, "over the end"); },
        [&] { q_read_rollback(q_), q_read_buf(q_, slot.data(), 4); },
    };
    for (size_t i = 0; i < steps.size(); ++i) {
        steps[i]();
        EXPECT_EQ(faults(), Lines()) << "after step " << i;
    }
}

TEST_F(CheckTest, every_damage_is_found_and_named) {
    halvo_segment *segment = q_0();
    halvo_channel *file = s_.channel("FQ01");
    const auto fill = [&](uint32_t number, int32_t state, uint32_t length) {
        slot(number)->state = state;
        slot(number)->len = length;
    };
    const struct {
        std::function<void()> damage;
        std::string fault;
    } cases[] = {
        {[&] { segment->nchnnl = 0; }, "the segment has no channels"},
        {[&] { segment->nchnnl = 270; }, "the segment has 270 channels"},
        {[&] { segment->qoffs[1] += 2; }, "channel 1 01: the ring ends at"},
        {[&] { segment->qoffs[1] = static_cast<uint32_t>(good_.size()) - 4; },
         "channel 1: its header"},
        {[&] { segment->qoffs[1] = segment->qoffs[0]; }, "channel 1 MT01: the header overlaps"},
        {[&] { segment->qoffs[1] = 4096; }, "overlaps the segment's header"},
        {[&] { std::memset(segment->qtcnt[5].tname, 'x', 24); }, "the name of type 5 has no end"},
        {[&] { std::memset(q_->qname, 'x', 24); }, "the channel's name has no end"},
        {[&] { q_->qname[0] = '\0'; }, "the channel has no name"},
        {[&] { std::memset(q_->gname, 'x', 24); }, "the reader's name has no end"},
        {[&] { q_->qcnt = 0; }, "channel 0 MT01: the ring has no slots"},
        {[&] { q_->qcnt = UINT32_MAX; }, "the ring ends at"},
        {[&] { q_->qbsz = 15; }, "the slot size is 15"},
        {[&] { q_->qbsz = 66; }, "slots of 66 bytes"},
        {[&] { q_->qend -= 64; }, "the ring ends at"},
        {[&] { q_->qstart += 2, q_->qend += 2; }, "is no slot of the ring"},
        {[&] { q_->rbufs = UINT32_MAX - 3; }, "the read buffers at 4294967292 reach past"},
        {[&] { q_->wbufs += 1; }, "overlaps channel 0 MT01"},
        {[&] { q_->wbufs -= 4; }, "overlaps channel 0 MT01: the read buffers"},
        {[&] { q_->rpos = q_->qend; }, "rpos"},
        {[&] { q_->wpos += 4; }, "wpos"},
        {[&] { q_->wpos += 64; }, "slot 0 holds no message between rpos and wpos"},
        {[&] { fill(1, HALVO_SLOT_READABLE, 3); }, "slot 1 holds a message outside rpos .. wpos"},
        {[&] { write(q_, "1"), fill(0, HALVO_SLOT_PENDING, 1); }, "slot 0 holds no message"},
        {[&] { write(q_, "1"), write(q_, "2"), fill(1, HALVO_SLOT_MARKED, 1); },
         "slot 1 is marked behind one that is not"},
        {[&] { fill(3, 2, 1); }, "slot 3 has the unknown state 2"},
        {[&] { write(q_, "1"), fill(0, HALVO_SLOT_READABLE, 0); }, "slot 0 holds 0 bytes"},
        {[&] { write(q_, "1"), fill(0, HALVO_SLOT_READABLE, 49); }, "slot 0 holds 49 bytes"},
        {[&] { slot_at(q_, q_->rbufs)->state = 3; }, "read buffer 0 has the unknown state 3"},
        {[&] { write_buf(q_, "1", 2), slot_at(q_, q_->wbufs + 128)->len = 99; },
         "write buffer 2 holds 99 bytes"},
        {[&] { q_->pbuffs = 1; }, "pbuffs is 1, but 0 write buffers hold a message"},
        {[&] { q_->pbuffs = -1; }, "pbuffs is -1"},
        {[&] { std::memset(slot_at(file, file->qstart), 0x7f, 5000 * 20); },
         "more faults like these"},
    };
    for (const auto &[damage, fault] : cases) {
        damage();
        std::string all;
        const Lines found = faults();
        for (const std::string &line : found) all += line + "\n";
        EXPECT_NE(all.find(fault), std::string::npos) << fault << "\nfound instead:\n" << all;
        EXPECT_LT(found.size(), 40U) << "garbage does not flood the operator";
        restore();
    }
    EXPECT_EQ(faults(), Lines());
}

TEST_F(CheckTest, missing_or_wrong_semaphores_are_found) {
    const int locks = set_under(s_.key_file(), kReadLocks);
    semctl(locks, 1, SETVAL, 2);
    EXPECT_EQ(faults(), Lines{"read locks: semaphore 1 is 2"});
    semctl(locks, 0, IPC_RMID);
    EXPECT_EQ(faults(), Lines{"read locks: No such file or directory"});
    semget(ftok(s_.key_file().c_str(), kReadLocks), 3, IPC_CREAT | 0600);
    EXPECT_EQ(faults(), Lines{"read locks: the set has 3 semaphores instead of 2"});
    // Away for a while only: without the file its semaphore could not be removed afterwards.
    const std::string file = s_.key_file() + ".req";
    ASSERT_EQ(std::rename(file.c_str(), s_.path("away").c_str()), 0);
    const Lines found = faults();
    ASSERT_EQ(std::rename(s_.path("away").c_str(), file.c_str()), 0);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_NE(found[1].find("channel 0: request semaphore: key file"), std::string::npos);
}

TEST(CheckRunningTest, messages_on_their_way_are_no_fault) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 3, 64).build();
    const auto stream = [&s](char mode) {
        s.attach();
        for (halvo_channel *q = s.open("MT01", mode);;)
            mode == 'w' ? void(write(q, "streaming")) : void(read(q));
    };
    Peer writer([&] { stream('w'); }), reader([&] { stream('r'); });
    ASSERT_TRUE(comes_true([&] {
        const ChannelInfo info = list(s.key_file())[0];
        return info.writer == writer.pid() && info.reading;
    }));
    for (int i = 0; i < 30; ++i) ASSERT_EQ(check(s.key_file()), Lines());
    reader.kill(SIGKILL);
    reader.wait();
    EXPECT_FALSE(list(s.key_file())[0].reading);
    EXPECT_EQ(list(s.key_file())[0].reader, reader.pid()) << "it shows the last holder";
}

} // namespace
} // namespace halvo::qm
