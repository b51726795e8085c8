// Every way to die or to fail in the middle of an operation, one after the other: before each
// system call, and with each call refused or cut short. Afterwards another writer and reader go
// on, and what was in the queue comes out: each acknowledged transaction once, whole and in order,
// the one that was under way either whole or not at all.
#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <map>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/queue_calls.h"

using namespace halvo;
using namespace halvo::test;

namespace {

constexpr int kWayIn = 4999970; // a file that the next items take past its limit

// Lets a position file be past its limit: its last record behind a gap.
void fill_log(const Queue &queue, const std::string &suffix) {
    queue.store(suffix, queue.position(suffix) + "      first\n", 161290 * 31);
}

void put_old(const Queue &queue) {
    ASSERT_EQ(queue.put({"old1"}), 0);
    ASSERT_EQ(queue.put_away("old2"), 0);
}

// A queue before the operation, and what stands in it.
struct State {
    const char *name;
    const char *items;
    void (*prepare)(const Queue &);
    bool is_read; // also by the operations that read
};

// In use: the first files have been read and deleted long ago; no reader has saved a position since.
const State kStates[] = {{"fresh", "", [](const Queue &) {}, false},
                         {"in use", "old1 old2",
                          [](const Queue &queue) {
                              queue.store("tail", record(3, 0));
                              put_old(queue);
                          },
                          true},
                         {"after a rollback", "old1 old2",
                          [](const Queue &queue) {
                              put_old(queue);
                              fqtrans trans;
                              queue.begin(trans, {"xxx", "yyy", "zzz"});
                              fq_enqueue_rollback(-1, &trans);
                          },
                          false},
                         {"at the end of a file", "old1 old2",
                          [](const Queue &queue) {
                              queue.store("tail", record(0, kWayIn - 26 * 2));
                              queue.store("head", record(0, kWayIn - 26 * 2));
                              put_old(queue);
                          },
                          true},
                         {"with full logs", "old1 old2",
                          [](const Queue &queue) {
                              put_old(queue);
                              queue.store("head", record(0, 0));
                              fill_log(queue, "head");
                              fill_log(queue, "tail");
                          },
                          true}};

// What an operation has told: whether its success, and the items that it has consumed by that.
struct Told {
    bool success = false;
    std::string items;
};

struct Operation {
    const char *name;
    std::string puts; // its items
    bool reads, commits;
    std::function<Told(const Queue &)> run;
};

Operation writes(const char *name, const std::string &puts, std::function<int(const Queue &)> put) {
    return {name, puts, false, true, [put](const Queue &queue) {
                return Told{put(queue) >= 0, {}};
            }};
}

Operation reads_all(const char *name, bool commits) {
    return {name, "", true, commits, [commits](const Queue &queue) {
                Told told;
                fqtrans trans;
                std::vector<std::string> items;
                queue.read(trans, items, 6, 78);
                if (items.empty()) return told;
                const int result =
                    commits ? fq_dequeue_commit(-1, &trans) : fq_dequeue_rollback(-1, &trans);
                told.success = commits && result == 0;
                for (const std::string &item : items)
                    if (commits) told.items = joined(told.items, item);
                return told;
            }};
}

const Operation kOperations[] = {
    writes("batch", "aaa bbb ccc",
           [](auto &queue) {
               return queue.put({"aaa", "bbb", "ccc"});
           }),
    writes("long pair", "aaaaaaaaaaaaaaa b",
           [](auto &queue) {
               return queue.put({"aaaaaaaaaaaaaaa", "b"});
           }),
    writes("single", "ddddddddd", [](auto &queue) { return queue.put({"ddddddddd"}); }),
    writes("single shot", "eeeeeeeee",
           [](auto &queue) { return queue.put_away("eeeeeeeee") == 0 ? 0 : -1; }),
    writes("batch taken back", "",
           [](auto &queue) {
               fqtrans trans;
               const int begun = queue.begin(trans, {"ffff", "gg"});
               return begun < 0 ? begun : fq_enqueue_rollback(-1, &trans);
           }),
    reads_all("read", true),
    reads_all("read taken back", false)};

// What may stand in a queue: whether the last operation has been done, and whether a success that
// was told is undone.
struct Effect {
    bool done, undone;
};
using Outcomes = std::map<std::string, Effect>;

// What may stand there after one operation more.
Outcomes after(const Operation &operation, const Outcomes &before, const Told &told) {
    Outcomes all;
    for (const auto &[text, effect] : before)
        for (size_t at = 0; at <= told.items.size(); ++at) { // a reader may have to repeat some
            const bool whole = at == told.items.size();
            if (text.compare(0, at, told.items, 0, at) != 0) break;
            if (at > 0 && at < text.size() && text[at] != ' ') continue;
            const std::string rest = text.substr(at > 0 && at < text.size() ? at + 1 : at);
            const bool undone = effect.undone || told.success;
            all[rest] = {false, undone};
            if (whole) all[joined(rest, operation.puts)] = {true, effect.undone};
        }
    return all;
}

// Who comes first to a queue that somebody died in.
enum class First { writer, reader };

struct Faults {
    int64_t cases = 0, undone = 0, damaged = 0, kept = 0;

