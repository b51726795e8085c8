#include <ctime>

#include "tests/support/files.h"
#include "tests/support/ipc.h"
#include "tests/support/peer.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;
using namespace std::string_literals;

namespace halvo::qm {
namespace {

SegmentPlan plan_of(std::vector<ChannelPlan> channels) { return {std::move(channels), {}}; }

const SegmentPlan kTwoChannels = plan_of({{"MT01", 'M', 4, 256, 0}, {"FQ01", 'F', 2, 20, 7}});

// A directory whose segment goes with it.
class CreateTest : public testing::Test {
protected:
    ~CreateTest() override {
        try {
            remove(key_);
        } catch (const Error &) { // the keys of some tests are no sound ones
        }
    }
    void expect_sound() { EXPECT_EQ(check(key_), std::vector<std::string>()); }

    // Everything that is made of a plan of kTwoChannels but the segment: read and write locks, post
    // and request semaphore.
    std::vector<int> sets() const {
        return {set_under(key_, kReadLocks), set_under(key_, kWriteLocks),
                set_under(key_ + ".post", 1), set_under(key_ + ".req", 1)};
    }

    const TestDirectory directory_;
    const std::string key_ = directory_.path("key");
};

TEST_F(CreateTest, a_new_segment_has_every_field_that_processes_rely_on) {
    const auto before = static_cast<int32_t>(std::time(nullptr));
    const std::string longest = "12345678901234567890123";
    const SegmentPlan plan = {{{"MT01", 'M', 4, 256, 0}, {longest, 'F', 2, 20, 7}},
                              {{1, "submit"}, {4095, longest}}};
    create(plan, key_, false);
    ASSERT_EQ(init_shm(key_.c_str()), ESMS_OK);
    const halvo_segment *segment = q_0();
    EXPECT_GE(segment->now, before);
    EXPECT_EQ(segment->uptime, 0);
    EXPECT_STREQ(segment->qtcnt[1].tname, "submit");
    EXPECT_EQ(segment->qtcnt[1].tstart, 1);
    EXPECT_EQ(segment->qtcnt[4095].tname, longest);
    EXPECT_EQ(segment->qtcnt[2].tstart, 0);
    const halvo_channel *q = q_chnnl2q(1);
    EXPECT_EQ(q->qname, longest);
    EXPECT_EQ(q->qcnt, 2U);
    EXPECT_EQ(q->qbsz, 20U);
    EXPECT_EQ(q->qtype, 'F');
    EXPECT_EQ(q->tpsmx, 7);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 16, 0U);
    EXPECT_EQ(q->wbufs, q->rbufs + 5 * q->qbsz);
    EXPECT_EQ(q->qstart, q->wbufs + 5 * q->qbsz);
    expect_sound(); // nothing overlaps
}

TEST_F(CreateTest, locks_stand_at_one_and_wake_ups_at_zero_under_the_agreed_keys) {
    create(kTwoChannels, key_, false, {0640});
    for (const int set : sets()) {
        const bool locks = size_of_set(set) == 2;
        EXPECT_EQ(size_of_set(set), locks ? 2U : 1U);
        EXPECT_EQ(value_of(set), locks);
        EXPECT_EQ(value_of(set, 1), locks ? 1 : -1);
        semid_ds semaphores{};
        ASSERT_EQ(semctl(set, 0, IPC_STAT, &semaphores), 0);
        EXPECT_EQ(semaphores.sem_perm.mode & 0777U, 0640U);
    }
    shmid_ds segment{};
    ASSERT_EQ(shmctl(segment_under(key_), IPC_STAT, &segment), 0);
    EXPECT_EQ(segment.shm_perm.mode & 0777U, 0640U);
    for (const char *suffix : {".post", ".req"})
        EXPECT_LT(set_under(key_ + suffix, 2), 0) << "a channel of type F has none";
}

TEST_F(CreateTest, channels_256_apart_share_their_semaphores) {
    SegmentPlan plan;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        plan.channels.push_back({"C" + std::to_string(i), i == 1 ? 'F' : 'M', 1, 20, 0});
    create(plan, key_, false);
    expect_sound();
    EXPECT_EQ(list(key_).size(), 269U);
    EXPECT_EQ(set_under(key_ + ".post", 257), set_under(key_ + ".post", 1));
    EXPECT_GE(set_under(key_ + ".post", 258), 0) << "made for channel 257, though 1 has none";
    EXPECT_EQ(size_of_set(set_under(key_, kReadLocks)), 269U);
}

TEST_F(CreateTest, a_standing_segment_is_refused_until_it_is_to_be_replaced) {
    create(plan_of({{"A", 'M', 1, 20, 0}, {"B", 'M', 1, 20, 0}}), key_, false);
    const int old = segment_under(key_);
    std::string message;
    try {
        create(kTwoChannels, key_, false);
    } catch (const Standing &standing) {
        message = standing.what();
    }
    for (const std::string &part : {key_, "process " + std::to_string(getpid()), "0 attached"s})
        EXPECT_NE(message.find(part), std::string::npos) << message;
    EXPECT_THROW(create(SegmentPlan(), key_, true), Error)
        << "a wrong plan must not replace anything";
    EXPECT_EQ(segment_under(key_), old);
    expect_sound();

    create(kTwoChannels, key_, true);
    EXPECT_EQ(list(key_).at(1).name, "FQ01");
    EXPECT_LT(set_under(key_ + ".req", 2), 0) << "left over from the old channels";
    expect_sound();
}

TEST_F(CreateTest, left_over_semaphores_are_refused_and_everything_made_so_far_is_undone) {
    for (const char *suffix : {"", ".post", ".req"}) write_file(key_ + suffix, "");
    const int left_over = semget(ftok((key_ + ".req").c_str(), 1), 1, IPC_CREAT | 0600);
    ASSERT_GE(left_over, 0);
    EXPECT_THROW(create(kTwoChannels, key_, false), Standing);
    EXPECT_LT(segment_under(key_), 0);
    EXPECT_EQ(sets(), (std::vector<int>{-1, -1, -1, left_over}));
    EXPECT_TRUE(exists(key_)) << "it was there before";

    create(kTwoChannels, key_, true);
    EXPECT_NE(set_under(key_ + ".req", 1), left_over);
}

TEST_F(CreateTest, those_who_make_and_remove_at_once_take_turns) {
    std::vector<ChannelPlan> channels;
    for (int i = 0; i < 100; ++i) channels.push_back({"MT" + std::to_string(i), 'M', 2, 64, 0});
    const SegmentPlan plan = plan_of(channels);
    for (int i = 0; i < 20; ++i) {
        const auto replace = [&] { return create(plan, key_, true), 0; };
        Peer one(replace), other(replace), remover([&] { return remove(key_), 0; });
        for (Peer *peer : {&one, &other, &remover}) ASSERT_EQ(peer->wait(), 0);
        if (exists(key_)) expect_sound();
        EXPECT_EQ(exists(key_), exists(key_ + ".post"));
    }
}

TEST_F(CreateTest, a_failed_create_leaves_no_file_behind) {
    EXPECT_THROW(create(SegmentPlan(), key_, false), Error);
    EXPECT_THROW(create(kTwoChannels, key_, false, {0400}), Error);
    EXPECT_THROW(create(kTwoChannels, key_, false, {01660}), Error);
    EXPECT_FALSE(exists(key_));

    // The longest name a file can have leaves no room for a suffix.
    const std::string long_name = directory_.path(std::string(255, 'k'));
    EXPECT_THROW(create(kTwoChannels, long_name, false), Error);
    EXPECT_FALSE(exists(long_name));

    std::string too_long = directory_.path();
    while (too_long.size() < 2048 - 5) too_long += "/.";
    EXPECT_THROW(create(kTwoChannels, too_long, false), Error);
    EXPECT_THROW(create(kTwoChannels, "", false), Error);
}

TEST_F(CreateTest, remove_takes_everything_once_whatever_the_segment_holds) {
    EXPECT_FALSE(remove(key_));
    create(kTwoChannels, key_, false);
    const int id = segment_under(key_);
    auto *segment = static_cast<halvo_segment *>(shmat(id, nullptr, 0));
    segment->nchnnl = UINT32_MAX;
    segment->qoffs[0] = UINT32_MAX;
    shmdt(segment);
    const std::vector<int> made = sets();

    EXPECT_TRUE(remove(key_));
    EXPECT_LT(shmctl(id, IPC_STAT, nullptr), 0);
    for (const int set : made) EXPECT_EQ(size_of_set(set), 0U);
    for (const char *suffix : {"", ".post", ".req"}) EXPECT_FALSE(exists(key_ + suffix));
    EXPECT_FALSE(remove(key_));

    write_file(key_, "a key file with content stays");
    create(kTwoChannels, key_, false);
    EXPECT_TRUE(remove(key_));
    EXPECT_TRUE(exists(key_));
    EXPECT_FALSE(exists(key_ + ".post"));
    EXPECT_LT(segment_under(key_), 0);
}

} // namespace
} // namespace halvo::qm
