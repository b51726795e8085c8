// Every way to die or to fail in the middle of an operation, one after the other: before each
// system call, and with each write refused or cut short. Afterwards another writer and reader go
// on, and what was in the queue comes out: each acknowledged transaction once, whole and in order,
// the one that was under way either whole or not at all.
#include <gtest/gtest.h>

#include <functional>

#include "tests/fq/failing_io.h"
#include "tests/fq/queue_fixture.h"

using namespace halvo;
using namespace halvo::test;

namespace {

constexpr int kWayIn = 4999970; // a file that the next items take past its limit

// A queue before the operation. What stands in it is "old1 old2".
struct State {
    const char *name;
    void (*prepare)(const Queue &);
};

// Lets a position file be past its limit: its last record behind a gap.
void fill_log(const Queue &queue, const std::string &suffix) {
    const std::string position = queue.position(suffix) + "      first\n";
    queue.cut(suffix, 0);
    queue.cut(suffix, 161290 * 31);
    queue.patch(suffix, 161290 * 31, position);
}

void put_old(const Queue &queue) {
    ASSERT_EQ(queue.put({"old1"}), 0);
    ASSERT_EQ(queue.put_away("old2"), 0);
}

const State kFresh{"fresh", [](const Queue &) {}};
const State kInUse{"in use", put_old};
const State kRolledBack{"after a rollback", [](const Queue &queue) {
                            put_old(queue);
                            fqtrans trans;
                            queue.begin(trans, {"xxx", "yyy", "zzz"});
                            fq_enqueue_rollback(-1, &trans);
                        }};
const State kFileEnds{"at the end of a file", [](const Queue &queue) {
                          queue.store("tail", record(0, kWayIn - 26 * 2));
                          queue.store("head", record(0, kWayIn - 26 * 2));
                          put_old(queue);
                      }};
const State kLogsEnd{"with full logs", [](const Queue &queue) {
                         put_old(queue);
                         queue.store("head", record(0, 0));
                         fill_log(queue, "head");
                         fill_log(queue, "tail");
                     }};

void prepare(const Queue &queue, const State &state) {
    queue.clear();
    state.prepare(queue);
}

std::string old_items(const State &state) { return &state == &kFresh ? "" : "old1 old2"; }

std::string joined(const std::string &a, const std::string &b) {
    return a.empty() || b.empty() ? a + b : a + " " + b;
}

struct Write {
    const char *name;
    std::function<int(const Queue &)> run; // its result, negative for failure
    std::string items;
};
const Write kBatch{"batch",
                   [](const Queue &queue) {
                       return queue.put({"aaa", "bbb", "ccc"});
                   },
                   "aaa bbb ccc"};
const Write kPair{"long pair",
                  [](const Queue &queue) {
                      return queue.put({"aaaaaaaaaaaaaaa", "b"});
                  },
                  "aaaaaaaaaaaaaaa b"};
const Write kSingle{"single", [](const Queue &queue) { return queue.put({"ddddddddd"}); },
                    "ddddddddd"};
const Write kAway{"single shot",
                  [](const Queue &queue) { return queue.put_away("eeeeeeeee") == 0 ? 0 : -1; },
                  "eeeeeeeee"};

// Who comes first to a queue that somebody died in.
enum class First { writer, reader };

// Lets others go on and tells what they see of the interrupted write: 1 all of it, 0 nothing.
// Anything else is a failure.
int outcome(const Queue &queue, const State &state, const Write &write, First first) {
    std::string got;
    if (first == First::reader) got = queue.drain_at_once(); // also over the end of a file
    EXPECT_EQ(queue.put({"new1"}), 0);
    EXPECT_EQ(queue.put_away("new2"), 0);
    got = joined(got, queue.drain());
    const std::string without = joined(old_items(state), "new1 new2");
    const std::string with = joined(joined(old_items(state), write.items), "new1 new2");
    EXPECT_TRUE(got == with || got == without) << got;
    return got == with;
}

template <class Run>
void for_all_writes(Run run) {
    const Queue queue;
    for (const State *state : {&kFresh, &kInUse, &kRolledBack, &kFileEnds, &kLogsEnd})
        for (const Write *write : {&kBatch, &kPair, &kSingle, &kAway})
            for (const First first : {First::writer, First::reader}) {
                SCOPED_TRACE(std::string(write->name) + ", " + state->name +
                             (first == First::reader ? ", then a reader" : ", then a writer"));
                run(queue, *state, *write, first);
                if (testing::Test::HasFailure()) return;
            }
}

int descriptors() {
    int count = 0;
    Directory directory("/proc/self/fd");
    while (directory.next()) ++count;
    return count;
}

} // namespace

TEST(Crash, a_writer_killed_before_any_call_leaves_all_or_nothing) {
    int kills = 0;
    for_all_writes([&](const Queue &queue, const State &state, const Write &write, First first) {
        int whole = 0;
        bool died = true;
        for (int n = 1; died; ++n) {
            SCOPED_TRACE("call " + std::to_string(n));
            prepare(queue, state);
            died = dies_before_call(n, [&] { write.run(queue); });
            const int seen = outcome(queue, state, write, first);
            EXPECT_TRUE(died || seen == 1) << "an acknowledged write is gone";
            EXPECT_GE(seen, whole) << "what a shorter run had written is gone again";
            whole = seen;
            kills += died;
            ASSERT_LT(n, 100);
        }
    });
    std::printf("%d kills\n", kills);
}