    // Goes on with a queue. Whether the operation is found done there.
    bool judge(const Queue &queue, const Outcomes &outcomes, First first) {
        ++cases;
        std::string got;
        if (first == First::reader) got = queue.drain_at_once(); // also over the end of a file
        EXPECT_EQ(queue.put({"new1"}), 0);
        EXPECT_EQ(queue.put_away("new2"), 0);
        got = joined(got, queue.drain());
        for (const auto &[text, effect] : outcomes) {
            if (got != joined(text, "new1 new2")) continue;
            undone += effect.undone;
            EXPECT_FALSE(effect.undone) << "an acknowledged transaction is gone: " << got;
            return effect.done;
        }
        ADD_FAILURE() << got;
        ++damaged;
        return false;
    }
    void report(const std::string &what, bool reads) const {
        figure(what + ": cases", "-", cases);
        figure(what + (reads ? ": saved positions lost" : ": acknowledged transactions lost"), "0",
               undone);
        figure(what + ": queues with items torn, in part, foreign or stuck", "0", damaged);
        EXPECT_EQ(undone + damaged + kept, 0);
        EXPECT_GT(cases, 100);
    }
};

struct Case {
    const Queue &queue;
    const State &state;
    const Operation &operation;
    First first;
    bool to_be_opened; // else who comes next finds the files of its side open from before

    void prepare() const {
        queue.clear();
        state.prepare(queue);
        if (operation.reads) {
            ASSERT_EQ(queue.put({"aaa", "bbb", "ccc"}), 0); // ends the file, when it is about to
            ASSERT_EQ(queue.put({"next"}), 0);
        }
        if (!to_be_opened) return;
        queue.remove("wrlk");
        queue.remove("rdlk");
    }
    std::string items() const {
        return operation.reads ? joined(state.items, "aaa bbb ccc next") : state.items;
    }
    bool judge(Faults &faults, const Told &told) const {
        return faults.judge(queue, after(operation, {{items(), {}}}, told), first);
    }
};

template <class Damage>
void for_each_case(bool reads, Damage damage) {
    const Queue queue;
    for (const State &state : kStates)
        for (const Operation &operation : kOperations)
            for (const First first : {First::writer, First::reader})
                for (const bool to_be_opened : {false, true}) {
                    if (operation.reads != reads || (reads && !state.is_read)) continue;
                    if (reads && to_be_opened == operation.commits) continue;
                    if (reads && first == First::reader && !is_long_form()) continue;
                    SCOPED_TRACE(std::string(operation.name) + ", " + state.name + ", files " +
                                 (to_be_opened ? "to be opened, then a " : "kept, then a ") +
                                 (first == First::reader ? "reader" : "writer"));
                    damage(Case{queue, state, operation, first, to_be_opened});
                    if (testing::Test::HasFailure()) return;
                }
}

// ---- Death -------------------------------------------------------------------------------------

Faults killed_before_each_call(bool reads) {
    Faults faults;
    for_each_case(reads, [&](const Case &c) {
        bool died = true, done = false;
        for (int n = 1; died && !testing::Test::HasFailure(); ++n) {
            SCOPED_TRACE("call " + std::to_string(n));
            c.prepare();
            died = dies_before_call(n, [&] { c.operation.run(c.queue); });
            // What a shorter run had done is not undone again either.
            const bool told = !died || done;
            done = c.judge(faults, {told, reads && c.operation.commits ? c.items() : ""});
            ASSERT_LT(n, 300);
        }
    });
    return faults;
}

// ---- Failure -----------------------------------------------------------------------------------

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

void fail_call(const Case &c, int n, int error, bool lasting, int most_open, Faults &faults) {
    c.prepare();
    Told told;
    const std::string printed = captured_stdout([&] { // whose own calls do not fail
        const FaultyCalls fails(n, error, lasting);
        told = c.operation.run(c.queue);
    });
    // Kept: a position that was not saved is printed, and the result is 0.
    if (printed.find("fq_dequeue_commit.fq_set_pos error \n") != std::string::npos)
        told.success = false;
    const bool given_back =
        open_descriptors() <= most_open && is_free(c.queue, "wrlk") && is_free(c.queue, "rdlk");
    EXPECT_TRUE(given_back);
    faults.kept += !given_back;
    c.judge(faults, told);
}

// Every call of an operation fails in every way.
Faults each_call_failing(bool reads) {
    constexpr int kErrors[] = {EIO, FaultyCalls::kShort, ENOSPC, EINTR, EMFILE};
    const int most_open = open_descriptors() + 1 + 2 * 3; // a queue, kept of both its sides
    Faults faults;
    for_each_case(reads, [&](const Case &c) {
        // The short form: two of the errors, one of the two spans for each.
        for (int i = 0; i < length(2, 5) * 2; ++i) {
            const int error = kErrors[i / 2];
            const bool lasting = i % 2;
            if (!is_long_form() && lasting == (error == EIO)) continue;
            c.prepare();
            const int calls = counted_calls([&] { c.operation.run(c.queue); });
            ASSERT_GE(calls, 5);
            for (int n = 1; n <= calls && !testing::Test::HasFailure(); ++n) {
                SCOPED_TRACE("call " + std::to_string(n) + ": " +
                             (error ? strerror(error) : "short") +
                             (lasting ? ", and all that follow" : ""));
                fail_call(c, n, error, lasting, most_open, faults);
            }
        }
    });
    return faults;
}

} // namespace

