// Names, data files found by name, position records.
#include "tests/fq/queue_fixture.h"

using namespace halvo;
using namespace halvo::test;

TEST(FileNames, a_path_splits_at_its_last_slash) {
    const std::string longer(5000, 'n'), cut(4095, 'n'); // to the caller's 4096 bytes
    const std::string rows[][3] = {
        {"/var/q/mo", "/var/q", "mo"}, {"mo", ".", "mo"},  {"/mo", "", "mo"},
        {"/var/", "/var", ""},         {longer, ".", cut}, {longer + "/x", cut, "x"}};
    for (const auto &[path, directory, name] : rows) {
        char text[FQ_NAME_SIZE];
        EXPECT_EQ(fq_dirof(path.c_str(), text), 1);
        EXPECT_EQ(text, directory);
        EXPECT_EQ(fq_nameof(path.c_str(), text), 1);
        EXPECT_EQ(text, name);
    }
}

TEST(FileNames, the_file_order_follows_the_last_dot) {
    EXPECT_EQ(fq_forderof("mo.000000012"), 12);
    EXPECT_EQ(fq_forderof("mo.1.000000007"), 7);
    EXPECT_EQ(fq_forderof("mo"), 0);
    EXPECT_EQ(fq_forderof("mo.tail"), 0);
    EXPECT_EQ(fq_forderof("mo.-5"), -5);
    EXPECT_EQ(fq_forderof("mo.99999999999999999999"), 2147483647);
}

TEST(DataFiles, are_found_by_their_names) {
    const Queue queue("q[1]*?"); // which mean themselves
    const auto found = [](const std::string &path) {
        return std::pair(fq_find_forder_first(path.c_str()), fq_find_forder_last(path.c_str()));
    };
    EXPECT_EQ(found(queue.path()), std::pair(-1, 0));
    for (const int order : {7, 4, 99999999, 100000000}) queue.store(order, "");
    EXPECT_EQ(found(queue.path()), std::pair(4, 99999999)) << "ten digits have no leading zero";
    EXPECT_EQ(found(queue.directory() + "/*"), std::pair(-1, 0));
    ASSERT_EQ(chdir(queue.directory().c_str()), 0);
    EXPECT_EQ(found("q[1]*?"), std::pair(4, 99999999)) << "in the working directory";
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(found("/nowhere/at/all"), std::pair(-1, -1));
    EXPECT_EQ(found(std::string(4091, 'n')), std::pair(-1, -1));
    EXPECT_EQ(fq_find_forder_last(nullptr), -1);
    EXPECT_GE(fq_find_forder_last("/mo"), 0) << "looks in the root directory";
}

namespace {

// A position file of a queue, open as a side opens it.
struct PositionFile {
    const Queue &queue;
    char mode;
    Descriptor fd = open_file(fq::position_file(queue.path(), mode).text, O_RDWR | O_CREAT);
    std::string record = std::string(31, '?');

    Said get(const char *path = nullptr) {
        return said(
            [&] { return fq_get_pos(path ? path : queue.path(), fd.get(), record.data(), mode); });
    }
    Said set(int order, int offset) {
        record = test::record(order, offset);
        return said([&] { return fq_set_pos(fd.get(), record.data()); });
    }
};

} // namespace

TEST(Positions, the_last_record_is_the_position) {
    const Queue queue;
    PositionFile file{queue, 'w'};
    EXPECT_EQ(file.set(3, 4998211), Said(31, ""));
    EXPECT_EQ(file.record, std::string("000000003\0"
                                       "004998211\0"
                                       "     first\n",
                                       31))
        << "held with NULs behind the numbers";
    EXPECT_EQ(file.set(4, 0), Said(31, ""));
    EXPECT_EQ(queue.bytes("tail"), record(3, 4998211) + record(4, 0));
    EXPECT_EQ(file.get(), Said(31, ""));
    EXPECT_EQ(file.record, record(4, 0));
    // A torn one is skipped and written over.
    queue.store("tail", record(1, 10) + record(2, 20) + "00000000");
    EXPECT_EQ(file.get(), Said(31, "경고! 인덱스 파일 손상.... 자동복구(읽기)..offset=39 "
                                   "sizeof(fqpos)=31 modulo=8\n"));
    EXPECT_EQ(file.record, record(2, 20));
    EXPECT_EQ(file.set(3, 30), Said(31, "경고! 인덱스 파일 손상.... 자동복구(쓰기)..offset=70 "
                                        "sizeof(fqpos)=31 modulo=8\n"));
    EXPECT_EQ(queue.bytes("tail"), record(1, 10) + record(2, 20) + record(3, 30));
}

TEST(Positions, without_a_record_are_made) {
    const Queue queue;
    const auto made = [&](char mode, const std::string &before, const std::string &position,
                          const char *line = "") {
        const char *log = mode == 'w' ? "tail" : "head";
        queue.store(log, before);
        PositionFile file{queue, mode};
        const std::string side(1, mode);
        EXPECT_EQ(file.get(),
                  Said(31, "fq_get_pos.lseek error. first entry needed.(" + side + ")\n" + line +
                               "RESET POSITION first at 0\n"
                               "RESET POSITION written  31 bytes and then 31\n"
                               "RESET POSITION FOR " +
                               (mode == 'w' ? "WRITE, " : "READ, ") + position +
                               "      first\n\n"));
        EXPECT_EQ(file.record, position + "      first\n");
        EXPECT_EQ(queue.bytes(log), file.record);
    };
    made('r', "", place(0, 0), "NO FILE TO READ \n");
    made('w', "", place(0, 0));
    for (const int order : {4, 7}) queue.store(order, "");
    made('w', "", place(7, 0));
    made('r', "", place(4, 0));
    made('r', "000000009 0000", place(4, 0)); // less than one record
    queue.remove("tail");
    PositionFile lost{queue, 'w'};
    EXPECT_EQ(lost.get((queue.directory() + "/gone/q").c_str()).first, 31);
    EXPECT_EQ(lost.record.substr(0, 20), "-00000001 000000000 ");
}

TEST(Positions, of_a_file_that_cannot_be_used_fail_with_a_line) {
    const Queue queue;
    queue.store("head", record(1, 2));
    PositionFile file{queue, 'r', Descriptor()};
    EXPECT_EQ(file.set(1, 2), Said(-1, "fq_set_pos.lseek error\n"));
    file.fd.reset(open(queue.file("head").c_str(), O_WRONLY));
    EXPECT_EQ(file.get(), Said(-1, "fq_get_pos.read error! rcnt=-1\n"));
    file.fd.reset(open(queue.file("head").c_str(), O_RDONLY));
    EXPECT_EQ(file.set(1, 2), Said(-1, "fq_set_pos.read error! wcnt=-1\n"));
    queue.store("head", "");
    EXPECT_EQ(file.get().first, 31);
    EXPECT_EQ(queue.bytes("head"), "") << "a first record that could not be written";
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
