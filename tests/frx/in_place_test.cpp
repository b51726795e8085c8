#include <thread>

#include "tests/support/frx_fixture.h"

using namespace halvo::test;

using FrxInPlace = FrxTest;

TEST_F(FrxInPlace, a_message_is_built_looked_at_and_released) {
    qmsg *room = nullptr;
    ASSERT_EQ(frx_reserve(&writer, 5, &room, 0), ESMS_OK);
    std::memcpy(room->data, "he", 2);
    std::memcpy(reinterpret_cast<char *>(room) + 16, "llo", 3);
    const qmsg *slot = nullptr;
    EXPECT_EQ(frx_peek(&reader, &slot, 0), ESMS_TIMEOUT) << "nothing is published yet";
    EXPECT_EQ(frx_publish(&writer, 3, 5), ESMS_OK);
    EXPECT_EQ(frx_peek(&reader, &slot, 0), 5);
    EXPECT_EQ(slot, room);
    EXPECT_EQ(frx_release(&reader, 0), ESMS_OK);
    EXPECT_EQ(frx_release(&reader, 0), ESMS_NOTARGET);
}

TEST_F(FrxInPlace, calls_refuse_what_the_others_refuse) {
    const qmsg *slot = nullptr;
    qmsg *room = nullptr;
    char body[4];
    FrxMessage none{};
    EXPECT_EQ(frx_peek(&reader, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_reserve(&writer, 1, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readBody(&reader, nullptr, nullptr, 4, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, nullptr, 1, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_writeMany(&writer, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 1, 0), ESMS_INVAL) << "nowhere to go";
    none.data = body;
    q->pidp = q->pidg = 1; // another process has them
    EXPECT_EQ(frx_peek(&reader, &slot, 0), ESMS_ACCESS);
    EXPECT_EQ(frx_release(&reader, 0), ESMS_ACCESS);
    EXPECT_EQ(frx_readBody(&reader, nullptr, body, 4, 0), ESMS_ACCESS);
    EXPECT_EQ(frx_readMany(&reader, &none, 1, 0), ESMS_ACCESS);
    EXPECT_EQ(frx_reserve(&writer, 1, &room, 0), ESMS_ACCESS);
    EXPECT_EQ(frx_publish(&writer, 1, 1), ESMS_ACCESS);
    EXPECT_EQ(frx_writeMany(&writer, &none, 1, 0), ESMS_ACCESS);
}

TEST_F(FrxInPlace, waits_end_by_the_other_sides_half) {
    fill(4);
    qmsg *room = nullptr;
    std::thread peer([&] {
        const qmsg *slot = nullptr;
        usleep(30000);
        EXPECT_EQ(frx_peek(&reader, &slot, 20000), 1);
        EXPECT_EQ(frx_release(&reader, 0), ESMS_OK);
    });
    EXPECT_EQ(frx_reserve(&writer, 4, &room, 20000), ESMS_OK);
    peer.join();
    for (int i = 1; i < 4; ++i) EXPECT_EQ(read(), std::to_string(i));
    std::thread late([&] {
        usleep(30000);
        EXPECT_EQ(frx_publish(&writer, 1, 4), ESMS_OK);
    });
    char body[48];
    EXPECT_EQ(frx_readBody(&reader, nullptr, body, sizeof body, 20000), 4);
    late.join();
}

TEST_F(FrxInPlace, a_batch_stops_where_the_ring_or_the_room_ends) {
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
