// The file-queue fields of the optional channel.
#include "tests/fq/queue_fixture.h"
#include "tools/fixture/segment_builder.h"

using namespace halvo::test;

namespace {

class Statistics : public testing::Test {
protected:
    Segment segment =
        SegmentBuilder().channel("FQ01", 'F', 4, 64).channel("MT01", 'M', 4, 64).build();
    Queue queue;
    halvo_channel *q = nullptr;
    int32_t now = 0;
    fqtrans trans{};
    char buffer[100];

    void SetUp() override {
        segment.attach();
        q = segment.channel("FQ01");
        now = static_cast<int32_t>(q_gettime());
    }
    int take() { return fq_dequeue(0, queue.path(), buffer, 78, &trans); }
    int take_next() { return fq_dequeue_next(0, queue.path(), &trans, buffer, 78); }
    int away(int type, int success, int channel = 0) {
        return fq_enqueue_away(channel, type, success, queue.path(), "x", 1);
    }
    // Counts and errors of the file queue's puts and gets, and of the ring's.
    using Counts = std::vector<uint64_t>;
    Counts counts() const {
        Counts all;
        for (const auto *each : {&q->fpcnt, &q->fgcnt, &q->pcnt, &q->gcnt}) {
            all.push_back(each->count);
            all.push_back(each->ecount);
        }
        return all;
    }
};

} // namespace

TEST_F(Statistics, a_transaction_counts_its_items_and_errors_at_the_commit) {
    for (const bool commits : {false, true}) {
        queue.begin(trans, {"one", "two", "three"}, 0);
        EXPECT_EQ(q->fwtime, now);
        EXPECT_EQ(q->pidpf, getpid());
        trans.errcnt = 2;
        EXPECT_EQ(counts(), Counts(8));
        EXPECT_EQ(q->lastin, 0);
        EXPECT_EQ(commits ? fq_enqueue_commit(0, &trans) : fq_enqueue_rollback(0, &trans), 0);
    }
    EXPECT_EQ(counts(), (Counts{3, 2, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(q->lastin, now);
    EXPECT_EQ(+q->tcnt[0].count, 0u);
    // Kept: the reader's errors go to the ring's get counter, not to the file queue's.
    ASSERT_GT(take(), 0);
    EXPECT_EQ(q->frtime, now);
    EXPECT_EQ(q->pidgf, getpid());
    ASSERT_GT(take_next(), 0);
    EXPECT_EQ(counts(), (Counts{3, 2, 0, 0, 0, 0, 0, 0}));
    trans.errcnt = 3;
    EXPECT_EQ(fq_dequeue_commit(0, &trans), 0);
    EXPECT_EQ(counts(), (Counts{3, 2, 2, 0, 0, 0, 0, 3}));
    EXPECT_EQ(q->lastout, now);
}

TEST_F(Statistics, a_single_shot_counts_its_type_alone) {
    EXPECT_EQ(away(5, 1), 0);
    EXPECT_EQ(away(5, 0), 0);
    EXPECT_EQ(counts(), (Counts{2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(+q->tcnt[5].count, 2u);
    EXPECT_EQ(+q->tcnt[5].ecount, 1u);
    EXPECT_EQ(+q->tcnt[0].count, 0u) << "not counted for every message";
    EXPECT_EQ(away(0, 1), 0);
    EXPECT_EQ(+q->tcnt[0].count, 1u);
    EXPECT_EQ(q->lastin, now);
    for (const int type : {-1, 4096, 65535}) EXPECT_EQ(away(type, 0), 0);
    EXPECT_EQ(+q->fpcnt.count, 6u);
    EXPECT_EQ(q->gclients[0].pid, 0) << "what lies behind the counts";
}

TEST_F(Statistics, a_number_that_is_no_channel_is_none) {
    for (const int channel : {-1, 2, 1000, 0x7fffffff}) {
        EXPECT_EQ(away(5, 0, channel), 0);
        EXPECT_EQ(queue.put({"x"}, channel), 0);
    }
    EXPECT_EQ(counts(), Counts(8));
}

TEST_F(Statistics, a_read_above_the_rate_limit_is_refused_before_any_lock) {
    queue.put({"one"});
    q->tpsmx = 100;
    q->tpsstart = now - 10;
    q->fgcnt.count = 1010; // 101 a second; an 'F' channel's rate is that of its file queue
    EXPECT_EQ(take(), ESMS_EMPTY);
    EXPECT_FALSE(queue.has("rdlk") || queue.has("head"));
    EXPECT_EQ(q->throttled, 1);
    EXPECT_EQ(q->throttletime, now);
    EXPECT_EQ(q->frtime, now) << "a heartbeat all the same";

    q->fgcnt.count = 1009; // 100 a second: not above the limit
    EXPECT_GT(take(), 0);
    q->fgcnt.count = 100000;
    EXPECT_EQ(take_next(), 0) << "only the first item of a transaction is held back";
    EXPECT_EQ(fq_dequeue_commit(0, &trans), 0);
}
