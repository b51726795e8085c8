// The order in which the machine code changes the words of a channel, seen after each instruction:
// body and counters, then the state, then the position. The other side relies on it.
#include <gtest/gtest.h>

#include "tests/proof/form.h"
#include "tests/proof/moments.h"

using namespace halvo::test;
using halvo::slot_at;

namespace {

// A range of bytes, and the first and the last step at which they changed.
struct Watched {
    const char *name;
    const void *at;
    size_t size;
    std::vector<uint8_t> last;
    int first_change = 0, last_change = 0; // 0: never

    void look(int step) {
        if (std::memcmp(at, last.data(), size) == 0) return;
        std::memcpy(last.data(), at, size);
        if (first_change == 0) first_change = step;
        last_change = step;
    }
};

class StoreOrder : public testing::Test {
protected:
    StoreOrder() { stay_on_this_processor(); }
    SmallRing ring;
    halvo_channel *q = ring.q;
    Stage &stage = shared_object<Stage>();
    int orders = 0, violations = 0;

    Watched watch(const char *name, const void *at, size_t size) {
        const auto *bytes = static_cast<const uint8_t *>(at);
        return {name, at, size, std::vector<uint8_t>(bytes, bytes + size)};
    }
    template <class Word>
    Watched watch(const char *name, const Word &word) {
        return watch(name, &word, sizeof word);
    }
    Watched content(const char *name, const qmsg *slot) { // length, type and body
        return watch(name, &slot->len, 8 + numbered_message(0).size());
    }
    Watched state(const char *name, const qmsg *slot) { return watch(name, slot->state); }

    using Group = std::vector<Watched>;
    Group counters_in() {
        return {watch("pcnt", q->pcnt), watch("tcnt[0]", q->tcnt[0]),
                watch("tcnt[type]", q->tcnt[SmallRing::kType]), watch("lastin", q->lastin)};
    }
    Group counters_out() { return {watch("gcnt", q->gcnt), watch("lastout", q->lastout)}; }

    // Every word of a group changes, and before any word of the next group does.
    void expect_order(const char *operation, std::vector<Group> groups) {
        step_through(ring, operation_named(operation), stage, [&](int step) {
            for (Group &group : groups)
                for (Watched &watched : group) watched.look(step);
        });
        for (size_t g = 0; g < groups.size(); ++g) {
            for (const Watched &earlier : groups[g]) {
                EXPECT_GT(earlier.last_change, 0) << operation << ": " << earlier.name;
                if (g + 1 == groups.size()) continue;
                for (const Watched &later : groups[g + 1]) {
                    ++orders;
                    const bool in_order = earlier.last_change < later.first_change;
                    violations += !in_order;
                    EXPECT_TRUE(in_order)
                        << operation << ": " << earlier.name << " last changed by instruction "
                        << earlier.last_change << ", " << later.name << " first by "
                        << later.first_change;
                }
            }
        }
    }

    // A fresh ring for an operation, with two messages in it; every stored word will change.
    void begin(const char *operation) {
        ring.restore(empty);
        ring.write(1);
        ring.write(2);
        operation_named(operation).prepare(ring);
        q->lastin = q->lastout = 0;
        warm_up(ring, operation_named(operation), stage);
    }
    const SmallRing::Image empty = ring.save();

    void report(const std::string &side) {
        figure(side + "'s stores out of order, of " + std::to_string(orders) + " pairs", "0",
               violations);
    }
};

} // namespace

TEST_F(StoreOrder, of_the_writer) {
    begin("q_write");
    qmsg *slot = slot_at(q, q->wpos);
    Group first = counters_in();
    first.push_back(content("body", slot));
    expect_order("q_write", {first, {state("state", slot)}, {watch("wpos", q->wpos)}});

    begin("q_write_mark");
    slot = slot_at(q, q->wpos);
    expect_order("q_write_mark", {{content("body", slot)}, {state("state", slot)}});

    begin("q_write_mark_at");
    slot = slot_at(q, halvo::next_offset(halvo::ring_of(q), q->wpos));
    expect_order("q_write_mark_at", {{content("body", slot)}, {state("state", slot)}});

    begin("q_write_commit");
    slot = slot_at(q, q->wpos);
    expect_order("q_write_commit",
                 {counters_in(), {state("state", slot)}, {watch("wpos", q->wpos)}});

    begin("q_write_commit_all");
    slot = slot_at(q, q->wpos);
    expect_order(
        "q_write_commit_all",
        {{state("first state", slot)},
         {state("second state", slot_at(q, halvo::next_offset(halvo::ring_of(q), q->wpos)))}});

    begin("q_write_buf");
    qmsg *parked = buffer_slot(q, q->wbufs, 2);
    expect_order(
        "q_write_buf",
        {{content("body", parked)}, {state("state", parked)}, {watch("pbuffs", q->pbuffs)}});

    begin("q_write_buf_commit");
    slot = slot_at(q, q->wpos);
    expect_order("q_write_buf_commit", {{content("body", slot)},
                                        {state("ring state", slot)},
                                        {watch("wpos", q->wpos)},
                                        {state("buffer state", buffer_slot(q, q->wbufs, 2))}});
    report("writer");
}

TEST_F(StoreOrder, of_the_reader) {
    begin("q_read");
    qmsg *slot = slot_at(q, q->rpos);
    Group first = counters_out();
    first.push_back(watch("caller's copy", stage.buffer, q->qbsz));
    expect_order("q_read", {first, {state("state", slot)}, {watch("rpos", q->rpos)}});

    begin("q_read_commit");
    slot = slot_at(q, q->rpos);
    expect_order(
        "q_read_commit",
        {{state("first state", slot)},
         {state("second state", slot_at(q, halvo::next_offset(halvo::ring_of(q), q->rpos)))}});

    begin("q_read_buf");
    slot = slot_at(q, q->rpos);
    qmsg *held = buffer_slot(q, q->rbufs, 2);
    expect_order("q_read_buf", {{content("held body", held)},
                                {state("held state", held)},
                                {state("ring state", slot)},
                                {watch("rpos", q->rpos)}});
    report("reader");
}