// The second one dies while it puts right what the first one left.
TEST(Crash, a_second_death_in_the_recovery_changes_nothing) {
    const Queue queue;
    for (const State *state : {&kInUse, &kFileEnds})
        for (int n = 8; n < 20; ++n)
            for (int m = 3; m < 20; m += 1) {
                SCOPED_TRACE(std::string(state->name) + ", calls " + std::to_string(n) + " and " +
                             std::to_string(m));
                prepare(queue, *state);
                if (!dies_before_call(n, [&] { kBatch.run(queue); })) break;
                // Either of the two may have got through; they write different items.
                const bool died = dies_before_call(m, [&] { queue.put({"sec", "ond"}); });
                EXPECT_EQ(queue.put_away("end"), 0);
                const std::string got = queue.drain();
                std::vector<std::string> possible;
                for (const char *first : {"", "aaa bbb ccc"})
                    for (const char *second : {"", "sec ond"})
                        if (*second || died)
                            possible.push_back(
                                joined(joined(joined("old1 old2", first), second), "end"));
                EXPECT_NE(std::find(possible.begin(), possible.end(), got), possible.end()) << got;
                if (HasFailure()) return;
                if (!died) break;
            }
}

TEST(Crash, a_reader_killed_before_any_call_repeats_at_most_its_transaction) {
    const Queue queue;
    for (const State *state : {&kInUse, &kFileEnds, &kLogsEnd}) {
        bool died = true;
        bool committed = false;
        for (int n = 1; died; ++n) {
            SCOPED_TRACE(std::string(state->name) + ", call " + std::to_string(n));
            prepare(queue, *state);
            ASSERT_EQ(queue.put({"aaa", "bbb", "ccc"}), 0); // ends the file, when it is about to
            ASSERT_EQ(queue.put({"next"}), 0);
            died = dies_before_call(n, [&] {
                fqtrans trans;
                char buffer[100];
                ASSERT_GT(fq_dequeue(-1, queue.path(), buffer, 78, &trans), 0);
                for (int i = 1; i < 6; ++i)
                    ASSERT_GT(fq_dequeue_next(-1, queue.path(), &trans, buffer, 78), 0);
                ASSERT_EQ(fq_dequeue_commit(-1, &trans), 0);
            });
            EXPECT_EQ(queue.put({"after"}), 0);
            const std::string got = queue.drain();
            if (got == "after")
                committed = true;
            else
                EXPECT_EQ(got, "old1 old2 aaa bbb ccc next after");
            EXPECT_TRUE(died || committed);
            EXPECT_EQ(got == "after", committed) << "a saved position is gone again";
            if (HasFailure()) return;
            ASSERT_LT(n, 200);
        }
    }
}

TEST(FullDisk, a_write_that_fails_or_is_short_leaves_all_or_nothing) {
    int failures = 0;
    for_all_writes([&](const Queue &queue, const State &state, const Write &write, First first) {
        prepare(queue, state);
        const int writes = counted_writes([&] { write.run(queue); });
        ASSERT_GE(writes, 2);
        for (const auto how : {FailingWrites::none_written, FailingWrites::half_written})
            for (const auto span : {FailingWrites::once, FailingWrites::from_then_on})
                for (int n = 1; n <= writes; ++n) {
                    SCOPED_TRACE("write " + std::to_string(n) + " of " + std::to_string(writes));
                    prepare(queue, state);
                    const int open_before = descriptors();
                    int result = 0;
                    {
                        const FailingWrites fails(n, how, span);
                        result = write.run(queue);
                    }
                    EXPECT_EQ(descriptors(), open_before);
                    const int seen = outcome(queue, state, write, first);
                    EXPECT_TRUE(result < 0 || seen == 1) << "an acknowledged write is gone";
                    ++failures;
                }
    });
    std::printf("%d failed writes\n", failures);
}

TEST(FullDisk, a_reader_whose_position_cannot_be_saved_reads_its_items_again) {
    for (const auto how : {FailingWrites::none_written, FailingWrites::half_written})
        for (const State *state : {&kInUse, &kFileEnds, &kLogsEnd}) {
            SCOPED_TRACE(state->name);
            const Queue queue;
            prepare(queue, *state);
            ASSERT_EQ(queue.put({"aaa", "bbb", "ccc"}), 0);
            captured_stdout([&] { EXPECT_EQ(queue.take(), "old1"); });
            fqtrans trans;
            char buffer[100];
            ASSERT_GT(fq_dequeue(-1, queue.path(), buffer, 78, &trans), 0);
            ASSERT_GT(fq_dequeue_next(-1, queue.path(), &trans, buffer, 78), 0);
            const std::string printed = captured_stdout([&] {
                const FailingWrites fails(1, how, FailingWrites::once);
                EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
            });
            EXPECT_NE(printed.find("fq_dequeue_commit.fq_set_pos error \n"), std::string::npos);
            EXPECT_EQ(queue.drain(), "old2 aaa bbb ccc");
        }
}
