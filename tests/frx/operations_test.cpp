#include "tests/support/frx_fixture.h"

using namespace halvo::test;

using FrxOperations = FrxTest;

TEST_F(FrxOperations, write_and_read_give_the_length_and_the_whole_slot) {
    EXPECT_EQ(::frx_write(&writer, 77, "hello", 5, -1), ESMS_OK);
    Slot slot(q);
    EXPECT_EQ(frx_read(&reader, slot.data(), 0), 5);
    EXPECT_EQ(slot.body(), "hello");
    EXPECT_EQ(slot.header().type, 77);
}

TEST_F(FrxOperations, never_give_a_length_that_a_slot_cannot_hold) {
    const auto room = static_cast<int>(q->qbsz - offsetof(qmsg, data));
    for (const uint32_t claimed : {q->qbsz, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        Slot slot(q);
        fill(2);
        halvo::slot_at(q, q->rpos)->len = claimed; // by a process gone wild
        EXPECT_EQ(frx_read(&reader, slot.data(), 0), room);
        halvo::slot_at(q, q->rpos)->len = claimed;
        EXPECT_EQ(frx_readBuf(&reader, slot.data(), 0, 1), room);
        EXPECT_EQ(frx_readBuf(&reader, slot.data(), -1, 1), room) << "of the held message";
        q_read_buf_clear(q, 1);
    }
}

TEST_F(FrxOperations, refuse_null_and_report_what_the_ring_refuses) {
    for (const int answer : {frx_read(&reader, nullptr, 0), frx_readBuf(&reader, nullptr, 0, 0),
                             frx_readMarked(&reader, 0, nullptr), frx_view(&reader, nullptr),
                             ::frx_write(&writer, 1, nullptr, 5, -1)})
        EXPECT_EQ(answer, ESMS_INVAL);
    const struct {
        std::function<int()> call;
        std::string printed;
    } refused[] = {
        {[&] { return frx_write(&writer, "", -1); }, "snd error .... ESMS_INVAL\n"},
        {[&] { return frx_writeMark(&writer, 1, "", 0, -1); }, "snd error ..... ESMS_INVAL\n"},
        {[&] { return frx_writeBuf(&writer, 1, "x", 1, 5, -1); },
         "frx_writeBuf snd error ..... ESMS_INVAL\n"},
    };
    for (const auto &[call, printed] : refused)
        EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(call(), ESMS_INVAL); }), printed);
    fill(4);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(frx_write(&writer, "x", -1), ESMS_FULL); }), "")
        << "a full ring is no error to report";
    Slot slot(q);
    EXPECT_EQ(frx_readBuf(&reader, slot.data(), 0, 5), ESMS_FAILED);
}

TEST_F(FrxOperations, marks_commits_and_rollbacks_of_the_writer) {
    EXPECT_EQ(frx_writeCommit(&writer), ESMS_NOTARGET);
    EXPECT_EQ(frx_writeMark(&writer, 1, "a", 1, -1), ESMS_OK);
    EXPECT_EQ(picture(q), "><W___");
    EXPECT_EQ(frx_writeRollback(&writer), ESMS_OK);
    EXPECT_EQ(frx_writeMark(&writer, 1, "b", 1, -1), ESMS_OK);
    EXPECT_EQ(frx_writeCommit(&writer), ESMS_OK);
    EXPECT_EQ(read(), "b");
}

TEST_F(FrxOperations, a_batch_of_the_writer_appears_or_vanishes_as_one) {
    const auto mark = [&](int index) {
        return frx_writeMarkAt(&writer, 1, std::to_string(index).data(), 1, index, -1);
    };
    EXPECT_EQ(mark(-1), ESMS_INVAL);
    for (const int index : {0, 1, 2}) EXPECT_EQ(mark(index), ESMS_OK);
    EXPECT_EQ(picture(q), "><WWW_");
    EXPECT_EQ(frx_writeRollbackAll(&writer), 3);
    EXPECT_EQ(frx_writeRollbackAll(&writer), 0);
    for (const int index : {0, 1}) EXPECT_EQ(mark(index), ESMS_OK);
    std::string got;
    std::thread waiting([&] { got = read(); }); // the commit wakes it
    while (halvo::load(q->rwait) == 0) usleep(1000);
    EXPECT_EQ(frx_writeCommitAll(&writer), ESMS_OK);
    waiting.join();
    EXPECT_EQ(got + read(), "01");
}

