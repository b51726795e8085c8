#include "tests/support/frx_fixture.h"
#include "tests/support/ring_calls.h"

using namespace halvo::test;

using FrxOperations = FrxTest;

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
    EXPECT_EQ(said([&] { return frx_write(&writer, "", -1); }),
              Said(ESMS_INVAL, "snd error .... ESMS_INVAL\n"));
    EXPECT_EQ(said([&] { return frx_writeMark(&writer, 1, "", 0, -1); }),
              Said(ESMS_INVAL, "snd error ..... ESMS_INVAL\n"));
    EXPECT_EQ(said([&] { return frx_writeBuf(&writer, 1, "x", 1, 5, -1); }),
              Said(ESMS_INVAL, "frx_writeBuf snd error ..... ESMS_INVAL\n"));
    fill(4);
    EXPECT_EQ(said([&] { return frx_write(&writer, "x", -1); }), Said(ESMS_FULL, ""))
        << "a full ring is no error to report";
    Slot slot(q);
    EXPECT_EQ(frx_readBuf(&reader, slot.data(), 0, 5), ESMS_FAILED);
}

TEST_F(FrxOperations, hand_on_what_the_ring_answers) {
    const struct {
        const char *name;
        char side;
        int n, result;
        const char *ring;
    } steps[] = {
        {"frx_writeCommit", 'w', 0, ESMS_NOTARGET, "><____"},
        {"frx_writeMark", 'w', 0, ESMS_OK, "><W___"},
        {"frx_writeRollback", 'w', 0, ESMS_OK, "><____"},
        {"frx_writeMark", 'w', 0, ESMS_OK, "><W___"},
        {"frx_writeCommit", 'w', 0, ESMS_OK, ">F<___"},
        {"frx_writeMarkAt", 'w', -1, ESMS_INVAL, ">F<___"},
        {"frx_writeMarkAt", 'w', 0, ESMS_OK, ">F<W__"},
        {"frx_writeMarkAt", 'w', 1, ESMS_OK, ">F<WW_"},
        {"frx_writeRollbackAll", 'w', 0, 2, ">F<___"},
        {"frx_writeRollbackAll", 'w', 0, 0, ">F<___"},
        {"frx_writeMarkAt", 'w', 0, ESMS_OK, ">F<W__"},
        {"frx_writeMarkAt", 'w', 1, ESMS_OK, ">F<WW_"},
        {"frx_writeCommitAll", 'w', 0, ESMS_OK, ">FFF<_"},
        {"frx_readMark", 'r', 2, 2, ">RRF<_"},
        {"frx_readMarkedCount", 'r', 0, 2, ">RRF<_"},
        {"frx_readMarked", 'r', 1, ESMS_OK, ">RRF<_"},
        {"frx_readMarked", 'r', 2, ESMS_INVAL, ">RRF<_"},
        {"frx_peekMarked", 'r', 1, 1, ">RRF<_"},
        {"frx_peekMarked", 'r', 2, ESMS_INVAL, ">RRF<_"},
        {"frx_readCommit", 'r', 1, 1, "_>RF<_"},
        {"frx_readRollback", 'r', 0, 1, "_>FF<_"},
        {"frx_writeBuf", 'w', 3, ESMS_OK, "_>FF<_"},
        {"frx_writeBuf", 'w', 3, ESMS_PENDING, "_>FF<_"},
        {"frx_writeBufCommit", 'w', 3, ESMS_OK, "<_>FFF"},
        {"frx_writeBufCommit", 'w', 3, ESMS_INVAL, "<_>FFF"},
        {"frx_writeBufRollback", 'w', 3, ESMS_NOTARGET, "<_>FFF"},
        {"frx_writeBuf", 'w', 3, ESMS_FULL, "<_>FFF"},
        {"frx_readBuf", 'r', 2, 1, "<__>FF"},
        {"frx_readBuf", 'r', 2, 1, "<__>FF"}, // held
        {"frx_readBufClear", 'r', 2, ESMS_OK, "<__>FF"},
        {"frx_readBufClear", 'r', 2, ESMS_INVAL, "<__>FF"},
        {"frx_reserve", 'w', 0, ESMS_OK, "<__>FF"},
        {"frx_publish", 'w', 0, ESMS_OK, "F<_>FF"},
        {"frx_peek", 'r', 0, 1, "F<_>FF"},
        {"frx_release", 'r', 0, ESMS_OK, "F<__>F"},
        {"frx_readBody", 'r', 0, 1, ">F<___"},
        {"frx_release", 'r', 0, ESMS_OK, "_><___"},
        {"frx_release", 'r', 0, ESMS_NOTARGET, "_><___"},
    };
    for (const auto &[name, side, n, result, ring] : steps) {
        char room[64] = {};
        const Given given{q, side == 'w' ? &writer : &reader, n, 1, 0, -1, "a", 1, room, 48};
        const RingCall &call = ring_call(name, side);
        captured_stdout([&, expected = result] { EXPECT_EQ(call.run(given), expected) << name; });
        EXPECT_EQ(picture(q), ring) << name << n;
        const char *body = call.gives == RingCall::slot ? room + offsetof(qmsg, data) : room;
        if (call.gives != RingCall::nothing && result >= 0) {
            EXPECT_EQ(*body, 'a') << name;
        }
    }
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

TEST_F(FrxOperations, in_place_and_in_batches_refuse_the_same) {
    FrxMessage none{};
    EXPECT_EQ(frx_peek(&reader, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_reserve(&writer, 1, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readBody(&reader, nullptr, nullptr, 4, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, nullptr, 1, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_writeMany(&writer, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 1, 0), ESMS_INVAL) << "nowhere to go";
}

TEST_F(FrxOperations, a_batch_stops_where_the_ring_or_the_room_ends) {
    std::string texts[6] = {"0", "1", "2", "3", "4", "5"};
    FrxMessage out[6], in[6];
    char bodies[6][8];
    for (int i = 0; i < 6; ++i) {
        out[i] = {i, 1, 0, texts[i].data()};
        in[i] = {-1, 0, sizeof bodies[i], bodies[i]};
    }
    EXPECT_EQ(frx_writeMany(&writer, out, 6, 0), 4) << "slots";
    EXPECT_EQ(frx_writeMany(&writer, out, 6, -1), ESMS_FULL);
    in[2].capacity = 0;
    EXPECT_EQ(frx_readMany(&reader, in, 6, 0), 2);
    EXPECT_EQ(in[1].type, 1);
    EXPECT_EQ(in[1].length, 1u);
    EXPECT_EQ(bodies[1][0], '1');
    EXPECT_EQ(frx_readMany(&reader, &in[2], 1, 0), ESMS_EXEED);
    EXPECT_EQ(frx_readMany(&reader, &in[3], 3, 0), 2);
    EXPECT_EQ(frx_readMany(&reader, in, 6, 0), ESMS_TIMEOUT);
    out[1].length = 0; // cannot be written
    EXPECT_EQ(frx_writeMany(&writer, out, 6, 0), 1);
    captured_stdout([&] { EXPECT_EQ(frx_writeMany(&writer, &out[1], 5, 0), ESMS_INVAL); });
}
