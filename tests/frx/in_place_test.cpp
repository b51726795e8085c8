#include "tests/support/frx_fixture.h"

using namespace halvo::test;

using FrxInPlace = FrxTest;

TEST_F(FrxInPlace, calls_refuse_what_the_others_refuse) {
    FrxMessage none{};
    EXPECT_EQ(frx_peek(&reader, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_reserve(&writer, 1, nullptr, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readBody(&reader, nullptr, nullptr, 4, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, nullptr, 1, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_writeMany(&writer, &none, 0, 0), ESMS_INVAL);
    EXPECT_EQ(frx_readMany(&reader, &none, 1, 0), ESMS_INVAL) << "nowhere to go";
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
