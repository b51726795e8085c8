// What comes behind the death of a holder of an end: its successor opens the end, recovers and goes
// on, and everything that it finds is compared with what may be there.
#pragma once

#include <algorithm>
#include <numeric>

#include "tests/proof/ring_operations.h"

namespace halvo::test {

// What the other side does between the death and the succession; `replaced`: it works, ends, and its
// own successor recovers first.
enum class Peer_is { replaced, at_work, gone, idle };

struct Filling {
    int start;       // slots that the positions stand behind the first
    int messages;    // in the ring
    bool peer_marks; // the other side has marked a message
    bool suits(const RingOperation &operation) const {
        const int free = SmallRing::kSlots - messages;
        if (free < operation.free || messages < operation.messages) return false;
        if (!peer_marks) return true;
        return operation.call.side == 'w' ? messages > 0 : free > 0;
    }
    // Of the messages.
    Numbers numbers() const {
        Numbers all(static_cast<size_t>(messages));
        std::iota(all.begin(), all.end(), 1);
        return all;
    }
};

// The figures of many kills.
struct Faults {
    int64_t kills = 0;
    int64_t torn = 0;
    int64_t lost = 0;     // or found where nothing may be
    int64_t stuck = 0;    // rings that could not be filled and emptied afterwards
    int most_doubled = 0; // by one kill, counted messages included
};

constexpr int kPeerMark = 31; // what a writer at the other side has marked
constexpr int kPeerNew = 41;  // and on, what it writes meanwhile
constexpr int kAfter = 51;    // and on, what is written afterwards

inline void append(Numbers &all, const Numbers &more) {
    all.insert(all.end(), more.begin(), more.end());
}

// What the other side does: a reader takes messages, a writer adds some.
inline Numbers take(SmallRing &ring, bool marked) {
    Numbers taken;
    if (marked) {
        Slot slot(ring.q);
        if (q_read_markedmsg(ring.q, 0, slot.data()) == ESMS_OK)
            taken.push_back(number_in(slot.data(), kRoom));
        q_read_commit(ring.q, 1, 0);
    }
    append(taken, ring.drain());
    return taken;
}
inline Numbers commit(SmallRing &ring, bool marked) {
    return marked && q_write_commit(ring.q) == ESMS_OK ? Numbers{kPeerMark} : Numbers{};
}
inline Numbers add(SmallRing &ring, bool marked) {
    Numbers added = commit(ring, marked);
    for (int n = kPeerNew; n < kPeerNew + SmallRing::kSlots && ring.write(n) == ESMS_OK; ++n)
        added.push_back(n);
    return added;
}

inline bool is_torn(const Found &found) {
    const auto torn = [](const Numbers &all) { return std::count(all.begin(), all.end(), kTorn); };
    return torn(found.ring) + torn(found.parked) + torn(found.held) > 0;
}

// Takes every message out of the ring and the buffers.
inline Found take_all(SmallRing &ring) {
    Found found;
    found.ring = ring.drain();
    Slot slot(ring.q);
    for (int i = 0; i < HALVO_BUFFERS; ++i) { // the ring is empty
        if (q_write_buf_commit(ring.q, i) == ESMS_OK) {
            const Numbers moved = ring.drain();
            found.parked.push_back(moved.size() == 1 ? moved[0] : kTorn);
        }
        if (q_read_buf(ring.q, slot.data(), i) == ESMS_OK) {
            found.held.push_back(number_in(slot.data(), kRoom));
            q_read_buf_clear(ring.q, i);
        }
    }
    return found;
}

// Whether the ring takes as many messages as it has slots, again and again, and gives all back.
inline bool works(SmallRing &ring) {
    Numbers sent(SmallRing::kSlots);
    std::iota(sent.begin(), sent.end(), kAfter);
    for (int round = 0; round < 2; ++round) {
        for (const int n : sent)
            if (ring.write(n) != ESMS_OK) return false;
        if (ring.write(kAfter) != ESMS_FULL || ring.drain() != sent) return false;
        // One slot on, so that the next round begins at another one.
        if (ring.write(kAfter) != ESMS_OK || ring.drain() != Numbers{kAfter}) return false;
    }
    return true;
}

// Fills the empty channel as given and lets the operation's process do what it did before. The pids
// in the image are those of processes that are gone.
inline SmallRing::Image prepared(SmallRing &ring, const RingOperation &operation,
                                 const Filling &filling) {
    for (int i = 0; i < filling.start; ++i) {
        ring.write(1);
        ring.drain();
    }
    for (const int n : filling.numbers()) EXPECT_EQ(ring.write(n), ESMS_OK);
    operation.prepare(ring);
    if (filling.peer_marks) {
        EXPECT_TRUE(operation.call.side == 'w'
                        ? q_read_mark(ring.q, 1) == 1
                        : write_mark(ring.q, numbered_message(kPeerMark)) == ESMS_OK);
    }
    ring.q->pidp = ring.q->pidg = 0;
    return ring.save();
}

// Succeeds the process that was killed in an operation, and judges.
inline void survive(SmallRing &ring, const RingOperation &operation, const Filling &filling,
                    Peer_is peer, const Stage &stage, Faults &faults) {
    const char side = operation.call.side, other = side == 'w' ? 'r' : 'w';
    const bool works_on = peer == Peer_is::at_work || peer == Peer_is::replaced;
    Numbers taken, added;
    ++faults.kills;
    if (peer != Peer_is::gone) (side == 'w' ? ring.q->pidg : ring.q->pidp) = getpid();
    if (works_on && side == 'w') taken = take(ring, filling.peer_marks);
    if (works_on && side == 'r') added = add(ring, filling.peer_marks);
    if (peer == Peer_is::replaced) {
        EXPECT_TRUE(q_open(0, other));
        EXPECT_GE(q_recover(0, other), 0);
        EXPECT_EQ(q_close(0, other), ESMS_OK);
    }

    EXPECT_TRUE(q_open(0, side));
    EXPECT_GE(q_recover(0, side), 0);
    if (!works_on && side == 'w') q_read_rollback(ring.q);
    if (!works_on && side == 'r') added = commit(ring, filling.peer_marks);
    Found found = take_all(ring);
    found.ring.insert(found.ring.begin(), taken.begin(), taken.end());
    found.delivered = operation.delivered(stage);
    faults.torn += is_torn(found);

    std::vector<Legal> legal = operation.legal(filling.numbers());
    if (stage.returned) {
        legal = {legal.back()};
        EXPECT_EQ(stage.result, operation.result) << operation.call.name;
    }
    for (Legal &one : legal) append(one.found.ring, added);
    const auto met = std::find_if(legal.begin(), legal.end(),
                                  [&](const Legal &one) { return one.found == found; });
    if (met != legal.end()) {
        faults.most_doubled = std::max(faults.most_doubled, met->doubled);
    } else {
        ++faults.lost;
        ADD_FAILURE() << operation.call.name << ", ring " << testing::PrintToString(found.ring)
                      << ", parked " << testing::PrintToString(found.parked) << ", held "
                      << testing::PrintToString(found.held) << ", given "
                      << testing::PrintToString(found.delivered);
    }
    faults.stuck += !works(ring);
    EXPECT_EQ(q_close(0, side), ESMS_OK);
}

} // namespace halvo::test
