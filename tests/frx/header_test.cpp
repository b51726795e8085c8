// halvo.hpp: a batch of messages through ends that move and close themselves.
#include "halvo/halvo.hpp"

#include <thread>

#include "tests/support/frx_fixture.h"

using namespace halvo;
using namespace std::chrono_literals;

TEST(CppHeader, a_batch_is_looked_at_handed_back_and_consumed) {
    const test::Segment segment = test::two_channels();
    ASSERT_EQ(test::initialise(segment), ESMS_OK);
    EXPECT_EQ(Reader::open("none", "x", 0s).error(), ESMS_INVAL);
    auto out = Writer::open("MT01", "writer", 1s);
    auto in = Reader::open("MT01", "first", 1s);
    ASSERT_TRUE(out && in);
    std::string texts[] = {"one", "three"};
    const FrxMessage both[] = {{1, 3, 0, texts[0].data()}, {3, 5, 0, texts[1].data()}};
    EXPECT_EQ(*out->write(both, 1s), 2);
    EXPECT_EQ(*in->mark(0, 1s), 2);
    EXPECT_EQ(in->marked(2).error(), ESMS_INVAL);
    const auto second = in->marked(1);
    EXPECT_EQ(second->type, 3);
    EXPECT_EQ(std::memcmp(second->body.data(), "three", second->body.size()), 0);
    EXPECT_EQ(*in->rollback(), 2);

    auto other = Reader::open("FQ01", "other", 1s);
    *other = std::move(*in); // closes FQ01
    EXPECT_TRUE(Reader::open("FQ01", "again", 0s));
    EXPECT_EQ(*other->mark(1, 1s), 1);
    EXPECT_EQ(*other->commit(), 1);
    std::byte room[8];
    EXPECT_EQ(other->read(Room(room, 4), 1s).error(), ESMS_EXEED);
    EXPECT_EQ(other->read(room, 1s)->body.size(), 5u);
    EXPECT_EQ(other->peek(0s).error(), ESMS_TIMEOUT);
#ifndef __SANITIZE_ADDRESS__ // as in waiting_test.cpp
    std::thread waiting([&] { EXPECT_TRUE(other->peek(60s)) << "does not return"; });
    pthread_cancel(waiting.native_handle());
    waiting.join();
#endif
}
