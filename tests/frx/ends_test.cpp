#include "tests/support/frx_fixture.h"
#include "tests/support/ring_calls.h"

using namespace halvo::test;

using FrxEnds = FrxTest;

TEST(FrxStart, answers_as_the_attach_and_starts_the_monitor) {
    EXPECT_EQ(frx_initialized(), 0);
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    EXPECT_EQ(initialise(s), ESMS_OK);
    EXPECT_EQ(frx_initialized(), 1);
    EXPECT_EQ(initialise(s), ESMS_ALREADY);
    halvo::store(q_0()->now, 0);
    usleep(250000);
    EXPECT_NE(q_gettime(), 0u) << "the monitor thread keeps the clock going";
}

TEST(FrxStart, an_unusable_key_file_leaves_the_service_locked) {
    captured_stdout([] { EXPECT_EQ(frx_initialize("/nonexistent/key"), ESMS_MTXLOCK); });
}

TEST(FrxStart, a_channel_whose_ring_comes_right_later_is_served) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 64).build();
    Peer([&] {
        s.attach();
        q_chnnl2q(0)->qend = UINT32_MAX;
    }).wait();
    ASSERT_EQ(initialise(s), ESMS_OK);
    halvo_channel *q = q_chnnl2q(0);
    FrxChannel writer, reader;
    EXPECT_EQ(frx_openChannel(&writer, "late", 0, 'w', 0), ESMS_INVAL);
    const uint32_t end = q->qstart + q->qcnt * q->qbsz;
    q->qend = end;
    ASSERT_EQ(frx_openChannel(&writer, "late", 0, 'w', 0), ESMS_OK);
    ASSERT_EQ(frx_openChannel(&reader, "late", 0, 'r', 0), ESMS_OK);
    for (int round = 0; round < 2; ++round) { // the second one behind a change with both ends open
        EXPECT_EQ(frx_write(&writer, "frx", 0), ESMS_OK);
        EXPECT_EQ(frx_read(&reader, Slot(q).data(), 0), 3);
        q->qend = UINT32_MAX;
        EXPECT_EQ(frx_write(&writer, "frx", 0), ESMS_INVAL);
        q->qend = end;
    }
}

TEST_F(FrxEnds, record_the_client_cut_to_23_bytes) {
    EXPECT_STREQ(q->pname, "the writer");
    EXPECT_STREQ(q->gname, "the reader");
    EXPECT_EQ(q->pidp, getpid());
    EXPECT_EQ(frx_closeChannel(&writer), ESMS_OK);
    ASSERT_EQ(frx_openChannel(&writer, "a name of more than 23 bytes", 0, 'w', 1000), ESMS_OK);
    EXPECT_EQ(std::string(q->pname, 24), std::string("a name of more than 23 ") + '\0');
}

TEST_F(FrxEnds, the_handles_address_is_what_counts) {
    FrxChannel copy = writer;
    EXPECT_EQ(frx_isValid(&writer), 1);
    EXPECT_EQ(frx_isValid(&copy), 0);
    EXPECT_EQ(frx_closeChannel(&copy), ESMS_ACCESS);
    EXPECT_EQ(frx_closeChannel(&writer), ESMS_OK);
    EXPECT_EQ(frx_isValid(&writer), 1) << "a closed handle stays recorded";
    ASSERT_EQ(frx_openChannel(&copy, "again", 0, 'w', 1000), ESMS_OK);
    EXPECT_EQ(frx_isValid(&writer), 0) << "a new handle replaces it";
    EXPECT_EQ(frx_write(&copy, "a", -1), ESMS_OK);
}

