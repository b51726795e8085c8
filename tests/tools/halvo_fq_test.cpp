// halvo-fq, as an operator runs it.
#include <csignal>
#include <cstdlib>
#include <random>

#include <sys/resource.h>

#include "tests/fq/queue_fixture.h"
#include "tests/support/program.h"

using namespace halvo::test;

namespace {

const std::string kFq = HALVO_FQ;

std::string bytes_of(const std::string &path) { return run_program({"/bin/cat", path}).out; }

class FqTool : public testing::Test {
protected:
    std::string directory = make_test_directory();
    halvo::Descriptor alive = start_janitor(directory, "");
    std::string queue = directory + "/mo";

    ~FqTool() override { remove_tree(directory); }
    Outcome run(std::vector<std::string> words, const std::string &input = {}) {
        words.insert(words.begin(), kFq);
        words.insert(words.begin() + 2, queue);
        return run_program(words, input);
    }
    std::string file() const { return queue + ".000000000"; }
};

} // namespace

TEST_F(FqTool, lines_go_in_singly_or_in_batches_and_come_out_in_order) {
    EXPECT_EQ(run({"put"}, "one\n\ntwo").status, 0);
    EXPECT_EQ(run({"put", "--batch", "2", "-q"}, "3\n4\n5\n").status, 0);
    EXPECT_EQ(run({"get", "--max", "2"}).out, "one\ntwo\n");
    const Outcome rest = run({"get"});
    EXPECT_EQ(rest.out, "3\n4\n5\n");
    EXPECT_NE(rest.err.find("halvo-fq: 3 items, 3 bytes in "), std::string::npos) << rest.err;
    EXPECT_EQ(run({"get"}).out, "");
}

TEST_F(FqTool, every_byte_comes_back_with_keep_newline_also_of_a_large_item) {
    const std::string text = "a\n\n" + std::string(200000, 'x') + "\nno line feed";
    EXPECT_EQ(run({"put", "-n"}, text).status, 0);
    EXPECT_EQ(run({"get", "-n"}).out, text);
}

