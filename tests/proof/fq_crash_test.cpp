// Every way to die or to fail in the middle of an operation, one after the other: before each
// system call, and with each call refused or cut short. Afterwards another writer and reader go
// on, and what was in the queue comes out: each acknowledged transaction once, whole and in order,
// the one that was under way either whole or not at all.
#include <sys/ipc.h>

#include <map>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/queue_calls.h"

using namespace halvo;
using namespace halvo::test;

namespace {

// A queue before the operation. In use: the first files have been read and deleted long ago.
enum State { kFresh, kInUse, kRolledBack, kFileEnds, kLogsEnd };
const char *const kStates[] = {"fresh", "in use", "after a rollback", "at the end of a file",
                               "with full logs"};

void prepare(const Queue &queue, State state) {
    constexpr int kWayIn = 4999970; // the next items take the file past its limit
    queue.clear();
    if (state == kInUse) queue.store("tail", record(3, 0));
    for (const char *log : {"tail", "head"})
        if (state == kFileEnds) queue.store(log, record(0, kWayIn - 26 * 2));
    if (state == kFresh) return;
    ASSERT_EQ(queue.put({"old1"}), 0);
    ASSERT_EQ(queue.put_away("old2"), 0);
    if (state == kRolledBack) {
        fqtrans trans;
        queue.begin(trans, {"xxx", "yyy", "zzz"});
        fq_enqueue_rollback(-1, &trans);
    }
    if (state == kLogsEnd) { // past the limit, the last record behind a gap
        queue.store("head", record(0, 0), 161290 * 31);
        queue.store("tail", queue.position("tail") + "      first\n", 161290 * 31);
    }
}

enum Kind { kPut, kSingleShot, kPutBack, kRead, kReadBack };
struct Operation {
    const char *name;
    Kind kind;
    std::vector<std::string> items;
    bool reads() const { return kind >= kRead; }
};
const Operation kOperations[] = {{"batch", kPut, {"aaa", "bbb", "ccc"}},
                                 {"long pair", kPut, {"aaaaaaaaaaaaaaa", "b"}},
                                 {"single", kPut, {"ddddddddd"}},
                                 {"single shot", kSingleShot, {"eeeeeeeee"}},
                                 {"batch taken back", kPutBack, {"ffff", "gg"}},
                                 {"read", kRead, {}},
                                 {"read taken back", kReadBack, {}}};

// What an operation has told: whether its success, and the items that it has consumed by that.
struct Told {
    bool success = false;
    std::string items;
};

Told run(const Queue &queue, const Operation &operation) {
    fqtrans trans;
    std::vector<std::string> got;
    if (operation.kind == kPut) return {queue.put(operation.items) >= 0, ""};
    if (operation.kind == kSingleShot) return {queue.put_away(operation.items[0]) == 0, ""};
    if (operation.kind == kPutBack) {
        const int begun = queue.begin(trans, operation.items);
        return {begun >= 0 && fq_enqueue_rollback(-1, &trans) >= 0, ""};
    }
    queue.read(trans, got, 6, 78);
    if (got.empty()) return {};
    if (operation.kind == kReadBack) return {fq_dequeue_rollback(-1, &trans) == 0, ""};
    return {fq_dequeue_commit(-1, &trans) == 0, text_of(got)};
}

// What may stand in a queue: whether the last operation has been done, and whether a success that
// was told is undone.
struct Effect {
    bool done, undone;
};
using Outcomes = std::map<std::string, Effect>;

// What may stand there after one operation more.
Outcomes after(const Operation &operation, const Outcomes &before, const Told &told) {
    Outcomes all;
    const bool puts = operation.kind <= kSingleShot;
    for (const auto &[text, effect] : before)
        for (size_t at = 0; at <= told.items.size(); ++at) { // a reader may have to repeat some
            const bool whole = at == told.items.size();
            if (text.compare(0, at, told.items, 0, at) != 0) break;
            if (at > 0 && at < text.size() && text[at] != ' ') continue;
            const std::string rest = text.substr(at > 0 && at < text.size() ? at + 1 : at);
            const bool undone = effect.undone || told.success;
            all[rest] = {false, undone};
            if (whole)
                all[puts ? joined(rest, text_of(operation.items)) : rest] = {true, effect.undone};
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
        EXPECT_GT(cases, 100);
    }
};

struct Case {
    const Queue &queue;
    State state;
    const Operation &operation;
    First first;
    bool to_be_opened; // else who comes next finds the files of its side open from before