TEST(Crash, a_writer_killed_before_any_call_leaves_all_or_nothing) {
    killed_before_each_call(false).report("file-queue writer killed before each system call",
                                          false);
}

TEST(Crash, a_reader_killed_before_any_call_repeats_at_most_its_transaction) {
    killed_before_each_call(true).report("file-queue reader killed before each system call", true);
}

TEST(FailingCalls, leave_all_or_nothing_of_a_write) {
    const Faults faults = each_call_failing(false);
    faults.report("each system call of a file-queue writer failing", false);
    figure("descriptors or locks kept by a failing writer", "0", faults.kept);
}

TEST(FailingCalls, let_a_reader_repeat_its_transaction_at_most) {
    const Faults faults = each_call_failing(true);
    faults.report("each system call of a file-queue reader failing", true);
    figure("descriptors or locks kept by a failing reader", "0", faults.kept);
}

// The second one dies while it puts right what the first one left.
TEST(Crash, a_second_death_in_the_recovery_changes_nothing) {
    const Queue queue;
    const Operation &batch = kOperations[0];
    const Operation other = writes("other", "sec ond", [](auto &of) {
        return of.put({"sec", "ond"});
    });
    Faults faults;
    for (const State *state : {&kStates[1], &kStates[3]}) {
        bool first_died = true;
        for (int n = 1; first_died; n += length(3, 1)) {
            bool second_died = true;
            for (int m = 1; second_died; m += length(2, 1)) {
                SCOPED_TRACE(std::string(state->name) + ", calls " + std::to_string(n) + " and " +
                             std::to_string(m));
                Case{queue, *state, batch, First::writer, (n + m) % 2 != 0}.prepare();
                first_died = dies_before_call(n, [&] { batch.run(queue); });
                second_died = dies_before_call(m, [&] { other.run(queue); });
                const Outcomes first = after(batch, {{state->items, {}}}, {!first_died, {}});
                faults.judge(queue, after(other, first, {!second_died, {}}), First::writer);
                if (HasFailure()) return;
            }
        }
    }
    faults.report("a second file-queue writer killed where the first one was", false);
}

TEST(Locks, whose_keys_collide_do_not_make_a_thread_wait_for_itself) {
    const Queue from, to;
    let_keys_collide(true);
    alarm(20); // it would wait for ever
    ASSERT_EQ(from.put({"moved"}), 0);
    fqtrans reader, writer;
    std::vector<std::string> items;
    ASSERT_GT(from.read(reader, items, 1), 0);
    EXPECT_GT(to.begin(writer, items), 0);
    EXPECT_EQ(reader.lockkey, writer.lockkey);
    EXPECT_NE(reader.mtx, writer.mtx);
    EXPECT_EQ(fq_enqueue_commit(-1, &writer), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &reader), 0);
    EXPECT_EQ(to.take(), "moved");
    alarm(0);
}