TEST_F(FqTool, what_could_not_be_written_out_is_read_again) {
    run({"put"}, "one\ntwo\n");
    const Outcome full = run({"get", "-o", "/dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("/dev/full: No space left"), std::string::npos) << full.err;
    EXPECT_EQ(run({"get"}).out, "one\ntwo\n");
}

TEST_F(FqTool, stat_tells_positions_backlog_and_the_uncommitted_tail) {
    run({"put"}, "one\ntwo\nthree\n");
    run({"get", "--max", "1"});
    std::ofstream(file(), std::ios::app | std::ios::binary) << item_bytes('W', "tail");
    const Outcome lines = run({"stat"});
    EXPECT_EQ(lines.status, 0) << lines.err;
    EXPECT_EQ(lines.out, "queue        " + queue +
                             "\n"
                             "writer       file 000000000 offset 77\n"
                             "reader       file 000000000 offset 25\n"
                             "backlog      2 items, 8 bytes\n"
                             "uncommitted  1 items, 26 bytes on disk\n"
                             "file         000000000  103 bytes\n");
    EXPECT_EQ(run({"stat", "--json"}).out,
              "{\"queue\":\"" + queue +
                  "\",\"writer\":{\"file\":0,\"offset\":77},\"reader\":{\"file\":0,\"offset\":25},"
                  "\"backlog\":{\"items\":2,\"bytes\":8},"
                  "\"uncommitted\":{\"items\":1,\"bytes\":4,\"tail\":26},"
                  "\"files\":[{\"file\":0,\"bytes\":103}]}\n");
}

TEST_F(FqTool, stat_counts_as_get_reads_behind_a_file_without_its_end_item) {
    run({"put"}, std::string(5000001, 'x') + "\ntwo\n");
    ASSERT_EQ(truncate(file().c_str(), 5000001 + FQ_ITEM_EXTRA), 0);
    EXPECT_NE(run({"stat"}).out.find("backlog      2 items"), std::string::npos);
    EXPECT_NE(run({"get", "-q"}).out.find("\ntwo\n"), std::string::npos);
}

TEST_F(FqTool, verify_names_each_damaged_item_and_changes_nothing) {
    run({"put"}, "one\ntwo\nthree\nfour\n");
    EXPECT_EQ(run({"verify"}).status, 0);
    const auto spoil = [&](long offset, const char *bytes) {
        std::fstream data(file(), std::ios::in | std::ios::out | std::ios::binary);
        data.seekp(offset) << bytes;
    };
    spoil(25 + 1, "?");                              // magic of "two"
    spoil(50 + 25, "?");                             // trailer of "three"
    std::ofstream(file(), std::ios::app) << "QITMF"; // a dead writer's start of an item
    std::ofstream(queue + ".tail", std::ios::app) << "torn";
    const Outcome found = run({"verify"});
    EXPECT_EQ(found.status, 1);
    EXPECT_EQ(found.out, "file 000000000 offset 25: no item begins here\n"
                         "file 000000000 offset 50: no ZZ at its end\n"
                         "the writer's position log ends with 4 bytes of a torn record\n"
                         "2 items, 7 bytes, 0 uncommitted items, 2 damaged places\n");
    EXPECT_EQ(run({"verify", "--json"}).out.find("{\"queue\":"), 0u);
    const Outcome got = run({"get"});
    EXPECT_EQ(got.out, "one\n") << "a reader stops there; verify has repaired nothing";
    EXPECT_EQ(got.status, 1) << "and does not call the queue empty";
    EXPECT_NE(got.err.find(": damaged: file 000000000 offset 25: no item begins here\n"),
              std::string::npos)
        << got.err;
}

TEST_F(FqTool, verify_misses_what_has_been_cut_off_and_what_was_never_committed) {
    const auto verify = [&](const char *tail, const std::string &first, const std::string &second) {
        std::ofstream(queue + ".tail") << tail;
        std::ofstream(file()) << first;
        std::ofstream(queue + ".000000001") << second;
        return run({"verify"}).out;
    };
    const std::string one = item_bytes('F', "one"), pending = item_bytes('W', "two"),
                      end = item_bytes('E', "");
    const std::string at_50 = record(1, 50);
    EXPECT_EQ(verify(at_50.c_str(), one + end, one + one + pending),
              "3 items, 9 bytes, 1 uncommitted items, 0 damaged places\n");
    EXPECT_EQ(verify(at_50.c_str(), one, one),
              "file 000000000 offset 25: no end item, but the writer has gone on\n"
              "file 000000001 offset 25: the file ends before the writer's saved position\n"
              "2 items, 6 bytes, 0 uncommitted items, 2 damaged places\n");
    EXPECT_EQ(verify(at_50.c_str(), one + end, pending + one),
              "file 000000001 offset 0: not committed, but the writer has gone on\n"
              "2 items, 6 bytes, 0 uncommitted items, 1 damaged places\n");
    EXPECT_EQ(verify("000000001 -00000001      first\n", one + end, one),
              "the writer's saved position is damaged\n"
              "2 items, 6 bytes, 0 uncommitted items, 1 damaged places\n");
}

TEST_F(FqTool, get_tells_a_damaged_length_from_a_large_item) {
    run({"put"}, "one\n");
    std::fstream(file(), std::ios::in | std::ios::out | std::ios::binary).seekp(16)
        << "\xff\xff\xff\x7f";
    const Outcome got = run({"get"});
    EXPECT_EQ(got.status, 1);
    EXPECT_NE(got.err.find("an item of 2147483647 bytes would not fit the file"), std::string::npos)
        << got.err;
}

TEST_F(FqTool, follow_ends_cleanly_by_a_signal_and_wrong_words_with_2) {
    run({"put"}, "one\n");
    Peer follower([&] {
        execl(kFq.c_str(), "halvo-fq", "get", queue.c_str(), "--follow", "-q", "-o",
              (directory + "/got").c_str(), nullptr);
        return 127;
    });
    for (int i = 0; i < 200 && bytes_of(directory + "/got") != "one\n"; ++i) usleep(20000);
    run({"put"}, "two\n");
    for (int i = 0; i < 200 && bytes_of(directory + "/got") != "one\ntwo\n"; ++i) usleep(20000);
    follower.kill(SIGTERM);
    EXPECT_EQ(follower.wait(), 0);
    EXPECT_EQ(bytes_of(directory + "/got"), "one\ntwo\n");
    EXPECT_EQ(run_program({kFq, "get"}).status, 2);
    EXPECT_EQ(run_program({kFq, "stat", directory + "/none"}).status, 2);
    EXPECT_EQ(run({"put", "/nonexistent/file"}).status, 2);
}

TEST_F(FqTool, verify_finds_no_damage_after_a_hundred_killed_writers) {
    const char *given = std::getenv("HALVO_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
    std::printf("HALVO_SEED=%u\n", seed);
    std::minstd_rand random(seed);
    std::string lines;
    for (int i = 0; i < 20000; ++i)
        lines += "a line of some length, number " + std::to_string(i % 10) + "\n";
    const std::string input = directory + "/lines";
    std::ofstream(input) << lines;
    for (int round = 0; round < 100; ++round) {
        Peer writer([&] {
            execl(kFq.c_str(), "halvo-fq", "put", queue.c_str(), input.c_str(), "-q", "--batch",
                  round % 2 ? "10" : "1", nullptr);
            return 127;
        });
        usleep(static_cast<useconds_t>(random() % 30000));
        writer.kill(SIGKILL);
        writer.wait();
        if (access(file().c_str(), F_OK) != 0) continue;
        const Outcome verified = run({"verify"});
        ASSERT_EQ(verified.status, 0) << "round " << round << "\n" << verified.out << verified.err;
    }
    const std::string got = run({"get", "-q"}).out;
    for (size_t at = 0; at < got.size();) { // whole lines, in the order of each writer
        const size_t end = got.find('\n', at);
        ASSERT_EQ(got.compare(at, 30, "a line of some length, number "), 0) << at;
        ASSERT_EQ(end - at, 31u);
        at = end + 1;
    }
}

TEST_F(FqTool, no_command_makes_a_queue_but_put) {
    for (const char *command : {"get", "peek", "stat", "verify", "dump"}) {
        const Outcome outcome = run({command});
        EXPECT_EQ(outcome.status, 2) << command;
        EXPECT_NE(outcome.err.find(": no queue of that name"), std::string::npos) << outcome.err;
    }
    EXPECT_TRUE(halvo::test::run_program({"/bin/ls", directory}).out.empty());
}

TEST_F(FqTool, peek_and_dump_show_and_consume_nothing) {
    run({"put"}, "one\ntwo\nthree\n");
    run({"get", "--max", "1"});
    std::ofstream(file(), std::ios::app | std::ios::binary) << item_bytes('W', "\xb0\xa1\"");
    EXPECT_EQ(run({"peek", "--max", "1"}).out, "two\n");
    EXPECT_EQ(run({"peek"}).out, "two\nthree\n");
    const std::string lines = run({"dump"}).out;
    EXPECT_NE(lines.find("000000000        77 uncommitted          3  ..\"\n"), std::string::npos)
        << lines;
    const std::string json = run({"dump", "--json"}).out;
    EXPECT_EQ(json.find("{\"queue\":\"" + queue + "\",\"items\":[\n{\"file\":0,\"offset\":0,"), 0u);
    EXPECT_NE(json.find("\"state\":\"uncommitted\",\"stamp\":0,\"length\":3,"
                        "\"data\":\"\\u00b0\\u00a1\\\"\"}\n]}\n"),
              std::string::npos)
        << json;
    EXPECT_EQ(run({"get", "--max-bytes", "3"}).out, "two\n");
    EXPECT_EQ(run({"get"}).out, "three\n");
}

TEST_F(FqTool, get_removes_every_file_that_it_has_gone_through) {
    const std::string end = item_bytes('E', "");
    for (int order = 0; order < 4; ++order)
        std::ofstream(queue + ".00000000" + std::to_string(order), std::ios::binary)
            << (order == 1 ? "" : item_bytes('F', std::to_string(order)))
            << (order == 3 ? "" : end);
    EXPECT_EQ(run({"get"}).out, "0\n2\n3\n");
    for (int order = 0; order < 3; ++order)
        EXPECT_NE(access((queue + ".00000000" + std::to_string(order)).c_str(), F_OK), 0) << order;
}

TEST_F(FqTool, get_stops_when_the_position_cannot_be_saved) {
    run({"put"}, "one\ntwo\n");
    ASSERT_EQ(symlink("/dev/full", (queue + ".head").c_str()), 0);
    const Outcome got = run({"get", "-q"});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, "one\ntwo\n");
    EXPECT_NE(got.err.find(".head: the position could not be saved"), std::string::npos) << got.err;
}

TEST_F(FqTool, a_position_without_a_file_is_told_and_many_files_are_read_fast) {
    run({"put"}, "one\n");
    std::ofstream(queue + ".head") << record(7, 25);
    std::ofstream(queue + ".tail") << record(9, 25);
    EXPECT_NE(run({"stat"}).out.find("reader       file 000000007 offset 25 (no such file)\n"),
              std::string::npos);
    const Outcome verified = run({"verify"});
    EXPECT_EQ(verified.status, 1);
    EXPECT_NE(verified.out.find("the reader's saved position names file 000000007, which is not "
                                "there\n"),
              std::string::npos)
        << verified.out;
    std::ofstream(queue + ".head") << record(0, 0);
    std::ofstream(queue + ".tail") << record(4999, 25);
    const std::string bytes = item_bytes('F', "one");
    for (int order = 0; order < 5000; ++order)
        std::ofstream(halvo::fq::data_file(queue.c_str(), order).text, std::ios::binary)
            << bytes << (order < 4999 ? item_bytes('E', "") : "");
    const auto processor_seconds = [] { // the machine may be busy
        rusage used{};
        getrusage(RUSAGE_CHILDREN, &used);
        return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
               static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
    };
    const double before = processor_seconds();
    EXPECT_NE(run({"stat"}).out.find("backlog      5000 items, 15000 bytes\n"), std::string::npos);
    EXPECT_EQ(run({"verify"}).status, 0);
    EXPECT_LT(processor_seconds() - before, 0.6);
}