TEST_F(FrxOperations, marks_commits_and_rollbacks_of_the_reader) {
    fill(3);
    EXPECT_EQ(frx_readMark(&reader, 2, 0), 2);
    EXPECT_EQ(frx_readMarkedCount(&reader), 2);
    Slot slot(q);
    EXPECT_EQ(frx_readMarked(&reader, 1, slot.data()), ESMS_OK);
    EXPECT_EQ(slot.body(), "1");
    EXPECT_EQ(frx_readMarked(&reader, 2, slot.data()), ESMS_INVAL);
    EXPECT_EQ(frx_readCommit(&reader, 1), 1);
    EXPECT_EQ(frx_readRollback(&reader), 1);
    EXPECT_EQ(read(), "1");
}

TEST_F(FrxOperations, buffers_of_both_sides) {
    EXPECT_EQ(frx_writeBuf(&writer, 1, "parked", 6, 3, -1), ESMS_OK);
    captured_stdout([&] { EXPECT_EQ(frx_writeBuf(&writer, 1, "other", 5, 3, -1), ESMS_PENDING); });
    EXPECT_EQ(frx_statBuf(&writer, 3), HALVO_SLOT_READABLE);
    EXPECT_EQ(frx_writeBufCommit(&writer, 3), ESMS_OK);
    EXPECT_EQ(frx_writeBufCommit(&writer, 3), ESMS_INVAL);
    EXPECT_EQ(frx_writeBufRollback(&writer, 3), ESMS_NOTARGET);
    Slot slot(q);
    EXPECT_EQ(frx_readBuf(&reader, slot.data(), 1000, 2), 6);
    EXPECT_EQ(frx_readBuf(&reader, slot.data(), 1000, 2), 6) << "held";
    EXPECT_EQ(frx_statBuf(&reader, 2), HALVO_SLOT_READABLE);
    EXPECT_EQ(frx_readBufClear(&reader, 2), ESMS_OK);
    EXPECT_EQ(frx_readBufClear(&reader, 2), ESMS_INVAL);
}

TEST_F(FrxOperations, probes_need_no_opened_handle) {
    fill(1);
    FrxChannel probe{0, 'r'};
    Slot slot(q);
    EXPECT_EQ(frx_view(&probe, slot.data()), 0);
    EXPECT_EQ(slot.body(), "0");
    EXPECT_EQ(frx_stat(&probe), HALVO_SLOT_READABLE);
    probe.side = 'w';
    EXPECT_EQ(frx_stat(&probe), HALVO_SLOT_FREE);
    EXPECT_EQ(frx_statBuf(&probe, -1), ESMS_INVAL);
    EXPECT_EQ(frx_statBuf(&probe, 0), HALVO_SLOT_FREE);
    EXPECT_EQ(frx_statBuf(&probe, 5), HALVO_SLOT_READABLE) << "one index more than buffers";
    EXPECT_EQ(frx_statBuf(&probe, 6), ESMS_INVAL);
}

TEST_F(FrxOperations, asking_for_the_counterpart_is_a_heartbeat) {
    const int now = q_settime();
    q->wtime = now - 10;
    q->rtime = 0;
    EXPECT_EQ(frx_isCountpartAlive(&reader, 10), 0);
    EXPECT_EQ(frx_isCountpartAlive(&reader, 12), 1);
    EXPECT_GE(q->rtime, now);
    q->rtime = now - 100;
    EXPECT_EQ(frx_isCountpartAlive(&writer, 50), 0);
    EXPECT_GE(q->wtime, now);
    FrxChannel unknown{0, '?'}; // any side but 'r' asks for the reader
    EXPECT_EQ(frx_isCountpartAlive(&unknown, 50), 0);
}

TEST_F(FrxOperations, sizes_and_counts_by_channel_number) {
    EXPECT_EQ(frx_sizeOfBlock(0), 64);
    EXPECT_EQ(frx_countOfBlocks(0), 2);
    EXPECT_EQ(frx_sizeOfData(0), 48);
    EXPECT_EQ(frx_channelByName("FQ01"), 1);
    EXPECT_EQ(frx_channelByName("none"), -1);
    fill(3);
    read();
    EXPECT_EQ(frx_pcount(0), 3);
    EXPECT_EQ(frx_gcount(0), 1);
    EXPECT_EQ(frx_getCount(0), 2);
    halvo_channel *f = segment.channel("FQ01");
    f->pcnt.count = 50;
    f->fpcnt.count = 9;
    f->fgcnt.count = 4;
    EXPECT_EQ(frx_getCount(1), 5) << "an 'F' channel counts its file queue alone";
    EXPECT_EQ(frx_pcountFor(0, 1), 3);
    EXPECT_EQ(frx_resetPCountFor(0, 1), 3);
    EXPECT_EQ(frx_pcountFor(0, 1), 0);
    EXPECT_EQ(frx_pcountFor(0, 0), 3) << "all types";
    for (int type : {-1, 4096}) {
        EXPECT_EQ(frx_pcountFor(0, type), ESMS_INVAL);
        EXPECT_EQ(frx_resetPCountFor(0, type), ESMS_INVAL);
    }
}
