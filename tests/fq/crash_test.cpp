// Every way to die or to fail in the middle of an operation, one after the other: before each
// system call, and with each call refused or cut short. Afterwards another writer and reader go
// on, and what was in the queue comes out: each acknowledged transaction once, whole and in order,
// the one that was under way either whole or not at all.
#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <functional>

#include "tests/fq/failing_io.h"
#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"

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

// The first files have been read and deleted long ago; no reader has saved a position since.
void put_old_later(const Queue &queue) {
    queue.store("tail", record(3, 0));
    put_old(queue);
}

const State kFresh{"fresh", [](const Queue &) {}};
const State kInUse{"in use", put_old_later};
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

// Whether the one who comes next finds the files of its side open from before.
enum class Files { kept, to_be_opened };
constexpr Files kFiles[] = {Files::kept, Files::to_be_opened};

void prepare(const Queue &queue, const State &state, Files files = Files::kept) {
    queue.clear();
    state.prepare(queue);
    if (files == Files::kept) return;
    queue.remove("wrlk");
    queue.remove("rdlk");
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
const Write kTakenBack{"batch taken back",
                       [](const Queue &queue) {
                           fqtrans trans;
                           const int begun = queue.begin(trans, {"ffff", "gg"});
                           return begun < 0 ? begun : fq_enqueue_rollback(-1, &trans);
                       },
                       ""};

// Who comes first to a queue that somebody died in.
enum class First { writer, reader };

// What others see of an interrupted write when they go on.
enum class Seen { nothing, all, damage };

Seen outcome(const Queue &queue, const State &state, const Write &write, First first) {
    std::string got;
    if (first == First::reader) got = queue.drain_at_once(); // also over the end of a file
    EXPECT_EQ(queue.put({"new1"}), 0);
    EXPECT_EQ(queue.put_away("new2"), 0);
    got = joined(got, queue.drain());
    const std::string without = joined(old_items(state), "new1 new2");
    const std::string with = joined(joined(old_items(state), write.items), "new1 new2");
    EXPECT_TRUE(got == with || got == without) << got;
    return got == with ? Seen::all : got == without ? Seen::nothing : Seen::damage;
}

template <class Run>
void for_all_writes(Run run) {
    const Queue queue;
    for (const State *state : {&kFresh, &kInUse, &kRolledBack, &kFileEnds, &kLogsEnd})
        for (const Write *write : {&kBatch, &kPair, &kSingle, &kAway, &kTakenBack})
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

// Whether both locks of a side are free. (Closing the lock file here gives nothing away: what held
// it would have been found by then.)
bool is_free(const Queue &queue, const char *suffix) {
    const std::string name = queue.file(suffix);
    const Descriptor file(open(name.c_str(), O_RDWR));
    if (!file) return errno == ENOENT;
    struct flock others {};
    others.l_type = F_WRLCK;
    const bool free = fcntl(file.get(), F_OFD_GETLK, &others) == 0 && others.l_type == F_UNLCK;
    pthread_mutex_t *mutex = fq_key2mtx(ftok(name.c_str(), 1));
    return free && mutex && pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0;
}

const char *const kLost = "acknowledged transactions lost";
const char *const kUndone = "saved positions lost";

struct Faults {
    int64_t cases = 0, lost = 0, damaged = 0, kept = 0;
    void add(bool acknowledged, Seen seen) {
        ++cases;
        lost += acknowledged && seen == Seen::nothing;
        damaged += seen == Seen::damage;
        EXPECT_TRUE(!acknowledged || seen != Seen::nothing) << "an acknowledged write is gone";
    }
    void report(const std::string &what, const std::string &loss) const {
        figure(what + ": cases", "-", cases);
        figure(what + ": " + loss, "0", lost);
        figure(what + ": queues with items torn, in part, foreign or stuck", "0", damaged);
        EXPECT_EQ(lost + damaged + kept, 0);
        EXPECT_GT(cases, 100);
    }
};

template <class Run>
std::string captured_failing(int n, int error, FailingCalls::Span span, Run run) {
    const StdoutCapture capture; // whose own calls do not fail
    {
        const FailingCalls fails(n, error, span);
        run();
    }
    return capture.bytes();
}

// Every call of an operation fails in every way. `prepare` makes the queue anew, `run` does the
// operation while calls fail, `judge` looks at what it left.
template <class Prepare, class Run, class Judge>
void fail_everywhere(const Queue &queue, Faults &faults, Prepare prepare, Run run, Judge judge) {
    static const std::vector<int> every = {EIO, FailingCalls::kShort, ENOSPC, EINTR, EMFILE};
    const std::vector<int> errors(every.begin(), every.begin() + length(2, 5));
    static const int most_open = descriptors() + 2 * 3; // what is kept of both sides of the queue
    prepare();
    const int calls = counted_calls(run);
    ASSERT_GE(calls, 5);
    for (const int error : errors)
        for (const auto span : {FailingCalls::once, FailingCalls::from_then_on}) {
            // The short form: one of the two for each.
            if (!is_long_form() && (span == FailingCalls::once) != (error == EIO)) continue;
            for (int n = 1; n <= calls; ++n) {
                SCOPED_TRACE("call " + std::to_string(n) + " of " + std::to_string(calls) + ": " +
                             (error ? strerror(error) : "short") +
                             (span == FailingCalls::once ? "" : ", and all that follow"));
                prepare();
                const std::string printed = captured_failing(n, error, span, run);
                const bool given_back =
                    descriptors() <= most_open && is_free(queue, "wrlk") && is_free(queue, "rdlk");
                EXPECT_TRUE(given_back);
                faults.kept += !given_back;
                judge(printed);
                if (testing::Test::HasFailure()) return;
            }
        }
}

} // namespace

TEST(Crash, a_writer_killed_before_any_call_leaves_all_or_nothing) {
    Faults faults;
    for_all_writes([&](const Queue &queue, const State &state, const Write &write, First first) {
        for (const Files files : kFiles) {
            bool died = true, was_there = false;
            for (int n = 1; died; ++n) {
                SCOPED_TRACE("call " + std::to_string(n));
                prepare(queue, state, files);
                died = dies_before_call(n, [&] { write.run(queue); });
                const Seen seen = outcome(queue, state, write, first);
                // What a shorter run had written is not gone again either.
                faults.add(!died || was_there, seen);
                was_there = seen == Seen::all;
                ASSERT_LT(n, 300);
            }
        }
    });
    faults.report("file-queue writer killed before each system call", kLost);
}

// The second one dies while it puts right what the first one left.
TEST(Crash, a_second_death_in_the_recovery_changes_nothing) {
    const Queue queue;
    Faults faults;
    for (const State *state : {&kInUse, &kFileEnds}) {
        bool first_died = true;
        for (int n = 1; first_died; n += length(3, 1)) {
            bool second_died = true;
            for (int m = 1; second_died; m += length(2, 1)) {
                SCOPED_TRACE(std::string(state->name) + ", calls " + std::to_string(n) + " and " +
                             std::to_string(m));
                prepare(queue, *state, kFiles[(n + m) % 2]);
                first_died = dies_before_call(n, [&] { kBatch.run(queue); });
                // Either of the two may have got through; they write different items.
                second_died = dies_before_call(m, [&] { queue.put({"sec", "ond"}); });
                EXPECT_EQ(queue.put_away("end"), 0);
                const std::string got = queue.drain();
                Seen seen = Seen::damage;
                for (const char *first : {"", "aaa bbb ccc"})
                    for (const char *second : {"", "sec ond"})
                        if (got == joined(joined(joined("old1 old2", first), second), "end"))
                            seen = (*first || first_died) && (*second || second_died)
                                       ? Seen::all
                                       : Seen::nothing;
                EXPECT_EQ(seen, Seen::all) << got;
                faults.add(true, seen);
                if (HasFailure()) return;
            }
        }
    }
    faults.report("a second file-queue writer killed where the first one was", kLost);
}

namespace {

constexpr int kReadable = 6; // items of prepare_to_read
const char *const kAllItems = "old1 old2 aaa bbb ccc next";

void prepare_to_read(const Queue &queue, const State &state, Files files = Files::kept) {
    prepare(queue, state, files);
    ASSERT_EQ(queue.put({"aaa", "bbb", "ccc"}), 0); // ends the file, when it is about to
    ASSERT_EQ(queue.put({"next"}), 0);
}

struct Reading {
    std::string items; // that it was given
    bool commits = true;
    int result = -1; // of the commit or the rollback
};

// Reads all that it can get in one transaction.
void read_all(const Queue &queue, Reading &reading) {
    reading.items.clear();
    reading.result = -1;
    fqtrans trans;
    char buffer[100];
    int count = 0;
    int got = fq_dequeue(-1, queue.path(), buffer, 78, &trans);
    if (got <= 0) return;
    while (got > 0) {
        reading.items =
            joined(reading.items, std::string(buffer + 20, static_cast<size_t>(trans.itemlen)));
        if (++count == kReadable) break;
        got = fq_dequeue_next(-1, queue.path(), &trans, buffer, 78);
    }
    reading.result =
        reading.commits ? fq_dequeue_commit(-1, &trans) : fq_dequeue_rollback(-1, &trans);
}

// What the next reader gets: what the last one had not taken, after some or all that it had. `all`
// is said of a reading that has consumed what it was given.
Seen outcome_of_reading(const Queue &queue, const Reading &reading) {
    EXPECT_EQ(queue.put({"after"}), 0);
    const std::string got = queue.drain(), all = joined(kAllItems, "after");
    const std::string taken = reading.commits ? reading.items : "";
    for (size_t at = 0; at <= taken.size(); ++at) {
        const bool whole = at == 0 || at == taken.size() || taken[at] == ' ';
        if (!whole || joined(taken.substr(0, at), got) != all) continue;
        return at == taken.size() && at > 0 ? Seen::all : Seen::nothing;
    }
    ADD_FAILURE() << got;
    return Seen::damage;
}

} // namespace

TEST(Crash, a_reader_killed_before_any_call_repeats_at_most_its_transaction) {
    const Queue queue;
    Faults faults;
    for (const State *state : {&kInUse, &kFileEnds, &kLogsEnd})
        for (const bool commits : {true, false}) {
            const Files files = commits ? Files::kept : Files::to_be_opened;
            bool died = true, was_saved = false;
            for (int n = 1; died; ++n) {
                SCOPED_TRACE(std::string(state->name) + ", call " + std::to_string(n));
                prepare_to_read(queue, *state, files);
                Reading reading{kAllItems, commits, 0};
                died = dies_before_call(n, [&] { read_all(queue, reading); });
                reading.items = kAllItems;
                const Seen seen = outcome_of_reading(queue, reading);
                // A saved position is not gone again.
                faults.add(commits && (!died || was_saved), seen);
                was_saved = seen == Seen::all;
                if (HasFailure()) return;
                ASSERT_LT(n, 300);
            }
        }
    faults.report("file-queue reader killed before each system call", kUndone);
}

TEST(FailingCalls, leave_all_or_nothing_of_a_write) {
    Faults faults;
    for_all_writes([&](const Queue &queue, const State &state, const Write &write, First first) {
        int result = 0;
        for (const Files files : kFiles)
            fail_everywhere(
                queue, faults, [&] { prepare(queue, state, files); },
                [&] { result = write.run(queue); },
                [&](const std::string &) {
                    faults.add(result >= 0, outcome(queue, state, write, first));
                });
    });
    faults.report("each system call of a file-queue writer failing", kLost);
    figure("descriptors or locks kept by a failing writer", "0", faults.kept);
}

TEST(FailingCalls, let_a_reader_repeat_its_transaction_at_most) {
    const Queue queue;
    Faults faults;
    for (const State *state : {&kInUse, &kFileEnds, &kLogsEnd})
        for (const bool commits : {true, false}) {
            SCOPED_TRACE(state->name);
            Reading reading;
            reading.commits = commits;
            fail_everywhere(
                queue, faults, [&] { prepare_to_read(queue, *state, kFiles[commits]); },
                [&] { read_all(queue, reading); },
                [&](const std::string &printed) {
                    // Kept: a position that was not saved is printed, and the result is 0.
                    const bool saved =
                        printed.find("fq_dequeue_commit.fq_set_pos error \n") == std::string::npos;
                    faults.add(commits && reading.result == 0 && saved,
                               outcome_of_reading(queue, reading));
                });
        }
    faults.report("each system call of a file-queue reader failing", kUndone);
    figure("descriptors or locks kept by a failing reader", "0", faults.kept);
}

TEST(Locks, whose_keys_collide_do_not_make_a_thread_wait_for_itself) {
    const Queue from, to;
    let_keys_collide(true);
    alarm(20); // it would wait for ever
    ASSERT_EQ(from.put({"moved"}), 0);
    fqtrans reader, writer;
    char buffer[100];
    ASSERT_GT(fq_dequeue(-1, from.path(), buffer, 78, &reader), 0);
    EXPECT_GT(to.begin(writer, {"moved"}), 0);
    EXPECT_EQ(reader.lockkey, writer.lockkey);
    EXPECT_NE(reader.mtx, writer.mtx);
    EXPECT_EQ(fq_enqueue_commit(-1, &writer), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &reader), 0);
    EXPECT_EQ(to.take(), "moved");
    alarm(0);
    let_keys_collide(false);
}