TEST_F(FrxEnds, operations_are_for_the_handle_that_opened_the_end_in_this_process) {
    char slot[64], bodies[2][8];
    FrxMessage batch[] = {{1, 1, 8, bodies[0]}, {1, 1, 8, bodies[1]}};
    for (const RingCall &call : kRingCalls) {
        if (!call.is_guarded()) continue;
        FrxChannel &own = call.side == 'w' ? writer : reader;
        const auto run = [&](FrxChannel *end) {
            return call.run({q, end, 0, 1, 0, -1, "a", 1, slot, 8, batch});
        };
        FrxChannel copy = own, nowhere = {999, call.side};
        for (FrxChannel *wrong : {&copy, &nowhere, static_cast<FrxChannel *>(nullptr)})
            EXPECT_EQ(run(wrong), ESMS_ACCESS) << call.name;
        int32_t &holder = call.side == 'w' ? q->pidp : q->pidg;
        holder = 1; // another process has opened it since
        EXPECT_EQ(run(&own), ESMS_ACCESS) << call.name;
        holder = getpid();
        EXPECT_NE(run(&own), ESMS_ACCESS) << call.name;
        EXPECT_EQ(holder, getpid());
    }
}

TEST_F(FrxEnds, no_channel_number_no_side_and_no_null_handle_does_harm) {
    for (int channel : {-1, 2, 255, 256, 999, INT32_MIN, INT32_MAX}) {
        FrxChannel bad{};
        EXPECT_EQ(frx_openChannel(&bad, "x", channel, 'w', 0), ESMS_INVAL) << channel;
        EXPECT_EQ(bad.channel, channel) << "the fields are stored before any check";
        EXPECT_EQ(bad.side, 'w');
        char slot[64];
        EXPECT_EQ(frx_isValid(&bad), 0);
        for (const int64_t answer :
             std::vector<int64_t>{frx_view(&bad, slot), frx_stat(&bad), frx_statBuf(&bad, 0),
                                  frx_isCountpartAlive(&bad, 9), frx_sizeOfBlock(channel),
                                  frx_countOfBlocks(channel), frx_sizeOfData(channel),
                                  frx_getCount(channel), frx_gcount(channel), frx_pcount(channel),
                                  frx_pcountFor(channel, 1), frx_resetPCountFor(channel, 1)})
            EXPECT_EQ(answer, ESMS_INVAL) << channel;
        if (channel >= 0 && channel <= 255) continue;
        EXPECT_EQ(frx_lock(&bad), ESMS_INVAL);
        EXPECT_EQ(frx_unlock(&bad), ESMS_INVAL);
    }
    for (const char side : {'x', 'q'}) { // an observer has no end
        FrxChannel other{};
        EXPECT_EQ(frx_openChannel(&other, "x", 0, side, 0), ESMS_ACCESS);
    }
    EXPECT_EQ(frx_isValid(&reader), 1);
    EXPECT_EQ(frx_openChannel(nullptr, "x", 0, 'w', 0), ESMS_INVAL);
    EXPECT_EQ(frx_stat(nullptr), ESMS_INVAL);
    EXPECT_EQ(frx_lock(nullptr), ESMS_INVAL);
}

TEST(FrxChannels, above_255_are_no_channels_here) {
    SegmentBuilder builder;
    for (int i = 0; i < 258; ++i) builder.channel("C" + std::to_string(i), 'F', 2, 32);
    const Segment s = builder.build();
    ASSERT_EQ(initialise(s), ESMS_OK);
    EXPECT_EQ(frx_channelByName("C257"), 257);
    FrxChannel end{};
    EXPECT_EQ(frx_openChannel(&end, "x", 257, 'w', 100), ESMS_INVAL);
    EXPECT_EQ(frx_sizeOfBlock(257), ESMS_INVAL);
    EXPECT_EQ(frx_openChannel(&end, "x", 255, 'w', 100), ESMS_OK);
}

// The probes serve a process that only looks; what they would store they leave alone.
TEST(FrxChannels, are_looked_at_in_a_view_too) {
    const Segment segment = two_channels();
    ASSERT_EQ(q_attach_view(segment.key_file().c_str()), ESMS_OK);
    const FrxChannel end{0, 'r'};
    EXPECT_EQ(frx_isCountpartAlive(&end, INT_MAX), 1);
    EXPECT_EQ(frx_resetPCountFor(0, 1), ESMS_INVAL);
}
