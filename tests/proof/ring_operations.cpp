#include "tests/proof/ring_operations.h"

namespace halvo::test {

namespace {

using Places = std::vector<Legal>;

// 1.. lie in the ring; these are the operation's own.
constexpr int kNew = 11, kSecond = 12, kParked = 21;

// ---- What an operation needs done before

void nothing(SmallRing &) {}
void mark(SmallRing &ring, int n, uint32_t index) {
    const std::string text = numbered_message(n);
    EXPECT_EQ(q_write_mark_at(ring.q, SmallRing::kType, text.data(),
                              static_cast<uint32_t>(text.size()), index),
              ESMS_OK);
}
void mark_one(SmallRing &ring) { mark(ring, kNew, 0); }
void mark_two(SmallRing &ring) {
    mark(ring, kNew, 0);
    mark(ring, kSecond, 1);
}
void park(SmallRing &ring) { EXPECT_EQ(write_buf(ring.q, numbered_message(kParked), 2), ESMS_OK); }
void read_mark(SmallRing &ring) { EXPECT_EQ(q_read_mark(ring.q, 2), 2); }
void hold(SmallRing &ring) {
    Slot slot(ring.q);
    EXPECT_EQ(q_read_buf(ring.q, slot.data(), 2), ESMS_OK);
}
void reserve(SmallRing &ring) {
    const std::string text = numbered_message(kNew);
    qmsg *slot = nullptr;
    EXPECT_EQ(q_reserve(ring.q, static_cast<uint32_t>(text.size()), &slot), ESMS_OK);
    std::memcpy(halvo::body(slot), text.data(), text.size());
}
void step_back(SmallRing &ring, uint32_t &position) {
    position = position == ring.q->qstart ? ring.q->qend - ring.q->qbsz : position - ring.q->qbsz;
}
void damage_writer(SmallRing &ring) {
    mark_two(ring);
    step_back(ring, ring.q->wpos);
}
void damage_reader(SmallRing &ring) {
    Slot slot(ring.q);
    EXPECT_EQ(q_read(ring.q, slot.data()), ESMS_OK);
    EXPECT_EQ(q_read_mark(ring.q, 1), 1);
    step_back(ring, ring.q->rpos);
}

// ---- What may be found

Numbers operator+(Numbers ring, int n) {
    ring.push_back(n);
    return ring;
}
Numbers without(const Numbers &ring, std::ptrdiff_t first) {
    return Numbers(ring.begin() + first, ring.end());
}

Places untouched(const Numbers &r) { return {{{r, {}, {}, {}}}}; }
Places one_more(const Numbers &r) { return {{{r, {}, {}, {}}}, {{r + kNew, {}, {}, {}}}}; }
Places two_more(const Numbers &r) {
    return {{{r, {}, {}, {}}}, {{r + kNew, {}, {}, {}}}, {{r + kNew + kSecond, {}, {}, {}}}};
}
Places one_more_beside_parked(const Numbers &r) {
    return {{{r, {kParked}, {}, {}}}, {{r + kNew, {kParked}, {}, {}}}};
}
Places parked(const Numbers &r) { return {{{r, {}, {}, {}}}, {{r, {kNew}, {}, {}}}}; }
Places parked_moved(const Numbers &r) {
    return {{{r, {kParked}, {}, {}}}, {{r + kParked, {}, {}, {}}}};
}
Places parked_dropped(const Numbers &r) { return {{{r, {kParked}, {}, {}}}, {{r, {}, {}, {}}}}; }
Places given(const Numbers &r) {
    return {{{r, {}, {}, {}}}, {{r, {}, {}, {r[0]}}, 1}, {{without(r, 1), {}, {}, {r[0]}}}};
}
Places two_given(const Numbers &r) {
    Places places = given(r);
    places.push_back({{without(r, 1), {}, {}, {r[0], r[1]}}, 1});
    places.push_back({{without(r, 2), {}, {}, {r[0], r[1]}}});
    return places;
}
Places one_gone(const Numbers &r) { return {{{r, {}, {}, {}}}, {{without(r, 1), {}, {}, {}}}}; }
Places two_gone(const Numbers &r) {
    Places places = one_gone(r);
    places.push_back({{without(r, 2), {}, {}, {}}});
    return places;
}
Places held(const Numbers &r) {
    return {{{r, {}, {}, {}}},
            {{r, {}, {}, {r[0]}}, 1},
            {{r, {}, {r[0]}, {r[0]}}, 1},
            {{without(r, 1), {}, {r[0]}, {r[0]}}}};
}
Places held_dropped(const Numbers &r) {
    return {{{without(r, 1), {}, {r[0]}, {}}}, {{without(r, 1), {}, {}, {}}}};
}
Places first_was_read(const Numbers &r) { return {{{without(r, 1), {}, {}, {}}}}; }

// ---- The table

// Texts that the steps copy from; static, so that nothing is allocated between the steps.
const std::string &text_of(int n) {
    static const std::string texts[] = {numbered_message(kNew), numbered_message(kSecond)};
    return texts[n - kNew];
}
constexpr size_t kRoomSize = sizeof Stage::buffer / 2;

// Of the operation that stands ready.
FrxChannel gEnds[2]; // the reader's and the writer's
FrxMessage gBatch[2];
Given gGiven;

constexpr int kRecovered = HALVO_RECOVERED_POSITION | HALVO_RECOVERED_MARKS;
constexpr Row kRows[] = {
    {'w', "q_write", "frx_write", 1, 0, nothing, 0, ESMS_OK, one_more},
    {'w', "q_write", "frx_write", 2, 0, park, 0, ESMS_OK, one_more_beside_parked},
    {'w', "q_write_mark", "frx_writeMark", 1, 0, nothing, 0, ESMS_OK, untouched},
    {'w', "q_write_mark_at", "frx_writeMarkAt", 2, 0, mark_one, 1, ESMS_OK, untouched},
    {'w', "q_write_commit", "frx_writeCommit", 1, 0, mark_one, 0, ESMS_OK, one_more},
    {'w', "q_write_commit_all", "frx_writeCommitAll", 2, 0, mark_two, 0, ESMS_OK, two_more},
    {'w', "q_write_rollback", "frx_writeRollback", 1, 0, mark_one, 0, ESMS_OK, untouched},
    {'w', "q_write_rollback_all", "frx_writeRollbackAll", 2, 0, mark_two, 0, 2, untouched},
    {'w', "q_write_buf", "frx_writeBuf", 2, 0, nothing, 2, ESMS_OK, parked},
    {'w', "q_write_buf_commit", "frx_writeBufCommit", 2, 0, park, 2, ESMS_OK, parked_moved},
    {'w', "q_write_buf_rollback", "frx_writeBufRollback", 2, 0, park, 2, ESMS_OK, parked_dropped},
    {'w', "q_reserve", "frx_reserve", 1, 0, nothing, 0, ESMS_OK, untouched},
    {'w', "q_publish", "frx_publish", 1, 0, reserve, 0, ESMS_OK, one_more},
    {'w', nullptr, "frx_writeMany", 2, 0, nothing, 0, 2, two_more},
    {'w', "q_recover", nullptr, 2, 1, damage_writer, 0, kRecovered, untouched},
    {'r', "q_read", "frx_read", 0, 1, nothing, 0, ESMS_OK, given},
    {'r', "q_peek", "frx_peek", 0, 1, nothing, 0, ESMS_OK, untouched},
    {'r', "q_release", "frx_release", 0, 1, nothing, 0, ESMS_OK, one_gone},
    {'r', "q_read_body", "frx_readBody", 0, 1, nothing, 0, ESMS_OK, given},
    {'r', nullptr, "frx_readMany", 0, 2, nothing, 0, 2, two_given},
    {'r', "q_read_mark", "frx_readMark", 0, 2, nothing, 2, 2, untouched},
    {'r', "q_peek_marked", "frx_peekMarked", 0, 2, read_mark, 0, ESMS_OK, untouched},
    {'r', "q_read_commit", "frx_readCommit", 0, 2, read_mark, 0, 2, two_gone},
    {'r', "q_read_rollback", "frx_readRollback", 0, 2, read_mark, 0, 2, untouched},
    {'r', "q_read_buf", "frx_readBuf", 0, 1, nothing, 2, ESMS_OK, held},
    {'r', "q_read_buf_clear", "frx_readBufClear", 0, 1, hold, 2, ESMS_OK, held_dropped},
    {'r', "q_recover", nullptr, 0, 2, damage_reader, 0, kRecovered, first_was_read},
};

std::vector<RingOperation> make_operations() {
    const int length = static_cast<int>(numbered_message(1).size());
    std::vector<RingOperation> all;
    for (const Row &row : kRows) {
        for (const char *name : {row.core, row.guarded}) {
            if (!name) continue;
            RingOperation one{row, ring_call(name, row.side)};
            const RingCall::Gives gives = one.call.gives;
            if (name == row.guarded && row.result == ESMS_OK &&
                (gives != RingCall::nothing || one.call.name.starts_with("frx_peek")))
                one.result = length;
            all.push_back(one);
        }
    }
    return all;
}

} // namespace

void RingOperation::open() const {
    EXPECT_EQ(frx_openChannel(&gEnds[call.side == 'w'], "killed", 0, call.side, 1000), ESMS_OK);
}
void RingOperation::close() const { frx_closeChannel(&gEnds[call.side == 'w']); }

void RingOperation::stand_ready(SmallRing &ring, Stage &stage) const {
    std::memset(stage.buffer, 0, sizeof stage.buffer);
    for (int i = 0; i < 2; ++i) {
        auto *slot = reinterpret_cast<qmsg *>(stage.buffer + i * kRoomSize);
        slot->len = static_cast<uint32_t>(numbered_message(1 + i).size());
        const std::string &text = text_of(kNew + i);
        gBatch[i] = {SmallRing::kType, static_cast<uint32_t>(text.size()), kRoom,
                     call.side == 'w' ? const_cast<char *>(text.data()) : halvo::body(slot)};
    }
    gGiven = {ring.q, &gEnds[call.side == 'w'], n, SmallRing::kType};
    gGiven.data = gBatch[0].data;
    gGiven.length = gBatch[0].length;
    gGiven.room = call.gives == RingCall::body ? gBatch[0].data : stage.buffer;
    gGiven.capacity = kRoom;
    gGiven.batch = gBatch;
}

int RingOperation::run() const { return call.run(gGiven); }

Numbers RingOperation::delivered(const Stage &stage) const {
    Numbers numbers;
    if (call.gives == RingCall::nothing) return numbers;
    for (int i = 0; i < 2; ++i) {
        const int number = number_in(stage.buffer + i * kRoomSize, kRoom);
        if (number != kTorn) numbers.push_back(number);
    }
    return numbers;
}

const std::vector<RingOperation> &ring_operations() {
    static const std::vector<RingOperation> all = make_operations();
    return all;
}

const RingOperation &operation_named(const std::string &name) {
    for (const RingOperation &operation : ring_operations())
        if (operation.call.name == name) return operation;
    throw std::out_of_range(name);
}

} // namespace halvo::test
