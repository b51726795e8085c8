#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>

#include "tests/support/directory.h"
#include "tests/support/segment_builder.h"

namespace halvo::qm {
namespace {

bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

int segment_under(const std::string &key_file) { return shmget(ftok(key_file.c_str(), 1), 0, 0); }

int set_under(const std::string &file, int id) { return semget(ftok(file.c_str(), id), 0, 0); }

unsigned long size_of_set(int id) {
    semid_ds state{};
    return semctl(id, 0, IPC_STAT, &state) < 0 ? 0 : state.sem_nsems;
}

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
        test::remove_tree(directory_);
    }

    const std::string directory_ = test::make_test_directory();
    const std::string key_ = directory_ + "/key";
    const Descriptor janitor_ = test::start_janitor(directory_, key_);
};

TEST(SegmentTest, a_new_segment_has_every_field_that_processes_rely_on) {
    const auto before = static_cast<int32_t>(std::time(nullptr));
    const test::Segment s = test::SegmentBuilder()
                                .channel("MT01", 'M', 4, 256)
                                .channel("12345678901234567890123", 'F', 2, 20, 7)
                                .type_name(1, "submit")
                                .type_name(4095, "12345678901234567890123")
                                .build();
    s.attach();
    const halvo_segment *segment = q_0();
    EXPECT_EQ(segment->nchnnl, 2U);
    EXPECT_GE(segment->now, before);
    EXPECT_EQ(segment->uptime, 0);
    EXPECT_STREQ(segment->qtcnt[1].tname, "submit");
    EXPECT_EQ(segment->qtcnt[1].tstart, 1);
    EXPECT_STREQ(segment->qtcnt[4095].tname, "12345678901234567890123");
    EXPECT_EQ(segment->qtcnt[2].tstart, 0);
    EXPECT_EQ(segment->qtcnt[2].tname[0], '\0');

    const halvo_channel *first = s.channel("MT01");
    EXPECT_EQ(first->qcnt, 4U);
    EXPECT_EQ(first->qbsz, 256U);
    EXPECT_STREQ(first->qname, "MT01");
    EXPECT_EQ(first->qtype, 'M');
    EXPECT_EQ(first->tpsmx, 0);
    const halvo_channel *second = s.channel("12345678901234567890123");
    EXPECT_EQ(second->qtype, 'F');
    EXPECT_EQ(second->tpsmx, 7);
    for (const halvo_channel *q : {first, second}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 16, 0U);
        EXPECT_GE(q->rbufs, sizeof(halvo_channel));
        EXPECT_EQ(q->wbufs, q->rbufs + 5 * q->qbsz);
        EXPECT_EQ(q->qstart, q->wbufs + 5 * q->qbsz);
        EXPECT_EQ(q->qend, q->qstart + q->qcnt * q->qbsz);
        EXPECT_EQ(q->rpos, q->qstart);
        EXPECT_EQ(q->wpos, q->qstart);
        EXPECT_EQ(q->pbuffs, 0);
    }
    EXPECT_GE(segment->qoffs[1], segment->qoffs[0] + first->qend);
    EXPECT_EQ(check(s.key_file()), std::vector<std::string>());
}

TEST(SegmentTest, locks_stand_at_one_and_wake_ups_at_zero_under_the_agreed_keys) {
    const test::Segment s =
        test::SegmentBuilder().channel("A", 'M', 1, 20).channel("B", 'F', 1, 20).build();
    for (const int id : {201, 202}) {
        const int set = set_under(s.key_file(), id);
        ASSERT_EQ(size_of_set(set), 2U) << id;
        EXPECT_EQ(semctl(set, 0, GETVAL), 1) << id;
        EXPECT_EQ(semctl(set, 1, GETVAL), 1) << id;
    }
    for (const char *suffix : {".post", ".req"}) {
        const int set = set_under(s.key_file() + suffix, 1);
        ASSERT_EQ(size_of_set(set), 1U) << suffix;
        EXPECT_EQ(semctl(set, 0, GETVAL), 0) << suffix;
        EXPECT_LT(set_under(s.key_file() + suffix, 2), 0) << "a channel of type F has none";
    }
}

TEST_F(CreateTest, channels_256_apart_share_their_semaphores) {
    SegmentPlan plan;
    for (int i = 0; i < HALVO_CHANNELS_MAX; ++i)
        plan.channels.push_back({"C" + std::to_string(i), i == 1 ? 'F' : 'M', 1, 20, 0});
    create(plan, key_, false);
    EXPECT_EQ(check(key_), std::vector<std::string>());
    EXPECT_EQ(list(key_).size(), 269U);
    EXPECT_EQ(set_under(key_ + ".post", 257), set_under(key_ + ".post", 1));
    EXPECT_GE(set_under(key_ + ".post", 258), 0) << "made for channel 257, though 1 has none";
    EXPECT_EQ(size_of_set(set_under(key_, 201)), 269U);

    plan.channels.push_back({"C269", 'M', 1, 20, 0});
    EXPECT_THROW(create(plan, key_, true), Error);
    EXPECT_GE(segment_under(key_), 0) << "a wrong plan must not replace anything";
}

