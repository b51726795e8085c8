#include <tuple>

#include "tests/print/scenario.h"

using namespace halvo::test;

namespace {

using Record = std::tuple<int, int, int, int>;

class Options : public Status {
protected:
    int load(const std::string &content) {
        const std::string path = write_file("options", content);
        int result = -2;
        echo = captured_stdout([&] { result = q_load_print_options(path.c_str()); });
        return result;
    }
    static std::vector<Record> records() {
        std::vector<Record> all;
        for (const halvo_print_option *o = qprtopts; o->channel != HALVO_OPTION_UNUSED; ++o)
            all.emplace_back(o->channel, o->indent, o->attr1, o->attr2);
        return all;
    }
    std::string echo;
};

} // namespace

TEST_F(Options, a_file_becomes_records_in_its_order) {
    EXPECT_EQ(load("# order of the night shift\n"
                   "XCN1 x1 33abc 5 ignored\r\n"
                   "  한국 0 32\n"
                   "\n   \n"
                   "  # a comment\n"
                   "NOBODY 1\n"
                   "!title 1\n"
                   "!TITLE 1 36\n"
                   "!HEADER 7\n"
                   "   MT01 -3 99999999999"), // no newline
              0);
    EXPECT_EQ(records(), (std::vector<Record>{{1, 0, -1, 33},
                                              {2, 2, 0, 32},
                                              {-888, 0, 1, 36},
                                              {-888, 0, 7, -1},
                                              {0, 3, -1, 2147483647}}));
    EXPECT_EQ(echo,
              "NAME(XCN1)(4),CHNNL(1),INDENT(0)\nNAME(한국)(4),CHNNL(2),INDENT(2)\n"
              "NAME(!TITLE)(6),CHNNL(-888),INDENT(0)\nNAME(!HEADER)(7),CHNNL(-888),INDENT(0)\n"
              "NAME(MT01)(4),CHNNL(0),INDENT(3)\n");
    EXPECT_EQ(qoptTitle, qprtopts + 2);
    EXPECT_EQ(qoptHeader, qprtopts + 3);
    EXPECT_EQ(qoptMsg, nullptr);
}

TEST_F(Options, the_next_file_replaces_the_list_and_a_missing_one_leaves_it) {
    load("MT01\n!MSG 33\n");
    load("XCN1\n");
    EXPECT_EQ(records(), (std::vector<Record>{{1, 0, -1, -1}}));
    EXPECT_EQ(qoptMsg, nullptr);
    EXPECT_LT(q_load_print_options(segment.path("missing").c_str()), 0);
    EXPECT_LT(q_load_print_options(nullptr), 0);
    EXPECT_EQ(q_load_print_options(segment.path("").c_str()), 0) << "a directory";
    EXPECT_EQ(records(), (std::vector<Record>{{1, 0, -1, -1}}));
    load("");
    EXPECT_EQ(records(), std::vector<Record>{});
}

TEST_F(Options, more_than_the_list_holds_is_ignored_with_a_word) {
    std::string content;
    for (int i = 0; i < 1025; ++i) content += "MT01\n";
    EXPECT_EQ(load(content + "XCN1\n"), 0);
    EXPECT_EQ(qprtopts[1023].channel, 0);
    const std::vector<std::string> said = lines(echo);
    EXPECT_EQ(said.size(), 1025u);
    EXPECT_NE(said.back().find("ignored"), std::string::npos);
}

TEST_F(Options, tables_and_documents_follow_the_list) {
    take_snapshot_of_before();
    load("  한국 4\nMT01 1 33\n!HEADER 7\n!TITLE 1 36\n!MSG 35\n");
    EXPECT_EQ(captured_stdout([] { q_statprint('s'); }), expected("plain_with_options.txt"));
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_statprint2('s'), 2); }),
              expected("cells_with_options.txt"));
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_statprint2('w'), 2); }),
              expected("cells_with_options_without_escapes.txt"));
    EXPECT_LT(xml('s').find("한국"), xml('s').find("MT01"));
    EXPECT_EQ(xml('s').find("XCN1"), std::string::npos);
    // Mode 'a' asks for all channels by number.
    EXPECT_NE(captured_stdout([] { q_statprint('a'); }).find("XCN1"), std::string::npos);
    EXPECT_NE(xml('a').find("XCN1"), std::string::npos);
    qprtopts[1].channel = 300;
    std::string damaged;
    EXPECT_EQ(captured_stdout([&] { damaged = xml('s'); }), "WARNNING! 300th q is null\n");
    EXPECT_NE(damaged.find("한국"), std::string::npos);
    EXPECT_EQ(damaged.substr(damaged.size() - 13), "</q>\n</smsqm>");
}

TEST_F(Options, a_special_line_ends_the_list_but_for_the_table_of_cells) {
    load("!TITLE 1\nMT01\nXCN1\n한국\n");
    EXPECT_EQ(captured_stdout([] { q_statprint('s'); }).find("XCN1"), std::string::npos);
    EXPECT_EQ(xml('s'), "<smsqm></smsqm>");
    // It takes a place: three channels, three places.
    captured_stdout([] { EXPECT_EQ(q_statprint2('s'), 2); });
}

TEST_F(Options, lines_are_read_byte_by_byte) {
    const std::string path = write_file("lines", "ab\n\nlonger\nend");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char line[5];
    for (const std::string wanted : {"ab\n", "\n", "long", "er\n", "end", ""}) {
        EXPECT_EQ(readline(fd, line, sizeof line), static_cast<int>(wanted.size()));
        EXPECT_EQ(line, wanted);
    }
    EXPECT_EQ(readline(fd, line, 0), 0);
    close(fd);
    EXPECT_EQ(readline(fd, line, sizeof line), -1);
}
