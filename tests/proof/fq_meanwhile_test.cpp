// The other side of a queue comes, does its work and is gone while one side is within an operation:
// right before each of its system calls. What was put comes out once, whole and in order.
#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/queue_calls.h"

using namespace halvo::test;

namespace {

// What a writer has left that failed or died, behind the saved positions, and what of it counts.
const std::string kTold = item_bytes('F', "old");
const struct {
    std::string file, counts;
    int offset = 0; // of the positions
} kLeft[] = {
    {kTold, "old"},
    {item_bytes('F', filler(5000)).substr(0, 3000), ""},
    {kTold + item_bytes('W', "no") + item_bytes('F', filler(3000)), "old"},
    {kTold, "old", 4999990},
    {kTold + kEndItem, "old", 4999990},
};

std::string read_all(const Queue &queue) {
    std::string all;
    for (std::string got; !(got = queue.drain_at_once(7000)).empty();) all = joined(all, got);
    return all;
}

std::string write_all(const Queue &queue) {
    EXPECT_EQ(queue.put_away("a"), 0);
    EXPECT_EQ(queue.put({filler(2900), "b"}), 0);
    EXPECT_EQ(queue.put_away(filler(2901)), 0);
    return "";
}

void beside(const std::string &what, auto one, auto other) {
    const Queue queue;
    int64_t cases = 0, damaged = 0;
    const std::string all = text_of({"a", filler(2900), "b", filler(2901)});
    for (const auto &left : kLeft)
        for (int n = 1, calls = n; n <= calls && !testing::Test::HasFailure(); ++n) {
            SCOPED_TRACE(picture_of(left.file) + ", call " + std::to_string(n));
            queue.clear();
            queue.store(0, left.file, left.offset);
            for (const char *log : {"tail", "head"}) queue.store(log, record(0, left.offset));
            Signal go;
            Peer peer([&] {
                if (go.wait()) queue.store("got", other(queue));
            });
            const auto meanwhile = [&] {
                go.send();
                EXPECT_EQ(peer.wait(), 0);
            };
            std::string got;
            calls = run_with_meanwhile(n, meanwhile, [&] { got = one(queue); });
            if (n > calls) meanwhile();
            got = joined(got, queue.bytes("got"));
            got = joined(got, read_all(queue));
            EXPECT_EQ(got, joined(left.counts, all));
            ++cases;
            damaged += got != joined(left.counts, all);
        }
    figure(what + ": cases", "-", cases);
    figure(what + ": queues with items lost, twice, torn or out of order", "0", damaged);
}

} // namespace

TEST(Meanwhile, a_writer_beside_a_reader_loses_nothing) {
    beside("a writer comes and goes before each system call of a reader", read_all, write_all);
}

TEST(Meanwhile, a_reader_beside_a_writer_loses_nothing) {
    beside("a reader comes and goes before each system call of a writer", write_all, read_all);
}
