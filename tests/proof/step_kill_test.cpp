// A process is killed after the first, the second, the third ... machine instruction of every ring
// operation. Whoever comes after it finds every message whole, none lost, and a ring that works.
#include "tests/proof/form.h"
#include "tests/proof/moments.h"
#include "tests/proof/survivor.h"

using namespace halvo::test;

// Beside a living peer a recovery looks for 50 ms whether anything moves. Here nothing does, so the
// looks may follow each other at once. This takes the place of the system's, for the library too.
extern "C" HALVO_API int usleep(useconds_t) { return 0; }

namespace {

constexpr const char *kPeers[] = {"at work, then replaced", "at work", "gone", "idle"};

class StepKill : public testing::Test {
protected:
    explicit StepKill(uint32_t slot_size = 48) : ring(slot_size) { stay_on_this_processor(); }
    SmallRing ring;
    Stage &stage = shared_object<Stage>();
    SmallRing::Image empty = ring.save();

    // The steps behind which something has changed that outlives the process.
    std::vector<bool> changes(const RingOperation &operation) {
        std::vector<bool> changed = {true};
        SmallRing::Image channel = ring.save();
        Stage before = stage;
        step_through(ring, operation, stage, [&](int) {
            SmallRing::Image now = ring.save();
            changed.push_back(now != channel || std::memcmp(&stage, &before, sizeof stage) != 0);
            channel = std::move(now);
            std::memcpy(&before, &stage, sizeof stage);
        });
        return changed;
    }

    // Kills after every instruction; in the short form after those that change what others see, and
    // after few others. The steps begin a few instructions before the operation and end a few behind
    // it.
    void kill_everywhere(const RingOperation &operation, const Filling &filling, Peer_is peer,
                         Faults &faults) {
        ring.restore(empty);
        const SmallRing::Image before = prepared(ring, operation, filling);
        SCOPED_TRACE(std::string(operation.call.name) + " in " + picture(ring.q) +
                     ", the other side is " + kPeers[static_cast<int>(peer)]);
        warm_up(ring, operation, stage);
        const std::vector<bool> changed = changes(operation);
        for (size_t steps = 1;; ++steps) {
            if (steps < changed.size() && !changed[steps] && steps % length(97, 1) != 0) continue;
            ring.restore(before);
            SingleStep process = in_front_of(ring, operation, stage);
            for (size_t i = 0; i < steps && !process.has_returned(); ++i) process.step();
            process.kill();
            survive(ring, operation, filling, peer, stage, faults);
            if (stage.returned || HasFailure()) return;
        }
    }

    // All operations of a side, the core's or the guarded ones, in several fillings of the ring.
    void pass(char side, bool guarded, const std::string &whose) {
        std::vector<Filling> fillings;
        // Where the ring begins is no matter of the guarded calls; they are four times as long.
        for (int start = guarded ? 3 : 0; start < SmallRing::kSlots; ++start)
            for (int messages = 0; messages <= SmallRing::kSlots; ++messages)
                for (bool marks : {false, true}) fillings.push_back({start, messages, marks});
        if (!is_long_form()) fillings = {{3, 2, true}, {1, 3, false}};

        Faults all;
        int turn = 0;
        for (const RingOperation &operation : ring_operations()) {
            if (operation.call.side != side || operation.call.is_guarded() != guarded) continue;
            for (const Filling &filling : fillings) {
                if (!filling.suits(operation)) continue;
                // One of the four in turn, by three, so that all meet every kind of filling.
                kill_everywhere(operation, filling, static_cast<Peer_is>(turn % 4), all);
                turn += 3;
            }
        }
        const std::string what = whose + " killed after each instruction: ";
        figure(what + "kills", "-", all.kills);
        figure(what + "torn", "0", all.torn);
        figure(what + "lost or misplaced", "0", all.lost);
        figure(what + "rings stuck", "0", all.stuck);
        figure(what + "doubled by one kill", side == 'w' ? "0" : "at most 1", all.most_doubled);
        EXPECT_GT(all.kills, 100);
        EXPECT_LE(all.most_doubled, 1);
    }
};

// States at every kind of address.
class OddStepKill : public StepKill {
protected:
    OddStepKill() : StepKill(47) {}
};

} // namespace

TEST_F(StepKill, a_writer_dies_after_any_instruction) { pass('w', false, "writer"); }
TEST_F(StepKill, a_reader_dies_after_any_instruction) { pass('r', false, "reader"); }
TEST_F(StepKill, a_writer_dies_in_a_guarded_call) { pass('w', true, "writer in frx calls"); }
TEST_F(StepKill, a_reader_dies_in_a_guarded_call) { pass('r', true, "reader in frx calls"); }
TEST_F(OddStepKill, a_writer_dies_after_any_instruction) {
    pass('w', false, "writer on odd slots");
}
TEST_F(OddStepKill, a_reader_dies_after_any_instruction) {
    pass('r', false, "reader on odd slots");
}