TEST_F(CreateTest, a_standing_segment_is_refused_until_it_is_to_be_replaced) {
    create(plan_of({{"A", 'M', 1, 20, 0}, {"B", 'M', 1, 20, 0}}), key_, false);
    const int old = segment_under(key_);
    try {
        create(kTwoChannels, key_, false);
        FAIL() << "not refused";
    } catch (const Standing &standing) {
        const std::string message = standing.what();
        EXPECT_NE(message.find(key_), std::string::npos) << message;
        EXPECT_NE(message.find("process " + std::to_string(getpid())), std::string::npos)
            << message;
        EXPECT_NE(message.find("0 attached"), std::string::npos) << message;
    }
    EXPECT_EQ(segment_under(key_), old);
    EXPECT_EQ(check(key_), std::vector<std::string>());

    create(kTwoChannels, key_, true);
    EXPECT_EQ(list(key_).at(1).name, "FQ01");
    EXPECT_LT(set_under(key_ + ".req", 2), 0) << "left over from the old channels";
    EXPECT_EQ(check(key_), std::vector<std::string>());
}

TEST_F(CreateTest, left_over_semaphores_are_refused_and_everything_made_so_far_is_undone) {
    for (const char *suffix : {"", ".post", ".req"}) std::ofstream(key_ + suffix);
    const int left_over = semget(ftok((key_ + ".req").c_str(), 1), 1, IPC_CREAT | 0600);
    ASSERT_GE(left_over, 0);
    EXPECT_THROW(create(kTwoChannels, key_, false), Standing);
    EXPECT_LT(segment_under(key_), 0);
    EXPECT_LT(set_under(key_, 201), 0);
    EXPECT_LT(set_under(key_, 202), 0);
    EXPECT_LT(set_under(key_ + ".post", 1), 0);
    EXPECT_EQ(set_under(key_ + ".req", 1), left_over);
    EXPECT_TRUE(file_exists(key_)) << "it was there before";

    create(kTwoChannels, key_, true);
    EXPECT_NE(set_under(key_ + ".req", 1), left_over);
}

TEST_F(CreateTest, a_failed_create_leaves_no_file_behind) {
    EXPECT_THROW(create(SegmentPlan(), key_, false), Error);
    EXPECT_THROW(create(kTwoChannels, key_, false, {0400}), Error);
    EXPECT_THROW(create(kTwoChannels, key_, false, {01660}), Error);
    EXPECT_FALSE(file_exists(key_));

    // The longest name a file can have leaves no room for a suffix.
    const std::string long_name = directory_ + "/" + std::string(255, 'k');
    EXPECT_THROW(create(kTwoChannels, long_name, false), Error);
    EXPECT_FALSE(file_exists(long_name));

    std::string too_long = directory_;
    while (too_long.size() < 2048 - 5) too_long += "/.";
    EXPECT_THROW(create(kTwoChannels, too_long, false), Error);
    EXPECT_THROW(create(kTwoChannels, "", false), Error);
}

TEST_F(CreateTest, sizes_beyond_32_bit_offsets_are_refused) {
    EXPECT_EQ(fault_of(plan_of({{"A", 'M', UINT32_MAX, 4294967292U, 0}})),
              "channel 0: the segment would be larger than 4 GiB");
    EXPECT_EQ(fault_of(plan_of({{"A", 'M', 1, 4294967292U, 0}})),
              "channel 0: the segment would be larger than 4 GiB");
    EXPECT_EQ(fault_of(plan_of({{"A", 'M', 2000000, 1024, 0}})), "");
    EXPECT_EQ(fault_of(plan_of({{"A", 'M', 2000000, 1024, 0},
                                {"B", 'M', 2000000, 1024, 0},
                                {"C", 'M', 2000000, 1024, 0}})),
              "channel 2: the segment would be larger than 4 GiB");
}

TEST_F(CreateTest, permissions_are_those_asked_for) {
    create(kTwoChannels, key_, false, {0640});
    shmid_ds segment{};
    ASSERT_EQ(shmctl(segment_under(key_), IPC_STAT, &segment), 0);
    EXPECT_EQ(segment.shm_perm.mode & 0777U, 0640U);
    for (const int set : {set_under(key_, 201), set_under(key_, 202), set_under(key_ + ".post", 1),
                          set_under(key_ + ".req", 1)}) {
        semid_ds semaphores{};
        ASSERT_EQ(semctl(set, 0, IPC_STAT, &semaphores), 0);
        EXPECT_EQ(semaphores.sem_perm.mode & 0777U, 0640U);
    }
}

TEST_F(CreateTest, remove_takes_everything_once_whatever_the_segment_holds) {
    EXPECT_FALSE(remove(key_));
    create(kTwoChannels, key_, false);
    const int id = segment_under(key_);
    auto *segment = static_cast<halvo_segment *>(shmat(id, nullptr, 0));
    segment->nchnnl = UINT32_MAX;
    segment->qoffs[0] = UINT32_MAX;
    shmdt(segment);
    const int post = set_under(key_ + ".post", 1);
    const int locks = set_under(key_, 201);

    EXPECT_TRUE(remove(key_));
    EXPECT_LT(shmctl(id, IPC_STAT, nullptr), 0);
    EXPECT_EQ(size_of_set(post), 0U);
    EXPECT_EQ(size_of_set(locks), 0U);
    for (const char *suffix : {"", ".post", ".req"}) EXPECT_FALSE(file_exists(key_ + suffix));
    EXPECT_FALSE(remove(key_));
}

TEST_F(CreateTest, a_key_file_with_content_stays) {
    std::ofstream(key_) << "mine";
    create(kTwoChannels, key_, false);
    EXPECT_TRUE(remove(key_));
    EXPECT_TRUE(file_exists(key_));
    EXPECT_FALSE(file_exists(key_ + ".post"));
    EXPECT_LT(segment_under(key_), 0);
}

} // namespace
} // namespace halvo::qm
