// halvo-fq, as an operator runs it.
#include "tests/fq/queue_fixture.h"
#include "tests/support/program.h"

using namespace halvo::test;

namespace {

class FqTool : public testing::Test {
protected:
    TestDirectory directory;
    const QueueAt queue{directory.path("mo")};

    Outcome run(std::vector<std::string> words, const std::string &input = {}) {
        words.insert(words.begin(), HALVO_FQ);
        words.insert(words.begin() + 2, queue.path());
        return run_program(words, input);
    }
    std::string out(std::vector<std::string> words) { return run(std::move(words)).out; }
};

} // namespace

TEST_F(FqTool, lines_go_in_singly_or_in_batches_and_come_out_in_order) {
    EXPECT_EQ(run({"put"}, "one\n\ntwo").status, 0);
    EXPECT_EQ(run({"put", "--batch", "2", "-q"}, "3\n4\n5\n").status, 0);
    EXPECT_EQ(out({"get", "--max", "2"}), "one\ntwo\n");
    const Outcome rest = run({"get"});
    EXPECT_EQ(rest.out, "3\n4\n5\n");
    expect_end(rest, 0, "halvo-fq: 3 items, 3 bytes in ");
    EXPECT_EQ(out({"get"}), "");
    const std::string text = "a\n\n" + std::string(200000, 'x') + "\nno line feed";
    EXPECT_EQ(run({"put", "-n"}, text).status, 0);
    EXPECT_EQ(out({"get", "-n"}), text) << "every byte";
}

TEST_F(FqTool, get_stops_where_it_cannot_go_on) {
    const auto get = [&](std::vector<std::string> words, const char *line) {
        words.insert(words.begin(), "get");
        const Outcome got = run(words);
        expect_end(got, 1, line);
        return got.out;
    };
    run({"put"}, "one\ntwo\n");
    get({"-o", "/dev/full"}, "/dev/full: No space left");
    queue.remove("head");
    ASSERT_EQ(symlink("/dev/full", queue.file("head").c_str()), 0);
    EXPECT_EQ(get({"-q"}, ".head: the position could not be saved"), "one\ntwo\n");
    queue.remove("head");
    EXPECT_EQ(out({"get"}), "one\ntwo\n") << "what could not be written out or saved comes again";
    queue.remove("head");
    queue.patch(0, 16, "\xff\xff\xff\x7f"); // no large item
    get({}, "an item of 2147483647 bytes would not fit the file");
}

TEST_F(FqTool, stat_tells_positions_backlog_and_the_uncommitted_tail) {
    run({"put"}, "one\ntwo\nthree\n");
    run({"get", "--max", "1"});
    queue.store(0, queue.bytes(0) + item_bytes('W', "tail"));
    EXPECT_EQ(out({"stat"}), std::string("queue        ") + queue.path() +
                                 "\n"
                                 "writer       file 000000000 offset 77\n"
                                 "reader       file 000000000 offset 25\n"
                                 "backlog      2 items, 8 bytes\n"
                                 "uncommitted  1 items, 26 bytes on disk\n"
                                 "file         000000000  103 bytes\n");
    EXPECT_EQ(out({"stat", "--json"}),
              std::string("{\"queue\":\"") + queue.path() +
                  "\",\"writer\":{\"file\":0,\"offset\":77},\"reader\":{\"file\":0,\"offset\":25},"
                  "\"backlog\":{\"items\":2,\"bytes\":8},"
                  "\"uncommitted\":{\"items\":1,\"bytes\":4,\"tail\":26},"
                  "\"files\":[{\"file\":0,\"bytes\":103}]}\n");
}

TEST_F(FqTool, stat_counts_as_get_reads_behind_a_file_without_its_end_item) {
    run({"put"}, std::string(5000001, 'x') + "\ntwo\n");
    ASSERT_EQ(truncate(queue.file(0).c_str(), 5000001 + FQ_ITEM_EXTRA), 0);
    expect_end(run({"stat"}), 0, "backlog      2 items");
    expect_end(run({"get", "-q"}), 0, "\ntwo\n");
}

TEST_F(FqTool, verify_names_each_damaged_item_and_changes_nothing) {
    run({"put"}, "one\ntwo\nthree\nfour\n");
    EXPECT_EQ(run({"verify"}).status, 0);
    queue.patch(0, 25 + 1, "?");              // magic of "two"
    queue.patch(0, 50 + 25, "?");             // trailer of "three"
    queue.store(0, queue.bytes(0) + "QITMF"); // a dead writer's start of an item
    queue.store("tail", queue.bytes("tail") + "torn");
    const Outcome found = run({"verify"});
    EXPECT_EQ(found.status, 1);
    EXPECT_EQ(found.out, "file 000000000 offset 25: no item begins here\n"
                         "file 000000000 offset 50: no ZZ at its end\n"
                         "the writer's position log ends with 4 bytes of a torn record\n"
                         "2 items, 7 bytes, 0 uncommitted items, 2 damaged places\n");
    EXPECT_EQ(out({"verify", "--json"}).find("{\"queue\":"), 0u);
    const Outcome got = run({"get"});
    EXPECT_EQ(got.out, "one\n") << "a reader stops there; verify has repaired nothing";
    expect_end(got, 1, ": damaged: file 000000000 offset 25: no item begins here\n");
}

