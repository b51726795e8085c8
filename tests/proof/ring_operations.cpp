#include "tests/proof/ring_operations.h"

#include <stdexcept>

namespace halvo::test {

namespace {

using Ring = std::vector<int>;

// 1.. lie in the ring; these are the operation's own.
constexpr int kNew = 11, kSecond = 12, kParked = 21;

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
    EXPECT_EQ(q_read_buf(ring.q, slot.data(), 1), ESMS_OK);
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

Ring operator+(Ring ring, int n) {
    ring.push_back(n);
    return ring;
}
Ring without(const Ring &ring, size_t first) {
    return Ring(ring.begin() + static_cast<std::ptrdiff_t>(first), ring.end());
}

std::vector<Legal> untouched(const Ring &ring) { return {{{ring, {}, {}}}}; }
std::vector<Legal> one_more(const Ring &ring) {
    return {{{ring, {}, {}}}, {{ring + kNew, {}, {}}}};
}

// Text that the steps copy from; static, so that nothing is allocated between the steps.
const std::string &new_text() {
    static const std::string text = numbered_message(kNew);
    return text;
}
const void *data() { return new_text().data(); }
uint32_t size() { return static_cast<uint32_t>(new_text().size()); }

const std::vector<RingOperation> kOperations = {
    {"write", 'w', 1, 0, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) { return q_write(q, SmallRing::kType, data(), size()); },
     ESMS_OK, one_more},
    {"write beside a parked one", 'w', 2, 0, park,
     [](halvo_channel *q, Stage &) { return q_write(q, SmallRing::kType, data(), size()); },
     ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {kParked}, {}}}, {{ring + kNew, {kParked}, {}}}};
     }},
    {"write_mark", 'w', 1, 0, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) { return q_write_mark(q, SmallRing::kType, data(), size()); },
     ESMS_OK, untouched},
    {"write_mark_at", 'w', 2, 0, mark_one,
     [](halvo_channel *q, Stage &) {
         return q_write_mark_at(q, SmallRing::kType, data(), size(), 1);
     },
     ESMS_OK, untouched},
    {"write_commit", 'w', 1, 0, mark_one,
     [](halvo_channel *q, Stage &) { return q_write_commit(q); }, ESMS_OK, one_more},
    {"write_commit_all", 'w', 2, 0, mark_two,
     [](halvo_channel *q, Stage &) { return q_write_commit_all(q); }, ESMS_OK,
     [](const Ring &ring) {
         std::vector<Legal> legal = one_more(ring);
         legal.push_back({{ring + kNew + kSecond, {}, {}}});
         return legal;
     }},
    {"write_rollback", 'w', 1, 0, mark_one,
     [](halvo_channel *q, Stage &) { return q_write_rollback(q); }, ESMS_OK, untouched},
    {"write_rollback_all", 'w', 2, 0, mark_two,
     [](halvo_channel *q, Stage &) { return q_write_rollback_all(q); }, 2, untouched},
    {"write_buf", 'w', 2, 0, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) { return q_write_buf(q, SmallRing::kType, data(), size(), 2); },
     ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {}, {}}}, {{ring, {kNew}, {}}}};
     }},
    {"write_buf_commit", 'w', 2, 0, park,
     [](halvo_channel *q, Stage &) { return q_write_buf_commit(q, 2); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {kParked}, {}}},
                                   {{ring + kParked, {kParked}, {}}, 1},
                                   {{ring + kParked, {}, {}}}};
     }},
    {"write_buf_rollback", 'w', 2, 0, park,
     [](halvo_channel *q, Stage &) { return q_write_buf_rollback(q, 2); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {kParked}, {}}}, {{ring, {}, {}}}};
     }},
    {"reserve and write into the slot", 'w', 1, 0, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) {
         qmsg *slot = nullptr;
         const int result = q_reserve(q, size(), &slot);
         if (result == ESMS_OK) std::memcpy(halvo::body(slot), data(), size());
         return result;
     },
     ESMS_OK, untouched},
    {"publish", 'w', 1, 0, reserve,
     [](halvo_channel *q, Stage &) { return q_publish(q, SmallRing::kType, size()); }, ESMS_OK,
     one_more},
    {"recover the writer's end", 'w', 2, 1,
     [](SmallRing &ring) {
         mark_two(ring);
         step_back(ring, ring.q->wpos);
     },
     [](halvo_channel *, Stage &) { return q_recover(0, 'w'); },
     HALVO_RECOVERED_POSITION | HALVO_RECOVERED_MARKS, untouched},
    {"read", 'r', 0, 1, [](SmallRing &) {},
     [](halvo_channel *q, Stage &stage) { return q_read(q, stage.buffer); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{
             {{ring, {}, {}}}, {{ring, {}, {}, ring[0]}, 1}, {{without(ring, 1), {}, {}, ring[0]}}};
     }},
    {"peek", 'r', 0, 1, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) {
         const qmsg *slot = nullptr;
         return q_peek(q, &slot);
     },
     ESMS_OK, untouched},
    {"release", 'r', 0, 1, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) { return q_release(q, 0); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {}, {}}}, {{without(ring, 1), {}, {}}}};
     }},
    {"read_body", 'r', 0, 1, [](SmallRing &) {},
     [](halvo_channel *q, Stage &stage) { // where q_read puts them
         return q_read_body(q, nullptr, stage.buffer + offsetof(qmsg, data), 64,
                            reinterpret_cast<uint32_t *>(stage.buffer + offsetof(qmsg, len)));
     },
     ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{
             {{ring, {}, {}}}, {{ring, {}, {}, ring[0]}, 1}, {{without(ring, 1), {}, {}, ring[0]}}};
     }},
    {"read_mark", 'r', 0, 2, [](SmallRing &) {},
     [](halvo_channel *q, Stage &) { return q_read_mark(q, 2); }, 2, untouched},
    {"read_commit", 'r', 0, 2, read_mark,
     [](halvo_channel *q, Stage &) { return q_read_commit(q, 0, 0); }, 2,
     [](const Ring &ring) {
         return std::vector<Legal>{
             {{ring, {}, {}}}, {{without(ring, 1), {}, {}}}, {{without(ring, 2), {}, {}}}};
     }},
    {"read_rollback", 'r', 0, 2, read_mark,
     [](halvo_channel *q, Stage &) { return q_read_rollback(q); }, 2, untouched},
    {"read_buf", 'r', 0, 1, [](SmallRing &) {},
     [](halvo_channel *q, Stage &stage) { return q_read_buf(q, stage.buffer, 1); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{ring, {}, {}}},
                                   {{ring, {}, {}, ring[0]}, 1},
                                   {{ring, {}, {ring[0]}, ring[0]}, 1},
                                   {{without(ring, 1), {}, {ring[0]}, ring[0]}}};
     }},
    {"read_buf_clear", 'r', 0, 1, hold,
     [](halvo_channel *q, Stage &) { return q_read_buf_clear(q, 1); }, ESMS_OK,
     [](const Ring &ring) {
         return std::vector<Legal>{{{without(ring, 1), {}, {ring[0]}}},
                                   {{without(ring, 1), {}, {}}}};
     }},
    {"recover the reader's end", 'r', 0, 2,
     [](SmallRing &ring) {
         Slot slot(ring.q);
         EXPECT_EQ(q_read(ring.q, slot.data()), ESMS_OK);
         EXPECT_EQ(q_read_mark(ring.q, 1), 1);
         step_back(ring, ring.q->rpos);
     },
     [](halvo_channel *, Stage &) { return q_recover(0, 'r'); },
     HALVO_RECOVERED_POSITION | HALVO_RECOVERED_MARKS,
     [](const Ring &ring) {
         return std::vector<Legal>{{{without(ring, 1), {}, {}}}};
     }},
};

} // namespace

const std::vector<RingOperation> &ring_operations() { return kOperations; }

const RingOperation &operation_named(const std::string &name) {
    for (const RingOperation &operation : kOperations)
        if (operation.name == name) return operation;
    throw std::out_of_range(name);
}

} // namespace halvo::test
