// The order in which the machine code changes the words of a channel, seen after each instruction:
// body and counters, then the state, then the position. The other side relies on it.
#include <sstream>

#include "tests/proof/form.h"
#include "tests/proof/moments.h"

using namespace halvo::test;
using halvo::slot_at;

namespace {

// Each word changes, and before any of those behind the next "<" does. `body` and `state` are of
// the slot at the side's position, `second_` of the one behind it, `buffer_` of buffer slot 2.
constexpr struct {
    char side;
    const char *operation, *words;
} kOrders[] = {
    {'w', "q_write", "pcnt pcnt_total pcnt_type lastin body < state < wpos"},
    {'w', "q_write_mark", "body < state"},
    {'w', "q_write_mark_at", "second_body < second_state"},
    {'w', "q_write_commit", "pcnt pcnt_total pcnt_type lastin < state < wpos"},
    {'w', "q_write_commit_all", "state < second_state"},
    {'w', "q_write_buf", "buffer_body < buffer_state < pbuffs"},
    {'w', "q_write_buf_commit", "body < state < buffer_state < wpos"},
    {'r', "q_read", "gcnt lastout copy < state < rpos"},
    {'r', "q_read_commit", "state < second_state"},
    {'r', "q_read_buf", "buffer_body < buffer_state < state < rpos"},
};

// A range of bytes, and the first and the last step at which they changed.
struct Watched {
    const void *at;
    size_t size;
    std::vector<uint8_t> last = {};
    int first_change = 0, last_change = 0; // 0: never

    void look(int step) {
        const auto *bytes = static_cast<const uint8_t *>(at);
        std::vector<uint8_t> now(bytes, bytes + size);
        if (now == last) return;
        last = std::move(now);
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
    const SmallRing::Image empty = ring.save();
    std::map<std::string, Watched> watched;
    int orders = 0, violations = 0;

    template <class Word>
    void watch(const std::string &name, const Word &word) {
        watched[name] = {&word, sizeof word};
    }
    void watch_slot(const std::string &prefix, const qmsg *slot) {
        watched[prefix + "body"] = {&slot->len, 8 + numbered_message(0).size()};
        watch(prefix + "state", slot->state);
    }
    void watch_all(char side) {
        const uint32_t at = side == 'w' ? q->wpos : q->rpos;
        watch_slot("", slot_at(q, at));
        watch_slot("second_", slot_at(q, halvo::next_offset(halvo::ring_of(q), at)));
        watch_slot("buffer_", buffer_slot(q, side == 'w' ? q->wbufs : q->rbufs, 2));
        watched["copy"] = {stage.buffer, q->qbsz};
        watch("pcnt", q->pcnt);
        watch("pcnt_total", q->tcnt[0]);
        watch("pcnt_type", q->tcnt[SmallRing::kType]);
        watch("gcnt", q->gcnt);
        watch("lastin", q->lastin);
        watch("lastout", q->lastout);
        watch("wpos", q->wpos);
        watch("rpos", q->rpos);
        watch("pbuffs", q->pbuffs);
    }

    // Goes through the operation on a ring with two messages; every stored word will change.
    void go_through(const RingOperation &operation) {
        ring.restore(empty);
        ring.write(1);
        ring.write(2);
        operation.prepare(ring);
        q->lastin = q->lastout = 0;
        warm_up(ring, operation, stage);
        watch_all(operation.call.side);
        for (auto &[name, one] : watched) one.look(0); // as it is before
        step_through(ring, operation, stage, [&](int step) {
            for (auto &[name, one] : watched) one.look(step);
        });
    }
    void expect_order(const std::string &words) {
        std::istringstream groups(words);
        std::vector<std::string> earlier;
        for (std::string group; std::getline(groups, group, '<');) {
            std::istringstream names(group);
            std::vector<std::string> later;
            for (std::string name; names >> name;) {
                later.push_back(name);
                EXPECT_GT(watched.at(name).last_change, 0) << name;
                for (const std::string &before : earlier) {
                    ++orders;
                    const bool good =
                        watched.at(before).last_change < watched.at(name).first_change;
                    violations += !good;
                    EXPECT_TRUE(good) << name << " before " << before;
                }
            }
            earlier = later;
        }
    }
    void check(char side, const std::string &who) {
        for (const auto &row : kOrders) {
            if (row.side != side) continue;
            SCOPED_TRACE(row.operation);
            go_through(operation_named(row.operation));
            expect_order(row.words);
        }
        figure(who + "'s stores out of order, of " + std::to_string(orders) + " pairs", "0",
               violations);
    }
};

} // namespace

TEST_F(StoreOrder, of_the_writer) { check('w', "writer"); }
TEST_F(StoreOrder, of_the_reader) { check('r', "reader"); }
