// Names, data files found by name, position records.
#include "tests/fq/queue_fixture.h"

#include <fcntl.h>

#include "core/posix.h"

using namespace halvo;
using namespace halvo::test;

namespace {

std::string dir_of(const std::string &path) {
    char text[FQ_NAME_SIZE];
    EXPECT_EQ(fq_dirof(path.c_str(), text), 1);
    return text;
}

std::string name_of(const std::string &path) {
    char text[FQ_NAME_SIZE];
    EXPECT_EQ(fq_nameof(path.c_str(), text), 1);
    return text;
}

// A position file of a queue, open as a side opens it.
struct PositionFile {
    const Queue &queue;
    char mode;
    Descriptor fd = open_file(fq::position_file(queue.path(), mode).text, O_RDWR | O_CREAT);
    std::string record = std::string(31, '?');
    int get() { return fq_get_pos(queue.path(), fd.get(), record.data(), mode); }
    int set(int order, int offset) {
        record = test::record(order, offset);
        return fq_set_pos(fd.get(), record.data());
    }
};

} // namespace

TEST(FileNames, a_path_splits_at_its_last_slash) {
    EXPECT_EQ(dir_of("/var/q/mo"), "/var/q");
    EXPECT_EQ(name_of("/var/q/mo"), "mo");
    EXPECT_EQ(dir_of("mo"), ".");
    EXPECT_EQ(name_of("mo"), "mo");
    EXPECT_EQ(dir_of("/mo"), "");
    EXPECT_EQ(name_of("/var/"), "");
    const std::string longer(5000, 'n');
    EXPECT_EQ(name_of(longer), longer.substr(0, 4095)) << "cut to the caller's 4096 bytes";
}

TEST(FileNames, the_file_order_follows_the_last_dot) {
    EXPECT_EQ(fq_forderof("mo.000000012"), 12);
    EXPECT_EQ(fq_forderof("mo.1.000000007"), 7);
    EXPECT_EQ(fq_forderof("mo"), 0);
    EXPECT_EQ(fq_forderof("mo.tail"), 0);
    EXPECT_EQ(fq_forderof("mo.-5"), -5);
    EXPECT_EQ(fq_forderof("mo.99999999999999999999"), 2147483647);
}

TEST(DataFiles, the_lowest_and_the_highest_order_are_found) {
    const Queue queue;
    EXPECT_EQ(fq_find_forder_first(queue.path()), -1);
    EXPECT_EQ(fq_find_forder_last(queue.path()), 0);
    for (const int order : {7, 4, 99999999, 100000000}) queue.store(order, "");
    EXPECT_EQ(fq_find_forder_first(queue.path()), 4);
    EXPECT_EQ(fq_find_forder_last(queue.path()), 99999999) << "ten digits have no leading zero";
    const Queue other("other");
    EXPECT_EQ(fq_find_forder_first(other.path()), -1);
}

TEST(DataFiles, wildcards_in_the_base_name_mean_themselves) {
    const Queue queue("q[1]*?");
    queue.store(3, "");
    EXPECT_EQ(fq_find_forder_first(queue.path()), 3);
    EXPECT_EQ(fq_find_forder_first((queue.directory() + "/*").c_str()), -1);
}

TEST(DataFiles, a_path_without_a_slash_lies_in_the_working_directory) {
    const Queue queue;
    queue.store(5, "");
    ASSERT_EQ(chdir(queue.directory().c_str()), 0);
    EXPECT_EQ(fq_find_forder_last("q"), 5);
    ASSERT_EQ(chdir("/"), 0);
}

TEST(DataFiles, no_directory_or_an_unusable_path_is_minus_one) {
    EXPECT_EQ(fq_find_forder_first("/nowhere/at/all"), -1);
    EXPECT_EQ(fq_find_forder_last("/nowhere/at/all"), -1);
    EXPECT_EQ(fq_find_forder_last(std::string(4091, 'n').c_str()), -1);
    EXPECT_EQ(fq_find_forder_last(nullptr), -1);
    EXPECT_GE(fq_find_forder_last("/mo"), 0) << "looks in the root directory";
}

TEST(Positions, the_last_record_is_the_position) {
    const Queue queue;
    PositionFile file{queue, 'w'};
    EXPECT_EQ(file.set(3, 4998211), 31);
    EXPECT_EQ(file.record, std::string("000000003\0"
                                       "004998211\0"
                                       "     first\n",
                                       31))
        << "held with NULs behind the numbers";
    EXPECT_EQ(file.set(4, 0), 31);
    EXPECT_EQ(queue.bytes("tail"), record(3, 4998211) + record(4, 0));
    EXPECT_EQ(file.get(), 31);
    EXPECT_EQ(file.record, record(4, 0));
}