    void prepare() const {
        ::prepare(queue, state);
        if (operation.reads()) {
            ASSERT_EQ(queue.put({"aaa", "bbb", "ccc"}), 0); // ends the file, when it is about to
            ASSERT_EQ(queue.put({"next"}), 0);
        }
        if (!to_be_opened) return;
        queue.remove("wrlk");
        queue.remove("rdlk");
        fq_mtx_init(); // new lock files may have new keys: in the end more than the table holds
    }
    std::string items() const {
        const std::string old = state == kFresh ? "" : "old1 old2";
        return operation.reads() ? joined(old, "aaa bbb ccc next") : old;
    }
    bool judge(Faults &faults, const Told &told) const {
        return faults.judge(queue, after(operation, {{items(), {}}}, told), first);
    }
};

void for_each_case(bool reads, auto damage) {
    const Queue queue;
    for (const State state : {kFresh, kInUse, kRolledBack, kFileEnds, kLogsEnd})
        for (const Operation &operation : kOperations)
            for (const First first : {First::writer, First::reader})
                for (const bool to_be_opened : {false, true}) {
                    if (operation.reads() != reads) continue;
                    // What readers may meet, in fewer ways.
                    if (reads && (state == kFresh || state == kRolledBack)) continue;
                    if (reads && to_be_opened == (operation.kind == kRead)) continue;
                    if (reads && first == First::reader && !is_long_form()) continue;
                    SCOPED_TRACE(std::string(operation.name) + ", " + kStates[state] + ", files " +
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
            died = dies_before_call(n, [&] { run(c.queue, c.operation); });
            // What a shorter run had done is not undone again either.
            done = c.judge(faults, {!died || done, c.operation.kind == kRead ? c.items() : ""});
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
        run_with_fault(n, error, lasting, [&] { told = run(c.queue, c.operation); });
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
    constexpr int kErrors[] = {EIO, kShort, ENOSPC, EINTR, EMFILE};
    const int most_open = open_descriptors() + 1 + 2 * 3; // a queue, kept of both its sides
    Faults faults;
    for_each_case(reads, [&](const Case &c) {
        // The short form: two of the errors, one of the two spans for each.
        for (int i = 0; i < length(2, 5) * 2; ++i) {
            const int error = kErrors[i / 2];
            const bool lasting = i % 2;
            if (!is_long_form() && lasting == (error == EIO)) continue;
            c.prepare();
            const int calls = run_with_fault(0, 0, false, [&] { run(c.queue, c.operation); });
            ASSERT_GE(calls, 5);
            for (int n = 1; n <= calls && !testing::Test::HasFailure(); ++n) {
                SCOPED_TRACE("call " + std::to_string(n) + ": " +
                             (error ? strerror(error) : "short") +
                             (lasting ? ", and all that follow" : ""));
                fail_call(c, n, error, lasting, most_open, faults);
            }
        }
    });
    figure(std::string("descriptors or locks kept by a failing ") + (reads ? "reader" : "writer"),
           "0", faults.kept);
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
    each_call_failing(false).report("each system call of a file-queue writer failing", false);
}

TEST(FailingCalls, let_a_reader_repeat_its_transaction_at_most) {
    each_call_failing(true).report("each system call of a file-queue reader failing", true);
}

// The second one dies while it puts right what the first one left.
TEST(Crash, a_second_death_in_the_recovery_changes_nothing) {
    const Queue queue;
    const Operation &batch = kOperations[0], other{"other", kPut, {"sec", "ond"}};
    Faults faults;
    for (const State state : {kInUse, kFileEnds}) {
        bool first_died = true;
        for (int n = 1; first_died; n += length(3, 1)) {
            bool second_died = true;
            for (int m = 1; second_died; m += length(2, 1)) {
                SCOPED_TRACE(std::string(kStates[state]) + ", calls " + std::to_string(n) +
                             " and " + std::to_string(m));
                Case{queue, state, batch, First::writer, (n + m) % 2 != 0}.prepare();
                first_died = dies_before_call(n, [&] { run(queue, batch); });
                second_died = dies_before_call(m, [&] { run(queue, other); });
                const Outcomes first = after(batch, {{"old1 old2", {}}}, {!first_died, {}});
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
