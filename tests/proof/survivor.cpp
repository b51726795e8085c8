#include "tests/proof/survivor.h"

#include <algorithm>
#include <numeric>

namespace halvo::test {

namespace {

constexpr int kPeerMark = 31; // what a writer at the other side has marked
constexpr int kPeerNew = 41;  // and on, what it writes meanwhile
constexpr int kAfter = 51;    // and on, what is written afterwards

// What the other side takes out or puts in between the death and the succession.
struct Between {
    std::vector<int> taken, added;
};

void append(std::vector<int> &all, const std::vector<int> &more) {
    all.insert(all.end(), more.begin(), more.end());
}

void reader_at_work(SmallRing &ring, const Filling &filling, Between &between) {
    if (filling.peer_marks) {
        Slot slot(ring.q);
        if (q_read_markedmsg(ring.q, 0, slot.data()) == ESMS_OK)
            between.taken.push_back(number_in(slot.data(), kRoom));
        q_read_commit(ring.q, 1, 0);
    }
    append(between.taken, ring.drain());
}

void writer_commits(SmallRing &ring, const Filling &filling, Between &between) {
    if (filling.peer_marks && q_write_commit(ring.q) == ESMS_OK) between.added.push_back(kPeerMark);
}

void writer_at_work(SmallRing &ring, const Filling &filling, Between &between) {
    writer_commits(ring, filling, between);
    for (int n = kPeerNew; n < kPeerNew + SmallRing::kSlots && ring.write(n) == ESMS_OK; ++n)
        between.added.push_back(n);
}

bool is_torn(const Found &found) {
    const auto torn = [](const std::vector<int> &numbers) {
        return std::count(numbers.begin(), numbers.end(), kTorn) > 0;
    };
    return torn(found.ring) || torn(found.parked) || torn(found.held);
}

const Legal *find(const std::vector<Legal> &legal, const Found &found, bool finished) {
    if (finished) return legal.back().found == found ? &legal.back() : nullptr;
    for (const Legal &one : legal)
        if (one.found == found) return &one;
    return nullptr;
}

// The ring's own messages without those that the peer added, which must stand at its end.
bool strip(std::vector<int> &ring, const std::vector<int> &added) {
    if (ring.size() < added.size()) return false;
    const auto at = ring.end() - static_cast<std::ptrdiff_t>(added.size());
    if (!std::equal(added.begin(), added.end(), at)) return false;
    ring.erase(at, ring.end());
    return true;
}

std::vector<int> first_numbers(int messages) {
    std::vector<int> numbers(static_cast<size_t>(messages));
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

} // namespace

bool Filling::suits(const RingOperation &operation) const {
    const int free = SmallRing::kSlots - messages;
    if (free < operation.free || messages < operation.messages) return false;
    if (!peer_marks) return true;
    return operation.call.side == 'w' ? messages > 0 : free > 0;
}

Faults &Faults::operator+=(const Faults &other) {
    kills += other.kills;
    torn += other.torn;
    lost += other.lost;
    stuck += other.stuck;
    most_doubled = std::max(most_doubled, other.most_doubled);
    return *this;
}

std::vector<int> parked_messages(SmallRing &ring) {
    std::vector<int> numbers;
    for (int i = 0; i < HALVO_BUFFERS; ++i) {
        if (q_write_buf_commit(ring.q, i) != ESMS_OK) continue;
        const std::vector<int> moved = ring.drain();
        numbers.push_back(moved.size() == 1 ? moved[0] : kTorn);
    }
    return numbers;
}

std::vector<int> held_messages(SmallRing &ring) {
    std::vector<int> numbers;
    Slot slot(ring.q);
    for (int i = 0; i < HALVO_BUFFERS; ++i) {
        if (q_read_buf(ring.q, slot.data(), i) != ESMS_OK) continue; // the ring is empty
        numbers.push_back(number_in(slot.data(), kRoom));
        q_read_buf_clear(ring.q, i);
    }
    return numbers;
}

bool works(SmallRing &ring) {
    for (int round = 0; round < 2; ++round) {
        std::vector<int> sent;
        for (int n = kAfter; n < kAfter + SmallRing::kSlots; ++n) {
            if (ring.write(n) != ESMS_OK) return false;
            sent.push_back(n);
        }
        if (ring.write(kAfter) != ESMS_FULL || ring.drain() != sent) return false;
        // One slot on, so that the next round begins at another one.
        if (ring.write(kAfter) != ESMS_OK || ring.drain() != std::vector{kAfter}) return false;
    }
    return true;
}

SmallRing::Image prepared(SmallRing &ring, const RingOperation &operation, const Filling &filling) {
    for (int i = 0; i < filling.start; ++i) {
        ring.write(1);
        ring.drain();
    }
    for (int n = 1; n <= filling.messages; ++n) EXPECT_EQ(ring.write(n), ESMS_OK);
    operation.prepare(ring);
    if (filling.peer_marks) {
        const int marked = operation.call.side == 'w'
                               ? q_read_mark(ring.q, 1)
                               : write_mark(ring.q, numbered_message(kPeerMark));
        EXPECT_EQ(marked, operation.call.side == 'w' ? 1 : ESMS_OK);
    }
    ring.q->pidp = ring.q->pidg = 0;
    return ring.save();
}

Faults survive(SmallRing &ring, const RingOperation &operation, const Filling &filling,
               Peer_is peer, const Stage &stage) {
    const char side = operation.call.side;
    Faults faults;
    faults.kills = 1;
    Between between;
    if (peer != Peer_is::gone) (side == 'w' ? ring.q->pidg : ring.q->pidp) = getpid();
    const bool at_work = peer == Peer_is::at_work || peer == Peer_is::replaced;
    if (at_work) (side == 'w' ? reader_at_work : writer_at_work)(ring, filling, between);
    const char other = side == 'w' ? 'r' : 'w';
    if (peer == Peer_is::replaced) {
        EXPECT_TRUE(q_open(0, other));
        EXPECT_GE(q_recover(0, other), 0);
        EXPECT_EQ(q_close(0, other), ESMS_OK);
    }

    if (!q_open(0, side)) return faults.stuck = 1, faults;
    EXPECT_GE(q_recover(0, side), 0);
    if (!at_work && side == 'w') q_read_rollback(ring.q);
    if (!at_work && side == 'r') writer_commits(ring, filling, between);

    Found found;
    found.ring = between.taken;
    append(found.ring, ring.drain());
    const bool in_place = strip(found.ring, between.added);
    found.parked = parked_messages(ring);
    found.held = held_messages(ring);
    found.delivered = operation.delivered(stage);

    const bool finished = stage.returned != 0;
    const Legal *legal = find(operation.legal(first_numbers(filling.messages)), found, finished);
    if (is_torn(found)) faults.torn = 1;
    if (!legal || !in_place) {
        faults.lost = 1;
        ADD_FAILURE() << operation.call.name << ", ring " << testing::PrintToString(found.ring)
                      << ", parked " << testing::PrintToString(found.parked) << ", held "
                      << testing::PrintToString(found.held) << ", given "
                      << testing::PrintToString(found.delivered);
    } else {
        faults.most_doubled = legal->doubled;
    }
    if (finished && stage.result != operation.result)
        ADD_FAILURE() << operation.call.name << " failed";
    if (!works(ring)) faults.stuck = 1;
    EXPECT_EQ(q_close(0, side), ESMS_OK);
    return faults;
}

} // namespace halvo::test