TEST(Positions, a_writer_without_a_record_starts_at_the_last_file) {
    const Queue queue;
    for (const int order : {4, 7}) queue.store(order, "");
    PositionFile file{queue, 'w'};
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(file.get(), 31); }),
              "fq_get_pos.lseek error. first entry needed.(w)\n"
              "RESET POSITION first at 0\n"
              "RESET POSITION written  31 bytes and then 31\n"
              "RESET POSITION FOR WRITE, 000000007 000000000      first\n\n");
    EXPECT_EQ(queue.bytes("tail"), record(7, 0));
    EXPECT_EQ(file.record, record(7, 0));
}

TEST(Positions, a_reader_without_a_record_starts_at_the_first_file) {
    const Queue queue;
    for (const int order : {4, 7}) queue.store(order, "");
    PositionFile file{queue, 'r'};
    captured_stdout([&] { EXPECT_EQ(file.get(), 31); });
    EXPECT_EQ(queue.bytes("head"), record(4, 0));
}

TEST(Positions, a_reader_without_any_file_starts_at_order_0) {
    const Queue queue;
    PositionFile file{queue, 'r'};
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(file.get(), 31); }),
              "fq_get_pos.lseek error. first entry needed.(r)\n"
              "NO FILE TO READ \n"
              "RESET POSITION first at 0\n"
              "RESET POSITION written  31 bytes and then 31\n"
              "RESET POSITION FOR READ, 000000000 000000000      first\n\n");
}

TEST(Positions, a_lost_directory_gives_the_writer_order_minus_one) {
    const Queue queue;
    PositionFile file{queue, 'w'};
    const std::string elsewhere = queue.directory() + "/gone/q";
    captured_stdout([&] {
        EXPECT_EQ(fq_get_pos(elsewhere.c_str(), file.fd.get(), file.record.data(), 'w'), 31);
    });
    EXPECT_EQ(file.record.substr(0, 20), "-00000001 000000000 ");
}

TEST(Positions, a_torn_record_is_skipped_and_written_over) {
    const Queue queue;
    queue.store("tail", record(1, 10) + record(2, 20) + "00000000");
    PositionFile file{queue, 'w'};
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(file.get(), 31); }),
              "경고! 인덱스 파일 손상.... 자동복구(읽기)..offset=39 sizeof(fqpos)=31 modulo=8\n");
    EXPECT_EQ(file.record, record(2, 20));
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(file.set(3, 30), 31); }),
              "경고! 인덱스 파일 손상.... 자동복구(쓰기)..offset=70 sizeof(fqpos)=31 modulo=8\n");
    EXPECT_EQ(queue.bytes("tail"), record(1, 10) + record(2, 20) + record(3, 30));
}

TEST(Positions, less_than_one_record_counts_as_none) {
    const Queue queue;
    queue.store("head", "000000009 0000");
    PositionFile file{queue, 'r'};
    captured_stdout([&] { EXPECT_EQ(file.get(), 31); });
    EXPECT_EQ(queue.bytes("head"), record(0, 0));
}

TEST(Positions, a_closed_file_fails_with_the_messages) {
    std::string text = record(1, 2);
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_set_pos(-1, text.data()), -1); }),
              "fq_set_pos.lseek error\n");
    const Queue queue;
    queue.store("head", record(1, 2));
    const Descriptor write_only(open(queue.file("head").c_str(), O_WRONLY));
    EXPECT_EQ(captured_stdout([&] {
                  EXPECT_EQ(fq_get_pos(queue.path(), write_only.get(), text.data(), 'r'), -1);
              }),
              "fq_get_pos.read error! rcnt=-1\n");
    const Descriptor read_only(open(queue.file("head").c_str(), O_RDONLY));
    EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(fq_set_pos(read_only.get(), text.data()), -1); }),
              "fq_set_pos.read error! wcnt=-1\n");
    queue.store("tail", "");
    const Descriptor empty(open(queue.file("tail").c_str(), O_RDONLY));
    captured_stdout(
        [&] { EXPECT_EQ(fq_get_pos(queue.path(), empty.get(), text.data(), 'w'), 31); });
    EXPECT_EQ(queue.bytes("tail"), "") << "a first record that could not be written";
}

TEST(Descriptors, a_file_never_becomes_a_standard_stream) {
    const Queue queue;
    const int saved = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    const Descriptor file = open_file(queue.file("tail").c_str(), O_RDWR | O_CREAT);
    const int free_again = fcntl(STDOUT_FILENO, F_GETFD);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_GT(file.get(), STDERR_FILENO);
    EXPECT_EQ(free_again, -1);
    EXPECT_TRUE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC);
}