TEST_F(FqTool, verify_misses_what_has_been_cut_off_and_what_was_never_committed) {
    const std::string pending = item_bytes('W', "two"), at_50 = record(1, 50);
    const struct {
        std::string tail, head, first, second;
        const char *lines;
    } rows[] = {
        {at_50, "", one + kEndItem, one + one + pending,
         "3 items, 9 bytes, 1 uncommitted items, 0 damaged places\n"},
        {at_50, "", one, one,
         "file 000000000 offset 25: no end item, but the writer has gone on\n"
         "file 000000001 offset 25: the file ends before the writer's saved position\n"
         "2 items, 6 bytes, 0 uncommitted items, 2 damaged places\n"},
        {at_50, "", one + kEndItem, pending + one,
         "file 000000001 offset 0: not committed, but the writer has gone on\n"
         "2 items, 6 bytes, 0 uncommitted items, 1 damaged places\n"},
        {"000000001 -00000001      first\n", "", one + kEndItem, one,
         "the writer's saved position is damaged\n"
         "2 items, 6 bytes, 0 uncommitted items, 1 damaged places\n"},
        {record(1, 25), record(7, 25), one + kEndItem, one,
         "the reader's saved position names file 000000007, which is not there\n"
         "2 items, 6 bytes, 0 uncommitted items, 1 damaged places\n"},
    };
    for (const auto &row : rows) {
        queue.store("tail", row.tail);
        if (!row.head.empty()) queue.store("head", row.head);
        queue.store(0, row.first);
        queue.store(1, row.second);
        EXPECT_EQ(out({"verify"}), row.lines);
    }
    expect_end(run({"stat"}), 0, "reader       file 000000007 offset 25 (no such file)\n");
}

TEST_F(FqTool, follow_ends_cleanly_by_a_signal) {
    const std::string got = directory.path("got");
    const auto comes = [&](const char *text) {
        return comes_true([&] { return exists(got) && content_of(got) == text; });
    };
    run({"put"}, "one\n");
    const auto follower =
        start_program({HALVO_FQ, "get", queue.path(), "--follow", "-q", "-o", got}, got + ".log");
    EXPECT_TRUE(comes("one\n"));
    run({"put"}, "two\n");
    EXPECT_TRUE(comes("one\ntwo\n"));
    follower->kill(SIGTERM);
    EXPECT_EQ(follower->wait(), 0);
}

TEST_F(FqTool, no_command_makes_a_queue_but_put) {
    for (const char *command : {"get", "peek", "stat", "verify", "dump"})
        expect_end(run({command}), 2, ": no queue of that name");
    EXPECT_EQ(run_program({HALVO_FQ, "get"}).status, 2);
    EXPECT_EQ(run({"put", "/nonexistent/file"}).status, 2);
    expect_end(run_program({HALVO_FQ, "put", "/nonexistent/mo"}), 2, "/nonexistent: No such file");
    expect_end(run_program({HALVO_FQ, "put", ""}), 2, "the path of the queue is empty");
    EXPECT_EQ(run_program({"/bin/ls", directory.path()}).out, "");
}

TEST_F(FqTool, peek_and_dump_show_and_consume_nothing) {
    run({"put"}, "one\ntwo\nthree\n");
    run({"get", "--max", "1"});
    queue.store(0, queue.bytes(0) + item_bytes('W', "\xb0\xa1\""));
    EXPECT_EQ(out({"peek", "--max", "1"}), "two\n");
    EXPECT_EQ(out({"peek"}), "two\nthree\n");
    expect_end(run({"dump"}), 0, "000000000        77 uncommitted          3  ..\"\n");
    const Outcome json = run({"dump", "--json"});
    EXPECT_EQ(json.out.find(std::string("{\"queue\":\"") + queue.path() +
                            "\",\"items\":[\n{\"file\":0,\"offset\":0,"),
              0u);
    expect_end(json, 0,
               "\"state\":\"uncommitted\",\"stamp\":0,\"length\":3,"
               "\"data\":\"\\u00b0\\u00a1\\\"\"}\n]}\n");
    EXPECT_EQ(out({"get", "--max-bytes", "3"}), "two\n");
    EXPECT_EQ(out({"get"}), "three\n");
}

TEST_F(FqTool, get_removes_every_file_that_it_has_gone_through) {
    for (int order = 0; order < 4; ++order)
        queue.store(order, (order == 1 ? "" : item_bytes('F', std::to_string(order))) +
                               (order == 3 ? "" : kEndItem));
    EXPECT_EQ(out({"get"}), "0\n2\n3\n");
    for (int order = 0; order < 3; ++order) EXPECT_FALSE(queue.has(order)) << order;
}

TEST_F(FqTool, many_files_are_read_fast) {
    queue.store("head", record(0, 0));
    queue.store("tail", record(4999, 25));
    for (int order = 0; order < 5000; ++order)
        queue.store(order, one + (order < 4999 ? kEndItem : ""));
    const int64_t before = processor_time(RUSAGE_CHILDREN); // the machine may be busy
    expect_end(run({"stat"}), 0, "backlog      5000 items, 15000 bytes\n");
    EXPECT_EQ(run({"verify"}).status, 0);
    EXPECT_LT(processor_time(RUSAGE_CHILDREN) - before, 600000);
}
