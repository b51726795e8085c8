#include <filesystem>

#include "tests/support/ring.h"

using namespace halvo::test;

namespace {

class Counters : public testing::Test {
protected:
    Segment segment = two_channels();
    halvo_channel *q = nullptr;
    void SetUp() override {
        segment.attach();
        q = segment.channel("MT01");
    }
};

} // namespace

TEST_F(Counters, count_in_total_and_per_type) {
    for (int type : {0, 5, 4095, 4096, 5000}) {
        write(q, "m", type);
        read(q);
    }
    EXPECT_EQ(+q->pcnt.count, 5u);
    EXPECT_EQ(+q->tcnt[0].count, 5u);
    EXPECT_EQ(q_pcount_per_type(q, 5), 1);
    EXPECT_EQ(q_pcount_per_type(q, 4095), 1);
    EXPECT_EQ(q_pcount_per_type(q, 4096), 0);
    EXPECT_EQ(q_pcount_per_type(q, -1), 0);
    qmsg slot{};
    slot.type = 5;
    q_pcount_up(q, &slot, 1);
    EXPECT_EQ(+q->pcnt.ecount, 1u);
    EXPECT_EQ(+q->tcnt[0].ecount, 1u);
    EXPECT_EQ(+q->tcnt[5].ecount, 1u);
    EXPECT_EQ(q->lastin, static_cast<int32_t>(q_gettime()));
    q->fpcnt.count = 10;
    q->fgcnt.count = 3;
    EXPECT_EQ(q_getcount(q), 7 + 1);
}

TEST_F(Counters, the_read_rate_is_an_average_over_at_most_twenty_seconds) {
    q_0()->now = 100000;
    q->gcnt.count = 1000;
    EXPECT_EQ(q_check_tps(q), 0) << "a fresh header starts a period";
    EXPECT_EQ(q->tpsstart, 99999);
    EXPECT_EQ(q->tpsbase, 1000u);
    q_0()->now = 100009;
    q->gcnt.count = 1100;
    EXPECT_EQ(q_check_tps(q), 10);
    q_0()->now = 100019; // twenty seconds: the same period
    EXPECT_EQ(q_check_tps(q), 5);
    q_0()->now = 100020;
    EXPECT_EQ(q_check_tps(q), 0);
    EXPECT_EQ(q->tpsstart, 100019);
    q_0()->now = 100000; // a clock that ran backwards
    q->gcnt.count = 1150;
    EXPECT_EQ(q_check_tps(q), 50);
    q->tpsmx = 10;
    write(q, "m");
    EXPECT_EQ(read(q), "m") << "and may take hours to come back";
    EXPECT_EQ(q->tpsstart, 99999) << "the limit counts from now on";
    halvo_channel *f = segment.channel("FQ01"); // counts what leaves the file queue
    f->gcnt.count = 999;
    q_check_tps(f);
    f->fgcnt.count = 30;
    q_0()->now = 100002;
    EXPECT_EQ(q_check_tps(f), 10);
}

TEST_F(Counters, a_snapshot_holds_every_header_and_no_slot) {
    q->pcnt.count = 77;
    q_chnnl2q(1)->qend = UINT32_MAX; // its ring does not lie in the segment, its header does
    std::vector<char> image(sizeof(halvo_segment) + 2 * sizeof(halvo_channel), 'x');
    EXPECT_EQ(q_snapshot(image.data(), static_cast<int>(image.size())), 0);
    const char *at = image.data();
    EXPECT_EQ(std::memcmp(at, q_0(), sizeof(halvo_segment)), 0);
    at += sizeof(halvo_segment);
    EXPECT_EQ(std::memcmp(at, q, sizeof *q), 0);
    EXPECT_EQ(std::memcmp(at + sizeof *q, q_chnnl2q(1), sizeof *q), 0);
    EXPECT_EQ(q_snapshot(image.data(), static_cast<int>(image.size()) - 1), -2);
    EXPECT_EQ(std::vector<char>(image.begin(), image.end() - 1),
              std::vector<char>(image.size() - 1));
    EXPECT_EQ(q_snapshot(nullptr, 0), -2);
}

TEST_F(Counters, a_snapshot_survives_in_a_file_of_its_own_length) {
    const std::string path = segment.path("snapshot");
    const std::string saved = "0123456789";
    std::string loaded(10, '?');
    EXPECT_GE(q_save_snapshot(saved.data(), 10, path.c_str()), 0);
    EXPECT_EQ(q_load_snapshot(loaded.data(), 10, path.c_str()), 10);
    EXPECT_EQ(loaded, saved);
    EXPECT_GE(q_save_snapshot("abc", 3, path.c_str()), 0);
    EXPECT_EQ(q_load_snapshot(loaded.data(), 10, path.c_str()), 10) << "the file is not truncated";
    EXPECT_EQ(loaded, "abc3456789");
    EXPECT_EQ(q_load_snapshot(loaded.data(), 9, path.c_str()), -1);
    EXPECT_EQ(q_load_snapshot(loaded.data(), 0, path.c_str()), -3);
    EXPECT_EQ(q_load_snapshot(loaded.data(), 10, nullptr), -2);
    EXPECT_EQ(q_save_snapshot(saved.data(), 10, nullptr), -2);
    EXPECT_EQ(q_load_snapshot(loaded.data(), 10, segment.path("none").c_str()), -1);
    EXPECT_LT(q_save_snapshot(saved.data(), 10, segment.path("no/dir").c_str()), 0);
    EXPECT_GE(q_save_snapshot(nullptr, 0, segment.path("empty").c_str()), 0);
    EXPECT_EQ(std::filesystem::file_size(segment.path("empty")), 0u);
}
