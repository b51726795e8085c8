// The holders of both ends die, each at any moment of an operation; their successors recover one
// after the other or at the same time.
#include <algorithm>

#include "tests/proof/form.h"
#include "tests/proof/moments.h"
#include "tests/proof/survivor.h"

using namespace halvo::test;

namespace {

struct Findings {
    int64_t cases = 0;
    int64_t disagreed = 0;  // ends that recovered to positions that do not fit
    int64_t lost = 0;       // torn, lost or misplaced
    int64_t misordered = 0; // all there, the newest first
    int64_t stuck = 0;
};

class TwoDeaths : public testing::Test {
protected:
    TwoDeaths() { stay_on_this_processor(); }
    SmallRing ring;
    Stage &stage = shared_object<Stage>();
    const SmallRing::Image empty = ring.save();
    Findings findings;

    int recover(char side) {
        q_open(0, side);
        ring.q->pidp = side == 'w' ? getpid() : 0; // the other end has nobody yet
        ring.q->pidg = side == 'r' ? getpid() : 0;
        const int result = q_recover(0, side);
        q_close(0, side);
        return result;
    }

    void recover_at_the_same_time(const SmallRing::Image &image) {
        recover('r');
        const uint32_t rpos = ring.q->rpos;
        ring.restore(image);
        recover('w');
        ring.q->rpos = rpos;
        if ((recover('w') | recover('r')) & HALVO_RECOVERED_POSITION) ++findings.disagreed;
    }

    void judge(const RingOperation &writing, const RingOperation &reading, const Filling &filling) {
        ++findings.cases;
        const Found found = take_all(ring);
        bool legal = false, same = false;
        for (const Legal &written : writing.legal(filling.numbers())) {
            for (const Legal &read : reading.legal(filling.numbers())) {
                if (found.parked != written.found.parked || found.held != read.found.held) continue;
                Numbers all = read.found.ring;
                all.insert(all.end(), written.found.ring.begin() + filling.messages,
                           written.found.ring.end());
                legal |= all == found.ring;
                same |= std::is_permutation(all.begin(), all.end(), found.ring.begin(),
                                            found.ring.end());
            }
        }
        if (!legal) ++(same ? findings.misordered : findings.lost);
        if (!works(ring)) ++findings.stuck;
    }

    void die_both(const RingOperation &first, const RingOperation &second, const Filling &filling) {
        const bool writer_first = first.call.side == 'w';
        for (const SmallRing::Image &one : moments(ring, first, stage)) {
            ring.restore(one);
            for (const SmallRing::Image &image : moments(ring, second, stage)) {
                for (int order = 0; order < 3; ++order) {
                    ring.restore(image);
                    if (order == 2)
                        recover_at_the_same_time(image);
                    else
                        recover(order == 0 ? 'w' : 'r'), recover(order == 0 ? 'r' : 'w');
                    judge(writer_first ? first : second, writer_first ? second : first, filling);
                }
            }
        }
    }
};

} // namespace

TEST_F(TwoDeaths, at_any_two_moments) {
    for (const char *writing : {"q_write", "q_write_commit_all", "q_write_buf_commit"}) {
        for (const char *reading : {"q_read", "q_read_commit", "q_read_buf"}) {
            const RingOperation &w = operation_named(writing), &r = operation_named(reading);
            for (int start = 0; start < (is_long_form() ? SmallRing::kSlots : 1); ++start) {
                for (int messages = 0; messages <= SmallRing::kSlots; ++messages) {
                    const Filling filling{start + messages, messages, false};
                    // Into a full ring the writer gets once the reader has freed a slot.
                    const bool writable = filling.suits(w) || std::string(writing) == "q_write";
                    if (!writable || !filling.suits(r)) continue;
                    SCOPED_TRACE(std::string(writing) + ", " + reading);
                    ring.restore(empty);
                    prepared(ring, w, filling);
                    r.prepare(ring);
                    const SmallRing::Image before = ring.save();
                    warm_up(ring, w, stage);
                    warm_up(ring, r, stage);
                    die_both(w, r, filling);
                    ring.restore(before);
                    die_both(r, w, filling);
                }
            }
        }
    }
    figure("both holders killed, at any two moments: pairs", "-", findings.cases);
    figure("both holders killed: torn, lost or misplaced", "0", findings.lost);
    figure("both holders killed: rings stuck", "0", findings.stuck);
    figure("both holders killed: ends that disagree", "0", findings.disagreed);
    // A reader that dies with a slot freed and rpos behind, and a writer that fills the ring by that
    // very slot and dies with wpos behind: nothing tells the newest message from the oldest then.
    figure("both holders killed: newest message first", "-", findings.misordered);
    EXPECT_GT(findings.cases, 1000);
}
