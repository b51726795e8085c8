#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "halvo/queue.h"
#include "tests/support/capture.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

Segment two_channels() {
    return SegmentBuilder().channel("MT01", 'M', 4, 64).channel("FQ01", 'F', 4, 64).build();
}

} // namespace

TEST(Attach, null_key_file_asks_whether_the_process_is_attached) {
    const Segment s = two_channels();
    EXPECT_EQ(init_shm(nullptr), ESMS_NOINIT);
    EXPECT_EQ(q_0(), nullptr);
    EXPECT_EQ(q_chnnl2q(0), nullptr);
    EXPECT_EQ(q_name2chnnl("MT01"), -1);
    EXPECT_EQ(q_gettime(), 0xFFFFFFFFu);
    EXPECT_EQ(q_settime(), -1);
    EXPECT_EQ(close_shm(), ESMS_NOINIT);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_OK); }),
              "SHM_INIT_FINISHED.\n");
    EXPECT_EQ(init_shm(nullptr), ESMS_OK);
    EXPECT_EQ(q_0()->nchnnl, 2u);
}

TEST(Attach, a_process_attaches_once_for_its_lifetime) {
    const Segment s = two_channels();
    s.attach();
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_ALREADY); }),
              "SHM_INIT_FINISHED.\n");
    EXPECT_EQ(close_shm(), ESMS_OK);
    EXPECT_EQ(init_shm(nullptr), ESMS_OK);
    EXPECT_EQ(init_shm(s.key_file().c_str()), ESMS_ALREADY);
    EXPECT_EQ(close_shm(), ESMS_SHMOP) << "a second detach fails";
    // What would touch the segment answers as if there were none.
    EXPECT_EQ(q_settime(), -1);
    EXPECT_EQ(q_name2chnnl("MT01"), -1);
    EXPECT_EQ(q_close(0, 'r'), ESMS_NOINIT);
    EXPECT_EQ(sem_postx(0), -1);
}

TEST(Attach, a_failed_attach_keeps_the_service_lock_but_hangs_nobody) {
    const std::string missing = "/nonexistent/halvo.key";
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(init_shm(missing.c_str()), ESMS_SHMOP); }),
              "shmat failed keyfile " + missing + " id -1 block -1\n");
    EXPECT_EQ(init_shm(nullptr), ESMS_OK) << "the failed address counts as attached here";
    EXPECT_EQ(q_0(), nullptr);
    EXPECT_EQ(q_chnnl2q(0), nullptr);
    EXPECT_EQ(init_shm(missing.c_str()), ESMS_MTXLOCK);
    std::thread([&] { EXPECT_EQ(init_shm(missing.c_str()), ESMS_MTXLOCK); }).join();
}

TEST(Attach, an_over_long_key_file_path_fails_like_a_missing_file) {
    const std::string path = "/" + std::string(2043, 'k'); // 2049 bytes with ".post"
    captured_stdout([&] { EXPECT_EQ(init_shm(path.c_str()), ESMS_SHMOP); });
}

TEST(Lookup, names_are_matched_whole_and_the_lowest_channel_wins) {
    const Segment s = SegmentBuilder()
                          .channel("MT01", 'M', 4, 64)
                          .channel("TWIN1", 'M', 4, 64)
                          .channel("TWIN2", 'M', 4, 64)
                          .build();
    s.attach();
    std::memcpy(q_chnnl2q(2)->qname, "TWIN1", 6);
    EXPECT_EQ(q_name2chnnl("TWIN1"), 1);
    EXPECT_EQ(q_name2chnnl("MT0"), -1);
    EXPECT_EQ(q_name2chnnl("MT011"), -1);
    EXPECT_EQ(q_name2chnnl(nullptr), -1);
    // A name that fills its field has no terminator.
    const std::string full(24, 'N');
    std::memcpy(q_chnnl2q(0)->qname, full.data(), 24);
    EXPECT_EQ(q_name2chnnl(full.c_str()), 0);
    EXPECT_EQ(q_name2chnnl((full + "N").c_str()), -1);
}

TEST(Lookup, slot_states_have_letters) {
    std::string letters;
    for (int32_t state = -1; state < 8; ++state) {
        qmsg slot{};
        slot.state = state;
        letters += q_statchr(&slot);
    }
    EXPECT_EQ(letters, "X_FXRXWXX");
}

TEST(ResultCodes, are_printed_by_name_behind_the_prefix) {
    const auto printed = [](int code) {
        return captured_stdout([=] { printr("snd error ....", code); });
    };
    EXPECT_EQ(printed(ESMS_EXEED), "snd error .... ESMS_EXEED\n");
    EXPECT_EQ(printed(ESMS_OK), "snd error .... ESMS_OK\n");
    EXPECT_EQ(printed(ESMS_STAT), "snd error .... ESMS_STAT\n");
    EXPECT_EQ(printed(EIDRM), "snd error .... EIDRM\n");
    EXPECT_EQ(printed(2), "snd error .... Unknown err 2\n");
    EXPECT_EQ(printed(-18), "snd error .... Unknown err -18\n");
    EXPECT_EQ(captured_stdout([] { printr("100%% of it:", ESMS_FULL); }),
              "100% of it: ESMS_FULL\n");
}
